/* A PWM sweep: PWM channel 0 steps through frequencies and duty cycles, and capture
 * input 0 (wired to it in the simulator) measures each setting back.
 * Run it against a simulated adapter with:  build/polybus-sim -- build/pwm-sweep */
#include <stdio.h>
#include <time.h>

#include <polybus/polybus.h>

static void sleep_ms(long ms) {
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}

int main(void) {
    static const unsigned frequencies[] = {100, 500, 1000, 5000, 20000};
    static const unsigned duties[] = {10, 50, 90};
    int handles[30];
    int dev;
    unsigned f, d;

    if (USB_ScanDevice(handles) < 1) {
        printf("no adapter found\n");
        return 1;
    }
    dev = handles[0];
    if (!USB_OpenDevice(dev)) {
        printf("cannot open adapter %08X\n", (unsigned)dev);
        return 1;
    }
    printf("PWM timer clock %u Hz; channel 0 is mask 0x%02X\n", PWM_GetMCUFrequency(dev), PWM_GetChannelMask(dev, 0));
    printf("   set Hz  set duty | period us  high us  measured Hz  measured duty\n");
    for (f = 0; f < sizeof frequencies / sizeof frequencies[0]; ++f) {
        for (d = 0; d < sizeof duties / sizeof duties[0]; ++d) {
            PWM_CAP_DATA cap;
            /* Precision 100: the pulse is the duty cycle in percent. */
            if (PWM2_Init(dev, 0, frequencies[f], 0, 100, duties[d]) != 0 || PWM2_Start(dev, 0, 0) != 0) {
                printf("PWM set-up failed\n");
                USB_CloseDevice(dev);
                return 1;
            }
            /* 1 us ticks: 100 ns ticks would overflow at 100 Hz. */
            if (PWM_CAP_Init(dev, 0, PWM_CAP_TICK_1US) != 0) {
                printf("capture set-up failed\n");
                USB_CloseDevice(dev);
                return 1;
            }
            sleep_ms(25); /* two whole periods of the slowest setting */
            if (PWM_CAP_GetData(dev, 0, &cap) != 0) {
                printf("capture read failed\n");
                USB_CloseDevice(dev);
                return 1;
            }
            if (cap.Period == 0)
                printf("%9u  %7u%% |  (no whole period captured yet)\n", frequencies[f], duties[d]);
            else
                printf("%9u  %7u%% | %9u  %7u  %11.1f  %12.1f%%\n", frequencies[f], duties[d], cap.Period,
                       cap.ActiveTime, 1e6 / cap.Period, 100.0 * cap.ActiveTime / cap.Period);
            PWM2_Stop(dev, 0);
            PWM_CAP_Stop(dev, 0);
        }
    }
    USB_CloseDevice(dev);
    return 0;
}
