// User collector: parsers on fixture text, the whole collector on a fixture
// tree (with binary lastlog/wtmp written here), and the live host checked
// against getent, chage and lastlog for accounts created by the test.
#include <fcntl.h>
#include <lastlog.h>
#include <string.h>
#include <utmp.h>

#include <map>
#include <tuple>

#include "collectors.h"
#include "test_util.h"
#include "users/user_parse.h"

namespace fs = std::filesystem;
using amsvc::AM;
using namespace amsvc::users;

// The test writes records through the C library's structures: the reader's sizes must be theirs.
static_assert(sizeof(struct lastlog) == kLastlogRecordSize && sizeof(struct utmp) == kUtmpRecordSize,
              "record layouts");

namespace {

using amtest::run;
using amtest::TempDir;

template <size_t N>
void put(char (&field)[N], const std::string& s) {
    memcpy(field, s.data(), std::min(s.size(), N));  // full width: no terminating zero
}

template <class T>
std::string bytes(const T& r) {
    return std::string(reinterpret_cast<const char*>(&r), sizeof r);
}

std::string lastlog_record(int32_t t, const std::string& line, const std::string& host) {
    struct lastlog r {};
    r.ll_time = t;
    put(r.ll_line, line);
    put(r.ll_host, host);
    return bytes(r);
}

std::string utmp_record(int16_t type, const std::string& user, const std::string& line,
                        const std::string& host, int32_t t, const std::string& addr = "") {
    struct utmp r {};
    r.ut_type = type;
    put(r.ut_user, user);
    put(r.ut_line, line);
    put(r.ut_host, host);
    r.ut_tv.tv_sec = t;
    memcpy(r.ut_addr_v6, addr.data(), std::min(addr.size(), sizeof r.ut_addr_v6));
    return bytes(r);
}

const std::string kV4("\xc6\x33\x64\x09", 4);  // 198.51.100.9

using amtest::as_nobody;

// "name:uid:gid:group:comment:home:shell", then with `all` the password dates,
// the last login and "admin disabled".
std::string account(const AM::UserInfo& u, bool all = true) {
    const std::string id = u.name + ":" + u.uid + ":" + u.gid + ":" + u.groupname + ":" + u.comment + ":" +
                           u.homedir + ":" + u.shell;
    if (!all) return id;
    return id + "|" + u.last_change_passwd + "|" + u.passwd_expire + "|" + u.account_expire + "|" +
           u.last_login_time + "|" + u.last_login_term + "|" + u.last_login_ip + "|" +
           std::to_string(u.is_admin) + " " + std::to_string(u.is_disable);
}

}  // namespace

// Each line's "changed|password expires|account expires|disabled" on day
// 19700 (2023-12-09), and a day on which it did not yet disable (0: none).
// The usual lines (an expired password alone, locked, "*", must change at
// next login) are the fixture tree's accounts (UserTree.FixtureAccounts).
TEST(UserParse, ShadowDatesAndDisabledStates) {
    const std::tuple<std::string, std::string, time_t> cases[] = {
        {"d:$6$x:19500:0:99999:7::19600:", "2023-05-23||2023-08-31|1", 19599},  // expired
        {"f:$6$x:19000:0:30:7:10::", "2022-01-08|2022-02-07||1", 19040},        // inactive period over
        {"g:$6$x:19500:0:10000:7::0:", "2023-05-23||1970-01-01|1", 0},          // max >= 10000: never
        {"h:$6$x:junk:-5:x::::", "|||0", 0},
        // Absurd numbers count as unset.
        {"i:$6$x:9223372036854775807:0:5:7:9223372036854775807:9223372036854775807:", "|||0", 0},
    };
    std::string text;
    for (const auto& c : cases) text += std::get<0>(c) + "\n";
    const auto s = parse_shadow(text + "short:x:1\n");
    ASSERT_EQ(s.size(), 5u);
    for (size_t i = 0; i < s.size(); ++i) {
        const auto& [line, want, not_yet] = cases[i];
        EXPECT_EQ(last_change_date(s[i]) + "|" + password_expire_date(s[i]) + "|" +
                      account_expire_date(s[i]) + "|" + std::to_string(is_disabled(s[i], 19700 * 86400)),
                  want)
            << line;
        EXPECT_TRUE(!not_yet || !is_disabled(s[i], not_yet * 86400)) << line;
    }
}

