// Loaded into an unmodified program by the polybus-sim launcher: plugs the simulated
// adapters into the process that uses libusb.
//
// The launcher's LD_PRELOAD reaches every process of the chain it starts: wrapper
// scripts (a pyenv shim is a bash script that forks and runs small tools before it
// execs python), the program, and whatever the program runs. Plugging starts
// umockdev's threads, and a process with threads that forks hands its child
// whatever locks those threads held at that instant; the child of a shell then
// hung in its first file call, with every signal blocked. So a process gets
// adapters only when it uses libusb: at start if libusb is already loaded (a
// program linked against libpolybus; no other thread exists yet, which umockdev
// 0.17 needs), otherwise in its first libusb_init() (a script that loads libpolybus
// later). Shells and other wrappers never start a thread.
//
// This library itself stays small (libc only), because every process of the chain
// loads it: the simulator, with umockdev and GLib, is libpolybus-sim-plug.so beside
// it, opened only where adapters are plugged. It also carries the fixes for the
// umockdev preload (umockdev_guards.cpp), which every process needs.
//
// Nothing is unplugged at exit: the process is going away with its testbed, and a
// forked child must not tear down what its parent still uses.
#include <dlfcn.h>
#include <link.h>

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool libusb_loaded() {
    return dl_iterate_phdr(
               [](dl_phdr_info* info, size_t, void*) -> int {
                   return info->dlpi_name && std::strstr(info->dlpi_name, "libusb-1.0.so") ? 1 : 0;
               },
               nullptr) != 0;
}

// Opens the plug library next to this one and plugs what the launcher asked for.
// (No C++ runtime in here: see above.)
void plug() {
    if (!std::getenv("POLYBUS_SIM_ADAPTERS") && !std::getenv("POLYBUS_SIM_WORLD")) return;
    Dl_info info{};
    char lib[4096] = "libpolybus-sim-plug.so";
    if (dladdr(reinterpret_cast<void*>(&plug), &info) && info.dli_fname) {
        const char* slash = std::strrchr(info.dli_fname, '/');
        if (slash)
            std::snprintf(lib, sizeof lib, "%.*s/libpolybus-sim-plug.so", int(slash - info.dli_fname),
                          info.dli_fname);
    }
    void* h = dlopen(lib, RTLD_NOW | RTLD_LOCAL);
    auto fn = h ? reinterpret_cast<int (*)()>(dlsym(h, "polybus_sim_plug_from_environment")) : nullptr;
    if (!fn) {
        std::fprintf(stderr, "polybus-sim: cannot load %s: %s\n", lib, dlerror());
        return;
    }
    fn();
}

pthread_once_t g_plugged = PTHREAD_ONCE_INIT;
void plug_once() { pthread_once(&g_plugged, plug); }

__attribute__((constructor)) void polybus_sim_attach() {
    if (libusb_loaded()) plug_once();
}

template <typename Fn>
Fn next_symbol(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// libusb's entry points, taken over so that the adapters are in place before
// libusb first looks for devices. ctx is libusb_context**; libusb's headers are
// not needed for a pass-through.
extern "C" __attribute__((visibility("default"))) int libusb_init(void** ctx) {
    plug_once();
    auto real = next_symbol<int (*)(void**)>("libusb_init");
    return real ? real(ctx) : -99;  // LIBUSB_ERROR_OTHER
}

extern "C" __attribute__((visibility("default"))) int libusb_init_context(void** ctx, const void* options,
                                                                          int num_options) {
    plug_once();
    auto real = next_symbol<int (*)(void**, const void*, int)>("libusb_init_context");
    return real ? real(ctx, options, num_options) : -99;
}
