// System facts: parsers on fixture text, then the live host against hostname,
// uname, ip and df.
#include <arpa/inet.h>
#include <sched.h>

#include <cmath>
#include <map>
#include <nlohmann/json.hpp>

#include "collectors.h"
#include "system/sysfacts.h"
#include "test_util.h"

using namespace amsvc;
using nlohmann::json;

namespace {

using amtest::run;

// A /proc or /etc text kept beside the tests.
std::string fixture_text(const std::string& name) {
    return amtest::read_text(ASSETMAN_FIXTURES "/text/" + name);
}

// Shares as "name|path|max|current" lines.
std::string shares_of(const std::vector<AM::NetShareInfo>& shares) {
    std::string out;
    for (const auto& e : shares)
        out += e.name + "|" + e.path + "|" + std::to_string(e.max_conn) + "|" + std::to_string(e.cur_conn) +
               "\n";
    return out;
}

// Cards as "name|ipv4|mask|broadcast|ipv6|mac|mtu", from the collector and from `ip -j addr`.
std::vector<std::string> cards_of(const std::vector<AM::NetworkCardInfo>& cards) {
    std::vector<std::string> out;
    for (const auto& c : cards)
        out.push_back(c.name + "|" + c.ipv4 + "|" + c.mask + "|" + c.broad + "|" + c.ipv6 + "|" + c.mac +
                      "|" + std::to_string(c.mtu));
    return out;
}

std::vector<std::string> cards_of(const json& ip) {
    std::vector<std::string> out;
    auto add = [](std::string& list, const std::string& item) { list += (list.empty() ? "" : ",") + item; };
    for (const auto& link : ip) {
        std::string v4, masks, broads, v6;
        for (const auto& a : link.value("addr_info", json::array())) {
            const std::string local = a["local"];
            const int plen = a["prefixlen"];
            if (a["family"] == "inet6") {
                add(v6, local + "/" + std::to_string(plen));
                continue;
            }
            add(v4, local);
            add(masks, inet_ntoa(in_addr{htonl(plen ? ~uint32_t(0) << (32 - plen) : 0)}));
            if (a.contains("broadcast")) add(broads, a["broadcast"]);
        }
        out.push_back(link.value("ifname", "") + "|" + v4 + "|" + masks + "|" + broads + "|" + v6 + "|" +
                      link.value("address", "") + "|" + std::to_string(link.value("mtu", 0)));
    }
    return out;
}

}  // namespace

