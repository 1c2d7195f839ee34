// Network connections: the table, netlink and link parsers on fixture text and
// bytes, a snapshot host root, and the live host checked against ss.
#include <arpa/inet.h>
#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

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
// lines a table can hold, are in the fixture host's tables (NetlinkSnapshot).

TEST(NetlinkProcTable, RejectsMalformedLines) {
    const std::string tail = " 00000000:00000000 00:00000000 00000000     0        0 1001 1";
    const std::pair<int, std::string> bad[] = {
        {AF_INET, ""},
        {AF_INET,
         "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout"},
        {AF_INET, "   8: 0100007F:0016 00000000:0000 10A" + tail},  // state out of range
        {AF_INET, "   9 0100007F:0016 00000000:0000 0A" + tail},    // no colon after the slot
        {AF_INET, "  10: 0100007F0016 00000000:0000 0A" + tail},    // no colon in the address
        {AF_INET, "  11: 0100007F: 00000000:0000 0A" + tail},       // empty port
        {AF_INET, "  12: 0100007F:0016 00000000:0000 0A" + tail.substr(0, tail.size() - 6) + "-5 1"},
        {AF_INET6, "   0: 00000000:0016 00000000:0000 0A" + tail},  // a v4 line is no v6 line
        {AF_UNIX, "   0: 00000000:0016 00000000:0000 0A" + tail},
    };
    for (const auto& b : bad) {
        Sock s;
        EXPECT_FALSE(nl::parse_proc_net_line(b.second, Proto::kTcp, b.first, s)) << b.second;
    }
}

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

TEST(NetlinkProcTable, WholeTableSkipsJunkAndHonoursCeiling) {
    const std::string text = tcp_table(50, 10, "\r\n") +
                             "  99: 0100007F:0016 00000000:0000 0A 00000000:00000000 "
                             "00:00000000 00000000 0 0 9999 1";  // no newline
    std::vector<Sock> out;
    EXPECT_EQ(nl::parse_proc_net_table(text, Proto::kTcp, AF_INET, out), 51u);
    EXPECT_EQ(out.back().inode, 9999u);
    out.clear();
    EXPECT_EQ(nl::parse_proc_net_table(text, Proto::kTcp, AF_INET, out, 5), 5u);
}

TEST(NetlinkLinks, SocketAndNamespaceLinks) {
    uint64_t v = 0;
    EXPECT_TRUE(nl::parse_socket_link("socket:[12345]", v));
    EXPECT_EQ(v, 12345u);
    for (const char* bad :
         {"socket:[]", "socket:[12a]", "socket:[12", "pipe:[5]", "anon_inode:[eventpoll]",
          "socket:[99999999999999999999999]", "/dev/null", "socket:[-1]", "", "socket:[1]x"})
        EXPECT_FALSE(nl::parse_socket_link(bad, v)) << bad;
    EXPECT_TRUE(nl::parse_ns_link("net:[4026531840]", v));
    EXPECT_EQ(v, 4026531840u);
    EXPECT_FALSE(nl::parse_ns_link("mnt:[4026531840]", v));
    EXPECT_FALSE(nl::parse_ns_link("net:[]", v));
}

// The states the fixture and the live host do not show: the last one, a
// number past it, and TCP's CLOSE (UNCONN for the others).
TEST(NetlinkNames, StatesAtTheEdges) {
    const std::tuple<Proto, uint8_t, const char*> cases[] = {
        {Proto::kTcp, 13, "BOUND_INACTIVE"}, {Proto::kTcp, 14, "UNKNOWN"}, {Proto::kTcp, 200, "UNKNOWN"},
        {Proto::kTcp, 7, "CLOSE"},           {Proto::kRaw, 7, "UNCONN"},
    };
    for (const auto& c : cases) EXPECT_EQ(nl::state_name(std::get<0>(c), std::get<1>(c)), std::get<2>(c));
}

std::string key(const AM::NetLinkInfo& r) {
    return r.proto + " " + r.local_addr + ":" + std::to_string(r.local_port) + " " + r.remote_addr + ":" +
           std::to_string(r.remote_port) + " " + r.state + " " + std::to_string(r.pid) + " " + r.proc_name +
           " " + r.proc_path;
}

