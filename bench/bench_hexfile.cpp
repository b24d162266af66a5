// Benchmark of the firmware file readers against their targets:
//   - hexfile_convert_ihx and hexfile_convert_s19: at least 180 MB/s of input text on a
//     ~40 MB file describing a 16 MiB image in 32-byte records;
//   - peak memory below twice the image size plus the file size;
//   - growing a block linear in the number of records (checked by timing a file a
//     quarter the size: the time per input byte must stay about the same).
//
// The files are generated here, in a temporary directory, from a fixed pseudo-random
// sequence. Each measurement runs in a fresh child process (this program re-executed
// with --child), so that its peak resident set size (getrusage ru_maxrss) covers exactly
// one hexfile_load_file plus one conversion: the input buffer, the block buffer and the
// process's own baseline (reported separately). Sizes: MB = 10^6 bytes, MiB = 2^20.
//
// Usage: bench_hexfile [image MiB, default 16] [iterations, default 5]
#include "bench_report.h"
#include "polybus/hexfile.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kBaseAddr = 0x08000000u;
constexpr unsigned kRecordBytes = 32;
constexpr double kTargetMBps = 180.0;

uint64_t fnv1a(const uint8_t* p, size_t n, uint64_t h = 0xcbf29ce484222325ull) {
    for (size_t i = 0; i < n; ++i) {
        h ^= p[i];
        h *= 0x100000001b3ull;
    }
    return h;
}

struct Rng {
    uint64_t s = 0x9E3779B97F4A7C15ull;
    uint8_t next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return static_cast<uint8_t>(s >> 24);
    }
};

class Writer {
public:
    explicit Writer(const std::string& path) : f_(std::fopen(path.c_str(), "wb")) {
        if (f_ == nullptr) {
            std::perror(path.c_str());
            std::exit(2);
        }
        buf_.reserve(1 << 20);
    }
    ~Writer() {
        flush();
        std::fclose(f_);
    }
    void put(const char* s, size_t n) {
        buf_.append(s, n);
        if (buf_.size() >= (1u << 20)) flush();
    }
    void hex(unsigned byte) {
        static const char digits[] = "0123456789ABCDEF";
        const char two[2] = {digits[(byte >> 4) & 15], digits[byte & 15]};
        put(two, 2);
    }
    size_t bytes() const { return total_ + buf_.size(); }

private:
    void flush() {
        std::fwrite(buf_.data(), 1, buf_.size(), f_);
        total_ += buf_.size();
        buf_.clear();
    }
    FILE* f_;
    std::string buf_;
    size_t total_ = 0;
};

// Writes the Intel HEX and S-record versions of the same image; returns the image hash.
uint64_t generate(const std::string& ihxPath, const std::string& s19Path, size_t imageBytes) {
    Writer ihx(ihxPath);
    Writer s19(s19Path);
    {
        const char* hdr = "S00F000068656C6C6F202020202000003C\n";
        s19.put(hdr, std::strlen(hdr));
    }
    Rng rng;
    uint64_t hash = 0xcbf29ce484222325ull;
    uint8_t data[kRecordBytes];
    for (size_t off = 0; off < imageBytes; off += kRecordBytes) {
        const uint32_t addr = kBaseAddr + static_cast<uint32_t>(off);
        for (uint8_t& b : data) b = rng.next();
        hash = fnv1a(data, kRecordBytes, hash);
        if ((addr & 0xFFFF) == 0) {  // extended linear address record
            const unsigned hi = addr >> 16;
            const unsigned sum = 2 + 4 + (hi >> 8) + (hi & 0xFF);
            ihx.put(":02000004", 9);
            ihx.hex(hi >> 8);
            ihx.hex(hi & 0xFF);
            ihx.hex(0x100 - (sum & 0xFF));
            ihx.put("\n", 1);
        }
        unsigned isum = kRecordBytes + ((addr >> 8) & 0xFF) + (addr & 0xFF);
        ihx.put(":", 1);
        ihx.hex(kRecordBytes);
        ihx.hex((addr >> 8) & 0xFF);
        ihx.hex(addr & 0xFF);
        ihx.put("00", 2);
        unsigned ssum = kRecordBytes + 5;
        s19.put("S3", 2);
        s19.hex(kRecordBytes + 5);
        for (int i = 3; i >= 0; --i) {
            s19.hex((addr >> (8 * i)) & 0xFF);
            ssum += (addr >> (8 * i)) & 0xFF;
        }
        for (uint8_t b : data) {
            ihx.hex(b);
            s19.hex(b);
            isum += b;
            ssum += b;
        }
        ihx.hex(0x100 - (isum & 0xFF));
        ihx.put("\n", 1);
        s19.hex(~ssum & 0xFF);
        s19.put("\n", 1);
    }
    ihx.put(":00000001FF\n", 12);
    s19.put("S70508000000F2\n", 15);
    return hash;
}

