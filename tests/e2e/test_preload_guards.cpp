// The process set-up around the umockdev preload: signal masks and fork() while
// other threads sit in the preload's wrapped file calls (see umockdev_guards.cpp).
// Threads that run with every signal blocked are what a simulator process has
// (GLib's, libusb's and umockdev's own); here they are made on purpose.

#include "usbfs.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

using namespace polybus_sim;

namespace {

// Threads with every signal blocked, calling into the preload's path wrappers
// (which take its path lock and block signals around it) until stopped.
class BusyBlockedThreads {
public:
    explicit BusyBlockedThreads(int n) {
        sigset_t all, old;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &old);  // inherited by the threads
        for (int i = 0; i < n; ++i)
            threads_.emplace_back([this] {
                struct stat st;
                while (!stop_.load(std::memory_order_relaxed)) {
                    stat("/sys/bus/usb/devices", &st);
                    access("/dev/bus/usb", F_OK);
                }
            });
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    ~BusyBlockedThreads() {
        stop_ = true;
        for (auto& t : threads_) t.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

sigset_t current_mask() {
    sigset_t s;
    pthread_sigmask(SIG_SETMASK, nullptr, &s);
    return s;
}

bool same_mask(const sigset_t& a, const sigset_t& b) {
    for (int sig = 1; sig < NSIG; ++sig)
        if (sigismember(&a, sig) != sigismember(&b, sig)) return false;
    return true;
}

std::string blocked_signals_of(pid_t pid) {
    FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    if (!f) return "?";
    char line[256];
    std::string out = "?";
    while (std::fgets(line, sizeof line, f))
        if (std::strncmp(line, "SigBlk:", 7) == 0) out = line + 7;
    std::fclose(f);
    return out;
}

}  // namespace

// The preload saves the mask of whoever enters its path lock in one shared
// variable; a fully blocked thread overwriting it used to leave this thread
// with every signal blocked after an ordinary stat().
TEST(PreloadGuards, SignalMaskSurvivesWrappedCallsBesideBlockedThreads) {
    UsbHost::instance();
    sigset_t mine;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR2);  // something recognisable, not the default
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &mine, &before);
    const sigset_t expected = current_mask();
    {
        BusyBlockedThreads busy(2);
        struct stat st;
        for (int i = 0; i < 20000; ++i) {
            stat("/sys/bus/usb/devices", &st);
            if (i % 100 == 0) {
                ASSERT_TRUE(same_mask(current_mask(), expected)) << "after " << i << " calls";
            }
        }
    }
    EXPECT_TRUE(same_mask(current_mask(), expected));
    // A program started now inherits this mask, not a fully blocked one.
    pid_t child = fork();
    if (child == 0) {
        _exit(same_mask(current_mask(), expected) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// fork() while other threads hold the preload's path lock: the child's own first
// wrapped call used to wait for a lock nobody in the child would ever release.
TEST(PreloadGuards, ForkedChildrenRunWhileOtherThreadsAreInWrappedCalls) {
    UsbHost::instance();
    BusyBlockedThreads busy(2);
    for (int i = 0; i < 200; ++i) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            struct stat st;
            stat("/sys/bus/usb/devices", &st);
            access("/dev/bus/usb", F_OK);
            _exit(0);
        }
        int status = 0;
        pid_t done = 0;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while ((done = waitpid(child, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        if (done == 0) {
            const std::string blocked = blocked_signals_of(child);
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            FAIL() << "child " << i << " hung; blocked signals: " << blocked;
        }
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << i;
    }
}
