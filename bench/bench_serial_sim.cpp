// Serial buses through a simulated adapter, each figure beside its target:
//   - continuous SPI slave reading of a 10 MB/s stream for 10 s, drained every 10 ms:
//     no byte lost, streaming thread under 10 % of a core;
//   - programming and verifying a 1 MiB SPI flash image: at least 80 % of the rate the
//     flash's own erase and program times allow;
//   - a 7-bit I2C scan: no more than 128 exchanges, and no longer than 128 single
//     exchanges take.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "adapter.h"
#include "i2c_model.h"
#include "polybus/polybus.h"
#include "spi_model.h"
#include "usbfs.h"

using namespace polybus_sim;
using Clock = std::chrono::steady_clock;

namespace {

double seconds_since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

std::set<int> tasks() {
    std::set<int> out;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') out.insert(std::atoi(e->d_name));
        closedir(d);
    }
    return out;
}

// User plus system time of one thread, in seconds.
double cpu_of(int tid) {
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    const size_t close = s.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(s.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

std::atomic<long> g_exchanges{0};
void count_sends(const POLYBUS_TRACE_EVENT* ev, void*) {
    if (ev->Kind != POLYBUS_TRACE_GET) ++g_exchanges;
}
// Polls of the slave buffer and the bytes they brought, to tell a slow USB path from a
// slow thread.
std::atomic<long> g_polls{0}, g_polled_bytes{0};
void count_polls(const POLYBUS_TRACE_EVENT* ev, void*) {
    if (ev->Kind == POLYBUS_TRACE_GET && ev->Command == 0x223 && ev->Result == 0) {
        ++g_polls;
        g_polled_bytes += long(ev->Length);
    }
}

bool slave_stream(int h, Adapter& adapter, double seconds, size_t adapter_buffer) {
    const double rate = 10e6;
    g_polls = 0;
    g_polled_bytes = 0;
    adapter.model<SpiModel>().set_slave_buffer(adapter_buffer);
    // The adapter counts its drops since it was plugged; this run reports its own.
    const uint64_t overruns_before = adapter.model<SpiModel>().slave_overruns(0);
    adapter.model<SpiModel>().attach_master(0, {rate, UINT64_MAX});
    SPI_CONFIG c{};
    c.CPHA = 1;
    c.ClockSpeedHz = 100000000;
    if (SPI_Init(h, 0, &c) != 0) return false;
    const auto before = tasks();
    USB_SetTraceCallback(count_polls, nullptr);
    if (SPI_SlaveContinueRead(h, 0, nullptr) != 0) return false;
    int tid = 0;
    for (int t : tasks())
        if (!before.count(t)) tid = t;
    std::vector<unsigned char> buf(SPI_SLAVE_BUFFER_SIZE);
    uint64_t got = 0, wrong = 0;  // `wrong`: bytes not where the stream puts them
    const auto start = Clock::now();
    const double cpu0 = tid ? cpu_of(tid) : 0;
    const double answered0 = tid ? UsbHost::instance().answering_seconds(tid) : 0;
    while (seconds_since(start) < seconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        int n;
        while ((n = SPI_SlaveGetBytes(h, 0, buf.data(), int(buf.size()))) > 0) {
            for (int i = 0; i < n; ++i, ++got)
                if (buf[size_t(i)] != SpiMasterStream::byte_at(got)) ++wrong;
        }
    }
    const double elapsed = seconds_since(start);
    const double cpu = tid ? cpu_of(tid) - cpu0 : -1;
    // The simulated adapter answers the thread's USB requests in the thread itself;
    // that part of its time is the simulator's (on hardware, the adapter's and the
    // kernel's), not the library's.
    const double answered = tid ? UsbHost::instance().answering_seconds(tid) - answered0 : 0;
    SPI_SlaveContinueWriteReadStop(h, 0);
    USB_SetTraceCallback(nullptr, nullptr);
    int n;
    while ((n = SPI_SlaveGetBytes(h, 0, buf.data(), int(buf.size()))) > 0) {
        for (int i = 0; i < n; ++i, ++got)
            if (buf[size_t(i)] != SpiMasterStream::byte_at(got)) ++wrong;
    }
    // What the master clocked after the streaming thread's last poll is still in the
    // adapter: fetch it, so every clocked byte is either counted or reported lost.
    const uint64_t before_tail = got;
    std::vector<unsigned char> chunk(SPI_SLAVE_CHUNK_MAX);
    while ((n = SPI_SlaveReadBytesFromBuffer(h, 0, chunk.data(), 100)) > 0) {
        for (int i = 0; i < n; ++i, ++got)
            if (chunk[size_t(i)] != SpiMasterStream::byte_at(got)) ++wrong;
    }
    const uint64_t clocked = adapter.model<SpiModel>().master_clocked(0);
    const uint64_t overruns = adapter.model<SpiModel>().slave_overruns(0) - overruns_before;
    const uint64_t lost = clocked > got ? clocked - got : 0;
    std::printf("SPI slave stream %.0f MB/s for %.1f s, drained every 10 ms, adapter buffer %zu KiB: %llu of %llu "
                "bytes received (%llu of them the tail fetched from the adapter after the stop), %llu lost, %llu out "
                "of sequence, %llu dropped by the adapter (target: no byte lost)\n",
                rate / 1e6, elapsed, adapter_buffer >> 10, (unsigned long long)got, (unsigned long long)clocked,
                (unsigned long long)(got - before_tail), (unsigned long long)lost, (unsigned long long)wrong,
                (unsigned long long)overruns);
    std::printf("  streaming thread: %.1f %% of a core (target: < 10 %%), after %.1f %% spent in the simulated adapter; "
                "%ld polls, %.2f ms and %.0f bytes each\n",
                cpu < 0 ? -1.0 : 100.0 * std::max(0.0, cpu - answered) / elapsed, 100.0 * answered / elapsed,
                g_polls.load(), 1e3 * elapsed / double(std::max(1L, g_polls.load())),
                double(g_polled_bytes.load()) / double(std::max(1L, g_polls.load())));
    return true;
}

bool flash_image(int h, Adapter& adapter) {
    NorFlashConfig fc;
    fc.page_program_us = 300;
    fc.sector_erase_us = 10000;
    auto flash = std::make_shared<NorFlash>(fc);
    adapter.model<SpiModel>().attach(1, flash);
    SPI_CONFIG c{};
    c.Master = 1;
    c.ClockSpeedHz = 50000000;
    SPI_FLASH_CONFIG f{};
    f.WriteEnableCmd = 0x06;
    f.PageProgramCmd = 0x02;
    f.ReadCmd = 0x03;
    f.FastReadCmd = 0x0B;
    f.SectorEraseCmd = 0x20;
    f.ChipEraseCmd = 0xC7;
    f.ReadIDCmd = 0x9F;
    f.AddrBytes = 3;
    f.DummyBytes = 1;
    f.ReadStatusCmd = 0x05;
    f.PageSize = 256;
    f.SectorSize = 4096;
    f.SectorCount = 256;
    f.IDLength = 3;
    if (SPI_Init(h, 1, &c) != 0 || SPI_FlashInit(h, 1, 50000000, &f) != 0) return false;
    const uint32_t size = 1u << 20, chunk = 64u << 10;
    std::vector<unsigned char> image(size), back(chunk);
    for (uint32_t i = 0; i < size; ++i) image[i] = uint8_t(i * 131 + (i >> 9));
    const double ideal = (size / fc.sector_size) * fc.sector_erase_us * 1e-6 + (size / fc.page_size) * fc.page_program_us * 1e-6;
    const auto start = Clock::now();
    bool ok = SPI_FlashEraseSector(h, 1, 0, int(size / fc.sector_size), 5000) == 0;
    for (uint32_t a = 0; ok && a < size; a += chunk) ok = SPI_FlashWrite(h, 1, int(a), image.data() + a, int(chunk)) == 0;
    for (uint32_t a = 0; ok && a < size; a += chunk) {
        ok = SPI_FlashRead(h, 1, int(a), back.data(), int(chunk)) == 0 &&
             std::equal(back.begin(), back.end(), image.begin() + a);
    }
    const double took = seconds_since(start);
    std::printf("SPI flash 1 MiB erase + program + verify: %s in %.2f s; the flash's own times allow %.2f s: "
                "%.0f %% (target: >= 80 %%)\n",
                ok ? "verified" : "FAILED", took, ideal, 100.0 * ideal / took);
    return ok;
}

bool i2c_scan(int h, Adapter& adapter) {
    auto rom = std::make_shared<Eeprom>(EepromConfig{0x50, 256, 8, 0});
    adapter.model<I2cModel>().attach(0, rom);
    adapter.model<I2cModel>().attach(0, std::make_shared<SmbusDevice>(SmbusDeviceConfig{}));
    IIC_CONFIG c{};
    c.AddrBits = 7;
    if (IIC_Init(h, 0, &c) != 0) return false;
    short found[128];
    // The time of 128 single exchanges, best of three, against the scan's.
    double single = 1e9, scan = 1e9;
    long exchanges = 0;
    int n = 0;
    for (int round = 0; round < 3; ++round) {
        auto t = Clock::now();
        for (int a = 0; a < 128; ++a) IIC_WriteBytes(h, 0, short(a), nullptr, 0, 5);
        single = std::min(single, seconds_since(t));
        g_exchanges = 0;
        USB_SetTraceCallback(count_sends, nullptr);
        t = Clock::now();
        n = IIC_GetSlaveAddr(h, 0, found);
        scan = std::min(scan, seconds_since(t));
        USB_SetTraceCallback(nullptr, nullptr);
        exchanges = g_exchanges.load();
    }
    std::printf("I2C 7-bit scan: %d devices found with %ld exchanges (target: <= 128) in %.1f ms; "
                "128 single exchanges take %.1f ms (target: scan no longer)\n",
                n, exchanges, scan * 1e3, single * 1e3);
    return n == 2;
}

}  // namespace

int main(int argc, char** argv) {
    ensure_preloaded(argc, argv);
    double seconds = 10;
    if (argc > 1) seconds = std::atof(argv[1]);
    AdapterConfig config;
    auto a = Simulator::instance().add(config);
    int handles[POLYBUS_MAX_DEVICES];
    const int h = int(config.identifier);
    if (USB_ScanDevice(handles) != 1 || !USB_OpenDevice(h)) {
        std::fprintf(stderr, "simulated adapter not found\n");
        return 1;
    }
    // The stream once with the simulated adapter's own buffer, once with one that also
    // absorbs the scheduling stalls of a loaded host.
    const bool ok = i2c_scan(h, *a) && flash_image(h, *a) && slave_stream(h, *a, seconds, SpiModel::kSlaveBuffer) &&
                    slave_stream(h, *a, seconds, 16u << 20);
    USB_CloseDevice(h);
    Simulator::instance().remove_all();
    return ok ? 0 : 1;
}
