#include "process/process_cache.h"

#include <errno.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <stddef.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

namespace amsvc {

bool process_unchanged(const ProcessCacheEntry& e, int32_t pid, const procfs::Stat& now, int64_t now_secs) {
    const procfs::Stat& was = e.stat;
    if (now.starttime != was.starttime) return false;  // another process under a reused pid
    if (((now.flags & procfs::kPfKthread) != 0) != e.kthread) return false;
    // exec builds a new address space: with address randomisation the stack
    // and code move on every exec; without it the executable's identity,
    // checked by the caller, still tells another program.
    if (now.startcode != was.startcode || now.endcode != was.endcode || now.startstack != was.startstack ||
        now.arg_start != was.arg_start || now.arg_end != was.arg_end || now.env_start != was.env_start ||
        now.env_end != was.env_end)
        return false;
    // dlopen and dlclose map and unmap: the size moves. A process that
    // keeps it equal on purpose is caught by the periodic full read.
    if (now.vsize != was.vsize) return false;
    const int64_t period = kProcessRecheckSecs + static_cast<int64_t>(static_cast<uint32_t>(pid) % kProcessRecheckSecs);
    return now_secs >= e.checked && now_secs - e.checked < period;
}

int64_t monotonic_secs() {
    struct timespec ts;
    if (::clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return 0;
    return static_cast<int64_t>(ts.tv_sec);
}

ProcessCache& ProcessCache::instance() {
    static ProcessCache* cache = new ProcessCache;  // never destroyed: no exit-order hazard
    return *cache;
}

namespace {

// The request of Linux 6.6+: listen, and only to these events. Older
// kernels ignore a request of this size (no acknowledgement comes back).
struct ProcInput {
    uint32_t mcast_op;
    uint32_t event_type;
};

constexpr uint32_t kWatched = proc_event::PROC_EVENT_EXEC | proc_event::PROC_EVENT_UID;
constexpr size_t kMsgSize = 256;  // one event: nlmsghdr + cn_msg + proc_event
constexpr unsigned kBatch = 32;

// Up to kBatch event datagrams; returns the count, 0 when none waits,
// -errno otherwise.
int receive(int sock, char (*bufs)[kMsgSize], std::vector<int32_t>& pids, bool& acked, uint32_t seq) {
    struct mmsghdr msgs[kBatch];
    struct iovec iov[kBatch];
    struct sockaddr_nl from[kBatch];
    for (unsigned i = 0; i < kBatch; ++i) {
        iov[i] = {bufs[i], kMsgSize};
        msgs[i] = {};
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
        msgs[i].msg_hdr.msg_name = &from[i];
        msgs[i].msg_hdr.msg_namelen = sizeof from[i];
    }
    const int n = ::recvmmsg(sock, msgs, kBatch, MSG_DONTWAIT, nullptr);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -errno;
    for (int i = 0; i < n; ++i) {
        // Only the kernel speaks on this group.
        if (from[i].nl_pid != 0) continue;
        const size_t len = msgs[i].msg_len;
        const char* p = bufs[i];
        if (len < sizeof(nlmsghdr) + sizeof(cn_msg) + offsetof(proc_event, event_data) + 8) continue;
        cn_msg cn;
        std::memcpy(&cn, p + sizeof(nlmsghdr), sizeof cn);
        if (cn.id.idx != CN_IDX_PROC || cn.id.val != CN_VAL_PROC) continue;
        const char* ev = p + sizeof(nlmsghdr) + sizeof(cn_msg);
        uint32_t what = 0;
        std::memcpy(&what, ev + offsetof(proc_event, what), sizeof what);
        const char* data = ev + offsetof(proc_event, event_data);
        if (what == proc_event::PROC_EVENT_NONE) {
            uint32_t err = 1;
            std::memcpy(&err, data, sizeof err);
            if (cn.ack == seq + 2 && err == 0) acked = true;  // our ack + 1
            continue;
        }
        if (what != proc_event::PROC_EVENT_EXEC && what != proc_event::PROC_EVENT_UID) continue;
        int32_t tgid = 0;  // both events start with pid, then tgid
        std::memcpy(&tgid, data + sizeof(int32_t), sizeof tgid);
        pids.push_back(tgid);
    }
    return n;
}

// Asks for process events: all of them, or (`filtered`) only kWatched.
bool request(int s, uint32_t seq, bool filtered) {
    struct nlmsghdr nl = {};
    struct cn_msg cn = {};
    const ProcInput in = {PROC_CN_MCAST_LISTEN, kWatched};
    const size_t body = filtered ? sizeof in : sizeof in.mcast_op;
    char m[sizeof nl + sizeof cn + sizeof in];
    nl.nlmsg_len = static_cast<uint32_t>(sizeof nl + sizeof cn + body);
    nl.nlmsg_type = NLMSG_DONE;
    cn.id.idx = CN_IDX_PROC;
    cn.id.val = CN_VAL_PROC;
    cn.seq = seq;
    cn.ack = seq + 1;
    cn.len = static_cast<uint16_t>(body);
    std::memcpy(m, &nl, sizeof nl);
    std::memcpy(m + sizeof nl, &cn, sizeof cn);
    std::memcpy(m + sizeof nl + sizeof cn, &in, body);
    struct sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    return ::sendto(s, m, nl.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) ==
           static_cast<ssize_t>(nl.nlmsg_len);
}

}  // namespace

void ProcessCache::watch() {
    const pid_t self = ::getpid();
    if (owner_ == self) return;
    // A forked child: the socket it inherited is its parent's queue.
    if (sock_ >= 0) ::close(sock_);
    sock_ = -1;
    owner_ = self;
    entries_.clear();
    dirty_.clear();
    lost_ = false;
    const int s = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_CONNECTOR);
    if (s < 0) return;
    // Room for about a thousand events between two collections.
    const int rcv = 1 << 20;
    if (::setsockopt(s, SOL_SOCKET, SO_RCVBUFFORCE, &rcv, sizeof rcv) != 0)
        (void)::setsockopt(s, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv);
    struct sockaddr_nl addr = {};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = CN_IDX_PROC;
    const uint32_t seq = static_cast<uint32_t>(self) * 2654435761u;
    if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || !request(s, seq, false)) {
        ::close(s);
        return;
    }
    // The kernel acknowledges the plain request before sendto returns; without
    // its yes (refused: not root, not the initial namespaces) no event is
    // relied on.
    bool acked = false;
    std::vector<int32_t> pids;
    static char bufs[kBatch][kMsgSize];
    for (int i = 0; i < 64 && !acked; ++i)
        if (receive(s, bufs, pids, acked, seq) <= 0) break;
    // Then only the events wanted, where the kernel can filter (its answer
    // is filtered out too); elsewhere every event comes and most are skipped.
    if (!acked || !request(s, seq + 2, true)) {
        ::close(s);
        return;
    }
    sock_ = s;
}

