// Files of containers and mounted images: links inside such a tree resolve
// inside it, never on the host, and the host's packages never own them.
// Fake roots in a temporary directory, a fixture /proc, and a real process
// chrooted into a fake root.
#include <map>

#include "core/file_facts.h"
#include "core/root_open.h"
#include "proc_helpers.h"

using namespace amsvc;
using namespace amproc;
using amtest::TempDir;

namespace {

// Content read through an opener, or "<errno>" when it refused.
typedef int (*Opener)(int, std::string_view, bool);
std::string read_in(Opener open, int root_fd, const std::string& path, bool no_follow = false) {
    const int fd = open(root_fd, path, no_follow);
    if (fd < 0) return "<" + std::to_string(-fd) + ">";
    std::string out;
    read_file("/proc/self/fd/" + std::to_string(fd), out);
    ::close(fd);
    return out;
}

const std::string kAbcMd5 = "900150983cd24fb0d6963f7d28e17f72";

// A container's tree that points at the host every way a link can: an
// absolute directory link, a relative one climbing past the top, a final
// component link, a loop, a link through /proc. The host has every target.
void lay_out_hostile_root(TempDir& t, const std::string& at = "") {
    t.file(at + "/etc/passwd", "inside passwd");
    t.file(at + "/usr/lib/abc.so", "abc");
    t.link(at + "/lib", "/etc");                          // /lib/passwd: the root's /etc/passwd
    t.link(at + "/usr/up", "../../../../../../etc");      // climbs to the root, not past it
    t.link(at + "/usr/lib/final.so", "/usr/lib/abc.so");  // absolute final link
    t.link(at + "/usr/lib/host.so", "/etc/hostname");     // the root has no /etc/hostname
    t.link(at + "/loop1", "loop2");
    t.link(at + "/loop2", "loop1");
    t.link(at + "/selfroot", "/proc/self/root/etc");
    t.mkdir(at + "/deep/a/b");
}

// Each path through both openers of the in-root access layer (content, or
// the error), and through file_facts, both for a record naming the tree and
// for a mounted image as the host root (the content's digest, or none).
TEST(RootOpen, LinksStayInsideTheRoot) {
    TempDir r;
    lay_out_hostile_root(r);
    const int root_fd = open_root_dir(r.path);
    ASSERT_GE(root_fd, 0);
    const auto err = [](int e) { return "<" + std::to_string(e) + ">"; };
    const std::string inside = "inside passwd", enoent = err(ENOENT), eloop = err(ELOOP), any_error = "<";
    const std::map<std::string, std::string> md5_of = {{"abc", kAbcMd5},
                                                       {inside, sum(r.path + "/etc/passwd")}};
    ASSERT_NE(md5_of.at(inside), sum("/etc/passwd"));
    const struct {
        std::string path;
        bool no_follow;
        std::string want;
    } rows[] = {
        {"/usr/lib/abc.so", false, "abc"},
        {"usr/lib/abc.so", false, "abc"},  // relative: from the root
        {"/lib/passwd", true, inside},
        {"/lib/shadow", false, enoent},
        {"/usr/up/passwd", false, inside},
        {"/../../../etc/passwd", false, inside},
        {"/deep/a/b/../../../lib/passwd", false, inside},
        {"/selfroot/passwd", false, any_error},
        // A final link is followed inside the root, or refused.
        {"/usr/lib/final.so", false, "abc"},
        {"/usr/lib/final.so", true, eloop},
        {"/usr/lib/host.so", false, enoent},
        {"/loop1/x", false, eloop},
        {"/loop1", false, eloop},
        // A file used as a directory, an embedded NUL, an empty name.
        {"/etc/passwd/x", false, err(ENOTDIR)},
        {std::string("/etc/passwd\0x", 13), false, any_error},
        {"", false, any_error},
    };
    FileRef ref;
    ref.root_dir = r.path;
    ref.foreign = true;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        for (const Opener open : {&open_in_root, &open_in_root_walk}) {
            const std::string got = read_in(open, root_fd, row.path, row.no_follow);
            EXPECT_EQ(row.want == any_error ? got.substr(0, 1) : got, row.want);
        }
        const std::string md5 = md5_of.count(row.want) ? md5_of.at(row.want) : "";
        ref.host_path = row.path;
        ref.no_follow = row.no_follow;
        const FileFacts f = file_facts(HostRoot("/"), ref);
        EXPECT_EQ(std::tie(f.md5, f.company, f.verified), std::make_tuple(md5, "", false));
        EXPECT_EQ(file_facts(HostRoot(r.path), FileRef{row.path, "", row.no_follow}).md5, md5);
    }
    ::close(root_fd);

    // A root that is not a directory, or gone.
    ref.host_path = "/usr/lib/abc.so";
    for (const char* bad : {"/etc/passwd", "/nonexistent"}) {
        ref.root_dir = r.path + bad;
        EXPECT_EQ(file_facts(HostRoot("/"), ref).md5, "") << bad;
    }
}

