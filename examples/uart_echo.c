/* A terminal-style UART session on port 0: each line is sent, and what comes back
 * within half a second is printed. With a loop-back plug (or the simulator's echo peer)
 * every line comes back as it was sent; the program exits with status 1 when one does
 * not.
 *
 *   uart-echo [BAUD [LINE...]]   (default 115200; lines from the arguments, else typed
 *                                 lines until an empty one or the end of input)
 *
 * Against a simulated loop-back plug:
 *   build/polybus-sim --world examples/worlds/uart_echo.toml -- build/uart-echo 115200 "hello" "world"
 *   printf 'hello\nworld\n' | build/polybus-sim --world examples/worlds/uart_echo.toml -- build/uart-echo */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <polybus/polybus.h>

/* Sends one line and collects the answer; 0 when it came back unchanged. */
static int echo_line(int dev, const char* line, int len) {
    static unsigned char received[UART_READ_MAX + 1];
    static char back[1024];
    int n, total = 0;
    if (UART_WriteBytes(dev, 0, (unsigned char*)line, len) != 0) {
        printf("write failed\n");
        return -1;
    }
    /* Collect until the line is back or half a second passes without bytes. */
    while (total < len && (n = UART_ReadBytes(dev, 0, received, 500)) > 0) {
        received[n] = 0;
        printf("%s", (char*)received);
        if (total + n <= (int)sizeof back) memcpy(back + total, received, (size_t)n);
        total += n;
    }
    if (total == 0) printf("(no answer)\n");
    fflush(stdout);
    return total == len && memcmp(back, line, (size_t)len) == 0 ? 0 : -1;
}

int main(int argc, char** argv) {
    char line[512];
    UART_CONFIG config;
    int handles[POLYBUS_MAX_DEVICES], dev, i, failed = 0;
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
    printf("UART port 0 at %u bit/s\n", (unsigned)config.BaudRate);
    if (argc > 2) {
        for (i = 2; i < argc; ++i) {
            const int len = (int)strlen(argv[i]);
            if (len + 2 > (int)sizeof line) {
                printf("line %d is too long\n", i - 1);
                failed = 1;
                continue;
            }
            memcpy(line, argv[i], (size_t)len);
            line[len] = '\n';
            line[len + 1] = 0;
            if (echo_line(dev, line, len + 1) != 0) failed = 1;
        }
    } else {
        printf("type lines; an empty line ends\n");
        while (fgets(line, sizeof line, stdin) != NULL && line[0] != '\n')
            if (echo_line(dev, line, (int)strlen(line)) != 0) failed = 1;
    }
    USB_CloseDevice(dev);
    if (failed) printf("some lines did not come back as they were sent\n");
    return failed;
}
