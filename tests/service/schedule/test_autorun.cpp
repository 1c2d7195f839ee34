// Auto-start entries: unit-file states against `systemctl list-unit-files
// --root` on a tree built here and on this host; SysV, rc.local, XDG; hostile trees.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>

#include "collectors.h"
#include "core/host_path.h"
#include "schedule/autorun_parse.h"
#include "test_util.h"

using namespace amsvc;

namespace {

using amtest::run;

std::map<std::string, std::string> systemctl_states(const std::string& root) {
    std::map<std::string, std::string> m;
    const std::string out =
        run("systemctl list-unit-files --root='" + root + "' --no-legend --no-pager 2>/dev/null");
    for (std::string_view line : split_lines(out)) {
        const auto f = split_ws(line);
        if (f.size() >= 2) m[std::string(f[0])] = std::string(f[1]);
    }
    return m;
}

std::map<std::string, const AM::AutoRunServInfo*> by_name(const std::vector<AM::AutoRunServInfo>& v) {
    std::map<std::string, const AM::AutoRunServInfo*> m;
    for (const auto& r : v) m[r.name] = &r;
    return m;
}

bool is_unit(const std::string& n) {
    for (const char* t : {".service", ".socket", ".target", ".timer", ".path", ".mount", ".automount",
                          ".swap", ".slice", ".scope", ".device"})
        if (ends_with(n, t)) return true;
    return false;
}

// Every unit we report has the state list-unit-files gives, and no unit is missing.
void expect_units_match(const std::vector<AM::AutoRunServInfo>& v,
                        const std::map<std::string, std::string>& want) {
    size_t units = 0;
    for (const auto& r : v) {
        if (!is_unit(r.name)) continue;
        ++units;
        ASSERT_TRUE(want.count(r.name)) << r.name;
        EXPECT_EQ(r.status, want.at(r.name)) << r.name;
    }
    EXPECT_EQ(units, want.size());
}

std::string md5_of(const std::string& file) { return run("md5sum '" + file + "'").substr(0, 32); }

using Field = std::string AM::AutoRunServInfo::*;

}  // namespace

TEST(AutorunParse, UnitLsbDesktopExec) {
    const UnitFile u = parse_unit_file(
        "# c\n[Unit]\nDescription=My\\\n  daemon\n[Service]\nExecStart=\nExecStart=-@/usr/bin/d d --x\n"
        "ExecStart=/bin/second\n[Install]\nWantedBy=multi-user.target graphical.target\nAlias=x.service\n"
        "Also=y.socket\nDefaultInstance=tty1\nRequiredBy=\n");
    EXPECT_EQ(u.description, "My daemon");
    EXPECT_EQ(u.exec_start, "-@/usr/bin/d d --x");
    EXPECT_EQ(u.wanted_by.size(), 2u);
    EXPECT_EQ(exec_program("-@/usr/bin/d d --x"), "/usr/bin/d");
    EXPECT_EQ(exec_program("+!!\"/opt/my app/bin\" -a"), "/opt/my app/bin");
    EXPECT_EQ(exec_program(":-"), "");
    const LsbHeader h = parse_lsb_header(
        "#!/bin/sh\n### BEGIN INIT INFO\n# Provides: foo\n# Default-Start:     2 3 4 5\n"
        "# Short-Description: Foo daemon\n### END INIT INFO\n# Short-Description: later, ignored\n");
    EXPECT_EQ(h.short_description, "Foo daemon");
    EXPECT_EQ(parse_lsb_header("#!/bin/sh\n# description: old style\n").short_description, "old style");
    const DesktopEntry d = parse_desktop_entry(
        "[Desktop Entry]\nName=N\nComment=C\nExec=env A=1 prog\nHidden=true\n"
        "X-GNOME-Autostart-enabled=false\n[Desktop Action x]\nName=Other\n");
    EXPECT_EQ(d.name, "N");
    EXPECT_EQ(d.exec, "env A=1 prog");
    EXPECT_TRUE(d.hidden);
    EXPECT_FALSE(d.autostart_enabled);
}

