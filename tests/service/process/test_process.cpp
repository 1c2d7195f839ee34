// Process collector: parsers on fixture text, a fixture /proc tree with
// hostile entries, and the live host compared with ps.
#include <sys/sysmacros.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "proc_helpers.h"

using namespace amsvc;
using namespace amsvc::procfs;
using namespace amproc;

namespace {

const char kSleepStat[] =
    "4242 (sleep) S 100 4242 100 34816 4242 4194304 100 0 0 0 250 130 0 0 20 0 1 0 123456 8413184 208 "
    "18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0 0 0 0 0 0 0 0 0\n";

TEST(ProcessParse, Stat) {
    Stat st;
    ASSERT_TRUE(parse_stat(kSleepStat, st));
    EXPECT_EQ(std::tie(st.comm, st.state, st.ppid, st.flags, st.utime, st.stime, st.starttime),
              std::make_tuple("sleep", 'S', 100, 4194304u, 250u, 130u, 123456u));

    // A name made to look like the end of the name and more fields: all up to
    // the LAST ')' is the name, newline included.
    const std::string fake = "a) (b) S 9 9 9 0 -1 2097152 0 0 0 0 1 2 0 0 20 0 1 0 77 0 0\nx";
    ASSERT_TRUE(parse_stat("7 (" + fake + ") R 55 7 7 0 -1 64 0 0 0 0 3 4 0 0 20 0 1 0 88 0 0\n", st));
    EXPECT_EQ(std::tie(st.comm, st.state, st.ppid, st.flags, st.starttime),
              std::make_tuple(fake, 'R', 55, 64u, 88u));

    ASSERT_TRUE(parse_stat("5 ( sp ace ) S 1 0 0 0 0 2097216 0 0 0 0 0 0 0 0 0 0 0 0 9", st));
    EXPECT_EQ(st.comm, " sp ace ");
    // NUL and invalid UTF-8 in the name: cut at NUL, other bytes kept.
    ASSERT_TRUE(
        parse_stat(std::string("6 (ab\xff\xfe") + '\0' + "zz) S 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 9", st));
    EXPECT_EQ(st.comm, "ab\xff\xfe");

    // Truncated in the middle: the name survives for a partial record.
    EXPECT_FALSE(parse_stat(std::string(kSleepStat, 60), st));
    EXPECT_EQ(st.comm, "sleep");
    for (const char* bad :
         {"", "12 (x", "12 x) S 1", ")12 (x S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20",
          "1 (x) S -1x 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 9",
          "1 (x) S 1 0 0 0 0 99999999999999999999999 0 0 0 0 0 0 0 0 0 0 0 0 9"})
        EXPECT_FALSE(parse_stat(bad, st)) << bad;
}

TEST(ProcessParse, StatusAndBtime) {
    uint32_t uid = 7;
    EXPECT_TRUE(parse_status_uid("Name:\tx\nUmask:\t0022\nUid:\t1000\t0\t0\t0\nGid:\t5\t5\t5\t5\n", uid));
    EXPECT_EQ(uid, 1000u);  // real uid, not the effective 0
    for (const char* bad : {"Name:\tx\nGid:\t0\n", "Uid:\t-1\t0\n", "Uid:\t99999999999\n", "Uid:"})
        EXPECT_FALSE(parse_status_uid(bad, uid)) << bad;
    int64_t bt = 0;
    EXPECT_TRUE(parse_btime("cpu  1 2 3\nintr 5\nbtime 1700000000\nprocesses 9\n", bt));
    EXPECT_EQ(bt, 1700000000);
    for (const char* bad : {"cpu 1\nbtimex 5\n", "btime junk\n"}) EXPECT_FALSE(parse_btime(bad, bt)) << bad;
}

TEST(ProcessParse, JoinNul) {
    using S = std::string;
    const std::pair<S, S> rows[] = {{S("sleep\000600\0", 10), "sleep 600"},
                                    {S("a\0\0b\0\0\0", 7), "a  b"},
                                    {S("\0\0", 2), ""},
                                    {"rewritten title: no nul", "rewritten title: no nul"},
                                    {"\xff\xfe", "\xff\xfe"}};
    for (const auto& r : rows) EXPECT_EQ(join_nul(r.first, ' '), r.second);
    EXPECT_EQ(join_nul(S("A=1\0B=x y\0", 10), '\n'), "A=1\nB=x y");
}

// fixtures/maps: a program with a blank in its name mapped twice, a mapping
// that is not executable, one file in two ranges, a deleted file, anonymous
// and [vdso]/[vsyscall] ranges, a memfd, a relative path, junk lines, and a
// last line without its newline.
TEST(ProcessParse, Maps) {
    const std::string maps = slurp(std::string(ASSETMAN_FIXTURES) + "/maps");
    const std::vector<Mapping> m = parse_maps(maps);
    std::vector<std::string> paths;
    for (const Mapping& x : m) paths.push_back(x.path);
    ASSERT_EQ(paths,
              (std::vector<std::string>{"/usr/bin/my prog", "/usr/lib/libc.so.6", "/tmp/old.so (deleted)",
                                        "/memfd:jit (deleted)", "/no/newline.so"}));
    EXPECT_EQ(std::tie(m[0].start, m[0].inode, m[0].dev_major), std::make_tuple(0x400000u, 173521u, 8u));
    EXPECT_EQ(m[1].start, 0x7f20u);  // first range of the file
    EXPECT_TRUE(m[2].deleted);
    EXPECT_FALSE(m[1].deleted);
    EXPECT_TRUE(parse_maps("").empty());
    EXPECT_TRUE(parse_maps("\n\n\n").empty());

    std::string p = "/a (deleted)";
    EXPECT_TRUE(strip_deleted(p));
    EXPECT_EQ(p, "/a");
    EXPECT_FALSE(strip_deleted(p));

    EXPECT_EQ(format_cpu_time(100 * 3723 + 99, 100), "01:02:03");
    EXPECT_EQ(format_cpu_time(100ull * 3600 * 150, 100), "150:00:00");
}

TEST(ProcessParse, QueryMatchesText) {
    // The ioctl and the text must name the same files in the same order.
    std::string text;
    ASSERT_EQ(read_file("/proc/self/maps", text), 0);
    const std::vector<Mapping> parsed = parse_maps(text);
    const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::vector<Mapping> queried;
    const int rc = query_maps(fd, queried);
    close(fd);
    if (rc == -ENOTTY || rc == -EINVAL) GTEST_SKIP() << "kernel without PROCMAP_QUERY";
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(queried.size(), parsed.size());
    auto key = [](const Mapping& m) { return std::tie(m.path, m.start, m.end, m.inode, m.dev_major); };
    for (size_t i = 0; i < parsed.size(); ++i) EXPECT_EQ(key(queried[i]), key(parsed[i])) << parsed[i].path;
    const int nfd = open("/etc/hostname", O_RDONLY | O_CLOEXEC);
    if (nfd >= 0) {
        EXPECT_LT(query_maps(nfd, queried), 0);  // not a maps file: the caller falls back to the text
        EXPECT_TRUE(queried.empty());
        close(nfd);
    }
}

// --- fixture /proc tree ----------------------------------------------------

// The text files of fixtures/proc_tree: alice's process 100 ("my app) (x"),
// the kernel thread 2, and 300 with a truncated stat and an unknown uid. The
// links, FIFOs, the device and the 10 MB command line are made here.
TEST(ProcessFixture, HostileTree) {
    amtest::TempDir r;
    fs::copy(std::string(ASSETMAN_FIXTURES) + "/proc_tree", r.path, fs::copy_options::recursive);
    r.link("/usr/lib/zero.so", "/dev/zero");
    ASSERT_EQ(mkfifo((r.path + "/usr/lib/fifo.so").c_str(), 0644), 0);
    const bool have_node = mknod((r.path + "/usr/lib/node.so").c_str(), S_IFCHR | 0644, makedev(1, 5)) == 0;

    // 100 maps the FIFO, the link to /dev/zero and the device as libraries.
    r.link("/proc/100/exe", "/usr/bin/app");
    r.link("/proc/100/cwd", "/home/alice");
    r.link("/proc/100/root", r.path);
    // A deleted library is read through map_files, named without zero padding.
    r.link("/proc/100/map_files/6000-7000", r.path + "/gone-inode");
    // 300: 10 MB command line, files unreadable.
    r.file("/proc/300/cmdline", std::string(10u << 20, 'a'));
    mkfifo((r.path + "/proc/300/environ").c_str(), 0644);
    r.link("/proc/300/maps", "/dev/zero");
    // 400: gone between the listing and the read (empty directory).
    r.mkdir("/proc/400");
    // Not processes.
    r.mkdir("/proc/self");
    r.mkdir("/proc/0123");
    r.link("/proc/500", "100");

    std::vector<AM::ProcessInfo> out(3);  // replaced, not appended to
    // A read blocking on the FIFO or endless on /dev/zero would never return.
    ASSERT_EQ(collect_processes(HostRoot(r.path).set_fixture_proc(true), out), 0);

    std::vector<int> pids;
    for (const AM::ProcessInfo& p : out) pids.push_back(p.pid);
    ASSERT_EQ(pids, (std::vector<int>{2, 100, 300}));

    const AM::ProcessInfo& k = out[0];
    EXPECT_EQ(std::tie(k.name, k.user, k.cmd_line, k.stime),
              std::make_tuple("kthreadd", "root", "", "2023-11-14 22:13:20"));
    EXPECT_TRUE(k.modules.empty());

    const AM::ProcessInfo& a = out[1];
    EXPECT_EQ(
        std::tie(a.user, a.ppid, a.name, a.stime, a.rtime, a.cmd_line, a.env, a.path, a.current_dir),
        std::make_tuple("alice", 1, "my app) (x", format_time(1700000000 + 123), "01:01:00",
                        "/usr/bin/app --flag", "HOME=/home/alice\nLANG=C", "/usr/bin/app", "/home/alice"));
    // Read through /proc/100/root; never the FIFO, /dev/zero or a device.
    const std::pair<const char*, const char*> mods[] = {
        {"/usr/bin/app", "9d7183f16acce70658f686ae7f1a4d20"},
        {"/usr/lib/fifo.so", ""},
        {"/usr/lib/zero.so", ""},
        {"/usr/lib/node.so", ""},
        {"/usr/lib/gone.so (deleted)", "50c1f58be7f5e47e0f53d64c094783c2"}};
    ASSERT_EQ(a.modules.size(), 5u);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(a.modules[i].path, mods[i].first);
        EXPECT_EQ(a.modules[i].md5, mods[i].second) << mods[i].first << " " << have_node;
        EXPECT_TRUE(*mods[i].second || (a.modules[i].sha256.empty() && !a.modules[i].verified));
    }
    EXPECT_EQ(a.modules[4].sha256, "283bb9deef02e6843abfb538efa1eca70801bd8a701c3f98191e123496339247");