// The collector on a fixture /proc (a tree, not procfs): a process whose
// root is a container's tree inside it, mapping a path that goes through a
// link to /etc (as after a container swapped a directory for a link between
// the maps read and the hashing); and links of the tree's own /proc that
// point at host files, which must be looked up inside the tree.
TEST(ContainerFacts, CollectorFixtureForeignRoot) {
    // fixtures/foreign_proc: the tree's /etc/passwd, and the stat, status and
    // maps of its processes 7 and 8.
    TempDir host;
    fs::copy(std::string(ASSETMAN_FIXTURES) + "/foreign_proc", host.path, fs::copy_options::recursive);
    lay_out_hostile_root(host, "/var/lib/c1");
    const std::string libc = "/lib/x86_64-linux-gnu/libc.so.6";
    host.file("/var/lib/c1/real" + libc, "abc");
    host.link("/var/lib/c1/usr/libc-dir", "/real/lib/x86_64-linux-gnu");  // /real: not at the tree's top
    // 7: a container, its root named by its full host path; it maps
    // /usr/lib/abc.so, /lib/passwd, /lib/shadow and /usr/libc-dir/libc.so.6.
    host.link("/proc/7/root", host.path + "/var/lib/c1");
    // 8: the tree's links aim at the host: its root at "/", a deleted
    // library at the host's /etc/passwd, its deleted exe at /etc/shadow.
    host.link("/proc/8/root", "/");
    host.link("/proc/8/exe", "/etc/shadow (deleted)");
    host.link("/proc/8/map_files/1000-2000", "/etc/passwd");
    // In a tree, absolute links resolve at the tree's top, never on the host;
    // the tree has no /etc/shadow. foreign_proc.expected: no digest but of
    // abc.so and the tree's passwd, and no package owns them.
    std::vector<AM::ProcessInfo> out;
    ASSERT_EQ(collect_processes(HostRoot(host.path).set_fixture_proc(true), out), 0);
    EXPECT_EQ(text(out), read_text(std::string(ASSETMAN_FIXTURES) + "/foreign_proc.expected"));
}

// A real process chrooted into a fake root with its own (altered) copy of
// the host's libc, mapped under the path the host's libc package lists.
TEST(ContainerLive, ChrootedProcess) {
    if (geteuid() != 0) GTEST_SKIP() << "chroot needs root";
    const std::string sleep_bin = "/bin/sleep", ld = "/lib64/ld-linux-x86-64.so.2",
                      libc = "/lib/x86_64-linux-gnu/libc.so.6";
    if (!fs::exists(sleep_bin) || !fs::exists(ld) || !fs::exists(libc))
        GTEST_SKIP() << "not an x86-64 glibc host";
    const FileFacts host_libc = file_facts(HostRoot("/"), FileRef{libc, ""});
    TempDir r;
    for (const std::string& f : {sleep_bin, ld, libc}) amtest::write_file(r.path + f, read_text(f), 0755);
    std::ofstream(r.path + libc, std::ios::app | std::ios::binary) << "container's own copy";
    const std::string fake_md5 = sum(r.path + libc);
    ASSERT_NE(fake_md5, host_libc.md5);

    Reaper reap;
    const pid_t pid = spawn(reap, "/bin/sleep", {"sleep", "3607"}, {},
                            [&] { return chroot(r.path.c_str()) == 0 && chdir("/") == 0; });
    // Wait for the loader to have mapped the jail's libc (before the exec
    // the child maps the host's).
    const std::string maps = "/proc/" + std::to_string(pid) + "/maps";
    ASSERT_TRUE(wait_until([&] { return read_text(maps).find(r.path + libc) != std::string::npos; }))
        << "chrooted child never mapped libc";

    std::vector<AM::ProcessInfo> out;
    ASSERT_EQ(collect_processes(HostRoot("/"), out), 0);
    const AM::ProcessInfo *p = find_pid(out, pid), *self = find_pid(out, getpid());
    ASSERT_TRUE(p && self);
    const AM::ProcessModuleInfo *own = find_module(p, r.path + libc),
                                *hosts = find_module(self, fs::canonical(libc));
    ASSERT_TRUE(own && hosts) << text({*p});
    // The host's package does not own a container's file.
    EXPECT_EQ(std::tie(own->md5, own->company, own->verified), std::make_tuple(fake_md5, "", false));
    EXPECT_EQ(p->modules[0].md5, sum(r.path + "/bin/sleep"));
    // This test's own libc is the host's: owned and verified as before.
    EXPECT_EQ(std::tie(hosts->md5, hosts->company, hosts->verified),
              std::tie(host_libc.md5, host_libc.company, host_libc.verified));
}

// Two processes with the same root and the same executable path, one of them
// in its own mount namespace with another file bound over that path: each is
// hashed from its own view, not from whichever was seen first.
TEST(ContainerLive, SamePathOtherMountNamespace) {
    if (geteuid() != 0 || access("/usr/bin/unshare", X_OK) != 0) GTEST_SKIP() << "needs root and unshare";
    TempDir r;
    const std::string host_bin = r.path + "/bin/nsleep", ns_bin = r.path + "/ns/nsleep";
    amtest::write_file(host_bin, read_text("/bin/sleep") + "host copy", 0755);
    amtest::write_file(ns_bin, read_text("/bin/sleep") + "namespace copy", 0755);
    const std::string host_md5 = sum(host_bin), ns_md5 = sum(ns_bin);

    Reaper reap;
    const pid_t host_pid = spawn(reap, host_bin, {host_bin, "3608"});
    const pid_t ns_pid = spawn(reap, "/usr/bin/unshare",
                               {"unshare", "-m", "--propagation", "private", "/bin/sh", "-c",
                                "mount --bind " + ns_bin + " " + host_bin + " && exec " + host_bin + " 3609"},
                               {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"});
    const std::string want = host_bin + std::string("\0003609\0", 6);
    if (!wait_until([&] { return cmdline(ns_pid) == want; })) GTEST_SKIP() << "no mount namespace here";

    std::vector<AM::ProcessInfo> out;
    ASSERT_EQ(collect_processes(HostRoot("/"), out), 0);
    for (const pid_t pid : {host_pid, ns_pid}) {
        const AM::ProcessInfo* p = find_pid(out, pid);
        ASSERT_TRUE(p && !p->modules.empty()) << pid;
        EXPECT_EQ(std::tie(p->modules[0].path, p->modules[0].md5),
                  std::tie(host_bin, pid == ns_pid ? ns_md5 : host_md5))
            << pid;
    }
}

}  // namespace
