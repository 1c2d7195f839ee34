// User collector: parsers on fixture text, the whole collector on a fixture
// tree (with binary lastlog/wtmp written here), and the live host checked
// against getent and chage for accounts created by the test.
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <lastlog.h>
#include <utmp.h>

#include "collectors.h"
#include "test_util.h"
#include "users/user_parse.h"

namespace fs = std::filesystem;
using amsvc::AM;
using namespace amsvc::users;

// The record layouts read from disk are the C library's.
static_assert(sizeof(struct lastlog) == kLastlogRecordSize, "lastlog layout");
static_assert(sizeof(struct utmp) == kUtmpRecordSize, "utmp layout");
static_assert(offsetof(struct utmp, ut_line) == 8 && offsetof(struct utmp, ut_user) == 44 &&
                  offsetof(struct utmp, ut_host) == 76 && offsetof(struct utmp, ut_tv) == 340 &&
                  offsetof(struct utmp, ut_addr_v6) == 348,
              "utmp field offsets");
static_assert(offsetof(struct lastlog, ll_line) == 4 && offsetof(struct lastlog, ll_host) == 36,
              "lastlog field offsets");

namespace {

using amtest::run;
using amtest::TempDir;

void write_bytes(const std::string& path, const std::string& data, off_t offset = 0) {
    fs::create_directories(fs::path(path).parent_path());
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(::pwrite(fd, data.data(), data.size(), offset), static_cast<ssize_t>(data.size()));
    ::close(fd);
}

std::string lastlog_record(int32_t t, const std::string& line, const std::string& host) {
    std::string r(kLastlogRecordSize, '\0');
    memcpy(&r[0], &t, 4);
    memcpy(&r[4], line.data(), std::min<size_t>(line.size(), 32));
    memcpy(&r[36], host.data(), std::min<size_t>(host.size(), 256));
    return r;
}

std::string utmp_record(int16_t type, const std::string& user, const std::string& line,
                        const std::string& host, int32_t t, const uint8_t* addr = nullptr,
                        size_t addr_len = 0) {
    std::string r(kUtmpRecordSize, '\0');
    memcpy(&r[0], &type, 2);
    memcpy(&r[8], line.data(), std::min<size_t>(line.size(), 32));
    memcpy(&r[44], user.data(), std::min<size_t>(user.size(), 32));
    memcpy(&r[76], host.data(), std::min<size_t>(host.size(), 256));
    memcpy(&r[340], &t, 4);
    if (addr) memcpy(&r[348], addr, addr_len);
    return r;
}

std::map<std::string, AM::UserInfo> by_name(const std::vector<AM::UserInfo>& v) {
    std::map<std::string, AM::UserInfo> m;
    for (const auto& u : v) m.emplace(u.name, u);
    return m;
}

// Runs `fn` in a child as nobody; the child's exit code is fn's result.
int as_nobody(const std::function<int()>& fn) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(99);
        _exit(fn());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

}  // namespace

TEST(UserParse, PasswdSkipsMalformedAndNisLines) {
    const auto v = parse_passwd(
        "root:x:0:0:root:/root:/bin/bash\n"
        "+nis::::::\n-bad::::::\n+\n# comment\n\n"
        "junk\nshort:x:1\n:x:5:5::/:/bin/sh\ntoomany:x:1:1:a:b:c:d\nnogid:x:1::a:b:c\n"
        "odd:x:00042:abc:g,e,c,o,s::\r\n");
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0].name + ":" + v[0].shell, "root:/bin/bash");
    // Ids stay text as written; empty home and shell are kept empty.
    EXPECT_EQ(v[1].uid + ":" + v[1].gid + ":" + v[1].gecos + ":" + v[1].home + ":" + v[1].shell,
              "00042:abc:g,e,c,o,s::");
}

TEST(UserParse, GroupMembers) {
    const auto g = parse_group("sudo:x:27:alice, bob,,\nempty:x:5:\nbad:x:7\n+:::\n");
    ASSERT_EQ(g.size(), 2u);
    EXPECT_EQ(g[0].members, (std::vector<std::string>{"alice", "bob"}));
    EXPECT_TRUE(g[1].members.empty());
}