    const AM::ProcessInfo& b = out[2];
    // A partial stat still names it; the command line is cut at 1 MiB.
    EXPECT_EQ(std::tie(b.user, b.name, b.ppid, b.stime, b.env), std::make_tuple("4242", "big", 0, "", ""));
    EXPECT_EQ(b.cmd_line.size(), 1u << 20);
    EXPECT_TRUE(b.modules.empty());
}

TEST(ProcessFixture, MissingProc) {
    amtest::TempDir r;
    std::vector<AM::ProcessInfo> out(1);
    EXPECT_EQ(collect_processes(HostRoot(r.path).set_fixture_proc(true), out), -ENOENT);
    EXPECT_TRUE(out.empty());
    r.file("/proc", "not a directory");
    EXPECT_EQ(collect_processes(HostRoot(r.path).set_fixture_proc(true), out), -ENOENT);
    // An unreadable /proc; root reads a mode-000 directory anyway, so the
    // check runs in a child that gave up root.
    amtest::TempDir r2;
    r2.mkdir("/proc/1");
    chmod(r2.path.c_str(), 0755);
    chmod((r2.path + "/proc").c_str(), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) _exit(2);
        std::vector<AM::ProcessInfo> list;
        _exit(collect_processes(HostRoot(r2.path).set_fixture_proc(true), list) == -EACCES ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    chmod((r2.path + "/proc").c_str(), 0755);
}

TEST(ProcessFixture, ArgumentBudget) {
    // Many processes with huge command lines: the first 32 MiB are kept at up
    // to 1 MiB each, the rest at 64 KiB each.
    amtest::TempDir r;
    r.file("/big", std::string(2u << 20, 'x'));
    r.file("/stat", "9 (big) S 1 1 1 0 -1 0 0 0 0 0 360000 6000 0 0 20 0 1 0 1 0 0\n");
    for (int pid = 10; pid < 46; ++pid) {
        const std::string dir = r.path + "/proc/" + std::to_string(pid);
        fs::create_directories(dir);
        fs::create_hard_link(r.path + "/big", dir + "/cmdline");
        fs::create_hard_link(r.path + "/stat", dir + "/stat");
    }
    std::vector<AM::ProcessInfo> out;
    ASSERT_EQ(collect_processes(HostRoot(r.path).set_fixture_proc(true), out), 0);
    ASSERT_EQ(out.size(), 36u);
    for (size_t i = 0; i < out.size(); ++i)
        EXPECT_EQ(out[i].cmd_line.size(), i < 32 ? 1u << 20 : 64u << 10) << out[i].pid;
}

// --- the live host ---------------------------------------------------------

std::map<int, std::string> ps_lines() {
    std::map<int, std::string> rows;
    // The text must outlive the views split_lines hands out.
    const std::string out = amtest::run("ps -ww -eo pid=,ppid=,ruser:32=,args= 2>/dev/null");
    for (std::string_view l : split_lines(out))
        if (!trim(l).empty()) rows[atoi(std::string(trim(l)).c_str())] = std::string(trim(l));
    return rows;
}

bool printable(const std::string& s) {
    return std::all_of(s.begin(), s.end(), [](unsigned char c) { return c >= 0x20 && c < 0x7f; });
}

TEST(ProcessLive, ChildrenAndPs) {
    amtest::TempDir dir;
    const std::string copy = dir.path + "/amtest-sleep";
    copy_sleep(copy, "made distinct");
    const std::string copy_md5 = sum(copy), copy_sha = sum(copy, "sha256sum");

    Reaper reap;
    const pid_t plain = spawn(reap, "/bin/sleep", {"sleep", "3601", "0.125"});
    const pid_t deleted = spawn(reap, copy, {copy, "3602"});
    // Secrets redacted, a newline inside a value escaped (it would fake a variable).
    const pid_t env =
        spawn(reap, "/bin/sleep", {"sleep", "3603"},
              {"AMTEST_MARK=hello world", "MYSQL_PWD=s3cret", "AWS_SECRET_ACCESS_KEY=wJalrXUtnFEMI",
               "GITHUB_TOKEN=ghp_x", "A=x\nLD_PRELOAD=/tmp/evil.so", "PWD=/tmp"},
              [&] { return chdir(dir.path.c_str()) == 0; });
    // Exec'ed once the command lines are the new ones.
    ASSERT_TRUE(wait_until([&] {
        return cmdline(plain).rfind("sleep", 0) == 0 && cmdline(deleted).rfind(copy, 0) == 0 &&
               cmdline(env).rfind("sleep", 0) == 0;
    }));
    unlink(copy.c_str());

    std::vector<AM::ProcessInfo> before;
    ASSERT_EQ(collect_processes(HostRoot("/"), before), 0);
    const std::map<int, std::string> ps = ps_lines();
    std::vector<AM::ProcessInfo> after;
    ASSERT_EQ(collect_processes(HostRoot("/"), after), 0);

    const AM::ProcessInfo* p = find_pid(after, plain);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::tie(p->cmd_line, p->ppid, p->name, p->path, p->rtime),
              std::make_tuple("sleep 3601 0.125", getpid(), "sleep", fs::canonical("/bin/sleep").string(),
                              "00:00:00"));
    ASSERT_GE(p->modules.size(), 2u);
    EXPECT_EQ(std::tie(p->modules[0].path, p->modules[0].md5, p->modules[0].sha256),
              std::make_tuple(p->path, sum("/bin/sleep"), sum("/bin/sleep", "sha256sum")));
    std::set<std::string> paths;
    bool libc = false;
    for (const auto& m : p->modules) {
        EXPECT_TRUE(paths.insert(m.path).second) << m.path;
        EXPECT_EQ(m.sha256.size(), 64u) << m.path;
        EXPECT_TRUE(m.company.empty() || m.verified) << m.path;  // untouched package files
        libc |= m.path.find("libc.so") != std::string::npos;
    }
    EXPECT_TRUE(libc);
    // Started within the last minutes, by the same clock as ours.
    const time_t now = time(nullptr);
    EXPECT_GE(p->stime, format_time(now - 120));
    EXPECT_LE(p->stime, format_time(now + 2));

    const AM::ProcessInfo* d = find_pid(after, deleted);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(std::tie(d->path, d->name), std::make_tuple(copy + " (deleted)", "amtest-sleep"));
    ASSERT_FALSE(d->modules.empty());
    // Hashed through /proc/<pid>/exe.
    const AM::ProcessModuleInfo& dm = d->modules[0];
    EXPECT_EQ(std::tie(dm.path, dm.md5, dm.sha256, dm.verified),
              std::make_tuple(copy + " (deleted)", copy_md5, copy_sha, false));

    const AM::ProcessInfo* e = find_pid(after, env);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(
        std::tie(e->env, e->current_dir),
        std::make_tuple("AMTEST_MARK=hello world\nMYSQL_PWD=<redacted>\nAWS_SECRET_ACCESS_KEY=<redacted>\n"
                        "GITHUB_TOKEN=<redacted>\nA=x\\nLD_PRELOAD=/tmp/evil.so\nPWD=/tmp",
                        dir.path));

    const AM::ProcessInfo* init = find_pid(after, 1);
    ASSERT_NE(init, nullptr);  // listed even where its exe and maps are denied
    EXPECT_EQ(init->ppid, 0);
    EXPECT_FALSE(init->name.empty());

    // Processes present in both collections and in ps, unchanged between them.
    size_t compared = 0;
    for (const AM::ProcessInfo& a : after) {
        const AM::ProcessInfo* b = find_pid(before, a.pid);
        auto row = ps.find(a.pid);
        if (!b || row == ps.end() || b->ppid != a.ppid || b->cmd_line != a.cmd_line) continue;
        const std::vector<std::string_view> f = split_ws(row->second);
        ASSERT_GE(f.size(), 3u);
        EXPECT_EQ(std::to_string(a.ppid), f[1]) << row->second;
        EXPECT_EQ(a.user, f[2]) << row->second;
        if (!a.cmd_line.empty() && printable(a.cmd_line)) {
            const size_t at = static_cast<size_t>(f[2].data() - row->second.data()) + f[2].size();
            // ps drops blanks at the ends of the argument list; the collector keeps them.
            EXPECT_EQ(trim(a.cmd_line), trim(std::string_view(row->second).substr(at))) << row->second;
        }
        // Kernel threads (they never change directory): the root, as readlink says.
        std::error_code ec;
        const fs::path cwd = fs::read_symlink("/proc/" + std::to_string(a.pid) + "/cwd", ec);
        if ((a.pid == 2 || a.ppid == 2) && !ec) {
            EXPECT_EQ(a.current_dir, cwd.string()) << row->second;
        }
        ++compared;
    }
    EXPECT_GE(compared, 5u);
}

}  // namespace
