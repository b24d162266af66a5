// Guards around libumockdev-preload 0.17: its signal masking, its usleep(0) and
// its locks. Built into every simulator process (test programs through usbfs.cpp,
// launched programs and their wrappers through the launcher's preload).
//
// The preload blocks every signal around each call it wraps: twice per ioctl,
// around read() and write() of any descriptor (it looks each one up under its
// ioctl lock), and around every file system call under its path lock.
//
// 1. The path lock saves the caller's mask into ONE static variable, and it does
//    so before taking the lock. A thread that runs with every signal blocked
//    (GLib's worker, libusb's and umockdev's threads) overwrites the value another
//    thread saved, and that thread then "restores" a fully blocked mask: it runs
//    on with all signals blocked, and so does every program it starts (the mask
//    survives fork and exec). We keep each thread's saved mask in the thread
//    itself and restore that one.
// 2. Each blocking is two system calls, which on our virtual machines cost more
//    than the rest of an emulated ioctl: umockdev's handler thread alone made
//    about twenty of them per ioctl. That thread runs with every signal blocked
//    (UsbHost blocks them there), and for a thread whose mask is already full,
//    blocking everything and restoring it change nothing: those calls are
//    answered without entering the kernel. The thread's mask is tracked through
//    these two functions; a thread that changes its mask behind them (siglongjmp,
//    setcontext) while fully blocked would be misjudged, which none of the
//    fully blocked threads of a simulator process does.
// 3. The preload calls usleep(0) after each forwarded ioctl (see usleep below).
// 4. The ioctl path itself (see ioctl below): the simulator answers usbfs ioctls on
//    its own nodes in the calling thread instead of through umockdev's socket.
// 5. fork(): a child inherits the preload's locks in whatever state other threads
//    held them, and its first wrapped call (an open, a stat) then waits forever,
//    with every signal blocked because the preload blocks them before it locks.
//    A pthread_atfork handler holds both locks across fork().
//
// pthread_sigmask, sigprocmask and usleep are defined here and exported, so they
// take precedence over libc's for the preload (which finds them through the
// global scope). Only calls made from the preload's own code get the treatment
// above; everyone else's pass straight through. No C++ runtime is used here: the
// launcher's preload, which every process of a launched chain loads, is libc only.

#include "umockdev_guards.h"

#include <dlfcn.h>
#include <link.h>
#include <linux/ioctl.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstring>

namespace polybus_sim {
namespace {

using SigmaskFn = int (*)(int, const sigset_t*, sigset_t*);

// The next definition of `name` after ours (libc's, or a preload's), looked up once.
template <typename Fn>
Fn next_symbol(const char* name, std::atomic<Fn>& cache) {
    Fn f = cache.load(std::memory_order_acquire);
    if (!f) {
        f = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
        cache.store(f, std::memory_order_release);
    }
    return f;
}

std::atomic<SigmaskFn> g_real_pthread_sigmask{nullptr}, g_real_sigprocmask{nullptr};
SigmaskFn real_pthread_sigmask() { return next_symbol("pthread_sigmask", g_real_pthread_sigmask); }
SigmaskFn real_sigprocmask() { return next_symbol("sigprocmask", g_real_sigprocmask); }

// Address range of the preload's code; {1, 0} when it is not loaded.
std::atomic<uintptr_t> g_lo{0}, g_hi{0};
std::atomic<bool> g_range_known{false};

void find_preload_range() {
    struct Range {
        uintptr_t lo = 1, hi = 0;
    } r;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* out) -> int {
            if (!info->dlpi_name || !std::strstr(info->dlpi_name, "libumockdev-preload.so")) return 0;
            auto& range = *static_cast<Range*>(out);
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const ElfW(Phdr)& ph = info->dlpi_phdr[i];
                if (ph.p_type != PT_LOAD || !(ph.p_flags & PF_X)) continue;
                uintptr_t lo = info->dlpi_addr + ph.p_vaddr, hi = lo + ph.p_memsz;
                if (range.lo > range.hi || lo < range.lo) range.lo = lo;
                if (hi > range.hi) range.hi = hi;
            }
            return 1;
        },
        &r);
    g_lo.store(r.lo, std::memory_order_relaxed);
    g_hi.store(r.hi, std::memory_order_relaxed);
    g_range_known.store(true, std::memory_order_release);
}

