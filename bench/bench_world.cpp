// A busy simulated world: 4 adapters, 8 CAN channels on 2 shared buses, 20 nodes
// sending DBC messages at their cycle times, and a host that reads every channel and
// sends bursts of its own, for 10 s of bus time. Reports what the simulator costs per
// simulated second and checks that every frame the host asked for arrived.
//
//   bench_world [SECONDS]
#include <dirent.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "can_model.h"
#include "polybus/polybus.h"
#include "usbfs.h"
#include "world.h"

namespace {

constexpr int kPeers = 20;
constexpr uint32_t kHostIdBase = 0x700;  // the host's own frames: 0x700..0x709
// The host's readers poll each of the 8 channels every 10 ms: 800 exchanges per second
// at the simulator's target of 0.5 ms each is 0.4 s; the bus models' share is small.
constexpr double kTargetCpuPerSecond = 0.5;
constexpr double kTargetModelCpuPerSecond = 0.1;

struct Adapter {
    std::string name;
    uint32_t id;
};
const Adapter kAdapters[] = {{"a", 0x41000001}, {"b", 0x41000002}, {"c", 0x53000003}, {"d", 0x54000004}};

// Every peer sends two messages, at 10 and 20 ms; each bus carries ten peers.
std::string dbc_text() {
    std::ostringstream s;
    s << "VERSION \"\"\n\nBU_: Host\n\n";
    for (int p = 0; p < kPeers; ++p) {
        for (int m = 0; m < 2; ++m) {
            s << "BO_ " << 0x100 + 2 * p + m << " P" << p << (m ? "Slow" : "Fast") << ": 8 Node" << p << "\n";
            s << " SG_ Value : 0|16@1+ (0.1,0) [0|6553.5] \"\" Host\n";
            s << " SG_ Wave : 16|12@0- (1,0) [-2048|2047] \"\" Host\n";
            s << " SG_ Count : 56|8@1+ (1,0) [0|255] \"\" Host\n";
        }
    }
    s << "\nBA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 10000;\nBA_DEF_DEF_ \"GenMsgCycleTime\" 0;\n";
    for (int p = 0; p < kPeers; ++p) {
        s << "BA_ \"GenMsgCycleTime\" BO_ " << 0x100 + 2 * p << " 10;\n";
        s << "BA_ \"GenMsgCycleTime\" BO_ " << 0x101 + 2 * p << " 20;\n";
    }
    return s.str();
}

std::string world_text() {
    std::ostringstream s;
    for (auto& a : kAdapters) s << "[[adapter]]\nname = \"" << a.name << "\"\nid = " << a.id << "\n\n";
    s << "[[can_bus]]\nname = \"powertrain\"\nbitrate = 500000\nchannels = [\"a:0\", \"b:0\", \"c:0\", \"d:0\"]\n\n";
    s << "[[can_bus]]\nname = \"chassis\"\nbitrate = 500000\nchannels = [\"a:1\", \"b:1\", \"c:1\", \"d:1\"]\n\n";
    for (int p = 0; p < kPeers; ++p) {
        s << "[[can_dbc_peer]]\nname = \"node" << p << "\"\nbus = \"" << (p < kPeers / 2 ? "powertrain" : "chassis")
          << "\"\ndbc = \"bench.dbc\"\nstart_ms = " << p * 0.37 << "\nmessages = [\"P" << p << "Fast\", \"P" << p
          << "Slow\"]\n[can_dbc_peer.signals]\nValue = { wave = \"ramp\", from = 0, to = 6000, period_ms = 3000 }\n"
          << "Wave = { wave = \"sine\", min = -2000, max = 2000, period_ms = 700 }\nCount = { wave = \"counter\" }\n\n";
    }
    return s.str();
}

// CPU seconds per thread name, from /proc.
std::map<std::string, double> cpu_by_thread() {
    std::map<std::string, double> out;
    const double tick = double(sysconf(_SC_CLK_TCK));
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return out;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        const std::string base = std::string("/proc/self/task/") + e->d_name;
        std::ifstream comm(base + "/comm"), stat(base + "/stat");
        std::string name, line;
        std::getline(comm, name);
        std::getline(stat, line);
        const size_t close = line.rfind(')');
        if (close == std::string::npos) continue;
        std::istringstream fields(line.substr(close + 2));
        std::string f;
        unsigned long long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && fields >> f; ++i) {
            if (i == 14) utime = std::strtoull(f.c_str(), nullptr, 10);
            if (i == 15) stime = std::strtoull(f.c_str(), nullptr, 10);
        }
        out[name] += double(utime + stime) / tick;
    }
    closedir(d);
    return out;
}

// Seconds per thread name that the threads spent answering their own requests to
// the simulated adapters: simulator work inside the program's threads.
std::map<std::string, double> answering_by_thread() {
    std::map<std::string, double> out;
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return out;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        out[name] += polybus_sim::UsbHost::instance().answering_seconds(std::atoi(e->d_name));
    }
    closedir(d);
    return out;
}

double process_cpu() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

struct Counts {
    uint64_t peer = 0, host = 0;
};

