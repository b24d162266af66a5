// polybus-sim: runs a program with simulated adapters attached inside its process.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "config.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: polybus-sim [options] -- PROGRAM [ARGS...]\n"
                 "\n"
                 "Runs PROGRAM with simulated Polybus adapters plugged in. The program uses\n"
                 "libpolybus (or libusb) unmodified and finds the adapters by scanning.\n"
                 "\n"
                 "options:\n"
                 "  -n, --adapters N     plug N adapters (default 1), identifiers 0x41000001, ...\n"
                 "  -i, --id LIST        plug adapters with these identifiers, comma-separated\n"
                 "                       (hex or decimal; the top byte is the model code,\n"
                 "                       e.g. 0x53000001 for a CAN FD adapter); overrides -n\n"
                 "  -h, --help           show this text\n"
                 "\n"
                 "example: polybus-sim -i 0x41000001,0x53000002 -- python3 my_script.py\n");
}

// Directory of this executable: the preload library is built next to it.
std::string own_directory() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) return ".";
    path[n] = '\0';
    std::string s(path);
    return s.substr(0, s.rfind('/'));
}

}  // namespace

int main(int argc, char** argv) {
    std::string ids;
    int count = 1;
    int i = 1;
    for (; i < argc; ++i) {
        const char* a = argv[i];
        if (std::strcmp(a, "--") == 0) {
            ++i;
            break;
        }
        if (!std::strcmp(a, "-h") || !std::strcmp(a, "--help")) {
            usage(stdout);
            return 0;
        }
        if ((!std::strcmp(a, "-n") || !std::strcmp(a, "--adapters")) && i + 1 < argc) {
            count = std::atoi(argv[++i]);
            if (count < 1 || count > 30) {
                std::fprintf(stderr, "polybus-sim: --adapters takes 1 to 30\n");
                return 2;
            }
        } else if ((!std::strcmp(a, "-i") || !std::strcmp(a, "--id")) && i + 1 < argc) {
            ids = argv[++i];
        } else {
            std::fprintf(stderr, "polybus-sim: unknown option '%s'\n", a);
            usage(stderr);
            return 2;
        }
    }
    if (i >= argc) {
        std::fprintf(stderr, "polybus-sim: no program given\n");
        usage(stderr);
        return 2;
    }
    if (ids.empty()) {
        for (int k = 0; k < count; ++k) {
            char buf[16];
            std::snprintf(buf, sizeof(buf), "%s0x%08X", k ? "," : "", 0x41000001u + unsigned(k));
            ids += buf;
        }
    }
    std::vector<polybus_sim::AdapterConfig> check;
    if (!polybus_sim::parse_adapter_list(ids, check)) {
        std::fprintf(stderr, "polybus-sim: bad identifier list '%s'\n", ids.c_str());
        return 2;
    }
    std::string preload = "libumockdev-preload.so.0 " + own_directory() + "/libpolybus-sim-preload.so";
    if (const char* old = std::getenv("LD_PRELOAD"); old && *old) preload = std::string(old) + " " + preload;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv("POLYBUS_SIM_ADAPTERS", ids.c_str(), 1);
    execvp(argv[i], argv + i);
    std::fprintf(stderr, "polybus-sim: cannot run '%s': %s\n", argv[i], std::strerror(errno));
    return 127;
}
