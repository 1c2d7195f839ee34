// Network connections: the table, netlink and link parsers on fixture text and
// bytes, a snapshot host root, and the live host checked against ss.
#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sched.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "core/common.h"
#include "network/netlink_collector.h"
#include "test_util.h"

using amsvc::AM;
using amsvc::HostRoot;
namespace nl = amsvc::netlink;
using nl::Proto;
using nl::Sock;

namespace {

const std::string kFixtureRoot = std::string(ASSETMAN_FIXTURES) + "/netlink/host";

// ---------------------------------------------------------------- parsers
// Well-formed table lines of every family and protocol, and the malformed
// lines a table can hold (state out of range, missing colons, an empty port,
// a negative inode, a v4 line in a v6 table), are in the fixture host's
// tables (NetlinkSnapshot).

// A TCP table of n sockets 127.0.0.1:i -> 127.0.0.1:8080 (inode 100000 + i),
// with a junk line after every `junk_every` of them.
std::string tcp_table(int n, int junk_every, const char* eol = "\n") {
    std::string text = "  sl  local_address rem_address   st\n";
    char line[200];
    for (int i = 0; i < n; ++i) {
        snprintf(line, sizeof line,
                 "%6d: 0100007F:%04X 0100007F:1F90 01 00000000:00000000 00:00000000 00000000 0 0 %d 1%s", i,
                 i % 65536, 100000 + i, eol);
        text += line + std::string(i % junk_every == 0 ? "x:\n\n" : "");
    }
    return text;
}

// Good socket and namespace links are the fixture host's (NetlinkSnapshot).
TEST(NetlinkParse, TableCeilingBadLinksAndStateNames) {
    std::vector<Sock> out;
    EXPECT_EQ(nl::parse_proc_net_table(tcp_table(50, 10), Proto::kTcp, AF_INET, out, 5), 5u);
    uint64_t v = 0;
    for (const char* bad :
         {"socket:[]", "socket:[12a]", "socket:[12", "pipe:[5]", "anon_inode:[eventpoll]",
          "socket:[99999999999999999999999]", "/dev/null", "socket:[-1]", "", "socket:[1]x"})
        EXPECT_FALSE(nl::parse_socket_link(bad, v)) << bad;
    for (const char* bad : {"mnt:[4026531840]", "net:[]"}) EXPECT_FALSE(nl::parse_ns_link(bad, v)) << bad;

    // The states the fixture and the live host do not show: the last one, a
    // number past it, and TCP's CLOSE (UNCONN for the others).
    const std::tuple<Proto, uint8_t, const char*> cases[] = {
        {Proto::kTcp, 13, "BOUND_INACTIVE"}, {Proto::kTcp, 14, "UNKNOWN"}, {Proto::kTcp, 200, "UNKNOWN"},
        {Proto::kTcp, 7, "CLOSE"},           {Proto::kRaw, 7, "UNCONN"},
    };
    for (const auto& c : cases) EXPECT_EQ(nl::state_name(std::get<0>(c), std::get<1>(c)), std::get<2>(c));
}

// "proto local:port remote:port state", what identifies a socket.
std::string conn_of(const AM::NetLinkInfo& r) {
    return r.proto + " " + r.local_addr + ":" + std::to_string(r.local_port) + " " + r.remote_addr + ":" +
           std::to_string(r.remote_port) + " " + r.state;
}

std::string key(const AM::NetLinkInfo& r) {
    return conn_of(r) + " " + std::to_string(r.pid) + " " + r.proc_name + " " + r.proc_path;
}

// A SOCK_DIAG_BY_FAMILY answer as the kernel lays it out.
void put_msg(std::vector<unsigned char>& buf, uint32_t seq, uint16_t type, const void* payload, size_t len,
             uint32_t claimed_len = 0) {
    const nlmsghdr h = {claimed_len ? claimed_len : static_cast<uint32_t>(NLMSG_HDRLEN + len), type,
                        NLM_F_MULTI, seq, 0};
    const size_t at = buf.size();
    buf.resize(at + NLMSG_ALIGN(NLMSG_HDRLEN + len));
    memcpy(buf.data() + at, &h, sizeof h);
    if (len) memcpy(buf.data() + at + NLMSG_HDRLEN, payload, len);
}

inet_diag_msg diag_msg(int family, int state, const char* src, uint16_t sport, const char* dst,
                       uint16_t dport, uint32_t inode) {
    inet_diag_msg m{};
    m.idiag_family = static_cast<uint8_t>(family);
    m.idiag_state = static_cast<uint8_t>(state);
    inet_pton(family, src, m.id.idiag_src);
    inet_pton(family, dst, m.id.idiag_dst);
    m.id.idiag_sport = htons(sport);
    m.id.idiag_dport = htons(dport);
    m.idiag_inode = inode;
    return m;
}

// Parses one datagram of sequence 7; the sockets found are appended to `out`.
nl::DiagStatus diag(const std::vector<unsigned char>& buf, std::vector<Sock>& out, int& err,
                    size_t max = SIZE_MAX, size_t skew = 0) {
    std::vector<unsigned char> at(skew, 0);
    at.insert(at.end(), buf.begin(), buf.end());
    return nl::parse_diag_buffer(at.data() + skew, buf.size(), 7, Proto::kTcp, out, err, max);
}

TEST(NetlinkDiag, DumpMessagesEndingsAndHostileBuffers) {
    std::vector<unsigned char> buf;
    const inet_diag_msg a = diag_msg(AF_INET, 10, "127.0.0.1", 8080, "0.0.0.0", 0, 11);
    const inet_diag_msg b = diag_msg(AF_INET6, 1, "::1", 443, "::ffff:10.1.2.3", 51000, 12);
    const inet_diag_msg other = diag_msg(AF_INET, 1, "10.0.0.1", 1, "10.0.0.2", 2, 13);
    const inet_diag_msg unix_fam = diag_msg(AF_UNIX, 1, "", 1, "", 2, 14);
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &a, sizeof a);
    put_msg(buf, 6, SOCK_DIAG_BY_FAMILY, &other, sizeof other);  // not our request
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &unix_fam, sizeof unix_fam);
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &a, 20);  // too short for a message
    // Attributes after the message are ignored.
    std::vector<unsigned char> with_attr(sizeof b + 8, 0xAB);
    memcpy(with_attr.data(), &b, sizeof b);
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, with_attr.data(), with_attr.size());

    // The same bytes at an odd address parse the same.
    for (size_t skew : {0, 1}) {
        std::vector<Sock> out;
        int err = 0;
        EXPECT_EQ(diag(buf, out, err, SIZE_MAX, skew), nl::DiagStatus::kMore);
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(key(nl::to_record(out[0])), "tcp 127.0.0.1:8080 0.0.0.0:0 LISTEN 0  ");
        EXPECT_EQ(key(nl::to_record(out[1])), "tcp6 ::1:443 ::ffff:10.1.2.3:51000 ESTABLISHED 0  ");
    }

    // Done, with and without an errno in it, and the kernel refusing the
    // request (no diag module for the protocol).
    nlmsgerr refused{};
    refused.error = -ENOENT;
    const int32_t zero = 0, failed = -EINTR;
    const std::tuple<uint16_t, const void*, size_t, nl::DiagStatus, int> endings[] = {
        {NLMSG_DONE, &zero, sizeof zero, nl::DiagStatus::kDone, 0},
        {NLMSG_DONE, &failed, sizeof failed, nl::DiagStatus::kError, -EINTR},
        {NLMSG_ERROR, &refused, sizeof refused, nl::DiagStatus::kError, -ENOENT},
    };
    for (const auto& e : endings) {
        std::vector<unsigned char> end;
        put_msg(end, 7, std::get<0>(e), std::get<1>(e), std::get<2>(e));
        std::vector<Sock> out;
        int err = 0;
        EXPECT_EQ(diag(end, out, err), std::get<3>(e));
        EXPECT_EQ(err, std::get<4>(e));
    }

    // Hostile buffers are never read past their end.
    std::vector<Sock> out;
    int err = 0;
    // A length that claims more than was received, and one shorter than the header.
    for (uint32_t claimed : {4096u, 3u}) {
        std::vector<unsigned char> bad;
        put_msg(bad, 7, SOCK_DIAG_BY_FAMILY, &a, sizeof a, claimed);
        EXPECT_EQ(diag(bad, out, err), nl::DiagStatus::kError);
        EXPECT_EQ(err, -EBADMSG);
    }
    // Every truncation of a good buffer: never more than the whole messages.
    buf.clear();
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &a, sizeof a);
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &a, sizeof a);
    for (size_t len = 0; len <= buf.size(); ++len) {
        out.clear();
        diag(std::vector<unsigned char>(buf.begin(), buf.begin() + static_cast<long>(len)), out, err);
        EXPECT_LE(out.size(), len / (NLMSG_HDRLEN + sizeof a));
    }
    // The ceiling stops the list, not the parse.
    out.clear();
    EXPECT_EQ(diag(buf, out, err, 1), nl::DiagStatus::kMore);
    EXPECT_EQ(out.size(), 1u);
}