bool from_preload(const void* return_address) {
    if (!g_range_known.load(std::memory_order_acquire)) find_preload_range();
    auto a = reinterpret_cast<uintptr_t>(return_address);
    return a >= g_lo.load(std::memory_order_relaxed) && a < g_hi.load(std::memory_order_relaxed);
}

// Every signal a thread can block (SIGKILL and SIGSTOP cannot be, and glibc keeps
// its two internal ones out of every mask).
bool is_full(const sigset_t& s) {
    for (int sig = 1; sig < 32; ++sig) {  // 32 and 33 are glibc's, below SIGRTMIN
        if (sig == SIGKILL || sig == SIGSTOP) continue;
        if (!sigismember(&s, sig)) return false;
    }
    for (int sig = SIGRTMIN; sig <= SIGRTMAX; ++sig)
        if (!sigismember(&s, sig)) return false;
    return true;
}

// Per thread: whether its mask is known to be full, and the masks the preload
// saved, innermost last, keyed by where the preload believes it saved them.
constexpr int kMaxSaved = 8;
struct ThreadMasks {
    bool full;
    int depth;
    const sigset_t* where[kMaxSaved];
    sigset_t saved[kMaxSaved];
};
thread_local ThreadMasks t_masks;  // zero-initialised, no constructor

int preload_sigmask(SigmaskFn real, int how, const sigset_t* set, sigset_t* old) {
    ThreadMasks& t = t_masks;
    if (how == SIG_SETMASK && set && old && is_full(*set)) {
        // Entering a blocked section: remember the caller's mask in this thread.
        sigset_t prev;
        if (t.full) {
            sigfillset(&prev);
        } else {
            int r = real(how, set, &prev);
            if (r != 0) return r;
            t.full = true;
        }
        // The preload's own copy (its shared variable, for the path lock) is only
        // read back by the restoring call below, which uses ours instead; writing
        // it from every thread at once is the race, so it stays untouched.
        if (t.depth < kMaxSaved) {
            t.where[t.depth] = old;
            t.saved[t.depth] = prev;
            ++t.depth;
        } else {
            *old = prev;
        }
        return 0;
    }
    if (how == SIG_SETMASK && set && !old) {
        // Leaving it: restore what this thread saved, not what the shared variable
        // says now (innermost first; a section left without restoring is skipped).
        const sigset_t* restore = set;
        for (int i = t.depth - 1; i >= 0; --i) {
            if (t.where[i] == set) {
                restore = &t.saved[i];
                t.depth = i;
                break;
            }
        }
        const sigset_t mask = *restore;
        const bool full = is_full(mask);
        if (t.full && full) return 0;
        int r = real(SIG_SETMASK, &mask, nullptr);
        t.full = r == 0 ? full : false;
        return r;
    }
    t.full = false;
    return real(how, set, old);
}

pthread_mutex_t* preload_lock(const char* name) {
    return static_cast<pthread_mutex_t*>(dlsym(RTLD_DEFAULT, name));
}

pthread_mutex_t* g_path_lock = nullptr;
pthread_mutex_t* g_ioctl_lock = nullptr;

void before_fork() {
    // The order the preload nests them in.
    if (g_path_lock) pthread_mutex_lock(g_path_lock);
    if (g_ioctl_lock) pthread_mutex_lock(g_ioctl_lock);
}

void after_fork() {
    if (g_ioctl_lock) pthread_mutex_unlock(g_ioctl_lock);
    if (g_path_lock) pthread_mutex_unlock(g_path_lock);
}

}  // namespace

void install_fork_guard() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] {
        g_path_lock = preload_lock("trap_path_lock");
        g_ioctl_lock = preload_lock("ioctl_lock");
        if (g_path_lock || g_ioctl_lock) pthread_atfork(before_fork, after_fork, after_fork);
    });
}

void block_all_signals_in_this_thread() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace polybus_sim

