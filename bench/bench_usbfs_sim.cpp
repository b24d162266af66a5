// Cost of one command exchange through the simulated USB layer and the real
// libusb: an 8-byte bulk OUT, then the device's 8-byte header and N-byte payload
// read back as two bulk IN transfers, all with synchronous libusb calls. This is
// the pattern of every adapter command, so it bounds how fast end-to-end tests run.

#include "bench_report.h"
#include "usbfs.h"

#include <libusb.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

using namespace polybus_sim;

namespace {

// Answers every 8-byte command with a header and a payload of the requested size.
class Responder : public UsbFunction {
public:
    int port = -1;
    int control(const ControlSetup& s, uint8_t* data) override {
        if (s.wLength >= 4) {
            data[0] = data[1] = data[2] = data[3] = 0x5a;
            return 4;
        }
        return -EPIPE;
    }
    void out(uint8_t, bool, const uint8_t* data, size_t len) override {
        if (len < 8) return;
        size_t n = data[4] | data[5] << 8;
        std::vector<uint8_t> header(data, data + 8), payload(n, 0xa5);
        UsbHost::instance().queue_in(port, {std::move(header), std::move(payload)});
    }
};

double cpu_seconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

}  // namespace

int main(int argc, char** argv) {
    ensure_preloaded(argc, argv);
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 2000;
    auto fn = std::make_shared<Responder>();
    fn->port = UsbHost::instance().plug(fn, {});

    libusb_context* ctx = nullptr;
    if (libusb_init(&ctx) != 0) return 1;
    libusb_device_handle* h = libusb_open_device_with_vid_pid(ctx, 0x0483, 0x7918);
    if (!h || libusb_claim_interface(h, 0) != 0) {
        std::fprintf(stderr, "cannot open the simulated device\n");
        return 1;
    }

    std::printf("%-34s %10s %10s %10s   %s\n", "exchange", "us/op", "ioctls/op", "cpu us/op", "target");
    for (size_t payload : {8u, 64u, 512u, 4096u}) {
        uint8_t cmd[8] = {0x10, 0, 0, 0, uint8_t(payload), uint8_t(payload >> 8), 0, 0};
        std::vector<uint8_t> in(payload > 512 ? payload : 512);
        uint8_t header[8];
        auto run = [&](int n) {
            for (int i = 0; i < n; ++i) {
                int got;
                if (libusb_bulk_transfer(h, 0x01, cmd, 8, &got, 1000) != 0 ||
                    libusb_bulk_transfer(h, 0x81, header, 8, &got, 1000) != 0 ||
                    libusb_bulk_transfer(h, 0x81, in.data(), int(in.size()), &got, 1000) != 0 ||
                    size_t(got) != payload) {
                    std::fprintf(stderr, "exchange failed\n");
                    std::exit(1);
                }
            }
        };
        run(rounds / 10);  // warm up
        uint64_t ioctls0 = UsbHost::instance().ioctl_count();
        double cpu0 = cpu_seconds();
        auto t0 = std::chrono::steady_clock::now();
        run(rounds);
        double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count() / rounds;
        double cpu = (cpu_seconds() - cpu0) * 1e6 / rounds;
        double ioctls = double(UsbHost::instance().ioctl_count() - ioctls0) / rounds;
        char name[64];
        std::snprintf(name, sizeof name, "8 out, 8+%zu in", payload);
        std::printf("%-34s %10.1f %10.1f %10.1f   <= 500 us\n", name, us, ioctls, cpu);
        bench::check_target((std::string("exchange through the simulated USB, ") + name).c_str(), us, "us", "<=", 500);
    }

    uint8_t buf[4];
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) libusb_control_transfer(h, 0xC0, 1, 0, 0, buf, 4, 1000);
    double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count() / rounds;
    std::printf("%-34s %10.1f %10s %10s   <= 200 us\n", "vendor control IN, 4 bytes", us, "", "");
    bench::check_target("vendor control IN through the simulated USB, 4 bytes", us, "us", "<=", 200);

    libusb_release_interface(h, 0);
    libusb_close(h);
    libusb_exit(ctx);
    UsbHost::instance().unplug(fn->port);
    return 0;
}
