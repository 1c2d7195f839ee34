// The process collector against a hostile local user: real processes of
// `nobody` in their own user and mount namespaces that map one file and show
// another at its path (bind mounts, FIFOs, a rename race, devices, shared
// memory), a per-collection digest budget, and secrets in environments.
#include <sys/mman.h>

#include <algorithm>

#include "core/digest_cache.h"
#include "proc_helpers.h"

using namespace amsvc;
using namespace amproc;
using amtest::run;

namespace {

// A scratch directory nobody can enter, with `u/` owned by nobody, the
// helper program (fixtures/helper.c) built in it, and the attacker's
// processes, ended with the process group they run in.
struct Attack {
    amtest::TempDir tmp{"amhostile"};
    Reaper reaper;  // ends the processes before the directory goes
    bool ok = false;

    Attack() {
        chmod(tmp.path.c_str(), 0755);
        tmp.mkdir("/u");
        chown((tmp.path + "/u").c_str(), 65534, 65534);
        ok = build_helper(tmp.path + "/helper");
    }

    // Runs `script` as nobody in new user and mount namespaces ($H: the
    // helper, $D: the directory), and waits (at most 20 s) for `ready`
    // (relative to the directory) to appear. The pid written in it.
    pid_t start(const std::string& script, const std::string& ready, bool userns = true) {
        std::vector<std::string> argv = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"};
        if (userns) argv.insert(argv.end(), {"/usr/bin/unshare", "-Urm"});
        argv.insert(argv.end(),
                    {"/bin/sh", "-c", "H='" + tmp.path + "/helper'; D='" + tmp.path + "'; " + script});
        spawn(reaper, "/usr/bin/setpriv", argv, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"},
              [] { return setpgid(0, 0) == 0; });
        pid_t pid = 0;
        wait_until([&] { return std::ifstream(tmp.path + "/" + ready) >> pid && pid > 0; }, 2000);
        return pid;
    }
};

bool can_attack() {
    // Not about the budget: a slow cold collection must not leave a file out.
    set_digest_budget({1ull << 40, std::chrono::hours(1)});
    if (geteuid() != 0 || !amtest::have_tools("cc setpriv unshare md5sum")) return false;
    int st = 0;
    run("setpriv --reuid=nobody --regid=nogroup --clear-groups unshare -Urm true 2>/dev/null", &st);
    return st == 0;
}

// A file mapped by nobody, then something else put at its path inside
// nobody's own mount namespace: the digest reported is the mapped file's
// (or none), never what lies at the path now.
TEST(ProcessHostile, MappedFileReplacedAtItsPath) {
    if (!can_attack()) GTEST_SKIP() << "needs root, cc, setpriv and unprivileged user namespaces";
    struct Case {
        const char* name;
        const char* script;  // after mapping $D/u/lib.so; writes $D/u/ready.
        bool fifo;
        const char* helper_args = "";
    };
    const Case cases[] = {
        {"root-only file bound over it", "mount --bind $D/secret $D/u/lib.so", false},
        {"benign library bound over evil", "mount --bind $D/benign.so $D/u/lib.so", false},
        {"chroot into a jail with a decoy at the same path", "true", false, "chroot $D/u/jail"},
        {"FIFO bound over it, a writer waiting",
         "mkfifo $D/u/fifo && mount --bind $D/u/fifo $D/u/lib.so && "
         "{ (exec 3>$D/u/lib.so; exec sleep 1000) & } && sleep 0.3",
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Attack a;
        ASSERT_TRUE(a.ok);
        const std::string lib = a.tmp.file("/u/lib.so", "evil library " + std::string(c.name));
        chown(lib.c_str(), 65534, 65534);
        a.tmp.file("/secret", "root only: the digest of this must stay here", 0600);
        a.tmp.file("/benign.so", "benign library", 0644);
        const std::string want = sum(lib);
        a.tmp.file("/u/jail" + a.tmp.path + "/u/lib.so", "benign library", 0644);
        const pid_t pid = a.start("$H $D/u/pid $D/u/lib.so " + std::string(c.helper_args) +
                                      " & while [ ! -s $D/u/pid ]; do sleep 0.01; done; " +
                                      std::string(c.script) + " && cp $D/u/pid $D/u/ready; wait",
                                  "u/ready");
        ASSERT_GT(pid, 0) << "the attack did not start";
        std::vector<AM::ProcessInfo> all;
        ASSERT_EQ(collect_processes(HostRoot("/"), all), 0);
        const AM::ProcessModuleInfo* m = find_module(find_pid(all, pid), lib);
        ASSERT_NE(m, nullptr);
        // Read through map_files: the mapped file, never the secret or the decoy.
        EXPECT_EQ(m->md5, want);
        if (c.fifo) {
            // A writer released by an open for reading moves on to exec sleep.
            const std::string pgrep = "pgrep -g " + std::to_string(getpgid(pid)) + " -x -f 'sleep 1000'";
            EXPECT_FALSE(wait_until([&] { return run(pgrep) != ""; }, 50))
                << "the FIFO was opened for reading";
        }
    }
}

// The directory of a mapped library swapped with a link to a root-only
// directory, in a loop, while collections run: the root-only file's digest
// never appears.
TEST(ProcessHostile, RenameExchangeRace) {
    if (!can_attack()) GTEST_SKIP() << "needs root, cc, setpriv and unprivileged user namespaces";
    Attack a;
    ASSERT_TRUE(a.ok);
    const std::string bad = sum(a.tmp.file("/root/lib.so", "root-only library content", 0600));
    chmod((a.tmp.path + "/root").c_str(), 0700);
    // The user's own library in u/a, and u/b a link to the root-only directory.
    const pid_t pid = a.start(
        "mkdir $D/u/a && echo mine >$D/u/a/lib.so && ln -s $D/root $D/u/b && "
        "exec $H $D/u/pid $D/u/a/lib.so swap $D/u/a $D/u/b 4",
        "u/pid", false);
    ASSERT_GT(pid, 0);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    int runs = 0, seen = 0;
    while (std::chrono::steady_clock::now() < end) {
        std::vector<AM::ProcessInfo> all;
        ASSERT_EQ(collect_processes(HostRoot("/"), all), 0);
        ++runs;
        const AM::ProcessInfo* p = find_pid(all, pid);
        if (!p) continue;
        for (const AM::ProcessModuleInfo& m : p->modules) {
            if (m.path.find("/lib.so") == std::string::npos) continue;
            ++seen;
            ASSERT_NE(m.md5, bad) << "run " << runs << ": " << m.path;
        }
    }
    EXPECT_GT(seen, 0);
}

// Device and shared memory mappings: listed, never opened for reading.
// The collector runs under strace in a child copy of this program.
TEST(ProcessHostile, DevicesAndSharedMemoryNotOpened) {
    if (getenv("AMTEST_COLLECT_ONCE")) {
        std::vector<AM::ProcessInfo> all;
        ASSERT_EQ(collect_processes(HostRoot("/"), all), 0);
        const AM::ProcessInfo* p = find_pid(all, atoi(getenv("AMTEST_COLLECT_ONCE")));
        ASSERT_NE(p, nullptr);
        std::ofstream(getenv("AMTEST_LISTED")) << text({*p});
        return;
    }
    if (!can_attack() || !amtest::have_tools("strace")) GTEST_SKIP() << "needs strace and user namespaces";
    Attack a;
    ASSERT_TRUE(a.ok);
    const pid_t pid = a.start("exec $H $D/u/pid zero", "u/pid");
    ASSERT_GT(pid, 0);
    const std::string log = a.tmp.path + "/strace.log", listed = a.tmp.path + "/listed";
    int st = 0;
    const std::string out =
        run("ASAN_OPTIONS=detect_leaks=0 AMTEST_COLLECT_ONCE=" + std::to_string(pid) +
                " AMTEST_LISTED=" + listed + " strace -ff -qq -yy -e trace=open,openat,openat2 -o " + log +
                " /proc/" + std::to_string(getpid()) +
                "/exe --gtest_filter=ProcessHostile.DevicesAndSharedMemoryNotOpened 2>&1",
            &st);
    ASSERT_EQ(st, 0) << out;
    // One file per thread (-ff): a call is never split across lines there.
    const std::string calls = run("cat '" + log + "'.*");
    EXPECT_GT(split_lines(calls).size(), 10u);
    for (std::string_view line : split_lines(calls)) {
        if (line.find("O_PATH") != std::string::npos) continue;
        for (const char* never : {"<char 1:5>", "/dev/zero (deleted)", "memfd:amtest"})
            EXPECT_EQ(line.find(never), std::string::npos) << line;
    }
    const std::string got = read_text(listed);
    for (const char* path : {"/dev/zero", "/dev/zero (deleted)", "/memfd:amtest (deleted)"})
        EXPECT_NE(got.find(std::string("\nmodule ") + path + " md5 - sha256 - "), std::string::npos) << got;
}

// Sparse files mapped by a process, more than one collection's budget can
// read: each collection reads within it, skipped files get empty digests
// (not those of an empty file), and the next collections go on until all
// are hashed.
TEST(ProcessBudget, CollectionsContinueWhereTheLastStopped) {
    const DigestBudgetLimits rows[] = {
        {50ull << 20, std::chrono::milliseconds(600000)},  // bytes run out
        {1ull << 40, std::chrono::milliseconds(0)},        // time runs out
    };
    const DigestBudgetLimits saved = digest_budget();
    for (const DigestBudgetLimits& limits : rows) {
        amtest::TempDir dir("ambudget");
        std::vector<std::string> files, want;
        for (int i = 0; i < 3; ++i) {
            files.push_back(dir.file("/big" + std::to_string(i) + ".so", ""));
            // Different sizes: different files to the digest cache.
            ASSERT_EQ(truncate(files.back().c_str(), (40 << 20) + i), 0);
            want.push_back(sum(files.back()));
        }
        std::vector<AM::ProcessInfo> all;
        ASSERT_EQ(collect_processes(HostRoot("/"), all), 0);  // the host's other files are cached now
        const pid_t child = fork();
        if (child == 0) {
            for (const std::string& f : files) {
                const int fd = open(f.c_str(), O_RDONLY);
                if (mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0) == MAP_FAILED) _exit(1);
            }
            pause();
            _exit(0);
        }
        const Reaper reap{{child}};
        const std::string maps = "/proc/" + std::to_string(child) + "/maps";
        ASSERT_TRUE(wait_until([&] { return read_text(maps).find(files.back()) != std::string::npos; }));
        set_digest_budget(limits);
        // Per file: '+' hashed, '-' no digest at all (not an empty file's).
        std::string was(files.size(), '-');
        for (size_t collection = 1; collection <= 6 && was.find('-') != std::string::npos; ++collection) {
            const uint64_t before = digest_stats().bytes_hashed;
            ASSERT_EQ(collect_processes(HostRoot("/"), all), 0);
            EXPECT_LE(digest_stats().bytes_hashed - before, (50ull << 20) + (41ull << 20));
            std::string now;
            for (size_t i = 0; i < files.size(); ++i) {
                const AM::ProcessModuleInfo* m = find_module(find_pid(all, child), files[i]);
                ASSERT_NE(m, nullptr);
                now += m->md5 == want[i] ? '+' : m->md5.empty() && m->sha256.empty() ? '-' : '!';
                EXPECT_TRUE(was[i] != '+' || now[i] == '+') << "a hashed file stays hashed";
            }
            // One more each time: more is reading past the budget, none is not continuing.
            EXPECT_EQ(static_cast<size_t>(std::count(now.begin(), now.end(), '+')), collection) << now;
            was = now;
        }
        EXPECT_EQ(was, std::string(files.size(), '+'));
        set_digest_budget(saved);
    }
}

TEST(ProcessEnv, SecretNames) {
    for (const char* n :
         {"MYSQL_PWD", "PGPASSWORD", "AWS_SECRET_ACCESS_KEY", "GITHUB_TOKEN", "db_passwd", "GPG_PASSPHRASE",
          "SSH_PRIVATE", "STRIPE_API_KEY", "SIGNING_KEY", "AZURE_CREDENTIALS", "SMTP_PASS", "X_APIKEY"})
        EXPECT_TRUE(procfs::secret_name(n)) << n;
    for (const char* n :
         {"PWD", "OLDPWD", "PATH", "PGPASSFILE", "SSH_ASKPASS", "KEYMAP", "HOME", "LD_PRELOAD"})
        EXPECT_FALSE(procfs::secret_name(n)) << n;
}

TEST(ProcessEnv, RedactedAndEscaped) {
    const std::pair<std::string, std::string> rows[] = {
        {std::string("A=1\0B=2\0\0", 9), "A=1\nB=2"},
        {std::string("W=c:\\dir\\n\0", 11), "W=c:\\\\dir\\\\n"},
        {"DATABASE_URL=postgres://app:hunter2@db:5432/x", "DATABASE_URL=postgres://app:<redacted>@db:5432/x"},
        {"U=https://host/a@b:c", "U=https://host/a@b:c"},
        {"MYSQL_PWD=a\nb", "MYSQL_PWD=<redacted>"},
        {"NOEQUALS\nX", "NOEQUALS\\nX"},
        {std::string(200, 'a') + "_token=v", std::string(200, 'a') + "_token=<redacted>"},
    };
    for (const auto& r : rows) EXPECT_EQ(procfs::format_environ(r.first), r.second) << r.second;
}

}  // namespace