void ProcessCache::drain() {
    if (sock_ < 0) return;
    static char bufs[kBatch][kMsgSize];  // under mu_
    bool acked = false;
    try {
        for (;;) {
            const int n = receive(sock_, bufs, dirty_, acked, 0);
            if (n == 0) break;
            if (n < 0) {
                lost_ = true;
                // A full socket says so once and goes on; anything else ends it.
                if (n != -ENOBUFS) {
                    ::close(sock_);
                    sock_ = -1;
                    break;
                }
            }
        }
    } catch (...) {
        lost_ = true;  // no memory for the pids: every entry is suspect
    }
    if (dirty_.size() > kProcessCacheMax) {
        lost_ = true;
        dirty_.clear();
    }
}

void ProcessCache::forget_dirty(ProcessEntries& entries) {
    if (lost_) {
        entries.clear();
        return;
    }
    for (int32_t pid : dirty_) entries.erase(pid);
}

ProcessEntries ProcessCache::take(dev_t proc_dev, bool& watched) {
    std::lock_guard<std::mutex> lock(mu_);
    watch();
    drain();
    ProcessEntries out;
    if (dev_ == proc_dev) out.swap(entries_);
    entries_.clear();
    forget_dirty(out);
    if (out_ == 0) {
        dirty_.clear();
        lost_ = false;
    }
    ++out_;
    watched = sock_ >= 0;
    return out;
}

void ProcessCache::put(dev_t proc_dev, ProcessEntries&& entries) {
    std::lock_guard<std::mutex> lock(mu_);
    drain();
    // Events that came while the collection ran concern what it read.
    forget_dirty(entries);
    if (out_ > 0) --out_;
    if (out_ == 0) {
        dirty_.clear();
        lost_ = false;
    }
    dev_ = proc_dev;
    entries_ = std::move(entries);
}

}  // namespace amsvc
