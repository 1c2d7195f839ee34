// Network connections: TCP, UDP and raw sockets over IPv4 and IPv6 of the
// caller's network namespace and of every other namespace a process lives in,
// each with its owning process.
//
// Sockets come from the kernel's sock_diag netlink interface (one dump per
// family and protocol), falling back per table to /proc/net/* when a dump is
// refused. A host root other than "/" is a snapshot: only the /proc files
// under it are read. Owners come from the "socket:[inode]" links in
// /proc/<pid>/fd; the lowest pid holding a socket is its owner.
#include "network/netlink_collector.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace amsvc {
namespace netlink {

namespace {

// Ceilings that keep a hostile or enormous host from exhausting memory or time.
constexpr size_t kMaxSocks = 2000000;          // sockets kept in one collection
constexpr size_t kMaxTableBytes = 512u << 20;  // bytes read of one /proc/net table
constexpr size_t kMaxLine = 4096;              // longer table lines are skipped
constexpr size_t kMaxFdsPerProc = 4u << 20;    // fd entries looked at per process
constexpr int kDiagTimeoutSec = 5;             // a silent kernel ends a dump

// All TCP states from ESTABLISHED (1) to NEW_SYN_RECV (12); bound-only TCP
// sockets (13) are left out, as /proc/net/tcp leaves them out.
constexpr uint32_t kDiagStates = 0x1fffu;

bool parse_hex32(std::string_view s, uint32_t& out) {
    if (s.empty() || s.size() > 8) return false;
    uint32_t v = 0;
    for (char c : s) {
        const int h = hex_value(c);
        if (h < 0) return false;
        v = (v << 4) | static_cast<uint32_t>(h);
    }
    out = v;
    return true;
}

// "0100007F:0016": the address is the kernel's in-memory words printed one
// 32-bit word at a time in host order, so copying each word back as a host
// integer restores the network byte order.
bool parse_endpoint(std::string_view s, int family, uint8_t* addr, uint16_t& port) {
    const size_t colon = s.find(':');
    if (colon == std::string_view::npos) return false;
    const std::string_view a = s.substr(0, colon);
    const std::string_view p = s.substr(colon + 1);
    const size_t words = family == AF_INET6 ? 4 : 1;
    if (a.size() != words * 8) return false;
    for (size_t i = 0; i < words; ++i) {
        uint32_t w;
        if (!parse_hex32(a.substr(i * 8, 8), w)) return false;
        memcpy(addr + i * 4, &w, 4);
    }
    uint32_t pv;
    if (p.size() > 4 || !parse_hex32(p, pv)) return false;
    port = static_cast<uint16_t>(pv);
    return true;
}

int diag_protocol(Proto p) {
    switch (p) {
        case Proto::kTcp:
            return IPPROTO_TCP;
        case Proto::kUdp:
            return IPPROTO_UDP;
        case Proto::kRaw:
            return IPPROTO_RAW;
    }
    return IPPROTO_TCP;
}

const char* table_name(Proto p, int family) {
    const bool v6 = family == AF_INET6;
    switch (p) {
        case Proto::kTcp:
            return v6 ? "tcp6" : "tcp";
        case Proto::kUdp:
            return v6 ? "udp6" : "udp";
        case Proto::kRaw:
            return v6 ? "raw6" : "raw";
    }
    return "tcp";
}

struct Table {
    Proto proto;
    int family;
};
constexpr Table kTables[] = {
    {Proto::kTcp, AF_INET},  {Proto::kTcp, AF_INET6}, {Proto::kUdp, AF_INET},
    {Proto::kUdp, AF_INET6}, {Proto::kRaw, AF_INET},  {Proto::kRaw, AF_INET6},
};

}  // namespace

bool parse_proc_net_line(std::string_view line, Proto proto, int family, Sock& out) {
    if (family != AF_INET && family != AF_INET6) return false;
    // sl local rem st tx:rx tr:when retrnsmt uid timeout inode ...
    std::string_view f[10];
    size_t n = 0, i = 0;
    while (n < 10 && i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        if (i >= line.size()) break;
        size_t j = i;
        while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
        f[n++] = line.substr(i, j - i);
        i = j;
    }
    if (n < 10) return false;
    if (f[0].size() < 2 || f[0].back() != ':') return false;
    Sock s;
    s.proto = proto;
    s.family = static_cast<uint8_t>(family);
    if (!parse_endpoint(f[1], family, s.laddr, s.lport)) return false;
    if (!parse_endpoint(f[2], family, s.raddr, s.rport)) return false;
    uint32_t st;
    if (f[3].size() > 2 || !parse_hex32(f[3], st)) return false;
    s.state = static_cast<uint8_t>(st);
    if (!parse_u64(f[9], s.inode)) return false;
    out = s;
    return true;
}

size_t parse_proc_net_table(std::string_view text, Proto proto, int family, std::vector<Sock>& out,
                            size_t max_socks) {
    size_t taken = 0;
    size_t pos = 0;
    while (pos < text.size() && out.size() < max_socks) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        const std::string_view line = text.substr(pos, nl - pos);
        pos = nl + 1;
        Sock s;
        if (line.size() <= kMaxLine && parse_proc_net_line(line, proto, family, s)) {
            out.push_back(s);
            ++taken;
        }
    }
    return taken;
}

