// What the process tests share: finding a process or module in a collection,
// a tool's digest of a file, a file's bytes, and children killed at scope end.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "collectors.h"
#include "test_util.h"

namespace amproc {

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

// A copy of /bin/sleep at `to`, made distinct by trailing bytes (ELF ignores them).
inline void copy_sleep(const std::string& to, const std::string& mark) {
    amtest::write_file(to, slurp("/bin/sleep") + mark, 0755);
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

}  // namespace amproc