// ---------------------------------------------------------------- snapshot host root

TEST(NetlinkSnapshot, FixtureHostWithContainerNamespace) {
    std::vector<AM::NetLinkInfo> out(3);  // replaced, not appended to
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot(kFixtureRoot).set_fixture_proc(true), out), 0);
    std::multiset<std::string> keys;
    for (const auto& r : out) keys.insert(key(r));
    // tcp 127.0.0.1:8080 is held by 300 and by 200: the lowest pid owns it.
    // udp6 ::1:53's only holder has vanished (no comm any more). tcp 0.0.0.0:80
    // is the container's namespace, read once through its first process; the
    // host socket its table repeats is not listed twice.
    std::string got;
    for (const std::string& k : keys) got += k + "\n";
    EXPECT_EQ(got, amtest::read_text(kFixtureRoot + ".expected"));

    nl::Options own_only;
    own_only.other_namespaces = false;
    ASSERT_EQ(nl::collect_netlinks_with(HostRoot(kFixtureRoot).set_fixture_proc(true), out, own_only), 0);
    EXPECT_EQ(out.size(), keys.size() - 1);
}

using amtest::TempDir;

TEST(NetlinkSnapshot, MissingAndHostileSources) {
    TempDir t;
    std::vector<AM::NetLinkInfo> out;
    EXPECT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), -ENOENT);

    // Tables that exist but cannot be read as files: a FIFO never blocks, a
    // directory is refused.
    t.mkdir("/proc/net");
    ASSERT_EQ(mkfifo((t.path + "/proc/net/tcp").c_str(), 0644), 0);
    t.mkdir("/proc/net/udp");
    // A table that is a link into the live /proc is not followed.
    ASSERT_EQ(symlink("/proc/net/tcp6", (t.path + "/proc/net/tcp6").c_str()), 0);
    EXPECT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), -EACCES);

    // One good line among a huge over-long line and a truncated tail.
    const std::string text =
        "  sl  local_address\n   0: " + std::string(3u << 20, 'F') +
        "\n   1: 0100007F:0016 00000000:0000 07 00000000:00000000 00:00000000 00000000 0 0 42 1\n"
        "   2: 0100007F:0017 00000000:00";
    t.file("/proc/net/udp6", "");
    t.file("/proc/net/raw", text);
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(key(out[0]), "raw 127.0.0.1:22 0.0.0.0:0 UNCONN 0  ");
}