// Moves every buffered frame of a channel out and counts it.
void drain(int dev, int ch, Counts& counts, std::vector<CAN_MSG>& buffer) {
    for (;;) {
        const int n = CAN_GetMsgWithSize(dev, uint8_t(ch), buffer.data(), int(buffer.size()));
        if (n <= 0) return;
        for (int i = 0; i < n; ++i) {
            if (buffer[i].ID >= kHostIdBase && buffer[i].ID < kHostIdBase + 10) ++counts.host;
            else ++counts.peer;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    polybus_sim::ensure_preloaded(argc, argv);
    // Threads this one starts from here on (the library's readers) inherit the name;
    // those the USB emulation started before keep the executable's.
    pthread_setname_np(pthread_self(), "host");
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;

    char dir_template[] = "/tmp/polybus-bench-world-XXXXXX";
    if (mkdtemp(dir_template) == nullptr) return 1;
    const std::string dir = dir_template;
    std::ofstream(dir + "/bench.dbc") << dbc_text();
    std::unique_ptr<polybus_sim::world::Bench> bench;
    try {
        bench = polybus_sim::world::parse_world(world_text(), dir + "/world.toml").build();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }

    int handles[POLYBUS_MAX_DEVICES];
    if (USB_ScanDevice(handles) != 4) {
        std::fprintf(stderr, "expected 4 adapters\n");
        return 1;
    }
    for (auto& a : kAdapters) {
        const int dev = int(a.id);
        CAN_INIT_CONFIG config;
        if (!USB_OpenDevice(dev) || CAN_GetCANSpeedArg(dev, &config, 500000) != 0 || CAN_Init(dev, 0, &config) != 0 ||
            CAN_Init(dev, 1, &config) != 0 || CAN_StartGetMsg(dev, 0) != 0 || CAN_StartGetMsg(dev, 1) != 0) {
            std::fprintf(stderr, "cannot set up adapter 0x%08X\n", a.id);
            return 1;
        }
    }

    std::map<std::pair<int, int>, Counts> counts;
    std::vector<CAN_MSG> buffer(CAN_BUFFER_FRAMES);
    uint64_t host_asked[2] = {0, 0}, host_accepted[2] = {0, 0};
    // The measured window starts empty: what came during the set-up is dropped.
    for (auto& a : kAdapters)
        for (int ch = 0; ch < 2; ++ch) {
            Counts discard;
            drain(int(a.id), ch, discard, buffer);
        }
    std::map<std::pair<int, int>, uint64_t> base;
    for (auto& a : kAdapters)
        for (int ch = 0; ch < 2; ++ch)
            base[{int(a.id), ch}] = bench->adapter(a.name)->model<polybus_sim::CanModel>().channel(ch).frames_received;
    const auto cpu_before = cpu_by_thread();
    const auto answered_before = answering_by_thread();
    const uint64_t ioctls_before = polybus_sim::UsbHost::instance().ioctl_count();
    const double process_before = process_cpu();
    const auto t0 = std::chrono::steady_clock::now();
    auto next_burst = t0;
    while (std::chrono::steady_clock::now() - t0 < std::chrono::duration<double>(seconds)) {
        // Every 100 ms the host sends 10 frames on each bus (from adapter a and c).
        if (std::chrono::steady_clock::now() >= next_burst) {
            next_burst += std::chrono::milliseconds(100);
            for (int bus = 0; bus < 2; ++bus) {
                CAN_MSG frames[10] = {};
                for (int i = 0; i < 10; ++i) {
                    frames[i].ID = kHostIdBase + uint32_t(i);
                    frames[i].DataLen = 8;
                    frames[i].Data[0] = uint8_t(i);
                }
                const int dev = int(bus == 0 ? kAdapters[0].id : kAdapters[2].id);
                const int sent = CAN_SendMsg(dev, uint8_t(bus), frames, 10);
                host_asked[bus] += 10;
                if (sent > 0) host_accepted[bus] += uint64_t(sent);
            }
        }
        for (auto& a : kAdapters)
            for (int ch = 0; ch < 2; ++ch) drain(int(a.id), ch, counts[{int(a.id), ch}], buffer);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const auto cpu_after = cpu_by_thread();
    const auto answered_after = answering_by_thread();
    const uint64_t ioctls = polybus_sim::UsbHost::instance().ioctl_count() - ioctls_before;
    const double process_used = process_cpu() - process_before;

    // What the channels have taken off the bus by now must all reach the host (the
    // peers go on sending; what comes later is not counted on either side).
    std::map<std::pair<int, int>, uint64_t> taken;
    for (auto& a : kAdapters)
        for (int ch = 0; ch < 2; ++ch)
            taken[{int(a.id), ch}] =
                bench->adapter(a.name)->model<polybus_sim::CanModel>().channel(ch).frames_received - base[{int(a.id), ch}];
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (auto& a : kAdapters) {
        CAN_StopGetMsg(int(a.id), 0);
        CAN_StopGetMsg(int(a.id), 1);
    }
    // With reception off, CAN_GetMsg fetches what the adapter still holds.
    for (auto& a : kAdapters)
        for (int ch = 0; ch < 2; ++ch) drain(int(a.id), ch, counts[{int(a.id), ch}], buffer);

    // Every frame a channel took off the bus must have reached the host; every frame the
    // host sent must have reached the three other channels of its bus.
    uint64_t lost = 0, host_missing = 0, peer_frames = 0;
    for (auto& a : kAdapters) {
        for (int ch = 0; ch < 2; ++ch) {
            const Counts& c = counts[{int(a.id), ch}];
            const uint64_t on_adapter = taken[{int(a.id), ch}];
            const uint64_t at_host = c.peer + c.host;
            if (on_adapter > at_host) lost += on_adapter - at_host;
            if (std::getenv("BENCH_WORLD_VERBOSE"))
                std::printf("%s:%d adapter %llu host %llu (peer %llu, host frames %llu)\n", a.name.c_str(), ch,
                            (unsigned long long)on_adapter, (unsigned long long)at_host, (unsigned long long)c.peer,
                            (unsigned long long)c.host);
            const bool sender = (ch == 0 && a.name == "a") || (ch == 1 && a.name == "c");
            if (!sender && c.host < host_accepted[ch]) host_missing += host_accepted[ch] - c.host;
            peer_frames += c.peer;
        }
    }

    double sim_cpu = 0, other_cpu = 0, model_cpu = 0;
    std::printf("threads (CPU seconds over the run):\n");
    for (auto& [name, after] : cpu_after) {
        const auto it = cpu_before.find(name);
        const double used = after - (it == cpu_before.end() ? 0.0 : it->second);
        std::printf("  %-18s %8.3f\n", name.c_str(), used);
        // "host": this program and the library's reader threads (named after the
        // thread that started them), with libusb's event thread; the rest is the
        // simulator: the models' timers and the USB emulation's threads.
        // The simulated adapters answer USB requests in the thread that makes them:
        // that share of a host thread's time is the simulator's.
        const auto was = answered_before.find(name);
        const auto now = answered_after.find(name);
        const double answered = std::min(used, (now == answered_after.end() ? 0.0 : now->second) -
                                                   (was == answered_before.end() ? 0.0 : was->second));
        if (name == "host" || name == "libusb_event") {
            other_cpu += used - answered;
            sim_cpu += answered;
        } else {
            sim_cpu += used;
        }
        if (name == "sim-timer") model_cpu += used;
    }
    const double per_second = sim_cpu / elapsed;
    std::printf("\n%-52s %12s   %s\n", "figure", "measured", "target");
    std::printf("%-52s %12.1f   %s\n", "bus time simulated (s)", elapsed, "10");
    std::printf("%-52s %12.0f   %s\n", "peer frames per channel per second at the host", double(peer_frames) / 8 / elapsed,
                "1500 (10 nodes x 150 frames/s)");
    std::printf("%-52s %12.3f   <= %.2f %s\n", "simulator CPU per simulated second (s)", per_second,
                kTargetCpuPerSecond, per_second <= kTargetCpuPerSecond ? "ok" : "MISSED");
    std::printf("%-52s %12.3f   <= %.2f %s\n", "  of which bus models and peers (s)", model_cpu / elapsed,
                kTargetModelCpuPerSecond, model_cpu / elapsed <= kTargetModelCpuPerSecond ? "ok" : "MISSED");
    std::printf("%-52s %12.3f   (not a target)\n", "  of which USB emulation (s)", (sim_cpu - model_cpu) / elapsed);
    std::printf("%-52s %12.0f   (not a target)\n", "  emulated ioctls per second", double(ioctls) / elapsed);
    std::printf("%-52s %12.1f   (not a target)\n", "  USB emulation CPU per ioctl (us)",
                ioctls ? (sim_cpu - model_cpu) * 1e6 / double(ioctls) : 0.0);
    std::printf("%-52s %12.3f   (not a target)\n", "host CPU per second (program + library) (s)", other_cpu / elapsed);
    std::printf("%-52s %12.3f   (not a target)\n", "whole process CPU per second (s)", process_used / elapsed);
    std::printf("%-52s %12llu   0 %s\n", "frames received by a channel, not reaching the host", (unsigned long long)lost,
                lost == 0 ? "ok" : "MISSED");
    std::printf("%-52s %12llu   %llu %s\n", "host frames accepted by the adapters",
                (unsigned long long)(host_accepted[0] + host_accepted[1]),
                (unsigned long long)(host_asked[0] + host_asked[1]),
                host_accepted[0] + host_accepted[1] == host_asked[0] + host_asked[1] ? "ok" : "MISSED");
    std::printf("%-52s %12llu   0 %s\n", "host frames missing at the other channels", (unsigned long long)host_missing,
                host_missing == 0 ? "ok" : "MISSED");

    for (auto& a : kAdapters) USB_CloseDevice(int(a.id));
    bench.reset();
    std::system(("rm -rf '" + dir + "'").c_str());
    const bool ok = per_second <= kTargetCpuPerSecond && model_cpu / elapsed <= kTargetModelCpuPerSecond && lost == 0 && host_missing == 0 &&
                    host_accepted[0] + host_accepted[1] == host_asked[0] + host_asked[1];
    return ok ? 0 : 1;
}
