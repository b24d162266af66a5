/* Dumps a 24C-family I2C EEPROM to a file and writes a file back to it, page by page,
 * verifying by read-back.
 *
 *   eeprom-dump read  FILE [SIZE [PAGE [ADDRESS]]]    (defaults: 256 bytes, 8, 0x50)
 *   eeprom-dump write FILE [SIZE [PAGE [ADDRESS]]]
 *
 * Devices above 2 KiB take two address bytes; smaller ones one (larger small devices
 * answer at ADDRESS + 1, + 2, ... for each further 256 bytes). The first adapter found
 * is used, I2C channel 0. Writing exits with status 1 unless the read-back matches.
 *
 * Against a simulated 24C16:
 *   build/polybus-sim --world examples/worlds/eeprom.toml -- build/eeprom-dump write examples/worlds/eeprom_image.txt 2048 16 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <polybus/polybus.h>

static int open_first(void) {
    int handles[POLYBUS_MAX_DEVICES];
    if (USB_ScanDevice(handles) < 1 || !USB_OpenDevice(handles[0])) return 0;
    return handles[0];
}

/* The device address and the address bytes for a memory offset. */
static int frame_address(unsigned offset, unsigned size, unsigned base, unsigned char* bytes, short* device) {
    if (size > 2048) {
        bytes[0] = (unsigned char)(offset >> 8);
        bytes[1] = (unsigned char)offset;
        *device = (short)base;
        return 2;
    }
    bytes[0] = (unsigned char)offset;
    *device = (short)(base + (offset >> 8));
    return 1;
}

/* After a page write the device acknowledges nothing until its write cycle is over:
 * poll with empty writes. */
static int wait_ready(int dev, short device) {
    int tries;
    for (tries = 0; tries < 200; ++tries)
        if (IIC_WriteBytes(dev, 0, device, NULL, 0, 5) == 0) return 0;
    return -1;
}

static int read_all(int dev, unsigned size, unsigned base, unsigned char* out) {
    unsigned offset;
    for (offset = 0; offset < size; offset += 256) {
        unsigned char addr[2];
        short device;
        const int n = frame_address(offset, size, base, addr, &device);
        const unsigned len = size - offset < 256 ? size - offset : 256;
        const int rc = IIC_WriteReadBytes(dev, 0, device, addr, n, out + offset, (int)len, 100);
        if (rc != 0) {
            printf("read at 0x%X failed: %d\n", offset, rc);
            return -1;
        }
    }
    return 0;
}

int main(int argc, char** argv) {
    unsigned size = 256, page = 8, base = 0x50, offset;
    unsigned char* memory;
    unsigned char* check;
    IIC_CONFIG config;
    FILE* f;
    int dev, rc = 1;
    if (argc < 3 || (strcmp(argv[1], "read") != 0 && strcmp(argv[1], "write") != 0)) {
        printf("usage: %s read|write FILE [SIZE [PAGE [ADDRESS]]]\n", argv[0]);
        return 2;
    }
    if (argc > 3) size = (unsigned)strtoul(argv[3], NULL, 0);
    if (argc > 4) page = (unsigned)strtoul(argv[4], NULL, 0);
    if (argc > 5) base = (unsigned)strtoul(argv[5], NULL, 0);
    if (size == 0 || page == 0 || page > 256) return 2;
    dev = open_first();
    if (!dev) {
        printf("no adapter\n");
        return 1;
    }
    memset(&config, 0, sizeof config);
    config.Setting32 = 400000;
    config.AddrBits = 7;
    memory = (unsigned char*)calloc(size, 1);
    check = (unsigned char*)calloc(size, 1);
    if (!memory || !check || IIC_Init(dev, 0, &config) != 0) goto done;

    if (strcmp(argv[1], "read") == 0) {
        if (read_all(dev, size, base, memory) != 0) goto done;
        f = fopen(argv[2], "wb");
        if (!f || fwrite(memory, 1, size, f) != size) {
            printf("cannot write %s\n", argv[2]);
            if (f) fclose(f);
            goto done;
        }
        fclose(f);
        printf("read %u bytes from the EEPROM at 0x%02X into %s\n", size, base, argv[2]);
        rc = 0;
        goto done;
    }

    f = fopen(argv[2], "rb");
    if (!f) {
        printf("cannot open %s\n", argv[2]);
        goto done;
    }
    /* A file shorter than the device leaves the rest erased (0xFF). */
    memset(memory, 0xFF, size);
    if (fread(memory, 1, size, f) == 0) {
        printf("%s is empty\n", argv[2]);
        fclose(f);
        goto done;
    }
    fclose(f);
    for (offset = 0; offset < size; offset += page) {
        unsigned char frame[2 + 256];
        short device;
        const int n = frame_address(offset, size, base, frame, &device);
        const unsigned len = size - offset < page ? size - offset : page;
        memcpy(frame + n, memory + offset, len);
        if (wait_ready(dev, device) != 0 || IIC_WriteBytes(dev, 0, device, frame, n + (int)len, 100) != 0) {
            printf("page write at 0x%X failed\n", offset);
            goto done;
        }
    }
    if (wait_ready(dev, (short)base) != 0 || read_all(dev, size, base, check) != 0) goto done;
    if (memcmp(memory, check, size) != 0) {
        printf("verification failed\n");
        goto done;
    }
    printf("wrote and verified %u bytes in pages of %u\n", size, page);
    rc = 0;
done:
    free(memory);
    free(check);
    USB_CloseDevice(dev);
    return rc;
}