// Each line's dates, whether it disables the account on day 19700
// (2023-12-09), and a day on which it did not yet (0: none).
TEST(UserParse, ShadowDatesAndDisabledStates) {
    struct Case {
        std::string line, changed, password_expires, expires;
        bool disabled;
        time_t not_yet;
    };
    const Case cases[] = {
        // An expired password alone does not disable.
        {"a:$6$x:19500:0:90:7:::", "2023-05-23", "2023-08-21", "", false, 0},
        {"b:!$6$x:19500:0:99999:7:::", "2023-05-23", "", "", true, 0},  // locked
        {"c:*:19500::::::", "2023-05-23", "", "", false, 0},            // no password, not locked
        {"d:$6$x:19500:0:99999:7::19600:", "2023-05-23", "", "2023-08-31", true, 19599},  // expired
        {"e:$6$x:0:0:99999:7:::", "", "", "", false, 0},  // must change at next login
        {"f:$6$x:19000:0:30:7:10::", "2022-01-08", "2022-02-07", "", true, 19040},  // inactive period over
        {"g:$6$x:19500:0:10000:7::0:", "2023-05-23", "", "1970-01-01", true, 0},    // max >= 10000: never
        {"h:$6$x:junk:-5:x::::", "", "", "", false, 0},
        // Absurd numbers count as unset.
        {"i:$6$x:9223372036854775807:0:5:7:9223372036854775807:9223372036854775807:", "", "", "", false, 0},
    };
    std::string text;
    for (const Case& c : cases) text += c.line + "\n";
    const auto s = parse_shadow(text + "short:x:1\n");
    ASSERT_EQ(s.size(), 9u);
    for (size_t i = 0; i < s.size(); ++i) {
        const Case& c = cases[i];
        EXPECT_EQ(last_change_date(s[i]), c.changed) << c.line;
        EXPECT_EQ(password_expire_date(s[i]), c.password_expires) << c.line;
        EXPECT_EQ(account_expire_date(s[i]), c.expires) << c.line;
        EXPECT_EQ(is_disabled(s[i], 19700 * 86400), c.disabled) << c.line;
        EXPECT_TRUE(!c.not_yet || !is_disabled(s[i], c.not_yet * 86400)) << c.line;
    }
    EXPECT_EQ(s[7].min_days, -1);
}

TEST(UserParse, SudoersRules) {
    SudoersParser p;
    std::vector<std::pair<std::string, bool>> includes;
    p.parse(
        "Defaults env_reset\n"
        "User_Alias ADMINS = a1, %g1, \\\n  a2 : OTHERS = o1\n"
        "Runas_Alias OP = operator, #0\n"
        "Cmnd_Alias ALLC = ALL\n"
        "ADMINS ALL = (OP) NOPASSWD: ALLC\n"
        "u1 ALL=(ALL:ALL) ALL # trailing comment\n"
        "u2, u3 host = ALL\n"                  // no runas: root
        "u4 ALL=(:ALL) ALL\n"                  // group only: not root
        "u5 ALL=(operator) ALL\n"              // not root
        "u6 ALL=(ALL) /bin/ls, /usr/bin/id\n"  // limited
        "u7 h1 = /bin/ls : h2 = (root) SETENV: NOPASSWD: ALL\n"
        "u8 ALL=(ALL) ROLE=r TYPE=t ALL\n"
        "#01234 ALL=(ALL) ALL\n"
        "%#027 ALL=(ALL) ALL\n"
        "%:nonunix ALL=(ALL) ALL\n"
        "+netgrp ALL=(ALL) ALL\n"
        "!u9 ALL=(ALL) ALL\n"
        "# u10 ALL=(ALL) ALL\n"
        "garbage without equals\n"
        "= ALL\n"
        "u11 ALL=(ALL\n"
        "#includedir /etc/sudoers.d\n@include \"/etc/sudo ers.local\"\n#include_not a directive\n",
        [&](const std::string& path, bool dir) { includes.emplace_back(path, dir); });
    const SudoGrants& g = p.grants();
    EXPECT_EQ(g.users, (std::set<std::string>{"a1", "a2", "u1", "u2", "u3", "u7", "u8", "#1234"}));
    EXPECT_EQ(g.groups, (std::set<std::string>{"g1", "#27"}));
    EXPECT_FALSE(g.everyone);
    ASSERT_EQ(includes.size(), 2u);
    EXPECT_EQ(includes[0], std::make_pair(std::string("/etc/sudoers.d"), true));
    EXPECT_EQ(includes[1], std::make_pair(std::string("/etc/sudo ers.local"), false));

    SudoersParser all;
    all.parse("ALL ALL=(ALL) ALL\n", [](const std::string&, bool) {});
    EXPECT_TRUE(all.grants().everyone);

    EXPECT_EQ(sudoers_dir_files({"b", "a", "c.rpmsave", "d~", "README", "x.y"}),
              (std::vector<std::string>{"README", "a", "b"}));
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
    q.parse("User_Alias U = U, U, U, U, U, U, U, eve\nRunas_Alias R = R, R, R, R, R, R, R, R\n"
            "Cmnd_Alias C = C, C, C, C, C, C, C, C\nU ALL=(R) C\nU ALL=(ALL) C, ALL\n",
            [](const std::string&, bool) {});
    EXPECT_EQ(q.grants().users, (std::set<std::string>{"eve"}));
}

