// Network connections: the table, netlink and link parsers on fixture text and
// bytes, a snapshot host root, and the live host checked against ss.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

TEST(NetlinkProcTable, ParsesIpv4AndIpv6Lines) {
    Sock s;
    ASSERT_TRUE(nl::parse_proc_net_line(
        "   1: 0100007F:1F90 0100007F:C350 01 00000000:00000000 02:000AF0D2 00000000  1000        0 1002 1 "
        "0000000000000000 20 4 30 10 -1",
        Proto::kTcp, AF_INET, s));
    AM::NetLinkInfo r = nl::to_record(s);
    EXPECT_EQ(r.proto, "tcp");
    EXPECT_EQ(r.local_addr, "127.0.0.1");
    EXPECT_EQ(r.local_port, 8080);
    EXPECT_EQ(r.remote_addr, "127.0.0.1");
    EXPECT_EQ(r.remote_port, 50000);
    EXPECT_EQ(r.state, "ESTABLISHED");
    EXPECT_EQ(s.inode, 1002u);

    // Each 32-bit word is printed in host order: 2001:db8::5 and fe80::1.
    ASSERT_TRUE(nl::parse_proc_net_line(
        "   3: B80D0120000000000000000005000000:0050 000080FE000000000000000001000000:E2D4 08 "
        "00000000:00000000 00:00000000 00000000     0        0 2004 1",
        Proto::kTcp, AF_INET6, s));
    r = nl::to_record(s);
    EXPECT_EQ(r.proto, "tcp6");
    EXPECT_EQ(r.local_addr, "2001:db8::5");
    EXPECT_EQ(r.remote_addr, "fe80::1");
    EXPECT_EQ(r.remote_port, 58068);
    EXPECT_EQ(r.state, "CLOSE_WAIT");

    // IPv4-mapped addresses stay as the kernel reports them.
    ASSERT_TRUE(nl::parse_proc_net_line(
        "   1: 0000000000000000FFFF00000100007F:1F90 00000000000000000000000000000000:0000 0A "
        "00000000:00000000 00:00000000 00000000     0        0 2002 1",
        Proto::kTcp, AF_INET6, s));
    r = nl::to_record(s);
    EXPECT_EQ(r.local_addr, "::ffff:127.0.0.1");
    EXPECT_EQ(r.remote_addr, "::");
    EXPECT_EQ(r.state, "LISTEN");

    ASSERT_TRUE(nl::parse_proc_net_line(
        " 1234: 00000000:0044 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 3001 2 "
        "0000000000000000 0",
        Proto::kUdp, AF_INET, s));
    r = nl::to_record(s);
    EXPECT_EQ(r.proto, "udp");
    EXPECT_EQ(r.local_addr, "0.0.0.0");
    EXPECT_EQ(r.state, "UNCONN");
}

TEST(NetlinkProcTable, RejectsMalformedLines) {
    const char* bad[] = {
        "",
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode",
        "   3: 0100007F:1F9",  // truncated
        "   4: 0100007G:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1003 1",
        "   5: 00000000000000000000000001000000:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000 "
        "0 0 1 1",
        "   6: 0100007F:1F90 0100007F:C350 01 00000000:00000000 02:000AF0D2 00000000  1000        0 "
        "notanumber 1",
        "   7: 0100007F:10000 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1005 1",
        "   8: 0100007F:0016 00000000:0000 10A 00000000:00000000 00:00000000 00000000     0        0 1006 1",
        "   9 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1007 1",
        "  10: 0100007F0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1008 1",
        "  11: 0100007F: 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1009 1",
        "  12: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 -5 1",
        "garbage line without any structure at all and more words than ten in it ok",
    };
    for (const char* line : bad) {
        Sock s;
        EXPECT_FALSE(nl::parse_proc_net_line(line, Proto::kTcp, AF_INET, s)) << line;
    }
    Sock s;
    // A v4 table line is no v6 line, and an unknown family is refused.
    EXPECT_FALSE(nl::parse_proc_net_line(
        "   0: 00000000:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1001 1",
        Proto::kTcp, AF_INET6, s));
    EXPECT_FALSE(nl::parse_proc_net_line(
        "   0: 00000000:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1001 1",
        Proto::kTcp, AF_UNIX, s));
}

