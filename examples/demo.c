/* A short tour of an adapter: scan, open, device information, GPIO.
 * Run it against simulated adapters with:  build/polybus-sim -- build/polybus-demo */
#include <stdio.h>
#include <string.h>

#include <polybus/polybus.h>

static int fail(const char* what) {
    printf("%s failed\n", what);
    return 1;
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

    USB_CloseDevice(dev);
    printf("done\n");
    return value == 0x05 ? 0 : 1;
}
