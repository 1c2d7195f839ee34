// What the process tests share: their includes, finding a process or module
// in a collection, a record as text, a tool's digest of a file, and children
// started, awaited and killed at scope end.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

#include "collectors.h"
#include "core/common.h"
#include "process/process_parse.h"
#include "test_util.h"

namespace amproc {

namespace fs = std::filesystem;
using amsvc::AM;
using amtest::read_text;

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

// Processes as text, a field a line ("-" when empty), to compare whole
// records; a command line longer than a line by its size.
inline std::string text(const std::vector<AM::ProcessInfo>& all) {
    const auto dash = [](const std::string& s) { return s.empty() ? std::string("-") : s; };
    std::ostringstream o;
    for (const AM::ProcessInfo& p : all) {
        const std::string& cmd = p.cmd_line;
        o << "pid " << p.pid << "\nppid " << p.ppid << "\nuser " << dash(p.user) << "\nname " << dash(p.name)
          << "\nstime " << dash(p.stime) << "\nrtime " << dash(p.rtime) << "\npath " << dash(p.path)
          << "\ncwd " << dash(p.current_dir) << "\ncmd "
          << (cmd.size() > 100 ? std::to_string(cmd.size()) + " bytes" : dash(cmd)) << "\nenv " << dash(p.env)
          << "\n";
        for (const AM::ProcessModuleInfo& m : p.modules)
            o << "module " << m.path << " md5 " << dash(m.md5) << " sha256 " << dash(m.sha256) << " company "
              << dash(m.company) << (m.verified ? " verified\n" : "\n");
    }
    return o.str();
}

inline std::string cmdline(pid_t pid) { return read_text("/proc/" + std::to_string(pid) + "/cmdline"); }

// Compiles the tests' own program (fixtures/helper.c) to `out`; whether it built.
inline bool build_helper(const std::string& out) {
    int st = 0;
    amtest::run("cc -O1 -o '" + out + "' '" ASSETMAN_FIXTURES "/helper.c' 2>&1", &st);
    return st == 0;
}

// Polls `done` every 10 ms, `tries` times at most; whether it came true.
inline bool wait_until(const std::function<bool()>& done, int tries = 500) {
    for (int i = 0; i < tries; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// Kills and reaps its children, and the process groups they lead, when the
// test ends, however it ends.
struct Reaper {
    std::vector<pid_t> pids;
    ~Reaper() {
        for (pid_t p : pids) {
            if (p <= 0) continue;
            if (getpgid(p) == p) kill(-p, SIGKILL);
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