// Chunk boundaries of the streamed read fall anywhere; junk in between, CRLF
// line ends and a last line without one are taken in stride.
TEST(NetlinkSnapshot, HugeTableIsStreamed) {
    TempDir t;
    // The last line, without its end: 127.0.0.1:22 listening.
    t.file("/proc/net/tcp",
           tcp_table(200000, 1000, "\r\n") +
               "  99: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 9 1");
    std::vector<AM::NetLinkInfo> out;
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), 0);
    EXPECT_EQ(out.size(), 200001u);
    EXPECT_EQ(out[199999].local_port, 199999 % 65536);
    EXPECT_EQ(out.back().local_port, 22);
}

// ---------------------------------------------------------------- live host

int port_of(int fd) {
    sockaddr_in6 a;  // sin_port and sin6_port share their place
    socklen_t len = sizeof a;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0 ? ntohs(a.sin6_port) : -1;
}

// Binds (or connects) `fd` to the loopback address of `family` at `port`.
int to_loopback(int fd, int family, int port, bool connect_it = false) {
    sockaddr_in6 a{};  // also holds a sockaddr_in: family and port share their places
    a.sin6_family = static_cast<sa_family_t>(family);
    a.sin6_port = htons(static_cast<uint16_t>(port));
    void* addr =
        family == AF_INET6 ? static_cast<void*>(&a.sin6_addr) : &reinterpret_cast<sockaddr_in*>(&a)->sin_addr;
    inet_pton(family, family == AF_INET6 ? "::1" : "127.0.0.1", addr);
    const socklen_t len = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    return connect_it ? connect(fd, reinterpret_cast<sockaddr*>(&a), len)
                      : bind(fd, reinterpret_cast<sockaddr*>(&a), len);
}

// A socket bound to the loopback address of `family` at a free port.
int bound(int family, int type) {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd >= 0 && to_loopback(fd, family, 0) != 0) return close(fd), -1;
    return fd;
}

