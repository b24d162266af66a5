// DBC database speed: loading a large file, decoding frames into signals and
// encoding signals into frames. Each figure is printed beside its target.
//
// Every measurement is repeated; the median by wall-clock time is the figure that
// counts. The machine may be shared, so the median by the thread's CPU time (time
// spent descheduled left out) and the best run are printed as well.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench_report.h"
#include "database/dbc_decoder.h"
#include "polybus/dbc.h"
#include "transport/usb_device.h"

namespace {

double now(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Timing {
    double wall_median, cpu_median, wall_best, cpu_best;  // seconds per repetition
};

// Runs `once` at least `min_reps` times, more while under `budget` seconds and
// `max_reps`; `before`, if given, runs untimed ahead of each repetition.
Timing measure(const std::function<void()>& once, int min_reps, int max_reps, double budget,
               const std::function<void()>& before = nullptr) {
    std::vector<double> wall, cpu;
    const double start = now(CLOCK_MONOTONIC);
    while (static_cast<int>(wall.size()) < min_reps ||
           (now(CLOCK_MONOTONIC) - start < budget && static_cast<int>(wall.size()) < max_reps)) {
        if (before) before();
        const double w0 = now(CLOCK_MONOTONIC);
        const double c0 = now(CLOCK_THREAD_CPUTIME_ID);
        once();
        cpu.push_back(now(CLOCK_THREAD_CPUTIME_ID) - c0);
        wall.push_back(now(CLOCK_MONOTONIC) - w0);
    }
    std::sort(wall.begin(), wall.end());
    std::sort(cpu.begin(), cpu.end());
    return Timing{wall[wall.size() / 2], cpu[cpu.size() / 2], wall.front(), cpu.front()};
}

void report(const char* title, const char* what, double value, const char* unit, double target,
            bool higher_is_better) {
    const bool ok = higher_is_better ? value >= target : value <= target;
    std::printf("  %-44s %9.2f %-10s (target %s %g %s) %s\n", what, value, unit, higher_is_better ? ">=" : "<=",
                target, unit, ok ? "OK" : "MISSED");
    std::string name = std::string(title);
    if (!name.empty() && name.back() == ':') name.pop_back();
    name += std::string(", ") + what;
    name.erase(std::remove(name.begin(), name.end(), '\n'), name.end());
    while (name.find("  ") != std::string::npos) name.replace(name.find("  "), 2, " ");
    bench::check_target(name.c_str(), value, unit, higher_is_better ? ">=" : "<=", target);
}

// Converts seconds per repetition into the unit of a figure and prints all three.
void report_all(const char* what, const Timing& t, const std::function<double(double)>& figure, const char* unit,
                double target, bool higher_is_better) {
    std::printf("%s\n", what);
    report(what, "median, wall clock", figure(t.wall_median), unit, target, higher_is_better);
    report(what, "median, thread CPU time", figure(t.cpu_median), unit, target, higher_is_better);
    report(what, "best run, wall clock", figure(t.wall_best), unit, target, higher_is_better);
}

const std::string kCorpus = std::string(POLYBUS_CORPUS_DIR) + "/dbc/";

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// The opener refuses to run without an open adapter; a listed entry with a non-null
// libusb handle is what "open" means to the device list.
constexpr uint32_t kFakeDevice = 0x53B0DBC0;
void add_fake_device() {
    auto* node = static_cast<UsbDevNode*>(std::calloc(1, sizeof(UsbDevNode)));
    node->DevHandle = kFakeDevice;
    node->handle = reinterpret_cast<libusb_device_handle*>(uintptr_t{1});
    usb_list_add(node);
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
    // Databases are never released by the library, so only construction counts: the
    // one built in a repetition is destroyed, untimed, before the next.
    std::unique_ptr<DBC_Decoder> keep;
    size_t count = 0;
    const Timing t = measure(
        [&] {
            keep = std::make_unique<DBC_Decoder>(path, "GBK");
            count = keep->messages.size();
        },
        15, 200, 3.0, [&] { keep.reset(); });
    if (count != 331) {
        std::printf("load: unexpected message count %zu\n", count);
        return;
    }
    std::printf("ford_lincoln_base_pt.dbc, %.0f KB\n", static_cast<double>(st.st_size) / 1024);
    report_all("Loading into a database, both passes:", t, [&](double s) { return mb / s; }, "MB/s", 180, true);
}

const char* const kAcc13Signals[] = {
    "ACC_Regelgeschw",   "ACC_Einheit_maxSetzgeschw", "ACC_maxSetzgeschw", "ACC_minRegelgeschw",
    "ACC_maxRegelgeschw", "ACC_Tempolimitassistent", "ACC_Kurvenassistent", "ACC_RUV",
    "ACC_Tachokranz",    "ACC_Typ_Tachokranz_unten",  "ACC_ENG_Texte",     "ACC_ADAPTIVE",
};

// The work applications do with received frames: decode one, then read every signal's
// physical value by name. Runs on `db` (which must hold vw_mqb.dbc's ACC_13) and
// prints the new path (the exported calls) beside the old one (message and signal
// found through the name indexes on every read, as DBC_GetSignalValue did before it
// remembered the last message and the next signal).
void bench_decode_and_read(uint64_t db, const char* title) {
    std::vector<CAN_MSG> frames(256);
    uint64_t seed = 0x89ABCDEF;
    for (CAN_MSG& f : frames) {
        std::memset(&f, 0, sizeof f);
        f.ID = 679;
        f.DataLen = 8;
        for (uint8_t& b : f.Data) {
            seed = seed * 6364136223846793005ull + 1442695040888963407ull;
            b = static_cast<uint8_t>(seed >> 56);
        }
    }
    auto* decoder = reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(db));
    double sink = 0;
    // Many short runs: on a shared machine some of them run undisturbed, which the best
    // run shows.
    const long rounds = 20000;
    const int runs = 41;
    const double per_signal = 1e9 / (rounds * 12.0);
    std::printf("%s\n", title);
    const Timing decode_only = measure(
        [&] {
            for (long r = 0; r < rounds; ++r) DBC_SyncCANMsgToValue(db, &frames[static_cast<size_t>(r) & 255], 1);
        },
        runs, runs, 0);
    const Timing old_path = measure(
        [&] {
            double sum = 0;
            for (long r = 0; r < rounds; ++r) {
                DBC_SyncCANMsgToValue(db, &frames[static_cast<size_t>(r) & 255], 1);
                for (const char* name : kAcc13Signals) {
                    const int m = decoder->findMessage(std::string_view("ACC_13"));
                    const int s = decoder->findSignal(m, std::string_view(name));
                    sum += DBC_Decoder::getSignalRealValue(
                        decoder->messages[static_cast<size_t>(m)].signals[static_cast<size_t>(s)]);
                }
            }
            sink += sum;
        },
        runs, runs, 0);
    // The values are summed in a local: `sink` lives outside the lambda, and adding
    // to it after every call would time a chain of memory round trips instead.
    const Timing new_path = measure(
        [&] {
            double v = 0, sum = 0;
            for (long r = 0; r < rounds; ++r) {
                DBC_SyncCANMsgToValue(db, &frames[static_cast<size_t>(r) & 255], 1);
                for (const char* name : kAcc13Signals) {
                    DBC_GetSignalValue(db, "ACC_13", name, &v);
                    sum += v;
                }
            }
            sink += sum;
        },
        runs, runs, 0);
    std::printf("  %-44s %9s %9s %9s %9s\n", "ns per signal, 12 signals per frame:", "best", "median",
                "CPU best", "CPU med.");
    auto row = [&](const char* what, const Timing& t) {
        std::printf("  %-44s %9.2f %9.2f %9.2f %9.2f\n", what, t.wall_best * per_signal, t.wall_median * per_signal,
                    t.cpu_best * per_signal, t.cpu_median * per_signal);
    };
    row("decode only (DBC_SyncCANMsgToValue)", decode_only);
    row("decode + reads, old path (name indexes)", old_path);
    row("decode + reads, DBC_GetSignalValue", new_path);
    report("decode + DBC_GetSignalValue", "  best", new_path.wall_best * per_signal, "ns", 4, false);
    report("decode + DBC_GetSignalValue", "  median", new_path.wall_median * per_signal, "ns", 4, false);
    report("decode + DBC_GetSignalValue", "  median CPU", new_path.cpu_median * per_signal, "ns", 4, false);
    std::printf("  peer: dbcppp decode to physical values: 89.7 ns/frame, 7.5 ns/signal (figure measured separately)\n");
    if (sink == 12345.678) std::printf(" ");
}

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
    std::printf("vw_mqb.dbc, %d messages; ACC_13 (id 679): 12 signals in 8 bytes\n", DBC_GetMsgQuantity(db));

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
    double sink = 0;

