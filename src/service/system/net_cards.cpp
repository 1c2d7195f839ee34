#include "system/net_cards.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <new>

#include "core/common.h"

namespace amsvc {

namespace {

constexpr size_t kMaxEntries = 1u << 16;  // links or addresses kept from one dump
constexpr int kTimeoutSec = 2;

std::string hex_mac(const unsigned char* p, size_t n) {
    static const char kHex[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        if (i) s += ':';
        s += kHex[p[i] >> 4];
        s += kHex[p[i] & 15];
    }
    return s;
}

std::string addr_text(int family, const void* p, size_t n) {
    char buf[INET6_ADDRSTRLEN] = {0};
    if ((family == AF_INET && n != 4) || (family == AF_INET6 && n != 16)) return std::string();
    if (!inet_ntop(family, p, buf, sizeof buf)) return std::string();
    return buf;
}

// Walks the attributes after a fixed header of `hdr` bytes; fn(type, data, len).
template <class Fn>
void each_attr(const nlmsghdr* nh, size_t hdr, Fn fn) {
    const size_t total = nh->nlmsg_len;
    size_t off = NLMSG_HDRLEN + NLMSG_ALIGN(hdr);
    const unsigned char* base = reinterpret_cast<const unsigned char*>(nh);
    while (off + sizeof(rtattr) <= total) {
        rtattr ra;
        memcpy(&ra, base + off, sizeof ra);
        if (ra.rta_len < sizeof(rtattr) || ra.rta_len > total - off) return;
        fn(ra.rta_type & NLA_TYPE_MASK, base + off + RTA_LENGTH(0), ra.rta_len - RTA_LENGTH(0));
        off += RTA_ALIGN(ra.rta_len);
    }
}

bool parse_link(const nlmsghdr* nh, RtLink& out) {
    if (nh->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return false;
    ifinfomsg ifi;
    memcpy(&ifi, NLMSG_DATA(nh), sizeof ifi);
    out.index = ifi.ifi_index;
    each_attr(nh, sizeof ifi, [&](unsigned type, const unsigned char* p, size_t n) {
        if (type == IFLA_IFNAME) {
            out.name.assign(reinterpret_cast<const char*>(p), strnlen(reinterpret_cast<const char*>(p), n));
        } else if (type == IFLA_ADDRESS) {
            out.mac = hex_mac(p, n);
        } else if (type == IFLA_MTU && n >= 4) {
            uint32_t mtu;
            memcpy(&mtu, p, 4);
            out.mtu = mtu <= INT32_MAX ? static_cast<int32_t>(mtu) : -1;
        }
    });
    return !out.name.empty();
}

bool parse_addr(const nlmsghdr* nh, RtAddr& out) {
    if (nh->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) return false;
    ifaddrmsg ifa;
    memcpy(&ifa, NLMSG_DATA(nh), sizeof ifa);
    if (ifa.ifa_family != AF_INET && ifa.ifa_family != AF_INET6) return false;
    out.index = static_cast<int>(ifa.ifa_index);
    out.family = ifa.ifa_family;
    out.prefix = ifa.ifa_prefixlen;
    std::string local, address;
    each_attr(nh, sizeof ifa, [&](unsigned type, const unsigned char* p, size_t n) {
        if (type == IFA_LOCAL)
            local = addr_text(out.family, p, n);
        else if (type == IFA_ADDRESS)
            address = addr_text(out.family, p, n);
        else if (type == IFA_BROADCAST && out.family == AF_INET)
            out.broadcast = addr_text(out.family, p, n);
    });
    out.addr = local.empty() ? address : local;
    return !out.addr.empty();
}

}  // namespace

RtStatus parse_rtnl_buffer(const void* buf, size_t len, uint32_t seq, std::vector<RtLink>& links,
                           std::vector<RtAddr>& addrs, int& err) {
    const unsigned char* p = static_cast<const unsigned char*>(buf);
    size_t off = 0;
    while (len - off >= sizeof(nlmsghdr)) {
        nlmsghdr nh;
        memcpy(&nh, p + off, sizeof nh);
        if (nh.nlmsg_len < sizeof(nlmsghdr) || nh.nlmsg_len > len - off) {
            err = -EBADMSG;
            return RtStatus::kError;
        }
        // An aligned copy: attributes are read through it.
        std::unique_ptr<unsigned char[]> msg(new unsigned char[nh.nlmsg_len + sizeof(nlmsghdr)]);
        memcpy(msg.get(), p + off, nh.nlmsg_len);
        const nlmsghdr* m = reinterpret_cast<const nlmsghdr*>(msg.get());
        const size_t step = NLMSG_ALIGN(nh.nlmsg_len);
        off = step > len - off ? len : off + step;
        if (nh.nlmsg_seq != seq) continue;
        if (nh.nlmsg_type == NLMSG_DONE) return RtStatus::kDone;
        if (nh.nlmsg_type == NLMSG_ERROR) {
            nlmsgerr e;
            if (nh.nlmsg_len < NLMSG_LENGTH(sizeof e)) {
                err = -EBADMSG;
                return RtStatus::kError;
            }
            memcpy(&e, NLMSG_DATA(m), sizeof e);
            if (e.error == 0) return RtStatus::kDone;  // an acknowledgement
            err = e.error < 0 && e.error > -4096 ? e.error : -EIO;
            return RtStatus::kError;
        }
        if (nh.nlmsg_type == RTM_NEWLINK && links.size() < kMaxEntries) {
            RtLink l;
            if (parse_link(m, l)) links.push_back(std::move(l));
        } else if (nh.nlmsg_type == RTM_NEWADDR && addrs.size() < kMaxEntries) {
            RtAddr a;
            if (parse_addr(m, a)) addrs.push_back(std::move(a));
        }
    }
    return RtStatus::kMore;
}

namespace {

int dump(int fd, uint16_t type, uint32_t seq, std::vector<RtLink>& links, std::vector<RtAddr>& addrs) {
    struct {
        nlmsghdr nh;
        rtgenmsg g;
    } req;
    memset(&req, 0, sizeof req);
    req.nh.nlmsg_len = NLMSG_LENGTH(sizeof req.g);
    req.nh.nlmsg_type = type;
    req.nh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.nh.nlmsg_seq = seq;
    req.g.rtgen_family = AF_UNSPEC;
    sockaddr_nl sa;
    memset(&sa, 0, sizeof sa);
    sa.nl_family = AF_NETLINK;
    ssize_t sent;
    do {
        sent = ::sendto(fd, &req, req.nh.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) return -errno;
    const size_t buflen = 64u << 10;
    std::unique_ptr<char[]> buf(new char[buflen]);
    for (;;) {
        iovec iov = {buf.get(), buflen};
        msghdr mh;
        memset(&mh, 0, sizeof mh);
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        const ssize_t n = ::recvmsg(fd, &mh, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -errno;
        if (n == 0 || (mh.msg_flags & MSG_TRUNC)) return -EIO;
        int err = 0;
        switch (parse_rtnl_buffer(buf.get(), static_cast<size_t>(n), seq, links, addrs, err)) {
            case RtStatus::kDone:
                return 0;
            case RtStatus::kError:
                return err;
            case RtStatus::kMore:
                break;
        }
    }
}

}  // namespace

int dump_interfaces(std::vector<RtLink>& links, std::vector<RtAddr>& addrs) {
    Fd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (fd.get() < 0) return -errno;
    struct timeval tv = {kTimeoutSec, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    int rc = dump(fd.get(), RTM_GETLINK, 1, links, addrs);
    if (rc == 0) rc = dump(fd.get(), RTM_GETADDR, 2, links, addrs);
    return rc;
}

}  // namespace amsvc
