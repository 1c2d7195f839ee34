// An image whose absolute links all point at files of the running machine:
// some at canaries this test plants in a scratch directory, some at the
// machine's own /proc, /sys, /etc, /var. Inventoried with every kind, no fact
// of the running machine may appear, and the image must not change.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "collectors.h"
#include "core/common.h"
#include "image_fixtures.h"

namespace {

using namespace amsvc;
using amtest::run;

// Every kind's records as text: the return code, then the fields.
std::string inventory(const HostRoot& root) {
    std::string out;
    auto add = [&](const char* kind, int rc, const std::string& body) {
        out += std::string("== ") + kind + " " + std::to_string(rc) + "\n" + body;
    };
    {
        std::vector<AM::ProcessInfo> v;
        const int rc = collect_processes(root, v);
        std::string b;
        for (const auto& p : v) b += std::to_string(p.pid) + " " + p.name + " " + p.path + " " + p.cmd_line + "\n";
        add("processes", rc, b);
    }
    {
        std::vector<AM::NetLinkInfo> v;
        const int rc = collect_netlinks(root, v);
        std::string b;
        for (const auto& s : v) b += s.proto + " " + s.local_addr + ":" + std::to_string(s.local_port) + " " + s.proc_path + "\n";
        add("netlinks", rc, b);
    }
    {
        std::vector<AM::SysInstallPackageInfo> v;
        const int rc = collect_packages(root, v);
        std::string b;
        for (const auto& p : v) b += p.type + " " + p.name + " " + p.version + " [" + p.installtime + "] " + p.summary + "\n";
        add("packages", rc, b);
    }
    {
        std::vector<AM::UserInfo> v;
        const int rc = collect_users(root, v);
        std::string b;
        for (const auto& u : v) b += u.name + " " + u.uid + " " + u.homedir + " " + u.last_change_passwd + "\n";
        add("users", rc, b);
    }
    {
        std::vector<AM::CronInfo> v;
        const int rc = collect_crons(root, v);
        std::string b;
        for (const auto& c : v) b += c.user + " " + c.file + " " + c.cmd_line + " " + c.comment + "\n";
        add("crons", rc, b);
    }
    {
        std::vector<AM::SysLoadModuleInfo> v;
        const int rc = collect_kernel_modules(root, v);
        std::string b;
        for (const auto& m : v) b += m.name + "\n";
        add("modules", rc, b);
    }
    {
        std::vector<AM::AutoRunServInfo> v;
        const int rc = collect_autoruns(root, v);
        std::string b;
        for (const auto& a : v) b += a.name + " " + a.script_path + " " + a.status + " " + a.comment + "\n";
        add("autoruns", rc, b);
    }
    {
        AM::SystemInfo s;
        const int rc = collect_system_facts(root, s);
        std::string b = s.host + "|" + s.version + "|" + s.kernel_version + "|" + s.arch + "|" + s.Manufacturer +
                        "|" + s.product + "|" + s.Serial + "|" + std::to_string(s.network_card.size()) + "|" +
                        std::to_string(s.disk.size()) + "\n";
        add("system", rc, b);
    }
    {
        std::vector<AM::ServiceInfo> v;
        const int rc = collect_servers(root, v);
        std::string b;
        for (const auto& s : v) b += s.name + " " + s.install_path + " " + s.configure_path + "\n";
        add("servers", rc, b);
    }
    {
        std::vector<AM::ThirdPartDevLibInfo> v;
        add("libraries", collect_libraries(root, v), std::to_string(v.size()) + "\n");
    }
    return out;
}

TEST(ImageEscape, NoFactOfTheRunningMachine) {
    const std::string token = "cAnArY" + std::to_string(getpid());
    amtest::TempDir canary{"amimg_canary"}, image{"amimg_escape"};
    const std::string& c = canary.path;
    // The running machine's files the image's links name.
    canary.file("/etc/crontab", "* * * * * root echo " + token + "_crontab\n");
    canary.file("/etc/cron.d/job", "* * * * * root echo " + token + "_crond\n");
    canary.file("/spool/root", "* * * * * echo " + token + "_spool\n", 0600);
    canary.file("/etc/passwd", token + "u:x:4242:4242::/home/" + token + ":/bin/sh\n");
    canary.file("/etc/group", token + "g:x:4242:\n");
    canary.file("/etc/os-release", "PRETTY_NAME=\"" + token + " OS\"\n");
    canary.file("/etc/hostname", token + "-host\n");
    canary.file("/dpkg/status", "Package: " + token + "-deb\nStatus: install ok installed\nVersion: 1\n");
    canary.file("/systemd/system/" + token + ".timer", "[Unit]\nDescription=" + token + "\n[Timer]\nOnCalendar=daily\n");
    canary.file("/systemd/system/" + token + ".service", "[Service]\nExecStart=/bin/" + token + "\n");
    canary.link("/systemd/system/timers.target.wants/" + token + ".timer", c + "/systemd/system/" + token + ".timer");
    canary.file("/init.d/" + token + "svc", "#!/bin/sh\n", 0755);
    canary.file("/xdg/autostart/" + token + ".desktop", "[Desktop Entry]\nExec=/bin/" + token + "\n");
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
    EXPECT_NE(std::string::npos, inv.find("deb dpkg 0image [] ")) << inv;
    EXPECT_NE(std::string::npos, inv.find("== processes -2\n")) << inv;
    EXPECT_NE(std::string::npos, inv.find("== netlinks -2\n")) << inv;
    EXPECT_NE(std::string::npos, inv.find("== system -2\n|||||||0|0\n")) << inv;
    EXPECT_EQ(sum_image, amimg::tree_sum(image.path));
    EXPECT_EQ(sum_canary, amimg::tree_sum(c));

    // A whole image of links to the machine's top directories.
    amtest::TempDir top{"amimg_escape_top"};
    for (const char* d : {"/etc", "/var", "/usr", "/lib", "/bin", "/sbin", "/proc", "/sys", "/run", "/root", "/home"})
        top.link(d, d);
    const std::string inv_top = inventory(HostRoot(top.path));
    // Each link is a loop inside the image: no kind finds a record.
    for (const char* kind : {"processes", "netlinks", "packages", "users", "crons", "modules", "autoruns", "system"})
        EXPECT_NE(std::string::npos, inv_top.find(std::string("== ") + kind + " -")) << kind << "\n" << inv_top;
    EXPECT_NE(std::string::npos, inv_top.find("\n|||||||0|0\n")) << inv_top;
}

// The same inventory from a read-only bind mount of an image, and not a byte
// of it changed.
TEST(ImageEscape, ReadOnlyMountGivesTheSameInventory) {
    amtest::TempDir image{"amimg_ro"};
    ASSERT_TRUE(amimg::make_rpm_sqlite(image.path));
    ASSERT_TRUE(amimg::make_dpkg_tree(image.path));
    image.file("/etc/crontab", "0 1 * * * root /usr/bin/backup\n");
    image.file("/etc/passwd", "root:x:0:0::/root:/bin/sh\n");
    image.file("/usr/lib/systemd/system/x.service", "[Service]\nExecStart=/bin/true\n");
    const std::string before = amimg::tree_sum(image.path);
    const std::string rw = inventory(HostRoot(image.path));
    EXPECT_NE(std::string::npos, rw.find("rpm amtest-one 2:1.0")) << rw;
    EXPECT_NE(std::string::npos, rw.find("deb amtest-a 1:2.0")) << rw;
    EXPECT_EQ(before, amimg::tree_sum(image.path));
    const std::string ro = amimg::in_readonly_mount(image.path, [&] { return inventory(HostRoot(image.path)); });
    if (ro == "SKIP") GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(rw, ro);
}

}  // namespace
