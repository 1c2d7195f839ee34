// Network connections: the parsers behind collect_netlinks, exposed so tests
// can feed them fixture text and hand-made netlink bytes.
#ifndef ASSETMAN_SERVICE_NETLINK_COLLECTOR_H
#define ASSETMAN_SERVICE_NETLINK_COLLECTOR_H

#include <stdint.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "collectors.h"

namespace amsvc {
namespace netlink {

enum class Proto : uint8_t { kTcp, kUdp, kRaw };

// One socket as the kernel describes it, before the owner is known.
// Addresses are in network byte order, ports in host order.
struct Sock {
    Proto proto = Proto::kTcp;
    uint8_t family = 0;  // AF_INET or AF_INET6
    uint8_t state = 0;   // kernel TCP state number (also used by UDP and raw)
    uint8_t laddr[16] = {};
    uint8_t raddr[16] = {};
    uint16_t lport = 0;
    uint16_t rport = 0;
    uint64_t inode = 0;  // 0 for TIME_WAIT and request sockets
};

// One data line of /proc/net/{tcp,udp,raw}[6]. False for the header line and
// for anything malformed (short line, junk hex, wrong address width).
bool parse_proc_net_line(std::string_view line, Proto proto, int family, Sock& out);
// A whole table; returns how many lines were taken. Stops at `max_socks`.
size_t parse_proc_net_table(std::string_view text, Proto proto, int family, std::vector<Sock>& out,
                            size_t max_socks = SIZE_MAX);

// The payload of one SOCK_DIAG_BY_FAMILY answer (a struct inet_diag_msg and
// its attributes). False when too short or of a family other than IPv4/IPv6.
bool parse_diag_msg(const void* data, size_t len, Proto proto, Sock& out);

enum class DiagStatus { kMore, kDone, kError };
// One datagram of a sock_diag dump: every message of sequence `seq` in it.
// kError sets `err` to a negative errno (the kernel's, or -EBADMSG for a
// broken message).
DiagStatus parse_diag_buffer(const void* buf, size_t len, uint32_t seq, Proto proto, std::vector<Sock>& out,
                             int& err, size_t max_socks = SIZE_MAX);

// "socket:[12345]" -> 12345. False for any other link text.
bool parse_socket_link(std::string_view link, uint64_t& inode);
// "net:[4026531840]" -> 4026531840. False for any other link text.
bool parse_ns_link(std::string_view link, uint64_t& id);

std::string proto_name(Proto proto, int family);
std::string state_name(Proto proto, uint8_t state);
std::string addr_text(int family, const uint8_t* addr);

// The record of a socket, without its owner (pid 0, empty names).
AM::NetLinkInfo to_record(const Sock& s);

struct Options {
    bool use_netlink = true;       // false: read only the /proc/net tables
    bool other_namespaces = true;  // also the netns of every process
};

int32_t collect_netlinks_with(const HostRoot& root, std::vector<AM::NetLinkInfo>& out, const Options& opt);

}  // namespace netlink
}  // namespace amsvc

#endif