bool parse_diag_msg(const void* data, size_t len, Proto proto, Sock& out) {
    if (!data || len < sizeof(inet_diag_msg)) return false;
    inet_diag_msg m;
    memcpy(&m, data, sizeof m);  // the bytes need not be aligned
    if (m.idiag_family != AF_INET && m.idiag_family != AF_INET6) return false;
    Sock s;
    s.proto = proto;
    s.family = m.idiag_family;
    s.state = m.idiag_state;
    const size_t alen = m.idiag_family == AF_INET6 ? 16 : 4;
    memcpy(s.laddr, m.id.idiag_src, alen);
    memcpy(s.raddr, m.id.idiag_dst, alen);
    s.lport = ntohs(m.id.idiag_sport);
    s.rport = ntohs(m.id.idiag_dport);
    s.inode = m.idiag_inode;
    out = s;
    return true;
}

DiagStatus parse_diag_buffer(const void* buf, size_t len, uint32_t seq, Proto proto, std::vector<Sock>& out,
                             int& err, size_t max_socks) {
    const auto* p = static_cast<const unsigned char*>(buf);
    size_t off = 0;
    while (p && len - off >= sizeof(nlmsghdr)) {
        nlmsghdr h;
        memcpy(&h, p + off, sizeof h);
        if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > len - off) {
            err = -EBADMSG;
            return DiagStatus::kError;
        }
        const unsigned char* payload = p + off + NLMSG_HDRLEN;
        const size_t plen = h.nlmsg_len >= NLMSG_HDRLEN ? h.nlmsg_len - NLMSG_HDRLEN : 0;
        if (h.nlmsg_seq == seq) {
            if (h.nlmsg_type == NLMSG_DONE) {
                // A dump that failed part way reports its errno here.
                int32_t code = 0;
                if (plen >= sizeof code) memcpy(&code, payload, sizeof code);
                if (code < 0) {
                    err = code;
                    return DiagStatus::kError;
                }
                return DiagStatus::kDone;
            }
            if (h.nlmsg_type == NLMSG_ERROR) {
                int32_t code = -EBADMSG;
                if (plen >= sizeof code) memcpy(&code, payload, sizeof code);
                err = code < 0 ? code : -EBADMSG;
                if (code == 0) err = -EBADMSG;  // an acknowledgement is no answer to a dump
                return DiagStatus::kError;
            }
            if (h.nlmsg_type == SOCK_DIAG_BY_FAMILY && out.size() < max_socks) {
                Sock s;
                if (parse_diag_msg(payload, plen, proto, s)) out.push_back(s);
            }
        }
        const size_t step = NLMSG_ALIGN(h.nlmsg_len);
        if (step >= len - off) break;
        off += step;
    }
    return DiagStatus::kMore;
}

bool parse_socket_link(std::string_view link, uint64_t& inode) {
    constexpr std::string_view kPrefix = "socket:[";
    if (link.size() < kPrefix.size() + 2 || !starts_with(link, kPrefix) || link.back() != ']') return false;
    return parse_u64(link.substr(kPrefix.size(), link.size() - kPrefix.size() - 1), inode);
}

bool parse_ns_link(std::string_view link, uint64_t& id) {
    constexpr std::string_view kPrefix = "net:[";
    if (link.size() < kPrefix.size() + 2 || !starts_with(link, kPrefix) || link.back() != ']') return false;
    return parse_u64(link.substr(kPrefix.size(), link.size() - kPrefix.size() - 1), id);
}

