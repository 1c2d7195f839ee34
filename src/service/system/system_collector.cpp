// System facts: identity of the host, memory and processors, environment,
// network cards, mounted disks and exported shares.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <utility>

#include "collectors.h"
#include "system/net_cards.h"
#include "system/sysfacts.h"

namespace amsvc {

namespace {

constexpr size_t kSmallFile = 1u << 20;  // config and /proc texts of this kind are far smaller

// Shell-style value of os-release and /etc/environment: one pair of outer
// quotes removed; inside double quotes (and unquoted) a backslash escapes the
// next character.
std::string unquote_shell(std::string_view v) {
    v = trim(v);
    std::string out;
    if (v.size() >= 2 && v.front() == '\'' && v.back() == '\'') {
        out.assign(v.substr(1, v.size() - 2));
        return out;
    }
    if (v.size() >= 2 && v.front() == '"' && v.back() == '"') v = v.substr(1, v.size() - 2);
    for (size_t i = 0; i < v.size(); ++i) {
        if (v[i] == '\\' && i + 1 < v.size()) ++i;
        out += v[i];
    }
    return out;
}

bool valid_env_name(std::string_view k) {
    if (k.empty() || (k[0] >= '0' && k[0] <= '9')) return false;
    for (char c : k)
        if (!(c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')))
            return false;
    return true;
}

// "\040" style octal escapes of /proc/mounts and /etc/exports.
std::string unescape_octal(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size()) {
            const char a = s[i + 1], b = s[i + 2], c = s[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
                out += static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0'));
                i += 3;
                continue;
            }
        }
        out += s[i];
    }
    return out;
}

bool parse_hex32(std::string_view s, uint32_t& out) {
    if (s.empty() || s.size() > 8) return false;
    uint32_t v = 0;
    for (char c : s) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return false;
        v = v * 16 + static_cast<uint32_t>(d);
    }
    out = v;
    return true;
}

// 32 hex digits of /proc/net/ipv6_route and if_inet6 to the printed address.
bool hex_to_ipv6(std::string_view hex, std::string& out) {
    if (hex.size() != 32) return false;
    unsigned char bytes[16];
    for (int i = 0; i < 16; ++i) {
        uint32_t v;
        if (!parse_hex32(hex.substr(static_cast<size_t>(i) * 2, 2), v)) return false;
        bytes[i] = static_cast<unsigned char>(v);
    }
    char buf[INET6_ADDRSTRLEN];
    if (!inet_ntop(AF_INET6, bytes, buf, sizeof buf)) return false;
    out = buf;
    return true;
}

std::string join(const std::vector<std::string>& v, const char* sep = ",") {
    std::string out;
    for (const std::string& s : v) {
        if (!out.empty()) out += sep;
        out += s;
    }
    return out;
}

void add_unique(std::vector<std::string>& v, const std::string& s) {
    if (!s.empty() && std::find(v.begin(), v.end(), s) == v.end()) v.push_back(s);
}

std::string first_line(const HostRoot& root, const std::string& host_path) {
    std::string text;
    if (read_host_file(root, host_path, text, 4096) != 0) return std::string();
    const size_t nl = text.find('\n');
    if (nl != std::string::npos) text.resize(nl);
    return std::string(trim(text));
}

// Reads a configuration file of the host. Under an image root its links are
// followed inside that root, so "/etc/os-release -> /usr/lib/os-release"
// reads the image's file, never the running host's.
int read_config(const HostRoot& root, const std::string& host_path, std::string& out,
                size_t max = kSmallFile) {
    if (root.is_live_host()) return read_file(host_path, out, max);
    const std::string p = resolve_host_path(root, host_path);
    if (p.empty()) {
        out.clear();
        return -ENOENT;
    }
    return read_host_file(root, p, out, max);
}

}  // namespace

// ---- parsers -------------------------------------------------------------

std::string parse_os_release(std::string_view text) {
    std::string pretty, name, version;
    for (std::string_view line : split_lines(text)) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = trim(line.substr(0, eq));
        if (key == "PRETTY_NAME")
            pretty = unquote_shell(line.substr(eq + 1));
        else if (key == "NAME")
            name = unquote_shell(line.substr(eq + 1));
        else if (key == "VERSION")
            version = unquote_shell(line.substr(eq + 1));
    }
    if (!pretty.empty()) return pretty;
    if (!version.empty()) return name.empty() ? version : name + " " + version;
    return name;
}