    // Decoding, the message look-up by identifier included: batches of 256 frames,
    // and one frame per call.
    const long batches = 2000;
    Timing t = measure(
        [&] {
            for (long r = 0; r < batches; ++r)
                DBC_SyncCANMsgToValue(db, frames.data(), static_cast<int>(frames.size()));
        },
        9, 9, 0);
    report_all("DBC_SyncCANMsgToValue, 256 frames per call:", t,
               [&](double s) { return batches * 256.0 / s / 1e6; }, "M frames/s", 30, true);
    const long singles = 500000;
    t = measure(
        [&] {
            for (long r = 0; r < singles; ++r) DBC_SyncCANMsgToValue(db, &frames[static_cast<size_t>(r) & 255], 1);
        },
        9, 9, 0);
    report_all("DBC_SyncCANMsgToValue, 1 frame per call:", t, [&](double s) { return singles / s / 1e6; },
               "M frames/s", 30, true);

    // Encoding: every signal set by name, then the frame built.
    CAN_MSG out;
    std::memset(&out, 0, sizeof out);
    const long rounds = 400000;
    t = measure(
        [&] {
            for (long r = 0; r < rounds; ++r) {
                const double x = static_cast<double>(r & 63);
                for (const char* name : kAcc13Signals) DBC_SetSignalValue(db, "ACC_13", name, x);
                DBC_SyncValueToCANMsg(db, "ACC_13", &out);
                sink += out.Data[r & 7];
            }
        },
        9, 9, 0);
    report_all("DBC_SetSignalValue x12 + DBC_SyncValueToCANMsg, per signal:", t,
               [&](double s) { return s * 1e9 / (rounds * 12.0); }, "ns", 10, false);
    if (sink == 12345.678) std::printf(" ");
}

