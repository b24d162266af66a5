/* A short tour of an adapter: scan, open, device information, GPIO, CAN; then a look at
 * what the adapter is wired to (input pins, a second of CAN traffic, decoded with a DBC
 * file when one is given).
 * Run it against simulated adapters with:  build/polybus-sim -- build/polybus-demo
 * or against a simulated world:
 *   build/polybus-sim --world examples/worlds/two_adapters.toml -- \
 *       build/polybus-demo examples/worlds/powertrain.dbc */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <polybus/polybus.h>

static int fail(const char* what) {
    printf("%s failed\n", what);
    return 1;
}

/* Room for everything a channel's receive buffer can hold. */
static CAN_MSG received[CAN_BUFFER_FRAMES];

/* Both CAN channels at 500 kbit/s (on one bus in the simulator): three frames sent on
 * channel 0 are received on channel 1. On a CAN FD adapter the same calls work. */
static int can_tour(int dev) {
    CAN_INIT_CONFIG config;
    CAN_MSG frames[3];
    int i, sent, count;
    if (CAN_GetCANSpeedArg(dev, &config, 500000) != 0) return fail("CAN bit timing");
    if (CAN_Init(dev, 0, &config) != 0 || CAN_Init(dev, 1, &config) != 0) return fail("CAN init");
    memset(frames, 0, sizeof(frames));
    for (i = 0; i < 3; ++i) {
        frames[i].ID = 0x6A0 + (unsigned)i;
        frames[i].DataLen = 4;
        frames[i].Data[0] = (uint8_t)(0xA0 + i);
        frames[i].Data[3] = (uint8_t)i;
    }
    frames[2].ID = 0x18DAF110;
    frames[2].ExternFlag = 1;
    sent = CAN_SendMsg(dev, 0, frames, 3);
    if (sent < 0) return fail("CAN send");
    printf("CAN: sent %d frames on channel 0 at 500 kbit/s\n", sent);
    count = CAN_GetMsg(dev, 1, received);
    if (count < 0) return fail("CAN receive");
    /* Other nodes on the bus may talk too: look for our own three frames. */
    int ours = 0;
    for (i = 0; i < count; ++i) {
        if (received[i].ID != frames[ours < 3 ? ours : 2].ID) continue;
        printf("CAN: channel 1 received ID 0x%X%s, %u bytes, first byte 0x%02X, time stamp %u x 100 us\n",
               (unsigned)received[i].ID, received[i].ExternFlag ? " (29-bit)" : "", (unsigned)received[i].DataLen,
               received[i].Data[0], (unsigned)received[i].TimeStamp);
        if (++ours == 3) break;
    }
    if (count > ours) printf("CAN: channel 1 also received %d frames from other nodes\n", count - ours);
    CAN_Stop(dev, 0);
    CAN_Stop(dev, 1);
    return ours == sent ? 0 : fail("CAN transfer");
}

static void sleep_ms(long ms) {
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}

/* Traffic per identifier over a listening period. */
struct seen {
    unsigned id;
    int extended, count;
    uint64_t first, last;
};

static uint64_t stamp_of(const CAN_MSG* m) { return (uint64_t)m->TimeStampHigh << 32 | m->TimeStamp; }

/* What the adapter is wired to. Failures here are reported, not fatal: a world may
 * script faults on purpose. */