TEST(UserParse, LoginRecords) {
    // A whole record is read in UserTree.FixtureAccounts (alice).
    LoginRecord r;
    EXPECT_FALSE(parse_lastlog_record(lastlog_record(0, "", ""), r));                   // never logged in
    EXPECT_FALSE(parse_lastlog_record(lastlog_record(5, "x", "y").substr(0, 100), r));  // short
    // Full-width fields without a terminating zero stay bounded.
    EXPECT_TRUE(parse_lastlog_record(lastlog_record(7, std::string(40, 'L'), std::string(300, 'H')), r));
    EXPECT_EQ(r.line.size(), 32u);
    EXPECT_EQ(r.host.size(), 256u);

    const uint8_t v4[4] = {198, 51, 100, 9};
    const uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    std::string w = utmp_record(7, "bob", "pts/1", "old.example", 1600000000) +
                    utmp_record(8, "bob", "pts/1", "", 1600000500) +  // DEAD_PROCESS
                    utmp_record(7, "bob", "pts/3", "", 1650000000, v4, 4) +
                    utmp_record(7, "carol", "tty1", "", 1650000001, v6, 16) +
                    utmp_record(7, "", "pts/9", "nobody", 1) + utmp_record(2, "reboot", "~", "", 2);
    w += std::string(100, '\x07');  // torn last record
    const auto m = parse_wtmp(w);
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m.at("bob").line, "pts/3");  // the latest login
    EXPECT_EQ(m.at("carol").host, "2001:db8::1");
}

class UserTree : public ::testing::Test {
protected:
    void SetUp() override {
        fs::copy(std::string(ASSETMAN_FIXTURES) + "/users", dir.path, fs::copy_options::recursive);
        // Sparse lastlog: only alice (1000) and a huge uid's neighbourhood.
        write_bytes(dir.path + "/var/log/lastlog", lastlog_record(1700000000, "pts/0", "192.0.2.7"),
                    1000 * kLastlogRecordSize);
        const uint8_t v4[4] = {198, 51, 100, 9};
        write_bytes(dir.path + "/var/log/wtmp",
                    utmp_record(7, "alice", "tty9", "ignored", 1) +
                        utmp_record(7, "bob", "pts/3", "", 1650000000, v4, 4) +
                        utmp_record(7, "dave", "pts/4", "example.org", 1600000000));
    }
    TempDir dir;
};

