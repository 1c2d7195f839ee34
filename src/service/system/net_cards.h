// Network interfaces and their addresses as the kernel's routing netlink
// reports them (what `ip addr` shows): one record per interface, every
// address under the interface it is on, whatever label it carries.
#ifndef ASSETMAN_SERVICE_NET_CARDS_H
#define ASSETMAN_SERVICE_NET_CARDS_H

#include <stdint.h>

#include <cstddef>
#include <string>
#include <vector>

namespace amsvc {

struct RtLink {
    int index = 0;
    std::string name;
    std::string mac;  // IFLA_ADDRESS as "aa:bb:..", empty when the link has none
    int32_t mtu = -1;
};

struct RtAddr {
    int index = 0;  // interface index: labels ("lo:fld") do not name interfaces
    int family = 0;
    int prefix = 0;
    std::string addr;       // IFA_LOCAL, else IFA_ADDRESS
    std::string broadcast;  // IFA_BROADCAST, IPv4 only; empty when none
};

enum class RtStatus { kMore, kDone, kError };

// One datagram of an RTM_GETLINK or RTM_GETADDR dump: every message of
// sequence `seq` in it, appended to `links` or `addrs`. kError sets `err` to a
// negative errno (the kernel's, or -EBADMSG for a broken message).
RtStatus parse_rtnl_buffer(const void* buf, size_t len, uint32_t seq, std::vector<RtLink>& links,
                           std::vector<RtAddr>& addrs, int& err);

// Both dumps of the caller's network namespace. 0 or a negative errno.
int dump_interfaces(std::vector<RtLink>& links, std::vector<RtAddr>& addrs);

}  // namespace amsvc

#endif
