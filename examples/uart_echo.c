/* A terminal-style UART session on port 0: each line typed is sent, and what comes
 * back within half a second is printed. With a loop-back plug (or the simulator's echo
 * peer) every line comes back as it was typed.
 *
 *   uart-echo [BAUD]      (default 115200; end with an empty line or end of input) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <polybus/polybus.h>

int main(int argc, char** argv) {
    static unsigned char received[UART_READ_MAX + 1];
    char line[512];
    UART_CONFIG config;
    int handles[POLYBUS_MAX_DEVICES], dev;
    memset(&config, 0, sizeof config);
    config.BaudRate = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 0) : 115200u;
    if (USB_ScanDevice(handles) < 1 || !USB_OpenDevice(handles[0])) {
        printf("no adapter\n");
        return 1;
    }
    dev = handles[0];
    if (UART_Init(dev, 0, &config) != 0 || UART_ClearData(dev, 0) != 0) {
        printf("UART set-up failed\n");
        USB_CloseDevice(dev);
        return 1;
    }
    printf("UART port 0 at %u bit/s; type lines, an empty line ends\n", (unsigned)config.BaudRate);
    while (fgets(line, sizeof line, stdin) != NULL && line[0] != '\n') {
        const int len = (int)strlen(line);
        int n, total = 0;
        if (UART_WriteBytes(dev, 0, (unsigned char*)line, len) != 0) {
            printf("write failed\n");
            break;
        }
        /* Collect until the line is back or half a second passes without bytes. */
        while (total < len && (n = UART_ReadBytes(dev, 0, received, 500)) > 0) {
            received[n] = 0;
            printf("%s", (char*)received);
            total += n;
        }
        if (total == 0) printf("(no answer)\n");
        fflush(stdout);
    }
    USB_CloseDevice(dev);
    return 0;
}
