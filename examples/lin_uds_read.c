/* Reads a data identifier from a LIN diagnostic node (NAD 0x0A on channel 0) with
 * LIN_UDS_Request and LIN_UDS_Response: ReadDataByIdentifier (0x22) of 0xF190.
 *
 *   build/polybus-sim --world examples/worlds/lin_uds_read.toml -- build/lin-uds-read [identifier in hex]
 *
 * The world places the diagnostic node on the adapter's LIN channel 0. Exits 0 when the
 * node answered positively, 1 otherwise. */
#include <stdio.h>
#include <stdlib.h>

#include <polybus/polybus.h>

static unsigned char response[LIN_UDS_MAX_DATA];

int main(int argc, char** argv) {
    int handles[POLYBUS_MAX_DEVICES];
    LIN_UDS_ADDR addr = {0x3C, 0x3D, 0x0A, LIN_EX_CHECK_CLASSIC, 0, {0, 0, 0}};
    unsigned did = argc > 1 ? (unsigned)strtoul(argv[1], NULL, 16) : 0xF190u;
    unsigned char request[3];
    int dev, n, i;

    if (USB_ScanDevice(handles) < 1) return printf("no adapter found\n"), 1;
    dev = handles[0];
    if (!USB_OpenDevice(dev)) return printf("cannot open the adapter\n"), 1;
    if (LIN_EX_Init(dev, 0, 19200, 1) != 0) return printf("LIN init failed\n"), 1;

    request[0] = 0x22;
    request[1] = (unsigned char)(did >> 8);
    request[2] = (unsigned char)did;
    n = LIN_UDS_Request(dev, 0, &addr, request, 3);
    if (n != 0) return printf("request failed: %d\n", n), 1;
    n = LIN_UDS_Response(dev, 0, &addr, response, 1000);
    if (n == LIN_UDS_ERR_TIMEOUT) return printf("no answer from node 0x%02X (is one on channel 0?)\n", addr.NAD), 1;
    if (n < 0) return printf("response failed: %d\n", n), 1;
    if (n >= 1 && response[0] == 0x7F) return printf("negative response, code 0x%02X\n", n > 2 ? response[2] : 0), 1;
    printf("identifier 0x%04X: %d bytes:", did, n > 3 ? n - 3 : 0);
    for (i = 3; i < n; ++i) printf(" %02X", response[i]);
    printf("\n");
    USB_CloseDevice(dev);
    return 0;
}
