// An image whose absolute links all point at files of the running machine:
// some at canaries this test plants in a scratch directory, some at the
// machine's own /proc, /sys, /etc, /var. Inventoried with every kind, no fact
// of the running machine may appear, and the image must not change.
#include <gtest/gtest.h>


#include "collectors.h"
#include "image_fixtures.h"

namespace {

using namespace amsvc;
using amtest::run;

// Fields joined by blanks.
template <class... F>
std::string words(const F&... f) {
    std::string out;
    ((out += std::string(f) + " "), ...);
    return out;
}

// One kind's records as text: "== kind rc", then a line per record.
template <class T, class Line>
std::string kind(const char* name, int (*collect)(const HostRoot&, std::vector<T>&), const HostRoot& root,
                 Line line) {
    std::vector<T> v;
    std::string out = std::string("== ") + name + " " + std::to_string(collect(root, v)) + "\n";
    for (const T& x : v) out += line(x) + "\n";
    return out;
}

// Every kind's records as text.
std::string inventory(const HostRoot& root) {
    using std::to_string;
    AM::SystemInfo s;
    const int sys_rc = collect_system_facts(root, s);
    std::vector<AM::ThirdPartDevLibInfo> libs;
    const int lib_rc = collect_libraries(root, libs);
    return kind("processes", collect_processes, root,
                [](const auto& p) { return words(to_string(p.pid), p.name, p.path, p.cmd_line); }) +
           kind("netlinks", collect_netlinks, root,
                [](const auto& n) {
                    return words(n.proto, n.local_addr, to_string(n.local_port), n.proc_path);
                }) +
           kind("packages", collect_packages, root,
                [](const auto& p) {
                    return words(p.type, p.name, p.version, "[" + p.installtime + "]", p.summary);
                }) +
           kind("users", collect_users, root,
                [](const auto& u) { return words(u.name, u.uid, u.homedir, u.last_change_passwd); }) +
           kind("crons", collect_crons, root,
                [](const auto& c) { return words(c.user, c.file, c.cmd_line, c.comment); }) +
           kind("modules", collect_kernel_modules, root, [](const auto& m) { return m.name; }) +
           kind("autoruns", collect_autoruns, root,
                [](const auto& a) { return words(a.name, a.script_path, a.status, a.comment); }) +
           kind("servers", collect_servers, root,
                [](const auto& v) { return words(v.name, v.install_path, v.configure_path); }) +
           "== libraries " + to_string(lib_rc) + "\n" + to_string(libs.size()) + "\n== system " +
           to_string(sys_rc) + "\n" + s.host + "|" + s.version + "|" + s.kernel_version + "|" + s.arch + "|" +
           s.Manufacturer + "|" + s.product + "|" + s.Serial + "|" + to_string(s.network_card.size()) + "|" +
           to_string(s.disk.size()) + "\n";
}

TEST(ImageEscape, NoFactOfTheRunningMachine) {
    const std::string token = "cAnArY";  // in every file of fixtures/canary
    amtest::TempDir canary{"amimg_canary"}, image{"amimg_escape"};
    const std::string& c = canary.path;
    // The running machine's files the image's links name.
    run("cp -r " + amimg::q(ASSETMAN_FIXTURES "/canary/.") + " " + amimg::q(c) + " && chmod 600 " +
        amimg::q(c + "/spool/root"));
    canary.link("/systemd/system/timers.target.wants/" + token + ".timer",
                c + "/systemd/system/" + token + ".timer");
    ASSERT_TRUE(amimg::make_rpm_sqlite(c + "/rpmroot")) << "needs rpm and rpmbuild";

    struct L {
        std::string at, to;
    };
    const std::vector<L> links = {
        {"/etc/crontab", c + "/etc/crontab"},
        {"/etc/cron.d", c + "/etc/cron.d"},
        {"/var/spool/cron/crontabs", c + "/spool"},
        {"/var/spool/cron/tabs", c + "/spool"},
        {"/etc/crontabs", c + "/spool"},
        {"/etc/passwd", c + "/etc/passwd"},
        {"/etc/group", c + "/etc/group"},
        {"/etc/shadow", "/etc/shadow"},
        {"/etc/os-release", c + "/etc/os-release"},
        {"/etc/hostname", c + "/etc/hostname"},
        {"/etc/systemd/system", c + "/systemd/system"},
        {"/usr/lib/systemd", c + "/systemd"},
        {"/etc/init.d", c + "/init.d"},
        {"/etc/xdg", c + "/xdg"},
        {"/usr/lib/sysimage/rpm", c + "/rpmroot/var/lib/rpm"},
        {"/var/lib/dpkg/info", "/var/lib/dpkg/info"},
        {"/lib/modules", "/lib/modules"},
        {"/lib/apk/db/installed", c + "/dpkg/status"},
        {"/proc", "/proc"},
        {"/sys", "/sys"},
        {"/bin/sh", "/bin/sh"},
    };
    for (const L& l : links) image.link(l.at, l.to);
    // The image's own dpkg database names a package of this machine: its
    // install time must not come from the machine's info/ directory.
    image.file("/var/lib/dpkg/status", "Package: dpkg\nStatus: install ok installed\nVersion: 0image\n");

    const std::string sum_image = amimg::tree_sum(image.path), sum_canary = amimg::tree_sum(c);
    const std::string inv = inventory(HostRoot(image.path));
    EXPECT_EQ(std::string::npos, inv.find(token)) << inv;
    EXPECT_EQ(std::string::npos, inv.find("amtest-")) << inv;
    for (const char* want :
         {"deb dpkg 0image [] ", "== processes -2\n", "== netlinks -2\n", "== system -2\n|||||||0|0\n"})
        EXPECT_NE(std::string::npos, inv.find(want)) << inv;
    EXPECT_EQ(sum_image, amimg::tree_sum(image.path));
    EXPECT_EQ(sum_canary, amimg::tree_sum(c));

    // A whole image of links to the machine's top directories.
    amtest::TempDir top{"amimg_escape_top"};
    for (const char* d :
         {"/etc", "/var", "/usr", "/lib", "/bin", "/sbin", "/proc", "/sys", "/run", "/root", "/home"})
        top.link(d, d);
    const std::string inv_top = inventory(HostRoot(top.path));
    // Each link is a loop inside the image: no kind finds a record.
    for (const char* kind :
         {"processes", "netlinks", "packages", "users", "crons", "modules", "autoruns", "system"})
        EXPECT_NE(std::string::npos, inv_top.find(std::string("== ") + kind + " -")) << kind << "\n"
                                                                                     << inv_top;
    EXPECT_NE(std::string::npos, inv_top.find("\n|||||||0|0\n")) << inv_top;
}

}  // namespace