int connect_to(int fd, int family, int port) { return to_loopback(fd, family, port, true); }

// An ss endpoint: "127.0.0.1:80", "[::1]:80", "0.0.0.0:*", "*:*", "[fe80::1]%lo:80"
// -> ("127.0.0.1", 80), ("[::1]", 80), ("0.0.0.0", 0), ("[::]", 0), ("[fe80::1]", 80).
std::pair<std::string, int> ss_endpoint(std::string_view s) {
    const size_t colon = s.rfind(':');
    const std::string addr(s.substr(0, std::min(colon, s.find('%'))));
    return {addr == "*" ? "[::]" : addr, std::atoi(std::string(s.substr(colon + 1)).c_str())};
}

// The sockets `ss` reports for the given pids, in this collector's words, with the pids it names.
std::map<std::string, std::set<int>> ss_sockets(const std::set<int>& pids) {
    std::map<std::string, std::set<int>> out;
    const std::string listed = amtest::run("ss -tuwanpH 2>/dev/null");
    for (std::string_view l : amsvc::split_lines(listed)) {
        const auto f = amsvc::split_ws(l);
        std::set<int> owners, ours;
        for (size_t q = l.find("pid="); q != l.npos; q = l.find("pid=", q + 4))
            owners.insert(std::atoi(l.data() + q + 4));
        std::set_intersection(owners.begin(), owners.end(), pids.begin(), pids.end(),
                              std::inserter(ours, ours.end()));
        if (f.size() < 6 || (f[0] != "tcp" && f[0] != "udp" && f[0] != "raw") || ours.empty()) continue;
        auto [la, lp] = ss_endpoint(f[4]);
        auto [ra, rp] = ss_endpoint(f[5]);
        const bool v6 = la.find(':') != std::string::npos;
        auto bare = [](const std::string& a) { return a[0] == '[' ? a.substr(1, a.size() - 2) : a; };
        ra = ra == "[::]" && !v6 ? "0.0.0.0" : bare(ra);
        // ss says ESTAB for TCP's ESTABLISHED too.
        const std::string st = f[0] == "tcp" && f[1] == "ESTAB" ? "ESTABLISHED" : std::string(f[1]);
        out[std::string(f[0]) + (v6 ? "6 " : " ") + bare(la) + ":" + std::to_string(lp) + " " + ra + ":" +
            std::to_string(rp) + " " + st] = owners;
    }
    return out;
}

// Descriptors closed when the test ends.
struct Fds : std::vector<int> {
    ~Fds() {
        for (int fd : *this) close(fd);
    }
    int keep(int fd) { return push_back(fd), fd; }
};

