// System facts: parsers on fixture text, then the live host against hostname,
// uname, ip and df.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "collectors.h"
#include "system/sysfacts.h"
#include "test_util.h"

using namespace amsvc;
using nlohmann::json;

namespace {

using amtest::run;

std::string chomp(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

// A /proc or /etc text kept beside the tests.
std::string fixture_text(const std::string& name) {
    std::ifstream f(std::string(ASSETMAN_FIXTURES) + "/text/" + name);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

// Cards as the collector gives them, and as `ip -j addr` shows them, in one shape.
json cards_json(const std::vector<AM::NetworkCardInfo>& cards) {
    json out = json::array();
    for (const auto& c : cards)
        out.push_back({{"name", c.name},
                       {"ipv4", c.ipv4},
                       {"mask", c.mask},
                       {"broad", c.broad},
                       {"ipv6", c.ipv6},
                       {"mac", c.mac},
                       {"mtu", c.mtu}});
    return out;
}

json ip_cards_json(const json& ip) {
    json out = json::array();
    for (const auto& link : ip) {
        std::string v4, masks, broads, v6;
        auto add = [](std::string& list, const std::string& item) {
            list += (list.empty() ? "" : ",") + item;
        };
        for (const auto& a : link.value("addr_info", json::array())) {
            const std::string local = a["local"];
            const int plen = a["prefixlen"];
            if (a["family"] == "inet6") {
                add(v6, local + "/" + std::to_string(plen));
                continue;
            }
            add(v4, local);
            const uint32_t m = plen ? ~uint32_t(0) << (32 - plen) : 0;
            add(masks, std::to_string(m >> 24) + "." + std::to_string((m >> 16) & 255) + "." +
                           std::to_string((m >> 8) & 255) + "." + std::to_string(m & 255));
            if (a.contains("broadcast")) add(broads, a["broadcast"]);
        }
        out.push_back({{"name", link["ifname"]},
                       {"ipv4", v4},
                       {"mask", masks},
                       {"broad", broads},
                       {"ipv6", v6},
                       {"mac", link.value("address", "")},
                       {"mtu", link["mtu"]}});
    }
    return out;
}

}  // namespace

TEST(SystemParse, TextFacts) {
    const std::string x86 =
        "processor\t: 0\nmodel name\t: Xeon X\nphysical id\t: 0\ncore id\t\t: 0\n\n"
        "processor\t: 1\nmodel name\t: Xeon X\nphysical id\t: 0\ncore id\t\t: 0\n\n"
        "processor\t: 2\nmodel name\t: Xeon X\nphysical id\t: 1\ncore id\t\t: 0\n\n";
    const struct {
        std::string (*parse)(std::string_view);
        std::string text;
        const char* want;
    } cases[] = {
        {parse_os_release, "NAME=\"Debian\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n",
         "Debian GNU/Linux 12 (bookworm)"},
        {parse_os_release, "PRETTY_NAME='Single quoted $x'\n", "Single quoted $x"},
        {parse_os_release, "PRETTY_NAME=\"Esc \\\"q\\\" \\\\ \\$\"\n", "Esc \"q\" \\ $"},
        {parse_os_release, "# c\nPRETTY_NAME=Bare\n", "Bare"},
        {parse_os_release, "NAME=Alpine\nVERSION=\"3.19\"\n", "Alpine 3.19"},
        {parse_os_release, "garbage\n=\nPRETTY_NAME=\"unterminated\n", "\"unterminated"},
        {parse_os_release, "", ""},
        {parse_meminfo, "MemTotal:       25165824 kB\nMemFree: 1 kB\n",
         "MemTotal 24.0 GiB (25769803776 bytes)"},
        {parse_meminfo, "MemTotal: junk kB\n", ""},
        {parse_meminfo, "MemTotal: 99999999999999999999 kB\n", ""},
        {parse_cpuinfo, x86, "Xeon X x 3 (2 cores)"},
        // arm64 names no model; a VM gives no core ids.
        {parse_cpuinfo, "processor : 0\nBogoMIPS : 50\n\nprocessor : 1\n", "unknown x 2 (2 cores)"},
        {parse_cpuinfo, "cpu : POWER9\nprocessor : 0\n", "POWER9 x 1 (1 cores)"},
        {parse_cpuinfo, "\n\n", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(c.parse(c.text), c.want) << c.text;
}

TEST(SystemParse, EnvironmentAndMounts) {
    EXPECT_EQ(parse_environment(
                  "# comment\nPATH=\"/usr/bin:/bin\"\n  LANG='C.UTF-8'\nexport EDITOR=vim\n\nno equals\n"
                  "1BAD=x\nBAD KEY=x\nEMPTY=\nSPACED = \"a b\"\r\n"),
              (std::vector<std::string>{"PATH=/usr/bin:/bin", "LANG=C.UTF-8", "EDITOR=vim",
                                        "EMPTY=", "SPACED=a b"}));
    // A huge line is one entry, not a crash.
    const std::string big = "BIG=" + std::string(1 << 20, 'x') + "\n";
    EXPECT_EQ(parse_environment(big), std::vector<std::string>{big.substr(0, big.size() - 1)});

    std::vector<std::string> points;
    for (const auto& m :
         parse_mounts("/dev/sda1 / ext4 rw 0 0\n/dev/sdb1 /mnt/my\\040disk\\011x xfs rw 0 0\nshort line\n"
                      "server:/x /mnt/back\\134slash nfs4 rw 0 0\n/dev/sdc /bad\\9 ext4 rw 0 0\n"))
        points.push_back(m.mount_point);
    // "\9" is no octal escape: kept.
    EXPECT_EQ(points, (std::vector<std::string>{"/", "/mnt/my disk\tx", "/mnt/back\\slash", "/bad\\9"}));
    for (const char* fs : {"cgroup2", "tmpfs", "ext4", "nfs4", "fuse.sshfs", "xfs"}) {
        const std::string t = fs;
        EXPECT_EQ(is_pseudo_fs(t), t == "cgroup2" || t == "tmpfs") << t;
        EXPECT_EQ(is_remote_fs(t), t == "nfs4" || t == "fuse.sshfs") << t;
    }
}

TEST(SystemParse, GuardedStatvfsAgreesWithDirect) {
    struct statvfs direct, worker;
    ASSERT_EQ(statvfs("/", &direct), 0);
    ASSERT_TRUE(statvfs_guarded("/", true, worker));
    EXPECT_EQ(worker.f_blocks, direct.f_blocks);
    EXPECT_EQ(worker.f_frsize, direct.f_frsize);
    EXPECT_FALSE(statvfs_guarded("/nonexistent/path", true, worker));
    EXPECT_FALSE(statvfs_guarded("/nonexistent/path", false, worker));
}

TEST(SystemParse, RoutesAndInet6) {
    const auto v4 = parse_route_v4(fixture_text("route"));
    ASSERT_EQ(v4.size(), 1u);
    EXPECT_EQ(v4.at("eth0"), "192.0.2.254");  // lowest metric wins
    const auto v6 = parse_route_v6(fixture_text("ipv6_route"));
    ASSERT_EQ(v6.size(), 1u);
    EXPECT_EQ(v6.at("eth0"), "fd00::1");
    const auto a = parse_if_inet6(fixture_text("if_inet6"));
    EXPECT_EQ(a.at("eth0"), std::vector<std::string>{"fd00::2/64"});
    EXPECT_EQ(a.at("lo"), std::vector<std::string>{"::1/128"});
}

TEST(SystemParse, ExportsAndSmbConf) {
    std::string got;
    for (const auto& e : parse_exports(fixture_text("exports")))
        got += e.path + "|" + std::to_string(e.max_conn) + "|" + std::to_string(e.cur_conn) + "\n";
    EXPECT_EQ(got, "/srv/nfs|-1|-1\n/srv/with space|-1|-1\n/srv/oct al|-1|-1\n");
    // [global]'s limit is the default; the broken header's path does not leak into [homes].
    got.clear();
    for (const auto& e : parse_smb_conf(fixture_text("smb.conf")))
        got += e.name + "|" + e.path + "|" + std::to_string(e.max_conn) + "|" + std::to_string(e.cur_conn) +
               "\n";
    EXPECT_EQ(got, "Public|/srv/public|50|-1\nlimited|/srv/lim|5|-1\nhomes||50|-1\n");
    // A share's own setting wins over [global], 0 meaning no limit; numbers
    // read as Samba reads them.
    const std::pair<const char*, int32_t> kMax[] = {{nullptr, 7}, {"0", -1},    {"-3", -1},
                                                    {"12", 12},   {"0x10", 16}, {"12abc", 12},
                                                    {"junk", -1}, {"", -1},     {"99999999999", INT32_MAX}};
    for (const auto& [value, want] : kMax) {
        const std::string share = value ? std::string("max connections =") + (*value ? " " : "") + value : "";
        const auto v = parse_smb_conf("[global]\nmax connections = 7\n[s]\npath=/s\n" + share + "\n");
        ASSERT_EQ(v.size(), 1u);
        EXPECT_EQ(v[0].max_conn, want) << share;
    }
    EXPECT_EQ(parse_smb_conf("[global]\nmax connections = 0\n[s]\n")[0].max_conn, -1);
}

TEST(SystemCollect, FixtureRoot) {
    // etc/os-release links to /usr/lib/os-release: the image's file, not the running host's.
    amtest::TempDir dir("amsys");
    const std::string& r = dir.path;
    std::filesystem::copy(
        std::string(ASSETMAN_FIXTURES) + "/host", r,
        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
    mkfifo((r + "/etc/samba").c_str(), 0600);  // not a directory: no shares from it, no hang
    AM::SystemInfo si;
    ASSERT_EQ(collect_system_facts(HostRoot(r), si), 0);
    EXPECT_EQ(si.host + "|" + si.version + "|" + si.kernel_version + "|" + si.mem + "|" + si.Manufacturer +
                  "|" + si.product,
              "fixture-host|Fixture OS 1|5.10.0-fixture|MemTotal 1.0 GiB (1073741824 bytes)|Acme|");
    EXPECT_EQ(si.envs, std::vector<std::string>{"A=1"});
    ASSERT_EQ(si.disk.size(), 1u);
    EXPECT_EQ(si.disk[0].name + " " + std::to_string(si.disk[0].size),
              "/ -1");  // not the live host: sizes unknown
    EXPECT_EQ(cards_json(si.network_card),
              json::parse(R"([{"name": "eth0", "ipv4": "", "mask": "", "broad": "", "ipv6": "fd00::2/64",
                              "mac": "02:00:00:00:00:01", "mtu": 9000}])"));
    ASSERT_EQ(si.net_share.size(), 1u);
    EXPECT_EQ(collect_system_facts(HostRoot("/nonexistent/root"), si), -ENOENT);
}

class LiveHost : public ::testing::Test {
protected:
    static void SetUpTestSuite() { rc_ = collect_system_facts(HostRoot("/"), si_); }
    static AM::SystemInfo si_;
    static int rc_;
};
AM::SystemInfo LiveHost::si_;
int LiveHost::rc_ = 0;

TEST_F(LiveHost, IdentityMatchesTools) {
    ASSERT_EQ(rc_, 0);
    EXPECT_EQ(si_.host, chomp(run("hostname")));
    EXPECT_EQ(si_.kernel_version, chomp(run("uname -r")));
    EXPECT_EQ(si_.arch, chomp(run("uname -m")));
    EXPECT_EQ(si_.b64, sizeof(void*) == 8);
    EXPECT_FALSE(si_.version.empty());
    EXPECT_NE(si_.mem.find("bytes)"), std::string::npos);
    EXPECT_NE(si_.cpu.find(" x " + chomp(run("nproc --all")) + " ("), std::string::npos) << si_.cpu;
}

TEST_F(LiveHost, CardsMatchIpJson) {
    const auto ip = json::parse(run("ip -j addr"), nullptr, false);
    ASSERT_TRUE(ip.is_array());
    EXPECT_EQ(cards_json(si_.network_card), ip_cards_json(ip));
    // Default gateway per interface as `ip route` shows it.
    const auto routes = json::parse(run("ip -j route show default"), nullptr, false);
    for (const auto& r : routes) {
        if (!r.contains("gateway")) continue;
        for (const auto& n : si_.network_card)
            if (n.name == r.value("dev", "")) {
                EXPECT_NE(n.gateway.find(r.value("gateway", "")), std::string::npos);
            }
    }
}

TEST_F(LiveHost, DisksMatchDf) {
    // df hides file systems without blocks and, like the collector, memory-backed ones here.
    const std::string df =
        run("df -B1 --output=target,size,avail,pcent -x tmpfs -x devtmpfs -x ramfs | tail -n +2");
    int rows = 0;
    for (std::string_view line : split_lines(df)) {
        const auto f = split_ws(line);
        ASSERT_EQ(f.size(), 4u);
        const AM::DiskInfo* d = nullptr;
        for (const auto& x : si_.disk)
            if (x.name == f[0]) d = &x;
        ASSERT_NE(d, nullptr) << f[0];
        ++rows;
        int64_t size, avail;
        ASSERT_TRUE(parse_i64(f[1], size) && parse_i64(f[2], avail));
        EXPECT_EQ(d->size, size);
        // Other writers share the disk: allow 1% drift of free space.
        EXPECT_NEAR(static_cast<double>(d->free), static_cast<double>(avail), size / 100.0);
        int64_t pct;
        ASSERT_TRUE(parse_i64(std::string(f[3]).substr(0, f[3].size() - 1), pct));
        EXPECT_NEAR(std::ceil(d->percent), static_cast<double>(pct), 1.0);
    }
    EXPECT_GT(rows, 0);
    for (const auto& d : si_.disk) EXPECT_FALSE(is_pseudo_fs(d.fs)) << d.name;
}

// facter (Debian's, when installed) reads the same facts its own way.
TEST_F(LiveHost, MatchesFacter) {
    if (!amtest::have_tools("facter")) GTEST_SKIP() << "facter not installed";
    const auto j = json::parse(
        run("facter -j hostname kernelrelease memory processors networking os 2>/dev/null"), nullptr, false);
    ASSERT_TRUE(j.is_object());
    EXPECT_EQ(si_.kernel_version, j.value("kernelrelease", ""));
    EXPECT_EQ(si_.host.substr(0, si_.host.find('.')), j.value("hostname", ""));
    EXPECT_EQ(si_.arch, j["os"].value("hardware", ""));
    EXPECT_EQ(si_.version, j["os"]["distro"].value("description", ""));
    const std::string total = std::to_string(j["memory"]["system"].value("total_bytes", 0LL));
    EXPECT_NE(si_.mem.find("(" + total + " bytes)"), std::string::npos) << si_.mem;
    EXPECT_NE(si_.cpu.find(" x " + std::to_string(j["processors"].value("count", 0)) + " ("),
              std::string::npos);
    // Per interface: MTU, MAC, and IPv4 addresses paired with their masks by position.
    json theirs = json::object(), ours = json::object();
    for (const auto& [name, itf] : j["networking"]["interfaces"].items()) {
        std::string ips, masks;
        for (const auto& b : itf.value("bindings", json::array())) {
            ips += (ips.empty() ? "" : ",") + b.value("address", "");
            masks += (masks.empty() ? "" : ",") + b.value("netmask", "");
        }
        theirs[name] = {itf.value("mtu", -2), itf.value("mac", ""), ips, masks};
    }
    for (const auto& c : si_.network_card)
        if (theirs.contains(c.name))
            ours[c.name] = {c.mtu, theirs[c.name][1] == "" ? "" : c.mac, c.ipv4, c.mask};
    EXPECT_EQ(ours, theirs);
}

// In a private network namespace (the host stays untouched): an address with
// a label and one with a broadcast on lo, against `ip -j addr` there.
TEST(SystemCollect, LabelsAndLoopbackBroadcastMatchIpInNetns) {
    amtest::TempDir t("amsysns");
    const std::string result = t.path + "/result.json";
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (unshare(CLONE_NEWNET) != 0) _exit(77);
        if (system("ip link set lo up && ip addr add 10.254.253.1/24 dev lo label lo:fld && "
                   "ip addr add 10.254.252.1/24 brd + dev lo && ip addr add fd00:fe::1/64 dev lo") != 0)
            _exit(78);
        AM::SystemInfo si;
        const int rc = collect_system_facts(HostRoot("/"), si);
        const json ip = json::parse(run("ip -j addr"), nullptr, false);
        std::ofstream(result) << json{
            {"rc", rc}, {"cards", cards_json(si.network_card)}, {"ip", ip_cards_json(ip)}};
        _exit(0);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    if (WIFEXITED(st) && WEXITSTATUS(st) == 77) GTEST_SKIP() << "no network namespaces here";
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "namespace setup failed: " << st;
    std::ifstream in(result);
    const json j = json::parse(in);
    ASSERT_EQ(j["rc"], 0);
    EXPECT_EQ(j["cards"], j["ip"]);  // no interface "lo:fld"
    const auto& lo = j["cards"][0];
    EXPECT_EQ(lo["name"], "lo");
    EXPECT_EQ(lo["ipv4"], "127.0.0.1,10.254.253.1,10.254.252.1");
    EXPECT_EQ(lo["broad"], "10.254.252.255");
}
