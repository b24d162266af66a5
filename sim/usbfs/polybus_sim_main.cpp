// polybus-sim: runs a program with simulated adapters attached inside its process.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "config.h"
#include "world.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: polybus-sim [options] -- PROGRAM [ARGS...]\n"
                 "       polybus-sim --world FILE -- PROGRAM [ARGS...]\n"
                 "\n"
                 "Runs PROGRAM with simulated Polybus adapters plugged in. The program uses\n"
                 "libpolybus (or libusb) unmodified and finds the adapters by scanning.\n"
                 "\n"
                 "options:\n"
                 "  -n, --adapters N     plug N adapters (default 1), identifiers 0x41000001, ...\n"
                 "  -i, --id LIST        plug adapters with these identifiers, comma-separated\n"
                 "                       (hex or decimal; the top byte is the model code,\n"
                 "                       e.g. 0x53000001 for a CAN FD adapter); overrides -n\n"
                 "  -w, --world FILE     plug the adapters of a world file (TOML: adapters, buses,\n"
                 "                       peers, pins, faults; see docs/world-files.md). The file\n"
                 "                       is checked first: a bad one stops here with its\n"
                 "                       file:line:column, exit status 2. The program finds the\n"
                 "                       file in POLYBUS_SIM_WORLD and reads it again in-process\n"
                 "  -h, --help           show this text\n"
                 "\n"
                 "example: polybus-sim -i 0x41000001,0x53000002 -- python3 my_script.py\n"
                 "         polybus-sim --world examples/worlds/two_adapters.toml -- build/polybus-demo\n");
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
    std::string ids, world_file;
    int count = 1;
    bool count_given = false;
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
            count_given = true;
            if (count < 1 || count > 30) {
                std::fprintf(stderr, "polybus-sim: --adapters takes 1 to 30\n");
                return 2;
            }
        } else if ((!std::strcmp(a, "-i") || !std::strcmp(a, "--id")) && i + 1 < argc) {
            ids = argv[++i];
        } else if ((!std::strcmp(a, "-w") || !std::strcmp(a, "--world")) && i + 1 < argc) {
            world_file = argv[++i];
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
    // Ours first: its ioctl answers the simulated adapters' requests in the calling
    // thread and hands everything else on to umockdev's.
    std::string preload = own_directory() + "/libpolybus-sim-preload.so libumockdev-preload.so.0";
    if (const char* old = std::getenv("LD_PRELOAD"); old && *old) preload = std::string(old) + " " + preload;
    if (!world_file.empty()) {
        if (!ids.empty() || count_given) {
            std::fprintf(stderr, "polybus-sim: --world describes the adapters itself; drop --adapters and --id\n");
            return 2;
        }
        // The program may run elsewhere: hand it an absolute path.
        char* absolute = realpath(world_file.c_str(), nullptr);
        if (absolute == nullptr) {
            std::fprintf(stderr, "polybus-sim: %s:0:0: cannot read the world file: %s\n", world_file.c_str(),
                         std::strerror(errno));
            return 2;
        }
        try {
            polybus_sim::world::load_world(world_file);  // messages name the file as the user did
        } catch (const std::exception& e) {
            std::fprintf(stderr, "polybus-sim: %s\n", e.what());
            std::free(absolute);
            return 2;
        }
        world_file = absolute;
        std::free(absolute);
        setenv("LD_PRELOAD", preload.c_str(), 1);
        setenv("POLYBUS_SIM_WORLD", world_file.c_str(), 1);
        unsetenv("POLYBUS_SIM_ADAPTERS");
        execvp(argv[i], argv + i);
        std::fprintf(stderr, "polybus-sim: cannot run '%s': %s\n", argv[i], std::strerror(errno));
        return 127;
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
    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv("POLYBUS_SIM_ADAPTERS", ids.c_str(), 1);
    unsetenv("POLYBUS_SIM_WORLD");
    execvp(argv[i], argv + i);
    std::fprintf(stderr, "polybus-sim: cannot run '%s': %s\n", argv[i], std::strerror(errno));
    return 127;
}