// The usual os-release and meminfo texts are in the image tree (SystemCollect.FixtureRoot).
TEST(SystemParse, TextFacts) {
    const struct {
        std::string (*parse)(std::string_view);
        std::string text;
        const char* want;
    } cases[] = {
        {parse_os_release, "PRETTY_NAME='Single quoted $x'\n", "Single quoted $x"},
        {parse_os_release, "PRETTY_NAME=\"Esc \\\"q\\\" \\\\ \\$\"\n", "Esc \"q\" \\ $"},
        {parse_os_release, "# c\nPRETTY_NAME=Bare\n", "Bare"},
        {parse_os_release, "NAME=Alpine\nVERSION=\"3.19\"\n", "Alpine 3.19"},
        {parse_os_release, "garbage\n=\nPRETTY_NAME=\"unterminated\n", "\"unterminated"},
        {parse_os_release, "", ""},
        {parse_meminfo, "MemTotal: junk kB\n", ""},
        {parse_meminfo, "MemTotal: 99999999999999999999 kB\n", ""},
        // Two sockets, one with two threads; arm64 names no model; a VM gives no core ids.
        {parse_cpuinfo, fixture_text("cpuinfo"), "Xeon X x 3 (2 cores)"},
        {parse_cpuinfo, "processor : 0\nBogoMIPS : 50\n\nprocessor : 1\n", "unknown x 2 (2 cores)"},
        {parse_cpuinfo, "cpu : POWER9\nprocessor : 0\n", "POWER9 x 1 (1 cores)"},
        {parse_cpuinfo, "\n\n", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(c.parse(c.text), c.want) << c.text;
}

// The usual environment and mount texts are in the image tree (SystemCollect.FixtureRoot).
TEST(SystemParse, HugeEnvironmentLineAndRemoteFileSystems) {
    // A huge line is one entry, not a crash.
    const std::string big = "BIG=" + std::string(1 << 20, 'x') + "\n";
    EXPECT_EQ(parse_environment(big), std::vector<std::string>{big.substr(0, big.size() - 1)});
    for (const std::string fs : {"nfs4", "fuse.sshfs", "xfs"}) EXPECT_EQ(is_remote_fs(fs), fs != "xfs") << fs;
}

TEST(SystemParse, GuardedStatvfsAgreesWithDirect) {
    struct statvfs direct, worker;
    ASSERT_EQ(statvfs("/", &direct), 0);
    ASSERT_TRUE(statvfs_guarded("/", true, worker));
    EXPECT_EQ(worker.f_blocks * worker.f_frsize, direct.f_blocks * direct.f_frsize);
    EXPECT_FALSE(statvfs_guarded("/nonexistent/path", true, worker));
    EXPECT_FALSE(statvfs_guarded("/nonexistent/path", false, worker));
}

// The usual exports text is in the image tree (SystemCollect.FixtureRoot).
TEST(SystemParse, SmbConf) {
    // [global]'s limit is the default; the broken header's path does not leak into [homes].
    EXPECT_EQ(shares_of(parse_smb_conf(fixture_text("smb.conf"))),
              "Public|/srv/public|50|-1\nlimited|/srv/lim|5|-1\nhomes||50|-1\n");
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
    EXPECT_EQ(si.envs, (std::vector<std::string>{"PATH=/usr/bin:/bin", "LANG=C.UTF-8", "EDITOR=vim",
                                                 "EMPTY=", "SPACED=a b"}));
    // Pseudo file systems are no disks and a later mount hides an earlier one;
    // "\9" is no octal escape. Not the live host: sizes unknown.
    std::string disks;
    for (const auto& d : si.disk) disks += d.name + " " + d.fs + " " + std::to_string(d.size) + "\n";
    EXPECT_EQ(
        disks,
        "/ ext4 -1\n/mnt/my disk\tx xfs -1\n/mnt/back\\slash nfs4 -1\n/bad\\9 ext4 -1\n/mnt/over xfs -1\n");
    // Gateways: the default route of lowest metric; a junk if_inet6 line is skipped.
    EXPECT_EQ(cards_of(si.network_card),
              (std::vector<std::string>{"eth0||||fd00::2/64|02:00:00:00:00:01|9000",
                                        "lo||||::1/128|00:00:00:00:00:00|65536"}));
    EXPECT_EQ(si.network_card[0].gateway + "|" + si.network_card[1].gateway, "192.0.2.254,fd00::1|");
    // An export is named by its path; the FIFO at /etc/samba adds none.
    EXPECT_EQ(
        shares_of(si.net_share),
        "/srv/nfs|/srv/nfs|-1|-1\n/srv/with space|/srv/with space|-1|-1\n/srv/oct al|/srv/oct al|-1|-1\n");
    EXPECT_EQ(collect_system_facts(HostRoot("/nonexistent/root"), si), -ENOENT);
}

// One collection of the live host against hostname, uname, nproc, ip and df.
TEST(LiveHost, MatchesUnameIpAndDf) {
    AM::SystemInfo si;
    ASSERT_EQ(collect_system_facts(HostRoot("/"), si), 0);
    EXPECT_EQ(si.host + "\n" + si.kernel_version + "\n" + si.arch + "\n",
              run("hostname; uname -r; uname -m"));
    EXPECT_EQ(si.b64, sizeof(void*) == 8);
    EXPECT_FALSE(si.version.empty());
    EXPECT_NE(si.mem.find("bytes)"), std::string::npos);
    EXPECT_NE(si.cpu.find(" x " + std::to_string(std::stoi(run("nproc --all"))) + " ("), std::string::npos)
        << si.cpu;

    const auto ip = json::parse(run("ip -j addr"), nullptr, false);
    ASSERT_TRUE(ip.is_array());
    EXPECT_EQ(cards_of(si.network_card), cards_of(ip));
    // Default gateway per interface as `ip route` shows it.
    const auto routes = json::parse(run("ip -j route show default"), nullptr, false);
    for (const auto& r : routes) {
        if (!r.contains("gateway")) continue;
        for (const auto& n : si.network_card)
            if (n.name == r.value("dev", "")) {
                EXPECT_NE(n.gateway.find(r.value("gateway", "")), std::string::npos);
            }
    }

    // df hides file systems without blocks and, like the collector, memory-backed ones here.
    const std::string df =
        run("df -B1 --output=target,size,avail,pcent -x tmpfs -x devtmpfs -x ramfs | tail -n +2");
    std::map<std::string, const AM::DiskInfo*> disks;
    for (const auto& d : si.disk) {
        disks[d.name] = &d;
        EXPECT_FALSE(is_pseudo_fs(d.fs)) << d.name;
    }
    EXPECT_FALSE(split_lines(df).empty());
    for (std::string_view line : split_lines(df)) {
        const auto f = split_ws(line);
        int64_t size, avail, pct;
        ASSERT_TRUE(f.size() == 4 && disks.count(std::string(f[0])) && parse_i64(f[1], size) &&
                    parse_i64(f[2], avail) && parse_i64(f[3].substr(0, f[3].size() - 1), pct))
            << line;
        const AM::DiskInfo* d = disks.at(std::string(f[0]));
        EXPECT_EQ(d->size, size);
        // Other writers share the disk: allow 1% drift of free space.
        EXPECT_NEAR(static_cast<double>(d->free), static_cast<double>(avail), size / 100.0);
        EXPECT_NEAR(std::ceil(d->percent), static_cast<double>(pct), 1.0);
    }
}

// facter (Debian's, when installed) reads the same facts its own way.
TEST(LiveHost, MatchesFacter) {
    if (!amtest::have_tools("facter")) GTEST_SKIP() << "facter not installed";
    AM::SystemInfo si;
    ASSERT_EQ(collect_system_facts(HostRoot("/"), si), 0);
    const auto j = json::parse(
        run("facter -j hostname kernelrelease memory processors networking os 2>/dev/null"), nullptr, false);
    ASSERT_TRUE(j.is_object());
    EXPECT_EQ(si.kernel_version, j.value("kernelrelease", ""));
    EXPECT_EQ(si.host.substr(0, si.host.find('.')), j.value("hostname", ""));
    EXPECT_EQ(si.arch, j["os"].value("hardware", ""));
    EXPECT_EQ(si.version, j["os"]["distro"].value("description", ""));
    const std::string total = std::to_string(j["memory"]["system"].value("total_bytes", 0LL));
    EXPECT_NE(si.mem.find("(" + total + " bytes)"), std::string::npos) << si.mem;
    EXPECT_NE(si.cpu.find(" x " + std::to_string(j["processors"].value("count", 0)) + " ("),
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
    for (const auto& c : si.network_card)
        if (theirs.contains(c.name))
            ours[c.name] = {c.mtu, theirs[c.name][1] == "" ? "" : c.mac, c.ipv4, c.mask};
    EXPECT_EQ(ours, theirs);
}

// In a private network namespace (the host stays untouched): an address with
// a label and one with a broadcast on lo, against `ip -j addr` there.
TEST(SystemCollect, LabelsAndLoopbackBroadcastMatchIpInNetns) {
    const amtest::Child child([] {
        if (unshare(CLONE_NEWNET) != 0) return std::string("unshare");
        if (system("ip link set lo up && ip addr add 10.254.253.1/24 dev lo label lo:fld && "
                   "ip addr add 10.254.252.1/24 brd + dev lo && ip addr add fd00:fe::1/64 dev lo") != 0)
            return std::string("namespace setup failed");
        AM::SystemInfo si;
        const int rc = collect_system_facts(HostRoot("/"), si);
        const json ip = json::parse(run("ip -j addr"), nullptr, false);
        return json{{"rc", rc}, {"cards", cards_of(si.network_card)}, {"ip", cards_of(ip)}}.dump();
    });
    if (child.report == "unshare") GTEST_SKIP() << "no network namespaces here";
    const json j = json::parse(child.report, nullptr, false);
    ASSERT_TRUE(j.is_object()) << child.report;
    ASSERT_EQ(j["rc"], 0);
    EXPECT_EQ(j["cards"], j["ip"]);  // no interface "lo:fld"
    // lo holds all three IPv4 addresses, the labelled one too, and the one broadcast.
    const std::string lo = j["cards"].at(0);
    EXPECT_EQ(lo.substr(0, lo.find("|255.")), "lo|127.0.0.1,10.254.253.1,10.254.252.1");
    EXPECT_NE(lo.find("|10.254.252.255|"), std::string::npos) << lo;
}