// A SOCK_DIAG_BY_FAMILY answer as the kernel lays it out.
void put_msg(std::vector<unsigned char>& buf, uint32_t seq, uint16_t type, const void* payload, size_t len,
             uint32_t claimed_len = 0) {
    nlmsghdr h;
    memset(&h, 0, sizeof h);
    h.nlmsg_len = claimed_len ? claimed_len : static_cast<uint32_t>(NLMSG_HDRLEN + len);
    h.nlmsg_type = type;
    h.nlmsg_flags = NLM_F_MULTI;
    h.nlmsg_seq = seq;
    const size_t at = buf.size();
    buf.resize(at + NLMSG_ALIGN(NLMSG_HDRLEN + len));
    memcpy(buf.data() + at, &h, sizeof h);
    if (len) memcpy(buf.data() + at + NLMSG_HDRLEN, payload, len);
}

inet_diag_msg diag_msg(int family, int state, const char* src, uint16_t sport, const char* dst,
                       uint16_t dport, uint32_t inode) {
    inet_diag_msg m;
    memset(&m, 0, sizeof m);
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
    std::vector<unsigned char> at(buf.size() + skew);
    if (!buf.empty()) memcpy(at.data() + skew, buf.data(), buf.size());
    return nl::parse_diag_buffer(at.data() + skew, buf.size(), 7, Proto::kTcp, out, err, max);
}

TEST(NetlinkDiag, ParsesDumpMessagesAndEndings) {
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
        EXPECT_EQ(out[1].inode, 12u);
    }

    // Done, with and without an errno in it, and the kernel refusing the
    // request (no diag module for the protocol).
    nlmsgerr refused;
    memset(&refused, 0, sizeof refused);
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
}

TEST(NetlinkDiag, HostileBuffersNeverReadPastTheEnd) {
    const inet_diag_msg a = diag_msg(AF_INET, 10, "127.0.0.1", 80, "0.0.0.0", 0, 1);
    std::vector<Sock> out;
    int err = 0;
    // A length that claims more than was received, and one shorter than the header.
    for (uint32_t claimed : {4096u, 3u}) {
        std::vector<unsigned char> buf;
        put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &a, sizeof a, claimed);
        EXPECT_EQ(diag(buf, out, err), nl::DiagStatus::kError);
        EXPECT_EQ(err, -EBADMSG);
    }
    // Every truncation of a good buffer: never more than the whole messages.
    std::vector<unsigned char> buf;
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &a, sizeof a);
    put_msg(buf, 7, SOCK_DIAG_BY_FAMILY, &a, sizeof a);
    for (size_t len = 0; len <= buf.size(); ++len) {
        out.clear();
        diag(std::vector<unsigned char>(buf.begin(), buf.begin() + static_cast<long>(len)), out, err);
        EXPECT_LE(out.size(), len / (NLMSG_HDRLEN + sizeof a));
    }
    out.clear();
    EXPECT_EQ(nl::parse_diag_buffer(nullptr, 0, 7, Proto::kTcp, out, err), nl::DiagStatus::kMore);
    // The ceiling stops the list, not the parse.
    EXPECT_EQ(diag(buf, out, err, 1), nl::DiagStatus::kMore);
    EXPECT_EQ(out.size(), 1u);
    Sock s;
    EXPECT_FALSE(nl::parse_diag_msg(nullptr, 100, Proto::kTcp, s));
}

// ---------------------------------------------------------------- snapshot host root

