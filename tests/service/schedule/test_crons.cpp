// Cron collector: parsers on fixture text, the whole collector on a fixture
// tree made hostile at run time (symlinks, FIFO, garbage, NUL, a 10 MB line), and
// the live host with crontabs installed through crontab(1).
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "collectors.h"
#include "schedule/cron_parse.h"
#include "test_util.h"

namespace fs = std::filesystem;
using amsvc::AM;
using namespace amsvc::cron;

namespace {

using amtest::run;
using amtest::TempDir;
using amtest::write_file;

// A line per job: "user | timer | name | command | comment | file".
std::string text(const std::vector<CronInfo>& v) {
    std::string out;
    for (const auto& c : v)
        out += c.user + " | " + c.timer + " | " + c.name + " | " + c.cmd_line + " | " + c.comment + " | " +
               c.file + "\n";
    return out;
}

}  // namespace

// A table of millions of jobs stops at the per-file bound.
TEST(CronParse, TheJobBound) {
    std::vector<CronInfo> v;
    std::string many;
    for (int i = 0; i < 20000; ++i) many += "* * * * * root x\n";
    parse_crontab(many, true, "", "f", v);
    EXPECT_EQ(v.size(), 10000u);
}

class CronTree : public ::testing::Test {
protected:
    // The fixture holds the timers' wants links and cron.d links to files
    // under the root; what git cannot hold, or should not, is made here.
    void SetUp() override {
        fs::copy(std::string(ASSETMAN_FIXTURES) + "/cron", dir.path,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        const std::string spool = dir.path + "/var/spool/cron/crontabs";
        fs::create_symlink("/etc/shadow", spool + "/evil");
        fs::create_symlink("../../../../etc/crontab", spool + "/evil2");
        mkfifo((spool + "/fifo").c_str(), 0644);
        std::string garbage;
        for (int i = 0; i < 8192; ++i) garbage += static_cast<char>((i * 97 + 3) & 0xff);
        // Binary junk and a NUL inside a job line: only the clean line after them is a job.
        write_file(spool + "/garbage", garbage + "\n0 0 * * * /bin/nul" + std::string(1, '\0') +
                                           "x\n1 1 1 1 1 /bin/after-garbage\n");
        write_file(spool + "/huge",
                   "0 0 * * * " + std::string(10u << 20, 'a') + "\n2 2 * * * /bin/after-huge\n");
        // cron.d may link to a file root owns and only root writes, nothing else.
        write_file(dir.path + "/elsewhere/open", "5 5 * * * root /bin/world-writable\n", 0666);
    }
    TempDir dir;
};

// Beside the tree, cron.expected: its jobs as text() writes them. The names
// run-parts skips, unit files with comments, junk lines, continuations and
// drop-ins, and quoted or prefixed programs are all in the tree.
TEST_F(CronTree, FixtureJobs) {
    std::vector<AM::CronInfo> v(2);
    ASSERT_EQ(amsvc::collect_crons(amsvc::HostRoot(dir.path), v), 0);
    std::string want = amtest::read_text(ASSETMAN_FIXTURES "/cron.expected");
    const std::string linked = "root | 5 5 * * * | linked | /bin/linked |  | /etc/cron.d/linked\n";
    if (geteuid() != 0) want.erase(want.find(linked), linked.size());  // the linked file is root's
    EXPECT_EQ(text(v), want);
}

TEST_F(CronTree, ResultCodes) {
    std::vector<AM::CronInfo> v;
    TempDir t;
    EXPECT_EQ(amsvc::collect_crons(amsvc::HostRoot(t.path), v), -ENOENT);
    EXPECT_TRUE(v.empty());

    // Only an /etc/crontab that is a FIFO: a source exists, none could be read.
    fs::create_directories(t.path + "/etc");
    ASSERT_EQ(mkfifo((t.path + "/etc/crontab").c_str(), 0644), 0);
    EXPECT_EQ(amsvc::collect_crons(amsvc::HostRoot(t.path), v), -EACCES);
    EXPECT_TRUE(v.empty());
}

// Live host: crontabs installed with crontab(1), compared with crontab -l.
class CronHost : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0 || !amtest::have_tools("crontab useradd"))
            GTEST_SKIP() << "needs root, crontab and useradd";
        (void)!system("userdel amtest_cron >/dev/null 2>&1");
        ASSERT_EQ(system("useradd -M -s /bin/sh amtest_cron"), 0);
        had_root_tab = system(("crontab -u root -l > " + tmp.path + "/saved 2>/dev/null").c_str()) == 0;
        // The tables of fixtures/live; live.expected holds their records.
        for (const char* user : {"amtest_cron", "root"})
            ASSERT_EQ(system(("crontab -u " + std::string(user) + " " + kLive + user).c_str()), 0);
        write_file("/etc/cron.d/amtest_job", amtest::read_text(kLive + "amtest_job"));
    }
    void TearDown() override {
        if (geteuid() != 0) return;
        (void)!system("crontab -u amtest_cron -r 2>/dev/null; userdel amtest_cron >/dev/null 2>&1");
        (void)!system(
            (had_root_tab ? "crontab -u root " + tmp.path + "/saved" : "crontab -u root -r").c_str());
        unlink("/etc/cron.d/amtest_job");
    }
    static constexpr const char* kSpool = "/var/spool/cron/crontabs/";
    const std::string kLive = ASSETMAN_FIXTURES "/live/";
    TempDir tmp;
    bool had_root_tab = false;
};