TEST(UserParse, SudoersRules) {
    SudoersParser p;
    std::vector<std::pair<std::string, bool>> includes;
    p.parse(amtest::read_text(ASSETMAN_FIXTURES "/parse/sudoers"),
            [&](const std::string& path, bool dir) { includes.emplace_back(path, dir); });
    const SudoGrants& g = p.grants();
    EXPECT_EQ(g.users, (std::set<std::string>{"a1", "a2", "u1", "u2", "u3", "u7", "u8", "#1234"}));
    EXPECT_EQ(g.groups, (std::set<std::string>{"g1", "#27"}));
    EXPECT_TRUE(g.everyone);
    EXPECT_EQ(includes, (std::vector<std::pair<std::string, bool>>{{"/etc/sudoers.d", true},
                                                                   {"/etc/sudo ers.local", false}}));
}

TEST(UserParse, SudoersHostileInput) {
    SudoersParser p;
    std::string big(3u << 20, 'x');
    std::string text = "u1 ALL=(ALL) ALL\n" + big + "\\\n" + big + "\n";
    text += std::string("u2 ALL=(ALL) ALL\0junk\n", 22);
    text += "User_Alias LOOP = LOOP\nLOOP ALL=(ALL) ALL\n";  // self-referencing alias
    text += "(((((( = ))))))\n\\\n";
    p.parse(text, [](const std::string&, bool) {});
    EXPECT_EQ(p.grants().users, (std::set<std::string>{"u1"}));

    // Aliases naming themselves many times (found by fuzzing): each expansion
    // multiplied the work, 8^16 steps, a hang; each alias is now expanded once.
    SudoersParser q;
    q.parse(
        "User_Alias U = U, U, U, U, U, U, U, eve\nRunas_Alias R = R, R, R, R, R, R, R, R\n"
        "Cmnd_Alias C = C, C, C, C, C, C, C, C\nU ALL=(R) C\nU ALL=(ALL) C, ALL\n",
        [](const std::string&, bool) {});
    EXPECT_EQ(q.grants().users, (std::set<std::string>{"eve"}));
}

TEST(UserParse, LoginRecords) {
    // Whole records, the never-logged-in ones and wtmp are read in UserTree.FixtureAccounts.
    LoginRecord r;
    EXPECT_FALSE(parse_lastlog_record(lastlog_record(5, "x", "y").substr(0, 100), r));  // short
    // Full-width fields without a terminating zero stay bounded.
    EXPECT_TRUE(parse_lastlog_record(lastlog_record(7, std::string(40, 'L'), std::string(300, 'H')), r));
    EXPECT_EQ(r.line.size() + r.host.size(), 32u + 256u);
}