long maxrss_kib() {
    struct rusage ru {};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

using Reader = int (*)(uint8_t*, int, HEX_DATA_BLOCK*, int, char);

// Child: one load + conversion for the peak memory, then the timed repetitions.
int child(const char* fmt, const char* path, int iterations) {
    const Reader reader = std::strcmp(fmt, "ihx") == 0 ? hexfile_convert_ihx : hexfile_convert_s19;
    const long baseKiB = maxrss_kib();
    struct stat st {};
    if (stat(path, &st) != 0) return 2;
    auto* buf = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(st.st_size)));
    const int n = hexfile_load_file(path, buf);
    if (n != st.st_size) return 3;
    HEX_DATA_BLOCK blocks[16];

    auto t0 = std::chrono::steady_clock::now();
    int count = reader(buf, n, blocks, 16, 1);
    const double first = seconds_since(t0);
    const long peakKiB = maxrss_kib();  // input buffer + one conversion
    if (count != 1) return 4;
    const uint32_t len = blocks[0].DataLen;
    const uint64_t hash = fnv1a(blocks[0].pData, len);

    // The flat image (not part of the memory figure above).
    auto* image = static_cast<uint8_t*>(std::malloc(len));
    t0 = std::chrono::steady_clock::now();
    const int imageLen = hexfile_convert_image(image, blocks, count, 1, 0xFF);
    const double imageSec = seconds_since(t0);
    std::free(image);
    hexfile_free_data(blocks, count);

    std::vector<double> times{first};
    for (int i = 1; i < iterations; ++i) {
        t0 = std::chrono::steady_clock::now();
        count = reader(buf, n, blocks, 16, 1);
        times.push_back(seconds_since(t0));
        hexfile_free_data(blocks, count);
    }
    std::sort(times.begin(), times.end());
    std::printf("%d %u %016llx %.6f %.6f %.6f %ld %ld %d %.6f\n", n, len, static_cast<unsigned long long>(hash),
                first, times.front(), times[times.size() / 2], baseKiB, peakKiB, imageLen, imageSec);
    std::free(buf);
    return 0;
}

struct Result {
    long long fileBytes = 0;
    unsigned imageBytes = 0;
    unsigned long long hash = 0;
    double first = 0, best = 0, median = 0;
    long baseKiB = 0, peakKiB = 0;
    int imageLen = 0;
    double imageSec = 0;
};

bool run_child(const std::string& self, const char* fmt, const std::string& path, int iterations, Result& r) {
    const std::string cmd = "'" + self + "' --child " + fmt + " '" + path + "' " + std::to_string(iterations);
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return false;
    const int got = std::fscanf(p, "%lld %u %llx %lf %lf %lf %ld %ld %d %lf", &r.fileBytes, &r.imageBytes, &r.hash,
                                &r.first, &r.best, &r.median, &r.baseKiB, &r.peakKiB, &r.imageLen, &r.imageSec);
    const int status = pclose(p);
    if (got != 10 || status != 0) {
        std::fprintf(stderr, "child %s failed (status %d)\n", fmt, status);
        return false;
    }
    return true;
}