TEST_F(CronHost, InstalledCrontabs) {
    std::vector<AM::CronInfo> v;
    ASSERT_EQ(amsvc::collect_crons(amsvc::HostRoot("/"), v), 0);
    std::vector<AM::CronInfo> mine;
    for (const auto& c : v)
        if (c.cmd_line.find("amtest-") != std::string::npos) mine.push_back(c);
    EXPECT_EQ(text(mine), amtest::read_text(ASSETMAN_FIXTURES "/live.expected"));

    // Every job line crontab -l shows for each spool user is one record of ours.
    for (const auto& e : fs::directory_iterator(kSpool)) {
        const std::string user = e.path().filename();
        const std::string jobs =
            run("crontab -u " + user + " -l 2>/dev/null | grep -cE '^[[:space:]]*[0-9*@]'");
        size_t ours = 0;
        for (const auto& c : v)
            if (c.file == kSpool + user) ++ours;
        EXPECT_EQ(std::to_string(ours) + "\n", jobs) << user;
    }
}

TEST(CronLive, TimersMatchSystemctl) {
    if (!amtest::have_tools("systemctl")) GTEST_SKIP() << "no systemctl";
    std::map<std::string, std::string> state;  // unit -> enabled/static/disabled...
    const std::string listed = run("systemctl --root=/ list-unit-files --type=timer --no-legend 2>/dev/null");
    for (std::string_view l : amsvc::split_lines(listed)) {
        const auto f = amsvc::split_ws(l);
        if (f.size() >= 2) state[std::string(f[0])] = std::string(f[1]);
    }
    std::vector<AM::CronInfo> v;
    ASSERT_EQ(amsvc::collect_crons(amsvc::HostRoot("/"), v), 0);
    std::set<std::string> ours;
    for (const auto& c : v)
        if (amsvc::ends_with(c.name, ".timer")) ours.insert(c.name);
    for (const auto& [u, s] : state)
        if (s == "enabled" && u.find("@.") == std::string::npos) {
            EXPECT_TRUE(ours.count(u)) << u;
        }
    for (const std::string& u : ours)  // instances are not listed
        if (state.count(u)) {
            EXPECT_TRUE(state.at(u) == "enabled" || state.at(u) == "static") << u << " is " << state.at(u);
        }
}