TEST(AutorunParse, ResolveStaysInsideRoot) {
    amtest::TempDir t("amauto");
    t.file("/usr/bin/real", "x");
    t.link("/bin", "usr/bin");
    t.link("/etc/abs", "/usr/bin/real");
    t.link("/etc/up", "../../../../../../usr/bin/real");
    t.link("/etc/loop1", "loop2");
    t.link("/etc/loop2", "loop1");
    t.link("/etc/proc", "/proc/self/environ");
    t.link("/etc/null", "/dev/null");
    const HostRoot r(t.path);
    for (const char* p : {"/bin/real", "/etc/abs", "/etc/up"})
        EXPECT_EQ(resolve_host_path(r, p), "/usr/bin/real") << p;
    for (const char* p : {"/etc/loop1", "/etc/proc", "/etc/null", "/etc/missing"})
        EXPECT_EQ(resolve_host_path(r, p), "") << p;
    EXPECT_EQ(resolve_host_path(r, "/etc/null", true), "/dev/null");
}

TEST(AutorunCollect, FixtureMatchesSystemctl) {
    amtest::TempDir t("amauto");
    const std::string lib = "/lib/systemd/system", etc = "/etc/systemd/system";
    t.file("/usr/bin/a-daemon", "#!/bin/sh\necho a\n", 0755);
    t.file(lib + "/multi-user.target", "[Unit]\nDescription=Multi-User\n");
    t.file(lib + "/a.service",
           "[Unit]\nDescription=Service A\n[Service]\nExecStart=-/usr/bin/a-daemon --x\n"
           "[Install]\nWantedBy=multi-user.target\n");
    t.link(etc + "/multi-user.target.wants/a.service", lib + "/a.service");
    t.file(lib + "/b.service", "[Service]\nExecStart=b-prog\n[Install]\nWantedBy=multi-user.target\n");
    t.file(lib + "/c.service", "[Unit]\nDescription=static one\n[Service]\nExecStart=/bin/true\n");
    t.file(lib + "/m.service", "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
    t.link(etc + "/m.service", "/dev/null");
    t.link(lib + "/alias-of-a.service", "a.service");
    t.file(lib + "/d.service", "[Service]\nExecStart=/bin/true\n[Install]\nAlias=dee.service\n");
    t.link(etc + "/dee.service", lib + "/d.service");
    t.file("/opt/units/e.service", "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
    t.link(etc + "/e.service", "/opt/units/e.service");
    t.file(lib + "/t@.service",
           "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n"
           "DefaultInstance=x\n");
    t.link(etc + "/multi-user.target.wants/t@x.service", lib + "/t@.service");
    t.file(lib + "/u@.service", "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
    t.link(etc + "/multi-user.target.wants/u@y.service", lib + "/u@.service");
    t.file(lib + "/f.timer", "[Unit]\nDescription=timer\n[Timer]\nOnCalendar=daily\n");
    t.file(lib + "/g.socket", "[Socket]\nListenStream=1\n[Install]\nAlso=g2.service\n");
    t.file(lib + "/empty.service", "");
    t.file(etc + "/local.service", "[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
    t.link(etc + "/multi-user.target.wants/local.service", "../local.service");
    // SysV, rc.local, XDG
    t.file("/etc/init.d/foo", "#!/bin/sh\n### BEGIN INIT INFO\n# Short-Description: Foo\n### END INIT INFO\n",
           0755);
    t.file("/etc/init.d/bar", "#!/bin/sh\n", 0755);
    t.file("/etc/init.d/README", "docs");
    for (const char* lv : {"2", "3", "5", "S"})
        t.link(std::string("/etc/rc") + lv + ".d/S01foo", "../init.d/foo");
    t.link("/etc/rc0.d/K01foo", "../init.d/foo");
    t.file("/etc/rc.local", "#!/bin/sh\nexit 0\n", 0755);
    t.file("/etc/xdg/autostart/x.desktop", "[Desktop Entry]\nName=X\nExec=a-daemon --y\nHidden=true\n");
    t.file("/etc/xdg/autostart/y.desktop",
           "[Desktop Entry]\nName=Y\nComment=Why\nExec=env A=1 /usr/bin/a-daemon\n");

    std::vector<AM::AutoRunServInfo> v;
    ASSERT_EQ(collect_autoruns(HostRoot(t.path), v), 0);
    const auto m = by_name(v);
    const auto want = systemctl_states(t.path);
    ASSERT_GE(want.size(), 10u) << "systemctl list-unit-files --root did not run";
    expect_units_match(v, want);
    // Digests are those of the program the unit starts (x.desktop's found on PATH under the root).
    const std::string md5 = md5_of(t.path + "/usr/bin/a-daemon");
    const struct {
        const char* name;
        Field field;
        std::string want;
    } kCases[] = {
        {"a.service", &AM::AutoRunServInfo::script_path, lib + "/a.service"},
        {"a.service", &AM::AutoRunServInfo::comment, "Service A"},
        {"a.service", &AM::AutoRunServInfo::level, "multi-user.target"},
        {"a.service", &AM::AutoRunServInfo::md5, md5},
        {"y.desktop", &AM::AutoRunServInfo::md5, md5},
        {"x.desktop", &AM::AutoRunServInfo::md5, md5},
        {"x.desktop", &AM::AutoRunServInfo::status, "disabled"},
        {"y.desktop", &AM::AutoRunServInfo::comment, "Why"},
        {"y.desktop", &AM::AutoRunServInfo::status, "enabled"},
        {"b.service", &AM::AutoRunServInfo::md5, ""},  // b-prog exists nowhere: nothing to hash
        {"foo", &AM::AutoRunServInfo::level, "235S"},
        {"foo", &AM::AutoRunServInfo::status, "enabled"},
        {"foo", &AM::AutoRunServInfo::comment, "Foo"},
        {"bar", &AM::AutoRunServInfo::status, "disabled"},
        {"rc.local", &AM::AutoRunServInfo::status, "enabled"},
    };
    for (const auto& c : kCases) EXPECT_EQ(m.at(c.name)->*c.field, c.want) << c.name;
    EXPECT_EQ(m.count("README"), 0u);
    EXPECT_EQ(m.at("rc.local")->sha256.size(), 64u);
}

// Drop-ins as systemd reads them: the files `systemd-analyze cat-config`
// shows (a higher directory's file hides a lower one of the same name), the
// state list-unit-files gives, and the description and program they set.
TEST(AutorunCollect, DropinsMatchSystemd) {
    amtest::TempDir t("amauto");
    const std::string lib = "/lib/systemd/system", etc = "/etc/systemd/system";
    const std::string local = "/usr/local/lib/systemd/system";
    t.file("/usr/bin/old", "#!/bin/sh\necho old\n", 0755);
    t.file("/usr/bin/new", "#!/bin/sh\necho new\n", 0755);
    t.file(lib + "/a-b.service", "[Unit]\nDescription=base\n[Service]\nExecStart=/usr/bin/old -x\n");
    t.file(lib + "/a-b.service.d/override.conf", "[Unit]\nDescription=hidden by /etc\n");
    t.file(local + "/a-b.service.d/05-early.conf", "[Unit]\nDescription=early\n");
    t.file(etc + "/a-b.service.d/override.conf",
           "[Unit]\nDescription=new one\n[Service]\nExecStart=\nExecStart=/usr/bin/new -y\n"
           "[Install]\nWantedBy=multi-user.target\n");
    t.file(etc + "/a-b.service.d/notes.txt", "[Unit]\nDescription=not a drop-in\n");
    t.file(lib + "/plain.service", "[Unit]\nDescription=plain\n[Service]\nExecStart=/usr/bin/old\n");
    t.file(lib + "/multi-user.target", "[Unit]\nDescription=Multi-User\n");

    const std::string shown =
        run("systemd-analyze --root='" + t.path + "' cat-config systemd/system/a-b.service 2>/dev/null");
    std::vector<std::string> want_files;
    for (std::string_view line : split_lines(shown))
        if (starts_with(line, "# " + t.path + "/")) want_files.emplace_back(line.substr(2 + t.path.size()));
    if (want_files.empty()) GTEST_SKIP() << "no systemd-analyze here";
    want_files.erase(want_files.begin());  // the unit file itself
    EXPECT_EQ(find_dropins(HostRoot(t.path), {"a-b.service"}, DropinScope::kInstall), want_files);
    EXPECT_EQ(want_files, (std::vector<std::string>{local + "/a-b.service.d/05-early.conf",
                                                    etc + "/a-b.service.d/override.conf"}));

    std::vector<AM::AutoRunServInfo> v;
    ASSERT_EQ(collect_autoruns(HostRoot(t.path), v), 0);
    const auto m = by_name(v);
    const auto states = systemctl_states(t.path);
    expect_units_match(v, states);
    EXPECT_EQ(m.at("a-b.service")->status, "disabled");  // WantedBy= came from the drop-in
    EXPECT_EQ(m.at("a-b.service")->comment, "new one");
    EXPECT_EQ(m.at("a-b.service")->script_path, lib + "/a-b.service");
    EXPECT_EQ(m.at("a-b.service")->md5, md5_of(t.path + "/usr/bin/new"));
    EXPECT_EQ(m.at("plain.service")->md5, md5_of(t.path + "/usr/bin/old"));
}

TEST(UnitFile, DropinNamesAndOrder) {
    EXPECT_EQ(dropin_names("a-b-c@x.service"),
              (std::vector<std::string>{"a-b-c@x.service", "a-b-c@.service", "a-b-.service", "a-.service"}));
    EXPECT_EQ(dropin_names("plain.socket"), std::vector<std::string>{"plain.socket"});
    amtest::TempDir t("amunit");
    const std::string lib = "/lib/systemd/system", etc = "/etc/systemd/system";
    t.file(lib + "/service.d/10-all.conf", "");
    t.file(lib + "/a-.service.d/10-all.conf", "");  // hides the type-wide one of its name
    t.file(lib + "/a-.service.d/20-prefix.conf", "");
    t.file(lib + "/a-b@.service.d/20-prefix.conf", "");  // more specific: hides the prefix one
    t.file(lib + "/a-b@x.service.d/30-x.conf", "");
    t.file(etc + "/a-b@.service.d/30-x.conf", "");  // higher directory wins over the instance's
    t.file(lib + "/service.d/40-all.conf", "");
    EXPECT_EQ(
        find_dropins(HostRoot(t.path), {"a-b@x.service"}),
        (std::vector<std::string>{lib + "/a-.service.d/10-all.conf", lib + "/a-b@.service.d/20-prefix.conf",
                                  etc + "/a-b@.service.d/30-x.conf", lib + "/service.d/40-all.conf"}));
    EXPECT_EQ(find_dropins(HostRoot(t.path), {"a-b@x.service"}, DropinScope::kInstall),
              (std::vector<std::string>{lib + "/a-b@.service.d/20-prefix.conf",
                                        etc + "/a-b@.service.d/30-x.conf"}));
}

TEST(AutorunCollect, HostileTree) {
    amtest::TempDir t("amauto");
    const std::string lib = "/lib/systemd/system";
    t.link(lib + "/loop1.service", "loop2.service");
    t.link(lib + "/loop2.service", "loop1.service");
    t.link(lib + "/proc.service", "/proc/self/environ");
    t.link(lib + "/dangling.service", "/nowhere/x.service");
    ASSERT_EQ(mkfifo((t.path + lib + "/fifo.service").c_str(), 0644), 0);
    t.file(lib + "/huge.service", "[Unit]\nDescription=" + std::string(4 << 20, 'x') + "\n");
    t.file(lib + "/escape.service", "[Service]\nExecStart=/../../../../etc/shadow\n");
    t.link("/etc/init.d/evil", "/proc/1/environ");
    ASSERT_EQ(mkfifo((t.path + "/etc/rc.local").c_str(), 0755), 0);
    t.link("/etc/xdg/autostart/z.desktop", "/dev/zero");
    std::vector<AM::AutoRunServInfo> v;
    EXPECT_EQ(collect_autoruns(HostRoot(t.path), v), 0);
    const auto m = by_name(v);
    for (const char* n : {"loop1.service", "proc.service", "dangling.service"})
        EXPECT_EQ(m.at(n)->status, "bad") << n;
    for (const char* n : {"fifo.service", "evil", "rc.local"})
        EXPECT_EQ(m.count(n), 0u) << n;                         // not unit files
    EXPECT_LE(m.at("huge.service")->comment.size(), 1u << 20);  // read bounded, kept as far as read
    // The host's /etc/shadow is outside the root: the record names no digest of it.
    EXPECT_EQ(m.at("escape.service")->md5, "");
    EXPECT_EQ(collect_autoruns(HostRoot("/nonexistent/root"), v), -ENOENT);
    EXPECT_TRUE(v.empty());
}

TEST(AutorunCollect, HostMatchesSystemctl) {
    std::vector<AM::AutoRunServInfo> v;
    ASSERT_EQ(collect_autoruns(HostRoot("/"), v), 0);
    const auto want = systemctl_states("/");
    if (want.empty()) GTEST_SKIP() << "no systemctl here";
    expect_units_match(v, want);
}
