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

// The good fields are in the fixture tree below.
TEST(ProcessParse, Stat) {
    Stat st;
    ASSERT_TRUE(parse_stat(kSleepStat, st));
    // Names made to look like the end of the name and more fields (all up to
    // the LAST ')' is the name, newline included), blanks at the ends, NUL and
    // invalid UTF-8 (cut at NUL, other bytes kept).
    const std::string fake = "a) (b) S 9 9 9 0 -1 2097152 0 0 0 0 1 2 0 0 20 0 1 0 77 0 0\nx";
    const std::tuple<std::string, std::string, int> names[] = {
        {"7 (" + fake + ") R 55 7 7 0 -1 64 0 0 0 0 3 4 0 0 20 0 1 0 88 0 0\n", fake, 55},
        {"5 ( sp ace ) S 1 0 0 0 0 2097216 0 0 0 0 0 0 0 0 0 0 0 0 9", " sp ace ", 1},
        {std::string("6 (ab\xff\xfe") + '\0' + "zz) S 2 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 9", "ab\xff\xfe",
         2}};
    for (const auto& [text, comm, ppid] : names) {
        ASSERT_TRUE(parse_stat(text, st)) << text;
        EXPECT_EQ(std::tie(st.comm, st.ppid), std::make_tuple(comm, ppid));
    }

    // Truncated in the middle: the name survives for a partial record.
    EXPECT_FALSE(parse_stat(std::string(kSleepStat, 60), st));
    EXPECT_EQ(st.comm, "sleep");
    for (const char* bad :
         {"", "12 (x", "12 x) S 1", ")12 (x S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20",
          "1 (x) S -1x 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 9",
          "1 (x) S 1 0 0 0 0 99999999999999999999999 0 0 0 0 0 0 0 0 0 0 0 0 9"})
        EXPECT_FALSE(parse_stat(bad, st)) << bad;
}

TEST(ProcessParse, StatusBtimeAndNulLists) {
    uint32_t uid = 7;
    for (const char* bad : {"Name:\tx\nGid:\t0\n", "Uid:\t-1\t0\n", "Uid:\t99999999999\n", "Uid:"})
        EXPECT_FALSE(parse_status_uid(bad, uid)) << bad;
    int64_t bt = 0;
    for (const char* bad : {"cpu 1\nbtimex 5\n", "btime junk\n"}) EXPECT_FALSE(parse_btime(bad, bt)) << bad;
    using S = std::string;
    const std::pair<S, S> rows[] = {{S("a\0\0b\0\0\0", 7), "a  b"},
                                    {S("\0\0", 2), ""},
                                    {"rewritten title: no nul", "rewritten title: no nul"},
                                    {"\xff\xfe", "\xff\xfe"}};
    for (const auto& r : rows) EXPECT_EQ(join_nul(r.first, ' '), r.second);
}

TEST(ProcessParse, QueryMatchesText) {
    // The ioctl and the text must name the same files in the same order. (On
    // a plain file it fails: the fixture trees below read the text.)
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
}

// --- fixture /proc tree ----------------------------------------------------

// The text files of fixtures/proc_tree: alice's process 100 ("my app) (x")
// with hostile lines in its maps, the kernel thread 2, and 300 with a
// truncated stat and an unknown uid. The links, FIFOs, the device and the
// 10 MB command line are made here. proc_tree.expected: the whole records;
// no digest of the FIFO, /dev/zero or the device, the deleted library's read
// through map_files, 300's command line cut at 1 MiB.
TEST(ProcessFixture, HostileTree) {
    amtest::TempDir r;
    fs::copy(std::string(ASSETMAN_FIXTURES) + "/proc_tree", r.path, fs::copy_options::recursive);
    r.link("/usr/lib/zero.so", "/dev/zero");
    ASSERT_EQ(mkfifo((r.path + "/usr/lib/fifo.so").c_str(), 0644), 0);
    mknod((r.path + "/usr/lib/node.so").c_str(), S_IFCHR | 0644, makedev(1, 5));

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
    EXPECT_EQ(text(out), read_text(std::string(ASSETMAN_FIXTURES) + "/proc_tree.expected"));
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
    const auto collect = [&] {
        std::vector<AM::ProcessInfo> list;
        return collect_processes(HostRoot(r2.path).set_fixture_proc(true), list) == -EACCES ? 0 : 1;
    };
    EXPECT_EQ(geteuid() == 0 ? amtest::as_nobody(collect) : collect(), 0);
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
    amtest::write_file(copy, read_text("/bin/sleep") + "made distinct", 0755);  // ELF ignores trailing bytes
    const std::string copy_md5 = sum(copy), copy_sha = sum(copy, "sha256sum");

    Reaper reap;
    // Secrets redacted, a newline inside a value escaped (it would fake a variable).
    const pid_t plain =
        spawn(reap, "/bin/sleep", {"sleep", "3601", "0.125"},
              {"AMTEST_MARK=hello world", "MYSQL_PWD=s3cret", "A=x\nLD_PRELOAD=/tmp/evil.so", "PWD=/tmp"},
              [&] { return chdir(dir.path.c_str()) == 0; });
    const pid_t deleted = spawn(reap, copy, {copy, "3602"});
    // Exec'ed once the command lines are the new ones.
    ASSERT_TRUE(wait_until(
        [&] { return cmdline(plain).rfind("sleep", 0) == 0 && cmdline(deleted).rfind(copy, 0) == 0; }));
    unlink(copy.c_str());

    std::vector<AM::ProcessInfo> before;
    ASSERT_EQ(collect_processes(HostRoot("/"), before), 0);
    const std::map<int, std::string> ps = ps_lines();
    std::vector<AM::ProcessInfo> after;
    ASSERT_EQ(collect_processes(HostRoot("/"), after), 0);

    const AM::ProcessInfo* p = find_pid(after, plain);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(
        std::tie(p->cmd_line, p->ppid, p->name, p->path, p->rtime, p->current_dir, p->env),
        std::make_tuple(
            "sleep 3601 0.125", getpid(), "sleep", fs::canonical("/bin/sleep").string(), "00:00:00", dir.path,
            "AMTEST_MARK=hello world\nMYSQL_PWD=<redacted>\nA=x\\nLD_PRELOAD=/tmp/evil.so\nPWD=/tmp"));
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