class UserTree : public ::testing::Test {
protected:
    void SetUp() override {
        fs::copy(std::string(ASSETMAN_FIXTURES) + "/users", dir.path, fs::copy_options::recursive);
        // lastlog: only alice (1000) has a record.
        dir.file("/var/log/lastlog", std::string(1000 * kLastlogRecordSize, '\0') +
                                         lastlog_record(1700000000, "pts/0", "192.0.2.7"));
        // wtmp: bob's latest login counts, not a logout (DEAD_PROCESS) or an earlier one; records
        // without a user, of other types and a torn last one are skipped.
        const std::string v6("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);
        dir.file("/var/log/wtmp",
                 utmp_record(7, "alice", "tty9", "ignored", 1) +
                     utmp_record(7, "bob", "pts/1", "old.example", 1600000000) +
                     utmp_record(7, "bob", "pts/3", "", 1650000000, kV4) +
                     utmp_record(8, "bob", "pts/1", "", 1650000500) +
                     utmp_record(7, "carol", "tty1", "", 1650000001, v6) +
                     utmp_record(7, "", "pts/9", "nobody", 1) + utmp_record(2, "reboot", "~", "", 2) +
                     utmp_record(7, "dave", "pts/4", "example.org", 1600000000) + std::string(100, '\x07'));
    }
    TempDir dir;
};

TEST_F(UserTree, FixtureAccounts) {
    std::vector<AM::UserInfo> v(3);  // replaced, not appended to
    ASSERT_EQ(amsvc::collect_users(amsvc::HostRoot(dir.path), v), 0);
    // Admins: root by uid; alice by supplementary and leo by primary sudo
    // group; frank by wheel; gina by User_Alias; judy from sudoers.d; mallory
    // by her second host spec. kim's files are ones sudo skips. Disabled:
    // bob/eve locked, dave expired, gina inactive; carol's "*" and nologin
    // shell do not count. alice's last login: lastlog wins over wtmp. leo's
    // gid "027" is group 27; odd's ids stay text as written.
    std::string got;
    for (const auto& u : v) got += account(u) + "\n";
    EXPECT_EQ(got, amtest::read_text(ASSETMAN_FIXTURES "/users.expected"));
}

TEST_F(UserTree, MissingAndUnreadableSources) {
    // Without shadow, sudoers and logs: accounts only, still success.
    for (const char* gone :
         {"/etc/shadow", "/etc/sudoers.d", "/etc/sudoers", "/var/log/lastlog", "/var/log/wtmp"})
        fs::remove_all(dir.path + gone);
    ASSERT_EQ(mkfifo((dir.path + "/var/log/wtmp").c_str(), 0644), 0);  // must not block
    std::vector<AM::UserInfo> v;
    ASSERT_EQ(amsvc::collect_users(amsvc::HostRoot(dir.path), v), 0);
    ASSERT_EQ(v.size(), 17u);
    for (const auto& u : v)  // admin by uid only; no dates, no lock, no login
        EXPECT_EQ(std::to_string(u.is_admin) + std::to_string(u.is_disable) + u.last_change_passwd +
                      u.last_login_time,
                  std::string(u.uid == "0" ? "1" : "0") + "0")
            << u.name;

    TempDir empty;
    EXPECT_EQ(amsvc::collect_users(amsvc::HostRoot(empty.path), v), -ENOENT);
    EXPECT_TRUE(v.empty());

    if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to nobody";
    chmod((dir.path + "/etc/passwd").c_str(), 0);
    chmod(dir.path.c_str(), 0755);
    const std::string root = dir.path;
    EXPECT_EQ(as_nobody([&] {
                  std::vector<AM::UserInfo> out;
                  return amsvc::collect_users(amsvc::HostRoot(root), out) == -EACCES && out.empty() ? 0 : 1;
              }),
              0);
}

// The live host against getent, chage and lastlog, with accounts made for the test.
class UserHost : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0 || !amtest::have_tools("useradd chage"))
            GTEST_SKIP() << "needs root and the shadow tools";
        cleanup();
        ASSERT_EQ(system("useradd -M -s /bin/sh -c 'AM test A' amtest_ua"), 0);
        ASSERT_EQ(system("useradd -M -s /usr/sbin/nologin amtest_ub"), 0);
        ASSERT_EQ(system("usermod -p 'not-a-real-hash' amtest_ua"), 0);
        ASSERT_EQ(system("chage -d 2026-01-01 -M 45 -E 2031-01-15 amtest_ua"), 0);
        ASSERT_EQ(system("usermod -p 'hash' amtest_ub && passwd -q -l amtest_ub >/dev/null"), 0);
        ASSERT_EQ(system("getent group sudo >/dev/null && usermod -aG sudo amtest_ub || true"), 0);
    }
    void TearDown() override {
        if (geteuid() == 0) cleanup();
    }
    static void cleanup() {
        (void)!system("userdel amtest_ua >/dev/null 2>&1; userdel amtest_ub >/dev/null 2>&1");
    }
};