TEST_F(UserTree, FixtureAccounts) {
    std::vector<AM::UserInfo> v(3);  // replaced, not appended to
    ASSERT_EQ(amsvc::collect_users(amsvc::HostRoot(dir.path), v), 0);
    std::vector<std::string> names;
    for (const auto& u : v) names.push_back(u.name);
    EXPECT_EQ(names,
              (std::vector<std::string>{"root", "daemon", "alice", "bob", "carol", "dave", "eve", "frank",
                                        "gina", "hank", "ivan", "judy", "kim", "leo", "mallory", "crlf"}));
    const auto m = by_name(v);
    std::set<std::string> admins, disabled;
    for (const auto& u : v) {
        if (u.is_admin) admins.insert(u.name);
        if (u.is_disable) disabled.insert(u.name);
    }
    // root by uid; alice by supplementary and leo by primary sudo group; frank
    // by wheel; gina by User_Alias; judy from sudoers.d; mallory by her second
    // host spec. kim's files are ones sudo skips.
    EXPECT_EQ(admins, (std::set<std::string>{"root", "alice", "leo", "frank", "gina", "judy", "mallory"}));
    // bob/eve locked, dave expired, gina inactive; carol's "*" and nologin shell do not count.
    EXPECT_EQ(disabled, (std::set<std::string>{"bob", "eve", "dave", "gina"}));

    const AM::UserInfo& a = m.at("alice");
    EXPECT_EQ(a.uid + ":" + a.gid + ":" + a.groupname + ":" + a.comment + ":" + a.homedir + ":" + a.shell,
              "1000:1000:alice:Alice A,,,:/home/alice:/bin/bash");
    EXPECT_EQ(a.last_change_passwd + " " + a.passwd_expire + " " + a.account_expire,
              "2023-05-23 2023-08-21 ");
    // lastlog wins over wtmp
    EXPECT_EQ(a.last_login_time + " " + a.last_login_term + " " + a.last_login_ip,
              "2023-11-14 22:13:20 pts/0 192.0.2.7");
    const std::tuple<const char*, std::string AM::UserInfo::*, const char*> fields[] = {
        {"bob", &AM::UserInfo::last_login_time, "2022-04-15 05:20:00"},
        {"bob", &AM::UserInfo::last_login_ip, "198.51.100.9"},
        {"dave", &AM::UserInfo::last_login_ip, "example.org"},
        {"dave", &AM::UserInfo::groupname, "users"},
        {"carol", &AM::UserInfo::last_login_time, ""},
        {"eve", &AM::UserInfo::uid, "01004"},
        {"leo", &AM::UserInfo::groupname, "sudo"},  // gid "027" matches group 27
        {"leo", &AM::UserInfo::gid, "027"},
        {"crlf", &AM::UserInfo::shell, "/bin/bash"},
        {"judy", &AM::UserInfo::account_expire, "2243-10-16"},
        {"hank", &AM::UserInfo::passwd_expire, ""},
    };
    for (const auto& f : fields)
        EXPECT_EQ(m.at(std::get<0>(f)).*std::get<1>(f), std::get<2>(f)) << std::get<0>(f);
}

