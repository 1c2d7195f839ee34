// A collection after the first serves what only an exec changes from memory:
// a process that changes without a new pid (exec of another program laid out
// exactly like the first, chdir, setuid, dlopen) must still be reported as it
// is now, the exec done by an unprivileged user with address randomisation
// off so that nothing but the executable's identity tells it.
#include <gtest/gtest.h>
#include <grp.h>
#include <pwd.h>
#include <sys/personality.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "proc_helpers.h"

namespace {

using amproc::find_module;
using amproc::find_pid;
using amproc::sum;
using amsvc::AM;
using amsvc::collect_processes;
using amsvc::HostRoot;

const char kHelper[] = R"(#include <dlfcn.h>
#include <unistd.h>
int main(int argc, char** argv) {
    char c;
    if (argc < 4) return 2;
    while (read(0, &c, 1) == 1) {
        if (c == 'x') execv(argv[1], argv);
        if (c == 'c') (void)!chdir(argv[2]);
        if (c == 'u') (void)!setuid(65534);
        if (c == 'd') dlopen(argv[3], RTLD_NOW);
    }
    return 0;
}
)";

std::string link_of(const std::string& path) {
    char buf[4096];
    const ssize_t n = readlink(path.c_str(), buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// Waits (bounded) until the kernel shows the change asked for.
bool wait_for(const std::function<bool()>& done) {
    for (int i = 0; i < 1000; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::vector<AM::ProcessInfo> collect() {
    std::vector<AM::ProcessInfo> all;
    EXPECT_EQ(collect_processes(HostRoot("/"), all), 0);
    return all;
}

TEST(ProcessWarm, ChangesWithoutANewPidAreSeen) {
    if (geteuid() != 0 || !amtest::have_tools("cc md5sum")) GTEST_SKIP() << "needs root, cc and md5sum";
    amtest::TempDir d("amwarm");
    chmod(d.path.c_str(), 0755);
    d.file("/helper.c", kHelper);
    int st = 0;
    amtest::run("cc -O1 -o " + d.path + "/helper " + d.path + "/helper.c 2>&1", &st);
    ASSERT_EQ(st, 0);
    // Two programs of one size and layout, told apart only by trailing bytes.
    const std::string a = d.path + "/prog-a", b = d.path + "/prog-b";
    const std::string helper = amproc::slurp(d.path + "/helper");
    amtest::write_file(a, helper + "mark-a", 0755);
    amtest::write_file(b, helper + "mark-b", 0755);
    const std::string lib = d.file("/libwarm.so", amproc::slurp("/lib/x86_64-linux-gnu/libdl.so.2"), 0755);
    const std::string sub = d.path + "/sub";
    d.mkdir("/sub");
    chmod(sub.c_str(), 0755);
    if (access("/lib/x86_64-linux-gnu/libdl.so.2", R_OK) != 0) GTEST_SKIP() << "no libdl.so.2 to copy";

    struct Case {
        const char* name;
        bool as_nobody;
        char poke;
        std::function<bool(pid_t)> changed;                   // what the kernel shows after the poke
        std::function<void(const AM::ProcessInfo*)> check;   // what the warm collection must say
    };
    const std::string proc = "/proc/";
    const passwd* nobody = getpwuid(65534);
    ASSERT_NE(nobody, nullptr);
    const std::string nobody_name = nobody->pw_name;
    const Case cases[] = {
        {"exec of another program of the same layout", true, 'x',
         [&](pid_t p) { return link_of(proc + std::to_string(p) + "/exe") == b; },
         [&](const AM::ProcessInfo* p) {
             EXPECT_EQ(p->path, b);
             const AM::ProcessModuleInfo* m = find_module(p, b);
             ASSERT_NE(m, nullptr);
             EXPECT_EQ(m->md5, sum(b));
             EXPECT_EQ(find_module(p, a), nullptr);
         }},
        {"chdir", true, 'c',
         [&](pid_t p) { return link_of(proc + std::to_string(p) + "/cwd") == sub; },
         [&](const AM::ProcessInfo* p) { EXPECT_EQ(p->current_dir, sub); }},
        {"setuid", false, 'u',
         [&](pid_t p) {
             const std::string s = amproc::slurp(proc + std::to_string(p) + "/status");
             return s.find("\nUid:\t65534\t") != std::string::npos;
         },
         [&](const AM::ProcessInfo* p) { EXPECT_EQ(p->user, nobody_name); }},
        {"dlopen", true, 'd',
         [&](pid_t p) {
             return amproc::slurp(proc + std::to_string(p) + "/maps").find(lib) != std::string::npos;
         },
         [&](const AM::ProcessInfo* p) {
             const AM::ProcessModuleInfo* m = find_module(p, lib);
             ASSERT_NE(m, nullptr);
             EXPECT_EQ(m->md5, sum(lib));
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            dup2(fds[0], 0);
            close(fds[1]);
            personality(ADDR_NO_RANDOMIZE);
            if (c.as_nobody && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) _exit(3);
            char* argv[] = {const_cast<char*>(a.c_str()), const_cast<char*>(b.c_str()),
                            const_cast<char*>(sub.c_str()), const_cast<char*>(lib.c_str()), nullptr};
            execv(a.c_str(), argv);
            _exit(127);
        }
        amproc::Reaper reaper;
        reaper.pids.push_back(pid);
        close(fds[0]);
        // Loaded (libc mapped) and waiting for its next byte.
        const auto settled = [&] {
            return amproc::slurp(proc + std::to_string(pid) + "/maps").find("/libc.so") != std::string::npos &&
                   amproc::slurp(proc + std::to_string(pid) + "/wchan") != "0";
        };
        ASSERT_TRUE(wait_for([&] { return link_of(proc + std::to_string(pid) + "/exe") == a && settled(); }));

        // Twice unchanged: the second is served from what the first kept.
        const std::vector<AM::ProcessInfo> first = collect(), second = collect();
        const AM::ProcessInfo* p1 = find_pid(first, pid);
        const AM::ProcessInfo* p2 = find_pid(second, pid);
        ASSERT_TRUE(p1 && p2);
        EXPECT_EQ(p2->path, a);
        EXPECT_EQ(p2->user, p1->user);
        ASSERT_EQ(p2->modules.size(), p1->modules.size());
        for (size_t i = 0; i < p1->modules.size(); ++i) {
            EXPECT_EQ(p2->modules[i].path, p1->modules[i].path);
            EXPECT_EQ(p2->modules[i].md5, p1->modules[i].md5);
        }

        ASSERT_EQ(write(fds[1], &c.poke, 1), 1);
        ASSERT_TRUE(wait_for([&] { return c.changed(pid) && settled(); }));
        const std::vector<AM::ProcessInfo> after = collect();
        const AM::ProcessInfo* p = find_pid(after, pid);
        ASSERT_NE(p, nullptr);
        c.check(p);
        close(fds[1]);
    }
}

// The same, where the kernel reports no process events to this process (a
// pid namespace of its own): the executable and status are checked instead.
TEST(ProcessWarm, ChangesSeenWithoutProcessEvents) {
    if (getenv("AMTEST_WARM_INNER")) GTEST_SKIP() << "already inside";
    if (geteuid() != 0 || !amtest::have_tools("unshare cc md5sum")) GTEST_SKIP() << "needs root and unshare";
    const std::string self = link_of("/proc/self/exe");
    int st = 0;
    const std::string out = amtest::run("AMTEST_WARM_INNER=1 unshare -pf --mount-proc " + self +
                                            " --gtest_filter=ProcessWarm.ChangesWithoutANewPidAreSeen 2>&1",
                                        &st);
    EXPECT_EQ(st, 0) << out;
    EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
}

// Collections from several threads at once, warm and fresh mixed: each
// reports this very process with its executable and modules.
TEST(ProcessWarm, ConcurrentCollections) {
    const std::string self = link_of("/proc/self/exe");
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int round = 0; round < 3; ++round) {
                std::vector<AM::ProcessInfo> all;
                if (collect_processes(HostRoot("/"), all) != 0) continue;
                const AM::ProcessInfo* p = find_pid(all, getpid());
                if (p && p->path == self && find_module(p, self)) ++good;
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(good.load(), 12);
}

}  // namespace