// getent and chage for every account, chage -l's dates, lastlog(8) for a
// planted record, and a run as nobody that cannot read the shadow file.
TEST_F(UserHost, MatchesGetentChageAndLastlog) {
    const bool lastlog_tool = amtest::have_tools("lastlog");
    const off_t off = static_cast<off_t>(std::stoul(run("id -u amtest_ua"))) * kLastlogRecordSize;
    struct stat st;
    ASSERT_EQ(stat("/var/log/lastlog", &st), 0);
    // Save what is there and put it back afterwards.
    std::string saved(kLastlogRecordSize, '\0');
    const int fd = open("/var/log/lastlog", O_RDWR);
    ASSERT_GE(fd, 0);
    const ssize_t had = pread(fd, &saved[0], saved.size(), off);
    ASSERT_EQ(pwrite(fd, lastlog_record(1700000000, "pts/7", "203.0.113.5").data(), kLastlogRecordSize, off),
              static_cast<ssize_t>(kLastlogRecordSize));
    std::vector<AM::UserInfo> v;
    const int rc = amsvc::collect_users(amsvc::HostRoot("/"), v);
    const std::string tool = lastlog_tool ? run("TZ=UTC LC_ALL=C lastlog -u amtest_ua | tail -n 1") : "";
    if (had > 0) (void)!pwrite(fd, saved.data(), static_cast<size_t>(had), off);
    (void)!ftruncate(fd, st.st_size);
    close(fd);
    ASSERT_EQ(rc, 0);

    // Every account getent knows from files, field for field and in order, with its group's name.
    std::string ours;
    for (const auto& u : v) ours += account(u, false) + "\n";
    EXPECT_EQ(ours, run("getent -s files passwd | while IFS=: read -r n p u g c h s; do "
                        "printf '%s\\n' \"$n:$u:$g:$(getent group \"$g\" | cut -d: -f1):$c:$h:$s\"; done"));

    std::map<std::string, AM::UserInfo> m;
    for (const auto& u : v) m.emplace(u.name, u);
    ASSERT_TRUE(m.count("amtest_ua") && m.count("amtest_ub"));
    for (const char* u : {"amtest_ua", "amtest_ub"}) {
        const AM::UserInfo& a = m.at(u);
        // chage -l's dates ("Jan 15, 2031"; "never" gives nothing) as YYYY-MM-DD.
        const std::string chage = run(std::string("LC_ALL=C chage -l ") + u +
                                      " | sed -n 's/^\\(Last password change\\|Password expires\\|Account "
                                      "expires\\)[[:space:]]*: //p' | while read -r d; do "
                                      "echo $(date -d \"$d\" +%F 2>/dev/null); done");
        EXPECT_EQ(a.last_change_passwd + "\n" + a.passwd_expire + "\n" + a.account_expire + "\n", chage) << u;
    }
    const AM::UserInfo &a = m.at("amtest_ua"), &b = m.at("amtest_ub");
    // b is locked by passwd -l; root is an administrator by its uid.
    EXPECT_EQ(a.passwd_expire + " " + a.account_expire + " " + a.last_login_time + " " +
                  std::to_string(a.is_disable) + std::to_string(b.is_disable) + std::to_string(a.is_admin) +
                  std::to_string(m.at("root").is_admin),
              "2026-02-15 2031-01-15 2023-11-14 22:13:20 0101");
    if (access("/etc/sudoers", R_OK) == 0 &&
        system("grep -Eq '^%sudo[[:space:]]+ALL[[:space:]]*=[[:space:]]*\\(ALL(:ALL)?\\)[[:space:]]+ALL' "
               "/etc/sudoers") == 0) {
        EXPECT_TRUE(b.is_admin);
    }
    if (lastlog_tool) {
        // "amtest_ua  pts/7  203.0.113.5  Tue Nov 14 22:13:20 +0000 2023"
        std::istringstream in(tool);
        std::string name, port, from;
        in >> name >> port >> from;
        EXPECT_EQ(a.name + " " + a.last_login_term + " " + a.last_login_ip, name + " " + port + " " + from);
        EXPECT_NE(tool.find("Nov 14 22:13:20 +0000 2023"), std::string::npos) << tool;
    }

    // As nobody the shadow file is unreadable: accounts come back without its dates.
    EXPECT_EQ(as_nobody([] {
                  std::vector<AM::UserInfo> out;
                  if (amsvc::collect_users(amsvc::HostRoot("/"), out) != 0) return 1;
                  bool found = false;
                  for (const auto& u : out) {
                      if (!u.last_change_passwd.empty() || !u.account_expire.empty() || u.is_disable)
                          return 2;
                      if (u.name == "amtest_ua") found = true;
                  }
                  return found ? 0 : 3;
              }),
              0);
}
