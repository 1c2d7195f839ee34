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

std::string row(const CronInfo& c) {
    return c.user + " | " + c.timer + " | " + c.name + " | " + c.cmd_line + " | " + c.comment + " | " +
           c.file;
}

std::vector<std::string> rows(const std::vector<CronInfo>& v) {
    std::vector<std::string> r;
    for (const auto& c : v) r.push_back(row(c));
    return r;
}

}  // namespace

TEST(CronParse, NamesUnitsAndTheJobBound) {
    for (const char* good : {"0anacron", "man-db_X"}) EXPECT_TRUE(run_parts_name(good));
    for (const char* bad : {"", "a.sh", "b~", "c.dpkg-old", ".hidden", "sp ace"})
        EXPECT_FALSE(run_parts_name(bad));
    EXPECT_EQ(program_name("A=1 /usr/bin/env python3 x"), "env");
    EXPECT_EQ(program_name("   "), "");
    EXPECT_EQ(program_name("\"/unterminated/quo te"), "quo te");

    UnitKeys k;
    parse_unit(
        "[Unit]\nDescription=Thing\n; comment\n[Timer]\nOnCalendar=daily\nOnCalendar=weekly\nOnBootSec=5m\n"
        "garbage line\n=novalue\n[Service]\nExecStart=-/bin/a \\\n   b \\\n c\nExecStart=+!/bin/d\n",
        k);
    EXPECT_EQ(timer_schedule(k), "daily; weekly");
    EXPECT_EQ(service_command(k), "/bin/a b c; /bin/d");
    parse_unit("[Timer]\nOnCalendar=\n", k);  // a drop-in resetting the calendar
    EXPECT_EQ(timer_schedule(k), "OnBootSec=5m");
    EXPECT_EQ(k["Unit.Description"], std::vector<std::string>{"Thing"});

    std::vector<CronInfo> v;
    // A table of millions of jobs stops at the per-file bound.
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

TEST_F(CronTree, FixtureJobs) {
    std::vector<AM::CronInfo> v(2);
    ASSERT_EQ(amsvc::collect_crons(amsvc::HostRoot(dir.path), v), 0);
    std::vector<std::string> want{
        "root | 17 * * * * | cd | cd / && run-parts --report /etc/cron.hourly | m h dom mon dow "
        "user\tcommand "
        "| /etc/crontab",
        "www-data | */5 1-5,7 * jan,feb mon-fri | php | /usr/bin/php -f /var/www/cron.php >/dev/null 2>&1 | "
        "rotate the logs | /etc/crontab",
        "root | @reboot | on-boot | /usr/local/bin/on-boot --now |  | /etc/crontab",
        "root | */5 * * * * | a | /bin/a  arg | job one | /etc/cron.d/edge",
        "nobody | @reboot | b | B=1 C=2 /opt/b |  | /etc/cron.d/edge",
        "root | 09,39 * * * * | [ | [ -x /usr/lib/php/sessionclean ] && /usr/lib/php/sessionclean | Look for "
        "and purge old sessions every 30 minutes | /etc/cron.d/php",
        "nobody | 0 4 * * * | quiet-job | LANG=C /usr/bin/quiet-job |  | /etc/cron.d/php",
        "root | 30 2 * * * | backup.sh | /usr/bin/backup.sh | from windows | /etc/cron.d/winfile",
        "alice | 0 3 * * * | sync data | \"/home/alice/bin/sync data\" --all % stdin text | nightly sync | "
        "/var/spool/cron/crontabs/alice",
        "alice | @hourly | python3 | python3 /home/alice/poll.py |  | /var/spool/cron/crontabs/alice",
        "dave | 1 2 3 4 5 | first | first |  | /var/spool/cron/crontabs/dave",
        "dave | 0 3 * * * | z w | '/x y/z w' -q % in |  | /var/spool/cron/crontabs/dave",
        "garbage | 1 1 1 1 1 | after-garbage | /bin/after-garbage |  | /var/spool/cron/crontabs/garbage",
        "huge | 2 2 * * * | after-huge | /bin/after-huge |  | /var/spool/cron/crontabs/huge",
        "carol | 15 14 1 * * | monthly-report | /usr/bin/monthly-report |  | /var/spool/cron/carol",
        "root | 1 | cron.daily | run-parts --report /etc/cron.daily | These replace cron's entries | "
        "/etc/anacrontab",
        "root | 7 | cron.weekly | run-parts --report /etc/cron.weekly |  | /etc/anacrontab",
        "root | @monthly | cron.monthly | run-parts --report /etc/cron.monthly |  | /etc/anacrontab",
        "root | @hourly | 0anacron | /etc/cron.hourly/0anacron |  | /etc/cron.hourly/0anacron",
        "root | @daily | logrotate | /etc/cron.daily/logrotate |  | /etc/cron.daily/logrotate",
        "root | @daily | rotate-link | /etc/cron.daily/rotate-link |  | /etc/cron.daily/rotate-link",
        "backup | *-*-* 02:30:00; Sat *-*-* 05:00 | backup.timer | /usr/bin/backup --full; "
        "/usr/bin/backup-verify | Nightly backup | /lib/systemd/system/backup.timer",
        "root | OnBootSec=15min; OnUnitActiveSec=1d | cleanup.timer | /usr/bin/tidy --clean | Cleanup | "
        "/lib/systemd/system/cleanup.timer",
        "root | weekly | dump@main.timer | /usr/bin/dump --db main | Dump of main | "
        "/lib/systemd/system/dump@.timer",
    };
    if (geteuid() == 0)  // the linked file is root's
        want.insert(want.begin() + 5, "root | 5 5 * * * | linked | /bin/linked |  | /etc/cron.d/linked");
    EXPECT_EQ(rows(v), want);
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
        tmp.file("/user", "MAILTO=\"\"\n# every five minutes\n*/5 * * * * /usr/bin/amtest-poll --quiet\n");
        ASSERT_EQ(system(("crontab -u amtest_cron " + tmp.path + "/user").c_str()), 0);
        tmp.file("/root", "@reboot /usr/local/bin/amtest-boot\n");
        ASSERT_EQ(system(("crontab -u root " + tmp.path + "/root").c_str()), 0);
        write_file("/etc/cron.d/amtest_job", "# cleanup\n30 1 * * 0 nobody /usr/bin/amtest-clean\n");
    }
    void TearDown() override {
        if (geteuid() != 0) return;
        (void)!system("crontab -u amtest_cron -r 2>/dev/null; userdel amtest_cron >/dev/null 2>&1");
        (void)!system(
            (had_root_tab ? "crontab -u root " + tmp.path + "/saved" : "crontab -u root -r").c_str());
        unlink("/etc/cron.d/amtest_job");
    }
    static constexpr const char* kSpool = "/var/spool/cron/crontabs/";
    TempDir tmp;
    bool had_root_tab = false;
};

TEST_F(CronHost, InstalledCrontabs) {
    std::vector<AM::CronInfo> v;
    ASSERT_EQ(amsvc::collect_crons(amsvc::HostRoot("/"), v), 0);
    std::vector<std::string> mine;
    for (const auto& c : v)
        if (c.cmd_line.find("amtest-") != std::string::npos) mine.push_back(row(c));
    EXPECT_EQ(
        mine,
        (std::vector<std::string>{
            "nobody | 30 1 * * 0 | amtest-clean | /usr/bin/amtest-clean | cleanup | "
            "/etc/cron.d/amtest_job",
            "amtest_cron | */5 * * * * | amtest-poll | /usr/bin/amtest-poll --quiet | every five "
            "minutes | /var/spool/cron/crontabs/amtest_cron",
            "root | @reboot | amtest-boot | /usr/local/bin/amtest-boot |  | /var/spool/cron/crontabs/root",
        }));

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
