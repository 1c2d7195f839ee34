// What the process tests share: their includes, finding a process or module
// in a collection, a tool's digest of a file, a file's bytes, and children
// started, awaited and killed at scope end.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <iterator>
#include <thread>
#include <vector>

#include "collectors.h"
#include "core/common.h"
#include "process/process_parse.h"
#include "test_util.h"

namespace amproc {

namespace fs = std::filesystem;
using amsvc::AM;

inline const AM::ProcessInfo* find_pid(const std::vector<AM::ProcessInfo>& all, int pid) {
    for (const AM::ProcessInfo& p : all)
        if (p.pid == pid) return &p;
    return nullptr;
}

inline const AM::ProcessModuleInfo* find_module(const AM::ProcessInfo* p, const std::string& path) {
    if (!p) return nullptr;
    for (const AM::ProcessModuleInfo& m : p->modules)
        if (m.path == path) return &m;
    return nullptr;
}

// The first word of `tool` run on `path` ("md5sum", "sha256sum").
inline std::string sum(const std::string& path, const char* tool = "md5sum") {
    const std::string out = amtest::run(std::string(tool) + " '" + path + "'");
    return out.substr(0, out.find_first_of(" \n"));
}

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string cmdline(pid_t pid) { return slurp("/proc/" + std::to_string(pid) + "/cmdline"); }

// A copy of /bin/sleep at `to`, made distinct by trailing bytes (ELF ignores them).
inline void copy_sleep(const std::string& to, const std::string& mark) {
    amtest::write_file(to, slurp("/bin/sleep") + mark, 0755);
}

// Polls `done` every 10 ms, `tries` times at most; whether it came true.
inline bool wait_until(const std::function<bool()>& done, int tries = 500) {
    for (int i = 0; i < tries; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// Kills and reaps its children when the test ends, however it ends.
struct Reaper {
    std::vector<pid_t> pids;
    ~Reaper() {
        for (pid_t p : pids) {
            if (p <= 0) continue;
            kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
        }
    }
};

// Execs `exe` with `argv` and exactly `env` in a child that first runs
// `prepare` (chdir, chroot; false gives up); `reaper` ends it.
inline pid_t spawn(Reaper& reaper, const std::string& exe, std::vector<std::string> argv,
                   std::vector<std::string> env = {}, const std::function<bool()>& prepare = {}) {
    std::vector<char*> av, ev;
    for (auto& s : argv) av.push_back(&s[0]);
    for (auto& s : env) ev.push_back(&s[0]);
    av.push_back(nullptr);
    ev.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (!prepare || prepare()) execve(exe.c_str(), av.data(), ev.data());
        _exit(127);
    }
    reaper.pids.push_back(pid);
    return pid;
}

}  // namespace amproc
