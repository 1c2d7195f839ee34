// Scaffolding the service tests share: a scratch directory that builds a fake
// host tree, a shell command's output, and a check that a tool is installed.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace amtest {

// The standard output of a shell command; its wait status in *status when asked.
inline std::string run(const std::string& cmd, int* status = nullptr) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    const int st = pclose(p);
    if (status) *status = st;
    return out;
}

// Whether every one of the space-separated commands is on PATH.
inline bool have_tools(const std::string& names) {
    const std::string check = "for t in " + names + "; do command -v \"$t\" >/dev/null 2>&1 || exit 1; done";
    return system(check.c_str()) == 0;
}

// Writes `text` at `path`, creating the directories above it.
inline void write_file(const std::string& path, const std::string& text, mode_t mode = 0644) {
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
}

// A directory under /tmp, removed with everything in it when the test ends.
// Paths given to the members are relative to it ("/etc/passwd").
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "amtest") {
        std::string tmpl = "/tmp/" + prefix + "_XXXXXX";
        // No directory means the test would write at the real host's paths.
        if (!mkdtemp(&tmpl[0])) throw std::runtime_error("mkdtemp failed for " + tmpl);
        path = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string path;

    // Returns the file's full path.
    std::string file(const std::string& rel, const std::string& text, mode_t mode = 0644) const {
        write_file(path + rel, text, mode);
        return path + rel;
    }
    void mkdir(const std::string& rel) const {
        std::error_code ec;
        std::filesystem::create_directories(path + rel, ec);
    }
    // A symbolic link at `rel` holding `target` verbatim.
    void link(const std::string& rel, const std::string& target) const {
        mkdir(rel.substr(0, rel.rfind('/')));
        ASSERT_EQ(symlink(target.c_str(), (path + rel).c_str()), 0) << rel;
    }
};

}  // namespace amtest

// Helpers of the container, server, image and user tests.
#include <grp.h>
#include <sys/wait.h>

#include <functional>

namespace amtest {

// The whole of a file's bytes; empty when it cannot be read.
inline std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A 64-byte ELF header of `machine`; `cls` 1 is 32-bit, `data` 2 big-endian.
inline std::string elf_header(int machine, char cls = 2, char data = 1) {
    std::string h("\177ELF", 4);
    h.resize(64, '\0');
    h[4] = cls;
    h[5] = data;
    h[6] = 1;
    h[data == 1 ? 18 : 19] = static_cast<char>(machine);
    return h;
}

// Runs `fn` in a child as nobody, without supplementary groups; the child's
// exit code is fn's result (99: the switch failed, 100: no normal exit).
inline int as_nobody(const std::function<int()>& fn) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(99);
        _exit(fn());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

}  // namespace amtest

// A child process for the network and system tests.
#include <fcntl.h>
#include <signal.h>

namespace amtest {

// Runs `fn` in a child that reports its text over a pipe, then stays until
// this object ends it (its sockets and namespace live as long).
class Child {
public:
    template <class F>
    explicit Child(F fn) {
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0) return;
        if ((pid = fork()) == 0) {
            const std::string msg = fn();
            if (write(p[1], msg.data(), msg.size()) < 0) _exit(1);
            close(p[1]);
            pause();
            _exit(0);
        }
        close(p[1]);
        char buf[256];
        for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) report.append(buf, static_cast<size_t>(n));
        close(p[0]);
    }
    ~Child() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
    pid_t pid = -1;
    std::string report;
};

}  // namespace amtest