TEST(NetlinkProcTable, WholeTableSkipsJunkAndHonoursCeiling) {
    std::string text = "  sl  local_address rem_address st\n";
    for (int i = 0; i < 50; ++i) {
        char line[200];
        snprintf(line, sizeof line,
                 "%4d: 0100007F:%04X 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 %d 1\r\n", i,
                 1000 + i, 7000 + i);
        text += line;
        if (i % 10 == 0) text += "junk\n\n";
    }
    text +=
        "  99: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 9999 1";  // no
                                                                                                   // newline
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

TEST(NetlinkNames, StatesAndProtocols) {
    EXPECT_EQ(nl::state_name(Proto::kTcp, 10), "LISTEN");
    EXPECT_EQ(nl::state_name(Proto::kTcp, 6), "TIME_WAIT");
    EXPECT_EQ(nl::state_name(Proto::kTcp, 12), "NEW_SYN_RECV");
    EXPECT_EQ(nl::state_name(Proto::kTcp, 7), "CLOSE");
    EXPECT_EQ(nl::state_name(Proto::kTcp, 200), "UNKNOWN");
    EXPECT_EQ(nl::state_name(Proto::kUdp, 7), "UNCONN");
    EXPECT_EQ(nl::state_name(Proto::kUdp, 1), "ESTAB");
    EXPECT_EQ(nl::state_name(Proto::kRaw, 7), "UNCONN");
    EXPECT_EQ(nl::proto_name(Proto::kRaw, AF_INET6), "raw6");
    EXPECT_EQ(nl::proto_name(Proto::kUdp, AF_INET), "udp");
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

    std::vector<Sock> out;
    int err = 0;
    EXPECT_EQ(nl::parse_diag_buffer(buf.data(), buf.size(), 7, Proto::kTcp, out, err), nl::DiagStatus::kMore);
    ASSERT_EQ(out.size(), 2u);
    AM::NetLinkInfo r = nl::to_record(out[0]);
    EXPECT_EQ(r.proto, "tcp");
    EXPECT_EQ(r.local_addr, "127.0.0.1");
    EXPECT_EQ(r.local_port, 8080);
    EXPECT_EQ(r.state, "LISTEN");
    r = nl::to_record(out[1]);
    EXPECT_EQ(r.proto, "tcp6");
    EXPECT_EQ(r.local_addr, "::1");
    EXPECT_EQ(r.remote_addr, "::ffff:10.1.2.3");
    EXPECT_EQ(r.remote_port, 51000);
    EXPECT_EQ(out[1].inode, 12u);

    // The same bytes at an odd address parse the same.
    std::vector<unsigned char> shifted(buf.size() + 1);
    memcpy(shifted.data() + 1, buf.data(), buf.size());
    out.clear();
    nl::parse_diag_buffer(shifted.data() + 1, buf.size(), 7, Proto::kTcp, out, err);
    EXPECT_EQ(out.size(), 2u);

    // Done, with and without an errno in it.
    std::vector<unsigned char> done;
    int32_t zero = 0, failed = -EINTR;
    put_msg(done, 7, NLMSG_DONE, &zero, sizeof zero);
    EXPECT_EQ(nl::parse_diag_buffer(done.data(), done.size(), 7, Proto::kTcp, out, err),
              nl::DiagStatus::kDone);
    done.clear();
    put_msg(done, 7, NLMSG_DONE, &failed, sizeof failed);
    EXPECT_EQ(nl::parse_diag_buffer(done.data(), done.size(), 7, Proto::kTcp, out, err),
              nl::DiagStatus::kError);
    EXPECT_EQ(err, -EINTR);

    // The kernel refusing the request (no diag module for the protocol).
    std::vector<unsigned char> refused;
    nlmsgerr e;
    memset(&e, 0, sizeof e);
    e.error = -ENOENT;
    put_msg(refused, 7, NLMSG_ERROR, &e, sizeof e);
    EXPECT_EQ(nl::parse_diag_buffer(refused.data(), refused.size(), 7, Proto::kRaw, out, err),
              nl::DiagStatus::kError);
    EXPECT_EQ(err, -ENOENT);
}

TEST(NetlinkDiag, HostileBuffersNeverReadPastTheEnd) {
    const inet_diag_msg a = diag_msg(AF_INET, 10, "127.0.0.1", 80, "0.0.0.0", 0, 1);
    std::vector<Sock> out;
    int err = 0;
    // A length that claims more than was received.
    std::vector<unsigned char> buf;
    put_msg(buf, 1, SOCK_DIAG_BY_FAMILY, &a, sizeof a, 4096);
    EXPECT_EQ(nl::parse_diag_buffer(buf.data(), buf.size(), 1, Proto::kTcp, out, err),
              nl::DiagStatus::kError);
    EXPECT_EQ(err, -EBADMSG);
    // A length shorter than the header itself.
    buf.clear();
    put_msg(buf, 1, SOCK_DIAG_BY_FAMILY, &a, sizeof a, 3);
    EXPECT_EQ(nl::parse_diag_buffer(buf.data(), buf.size(), 1, Proto::kTcp, out, err),
              nl::DiagStatus::kError);
    // Every truncation of a good buffer: never more than the whole messages.
    buf.clear();
    put_msg(buf, 1, SOCK_DIAG_BY_FAMILY, &a, sizeof a);
    put_msg(buf, 1, SOCK_DIAG_BY_FAMILY, &a, sizeof a);
    for (size_t len = 0; len <= buf.size(); ++len) {
        std::vector<unsigned char> part(buf.begin(), buf.begin() + static_cast<long>(len));
        out.clear();
        nl::parse_diag_buffer(part.data(), part.size(), 1, Proto::kTcp, out, err);
        EXPECT_LE(out.size(), len / (NLMSG_HDRLEN + sizeof a));
    }
    out.clear();
    EXPECT_EQ(nl::parse_diag_buffer(nullptr, 0, 1, Proto::kTcp, out, err), nl::DiagStatus::kMore);
    // The ceiling stops the list, not the parse.
    EXPECT_EQ(nl::parse_diag_buffer(buf.data(), buf.size(), 1, Proto::kTcp, out, err, 1),
              nl::DiagStatus::kMore);
    EXPECT_EQ(out.size(), 1u);
    Sock s;
    EXPECT_FALSE(nl::parse_diag_msg(nullptr, 100, Proto::kTcp, s));
}

// ---------------------------------------------------------------- snapshot host root

std::string key(const AM::NetLinkInfo& r) {
    return r.proto + " " + r.local_addr + ":" + std::to_string(r.local_port) + " " + r.remote_addr + ":" +
           std::to_string(r.remote_port) + " " + r.state + " " + std::to_string(r.pid) + " " + r.proc_name +
           " " + r.proc_path;
}

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

TEST(NetlinkSnapshot, HugeTableIsStreamed) {
    TempDir t;
    t.mkdir("/proc");
    t.mkdir("/proc/net");
    {
        std::ofstream f(t.path + "/proc/net/tcp");
        f << "  sl  local_address rem_address   st\n";
        char line[200];
        for (int i = 0; i < 200000; ++i) {
            snprintf(line, sizeof line,
                     "%6d: 0100007F:%04X 0100007F:1F90 01 00000000:00000000 00:00000000 00000000 0 0 %d 1 "
                     "0000000000000000 20 4 30 10 -1\n",
                     i, i % 65536, 100000 + i);
            f << line;
            // Chunk boundaries fall anywhere; junk in between is skipped.
            if (i % 1000 == 0) f << "x:\n";
        }
    }
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

// A socket bound to the loopback address of `family` at `port` (0: any).
int bound(int family, int type, int port) {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (family == AF_INET6) {
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        a.sin6_port = htons(static_cast<uint16_t>(port));
        if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return close(fd), -1;
    } else {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(port));
        if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return close(fd), -1;
    }
    return fd;
}

int connect_to(int fd, int family, int port) {
    if (family == AF_INET6) {
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        a.sin6_port = htons(static_cast<uint16_t>(port));
        return connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
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

std::string ss_state(const std::string& proto, std::string st) {
    if (proto != "tcp") return st;  // UNCONN / ESTAB as they stand
    if (st == "ESTAB") return "ESTABLISHED";
    if (st == "UNCONN") return "CLOSE";
    static const std::map<std::string, std::string> kMap = {{"FIN-WAIT-1", "FIN_WAIT1"},
                                                            {"FIN-WAIT-2", "FIN_WAIT2"}};
    const auto it = kMap.find(st);
    if (it != kMap.end()) return it->second;
    std::replace(st.begin(), st.end(), '-', '_');
    return st;
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
        const std::string st = ss_state(proto, state);
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
    std::map<Conn, const AM::NetLinkInfo*> mine;
    for (const auto& r : out) {
        if (r.pid == me || r.pid == kid) {
            EXPECT_TRUE(mine.emplace(conn_of(r), &r).second) << key(r);
        }
    }

    const std::string comm = self_comm();
    char exe[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    auto expect = [&](const Conn& c, int pid) {
        const auto it = mine.find(c);
        ASSERT_NE(it, mine.end()) << std::get<0>(c) << " " << std::get<1>(c) << ":" << std::get<2>(c) << " "
                                  << std::get<3>(c) << ":" << std::get<4>(c) << " " << std::get<5>(c);
        EXPECT_EQ(it->second->pid, pid);
        EXPECT_EQ(it->second->proc_name, pid == me ? comm : "nl_child");
        EXPECT_EQ(it->second->proc_path, exe);
    };
    const std::string lo4 = "127.0.0.1", lo6 = "::1";
    expect(Conn("tcp", lo4, parent_l4, "0.0.0.0", 0, "LISTEN"), me);
    expect(Conn("tcp6", lo6, p6, "::", 0, "LISTEN"), me);
    expect(Conn("tcp", lo4, port_of(c4), lo4, parent_l4, "ESTABLISHED"), me);
    expect(Conn("tcp", lo4, parent_l4, lo4, port_of(c4), "ESTABLISHED"), me);
    expect(Conn("tcp6", lo6, port_of(c6), lo6, p6, "ESTABLISHED"), me);
    expect(Conn("tcp6", lo6, p6, lo6, port_of(c6), "ESTABLISHED"), me);
    expect(Conn("udp", lo4, port_of(u4), "0.0.0.0", 0, "UNCONN"), me);
    expect(Conn("udp6", lo6, port_of(u6), "::", 0, "UNCONN"), me);
    expect(Conn("udp", lo4, port_of(uc4), lo4, port_of(u4), "ESTAB"), me);
    expect(Conn("udp6", lo6, port_of(uc6), lo6, port_of(u6), "ESTAB"), me);
    if (raw4 >= 0) expect(Conn("raw", "0.0.0.0", IPPROTO_ICMP, "0.0.0.0", 0, "UNCONN"), me);
    if (raw6 >= 0) expect(Conn("raw6", "::", IPPROTO_ICMPV6, "::", 0, "UNCONN"), me);
    expect(Conn("tcp", lo4, cl, "0.0.0.0", 0, "LISTEN"), kid);
    expect(Conn("udp6", lo6, cu6, "::", 0, "UNCONN"), kid);
    expect(Conn("tcp", lo4, cc, lo4, parent_l4, "ESTABLISHED"), kid);
    expect(Conn("tcp", lo4, parent_l4, lo4, cc, "ESTABLISHED"), me);

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

    if (!have_ss()) GTEST_SKIP() << "ss is not installed";
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