TEST(NetlinkSnapshot, FixtureHostWithContainerNamespace) {
    std::vector<AM::NetLinkInfo> out(3);  // replaced, not appended to
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot(kFixtureRoot).set_fixture_proc(true), out), 0);
    std::multiset<std::string> got;
    for (const auto& r : out) got.insert(key(r));
    const std::multiset<std::string> want = {
        "tcp 0.0.0.0:22 0.0.0.0:0 LISTEN 100 sshd /usr/sbin/sshd",
        // Held by 300 and by 200: the lowest pid owns it.
        "tcp 127.0.0.1:8080 127.0.0.1:50000 ESTABLISHED 200 nginx /usr/sbin/nginx (deleted)",
        "tcp 10.0.2.15:50001 119.216.184.93:443 TIME_WAIT 0  ",
        "tcp6 ::1:631 :::0 LISTEN 100 sshd /usr/sbin/sshd",
        "tcp6 ::ffff:127.0.0.1:8080 ::ffff:127.0.0.1:54321 ESTABLISHED 0  ",
        "tcp6 2001:db8::5:80 fe80::1:58068 CLOSE_WAIT 0  ",
        "udp 0.0.0.0:68 0.0.0.0:0 UNCONN 300 sshd /usr/sbin/sshd",
        "udp 127.0.0.1:40960 127.0.0.1:53 ESTAB 0  ",
        // Its only holder has vanished (no comm any more).
        "udp6 ::1:53 :::0 UNCONN 0  ",
        "raw 0.0.0.0:1 0.0.0.0:0 UNCONN 300 sshd /usr/sbin/sshd",
        // The container's namespace, read once through its first process; the
        // host socket its table repeats is not listed twice.
        "tcp 0.0.0.0:80 0.0.0.0:0 LISTEN 200 nginx /usr/sbin/nginx (deleted)",
    };
    EXPECT_EQ(got, want);

    nl::Options own_only;
    own_only.other_namespaces = false;
    ASSERT_EQ(nl::collect_netlinks_with(HostRoot(kFixtureRoot).set_fixture_proc(true), out, own_only), 0);
    EXPECT_EQ(out.size(), want.size() - 1);
}

using amtest::TempDir;

TEST(NetlinkSnapshot, MissingAndHostileSources) {
    TempDir t;
    ASSERT_FALSE(t.path.empty());
    std::vector<AM::NetLinkInfo> out;
    EXPECT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), -ENOENT);

    // Tables that exist but cannot be read as files: a FIFO never blocks, a
    // directory is refused.
    t.mkdir("/proc");
    t.mkdir("/proc/net");
    ASSERT_EQ(mkfifo((t.path + "/proc/net/tcp").c_str(), 0644), 0);
    t.mkdir("/proc/net/udp");
    // A table that is a link into the live /proc is not followed.
    ASSERT_EQ(symlink("/proc/net/tcp6", (t.path + "/proc/net/tcp6").c_str()), 0);
    EXPECT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), -EACCES);

    // One good line among a huge over-long line and a truncated tail.
    std::string text = "  sl  local_address\n";
    text += "   0: " + std::string(3u << 20, 'F') + "\n";
    text += "   1: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 42 1\n";
    text += "   2: 0100007F:0017 00000000:00";
    t.file("/proc/net/udp6", "");
    t.file("/proc/net/raw", text);
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].proto, "raw");
    EXPECT_EQ(out[0].local_port, 22);
    EXPECT_EQ(out[0].pid, 0);
}

// Chunk boundaries of the streamed read fall anywhere; junk in between is skipped.
TEST(NetlinkSnapshot, HugeTableIsStreamed) {
    TempDir t;
    t.file("/proc/net/tcp", tcp_table(200000, 1000));
    std::vector<AM::NetLinkInfo> out;
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot(t.path).set_fixture_proc(true), out), 0);
    EXPECT_EQ(out.size(), 200000u);
    EXPECT_EQ(out.back().local_port, 199999 % 65536);
}

// ---------------------------------------------------------------- live host