std::vector<std::string> parse_environment(std::string_view text) {
    std::vector<std::string> out;
    for (std::string_view line : split_lines(text)) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        if (starts_with(line, "export ") || starts_with(line, "export\t")) line = trim(line.substr(7));
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = trim(line.substr(0, eq));
        if (!valid_env_name(key)) continue;
        out.push_back(std::string(key) + "=" + unquote_shell(line.substr(eq + 1)));
    }
    return out;
}

std::string parse_meminfo(std::string_view text) {
    for (std::string_view line : split_lines(text)) {
        if (!starts_with(line, "MemTotal:")) continue;
        const auto f = split_ws(line.substr(9));
        uint64_t kb;
        if (f.empty() || !parse_u64(f[0], kb) || kb > (UINT64_MAX >> 10)) return std::string();
        const uint64_t bytes = kb << 10;  // /proc/meminfo's "kB" is KiB
        char buf[96];
        snprintf(buf, sizeof buf, "MemTotal %.1f GiB (%llu bytes)", static_cast<double>(bytes) / (1u << 30),
                 static_cast<unsigned long long>(bytes));
        return buf;
    }
    return std::string();
}

std::string parse_cpuinfo(std::string_view text) {
    std::string model;
    int model_rank = 99;
    // Field that names the processor, best first (x86, then arm/ppc/s390/mips).
    static const char* const kModelKeys[] = {"model name", "Model", "cpu model", "cpu", "Processor", "uarch"};
    unsigned logical = 0;
    std::set<std::pair<std::string, std::string>> cores;
    std::string phys;
    for (std::string_view line : split_lines(text)) {
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view key = trim(line.substr(0, colon));
        const std::string_view val = trim(line.substr(colon + 1));
        if (key == "processor") {
            uint64_t n;
            if (parse_u64(val, n)) ++logical;
            phys.clear();
            continue;
        }
        if (key == "physical id")
            phys = std::string(val);
        else if (key == "core id")
            cores.emplace(phys, std::string(val));
        for (int i = 0; i < static_cast<int>(sizeof kModelKeys / sizeof kModelKeys[0]); ++i)
            if (key == kModelKeys[i] && i < model_rank && !val.empty()) {
                model = std::string(val);
                model_rank = i;
            }
    }
    if (logical == 0 && model.empty()) return std::string();
    if (logical == 0) logical = 1;
    const size_t ncores = cores.empty() ? logical : cores.size();
    char buf[64];
    snprintf(buf, sizeof buf, " x %u (%zu cores)", logical, ncores);
    return (model.empty() ? std::string("unknown") : model) + buf;
}

std::vector<MountEntry> parse_mounts(std::string_view text) {
    std::vector<MountEntry> out;
    for (std::string_view line : split_lines(text)) {
        const auto f = split_ws(line);
        if (f.size() < 3) continue;
        out.push_back(MountEntry{unescape_octal(f[0]), unescape_octal(f[1]), unescape_octal(f[2])});
    }
    return out;
}

bool is_pseudo_fs(std::string_view t) {
    static const char* const kPseudo[] = {
        "proc",      "sysfs",   "devtmpfs",    "tmpfs",    "ramfs",      "devpts",   "mqueue",
        "debugfs",   "tracefs", "securityfs",  "pstore",   "bpf",        "configfs", "fusectl",
        "hugetlbfs", "autofs",  "binfmt_misc", "efivarfs", "rpc_pipefs", "nsfs",     "selinuxfs",
        "cgroup",    "cgroup2", "nfsd",        "sockfs",   "pipefs",     "rootfs",   "overlayfs_internal",
        "usbfs",     "xenfs",   "none"};
    for (const char* p : kPseudo)
        if (t == p) return true;
    return false;
}

bool is_remote_fs(std::string_view t) {
    static const char* const kRemote[] = {"nfs",   "nfs4", "cifs",      "smb3",   "smbfs", "ncpfs",
                                          "afs",   "ceph", "glusterfs", "lustre", "9p",    "davfs",
                                          "sshfs", "gfs2", "ocfs2",     "coda"};
    for (const char* p : kRemote)
        if (t == p) return true;
    // FUSE answers through a user-space daemon that may be stuck.
    return starts_with(t, "fuse");
}

