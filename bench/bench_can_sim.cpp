// Frames per second through a simulated adapter, from CAN_SendMsg on channel 0 to
// CAN_GetMsg on channel 1: on a 1 Mbit/s bus (which carries about 9000 standard 8-byte
// frames per second) and on a bus whose frames take no time, where the USB path of the
// simulation is the limit. Also a CAN FD adapter with 64-byte frames at 1/5 Mbit/s.
#include <chrono>
#include <cstdio>
#include <vector>

#include "adapter.h"
#include "can_model.h"
#include "polybus/polybus.h"
#include "usbfs.h"

using namespace polybus_sim;

namespace {

double run(int handle, std::shared_ptr<Adapter> adapter, double bus_scale, double seconds) {
    adapter->model<CanModel>().bus(0)->set_time_scale(bus_scale);
    std::vector<CAN_MSG> out(500), in(CAN_BUFFER_FRAMES);
    for (uint32_t i = 0; i < out.size(); ++i) {
        out[i] = CAN_MSG{};
        out[i].ID = 0x100 + (i & 0xFF);
        out[i].DataLen = 8;
    }
    size_t received = 0;
    const auto start = std::chrono::steady_clock::now();
    double elapsed = 0;
    while (elapsed < seconds) {
        const int sent = CAN_SendMsg(handle, 0, out.data(), static_cast<unsigned>(out.size()));
        if (sent <= 0) {
            std::fprintf(stderr, "send failed: %d\n", sent);
            return 0;
        }
        for (;;) {
            const int n = CAN_GetMsg(handle, 1, in.data());
            if (n <= 0) break;
            received += static_cast<size_t>(n);
        }
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    return double(received) / elapsed;
}

bool open_channels(int handle, unsigned nominal, unsigned data) {
    if ((static_cast<uint32_t>(handle) >> 24) == 0x53) {
        CANFD_INIT_CONFIG c{};
        return CANFD_GetCANSpeedArg(handle, &c, nominal, data) == 0 && CANFD_Init(handle, 0, &c) == 0 &&
               CANFD_Init(handle, 1, &c) == 0;
    }
    CAN_INIT_CONFIG c{};
    return CAN_GetCANSpeedArg(handle, &c, nominal) == 0 && CAN_Init(handle, 0, &c) == 0 && CAN_Init(handle, 1, &c) == 0;
}

double run_fd(int handle, double seconds) {
    std::vector<CANFD_MSG> out(128), in(CANFD_READ_MAX_FRAMES);
    for (uint32_t i = 0; i < out.size(); ++i) {
        out[i] = CANFD_MSG{};
        out[i].ID = 0x100 + i;
        out[i].DLC = 64;
        out[i].Flags = 0x05;  // FD frame, bit-rate switch
    }
    size_t received = 0;
    const auto start = std::chrono::steady_clock::now();
    double elapsed = 0;
    while (elapsed < seconds) {
        if (CANFD_SendMsg(handle, 0, out.data(), static_cast<unsigned>(out.size())) <= 0) return 0;
        for (;;) {
            const int n = CANFD_GetMsg(handle, 1, in.data(), CANFD_READ_MAX_FRAMES);
            if (n <= 0) break;
            received += static_cast<size_t>(n);
        }
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    return double(received) / elapsed;
}

}  // namespace

int main(int argc, char** argv) {
    ensure_preloaded(argc, argv);
    AdapterConfig classic;
    classic.identifier = 0x41000001;
    AdapterConfig fd;
    fd.identifier = 0x53000002;
    auto a = Simulator::instance().add(classic);
    auto b = Simulator::instance().add(fd);
    int handles[POLYBUS_MAX_DEVICES];
    if (USB_ScanDevice(handles) != 2 || !USB_OpenDevice(int(classic.identifier)) || !USB_OpenDevice(int(fd.identifier))) {
        std::fprintf(stderr, "simulated adapters not found\n");
        return 1;
    }
    const int h = int(classic.identifier), hf = int(fd.identifier);
    if (!open_channels(h, 1000000, 0) || !open_channels(hf, 1000000, 5000000)) {
        std::fprintf(stderr, "channel set-up failed\n");
        return 1;
    }
    std::printf("simulated adapter, CAN_SendMsg ch0 -> CAN_GetMsg ch1, 1 Mbit/s bus: %.0f frames/s "
                "(the bus carries about 9000)\n",
                run(h, a, 1.0, 2.0));
    std::printf("simulated adapter, same path, bus taking no time (USB simulation is the limit): %.0f frames/s\n",
                run(h, a, 0.0, 2.0));
    std::printf("simulated CAN FD adapter, 64-byte frames at 1/5 Mbit/s, CANFD_SendMsg -> CANFD_GetMsg: %.0f frames/s\n",
                run_fd(hf, 2.0));
    USB_CloseDevice(h);
    USB_CloseDevice(hf);
    Simulator::instance().remove_all();
    return 0;
}
