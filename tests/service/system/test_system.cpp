// System facts: parsers on fixture text, then the live host against hostname,
// uname, ip and df.
#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <sys/wait.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "collectors.h"
#include "system/sysfacts.h"
#include "test_util.h"

using namespace amsvc;

namespace {

using amtest::run;
using amtest::write_file;

std::string chomp(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

}  // namespace

TEST(SystemParse, OsReleaseQuotingAndFallback) {
    EXPECT_EQ(parse_os_release("NAME=\"Debian\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"),
              "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(parse_os_release("PRETTY_NAME='Single quoted $x'\n"), "Single quoted $x");
    EXPECT_EQ(parse_os_release("PRETTY_NAME=\"Esc \\\"q\\\" \\\\ \\$\"\n"), "Esc \"q\" \\ $");
    EXPECT_EQ(parse_os_release("# c\nPRETTY_NAME=Bare\n"), "Bare");
    EXPECT_EQ(parse_os_release("NAME=Alpine\nVERSION=\"3.19\"\n"), "Alpine 3.19");
    EXPECT_EQ(parse_os_release("garbage\n=\nPRETTY_NAME=\"unterminated\n"), "\"unterminated");
    EXPECT_EQ(parse_os_release(""), "");
}

TEST(SystemParse, EnvironmentQuotesCommentsJunk) {
    const auto e = parse_environment(
        "# comment\nPATH=\"/usr/bin:/bin\"\n  LANG='C.UTF-8'\nexport EDITOR=vim\n\nno equals\n1BAD=x\n"
        "BAD KEY=x\nEMPTY=\nSPACED = \"a b\"\r\n");
    ASSERT_EQ(e.size(), 5u);
    EXPECT_EQ(e[0], "PATH=/usr/bin:/bin");
    EXPECT_EQ(e[1], "LANG=C.UTF-8");
    EXPECT_EQ(e[2], "EDITOR=vim");
    EXPECT_EQ(e[3], "EMPTY=");
    EXPECT_EQ(e[4], "SPACED=a b");
    // A huge line is one entry, not a crash.
    const std::string big = "BIG=" + std::string(1 << 20, 'x') + "\n";
    const auto b = parse_environment(big);
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(b[0].size(), big.size() - 1);
}

TEST(SystemParse, MemAndCpu) {
    EXPECT_EQ(parse_meminfo("MemTotal:       25165824 kB\nMemFree: 1 kB\n"),
              "MemTotal 24.0 GiB (25769803776 bytes)");
    EXPECT_EQ(parse_meminfo("MemTotal: junk kB\n"), "");
    EXPECT_EQ(parse_meminfo("MemTotal: 99999999999999999999 kB\n"), "");
    const std::string x86 =
        "processor\t: 0\nmodel name\t: Xeon X\nphysical id\t: 0\ncore id\t\t: 0\n\n"
        "processor\t: 1\nmodel name\t: Xeon X\nphysical id\t: 0\ncore id\t\t: 0\n\n"
        "processor\t: 2\nmodel name\t: Xeon X\nphysical id\t: 1\ncore id\t\t: 0\n\n";
    EXPECT_EQ(parse_cpuinfo(x86), "Xeon X x 3 (2 cores)");
    // arm64 names no model; a VM gives no core ids.
    EXPECT_EQ(parse_cpuinfo("processor : 0\nBogoMIPS : 50\n\nprocessor : 1\n"), "unknown x 2 (2 cores)");
    EXPECT_EQ(parse_cpuinfo("cpu : POWER9\nprocessor : 0\n"), "POWER9 x 1 (1 cores)");
    EXPECT_EQ(parse_cpuinfo("\n\n"), "");
}

TEST(SystemParse, MountsEscapesAndPseudo) {
    const auto m = parse_mounts(
        "/dev/sda1 / ext4 rw 0 0\n/dev/sdb1 /mnt/my\\040disk\\011x xfs rw 0 0\nshort line\n"
        "server:/x /mnt/back\\134slash nfs4 rw 0 0\n/dev/sdc /bad\\9 ext4 rw 0 0\n");
    ASSERT_EQ(m.size(), 4u);
    EXPECT_EQ(m[1].mount_point, "/mnt/my disk\tx");
    EXPECT_EQ(m[2].mount_point, "/mnt/back\\slash");
    EXPECT_EQ(m[3].mount_point, "/bad\\9");  // not an octal escape: kept
    EXPECT_TRUE(is_pseudo_fs("cgroup2"));
    EXPECT_TRUE(is_pseudo_fs("tmpfs"));
    EXPECT_FALSE(is_pseudo_fs("ext4"));
    EXPECT_TRUE(is_remote_fs("nfs4"));
    EXPECT_TRUE(is_remote_fs("fuse.sshfs"));
    EXPECT_FALSE(is_remote_fs("xfs"));
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
    const auto v4 = parse_route_v4(
        "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
        "eth0\t00000000\t010200C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
        "eth0\t00000000\t FE0200C0\t0003\t0\t0\t50\t00000000\t0\t0\t0\n"
        "eth0\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
        "eth1\t00000000\t0100000A\t0001\t0\t0\t0\t00000000\t0\t0\t0\n"
        "eth2\t00000000\tZZ\t0003\t0\t0\t0\t00000000\t0\t0\t0\n");
    ASSERT_EQ(v4.size(), 1u);
    EXPECT_EQ(v4.at("eth0"), "192.0.2.254");  // lowest metric wins
    const auto v6 = parse_route_v6(
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "fd000000000000000000000000000001 00000400 00000002 00000000 00000003     eth0\n"
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n"
        "fe800000000000000000000000000000 40 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 00000100 00000002 00000000 00000001     eth0\n"
        "0000 short\n");
    ASSERT_EQ(v6.size(), 1u);
    EXPECT_EQ(v6.at("eth0"), "fd00::1");
    const auto a = parse_if_inet6(
        "fd000000000000000000000000000002 04 40 00 82     eth0\n"
        "00000000000000000000000000000001 01 80 10 80       lo\nxyz 01 80 10 80 lo\n");
    ASSERT_EQ(a.at("eth0").size(), 1u);
    EXPECT_EQ(a.at("eth0")[0], "fd00::2/64");
    EXPECT_EQ(a.at("lo")[0], "::1/128");
}

TEST(SystemParse, ExportsAndSmbConf) {
    const auto ex = parse_exports(
        "# comment\n/srv/nfs  host1(rw,sync) \\\n   host2(ro)\n\"/srv/with space\" *(ro)\n"
        "/srv/oct\\040al 10.0.0.0/8(rw)\nrelative (rw)\n\"/unterminated\n");
    ASSERT_EQ(ex.size(), 3u);
    EXPECT_EQ(ex[0].path, "/srv/nfs");
    EXPECT_EQ(ex[1].path, "/srv/with space");
    EXPECT_EQ(ex[2].path, "/srv/oct al");
    EXPECT_EQ(ex[0].max_conn, -1);
    EXPECT_EQ(ex[0].cur_conn, -1);
    const auto smb = parse_smb_conf(
        "[global]\n  workgroup = X\n  max connections = 50\n; comment\n# comment\n"
        "[Public]\n  path = /srv/public\n  comment = long \\\n    text\n"
        "[limited]\n  Path = /srv/lim\n  MaxConnections = 5\n"
        "[Hidden]\n path=/srv/h\n available = no\n"
        "[homes]\n browseable = no\n"
        "[broken\n path = /x\n[]\npath=/nowhere\n");
    ASSERT_EQ(smb.size(), 3u);
    EXPECT_EQ(smb[0].name, "Public");
    EXPECT_EQ(smb[0].path, "/srv/public");
    EXPECT_EQ(smb[0].max_conn, 50);  // the global default
    EXPECT_EQ(smb[1].max_conn, 5);
    EXPECT_EQ(smb[1].path, "/srv/lim");
    EXPECT_EQ(smb[2].name, "homes");
    EXPECT_EQ(smb[2].path, "");  // the broken header's path does not leak into it
    EXPECT_EQ(smb[2].cur_conn, -1);
    // A share's own setting wins over [global], 0 meaning no limit; numbers
    // read as Samba reads them.
    const struct {
        const char* share;
        int32_t want;
    } kMax[] = {{"", 7},
                {"max connections = 0", -1},
                {"max connections = -3", -1},
                {"max connections = 12", 12},
                {"max connections = 0x10", 16},
                {"max connections = 12abc", 12},
                {"max connections = junk", -1},
                {"max connections =", -1},
                {"max connections = 99999999999", INT32_MAX}};
    for (const auto& k : kMax) {
        const auto v =
            parse_smb_conf(std::string("[global]\nmax connections = 7\n[s]\npath=/s\n") + k.share + "\n");
        ASSERT_EQ(v.size(), 1u);
        EXPECT_EQ(v[0].max_conn, k.want) << k.share;
    }
    EXPECT_EQ(parse_smb_conf("[global]\nmax connections = 0\n[s]\n")[0].max_conn, -1);
}

TEST(SystemCollect, FixtureRoot) {
    amtest::TempDir dir("amsys");
    const std::string& r = dir.path;
    write_file(r + "/etc/hostname", "# set by installer\nfixture-host\n");
    write_file(r + "/usr/lib/os-release", "PRETTY_NAME=\"Fixture OS 1\"\n");
    // An absolute link means the image's file, not the running host's.
    ASSERT_EQ(symlink("/usr/lib/os-release", (r + "/etc/os-release").c_str()), 0);
    write_file(r + "/proc/sys/kernel/osrelease", "5.10.0-fixture\n");
    write_file(r + "/proc/meminfo", "MemTotal: 1048576 kB\n");
    write_file(r + "/proc/self/mounts", "/dev/sda1 / ext4 rw 0 0\nproc /proc proc rw 0 0\n");
    write_file(r + "/proc/net/route", "");
    write_file(r + "/proc/net/if_inet6", "fd000000000000000000000000000002 02 40 00 82 eth0\n");
    write_file(r + "/sys/class/net/eth0/address", "02:00:00:00:00:01\n");
    write_file(r + "/sys/class/net/eth0/mtu", "9000\n");
    write_file(r + "/sys/class/dmi/id/sys_vendor", "Acme\n");
    write_file(r + "/etc/environment", "A=\"1\"\n");
    write_file(r + "/etc/exports", "/srv *(rw)\n");
    mkfifo((r + "/etc/samba").c_str(), 0600);  // not a directory: no shares from it, no hang
    AM::SystemInfo si;
    ASSERT_EQ(collect_system_facts(HostRoot(r), si), 0);
    EXPECT_EQ(si.host, "fixture-host");
    EXPECT_EQ(si.version, "Fixture OS 1");
    EXPECT_EQ(si.kernel_version, "5.10.0-fixture");
    EXPECT_EQ(si.mem, "MemTotal 1.0 GiB (1073741824 bytes)");
    EXPECT_EQ(si.Manufacturer, "Acme");
    EXPECT_EQ(si.product, "");
    ASSERT_EQ(si.envs.size(), 1u);
    ASSERT_EQ(si.disk.size(), 1u);
    EXPECT_EQ(si.disk[0].name, "/");
    EXPECT_EQ(si.disk[0].size, -1);  // not the live host: sizes unknown
    ASSERT_EQ(si.network_card.size(), 1u);
    EXPECT_EQ(si.network_card[0].ipv6, "fd00::2/64");
    EXPECT_EQ(si.network_card[0].mtu, 9000);
    EXPECT_EQ(si.network_card[0].mac, "02:00:00:00:00:01");
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
    const auto j = nlohmann::json::parse(run("ip -j addr"), nullptr, false);
    ASSERT_TRUE(j.is_array());
    ASSERT_EQ(si_.network_card.size(), j.size());
    for (const auto& link : j) {
        const std::string name = link.value("ifname", "");
        const AM::NetworkCardInfo* c = nullptr;
        for (const auto& n : si_.network_card)
            if (n.name == name) c = &n;
        ASSERT_NE(c, nullptr) << name;
        EXPECT_EQ(c->mtu, link.value("mtu", -2)) << name;
        EXPECT_EQ(c->mac, link.value("address", "")) << name;
        for (const auto& a : link.value("addr_info", nlohmann::json::array())) {
            const std::string local = a.value("local", "");
            if (a.value("family", "") == "inet") {
                EXPECT_NE(("," + c->ipv4 + ",").find("," + local + ","), std::string::npos) << name;
                if (a.contains("broadcast")) {
                    EXPECT_NE(c->broad.find(a.value("broadcast", "")), std::string::npos) << name;
                }
            } else {
                const std::string want = local + "/" + std::to_string(a.value("prefixlen", 0));
                EXPECT_NE(("," + c->ipv6 + ",").find("," + want + ","), std::string::npos)
                    << name << " " << want;
            }
        }
    }
    // Default gateway per interface as `ip route` shows it.
    const auto routes = nlohmann::json::parse(run("ip -j route show default"), nullptr, false);
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
    const auto j = nlohmann::json::parse(
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
    for (const auto& [name, itf] : j["networking"]["interfaces"].items()) {
        const AM::NetworkCardInfo* c = nullptr;
        for (const auto& n : si_.network_card)
            if (n.name == name) c = &n;
        ASSERT_NE(c, nullptr) << name;
        EXPECT_EQ(c->mtu, itf.value("mtu", -2)) << name;
        if (itf.contains("mac")) {
            EXPECT_EQ(c->mac, itf.value("mac", "")) << name;
        }
        // IPv4 addresses and masks pair up by position.
        std::string ips, masks;
        for (const auto& b : itf.value("bindings", nlohmann::json::array())) {
            ips += (ips.empty() ? "" : ",") + b.value("address", "");
            masks += (masks.empty() ? "" : ",") + b.value("netmask", "");
        }
        EXPECT_EQ(c->ipv4, ips) << name;
        EXPECT_EQ(c->mask, masks) << name;
    }
}

// In a private network namespace (the host stays untouched): an address with
// a label and one with a broadcast on lo, against `ip -j addr` there.
TEST(SystemCollect, LabelsAndLoopbackBroadcastMatchIpInNetns) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        if (unshare(CLONE_NEWNET) != 0) _exit(77);
        if (system("ip link set lo up && ip addr add 10.254.253.1/24 dev lo label lo:fld && "
                   "ip addr add 10.254.252.1/24 brd + dev lo && ip addr add fd00:fe::1/64 dev lo") != 0)
            _exit(78);
        AM::SystemInfo si;
        nlohmann::json out;
        out["rc"] = collect_system_facts(HostRoot("/"), si);
        out["ip"] = nlohmann::json::parse(run("ip -j addr"), nullptr, false);
        for (const auto& c : si.network_card)
            out["cards"].push_back({{"name", c.name},
                                    {"ipv4", c.ipv4},
                                    {"mask", c.mask},
                                    {"broad", c.broad},
                                    {"ipv6", c.ipv6},
                                    {"mac", c.mac},
                                    {"mtu", c.mtu}});
        const std::string text = out.dump();
        ssize_t done = 0;
        while (done < static_cast<ssize_t>(text.size())) {
            const ssize_t n = write(fds[1], text.data() + done, text.size() - done);
            if (n <= 0) break;
            done += n;
        }
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    if (WIFEXITED(st) && WEXITSTATUS(st) == 77) GTEST_SKIP() << "no network namespaces here";
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "namespace setup failed: " << st;
    const auto j = nlohmann::json::parse(text);
    ASSERT_EQ(j["rc"], 0);
    const auto& ip = j["ip"];
    ASSERT_TRUE(ip.is_array());
    EXPECT_EQ(j["cards"].size(), ip.size());  // no interface "lo:fld"
    for (size_t i = 0; i < ip.size() && i < j["cards"].size(); ++i) {
        const auto& link = ip[i];
        const auto& c = j["cards"][i];
        EXPECT_EQ(c["name"], link["ifname"]);
        EXPECT_EQ(c["mtu"], link["mtu"]);
        EXPECT_EQ(c["mac"], link.value("address", ""));
        std::string v4, masks, broads, v6;
        for (const auto& a : link["addr_info"]) {
            const std::string local = a["local"];
            const int plen = a["prefixlen"];
            if (a["family"] == "inet") {
                v4 += (v4.empty() ? "" : ",") + local;
                const uint32_t m = plen ? ~uint32_t(0) << (32 - plen) : 0;
                masks += (masks.empty() ? "" : ",") + std::to_string(m >> 24) + "." +
                         std::to_string((m >> 16) & 255) + "." + std::to_string((m >> 8) & 255) + "." +
                         std::to_string(m & 255);
                if (a.contains("broadcast"))
                    broads += (broads.empty() ? "" : ",") + a["broadcast"].get<std::string>();
            } else {
                v6 += (v6.empty() ? "" : ",") + local + "/" + std::to_string(plen);
            }
        }
        EXPECT_EQ(c["ipv4"], v4);
        EXPECT_EQ(c["mask"], masks);
        EXPECT_EQ(c["broad"], broads);
        EXPECT_EQ(c["ipv6"], v6);
    }
    const auto& lo = j["cards"][0];
    EXPECT_EQ(lo["name"], "lo");
    EXPECT_EQ(lo["ipv4"], "127.0.0.1,10.254.253.1,10.254.252.1");
    EXPECT_EQ(lo["broad"], "10.254.252.255");
}