std::map<std::string, std::string> parse_route_v4(std::string_view text) {
    std::map<std::string, std::string> out;
    std::map<std::string, uint64_t> best_metric;
    for (std::string_view line : split_lines(text)) {
        const auto f = split_ws(line);
        if (f.size() < 8 || f[0] == "Iface") continue;
        uint32_t dest, gw, flags, mask;
        uint64_t metric = 0;
        if (!parse_hex32(f[1], dest) || !parse_hex32(f[2], gw) || !parse_hex32(f[3], flags) ||
            !parse_hex32(f[7], mask))
            continue;
        parse_u64(f[6], metric);
        // default route through a gateway that is up (RTF_UP | RTF_GATEWAY)
        if (dest != 0 || mask != 0 || (flags & 0x3) != 0x3 || gw == 0) continue;
        const std::string ifname(f[0]);
        auto bm = best_metric.find(ifname);
        if (bm != best_metric.end() && bm->second <= metric) continue;
        struct in_addr a;
        memcpy(&a, &gw, sizeof a);  // the kernel prints the address in host order
        char buf[INET_ADDRSTRLEN];
        if (!inet_ntop(AF_INET, &a, buf, sizeof buf)) continue;
        out[ifname] = buf;
        best_metric[ifname] = metric;
    }
    return out;
}

std::map<std::string, std::string> parse_route_v6(std::string_view text) {
    std::map<std::string, std::string> out;
    std::map<std::string, uint32_t> best_metric;
    constexpr std::string_view kZero = "00000000000000000000000000000000";
    for (std::string_view line : split_lines(text)) {
        const auto f = split_ws(line);
        if (f.size() < 10) continue;
        uint32_t plen, metric, flags;
        if (f[0] != kZero || !parse_hex32(f[1], plen) || plen != 0) continue;
        if (f[4] == kZero || !parse_hex32(f[5], metric) || !parse_hex32(f[8], flags)) continue;
        if ((flags & 0x3) != 0x3) continue;
        std::string gw;
        if (!hex_to_ipv6(f[4], gw)) continue;
        const std::string ifname(f[9]);
        auto bm = best_metric.find(ifname);
        if (bm != best_metric.end() && bm->second <= metric) continue;
        out[ifname] = gw;
        best_metric[ifname] = metric;
    }
    return out;
}

std::map<std::string, std::vector<std::string>> parse_if_inet6(std::string_view text) {
    std::map<std::string, std::vector<std::string>> out;
    for (std::string_view line : split_lines(text)) {
        const auto f = split_ws(line);
        if (f.size() < 6) continue;
        std::string addr;
        uint32_t plen;
        if (!hex_to_ipv6(f[0], addr) || !parse_hex32(f[2], plen) || plen > 128) continue;
        out[std::string(f[5])].push_back(addr + "/" + std::to_string(plen));
    }
    return out;
}

std::vector<AM::NetShareInfo> parse_exports(std::string_view text) {
    std::vector<AM::NetShareInfo> out;
    for (const std::string& l : join_continued_lines(text, false)) {
        std::string_view line = trim(l);
        if (line.empty() || line[0] == '#') continue;
        std::string path;
        if (line[0] == '"') {
            const size_t end = line.find('"', 1);
            if (end == std::string_view::npos) continue;
            path = unescape_octal(line.substr(1, end - 1));
        } else {
            const auto f = split_ws(line);
            path = unescape_octal(f[0]);
        }
        if (path.empty() || path[0] != '/') continue;
        AM::NetShareInfo s;
        s.name = path;
        s.path = path;
        s.max_conn = -1;
        s.cur_conn = -1;
        out.push_back(std::move(s));
    }
    return out;
}