std::string proto_name(Proto proto, int family) { return table_name(proto, family); }

std::string state_name(Proto proto, uint8_t state) {
    // Datagram sockets only know "connected" or not, named as ss names them.
    if (proto != Proto::kTcp) {
        if (state == 7) return "UNCONN";
        if (state == 1) return "ESTAB";
    }
    static const char* const kNames[] = {
        "UNKNOWN", "ESTABLISHED", "SYN_SENT", "SYN_RECV", "FIN_WAIT1", "FIN_WAIT2",    "TIME_WAIT",
        "CLOSE",   "CLOSE_WAIT",  "LAST_ACK", "LISTEN",   "CLOSING",   "NEW_SYN_RECV", "BOUND_INACTIVE",
    };
    if (state < sizeof kNames / sizeof kNames[0]) return kNames[state];
    return "UNKNOWN";
}

std::string addr_text(int family, const uint8_t* addr) {
    char buf[INET6_ADDRSTRLEN];
    if (!inet_ntop(family == AF_INET6 ? AF_INET6 : AF_INET, addr, buf, sizeof buf)) return std::string();
    return buf;
}

AM::NetLinkInfo to_record(const Sock& s) {
    AM::NetLinkInfo r;
    r.proto = proto_name(s.proto, s.family);
    r.local_addr = addr_text(s.family, s.laddr);
    r.local_port = s.lport;
    r.remote_addr = addr_text(s.family, s.raddr);
    r.remote_port = s.rport;
    r.state = state_name(s.proto, s.state);
    r.pid = 0;
    return r;
}

namespace {

// Where the sockets of one collection come from, and what reading cost.
struct Reader {
    std::vector<Sock> socks;
    int tables_read = 0;  // tables (dumps or files) read successfully
    bool denied = false;  // some source existed but refused us
};

// Anything but absence means the source is there and refused us.
void note_failure(Reader& rd, int err) {
    if (err != -ENOENT && err != -ENOTDIR && err != -ESRCH) rd.denied = true;
}

// Streams one /proc/net table so a huge file costs no more memory than the
// sockets it holds; stops at kMaxTableBytes.
int read_table_file(Reader& rd, const std::string& path, Proto proto, int family) {
    // The table itself is never a symlink, not even on the live /proc.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
    if (fd < 0) return -errno;
    Fd guard(fd);
    struct stat st;
    if (::fstat(fd, &st) != 0) return -errno;
    if (!S_ISREG(st.st_mode)) return -EINVAL;
    std::unique_ptr<char[]> buf(new (std::nothrow) char[65536]);
    if (!buf) return -ENOMEM;
    std::string carry;      // an unfinished line from the previous chunk
    bool skipping = false;  // inside an over-long line
    size_t total = 0;
    while (total < kMaxTableBytes && rd.socks.size() < kMaxSocks) {
        const ssize_t n = ::read(fd, buf.get(), 65536);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (total == 0) return -errno;
            break;
        }
        if (n == 0) break;
        total += static_cast<size_t>(n);
        std::string_view chunk(buf.get(), static_cast<size_t>(n));
        while (!chunk.empty()) {
            const size_t nl = chunk.find('\n');
            if (nl == std::string_view::npos) {
                if (!skipping && carry.size() + chunk.size() <= kMaxLine) {
                    carry.append(chunk.data(), chunk.size());
                } else {
                    skipping = true;
                    carry.clear();
                }
                break;
            }
            const std::string_view piece = chunk.substr(0, nl);
            chunk.remove_prefix(nl + 1);
            if (skipping) {
                skipping = false;
                continue;
            }
            Sock s;
            if (carry.empty()) {
                if (piece.size() <= kMaxLine && parse_proc_net_line(piece, proto, family, s))
                    rd.socks.push_back(s);
            } else {
                if (carry.size() + piece.size() <= kMaxLine) {
                    carry.append(piece.data(), piece.size());
                    if (parse_proc_net_line(carry, proto, family, s)) rd.socks.push_back(s);
                }
                carry.clear();
            }
            if (rd.socks.size() >= kMaxSocks) break;
        }
    }
    // A last line without newline is still a line; one cut by the byte ceiling
    // usually fails to parse and is dropped.
    Sock s;
    if (!skipping && !carry.empty() && rd.socks.size() < kMaxSocks &&
        parse_proc_net_line(carry, proto, family, s))
        rd.socks.push_back(s);
    return 0;
}

