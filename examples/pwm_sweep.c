/* A PWM sweep: PWM channel 0 steps through frequencies and duty cycles, and capture
 * input 0 (wired to it) measures each setting back. The timer divides its clock by a
 * whole prescaler, so the program works out the period really produced and exits 1
 * when a measured period or high time is off from it by more than one capture tick
 * (each is rounded to a tick), or when a setting cannot be made or measured.
 * Run it against a simulated adapter with channel 0 wired to capture input 0:
 *   build/polybus-sim --world examples/worlds/pwm_sweep.toml -- build/pwm-sweep */
#include <stdio.h>
#include <time.h>

#include <polybus/polybus.h>

static double distance(double a, double b) { return a > b ? a - b : b - a; }

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
    unsigned f, d, clock;
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
    clock = PWM_GetMCUFrequency(dev);
    printf("PWM timer clock %u Hz; channel 0 is mask 0x%02X\n", clock, PWM_GetChannelMask(dev, 0));
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
            if (cap.Period == 0) {
                printf("%9u  %7u%% |  (no whole period captured)\n", frequencies[f], duties[d]);
                failed = 1;
            } else {
                /* What the timer really produces: clock / (whole prescaler x 100), in us. */
                const double period_us = clock == 0 ? 0 : (double)(clock / (frequencies[f] * 100u)) * 100.0 * 1e6 / clock;
                const double high_us = period_us * duties[d] / 100.0;
                const int off = distance(cap.Period, period_us) > 1.0 || distance(cap.ActiveTime, high_us) > 1.0;
                printf("%9u  %7u%% | %9u  %7u  %11.1f  %12.1f%%%s\n", frequencies[f], duties[d], cap.Period,
                       cap.ActiveTime, 1e6 / cap.Period, 100.0 * cap.ActiveTime / cap.Period,
                       off ? "  <- off" : "");
                if (off) {
                    printf("  expected period %.1f us, high %.1f us\n", period_us, high_us);
                    failed = 1;
                }
            }
            PWM2_Stop(dev, 0);
            PWM_CAP_Stop(dev, 0);
        }
    }
    USB_CloseDevice(dev);
    printf("%s\n", failed ? "some settings were not measured back" : "every setting measured back");
    return failed;
}
