// Launches a short program through polybus-sim and a shell-script wrapper many
// times, several at once beside busy threads, and fails on any launch that hangs,
// fails, or leaves a process behind.
//
//   launch_stress LAUNCHER WRAPPER PROGRAM [--runs N] [--parallel P] [--load T]
//                 [--timeout S] [--program-every K]
//
// Each launch runs `LAUNCHER -- WRAPPER PROGRAM 1` in its own process group; with
// --program-every K only every K-th launch runs PROGRAM (which must find one
// adapter), the others run `true` through the same launcher and wrapper. The
// wrapper's processes are where launches hung; a simulated adapter in every launch
// would mostly measure the simulator's start-up. This
// process is a child subreaper, so anything the launch leaves running is
// re-parented here and seen. A hung launch is reported with the state and blocked
// signal set of every process in its group (a process stuck with all signals
// blocked is what this test exists to catch), then killed.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string launcher, wrapper, program;
    int runs = 500, parallel = 4, load = 2, program_every = 1;
    double timeout_s = 20;
};

struct Launch {
    int index;
    Clock::time_point started;
    std::string output_path;
};

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Process ids whose process group is pgid (re-parented orphans included).
std::vector<pid_t> group_members(pid_t pgid) {
    std::vector<pid_t> out;
    DIR* d = opendir("/proc");
    if (!d) return out;
    while (dirent* e = readdir(d)) {
        char* end;
        long pid = std::strtol(e->d_name, &end, 10);
        if (*end || pid <= 0) continue;
        std::string stat = read_file("/proc/" + std::string(e->d_name) + "/stat");
        size_t close = stat.rfind(')');
        if (close == std::string::npos) continue;
        // After "pid (comm) ": state ppid pgrp ...
        std::istringstream rest(stat.substr(close + 2));
        char state;
        long ppid, pgrp;
        if (rest >> state >> ppid >> pgrp && pgrp == pgid && state != 'Z') out.push_back(pid_t(pid));
    }
    closedir(d);
    return out;
}

void describe(pid_t pid) {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    std::string cmdline = read_file("/proc/" + std::to_string(pid) + "/cmdline");
    for (char& c : cmdline)
        if (c == '\0') c = ' ';
    std::string wchan = read_file("/proc/" + std::to_string(pid) + "/wchan");
    std::fprintf(stderr, "    pid %d: %s\n", int(pid), cmdline.c_str());
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("State:", 0) == 0 || line.rfind("SigBlk:", 0) == 0 || line.rfind("Threads:", 0) == 0)
            std::fprintf(stderr, "      %s\n", line.c_str());
    std::fprintf(stderr, "      wchan: %s\n", wchan.c_str());
}

void reap_everything() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