TEST_F(UserTree, MissingAndUnreadableSources) {
    // Without shadow, sudoers and logs: accounts only, still success.
    fs::remove(dir.path + "/etc/shadow");
    fs::remove_all(dir.path + "/etc/sudoers.d");
    fs::remove(dir.path + "/etc/sudoers");
    fs::remove_all(dir.path + "/var");
    fs::create_directories(dir.path + "/var/log");
    ASSERT_EQ(mkfifo((dir.path + "/var/log/wtmp").c_str(), 0644), 0);  // must not block
    std::vector<AM::UserInfo> v;
    ASSERT_EQ(amsvc::collect_users(amsvc::HostRoot(dir.path), v), 0);
    ASSERT_EQ(v.size(), 16u);
    for (const auto& u : v) {
        EXPECT_EQ(u.is_admin, u.uid == "0") << u.name;
        EXPECT_FALSE(u.is_disable);
        EXPECT_EQ(u.last_change_passwd, "");
        EXPECT_EQ(u.last_login_time, "");
    }

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

// The live host against getent and chage, with accounts made for the test.
class UserHost : public ::testing::Test {
protected:
    static constexpr const char* kA = "amtest_ua";
    static constexpr const char* kB = "amtest_ub";
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

    // chage -l's date ("Jan 15, 2031", "never") as YYYY-MM-DD or empty.
    static std::string chage_field(const std::string& user, const std::string& label) {
        const std::string out = run("LC_ALL=C chage -l " + user);
        std::istringstream in(out);
        std::string line;
        while (std::getline(in, line)) {
            if (line.compare(0, label.size(), label) != 0) continue;
            const std::string value = line.substr(line.find(':') + 2);
            struct tm tm {};
            if (!strptime(value.c_str(), "%b %d, %Y", &tm)) return std::string();
            char buf[16];
            strftime(buf, sizeof buf, "%Y-%m-%d", &tm);
            return buf;
        }
        return "missing";
    }
};

TEST_F(UserHost, MatchesGetentAndChage) {
    std::vector<AM::UserInfo> v;
    ASSERT_EQ(amsvc::collect_users(amsvc::HostRoot("/"), v), 0);
    // Every account getent knows from files, field for field, in order.
    std::istringstream in(run("getent -s files passwd"));
    std::string line;
    size_t i = 0;
    while (std::getline(in, line)) {
        ASSERT_LT(i, v.size());
        std::ostringstream ours;
        ours << v[i].name << ":x:" << v[i].uid << ":" << v[i].gid << ":" << v[i].comment << ":"
             << v[i].homedir << ":" << v[i].shell;
        std::string theirs = line;
        theirs.replace(theirs.find(':') + 1, theirs.find(':', theirs.find(':') + 1) - theirs.find(':') - 1,
                       "x");
        EXPECT_EQ(ours.str(), theirs);
        const std::string grp = run("getent group " + v[i].gid + " | cut -d: -f1");
        EXPECT_EQ(v[i].groupname + "\n", grp.empty() ? "\n" : grp) << v[i].name;
        ++i;
    }
    EXPECT_EQ(i, v.size());

    const auto m = by_name(v);
    ASSERT_TRUE(m.count(kA) && m.count(kB));
    for (const char* u : {kA, kB}) {
        EXPECT_EQ(m.at(u).last_change_passwd, chage_field(u, "Last password change")) << u;
        EXPECT_EQ(m.at(u).passwd_expire, chage_field(u, "Password expires")) << u;
        EXPECT_EQ(m.at(u).account_expire, chage_field(u, "Account expires")) << u;
    }
    EXPECT_EQ(m.at(kA).passwd_expire, "2026-02-15");
    EXPECT_EQ(m.at(kA).account_expire, "2031-01-15");
    EXPECT_FALSE(m.at(kA).is_disable);
    EXPECT_TRUE(m.at(kB).is_disable);  // passwd -l
    EXPECT_FALSE(m.at(kA).is_admin);
    EXPECT_TRUE(m.at("root").is_admin);
    if (access("/etc/sudoers", R_OK) == 0 &&
        system("grep -Eq '^%sudo[[:space:]]+ALL[[:space:]]*=[[:space:]]*\\(ALL(:ALL)?\\)[[:space:]]+ALL' "
               "/etc/sudoers") == 0) {
        EXPECT_TRUE(m.at(kB).is_admin);
    }
}

TEST_F(UserHost, UnprivilegedRunIsPartial) {
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

TEST_F(UserHost, LastLoginMatchesLastlogTool) {
    if (!amtest::have_tools("lastlog")) GTEST_SKIP() << "no lastlog(8)";
    const std::string uid = run("id -u amtest_ua");
    const off_t off = static_cast<off_t>(std::stoul(uid)) * kLastlogRecordSize;
    const std::string path = "/var/log/lastlog";
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    // Save what is there and put it back afterwards.
    std::string saved(kLastlogRecordSize, '\0');
    const int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const ssize_t had = pread(fd, &saved[0], saved.size(), off);
    ASSERT_EQ(pwrite(fd, lastlog_record(1700000000, "pts/7", "203.0.113.5").data(), kLastlogRecordSize, off),
              static_cast<ssize_t>(kLastlogRecordSize));
    std::vector<AM::UserInfo> v;
    const int rc = amsvc::collect_users(amsvc::HostRoot("/"), v);
    const std::string tool = run("TZ=UTC LC_ALL=C lastlog -u amtest_ua | tail -n 1");
    if (had > 0) (void)!pwrite(fd, saved.data(), static_cast<size_t>(had), off);
    (void)!ftruncate(fd, st.st_size);
    close(fd);

    ASSERT_EQ(rc, 0);
    const auto m = by_name(v);
    const AM::UserInfo& a = m.at("amtest_ua");
    EXPECT_EQ(a.last_login_time, "2023-11-14 22:13:20");
    // "amtest_ua  pts/7  203.0.113.5  Tue Nov 14 22:13:20 +0000 2023"
    std::istringstream in(tool);
    std::string name, port, from;
    in >> name >> port >> from;
    EXPECT_EQ(name, "amtest_ua");
    EXPECT_EQ(a.last_login_term, port);
    EXPECT_EQ(a.last_login_ip, from);
    EXPECT_NE(tool.find("Nov 14 22:13:20 +0000 2023"), std::string::npos) << tool;
}