// Loads DBC text through the exported opener, as an application's file would be;
// 0 when the temporary file cannot be written or the text does not load.
uint64_t load_text(const std::string& text) {
    char path[] = "/tmp/polybus_bench_dbc_XXXXXX";
    const int fd = ::mkstemp(path);
    if (fd < 0) return 0;
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    const uint64_t db = written ? DBC_ParserFile(static_cast<int>(kFakeDevice), path) : 0;
    ::unlink(path);
    return db;
}

// vw_mqb.dbc followed by `extra` messages of a few signals each, loaded through the
// exported opener: ACC_13 then sits among thousands of messages.
uint64_t large_vw_database(int extra) {
    const std::string path = kCorpus + "vw_mqb.dbc";
    FILE* in = std::fopen(path.c_str(), "rb");
    if (in == nullptr) return 0;
    std::string text;
    char buf[65536];
    size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, in)) > 0) text.append(buf, got);
    std::fclose(in);
    text += "\n";
    char line[200];
    for (int m = 0; m < extra; ++m) {
        std::snprintf(line, sizeof line, "BO_ %u Filler_%05d: 8 N\n", 0x80020000u + static_cast<unsigned>(m), m);
        text += line;
        for (int s = 0; s < 4; ++s) {
            std::snprintf(line, sizeof line, " SG_ ACC_Sig_%d_%05d : %d|16@1+ (0.1,0) [0|6553.5] \"\" N\n", s, m,
                          s * 16);
            text += line;
        }
    }
    return load_text(text);
}

void bench_reads() {
    const std::string path = kCorpus + "vw_mqb.dbc";
    if (!exists(path)) {
        std::printf("skipped reads: %s not found\n", path.c_str());
        return;
    }
    const uint64_t db = DBC_ParserFile(static_cast<int>(kFakeDevice), path.c_str());
    if (db == 0 || DBC_GetMsgSignalQuantity(db, "ACC_13") != 12) {
        std::printf("reads: vw_mqb.dbc did not load as expected\n");
        return;
    }
    bench_decode_and_read(db, "ACC_13 decoded, then its 12 physical values read by name (vw_mqb.dbc):");
    const int extra = 5000;
    const uint64_t large = large_vw_database(extra);
    if (large == 0 || DBC_GetMsgQuantity(large) != DBC_GetMsgQuantity(db) + extra) {
        std::printf("reads: the large database did not load as expected\n");
        return;
    }
    char title[160];
    std::snprintf(title, sizeof title, "The same in a database of %d messages (vw_mqb.dbc + %d more):",
                  DBC_GetMsgQuantity(large), extra);
    bench_decode_and_read(large, title);
}