// Kills what is left of a launch's group and collects it.
void kill_group(pid_t pgid) {
    kill(-pgid, SIGKILL);
    for (int i = 0; i < 200 && !group_members(pgid).empty(); ++i) {
        reap_everything();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    reap_everything();
}

pid_t start(const Options& o, const std::string& output_path, bool with_program) {
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        int fd = open(output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        const char* program = with_program ? o.program.c_str() : "/bin/true";
        const char* argv[] = {o.launcher.c_str(), "--", o.wrapper.c_str(), program, "1", nullptr};
        execv(argv[0], const_cast<char* const*>(argv));
        _exit(127);
    }
    if (pid > 0) setpgid(pid, pid);  // both sides, so it holds before either runs on
    return pid;
}

bool parse(int argc, char** argv, Options& o) {
    std::vector<std::string> pos;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto number = [&](double& v) {
            if (i + 1 >= argc) return false;
            v = std::atof(argv[++i]);
            return v > 0;
        };
        double v = 0;
        if (a == "--runs" || a == "--parallel" || a == "--load" || a == "--timeout" || a == "--program-every") {
            if (!number(v) && a != "--load") return false;
            if (a == "--runs") o.runs = int(v);
            if (a == "--parallel") o.parallel = int(v);
            if (a == "--load") o.load = int(v);
            if (a == "--timeout") o.timeout_s = v;
            if (a == "--program-every") o.program_every = int(v);
        } else {
            pos.push_back(a);
        }
    }
    if (pos.size() != 3) return false;
    o.launcher = pos[0];
    o.wrapper = pos[1];
    o.program = pos[2];
    return o.runs > 0 && o.parallel > 0 && o.program_every > 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: launch_stress LAUNCHER WRAPPER PROGRAM [--runs N] [--parallel P] [--load T] "
                     "[--timeout S] [--program-every K]\n");
        return 2;
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    char dir_template[] = "/tmp/launch_stress.XXXXXX";
    const char* dir = mkdtemp(dir_template);
    if (!dir) {
        std::perror("mkdtemp");
        return 2;
    }

    std::atomic<bool> stop{false};
    std::vector<std::thread> load;
    for (int i = 0; i < o.load; ++i)
        load.emplace_back([&] {
            volatile unsigned long x = 0;
            while (!stop.load(std::memory_order_relaxed)) x = x + 1;
        });

    std::map<pid_t, Launch> running;
    int started = 0, finished = 0, hangs = 0, failures = 0, leftovers = 0;
    const auto limit = std::chrono::duration<double>(o.timeout_s);
    const auto t0 = Clock::now();
    while (finished < o.runs) {
        while (started < o.runs && int(running.size()) < o.parallel) {
            std::string out = std::string(dir) + "/launch" + std::to_string(started % (o.parallel * 2)) + ".log";
            pid_t pid = start(o, out, started % o.program_every == 0);
            if (pid < 0) {
                std::perror("fork");
                return 2;
            }
            running[pid] = Launch{started++, Clock::now(), out};
        }
        int status;
        pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid > 0) {
            auto it = running.find(pid);
            if (it == running.end()) continue;  // a re-parented leftover; counted below
            Launch l = it->second;
            running.erase(it);
            ++finished;
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                ++failures;
                std::fprintf(stderr, "launch %d failed (%s %d): %s\n", l.index,
                             WIFEXITED(status) ? "exit status" : "signal",
                             WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status),
                             read_file(l.output_path).c_str());
            }
            // The group may need a moment to empty after its leader is gone.
            std::vector<pid_t> left;
            for (int i = 0; i < 100 && !(left = group_members(pid)).empty(); ++i) {
                reap_everything();
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            if (!left.empty()) {
                ++leftovers;
                std::fprintf(stderr, "launch %d left %zu process(es) behind:\n", l.index, left.size());
                for (pid_t p : left) describe(p);
                kill_group(pid);
            }
            continue;
        }
        const auto now = Clock::now();
        for (auto it = running.begin(); it != running.end();) {
            if (now - it->second.started < limit) {
                ++it;
                continue;
            }
            ++hangs;
            ++finished;
            std::fprintf(stderr, "launch %d hung for %.0f s; its processes:\n", it->second.index, o.timeout_s);
            std::vector<pid_t> members = group_members(it->first);
            if (members.empty()) members.push_back(it->first);  // a leader that left its group
            for (pid_t p : members) describe(p);
            kill_group(it->first);
            it = running.erase(it);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop = true;
    for (auto& t : load) t.join();
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    std::printf("%d launches (%d with the program, %d at a time, %d busy threads) in %.1f s: %d hung, %d failed, "
                "%d left processes behind\n",
                o.runs, (o.runs + o.program_every - 1) / o.program_every, o.parallel, o.load, secs, hangs, failures,
                leftovers);
    for (int i = 0; i < o.parallel * 2; ++i) unlink((std::string(dir) + "/launch" + std::to_string(i) + ".log").c_str());
    rmdir(dir);
    return hangs || failures || leftovers ? 1 : 0;
}
