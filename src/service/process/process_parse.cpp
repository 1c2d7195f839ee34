#include "process/process_parse.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <sys/ioctl.h>

#include <charconv>
#include <cstring>
#include <unordered_set>

#include "core/common.h"

namespace amsvc {
namespace procfs {

namespace {

// Next blank-separated token of `s` from `pos`; empty at the end.
std::string_view next_token(std::string_view s, size_t& pos) {
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t')) ++pos;
    const size_t b = pos;
    while (pos < s.size() && s[pos] != ' ' && s[pos] != '\t' && s[pos] != '\n') ++pos;
    return s.substr(b, pos - b);
}

bool parse_hex(std::string_view s, uint64_t& out) {
    if (s.empty()) return false;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), out, 16);
    return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

}  // namespace

bool parse_stat(std::string_view text, Stat& out) {
    out = Stat();
    // The command name sits between the first '(' and the last ')': it may
    // itself contain parentheses, blanks and newlines.
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return false;
    std::string_view comm = text.substr(open + 1, close - open - 1);
    comm = comm.substr(0, comm.find('\0'));  // the kernel's name is a C string
    out.comm.assign(comm.data(), comm.size());

    // Fields from 3 on, counted after the name: 3 state, 4 ppid, 9 flags,
    // 14 utime, 15 stime, 22 starttime.
    std::string_view rest = text.substr(close + 1);
    size_t pos = 0;
    int field = 3;
    bool ok = true;
    for (; field <= 22; ++field) {
        const std::string_view tok = next_token(rest, pos);
        if (tok.empty()) return false;
        uint64_t u = 0;
        switch (field) {
            case 3:
                out.state = tok[0];
                break;
            case 4: {
                int64_t v = 0;
                if (!parse_i64(tok, v)) return false;
                out.ppid = v;
                break;
            }
            case 9:
                ok = parse_u64(tok, u);
                out.flags = u;
                break;
            case 14:
                ok = parse_u64(tok, u);
                out.utime = u;
                break;
            case 15:
                ok = parse_u64(tok, u);
                out.stime = u;
                break;
            case 22:
                ok = parse_u64(tok, u);
                out.starttime = u;
                break;
            default:
                break;
        }
        if (!ok) return false;
    }
    // The layout fields are optional: a bad or missing one stays zero.
    for (; field <= 51; ++field) {
        const std::string_view tok = next_token(rest, pos);
        if (tok.empty()) break;
        uint64_t* dst = nullptr;
        switch (field) {
            case 23: dst = &out.vsize; break;
            case 26: dst = &out.startcode; break;
            case 27: dst = &out.endcode; break;
            case 28: dst = &out.startstack; break;
            case 48: dst = &out.arg_start; break;
            case 49: dst = &out.arg_end; break;
            case 50: dst = &out.env_start; break;
            case 51: dst = &out.env_end; break;
            default: break;
        }
        uint64_t u = 0;
        if (dst && parse_u64(tok, u)) *dst = u;
    }
    return true;
}

bool parse_status_uid(std::string_view text, uint32_t& uid) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        const std::string_view line = text.substr(pos, nl - pos);
        pos = nl + 1;
        if (!starts_with(line, "Uid:")) continue;
        size_t p = 4;
        const std::string_view real = next_token(line, p);  // real, effective, saved, fs
        uint64_t v = 0;
        if (!parse_u64(real, v) || v > 0xffffffffu) return false;
        uid = static_cast<uint32_t>(v);
        return true;
    }
    return false;
}

bool parse_btime(std::string_view text, int64_t& btime) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        const std::string_view line = text.substr(pos, nl - pos);
        pos = nl + 1;
        if (!starts_with(line, "btime ")) continue;
        return parse_i64(trim(line.substr(6)), btime) && btime >= 0;
    }
    return false;
}

std::string join_nul(std::string_view raw, char sep) {
    while (!raw.empty() && raw.back() == '\0') raw.remove_suffix(1);
    std::string out(raw);
    for (char& c : out)
        if (c == '\0') c = sep;
    return out;
}