// A database of `count` messages of one signal each, written to a temporary file and
// loaded through the exported opener.
uint64_t synthetic_database(int count) {
    std::string text;
    char line[160];
    for (int m = 0; m < count; ++m) {
        std::snprintf(line, sizeof line, "BO_ %u Message_%05d: 8 N\n", 0x80010000u + static_cast<unsigned>(m), m);
        text += line;
        text += " SG_ Sig : 0|16@1+ (1,0) [0|65535] \"\" N\n";
    }
    return load_text(text);
}

// Look-ups by name and by identifier of the same 64 messages, the last ones of the
// file, in a small and a large database: an index answers about as fast in both, a
// scan in file order would be about as many times slower as the database is larger.
// One signal per message keeps the look-up the larger part of each call; the best
// run is compared, as the medians of such short calls move with the machine's load.
void bench_lookups() {
    const int kHot = 64;
    const int sizes[2] = {128, 16384};
    double set_ns[2] = {0, 0}, decode_mfps[2] = {0, 0};
    for (int k = 0; k < 2; ++k) {
        const int count = sizes[k];
        const uint64_t db = synthetic_database(count);
        if (db == 0 || DBC_GetMsgQuantity(db) != count) {
            std::printf("look-ups: synthetic database of %d messages did not load\n", count);
            return;
        }
        std::vector<std::string> names;
        std::vector<CAN_MSG> frames(256);
        for (int i = 0; i < kHot; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "Message_%05d", count - kHot + i);
            names.emplace_back(name);
        }
        for (size_t i = 0; i < frames.size(); ++i) {
            std::memset(&frames[i], 0, sizeof frames[i]);
            // Hot messages in a scrambled order, so that no two frames in a row share one.
            frames[i].ID = static_cast<uint32_t>(0x10000 + count - kHot + static_cast<int>(i * 37) % kHot);
            frames[i].ExternFlag = 1;
            frames[i].DataLen = 8;
        }
        // Each call names another message than the call before.
        const long calls = 2000000;
        Timing t = measure(
            [&] {
                for (long r = 0; r < calls; ++r)
                    DBC_SetSignalValue(db, names[static_cast<size_t>(r * 37) % kHot].c_str(), "Sig",
                                       static_cast<double>(r & 255));
            },
            9, 9, 0);
        set_ns[k] = t.wall_best * 1e9 / calls;
        const long batches = 4000;
        t = measure(
            [&] {
                for (long r = 0; r < batches; ++r)
                    DBC_SyncCANMsgToValue(db, frames.data(), static_cast<int>(frames.size()));
            },
            9, 9, 0);
        decode_mfps[k] = batches * 256.0 / t.wall_best / 1e6;
    }
    std::printf("Look-ups of the last %d messages in databases of %d and %d messages (best runs, wall clock):\n",
                kHot, sizes[0], sizes[1]);
    std::printf("  DBC_SetSignalValue, another message each call: %.2f ns and %.2f ns\n", set_ns[0], set_ns[1]);
    report("DBC_SetSignalValue look-ups", "  time ratio, large / small database", set_ns[1] / set_ns[0], "x", 1.5,
           false);
    std::printf("  DBC_SyncCANMsgToValue by identifier: %.2f and %.2f M frames/s\n", decode_mfps[0], decode_mfps[1]);
    report("DBC_SyncCANMsgToValue look-ups", "  time ratio, large / small database", decode_mfps[0] / decode_mfps[1],
           "x", 1.5, false);
}

}  // namespace

// Optional argument: "load", "codec", "reads" or "lookups" runs one part only (handy under a
// profiler).
int main(int argc, char** argv) {
    add_fake_device();
    const std::string only = argc > 1 ? argv[1] : "";
    if (only.empty() || only == "load") bench_load();
    if (only.empty() || only == "codec") bench_codec();
    if (only.empty() || only == "reads") bench_reads();
    if (only.empty() || only == "lookups") bench_lookups();
    return 0;
}