extern "C" __attribute__((visibility("default"))) int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
    using namespace polybus_sim;
    SigmaskFn real = real_pthread_sigmask();
    if (from_preload(__builtin_return_address(0))) return preload_sigmask(real, how, set, old);
    t_masks.full = false;
    return real(how, set, old);
}

extern "C" __attribute__((visibility("default"))) int sigprocmask(int how, const sigset_t* set, sigset_t* old) {
    using namespace polybus_sim;
    SigmaskFn real = real_sigprocmask();
    if (from_preload(__builtin_return_address(0))) return preload_sigmask(real, how, set, old);
    t_masks.full = false;
    return real(how, set, old);
}

// The preload yields with usleep(0) after each forwarded ioctl. Exported from the
// executable so that call lands here and returns at once: the yield only gives
// other threads of the program a chance at the descriptor's lock, which its
// release already does, and on a busy machine each yield hands the CPU to
// another process for a whole time slice. Everything else still sleeps for real.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t usec) {
    if (usec == 0) return 0;
    timespec ts{static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
    return nanosleep(&ts, nullptr);
}

// ---------------------------------------------------------------------------------
// The in-thread ioctl path.
//
// umockdev forwards every ioctl on an emulated node over a socket to its handler
// thread and back: two thread wake-ups per ioctl, nine ioctls per command exchange,
// and on a busy virtual machine each wake-up can cost a scheduling delay. The
// simulator lives in the very process that makes the ioctl, so it can answer in the
// calling thread. This ioctl, exported from the program (or the launcher's preload,
// which comes before umockdev's), offers every usbfs request to the hook the
// simulator installs; whatever the hook does not claim goes on to umockdev's ioctl
// and from there to the kernel. close() tells the simulator that a descriptor it
// answered for has gone, so that a reused number is never mistaken for it.

namespace {

using polybus_sim::next_symbol;

std::atomic<polybus_sim_ioctl_hook> g_ioctl_hook{nullptr};
std::atomic<polybus_sim_close_hook> g_close_hook{nullptr};

// Descriptors the close hook must hear about; larger numbers always reach it.
constexpr int kWatched = 4096;
std::atomic<bool> g_watched[kWatched];

using IoctlFn = int (*)(int, unsigned long, void*);
using CloseFn = int (*)(int);
std::atomic<IoctlFn> g_real_ioctl{nullptr};
std::atomic<CloseFn> g_real_close{nullptr};

// Looked up at load time: a first close() can come where dlsym() must not run,
// such as a forked child closing descriptors before it execs.
__attribute__((constructor)) void find_real_ioctl_and_close() {
    next_symbol("ioctl", g_real_ioctl);
    next_symbol("close", g_real_close);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void polybus_sim_set_ioctl_hooks(polybus_sim_ioctl_hook on_ioctl,
                                                                                   polybus_sim_close_hook on_close) {
    g_close_hook.store(on_close, std::memory_order_release);
    g_ioctl_hook.store(on_ioctl, std::memory_order_release);
}

extern "C" __attribute__((visibility("default"))) void polybus_sim_watch_close(int fd) {
    if (fd >= 0 && fd < kWatched) g_watched[fd].store(true, std::memory_order_release);
}

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (_IOC_TYPE(request) == 'U') {
        if (polybus_sim_ioctl_hook hook = g_ioctl_hook.load(std::memory_order_acquire)) {
            int result;
            if (hook(fd, request, arg, &result)) return result;
        }
    }
    IoctlFn real = next_symbol("ioctl", g_real_ioctl);
    if (!real) {
        errno = ENOSYS;
        return -1;
    }
    return real(fd, request, arg);
}

extern "C" __attribute__((visibility("default"))) int close(int fd) {
    if (fd >= kWatched || (fd >= 0 && g_watched[fd].load(std::memory_order_relaxed) &&
                           g_watched[fd].exchange(false, std::memory_order_acq_rel))) {
        if (polybus_sim_close_hook hook = g_close_hook.load(std::memory_order_acquire)) hook(fd);
    }
    CloseFn real = next_symbol("close", g_real_close);
    if (!real) {
        errno = ENOSYS;
        return -1;
    }
    return real(fd);
}
