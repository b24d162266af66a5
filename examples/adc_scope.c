/* A small scope: streams ADC inputs 0 and 1 for one second and prints the minimum,
 * maximum and mean of each. Frames wait in the library's frame list; the program drains
 * it every 50 ms with ADC_GetData. Exits 1 when streaming fails or an input got less
 * than half a second's worth of samples.
 * Run it against a simulated adapter whose inputs carry a sine and a ramp with:
 *   build/polybus-sim --world examples/worlds/adc_scope.toml -- build/adc-scope */
#include <stdio.h>
#include <time.h>

#include <polybus/polybus.h>

#define RATE_HZ 10000u   /* per input */
#define FRAME 1000       /* samples per frame: 50 ms of both inputs */
#define INPUTS 2

static short buffer[FRAME * 16];

static void sleep_ms(long ms) {
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}

int main(void) {
    int handles[30];
    int dev, n, i, round;
    long count[INPUTS] = {0, 0};
    double sum[INPUTS] = {0, 0};
    int min[INPUTS] = {65535, 65535}, max[INPUTS] = {-1, -1};
    long taken = 0;
    int failed = 0;

    if (USB_ScanDevice(handles) < 1) {
        printf("no adapter found\n");
        return 1;
    }
    dev = handles[0];
    if (!USB_OpenDevice(dev)) {
        printf("cannot open adapter %08X\n", (unsigned)dev);
        return 1;
    }
    if (ADC_StartContinueRead(dev, 0x03, RATE_HZ, FRAME, NULL) != 0) {
        printf("cannot start streaming\n");
        USB_CloseDevice(dev);
        return 1;
    }
    for (round = 0; round < 20; ++round) {
        sleep_ms(50);
        while ((n = ADC_GetData(dev, buffer, (int)(sizeof buffer / sizeof buffer[0]))) > 0) {
            for (i = 0; i < n; ++i) {
                /* Samples alternate between the inputs, input 0 first. */
                const int input = (int)((taken + i) % INPUTS);
                const int v = (unsigned short)buffer[i];
                if (v < min[input]) min[input] = v;
                if (v > max[input]) max[input] = v;
                sum[input] += v;
                ++count[input];
            }
            taken += n;
        }
    }
    ADC_StopContinueRead(dev);
    /* Frames that arrived during the stop. */
    while ((n = ADC_GetData(dev, buffer, (int)(sizeof buffer / sizeof buffer[0]))) > 0) taken += n;
    USB_CloseDevice(dev);

    printf("ADC: %ld samples from inputs 0 and 1 at %u samples/s each\n", taken, RATE_HZ);
    for (i = 0; i < INPUTS; ++i) {
        if (count[i] < (long)(RATE_HZ / 2)) {
            printf("input %d: only %ld samples\n", i, count[i]);
            failed = 1;
        }
        if (count[i] == 0) continue;
        printf("input %d: min %4d  max %4d  mean %7.1f  (%.3f V .. %.3f V)\n", i, min[i], max[i], sum[i] / count[i],
               min[i] * 3.3 / 4095, max[i] * 3.3 / 4095);
    }
    return failed;
}