namespace {

// Backslashes and newlines escaped, so that no value reads as another entry.
void append_escaped(std::string& out, std::string_view s) {
    if (std::memchr(s.data(), '\\', s.size()) == nullptr && std::memchr(s.data(), '\n', s.size()) == nullptr) {
        out.append(s);
        return;
    }
    for (char c : s) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
}

// Appends `v` to `out` with every URL password replaced.
void append_without_url_passwords(std::string_view v, std::string& out) {
    size_t pos = 0;
    for (;;) {
        const size_t scheme = v.find("://", pos);
        if (scheme == std::string_view::npos) break;
        const size_t auth = scheme + 3;
        size_t end = v.find_first_of("/?#", auth);
        if (end == std::string_view::npos) end = v.size();
        const size_t at = v.substr(auth, end - auth).rfind('@');
        const size_t colon = at == std::string_view::npos ? at : v.substr(auth, at).find(':');
        if (colon == std::string_view::npos) {
            out.append(v.substr(pos, end - pos));
        } else {
            out.append(v.substr(pos, auth + colon + 1 - pos));
            out.append(kRedacted);
            out.append(v.substr(auth + at, end - auth - at));
        }
        pos = end;
    }
    out.append(v.substr(pos));
}

}  // namespace

bool secret_name(std::string_view name) {
    static constexpr std::string_view kInside[] = {"PASSWORD", "PASSWD",  "PASSPHRASE", "SECRET",
                                                   "TOKEN",    "CREDENTIAL", "PRIVATE", "APIKEY",
                                                   "API_KEY",  "ACCESS_KEY", "COOKIE"};
    static constexpr std::string_view kEnd[] = {"_KEY", "_PWD", "_PASS", "_PW"};
    // ASCII case folding only: the host's locale must not change what is a secret.
    char small[128];
    std::string large;
    char* up = small;
    if (name.size() > sizeof small) {
        large.resize(name.size());
        up = &large[0];
    }
    for (size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        up[i] = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    const std::string_view upper(up, name.size());
    for (std::string_view w : kInside)
        if (upper.find(w) != std::string_view::npos) return true;
    for (std::string_view w : kEnd)
        if (upper.size() >= w.size() && upper.substr(upper.size() - w.size()) == w) return true;
    return false;
}

std::string format_environ(std::string_view raw) {
    while (!raw.empty() && raw.back() == '\0') raw.remove_suffix(1);
    std::string out, entry;
    out.reserve(raw.size() + raw.size() / 16);
    size_t pos = 0;
    while (pos <= raw.size() && !raw.empty()) {
        size_t nul = raw.find('\0', pos);
        if (nul == std::string_view::npos) nul = raw.size();
        const std::string_view e = raw.substr(pos, nul - pos);
        if (pos) out += '\n';
        const size_t eq = e.find('=');
        if (eq == std::string_view::npos) {
            append_escaped(out, e);
        } else if (secret_name(e.substr(0, eq))) {
            append_escaped(out, e.substr(0, eq + 1));
            out.append(kRedacted);
        } else if (e.find("://", eq + 1) == std::string_view::npos) {
            append_escaped(out, e);  // no URL, so no password in one
        } else {
            entry.assign(e.substr(0, eq + 1));
            append_without_url_passwords(e.substr(eq + 1), entry);
            append_escaped(out, entry);
        }
        pos = nul + 1;
    }
    return out;
}

bool strip_deleted(std::string& path) {
    static constexpr std::string_view kDeleted = " (deleted)";
    if (!ends_with(path, kDeleted)) return false;
    path.resize(path.size() - kDeleted.size());
    return true;
}

std::vector<Mapping> parse_maps(std::string_view text) {
    std::vector<Mapping> out;
    std::unordered_set<std::string_view> seen;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        const std::string_view line = text.substr(pos, nl - pos);
        pos = nl + 1;

        // start-end perms offset major:minor inode [pathname]
        size_t p = 0;
        const std::string_view range = next_token(line, p);
        const std::string_view perms = next_token(line, p);
        const std::string_view offset = next_token(line, p);
        const std::string_view dev = next_token(line, p);
        const std::string_view inode = next_token(line, p);
        if (inode.empty() || perms.size() < 4 || offset.empty() || perms[2] != 'x') continue;
        while (p < line.size() && (line[p] == ' ' || line[p] == '\t')) ++p;
        const std::string_view path = line.substr(p);
        if (path.empty() || path[0] != '/') continue;  // anonymous, [vdso], [stack], ...

        Mapping m;
        const size_t dash = range.find('-');
        const size_t colon = dev.find(':');
        if (dash == std::string_view::npos || colon == std::string_view::npos) continue;
        if (!parse_hex(range.substr(0, dash), m.start) || !parse_hex(range.substr(dash + 1), m.end) ||
            !parse_hex(dev.substr(0, colon), m.dev_major) || !parse_hex(dev.substr(colon + 1), m.dev_minor) ||
            !parse_u64(inode, m.inode))
            continue;
        if (!seen.insert(path).second) continue;
        m.path.assign(path.data(), path.size());
        std::string bare = m.path;
        m.deleted = strip_deleted(bare);
        out.push_back(std::move(m));
    }
    return out;
}