std::string self_path() {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "";
    buf[n] = '\0';
    return buf;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 5 && std::strcmp(argv[1], "--child") == 0) return child(argv[2], argv[3], std::atoi(argv[4]));

    const size_t imageMiB = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 16;
    const int iterations = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
    const size_t imageBytes = imageMiB << 20;
    const size_t quarterBytes = imageBytes / 4;

    const char* tmp = std::getenv("TMPDIR");
    std::string dir = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/bench_hexfile.XXXXXX";
    if (mkdtemp(&dir[0]) == nullptr) {
        std::perror("mkdtemp");
        return 2;
    }
    const std::string self = self_path();
    const std::string ihxPath = dir + "/image.hex", s19Path = dir + "/image.s19";
    const std::string ihxQ = dir + "/quarter.hex", s19Q = dir + "/quarter.s19";

    std::printf("bench_hexfile: %zu MiB image in %u-byte records, generated in %s\n", imageMiB, kRecordBytes,
                dir.c_str());
    const uint64_t hash = generate(ihxPath, s19Path, imageBytes);
    const uint64_t hashQ = generate(ihxQ, s19Q, quarterBytes);

    bool ok = true;
    for (const char* fmt : {"ihx", "s19"}) {
        const bool isIhx = std::strcmp(fmt, "ihx") == 0;
        Result r, q;
        if (!run_child(self, fmt, isIhx ? ihxPath : s19Path, iterations, r) ||
            !run_child(self, fmt, isIhx ? ihxQ : s19Q, iterations, q)) {
            ok = false;
            continue;
        }
        const bool correct = r.hash == hash && r.imageBytes == imageBytes && q.hash == hashQ &&
                             r.imageLen == static_cast<int>(imageBytes);
        const double mbps = r.fileBytes / r.best / 1e6;
        const double mbpsMedian = r.fileBytes / r.median / 1e6;
        const double peakMB = r.peakKiB * 1024.0 / 1e6;
        const double baseMB = r.baseKiB * 1024.0 / 1e6;
        const double limitMB = (2.0 * imageBytes + r.fileBytes) / 1e6;
        // Time per input byte, full file over quarter file (1.0 = linear; quadratic
        // growth would make it about 4).
        const double perByteRatio = (r.best / r.fileBytes) / (q.best / q.fileBytes);
        const bool speedOk = mbps >= kTargetMBps;
        const bool memOk = peakMB < limitMB;
        const bool linearOk = perByteRatio < 1.6;
        ok = ok && correct && speedOk && memOk && linearOk;
        std::printf("\nhexfile_convert_%s: %.1f MB file, %u-byte image, data %s\n", fmt, r.fileBytes / 1e6,
                    r.imageBytes, correct ? "verified" : "WRONG");
        std::printf("  throughput  best %7.1f MB/s, median %7.1f MB/s, first run %7.1f MB/s"
                    "   target >= %.0f MB/s   %s\n",
                    mbps, mbpsMedian, r.fileBytes / r.first / 1e6, kTargetMBps, speedOk ? "ok" : "MISSED");
        std::printf("  peak memory %7.1f MB (ru_maxrss; process baseline %.1f MB, file %.1f MB, image %.1f MB)"
                    "   target < %.1f MB   %s\n",
                    peakMB, baseMB, r.fileBytes / 1e6, imageBytes / 1e6, limitMB, memOk ? "ok" : "MISSED");
        std::printf("  scaling     %.1f MB file %.1f MB/s; time per byte full/quarter = %.2f"
                    "   target ~1 (quadratic ~4)   %s\n",
                    q.fileBytes / 1e6, q.fileBytes / q.best / 1e6, perByteRatio, linearOk ? "ok" : "MISSED");
        std::printf("  hexfile_convert_image of the blocks: %.1f MB/s of image (informational)\n",
                    r.imageLen / r.imageSec / 1e6);
        const std::string name = std::string("hexfile_convert_") + fmt;
        if (!correct) std::printf("MISS: %s: data WRONG (target: verified)\n", name.c_str());
        bench::check_target((name + " throughput, best").c_str(), mbps, "MB/s", ">=", kTargetMBps);
        bench::check_target((name + " peak memory").c_str(), peakMB, "MB", "<", limitMB);
        bench::check_target((name + " time per byte, full/quarter file").c_str(), perByteRatio, "", "<", 1.6);
    }
    for (const std::string& p : {ihxPath, s19Path, ihxQ, s19Q}) std::remove(p.c_str());
    rmdir(dir.c_str());
    std::printf("\n%s\n", ok ? "all targets met" : "SOME TARGETS MISSED");
    return ok ? 0 : 1;
}
