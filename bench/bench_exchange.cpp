// The library's own CPU cost of one command exchange, beyond libusb.
//
// The benchmark links the library statically and provides the few libusb transfer
// calls itself, answering instantly from memory, so what is measured is the spine
// (locking, framing, the trace check, answer judging) and nothing of USB.
//
//   bench_exchange            nanoseconds per exchange (and instructions where the
//                             kernel offers a counter)
//   valgrind --tool=callgrind bench_exchange --count 20000   for exact instructions
#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libusb.h>

#include "bench_report.h"
#include "polybus/gpio.h"
#include "transport/usb_device.h"

namespace {
uint8_t answer[12] = {0, 0, 0x06, 0x04, 0, 0, 0, 4, 0, 0, 0, 5};
size_t answer_pos = 0;
long exchanges = 0;
}  // namespace

extern "C" {
int libusb_bulk_transfer(libusb_device_handle*, unsigned char ep, unsigned char* data, int len, int* transferred,
                         unsigned int) {
    if (ep & 0x80) {
        std::memcpy(data, answer + answer_pos, static_cast<size_t>(len));
        answer_pos = (answer_pos + static_cast<size_t>(len)) % sizeof(answer);
    } else {
        ++exchanges;
    }
    *transferred = len;
    return 0;
}
int libusb_get_device_speed(libusb_device*) { return LIBUSB_SPEED_HIGH; }
}

namespace {
long read_instructions(int fd) {
    long long v = 0;
    if (fd < 0 || read(fd, &v, sizeof(v)) != sizeof(v)) return -1;
    return static_cast<long>(v);
}
}  // namespace

int main(int argc, char** argv) {
    long count = 2000000;
    if (argc == 3 && std::strcmp(argv[1], "--count") == 0) count = std::atol(argv[2]);
    auto* node = static_cast<UsbDevNode*>(std::calloc(1, sizeof(UsbDevNode)));
    node->DevHandle = 0x41000001;
    node->dev = reinterpret_cast<libusb_device*>(0x1);
    node->handle = reinterpret_cast<libusb_device_handle*>(0x1);
    usb_list_init();
    usb_list_add(node);

    perf_event_attr attr{};
    attr.type = PERF_TYPE_HARDWARE;
    attr.size = sizeof(attr);
    attr.config = PERF_COUNT_HW_INSTRUCTIONS;
    attr.exclude_kernel = 1;
    attr.exclude_hv = 1;
    int fd = static_cast<int>(syscall(SYS_perf_event_open, &attr, 0, -1, -1, 0));

    unsigned value = 0;
    for (int i = 0; i < 1000; ++i) GPIO_Read(0x41000001, 0xFF, &value);  // warm up
    const long before = read_instructions(fd);
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) {
        if (GPIO_Read(0x41000001, 0xFF, &value) != 0 || value != 5) {
            std::fprintf(stderr, "exchange failed\n");
            return 1;
        }
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const long after = read_instructions(fd);
    const double ns = std::chrono::duration<double, std::nano>(elapsed).count() / double(count);
    std::printf("command exchange, library's own cost: %.1f ns per exchange (%ld exchanges)\n", ns, exchanges);
    if (before >= 0 && after >= 0) {
        const double instructions = double(after - before) / double(count);
        std::printf("command exchange, library's own cost: %.0f instructions per exchange (target: under 2000)\n",
                    instructions);
        bench::check_target("command exchange, library's own cost", instructions, "instructions", "<", 2000);
    } else
        std::printf("instruction counter unavailable here; for exact figures run:\n"
                    "  valgrind --tool=callgrind %s --count 20000   (total / 20000; target: under 2000)\n",
                    argv[0]);
    return 0;
}
