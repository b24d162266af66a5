/* Reads the vehicle identification number (data identifier 0xF190) from an ECU with UDS
 * over CAN: channel 0 at 500 kbit/s, request identifier 0x7E0, response 0x7E8, normal
 * addressing, classic 8-byte frames.
 *
 * Run it against a simulated adapter whose bus carries a diagnostic ECU:
 *   build/polybus-sim --world examples/worlds/uds_read_vin.toml -- build/uds-read-vin
 *
 * Exits 0 when the VIN was read, 1 otherwise. */
#include <stdio.h>
#include <string.h>

#include <polybus/polybus.h>

/* Room for the longest answer a first frame below 4096 bytes can announce. */
static unsigned char answer[4095];

static int read_vin(int dev) {
    CAN_INIT_CONFIG config;
    CAN_UDS_ADDR addr;
    unsigned char request[3] = {0x22, 0xF1, 0x90};
    int rc, n, i;
    if (CAN_GetCANSpeedArg(dev, &config, 500000) != 0 || CAN_Init(dev, 0, &config) != 0) {
        printf("CAN set-up failed\n");
        return 1;
    }
    memset(&addr, 0, sizeof(addr));
    addr.RequestId = 0x7E0;
    addr.ResponseId = 0x7E8;
    addr.FrameLen = 8;
    rc = CAN_UDS_Request(dev, 0, &addr, request, (int)sizeof(request));
    if (rc == CAN_UDS_ERR_NOT_ACCEPTED) {
        printf("nobody acknowledged the request: is there an ECU on the bus?\n");
        return 1;
    }
    if (rc != 0) {
        printf("request failed: %d\n", rc);
        return 1;
    }
    n = CAN_UDS_Response(dev, 0, &addr, answer, 1000);
    if (n == CAN_UDS_ERR_TIMEOUT) {
        printf("no answer: is there an ECU on the bus?\n");
        return 1;
    }
    if (n < 0) {
        printf("response failed: %d\n", n);
        return 1;
    }
    if (n >= 3 && answer[0] == 0x7F) {
        printf("the ECU refused: negative response code 0x%02X\n", answer[2]);
        return 1;
    }
    if (n < 3 || answer[0] != 0x62 || answer[1] != 0xF1 || answer[2] != 0x90) {
        printf("unexpected answer of %d bytes\n", n);
        return 1;
    }
    printf("VIN: ");
    for (i = 3; i < n; ++i) putchar(answer[i] >= 0x20 && answer[i] < 0x7F ? answer[i] : '?');
    printf("\n");
    return 0;
}

int main(void) {
    int handles[POLYBUS_MAX_DEVICES];
    int dev, result;
    if (USB_ScanDevice(handles) < 1) {
        printf("no adapter found\n");
        return 1;
    }
    dev = handles[0];
    if (!USB_OpenDevice(dev)) {
        printf("cannot open the adapter\n");
        return 1;
    }
    result = read_vin(dev);
    USB_CloseDevice(dev);
    return result;
}