namespace {

// include/uapi/linux/fs.h of Linux 6.11; older C library headers lack it.
struct ProcmapQuery {
    uint64_t size;
    uint64_t query_flags;
    uint64_t query_addr;
    uint64_t vma_start;
    uint64_t vma_end;
    uint64_t vma_flags;
    uint64_t vma_page_size;
    uint64_t vma_offset;
    uint64_t inode;
    uint32_t dev_major;
    uint32_t dev_minor;
    uint32_t vma_name_size;
    uint32_t build_id_size;
    uint64_t vma_name_addr;
    uint64_t build_id_addr;
};
static_assert(sizeof(ProcmapQuery) == 104, "procmap_query layout");
constexpr unsigned long kProcmapQuery = 0xc0686611ul;  // _IOWR('f', 17, struct procmap_query)
constexpr uint64_t kQueryExecutable = 0x04;
constexpr uint64_t kQueryCoveringOrNext = 0x10;
constexpr uint64_t kQueryFileBacked = 0x20;

}  // namespace

int query_maps(int maps_fd, std::vector<Mapping>& out) {
    out.clear();
    std::unordered_set<std::string> seen;
    char name[8192];
    uint64_t addr = 0;
    // A process has at most vm.max_map_count mappings; the bound only guards
    // against a kernel that would not advance.
    for (int guard = 0; guard < (1 << 20); ++guard) {
        ProcmapQuery q;
        std::memset(&q, 0, sizeof q);
        q.size = sizeof q;
        q.query_flags = kQueryCoveringOrNext | kQueryExecutable | kQueryFileBacked;
        q.query_addr = addr;
        q.vma_name_addr = reinterpret_cast<uintptr_t>(name);
        q.vma_name_size = sizeof name;
        if (::ioctl(maps_fd, kProcmapQuery, &q) != 0) {
            if (errno == ENOENT) return 0;  // no mapping above addr
            const int e = errno;
            out.clear();
            return -e;
        }
        if (q.vma_end <= addr) break;
        addr = q.vma_end;
        if (q.vma_name_size == 0 || q.vma_name_size > sizeof name) continue;
        std::string path(name, q.vma_name_size - 1);  // the size counts the NUL
        if (path.empty() || path[0] != '/' || !seen.insert(path).second) continue;
        Mapping m;
        m.path = std::move(path);
        std::string bare = m.path;
        m.deleted = strip_deleted(bare);
        m.start = q.vma_start;
        m.end = q.vma_end;
        m.dev_major = q.dev_major;
        m.dev_minor = q.dev_minor;
        m.inode = q.inode;
        out.push_back(std::move(m));
    }
    return 0;
}

std::string format_cpu_time(uint64_t ticks, long ticks_per_second) {
    const uint64_t secs = ticks_per_second > 0 ? ticks / static_cast<uint64_t>(ticks_per_second) : 0;
    char buf[48];
    const int n =
        snprintf(buf, sizeof buf, "%02llu:%02llu:%02llu", static_cast<unsigned long long>(secs / 3600),
                 static_cast<unsigned long long>(secs / 60 % 60), static_cast<unsigned long long>(secs % 60));
    return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
}

}  // namespace procfs
}  // namespace amsvc