int open_diag_socket() {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) return -errno;
    struct timeval tv = {kDiagTimeoutSec, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    return fd;
}

// One dump of one family and protocol. On failure nothing of it is kept, so
// the caller can fall back to the table file without duplicates.
int diag_dump(Reader& rd, int fd, uint32_t seq, Proto proto, int family, char* buf, size_t buflen) {
    struct {
        nlmsghdr nlh;
        inet_diag_req_v2 r;
    } req;
    memset(&req, 0, sizeof req);
    req.nlh.nlmsg_len = sizeof req;
    req.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    req.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.nlh.nlmsg_seq = seq;
    req.r.sdiag_family = static_cast<uint8_t>(family);
    req.r.sdiag_protocol = static_cast<uint8_t>(diag_protocol(proto));
    req.r.idiag_states = kDiagStates;
    // For raw sockets the spare byte names an IP protocol, but only lookups of
    // one socket use it: a dump lists raw sockets of every protocol.
    sockaddr_nl sa;
    memset(&sa, 0, sizeof sa);
    sa.nl_family = AF_NETLINK;
    ssize_t sent;
    do {
        sent = ::sendto(fd, &req, sizeof req, 0, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) return -errno;
    const size_t start = rd.socks.size();
    for (;;) {
        iovec iov = {buf, buflen};
        msghdr mh;
        memset(&mh, 0, sizeof mh);
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        const ssize_t n = ::recvmsg(fd, &mh, 0);
        int err = 0;
        if (n < 0) {
            if (errno == EINTR) continue;
            err = -errno;
        } else if (n == 0 || (mh.msg_flags & MSG_TRUNC)) {
            err = -EIO;
        } else {
            switch (parse_diag_buffer(buf, static_cast<size_t>(n), seq, proto, rd.socks, err, kMaxSocks)) {
                case DiagStatus::kDone:
                    return 0;
                case DiagStatus::kError:
                    break;
                case DiagStatus::kMore:
                    continue;
            }
        }
        rd.socks.resize(start);
        return err ? err : -EIO;
    }
}

// Reads the six tables of one namespace: by dump on `nlfd` when it is open,
// each refused dump replaced by the table file under `proc_net_dir`.
void read_namespace(Reader& rd, int nlfd, const std::string& proc_net_dir, uint32_t& seq, char* buf,
                    size_t buflen) {
    for (const Table& t : kTables) {
        if (rd.socks.size() >= kMaxSocks) return;
        int r = -ENOTCONN;
        if (nlfd >= 0) r = diag_dump(rd, nlfd, ++seq, t.proto, t.family, buf, buflen);
        if (r != 0)
            r = read_table_file(rd, proc_net_dir + "/" + table_name(t.proto, t.family), t.proto, t.family);
        if (r == 0) {
            ++rd.tables_read;
        } else {
            note_failure(rd, r);
        }
    }
}

// A netlink socket created inside another network namespace. setns runs on a
// thread of its own that ends right after, so no caller's thread ever changes
// namespace; the socket keeps the namespace it was created in.
struct NsSocketJob {
    int nsfd;
    int sock;
};

void* ns_socket_thread(void* arg) {
    auto* job = static_cast<NsSocketJob*>(arg);
    if (::setns(job->nsfd, CLONE_NEWNET) == 0)
        job->sock = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    return nullptr;
}

int diag_socket_in(const std::string& ns_path, uint64_t ns_id) {
    const int nsfd = ::open(ns_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (nsfd < 0) return -1;
    Fd guard(nsfd);
    struct stat st;
    // The pid may have been reused for a process elsewhere since the scan.
    if (::fstat(nsfd, &st) != 0 || static_cast<uint64_t>(st.st_ino) != ns_id) return -1;
    NsSocketJob job = {nsfd, -1};
    pthread_t th;
    if (::pthread_create(&th, nullptr, ns_socket_thread, &job) != 0) return -1;
    ::pthread_join(th, nullptr);
    if (job.sock >= 0) {
        struct timeval tv = {kDiagTimeoutSec, 0};
        ::setsockopt(job.sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        ::setsockopt(job.sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    }
    return job.sock;
}

struct ProcScan {
    std::unordered_map<uint64_t, int32_t> owner;      // socket inode -> lowest pid
    std::vector<std::pair<uint64_t, int32_t>> netns;  // namespace id -> first pid
};

bool parse_pid(const char* name, int32_t& pid) {
    int64_t v;
    if (!parse_i64(name, v) || v <= 0 || v > INT32_MAX) return false;
    pid = static_cast<int32_t>(v);
    return true;
}

// A process's descriptors, listed with getdents64 itself: a DIR would cost an
// fstat and two fcntl per process, a third of the scan's system calls.
void scan_fds(int procfd, const char* pidname, int32_t pid, ProcScan& scan) {
    char name[32];
    snprintf(name, sizeof name, "%s/fd", pidname);
    const int dfd = ::openat(procfd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    if (dfd < 0) return;
    Fd guard(dfd);
    alignas(struct dirent64) char buf[16384];
    size_t seen = 0;
    char link[64];
    for (;;) {
        const ssize_t n = ::getdents64(dfd, buf, sizeof buf);
        if (n <= 0) return;
        for (ssize_t off = 0; off < n;) {
            const struct dirent64* e = reinterpret_cast<const struct dirent64*>(buf + off);
            if (e->d_reclen == 0) return;
            off += e->d_reclen;
            if (++seen > kMaxFdsPerProc) return;
            if (e->d_name[0] == '.') continue;
            if (e->d_type != DT_LNK && e->d_type != DT_UNKNOWN) continue;
            const ssize_t len = ::readlinkat(dfd, e->d_name, link, sizeof link);
            if (len <= 0 || static_cast<size_t>(len) >= sizeof link) continue;
            uint64_t inode;
            if (parse_socket_link(std::string_view(link, static_cast<size_t>(len)), inode))
                scan.owner.emplace(inode, pid);  // pids come in ascending order: the first stays
        }
    }
}

// `proc` names the root's /proc: "/proc" on the live host, else
// "/proc/self/fd/<n>" of the procfs open_host_proc found at the image's /proc.
void scan_processes(const std::string& proc, ProcScan& scan) {
    const int procfd = ::open(proc.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (procfd < 0) return;
    Fd guard(procfd);
    std::vector<int32_t> pids;
    {
        const int dfd = ::dup(procfd);
        DIR* d = dfd < 0 ? nullptr : ::fdopendir(dfd);
        if (!d) {
            if (dfd >= 0) ::close(dfd);
            return;
        }
        while (struct dirent* e = ::readdir(d)) {
            int32_t pid;
            if (parse_pid(e->d_name, pid)) pids.push_back(pid);
        }
        ::closedir(d);
    }
    std::sort(pids.begin(), pids.end());
    std::unordered_set<uint64_t> seen_ns;
    char pidname[16], link[64];
    for (int32_t pid : pids) {
        snprintf(pidname, sizeof pidname, "%d", static_cast<int>(pid));
        char nspath[32];
        snprintf(nspath, sizeof nspath, "%s/ns/net", pidname);
        const ssize_t len = ::readlinkat(procfd, nspath, link, sizeof link);
        uint64_t ns;
        if (len > 0 && static_cast<size_t>(len) < sizeof link &&
            parse_ns_link(std::string_view(link, static_cast<size_t>(len)), ns) && seen_ns.insert(ns).second)
            scan.netns.emplace_back(ns, pid);
        scan_fds(procfd, pidname, pid, scan);
    }
}

struct ProcFacts {
    bool alive = false;
    std::string comm;
    std::string exe;
};

const ProcFacts& proc_facts(const std::string& proc, int32_t pid,
                            std::unordered_map<int32_t, ProcFacts>& cache) {
    auto it = cache.find(pid);
    if (it != cache.end()) return it->second;
    ProcFacts f;
    const std::string base = proc + "/" + std::to_string(pid);
    std::string comm;
    const int r = read_file(base + "/comm", comm, 256);
    if (r == 0) {
        f.alive = true;
        f.comm = std::string(trim(comm));
        f.exe = read_link(base + "/exe");
    } else if (r != -ENOENT && r != -ESRCH) {
        // Still there, only unreadable: keep the owner, without names.
        f.alive = true;
        f.exe = read_link(base + "/exe");
    }
    return cache.emplace(pid, std::move(f)).first->second;
}

// Each socket once: an inode names one socket system-wide; inode-less
// sockets (TIME_WAIT, request sockets) by their whole identity and namespace.
void dedupe(std::vector<Sock>& socks, const std::vector<size_t>& ns_start) {
    std::unordered_set<uint64_t> inodes[3];
    std::set<std::string> anonymous;
    size_t ns_index = 0;
    size_t w = 0;
    for (size_t i = 0; i < socks.size(); ++i) {
        while (ns_index + 1 < ns_start.size() && i >= ns_start[ns_index + 1]) ++ns_index;
        const Sock& s = socks[i];
        bool keep;
        if (s.inode != 0) {
            keep = inodes[static_cast<int>(s.proto)].insert(s.inode).second;
        } else {
            std::string key;
            key.reserve(48);
            key.push_back(static_cast<char>(s.proto));
            key.push_back(static_cast<char>(s.family));
            key.push_back(static_cast<char>(s.state));
            key.append(reinterpret_cast<const char*>(s.laddr), sizeof s.laddr);
            key.append(reinterpret_cast<const char*>(s.raddr), sizeof s.raddr);
            key.append(std::to_string(s.lport) + ":" + std::to_string(s.rport) + "@" +
                       std::to_string(ns_index));
            keep = anonymous.insert(std::move(key)).second;
        }
        if (keep) socks[w++] = s;
    }
    socks.resize(w);
}

int32_t collect(const HostRoot& root, std::vector<AM::NetLinkInfo>& out, const Options& opt) {
    out.clear();
    const bool live = root.is_live_host();
    const bool use_netlink = live && opt.use_netlink;
    Reader rd;

    // Under an image only a real procfs mounted at its /proc counts.
    Fd procfd(open_host_proc(root));
    if (procfd.get() < 0) return procfd.get() == -EACCES ? -EACCES : -ENOENT;
    const std::string proc = live ? std::string("/proc") : "/proc/self/fd/" + std::to_string(procfd.get());

    ProcScan scan;
    scan_processes(proc, scan);

    // The namespace the caller's thread is in, which its own dump covers.
    uint64_t own_ns = 0;
    for (const char* p : {"/thread-self/ns/net", "/self/ns/net", "/1/ns/net"}) {
        if (parse_ns_link(read_link(proc + p), own_ns)) break;
        own_ns = 0;
    }

    const size_t buflen = 65536;
    std::unique_ptr<char[]> buf;
    if (use_netlink) buf.reset(new (std::nothrow) char[buflen]);
    uint32_t seq = 0;
    std::vector<size_t> ns_start;

    {
        ns_start.push_back(rd.socks.size());
        const int nl = use_netlink && buf ? open_diag_socket() : -1;
        Fd guard(nl);
        std::string dir = proc + "/net";
        if (live && ::access("/proc/thread-self/net", R_OK) == 0) dir = "/proc/thread-self/net";
        read_namespace(rd, nl, dir, seq, buf.get(), buflen);
    }
    if (opt.other_namespaces) {
        for (const auto& ns : scan.netns) {
            if (ns.first == own_ns || rd.socks.size() >= kMaxSocks) continue;
            ns_start.push_back(rd.socks.size());
            const std::string base = proc + "/" + std::to_string(ns.second);
            const int nl = use_netlink && buf ? diag_socket_in(base + "/ns/net", ns.first) : -1;
            Fd guard(nl);
            read_namespace(rd, nl, base + "/net", seq, buf.get(), buflen);
        }
    }
    if (rd.tables_read == 0) return rd.denied ? -EACCES : -ENOENT;

    dedupe(rd.socks, ns_start);

    std::unordered_map<int32_t, ProcFacts> facts;
    out.reserve(rd.socks.size());
    for (const Sock& s : rd.socks) {
        AM::NetLinkInfo r = to_record(s);
        if (s.inode != 0) {
            const auto it = scan.owner.find(s.inode);
            if (it != scan.owner.end()) {
                const ProcFacts& f = proc_facts(proc, it->second, facts);
                if (f.alive) {
                    r.pid = it->second;
                    r.proc_name = f.comm;
                    r.proc_path = f.exe;
                }
            }
        }
        out.push_back(std::move(r));
    }
    return 0;
}

}  // namespace

int32_t collect_netlinks_with(const HostRoot& root, std::vector<AM::NetLinkInfo>& out, const Options& opt) {
    return guarded(out, [&] { return collect(root, out, opt); });
}

}  // namespace netlink

int32_t collect_netlinks(const HostRoot& root, std::vector<AM::NetLinkInfo>& out) {
    return netlink::collect_netlinks_with(root, out, netlink::Options());
}

}  // namespace amsvc