// Runs `fn` in a child that reports over a pipe and waits until told to end.
class Child {
public:
    template <class F>
    explicit Child(F fn) {
        int up[2], down[2];
        if (pipe(up) != 0 || pipe(down) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(up[0]);
            close(down[1]);
            const std::string msg = fn();
            if (write(up[1], msg.data(), msg.size()) < 0) _exit(1);
            close(up[1]);
            char c;
            while (read(down[0], &c, 1) > 0) {
            }
            _exit(0);
        }
        close(up[1]);
        close(down[0]);
        up_ = up[0];
        down_ = down[1];
    }
    ~Child() {
        if (down_ >= 0) close(down_);
        if (up_ >= 0) close(up_);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    pid_t pid() const { return pid_; }
    std::string report() {
        std::string s;
        char buf[256];
        ssize_t n;
        while ((n = read(up_, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
        return s;
    }

private:
    pid_t pid_ = -1;
    int up_ = -1, down_ = -1;
};

int port_of(int fd) {
    sockaddr_storage ss;
    socklen_t len = sizeof ss;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return -1;
    if (ss.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

// The loopback address of `family` at `port`.
socklen_t loopback(int family, int port, sockaddr_storage& ss) {
    memset(&ss, 0, sizeof ss);
    if (family == AF_INET6) {
        auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
        a->sin6_family = AF_INET6;
        a->sin6_addr = in6addr_loopback;
        a->sin6_port = htons(static_cast<uint16_t>(port));
        return sizeof *a;
    }
    auto* a = reinterpret_cast<sockaddr_in*>(&ss);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a->sin_port = htons(static_cast<uint16_t>(port));
    return sizeof *a;
}

// A socket bound to the loopback address of `family` at `port` (0: any).
int bound(int family, int type, int port) {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    sockaddr_storage ss;
    const socklen_t len = loopback(family, port, ss);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) return close(fd), -1;
    return fd;
}

int connect_to(int fd, int family, int port) {
    sockaddr_storage ss;
    const socklen_t len = loopback(family, port, ss);
    return connect(fd, reinterpret_cast<sockaddr*>(&ss), len);
}

std::string self_comm() {
    std::ifstream f("/proc/self/comm");
    std::string s;
    std::getline(f, s);
    return s;
}

// (proto, local, lport, remote, rport, state) in this collector's words.
typedef std::tuple<std::string, std::string, int, std::string, int, std::string> Conn;

Conn conn_of(const AM::NetLinkInfo& r) {
    return Conn(r.proto, r.local_addr, r.local_port, r.remote_addr, r.remote_port, r.state);
}

// "127.0.0.1:80", "[::1]:80", "*:*", "0.0.0.0:*", "[::]:*" -> address, port, v6?
bool split_ss_endpoint(std::string s, std::string& addr, int& port, bool& v6) {
    const size_t colon = s.rfind(':');
    if (colon == std::string::npos) return false;
    const std::string p = s.substr(colon + 1);
    addr = s.substr(0, colon);
    port = p == "*" ? 0 : std::atoi(p.c_str());
    const size_t pct = addr.find('%');
    if (pct != std::string::npos) addr.erase(pct);
    v6 = false;
    if (addr == "*") {
        addr = "::";
        v6 = true;
    } else if (!addr.empty() && addr.front() == '[') {
        addr = addr.substr(1, addr.size() - 2);
        v6 = true;
    }
    return true;
}

// The sockets `ss` reports for the given pids, with the pids it names.
std::map<Conn, std::set<int>> ss_sockets(const char* args, const std::set<int>& pids) {
    std::map<Conn, std::set<int>> out;
    FILE* p = popen((std::string("ss ") + args + " 2>/dev/null").c_str(), "r");
    if (!p) return out;
    char line[4096];
    while (fgets(line, sizeof line, p)) {
        char netid[16], state[32], rq[32], sq[32], local[256], peer[256];
        if (sscanf(line, "%15s %31s %31s %31s %255s %255s", netid, state, rq, sq, local, peer) != 6) continue;
        std::string proto = netid;
        if (proto != "tcp" && proto != "udp" && proto != "raw") continue;
        std::set<int> owners;
        for (const char* q = strstr(line, "pid="); q; q = strstr(q + 4, "pid="))
            owners.insert(std::atoi(q + 4));
        bool ours = false;
        for (int pid : owners) ours |= pids.count(pid) > 0;
        if (!ours) continue;
        std::string la, ra;
        int lp, rp;
        bool lv6, rv6;
        if (!split_ss_endpoint(local, la, lp, lv6) || !split_ss_endpoint(peer, ra, rp, rv6)) continue;
        const bool v6 = lv6 || la.find(':') != std::string::npos;
        if (ra == "::" && !v6) ra = "0.0.0.0";
        // The states our sockets are in: ss says ESTAB for TCP's ESTABLISHED too.
        const std::string st = proto == "tcp" && state == std::string("ESTAB") ? "ESTABLISHED" : state;
        out[Conn(proto + (v6 ? "6" : ""), la, lp, ra, rp, st)] = owners;
    }
    pclose(p);
    return out;
}

bool have_ss() { return std::system("ss -V >/dev/null 2>&1") == 0; }

class NetlinkLiveHost : public ::testing::Test {
protected:
    void TearDown() override {
        for (int fd : fds_) close(fd);
    }
    int keep(int fd) {
        fds_.push_back(fd);
        return fd;
    }
    std::vector<int> fds_;
};

TEST_F(NetlinkLiveHost, OwnAndChildSocketsMatchSs) {
    // The child exists before the parent's sockets, so it inherits none.
    int parent_l4 = -1;
    int to_child[2];
    ASSERT_EQ(pipe(to_child), 0);
    Child child([&] {
        prctl(PR_SET_NAME, "nl_child");
        char buf[16] = {};
        if (read(to_child[0], buf, sizeof buf - 1) <= 0) return std::string();
        const int target = std::atoi(buf);
        const int l = bound(AF_INET, SOCK_STREAM, 0);
        listen(l, 8);
        const int u6 = bound(AF_INET6, SOCK_DGRAM, 0);
        const int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        connect_to(c, AF_INET, target);
        return std::to_string(port_of(l)) + " " + std::to_string(port_of(u6)) + " " +
               std::to_string(port_of(c));
    });
    ASSERT_GT(child.pid(), 0);

    const int l4 = keep(bound(AF_INET, SOCK_STREAM, 0));
    const int l6 = keep(bound(AF_INET6, SOCK_STREAM, 0));
    ASSERT_GE(l4, 0);
    ASSERT_GE(l6, 0);
    ASSERT_EQ(listen(l4, 8), 0);
    ASSERT_EQ(listen(l6, 8), 0);
    parent_l4 = port_of(l4);
    const int p6 = port_of(l6);
    const int c4 = keep(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int c6 = keep(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect_to(c4, AF_INET, parent_l4), 0);
    ASSERT_EQ(connect_to(c6, AF_INET6, p6), 0);
    const int a4 = keep(accept4(l4, nullptr, nullptr, SOCK_CLOEXEC));
    const int a6 = keep(accept4(l6, nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_GE(a4, 0);
    ASSERT_GE(a6, 0);
    const int u4 = keep(bound(AF_INET, SOCK_DGRAM, 0));
    const int u6 = keep(bound(AF_INET6, SOCK_DGRAM, 0));
    const int uc4 = keep(bound(AF_INET, SOCK_DGRAM, 0));
    const int uc6 = keep(bound(AF_INET6, SOCK_DGRAM, 0));
    ASSERT_EQ(connect_to(uc4, AF_INET, port_of(u4)), 0);
    ASSERT_EQ(connect_to(uc6, AF_INET6, port_of(u6)), 0);
    const int raw4 = keep(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    const int raw6 = keep(socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6));

    const std::string port_text = std::to_string(parent_l4) + "\n";
    ASSERT_GT(write(to_child[1], port_text.data(), port_text.size()), 0);
    close(to_child[1]);
    close(to_child[0]);
    int cl = 0, cu6 = 0, cc = 0;
    ASSERT_EQ(sscanf(child.report().c_str(), "%d %d %d", &cl, &cu6, &cc), 3);
    const int ac = keep(accept4(l4, nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_GE(ac, 0);

    std::vector<AM::NetLinkInfo> out;
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot("/"), out), 0);
    const int me = getpid();
    const int kid = child.pid();
    const std::string comm = self_comm();
    char exe[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    std::map<Conn, const AM::NetLinkInfo*> mine;
    for (const auto& r : out) {
        if (r.pid != me && r.pid != kid) continue;
        EXPECT_TRUE(mine.emplace(conn_of(r), &r).second) << key(r);
        EXPECT_EQ(r.proc_name, r.pid == me ? comm : "nl_child");
        EXPECT_EQ(r.proc_path, exe);
    }
    // The connection between parent and child is the parent's on one end and
    // the child's on the other.
    const std::string lo4 = "127.0.0.1";
    const auto theirs = mine.find(Conn("tcp", lo4, cc, lo4, parent_l4, "ESTABLISHED"));
    ASSERT_NE(theirs, mine.end());
    EXPECT_EQ(theirs->second->pid, kid);
    const auto ours = mine.find(Conn("tcp", lo4, parent_l4, lo4, cc, "ESTABLISHED"));
    ASSERT_NE(ours, mine.end());
    EXPECT_EQ(ours->second->pid, me);

    // The /proc tables give the same sockets of ours as the dumps.
    std::vector<AM::NetLinkInfo> from_proc;
    nl::Options files;
    files.use_netlink = false;
    ASSERT_EQ(nl::collect_netlinks_with(HostRoot("/"), from_proc, files), 0);
    std::set<Conn> a, b;
    for (const auto& kv : mine) a.insert(kv.first);
    for (const auto& r : from_proc)
        if (r.pid == me || r.pid == kid) b.insert(conn_of(r));
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.size(), 14u + (raw4 >= 0) + (raw6 >= 0));

    // And ss, sockets and owners alike.
    ASSERT_TRUE(have_ss()) << "ss (iproute2, installed by scripts/setup.sh)";
    const auto ss = ss_sockets("-tuwanp", {me, kid});
    std::set<Conn> want;
    for (const auto& kv : ss) {
        want.insert(kv.first);
        const auto it = mine.find(kv.first);
        if (it != mine.end()) {
            EXPECT_TRUE(kv.second.count(it->second->pid)) << key(*it->second);
        }
    }
    EXPECT_EQ(a, want);
}

TEST(NetlinkLiveManyFds, SocketHeldThroughManyDescriptorsIsListedOnce) {
    // As many descriptors as this host lets one process have, up to 100k,
    // all naming one listening socket.
    rlimit lim;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    const rlim_t want = std::min<rlim_t>(lim.rlim_max, 100000);
    Child child([want] {
        prctl(PR_SET_NAME, "nl_manyfd");
        rlimit l = {want, want};
        setrlimit(RLIMIT_NOFILE, &l);
        const int s = bound(AF_INET, SOCK_STREAM, 0);
        if (s < 0 || listen(s, 4) != 0) return std::string();
        int copies = 0;
        while (dup(s) >= 0) ++copies;
        return std::to_string(port_of(s)) + " " + std::to_string(copies);
    });
    int port = 0, copies = 0;
    ASSERT_EQ(sscanf(child.report().c_str(), "%d %d", &port, &copies), 2);
    EXPECT_GT(copies, 1000);
    std::vector<AM::NetLinkInfo> out;
    ASSERT_EQ(amsvc::collect_netlinks(HostRoot("/"), out), 0);
    int n = 0;
    for (const auto& r : out) {
        if (r.proto == "tcp" && r.local_port == port && r.state == "LISTEN" && r.local_addr == "127.0.0.1") {
            ++n;
            EXPECT_EQ(r.pid, child.pid());
            EXPECT_EQ(r.proc_name, "nl_manyfd");
        }
    }
    EXPECT_EQ(n, 1);
}

// Brings up `lo` inside a fresh network namespace.
bool loopback_up() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags |= IFF_UP;
    ok = ok && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    close(fd);
    return ok;
}

TEST(NetlinkLiveNamespace, SocketInAnotherNamespaceAppearsOnce) {
    char before[64] = {}, after[64] = {};
    ASSERT_GT(readlink("/proc/thread-self/ns/net", before, sizeof before - 1), 0);
    Child child([] {
        prctl(PR_SET_NAME, "nl_netns");
        if (unshare(CLONE_NEWNET) != 0) return std::string("unshare: ") + strerror(errno);
        if (!loopback_up()) return std::string("lo: ") + strerror(errno);
        const int l = bound(AF_INET, SOCK_STREAM, 0);
        if (l < 0 || listen(l, 4) != 0) return std::string("listen: ") + strerror(errno);
        return std::to_string(port_of(l));
    });
    ASSERT_GT(child.pid(), 0);
    const std::string rep = child.report();
    if (rep.empty() || !isdigit(static_cast<unsigned char>(rep[0])))
        GTEST_SKIP() << "no second network namespace here: " << rep;
    const int port = std::atoi(rep.c_str());
    const Conn want("tcp", "127.0.0.1", port, "0.0.0.0", 0, "LISTEN");

    auto count = [&](const nl::Options& opt) {
        std::vector<AM::NetLinkInfo> out;
        EXPECT_EQ(nl::collect_netlinks_with(HostRoot("/"), out, opt), 0);
        int n = 0;
        for (const auto& r : out)
            if (r.pid == child.pid() && conn_of(r) == want) {
                ++n;
                EXPECT_EQ(r.proc_name, "nl_netns");
            }
        return n;
    };
    nl::Options dumps, files, own;
    files.use_netlink = false;
    own.other_namespaces = false;
    EXPECT_EQ(count(dumps), 1);
    EXPECT_EQ(count(files), 1);
    EXPECT_EQ(count(own), 0);

    // The caller's thread stays in its own namespace.
    ASSERT_GT(readlink("/proc/thread-self/ns/net", after, sizeof after - 1), 0);
    EXPECT_STREQ(before, after);
}

}  // namespace