std::vector<AM::NetShareInfo> parse_smb_conf(std::string_view text) {
    constexpr int32_t kUnset = INT32_MIN;
    struct Section {
        std::string name, path;
        int32_t max_conn = kUnset;
        bool available = true;
    };
    std::vector<Section> sections;
    int32_t global_max = -1;  // the default: no limit
    bool in_global = false;
    for (const std::string& l : join_continued_lines(text, false)) {
        std::string_view line = trim(l);
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (line[0] == '[') {
            const size_t end = line.find(']');
            // A broken header opens a section whose parameters are ignored.
            const std::string name(end == std::string_view::npos ? "" : trim(line.substr(1, end - 1)));
            in_global = ascii_lower(name) == "global";
            if (!in_global && !name.empty())
                sections.push_back(Section{name, "", kUnset, true});
            else if (!in_global)
                sections.push_back(Section{"", "", kUnset, false});
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        // Parameter names ignore case and blanks: "max connections" == "MaxConnections".
        std::string key;
        for (char c : line.substr(0, eq))
            if (c != ' ' && c != '\t') key += static_cast<char>((c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c);
        const std::string_view val = trim(line.substr(eq + 1));
        if (key == "maxconnections") {
            // Read as Samba reads integers (strtol, base 0: "0x10", "010",
            // "12abc" = 12, junk = 0); 0 or less is "no limit" and, set in a
            // share, overrides [global].
            const std::string digits(val);
            const long n = strtol(digits.c_str(), nullptr, 0);
            const int32_t v = n > 0 ? static_cast<int32_t>(std::min<long>(n, INT32_MAX)) : -1;
            if (in_global)
                global_max = v;
            else if (!sections.empty())
                sections.back().max_conn = v;
        } else if (in_global || sections.empty()) {
            continue;
        } else if (key == "path" || key == "directory") {
            sections.back().path = std::string(val);
        } else if (key == "available") {
            const std::string v = ascii_lower(val);
            sections.back().available = !(v == "no" || v == "false" || v == "0");
        }
    }
    std::vector<AM::NetShareInfo> out;
    for (const Section& s : sections) {
        if (!s.available || s.name.empty()) continue;
        AM::NetShareInfo r;
        r.name = s.name;
        r.path = s.path;
        r.max_conn = s.max_conn == kUnset ? global_max : s.max_conn;
        r.cur_conn = -1;
        out.push_back(std::move(r));
    }
    return out;
}

// ---- collection ----------------------------------------------------------

namespace {

std::string uname_machine() {
    struct utsname u;
    if (uname(&u) != 0) return std::string();
    return u.machine;
}

bool arch_is_64(const std::string& a) {
    return ends_with(a, "64") || ends_with(a, "64le") || ends_with(a, "64be") || a == "s390x" || a == "alpha";
}

// statvfs of a file system that may hang (NFS server gone, stuck FUSE
// daemon) runs on a worker with a deadline. A worker that never comes back
// stays parked; past a few of those remote file systems are not asked at all.
std::atomic<int> g_stuck_workers{0};

}  // namespace

std::string elf_arch(std::string_view h) {
    if (h.size() < 20 || h.substr(0, 4) != "\x7f" "ELF") return std::string();
    const bool is64 = h[4] == 2;
    const bool le = h[5] == 1;
    const auto b = [&](size_t i) { return static_cast<unsigned>(static_cast<unsigned char>(h[i])); };
    const unsigned machine = le ? (b(18) | b(19) << 8) : (b(18) << 8 | b(19));
    switch (machine) {
        case 3: return "i686";
        case 62: return "x86_64";
        case 183: return "aarch64";
        case 40: return le ? "armv7l" : "armv7b";
        case 20: return "ppc";
        case 21: return le ? "ppc64le" : "ppc64";
        case 22: return is64 ? "s390x" : "s390";
        case 8: return is64 ? (le ? "mips64el" : "mips64") : (le ? "mipsel" : "mips");
        case 243: return is64 ? "riscv64" : "riscv32";
        case 258: return "loongarch64";
        case 2: return is64 ? "sparc64" : "sparc";
        case 43: return "sparc64";
        default: return std::string();
    }
}

std::string image_arch(const HostRoot& root) {
    // Programs every image has; read inside the image, links resolved there.
    for (const char* prog : {"/bin/sh", "/usr/bin/env", "/bin/busybox", "/sbin/init", "/usr/bin/ls"}) {
        std::string head;
        if (read_host_file(root, prog, head, 64) != 0) continue;
        const std::string a = elf_arch(head);
        if (!a.empty()) return a;
    }
    return std::string();
}

bool statvfs_guarded(const std::string& path, bool may_hang, struct statvfs& st) {
    if (!may_hang) return ::statvfs(path.c_str(), &st) == 0;
    if (g_stuck_workers.load() >= 4) return false;
    struct Shared {
        std::mutex mu;
        std::condition_variable cv;
        bool done = false;
        bool ok = false;
        bool abandoned = false;
        struct statvfs st;
    };
    auto sh = std::make_shared<Shared>();
    try {
        std::thread([sh, path] {
            struct statvfs s;
            const bool ok = ::statvfs(path.c_str(), &s) == 0;
            std::lock_guard<std::mutex> lock(sh->mu);
            sh->done = true;
            sh->ok = ok;
            sh->st = s;
            if (sh->abandoned) g_stuck_workers.fetch_sub(1);
            sh->cv.notify_all();
        }).detach();
    } catch (...) {
        return false;
    }
    std::unique_lock<std::mutex> lock(sh->mu);
    if (!sh->cv.wait_for(lock, std::chrono::milliseconds(1500), [&] { return sh->done; })) {
        sh->abandoned = true;
        g_stuck_workers.fetch_add(1);
        return false;
    }
    if (sh->ok) st = sh->st;
    return sh->ok;
}

namespace {

void collect_disks(const HostRoot& root, std::vector<AM::DiskInfo>& out) {
    std::string text;
    if (read_host_file(root, "/proc/self/mounts", text, kSmallFile) != 0 &&
        read_host_file(root, "/proc/mounts", text, kSmallFile) != 0)
        return;
    const std::vector<MountEntry> mounts = parse_mounts(text);
    // A later mount on the same point hides the earlier one.
    std::map<std::string, size_t> last;
    for (size_t i = 0; i < mounts.size(); ++i) last[mounts[i].mount_point] = i;
    for (size_t i = 0; i < mounts.size(); ++i) {
        const MountEntry& m = mounts[i];
        if (last[m.mount_point] != i || is_pseudo_fs(m.fs_type)) continue;
        AM::DiskInfo d;
        d.name = m.mount_point;
        d.desc = m.device;
        d.fs = m.fs_type;
        d.size = -1;
        d.free = -1;
        d.percent = -1;
        if (root.is_live_host()) {
            struct statvfs st;
            if (statvfs_guarded(m.mount_point, is_remote_fs(m.fs_type), st)) {
                if (st.f_blocks == 0) continue;  // no storage behind it
                const uint64_t fr = st.f_frsize ? st.f_frsize : st.f_bsize;
                const uint64_t used = (st.f_blocks - std::min(st.f_bfree, st.f_blocks)) * fr;
                const uint64_t avail = static_cast<uint64_t>(st.f_bavail) * fr;
                d.size = static_cast<int64_t>(static_cast<uint64_t>(st.f_blocks) * fr);
                d.free = static_cast<int64_t>(avail);
                d.percent =
                    used + avail ? 100.0 * static_cast<double>(used) / static_cast<double>(used + avail) : 0;
            }
        }
        out.push_back(std::move(d));
    }
}

struct CardBuild {
    AM::NetworkCardInfo info;
    std::vector<std::string> v4, v6, masks, broads;
};

CardBuild& card(std::vector<CardBuild>& cards, const std::string& name) {
    for (CardBuild& c : cards)
        if (c.info.name == name) return c;
    cards.emplace_back();
    cards.back().info.name = name;
    cards.back().info.mtu = -1;
    return cards.back();
}

std::string mask_v4(int prefix) {
    if (prefix < 0 || prefix > 32) return std::string();
    const uint32_t m = prefix == 0 ? 0 : htonl(~uint32_t(0) << (32 - prefix));
    char buf[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &m, buf, sizeof buf);
    return buf;
}

void collect_cards(const HostRoot& root, std::vector<AM::NetworkCardInfo>& out) {
    std::vector<CardBuild> cards;
    std::vector<RtLink> links;
    std::vector<RtAddr> addrs;
    const bool live = root.is_live_host() && dump_interfaces(links, addrs) == 0;
    if (live) {
        // Addresses belong to the interface of their index; a label such as
        // "lo:fld" is no interface of its own.
        std::map<int, size_t> by_index;
        for (const RtLink& l : links) {
            if (!by_index.emplace(l.index, cards.size()).second) continue;
            cards.emplace_back();
            cards.back().info.name = l.name;
            cards.back().info.mac = l.mac;
            cards.back().info.mtu = l.mtu;
        }
        for (const RtAddr& a : addrs) {
            auto it = by_index.find(a.index);
            if (it == by_index.end()) continue;
            CardBuild* c = &cards[it->second];
            if (a.family == AF_INET) {
                c->v4.push_back(a.addr);
                c->masks.push_back(mask_v4(a.prefix));
                add_unique(c->broads, a.broadcast);
            } else {
                c->v6.push_back(a.addr + "/" + std::to_string(a.prefix));
            }
        }
    } else {
        std::string text;
        read_host_file(root, "/proc/net/if_inet6", text, kSmallFile);
        const auto v6 = parse_if_inet6(text);
        std::vector<std::string> names = list_host_dir(root, "/sys/class/net");
        std::sort(names.begin(), names.end());
        for (const std::string& n : names)
            card(cards, n).v6 = v6.count(n) ? v6.at(n) : std::vector<std::string>();
    }
    std::string text;
    read_host_file(root, "/proc/net/route", text, kSmallFile);
    const auto gw4 = parse_route_v4(text);
    read_host_file(root, "/proc/net/ipv6_route", text, kSmallFile);
    const auto gw6 = parse_route_v6(text);
    for (CardBuild& c : cards) {
        // Interface names never hold '/', so this stays inside /sys/class/net.
        if (c.info.name.find('/') != std::string::npos || c.info.name == "." || c.info.name == "..") continue;
        if (!live) {
            const std::string dir = "/sys/class/net/" + c.info.name;
            c.info.mac = first_line(root, dir + "/address");
            int64_t mtu;
            if (parse_i64(first_line(root, dir + "/mtu"), mtu) && mtu >= 0 && mtu <= INT32_MAX)
                c.info.mtu = static_cast<int32_t>(mtu);
        }
        c.info.ipv4 = join(c.v4);
        c.info.mask = join(c.masks);
        c.info.ipv6 = join(c.v6);
        c.info.broad = join(c.broads);
        std::vector<std::string> gws;
        if (gw4.count(c.info.name)) gws.push_back(gw4.at(c.info.name));
        if (gw6.count(c.info.name)) gws.push_back(gw6.at(c.info.name));
        c.info.gateway = join(gws);
        out.push_back(std::move(c.info));
    }
}

}  // namespace

int32_t collect_system_facts(const HostRoot& root, AM::SystemInfo& out) {
    return guarded([&]() -> int32_t {
        out = AM::SystemInfo();
        std::string text;
        if (root.is_live_host()) {
            out.host = first_line(root, "/proc/sys/kernel/hostname");
            if (out.host.empty()) {
                struct utsname u;
                if (uname(&u) == 0) out.host = u.nodename;
            }
        } else {
            if (read_config(root, "/etc/hostname", text, 4096) == 0) {
                for (std::string_view line : split_lines(text)) {
                    line = trim(line);
                    if (line.empty() || line[0] == '#') continue;
                    out.host = std::string(line);
                    break;
                }
            }
        }
        if (read_config(root, "/etc/os-release", text) != 0) read_config(root, "/usr/lib/os-release", text);
        out.version = parse_os_release(text);
        out.kernel_version = first_line(root, "/proc/sys/kernel/osrelease");
        if (out.kernel_version.empty() && root.is_live_host()) {
            struct utsname u;
            if (uname(&u) == 0) out.kernel_version = u.release;
        }
        out.arch = root.is_live_host() ? uname_machine() : image_arch(root);
        out.b64 = arch_is_64(out.arch);
        out.Manufacturer = first_line(root, "/sys/class/dmi/id/sys_vendor");
        out.product = first_line(root, "/sys/class/dmi/id/product_name");
        out.Serial = first_line(root, "/sys/class/dmi/id/product_serial");
        if (read_host_file(root, "/proc/meminfo", text, kSmallFile) == 0) out.mem = parse_meminfo(text);
        if (read_host_file(root, "/proc/cpuinfo", text, 16u << 20) == 0) out.cpu = parse_cpuinfo(text);
        if (read_config(root, "/etc/environment", text) == 0) out.envs = parse_environment(text);
        collect_cards(root, out.network_card);
        collect_disks(root, out.disk);
        if (read_config(root, "/etc/exports", text) == 0) out.net_share = parse_exports(text);
        if (read_config(root, "/etc/samba/smb.conf", text) == 0) {
            for (AM::NetShareInfo& s : parse_smb_conf(text)) out.net_share.push_back(std::move(s));
        }
        if (out.host.empty() && out.version.empty() && out.kernel_version.empty() && out.disk.empty() &&
            out.network_card.empty())
            return -ENOENT;
        return 0;
    });
}

}  // namespace amsvc
