// A collection after the first serves what only an exec changes from memory:
// a process that changes without a new pid (exec of another program laid out
// exactly like the first, chdir, setuid, dlopen) must still be reported as it
// is now, the exec done by an unprivileged user with address randomisation
// off so that nothing but the executable's identity tells it.
#include <sys/personality.h>

#include <atomic>

#include "proc_helpers.h"

namespace {

using namespace amsvc;
using namespace amproc;

std::vector<AM::ProcessInfo> collect() {
    std::vector<AM::ProcessInfo> all;
    EXPECT_EQ(collect_processes(HostRoot("/"), all), 0);
    return all;
}

TEST(ProcessWarm, ChangesWithoutANewPidAreSeen) {
    if (geteuid() != 0 || !amtest::have_tools("cc md5sum")) GTEST_SKIP() << "needs root, cc and md5sum";
    amtest::TempDir d("amwarm");
    chmod(d.path.c_str(), 0755);
    ASSERT_TRUE(build_helper(d.path + "/helper"));
    // Two programs of one size and layout, told apart only by trailing bytes.
    const std::string a = d.path + "/prog-a", b = d.path + "/prog-b";
    const std::string helper = read_text(d.path + "/helper");
    amtest::write_file(a, helper + "mark-a", 0755);
    amtest::write_file(b, helper + "mark-b", 0755);
    const std::string lib = d.file("/libwarm.so", read_text("/lib/x86_64-linux-gnu/libdl.so.2"), 0755);
    const std::string sub = d.path + "/sub";
    d.mkdir("/sub");
    chmod(sub.c_str(), 0755);
    if (access("/lib/x86_64-linux-gnu/libdl.so.2", R_OK) != 0) GTEST_SKIP() << "no libdl.so.2 to copy";

    const std::string nobody_name = amtest::run("id -nu 65534");  // with its newline
    ASSERT_NE(nobody_name, "");

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    Reaper reaper;
    const pid_t pid = spawn(reaper, a, {a, "-", b, sub, lib}, {}, [&] {
        dup2(fds[0], 0);
        close(fds[1]);
        return personality(ADDR_NO_RANDOMIZE) != -1;
    });
    close(fds[0]);
    const std::string at = "/proc/" + std::to_string(pid);
    // Loaded (libc mapped) and waiting for its next byte.
    const auto settled = [&] {
        return read_text(at + "/maps").find("/libc.so") != std::string::npos &&
               read_text(at + "/wchan") != "0";
    };
    ASSERT_TRUE(wait_until([&] { return read_link(at + "/exe") == a && settled(); }, 1000));

    // Twice unchanged: the second is served from what the first kept.
    const std::vector<AM::ProcessInfo> first = collect(), second = collect();
    const AM::ProcessInfo *p1 = find_pid(first, pid), *p2 = find_pid(second, pid);
    ASSERT_TRUE(p1 && p2);
    EXPECT_EQ(p2->path, a);
    EXPECT_EQ(text({*p2}), text({*p1}));

    // One change after another, each after a collection that kept the
    // process; the exec comes last, done as nobody by then.
    struct Step {
        const char* name;
        char poke;
        std::function<bool()> changed;   // what the kernel shows after the poke
        std::vector<std::string> shows;  // what the next collection must say
        std::string hides = "";
    };
    const Step steps[] = {
        {"chdir", 'c', [&] { return read_link(at + "/cwd") == sub; }, {"\ncwd " + sub + "\n"}},
        {"dlopen",
         'd',
         [&] { return read_text(at + "/maps").find(lib) != std::string::npos; },
         {"\nmodule " + lib + " md5 " + sum(lib) + " "}},
        {"setuid",
         'u',
         [&] { return read_text(at + "/status").find("\nUid:\t65534\t") != std::string::npos; },
         {"\nuser " + nobody_name}},
        {"exec of another program of the same layout",
         'x',
         [&] { return read_link(at + "/exe") == b; },
         {"\npath " + b + "\n", "\nmodule " + b + " md5 " + sum(b) + " "},
         "\nmodule " + a + " "},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        ASSERT_EQ(write(fds[1], &s.poke, 1), 1);
        ASSERT_TRUE(wait_until([&] { return s.changed() && settled(); }, 1000));
        const std::vector<AM::ProcessInfo> after = collect();
        const AM::ProcessInfo* p = find_pid(after, pid);
        ASSERT_NE(p, nullptr);
        const std::string t = text({*p});
        for (const std::string& want : s.shows)
            EXPECT_NE(t.find(want), std::string::npos) << want << "\n" << t;
        if (!s.hides.empty()) {
            EXPECT_EQ(t.find(s.hides), std::string::npos) << t;
        }
    }
    close(fds[1]);
}

// The same, where the kernel reports no process events to this process (a
// pid namespace of its own): the executable and status are checked instead.
TEST(ProcessWarm, ChangesSeenWithoutProcessEvents) {
    if (getenv("AMTEST_WARM_INNER")) GTEST_SKIP() << "already inside";
    if (geteuid() != 0 || !amtest::have_tools("unshare cc md5sum")) GTEST_SKIP() << "needs root and unshare";
    const std::string self = read_link("/proc/self/exe");
    int st = 0;
    const std::string out = amtest::run("AMTEST_WARM_INNER=1 unshare -pf --mount-proc " + self +
                                            " --gtest_filter=ProcessWarm.ChangesWithoutANewPidAreSeen 2>&1",
                                        &st);
    EXPECT_EQ(st, 0) << out;
    EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
}

// Collections from several threads at once, warm and fresh mixed, on more
// processes than one reader takes: each reports this process and each child
// of it with its executable, and the digest every reader found for it.
TEST(ProcessWarm, ConcurrentCollections) {
    const std::string self = read_link("/proc/self/exe");
    std::vector<pid_t> kids;
    for (int i = 0; i < 300; ++i) {
        const pid_t p = fork();
        if (p == 0) {
            pause();
            _exit(0);
        }
        if (p > 0) kids.push_back(p);
    }
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int round = 0; round < 3; ++round) {
                std::vector<AM::ProcessInfo> all;
                if (collect_processes(HostRoot("/"), all) != 0) continue;
                const AM::ProcessInfo* p = find_pid(all, getpid());
                const AM::ProcessModuleInfo* m = p && p->path == self ? find_module(p, self) : nullptr;
                if (!m || m->md5.size() != 32) continue;
                size_t same = 0;
                for (pid_t k : kids) {
                    const AM::ProcessInfo* c = find_pid(all, k);
                    const AM::ProcessModuleInfo* cm = c ? find_module(c, self) : nullptr;
                    same += cm && cm->md5 == m->md5 && cm->sha256 == m->sha256;
                }
                if (same == kids.size()) ++good;
            }
        });
    for (std::thread& t : threads) t.join();
    for (pid_t k : kids) kill(k, SIGKILL);
    for (pid_t k : kids) waitpid(k, nullptr, 0);
    EXPECT_EQ(good.load(), 12);
}

}  // namespace
