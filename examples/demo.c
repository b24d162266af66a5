/* A short tour of an adapter: scan, open, device information, GPIO, CAN.
 * Run it against simulated adapters with:  build/polybus-sim -- build/polybus-demo */
#include <stdio.h>
#include <string.h>

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
        frames[i].ID = 0x100 + (unsigned)i;
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
    for (i = 0; i < count; ++i)
        printf("CAN: channel 1 received ID 0x%X%s, %u bytes, first byte 0x%02X, time stamp %u x 100 us\n",
               (unsigned)received[i].ID, received[i].ExternFlag ? " (29-bit)" : "", (unsigned)received[i].DataLen,
               received[i].Data[0], (unsigned)received[i].TimeStamp);
    CAN_Stop(dev, 0);
    CAN_Stop(dev, 1);
    return count == sent ? 0 : fail("CAN transfer");
}

int main(void) {
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

    USB_CloseDevice(dev);
    printf("done\n");
    return value == 0x05 ? 0 : 1;
}