TEST(NetlinkLiveHost, OwnAndChildSocketsMatchSs) {
    Fds fds;
    // The child connects to a listener of ours (closing the copy it inherits)
    // and holds its own listener through as many descriptors as this host lets
    // one process have, up to 100k: each socket is still listed once.
    const int lc = fds.keep(bound(AF_INET, SOCK_STREAM));
    ASSERT_EQ(listen(lc, 8), 0);
    const int pc = port_of(lc);
    rlimit lim;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    const rlim_t most = std::min<rlim_t>(lim.rlim_max, 100000);
    amtest::Child child([lc, pc, most] {
        prctl(PR_SET_NAME, "nl_child");
        close(lc);
        const rlimit l = {most, most};
        setrlimit(RLIMIT_NOFILE, &l);
        const int s = bound(AF_INET, SOCK_STREAM);
        listen(s, 8);
        bound(AF_INET6, SOCK_DGRAM);
        const int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        connect_to(c, AF_INET, pc);
        int copies = 0;
        while (dup(s) >= 0) ++copies;
        return std::to_string(copies);
    });
    ASSERT_GT(child.pid, 0);
    // Per family: a listener with a connection to it accepted, a bound and a
    // connected UDP socket, and a raw socket where this user may have one.
    size_t raws = 0;
    for (int fam : {AF_INET, AF_INET6}) {
        const int l = fds.keep(bound(fam, SOCK_STREAM));
        ASSERT_EQ(listen(l, 8), 0);
        ASSERT_EQ(connect_to(fds.keep(socket(fam, SOCK_STREAM | SOCK_CLOEXEC, 0)), fam, port_of(l)), 0);
        ASSERT_GE(fds.keep(accept4(l, nullptr, nullptr, SOCK_CLOEXEC)), 0);
        const int u = fds.keep(bound(fam, SOCK_DGRAM));
        ASSERT_EQ(connect_to(fds.keep(bound(fam, SOCK_DGRAM)), fam, port_of(u)), 0);
        const int icmp = fam == AF_INET ? int{IPPROTO_ICMP} : int{IPPROTO_ICMPV6};
        raws += fds.keep(socket(fam, SOCK_RAW | SOCK_CLOEXEC, icmp)) >= 0;
    }
    EXPECT_GT(std::atoi(child.report.c_str()), 1000) << child.report;  // copies of its listener
    ASSERT_GE(fds.keep(accept4(lc, nullptr, nullptr, SOCK_CLOEXEC)), 0);

    std::vector<AM::NetLinkInfo> out;
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot("/"), out), 0);
    const int me = getpid(), kid = child.pid;
    char comm[17] = {};
    prctl(PR_GET_NAME, comm);
    const std::string exe = std::filesystem::read_symlink("/proc/self/exe");
    std::map<std::string, const AM::NetLinkInfo*> mine;
    for (const auto& r : out) {
        if (r.pid != me && r.pid != kid) continue;
        EXPECT_TRUE(mine.emplace(conn_of(r), &r).second) << key(r);
        EXPECT_EQ(r.proc_name, r.pid == me ? comm : "nl_child");
        EXPECT_EQ(r.proc_path, exe);
    }
    // The /proc tables give the same sockets of ours as the dumps.
    std::vector<AM::NetLinkInfo> from_proc;
    nl::Options files;
    files.use_netlink = false;
    ASSERT_EQ(nl::collect_netlinks_with(HostRoot("/"), from_proc, files), 0);
    std::set<std::string> a, b;
    for (const auto& kv : mine) a.insert(kv.first);
    for (const auto& r : from_proc)
        if (r.pid == me || r.pid == kid) b.insert(conn_of(r));
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.size(), 15u + raws);  // 12 of ours, 3 of the child's

    // And ss, sockets and owners alike (the connection between parent and
    // child is the child's on one end and the parent's on the other).
    ASSERT_EQ(std::system("ss -V >/dev/null 2>&1"), 0) << "ss (iproute2, installed by scripts/setup.sh)";
    std::set<std::string> want;
    for (const auto& [conn, pids] : ss_sockets({me, kid})) {
        want.insert(conn);
        EXPECT_TRUE(!mine.count(conn) || pids.count(mine.at(conn)->pid)) << key(*mine.at(conn));
    }
    EXPECT_EQ(a, want);
}

TEST(NetlinkLiveNamespace, SocketInAnotherNamespaceAppearsOnce) {
    const auto before = std::filesystem::read_symlink("/proc/thread-self/ns/net");
    amtest::Child child([] {
        prctl(PR_SET_NAME, "nl_netns");
        if (unshare(CLONE_NEWNET) != 0) return std::string("unshare: ") + strerror(errno);
        if (std::system("ip link set lo up") != 0) return std::string("ip link set lo up failed");
        const int l = bound(AF_INET, SOCK_STREAM);
        if (l < 0 || listen(l, 4) != 0) return std::string("listen: ") + strerror(errno);
        return std::to_string(port_of(l));
    });
    ASSERT_GT(child.pid, 0);
    const std::string& rep = child.report;
    if (rep.empty() || !isdigit(static_cast<unsigned char>(rep[0])))
        GTEST_SKIP() << "no second network namespace here: " << rep;

    // Its listener, its only socket, is found through its namespace by both
    // sources, and only when other namespaces are asked for.
    auto listed = [&](bool netlink, bool other_namespaces) {
        nl::Options opt;
        opt.use_netlink = netlink;
        opt.other_namespaces = other_namespaces;
        std::vector<AM::NetLinkInfo> out;
        EXPECT_EQ(nl::collect_netlinks_with(HostRoot("/"), out, opt), 0);
        std::string got;
        for (const auto& r : out)
            if (r.pid == child.pid) got += key(r).substr(0, key(r).rfind(' ')) + "\n";
        return got;
    };
    const std::string want =
        "tcp 127.0.0.1:" + rep + " 0.0.0.0:0 LISTEN " + std::to_string(child.pid) + " nl_netns\n";
    EXPECT_EQ(listed(true, true), want);
    EXPECT_EQ(listed(false, true), want);
    EXPECT_EQ(listed(true, false), "");

    // The caller's thread stays in its own namespace.
    EXPECT_EQ(std::filesystem::read_symlink("/proc/thread-self/ns/net"), before);
}

}  // namespace
