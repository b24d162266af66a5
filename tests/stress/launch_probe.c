/* A short program run through the launcher by the launch stress test: it finds
 * the simulated adapters the way any application does and exits 0 when it sees
 * exactly the number it was told to expect. */
#include <stdio.h>
#include <stdlib.h>

#include "polybus/polybus.h"

int main(int argc, char** argv) {
    int handles[POLYBUS_MAX_DEVICES];
    int expected = argc > 1 ? atoi(argv[1]) : 1;
    int found = USB_ScanDevice(handles);
    if (found != expected) {
        fprintf(stderr, "launch_probe: found %d adapters, expected %d\n", found, expected);
        return 1;
    }
    return 0;
}