static void world_tour(int dev, const char* dbc_file) {
    unsigned levels = 0;
    int rc, i, j, count, kinds = 0;
    static struct seen seen[64];
    CAN_INIT_CONFIG config;
    CAN_STATUS status;

    if (GPIO_SetInput(dev, 0xFF00, 0) == 0 && (rc = GPIO_Read(dev, 0xFF00, &levels)) == 0)
        printf("GPIO: input pins 8-15 read 0x%02X\n", (levels >> 8) & 0xFF);
    else
        printf("GPIO: reading input pins 8-15 failed\n");

    if (CAN_GetCANSpeedArg(dev, &config, 500000) != 0 || CAN_Init(dev, 0, &config) != 0) {
        printf("CAN: channel 0 did not start\n");
        return;
    }
    CAN_StartGetMsg(dev, 0);
    sleep_ms(1000);
    count = CAN_GetMsg(dev, 0, received);
    CAN_StopGetMsg(dev, 0);
    if (count < 0) {
        printf("CAN: listening on channel 0 failed: %d\n", count);
        count = 0;
    }
    printf("CAN: channel 0 heard %d frames in 1 s at 500 kbit/s\n", count);
    for (i = 0; i < count; ++i) {
        for (j = 0; j < kinds; ++j)
            if (seen[j].id == received[i].ID && seen[j].extended == received[i].ExternFlag) break;
        if (j == kinds) {
            if (kinds == 64) continue;
            seen[j].id = received[i].ID;
            seen[j].extended = received[i].ExternFlag;
            seen[j].count = 0;
            seen[j].first = stamp_of(&received[i]);
            ++kinds;
        }
        seen[j].count++;
        seen[j].last = stamp_of(&received[i]);
    }
    for (j = 0; j < kinds; ++j) {
        printf("CAN:   ID 0x%X%s: %d frames", seen[j].id, seen[j].extended ? " (29-bit)" : "", seen[j].count);
        if (seen[j].count > 1)
            printf(", one every %.1f ms", (double)(seen[j].last - seen[j].first) / 10.0 / (seen[j].count - 1));
        printf("\n");
    }
    if (dbc_file != NULL && count > 0) {
        uint64_t db = DBC_ParserFile(dev, dbc_file);
        int messages = db ? DBC_GetMsgQuantity(db) : 0;
        if (db == 0) printf("DBC: cannot read %s\n", dbc_file);
        DBC_SyncCANMsgToValue(db, received, count);
        for (i = 0; i < messages; ++i) {
            char name[256], signal[256], value[512];
            CAN_MSG probe;
            int signals, s, heard = 0;
            if (DBC_GetMsgName(db, i, name) != 0) continue;
            memset(&probe, 0, sizeof(probe));
            DBC_SyncValueToCANMsg(db, name, &probe);
            for (j = 0; j < kinds; ++j)
                if (seen[j].id == probe.ID && seen[j].extended == probe.ExternFlag) heard = 1;
            if (!heard) continue;
            printf("DBC: %s (last frame heard):\n", name);
            signals = DBC_GetMsgSignalQuantity(db, name);
            for (s = 0; s < signals; ++s)
                if (DBC_GetMsgSignalName(db, name, s, signal) == 0 && DBC_GetSignalValueStr(db, name, signal, value) == 0)
                    printf("DBC:   %s = %s\n", signal, value);
        }
    }
    rc = CAN_GetStatus(dev, 0, &status);
    if (rc == 0)
        printf("CAN: channel 0 error counters: transmit %u, receive %u\n", (unsigned)status.TECounter,
               (unsigned)status.RECounter);
    else
        printf("CAN: reading the error state failed: %d\n", rc);
    CAN_Stop(dev, 0);
}

int main(int argc, char** argv) {
    const char* dbc_file = argc > 1 ? argv[1] : NULL;
    int handles[POLYBUS_MAX_DEVICES];
    int count = USB_ScanDevice(handles);
    printf("adapters found: %d\n", count);
    if (count <= 0) return fail("scan");
    int dev = handles[0];
    printf("adapter handle: 0x%08X (model 0x%02X)\n", (unsigned)dev, ((unsigned)dev >> 24) & 0xFF);
    if (!USB_OpenDevice(dev)) return fail("open");

    DEVICE_INFO info;
    char functions[POLYBUS_FUNCTION_STRING_SIZE];
    if (!DEV_GetDeviceInfo(dev, &info, functions)) return fail("device information");
    unsigned v = info.FirmwareVersion;
    printf("firmware: %.32s, version %u.%u.%u\n", info.FirmwareName, v >> 24, (v >> 16) & 0xFF, v & 0xFFFF);
    printf("serial number: %08X-%08X-%08X\n", info.SerialNumber[0], info.SerialNumber[1], info.SerialNumber[2]);
    printf("functions: %s\n", functions);
    char build[32];
    DEV_GetDllBuildTime(build);
    printf("library build time: %s\n", build);

    /* Pins 0-3 as push-pull outputs, written and read back. */
    unsigned pins = 0x0F, value = 0;
    if (GPIO_SetOutput(dev, pins, 0) != 0) return fail("GPIO set output");
    if (GPIO_Write(dev, pins, 0x05) != 0) return fail("GPIO write");
    if (GPIO_Read(dev, pins, &value) != 0) return fail("GPIO read");
    printf("GPIO: wrote 0x05 to pins 0-3, read back 0x%02X\n", value);

    if (can_tour(dev) != 0) return 1;
    world_tour(dev, dbc_file);

    USB_CloseDevice(dev);
    printf("done\n");
    return value == 0x05 ? 0 : 1;
}
