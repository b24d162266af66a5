// DBC database speed: loading a large file, decoding frames into signals and
// encoding signals into frames. Each figure is printed beside its target.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "database/dbc_decoder.h"
#include "polybus/dbc.h"
#include "transport/usb_device.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

const std::string kCorpus = std::string(POLYBUS_CORPUS_DIR) + "/dbc/";

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// The parser refuses to run without an open adapter; a listed entry with a
// non-null libusb handle is what "open" means to the device list.
constexpr uint32_t kFakeDevice = 0x53B0DBC0;
void add_fake_device() {
    auto* node = static_cast<UsbDevNode*>(std::calloc(1, sizeof(UsbDevNode)));
    node->DevHandle = kFakeDevice;
    node->handle = reinterpret_cast<libusb_device_handle*>(uintptr_t{1});
    usb_list_add(node);
}

void report(const char* what, double value, const char* unit, double target, bool higher_is_better) {
    bool ok = higher_is_better ? value >= target : value <= target;
    std::printf("%-58s %10.2f %-9s (target %s %.0f %s) %s\n", what, value, unit, higher_is_better ? ">=" : "<=",
                target, unit, ok ? "OK" : "MISSED");
}

void bench_load() {
    const std::string path = kCorpus + "ford_lincoln_base_pt.dbc";
    if (!exists(path)) {
        std::printf("skipped load: %s not found\n", path.c_str());
        return;
    }
    struct stat st;
    ::stat(path.c_str(), &st);
    const double mb = static_cast<double>(st.st_size) / 1e6;
    double best = 1e9;
    std::vector<double> runs;
    const auto start = Clock::now();
    while (runs.size() < 15 || (seconds_since(start) < 3.0 && runs.size() < 200)) {
        // Databases are never released by the library, so only construction counts.
        auto t0 = Clock::now();
        auto* db = new DBC_Decoder(path, "GBK");
        double t = seconds_since(t0);
        const size_t count = db->messages.size();
        delete db;
        if (count != 331) {
            std::printf("load: unexpected message count %zu\n", count);
            return;
        }
        runs.push_back(t);
        if (t < best) best = t;
    }
    std::sort(runs.begin(), runs.end());
    const double median = runs[runs.size() / 2];
    std::printf("ford_lincoln_base_pt.dbc: %.0f KB, %zu loads\n",
                static_cast<double>(st.st_size) / 1024, runs.size());
    report("load into a database, both passes (median)", mb / median, "MB/s", 180, true);
    report("load into a database, both passes (best)", mb / best, "MB/s", 180, true);
}

const char* const kAcc13Signals[] = {
    "ACC_Regelgeschw",  "ACC_Einheit_maxSetzgeschw", "ACC_maxSetzgeschw",         "ACC_minRegelgeschw",
    "ACC_maxRegelgeschw", "ACC_Tempolimitassistent", "ACC_Kurvenassistent",       "ACC_RUV",
    "ACC_Tachokranz",   "ACC_Typ_Tachokranz_unten",  "ACC_ENG_Texte",             "ACC_ADAPTIVE",
};

void bench_codec() {
    const std::string path = kCorpus + "vw_mqb.dbc";
    if (!exists(path)) {
        std::printf("skipped codec: %s not found\n", path.c_str());
        return;
    }
    const uint64_t db = DBC_ParserFile(static_cast<int>(kFakeDevice), path.c_str());
    if (db == 0 || DBC_GetMsgSignalQuantity(db, "ACC_13") != 12) {
        std::printf("codec: vw_mqb.dbc did not load as expected\n");
        return;
    }
    std::printf("vw_mqb.dbc: %d messages; message ACC_13 (id 679), 12 signals, 8 bytes\n",
                DBC_GetMsgQuantity(db));

    double sink = 0;
    if (std::getenv("DBC_BENCH_ENCODE_ONLY") != nullptr) goto encode;
    {
    // Decoding: a batch of frames with varying payloads.
    std::vector<CAN_MSG> frames(256);
    uint64_t seed = 0x1234567;
    for (CAN_MSG& f : frames) {
        std::memset(&f, 0, sizeof f);
        f.ID = 679;
        f.DataLen = 8;
        for (uint8_t& b : f.Data) {
            seed = seed * 6364136223846793005ull + 1442695040888963407ull;
            b = static_cast<uint8_t>(seed >> 56);
        }
    }
    {
        const long rounds = 40000;
        auto t0 = Clock::now();
        for (long r = 0; r < rounds; ++r) DBC_SyncCANMsgToValue(db, frames.data(), static_cast<int>(frames.size()));
        double t = seconds_since(t0);
        double v = 0;
        DBC_GetSignalValue(db, "ACC_13", "ACC_Regelgeschw", &v);
        sink += v;
        report("DBC_SyncCANMsgToValue, ACC_13, 256 frames per call", rounds * frames.size() / t / 1e6,
               "M frames/s", 30, true);
    }
    {
        const long rounds = 10000000;
        auto t0 = Clock::now();
        for (long r = 0; r < rounds; ++r) DBC_SyncCANMsgToValue(db, &frames[r & 255], 1);
        double t = seconds_since(t0);
        report("DBC_SyncCANMsgToValue, ACC_13, 1 frame per call", rounds / t / 1e6, "M frames/s", 30, true);
    }

    }
encode:
    // Encoding: every signal set by name, then the frame built.
    {
        CAN_MSG out;
        std::memset(&out, 0, sizeof out);
        const long rounds = 400000;
        std::vector<double> runs;
        for (int rep = 0; rep < 9; ++rep) {
            auto t0 = Clock::now();
            for (long r = 0; r < rounds; ++r) {
                const double x = static_cast<double>(r & 63);
                for (const char* name : kAcc13Signals) DBC_SetSignalValue(db, "ACC_13", name, x);
                DBC_SyncValueToCANMsg(db, "ACC_13", &out);
                sink += out.Data[r & 7];
            }
            runs.push_back(seconds_since(t0) * 1e9 / (rounds * 12.0));
        }
        std::sort(runs.begin(), runs.end());
        report("DBC_SetSignalValue x12 + DBC_SyncValueToCANMsg, per signal (median)", runs[runs.size() / 2], "ns",
               10, false);
        report("DBC_SetSignalValue x12 + DBC_SyncValueToCANMsg, per signal (best)", runs.front(), "ns", 10, false);
    }
    if (sink == 12345.678) std::printf(" ");
}

}  // namespace

// Optional argument: "load" or "codec" runs one part only (handy under a profiler).
int main(int argc, char** argv) {
    add_fake_device();
    const std::string only = argc > 1 ? argv[1] : "";
    if (only.empty() || only == "load") bench_load();
    if (only.empty() || only == "codec") bench_codec();
    return 0;
}
