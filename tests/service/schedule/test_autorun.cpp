// Auto-start entries: unit-file states against `systemctl list-unit-files
// --root` on a tree built here and on this host; SysV, rc.local, XDG; hostile trees.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
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

// The records as sorted lines "name | status | level | script | comment | md5".
std::string text(const std::vector<AM::AutoRunServInfo>& v) {
    std::set<std::string> lines;
    for (const auto& r : v)
        lines.insert(r.name + " | " + r.status + " | " + r.level + " | " + r.script_path + " | " + r.comment +
                     " | " + r.md5 + "\n");
    std::string out;
    for (const auto& l : lines) out += l;
    return out;
}

const std::string kFixtures = ASSETMAN_FIXTURES;

}  // namespace

TEST(AutorunParse, ResolveStaysInsideRoot) {
    // Links: relative, absolute, climbing above /, in a loop, to /proc and /dev.
    const HostRoot r(kFixtures + "/hostile");
    for (const char* p : {"/bin/real", "/etc/abs", "/etc/up"})
        EXPECT_EQ(resolve_host_path(r, p), "/usr/bin/real") << p;
    for (const char* p : {"/etc/loop1", "/etc/proc", "/etc/null", "/etc/missing"})
        EXPECT_EQ(resolve_host_path(r, p), "") << p;
    EXPECT_EQ(resolve_host_path(r, "/etc/null", true), "/dev/null");
}

// The tree: enabled, static, masked, aliased, linked, instanced and
// default-instance units, ExecStart= resets, prefixes and quoted programs;
// SysV scripts with rc links and LSB or old-style headers, rc.local, XDG
// entries hidden or disabled. autorun.expected holds its records; digests are
// those of the program each starts (found on PATH under the root for XDG).
TEST(AutorunCollect, FixtureMatchesSystemctl) {
    const std::string root = kFixtures + "/autorun";
    std::vector<AM::AutoRunServInfo> v;
    ASSERT_EQ(collect_autoruns(HostRoot(root), v), 0);
    const auto want = systemctl_states(root);
    ASSERT_GE(want.size(), 10u) << "systemctl list-unit-files --root did not run";
    expect_units_match(v, want);
    EXPECT_EQ(text(v), amtest::read_text(kFixtures + "/autorun.expected"));
    EXPECT_EQ(by_name(v).at("a.service")->md5, md5_of(root + "/usr/bin/a-daemon"));
}

// Drop-ins as systemd reads them: the files `systemd-analyze cat-config`
// shows (a higher directory's file hides a lower one of the same name), the
// state list-unit-files gives, and the description and program they set.
TEST(AutorunCollect, DropinsMatchSystemd) {
    const std::string root = kFixtures + "/dropins", lib = "/lib/systemd/system";
    const std::string shown =
        run("systemd-analyze --root='" + root + "' cat-config systemd/system/a-b.service 2>/dev/null");
    std::vector<std::string> want_files;
    for (std::string_view line : split_lines(shown))
        if (starts_with(line, "# " + root + "/")) want_files.emplace_back(line.substr(2 + root.size()));
    if (want_files.empty()) GTEST_SKIP() << "no systemd-analyze here";
    want_files.erase(want_files.begin());  // the unit file itself
    EXPECT_EQ(find_dropins(HostRoot(root), {"a-b.service"}, DropinScope::kInstall), want_files);
    EXPECT_EQ(want_files,
              (std::vector<std::string>{"/usr/local/lib/systemd/system/a-b.service.d/05-early.conf",
                                        "/etc/systemd/system/a-b.service.d/override.conf"}));

    std::vector<AM::AutoRunServInfo> v;
    ASSERT_EQ(collect_autoruns(HostRoot(root), v), 0);
    const auto m = by_name(v);
    expect_units_match(v, systemctl_states(root));
    // WantedBy=, the description and the program all come from the drop-in.
    const AM::AutoRunServInfo& ab = *m.at("a-b.service");
    EXPECT_EQ(ab.status + "|" + ab.comment + "|" + ab.script_path + "|" + ab.md5,
              "disabled|new one|" + lib + "/a-b.service|" + md5_of(root + "/usr/bin/new"));
    EXPECT_EQ(m.at("plain.service")->md5, md5_of(root + "/usr/bin/old"));
}

TEST(UnitFile, DropinNamesAndOrder) {
    EXPECT_EQ(dropin_names("a-b-c@x.service"),
              (std::vector<std::string>{"a-b-c@x.service", "a-b-c@.service", "a-b-.service", "a-.service"}));
    EXPECT_EQ(dropin_names("plain.socket"), std::vector<std::string>{"plain.socket"});
    // A drop-in hides those of its name for less specific units (type-wide,
    // then prefix, then template); one in /etc hides even the instance's.
    const HostRoot r(kFixtures + "/dropin-order");
    const std::string lib = "/lib/systemd/system", etc = "/etc/systemd/system";
    EXPECT_EQ(
        find_dropins(r, {"a-b@x.service"}),
        (std::vector<std::string>{lib + "/a-.service.d/10-all.conf", lib + "/a-b@.service.d/20-prefix.conf",
                                  etc + "/a-b@.service.d/30-x.conf", lib + "/service.d/40-all.conf"}));
    EXPECT_EQ(find_dropins(r, {"a-b@x.service"}, DropinScope::kInstall),
              (std::vector<std::string>{lib + "/a-b@.service.d/20-prefix.conf",
                                        etc + "/a-b@.service.d/30-x.conf"}));
}

TEST(AutorunCollect, HostileTree) {
    // Links in loops, to /proc, /dev and nowhere, and a path climbing out of
    // the root are in the fixture; FIFOs and a 4 MB file are made here.
    amtest::TempDir t("amauto");
    std::filesystem::copy(
        kFixtures + "/hostile", t.path,
        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
    const std::string lib = "/lib/systemd/system";
    ASSERT_EQ(mkfifo((t.path + lib + "/fifo.service").c_str(), 0644), 0);
    ASSERT_EQ(mkfifo((t.path + "/etc/rc.local").c_str(), 0755), 0);
    t.file(lib + "/huge.service", "[Unit]\nDescription=" + std::string(4 << 20, 'x') + "\n");
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
