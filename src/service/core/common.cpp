#include "core/common.h"

#include "core/root_open.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <charconv>
#include <map>
#include <mutex>

namespace amsvc {

HostRoot::HostRoot(std::string root) : root_(std::move(root)) {
    while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
    if (root_.empty()) root_ = "/";
}

std::string HostRoot::path(std::string_view host_path) const {
    std::string out;
    if (root_ != "/") out = root_;
    if (host_path.empty() || host_path.front() != '/') out += '/';
    out.append(host_path.data(), host_path.size());
    return out;
}

namespace {

// Reads a descriptor of the regular file `st` describes to its end, at most
// `max_bytes`; takes ownership of `fd`.
int read_fd(int fd, const struct stat& st, std::string& out, size_t max_bytes) {
    const Fd own(fd);
    if (st.st_size > 0 && static_cast<uint64_t>(st.st_size) < max_bytes) {
        // One byte more than the file holds: a regular file reads short only
        // at its end, so a file that did not grow is read in one call.
        out.resize(static_cast<size_t>(st.st_size) + 1);
        ssize_t n;
        do {
            n = ::read(fd, &out[0], out.size());
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            out.clear();
            return -errno;
        }
        out.resize(static_cast<size_t>(n));
        if (static_cast<uint64_t>(n) <= static_cast<uint64_t>(st.st_size)) return 0;
        // It grew: read on.
    } else if (st.st_size > 0) {
        out.reserve(max_bytes);
    }
    // /proc and /sys files report size 0 or 4096; read until EOF either way.
    char buf[65536];
    while (out.size() < max_bytes) {
        const size_t want = std::min(sizeof buf, max_bytes - out.size());
        const ssize_t n = ::read(fd, buf, want);
        if (n < 0) {
            if (errno == EINTR) continue;
            return out.empty() ? -errno : 0;
        }
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return 0;
}

// open_host_file, telling what was opened.
int open_regular(const HostRoot& root, std::string_view host_path, unsigned flags, struct stat& st) {
    // Found first as a handle that opens nothing (O_PATH): a FIFO, device or
    // socket is never opened for reading, only the regular file found is.
    const int nofollow = (flags & kNoFollow) ? O_NOFOLLOW : 0;
    Fd handle(open_host(root, host_path, O_PATH | nofollow));
    if (handle.get() < 0) return handle.get();
    if (::fstat(handle.get(), &st) != 0) return -errno;
    if (S_ISLNK(st.st_mode)) return -ELOOP;  // kNoFollow met a link
    if (!S_ISREG(st.st_mode)) return -EINVAL;
    constexpr int kRead = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    if (proc_fd_reopens()) {
        char name[40];
        snprintf(name, sizeof name, "/proc/self/fd/%d", handle.get());
        const int fd = ::open(name, kRead);
        if (fd >= 0) return fd;  // the inode `handle` holds, none other
        if (errno != ENOENT) return -errno;
    }
    const int fd = open_host(root, host_path, kRead | nofollow);  // no /proc here
    if (fd < 0) return fd;
    struct stat now;
    if (::fstat(fd, &now) != 0 || now.st_dev != st.st_dev || now.st_ino != st.st_ino || !S_ISREG(now.st_mode)) {
        ::close(fd);
        return -EAGAIN;  // replaced between the two opens
    }
    st = now;
    return fd;
}

}  // namespace

// Whether /proc/self/fd/N reopens the very file descriptor N holds: only a
// real procfs does that. Anything else mounted there (or nothing) could hand
// out another file, so each reopened file is then checked by its identity.
bool proc_fd_reopens() {
    static const bool yes = [] {
        struct statfs sfs;
        return ::statfs("/proc/self/fd", &sfs) == 0 && sfs.f_type == PROC_SUPER_MAGIC;
    }();
    return yes;
}

int read_file(const std::string& path, std::string& out, size_t max_bytes, unsigned flags) {
    return read_host_file(HostRoot("/"), path, out, max_bytes, flags);
}

int open_host_file(const HostRoot& root, std::string_view host_path, unsigned flags) {
    struct stat st;
    return open_regular(root, host_path, flags, st);
}

int open_host(const HostRoot& root, std::string_view host_path, int oflags) {
    oflags |= O_CLOEXEC;
    if (root.is_live_host()) {
        const int fd = ::open(std::string(host_path).c_str(), oflags);
        return fd < 0 ? -errno : fd;
    }
    const int dir = open_root_dir(root.root());
    if (dir < 0) return dir;
    const int fd = open_in_root_flags(dir, host_path, oflags);
    ::close(dir);
    return fd;
}

int stat_host(const HostRoot& root, std::string_view host_path, struct stat& st, unsigned flags) {
    if (root.is_live_host()) {
        const std::string p(host_path);
        const int r = (flags & kNoFollow) ? ::lstat(p.c_str(), &st) : ::stat(p.c_str(), &st);
        return r == 0 ? 0 : -errno;
    }
    const int fd = open_host(root, host_path, O_PATH | ((flags & kNoFollow) ? O_NOFOLLOW : 0));
    if (fd < 0) return fd;
    const int r = ::fstat(fd, &st) == 0 ? 0 : -errno;
    ::close(fd);
    return r;
}

int open_host_dir(const HostRoot& root, std::string_view host_path, DIR** out) {
    *out = nullptr;
    const int fd = open_host(root, host_path, O_RDONLY | O_DIRECTORY | O_NONBLOCK);
    if (fd < 0) return fd;
    *out = ::fdopendir(fd);
    if (!*out) {
        const int e = errno;
        ::close(fd);
        return -e;
    }
    return 0;
}

int list_host_dir(const HostRoot& root, std::string_view host_path, std::vector<std::string>& names,
                  size_t max_entries) {
    names.clear();
    DIR* d;
    if (const int r = open_host_dir(root, host_path, &d)) return r;
    while (struct dirent* e = ::readdir(d)) {
        const char* n = e->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
        if (names.size() >= max_entries) break;
        names.emplace_back(n);
    }
    ::closedir(d);
    return 0;
}

std::vector<std::string> list_host_dir(const HostRoot& root, std::string_view host_path) {
    std::vector<std::string> names;
    list_host_dir(root, host_path, names);
    return names;
}

std::string read_host_link(const HostRoot& root, std::string_view host_path) {
    const int fd = open_host(root, host_path, O_PATH | O_NOFOLLOW);
    if (fd < 0) return std::string();
    char buf[4096];
    const ssize_t n = ::readlinkat(fd, "", buf, sizeof buf);
    ::close(fd);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof buf) return std::string();
    return std::string(buf, static_cast<size_t>(n));
}

std::string canonical_host_path(const HostRoot& root, std::string_view host_path) {
    const int dir = open_root_dir(root.root());
    if (dir < 0) return std::string();
    std::string canon;
    const int fd = walk_in_root(dir, host_path, O_PATH, &canon);
    ::close(dir);
    if (fd < 0) return std::string();
    ::close(fd);
    return canon;
}

int open_host_proc(const HostRoot& root) {
    if (root.is_live_host()) {
        const int fd = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        return fd < 0 ? -errno : fd;
    }
    const int fd = open_host(root, "/proc", O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0) return (fd == -ELOOP || fd == -ENOTDIR) ? -ENOENT : fd;
    struct statfs sfs;
    if (!root.fixture_proc() && (::fstatfs(fd, &sfs) != 0 || sfs.f_type != PROC_SUPER_MAGIC)) {
        ::close(fd);
        return -ENOENT;
    }
    return fd;
}

int read_host_file(const HostRoot& root, std::string_view host_path, std::string& out, size_t max_bytes,
                   unsigned flags) {
    out.clear();
    struct stat st;
    const int fd = open_regular(root, host_path, flags, st);
    if (fd < 0) return fd;
    return read_fd(fd, st, out, max_bytes);
}

std::vector<std::string> list_dir(const std::string& path) {
    std::vector<std::string> names;
    list_dir(path, names);
    return names;
}

int list_dir(const std::string& path, std::vector<std::string>& names) {
    names.clear();
    DIR* d = ::opendir(path.c_str());
    if (!d) return -errno;
    while (struct dirent* e = ::readdir(d)) {
        const char* n = e->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
        names.emplace_back(n);
    }
    ::closedir(d);
    return 0;
}

std::string read_link(const std::string& path) {
    char buf[4096];
    const ssize_t n = ::readlink(path.c_str(), buf, sizeof buf);
    if (n <= 0) return std::string();
    return std::string(buf, static_cast<size_t>(n));
}

std::vector<std::string_view> split_lines(std::string_view text) {
    std::vector<std::string_view> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        std::string_view line = text.substr(pos, nl - pos);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        lines.push_back(line);
        pos = nl + 1;
    }
    return lines;
}

std::string_view trim(std::string_view s) {
    const char* ws = " \t\r\n\v\f";
    const size_t b = s.find_first_not_of(ws);
    if (b == std::string_view::npos) return std::string_view();
    const size_t e = s.find_last_not_of(ws);
    return s.substr(b, e - b + 1);
}

std::vector<std::string> join_continued_lines(std::string_view text, bool ini_comments) {
    std::vector<std::string> out;
    std::string cur;
    bool cont = false;
    for (std::string_view line : split_lines(text)) {
        std::string_view t = line;
        if (ini_comments) {
            t = trim(t);
            if (!cont && (t.empty() || t[0] == '#' || t[0] == ';')) continue;
        } else {
            while (!t.empty() && (t.back() == ' ' || t.back() == '\t')) t.remove_suffix(1);
        }
        const bool more = !t.empty() && t.back() == '\\';
        if (more) t.remove_suffix(1);
        if (cont)
            cur += ' ';
        else
            cur.clear();
        cur.append(t.data(), t.size());
        cont = more;
        if (!more) out.push_back(cur);
    }
    if (cont) out.push_back(cur);
    return out;
}

std::string ascii_lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>((c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c);
    return out;
}

namespace {

// Absolute, without empty, "." or ".." components and without a trailing
// slash: what normalize_path would give back unchanged.
bool is_normal_path(std::string_view p) {
    if (p.empty() || p[0] != '/') return false;
    if (p.size() == 1) return true;
    if (p.back() == '/') return false;
    for (size_t i = 0; i < p.size(); i = p.find('/', i + 1)) {
        if (i == std::string_view::npos) break;
        const std::string_view next = p.substr(i + 1);
        if (next.empty() || next[0] == '/') return false;
        if (next[0] == '.' && (next.size() == 1 || next[1] == '/' ||
                               (next[1] == '.' && (next.size() == 2 || next[2] == '/'))))
            return false;
    }
    return true;
}

}  // namespace

std::string normalize_path(std::string_view path) {
    // Package lists and configuration hold normal paths: a copy, no parts.
    if (is_normal_path(path)) return std::string(path);
    std::vector<std::string_view> parts;
    size_t i = 0;
    while (i < path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string_view::npos) j = path.size();
        const std::string_view c = path.substr(i, j - i);
        if (c == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!c.empty() && c != ".") {
            parts.push_back(c);
        }
        i = j + 1;
    }
    std::string out;
    for (std::string_view c : parts) out.append("/").append(c);
    return out.empty() ? std::string("/") : out;
}

std::string dir_name(const std::string& path) {
    const size_t s = path.rfind('/');
    if (s == std::string::npos || s == 0) return "/";
    return path.substr(0, s);
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::vector<std::string_view> split_ws(std::string_view s) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
        if (i >= s.size()) break;
        size_t j = i;
        while (j < s.size() && s[j] != ' ' && s[j] != '\t') ++j;
        out.push_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

bool starts_with(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

bool ends_with(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

bool parse_i64(std::string_view s, int64_t& out) {
    if (s.empty()) return false;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), out);
    return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool parse_u64(std::string_view s, uint64_t& out) {
    if (s.empty()) return false;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), out);
    return r.ec == std::errc() && r.ptr == s.data() + s.size();
}

std::string format_time(time_t t) {
    struct tm tm;
    if (!gmtime_r(&t, &tm)) return std::string();
    char buf[32];
    const size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return std::string(buf, n);
}

std::string format_date(time_t t) {
    struct tm tm;
    if (!gmtime_r(&t, &tm)) return std::string();
    char buf[32];
    const size_t n = strftime(buf, sizeof buf, "%Y-%m-%d", &tm);
    return std::string(buf, n);
}

namespace {

// name-by-id tables of one /etc file, re-read when its mtime or size changes.
struct IdTable {
    time_t mtime = -1;
    off_t size = -1;
    std::map<uint32_t, std::string> names;
};

std::string lookup_id(const HostRoot& root, const char* host_path, uint32_t id) {
    // Never destroyed: a collection may still run while the process exits.
    static std::mutex* const mu = new std::mutex();
    static auto* const tables = new std::map<std::string, IdTable>();
    struct stat st;
    if (stat_host(root, host_path, st) != 0) return std::string();
    const std::string file = root.path(host_path);  // the cache key only
    std::lock_guard<std::mutex> lock(*mu);
    IdTable& t = (*tables)[file];
    if (t.mtime != st.st_mtime || t.size != st.st_size) {
        t.names.clear();
        t.mtime = st.st_mtime;
        t.size = st.st_size;
        std::string text;
        if (read_host_file(root, host_path, text, 16u << 20) == 0) {
            for (std::string_view line : split_lines(text)) {
                // name:x:id:...
                const size_t c1 = line.find(':');
                if (c1 == std::string_view::npos || c1 == 0) continue;
                const size_t c2 = line.find(':', c1 + 1);
                if (c2 == std::string_view::npos) continue;
                const size_t c3 = line.find(':', c2 + 1);
                std::string_view idtext =
                    line.substr(c2 + 1, (c3 == std::string_view::npos ? line.size() : c3) - c2 - 1);
                uint64_t v;
                if (!parse_u64(idtext, v) || v > 0xffffffffu) continue;
                t.names.emplace(static_cast<uint32_t>(v),
                                std::string(line.substr(0, c1)));  // first entry wins
            }
        }
    }
    auto it = t.names.find(id);
    return it == t.names.end() ? std::string() : it->second;
}

}  // namespace

std::string user_name(const HostRoot& root, uid_t uid) { return lookup_id(root, "/etc/passwd", uid); }

std::string group_name(const HostRoot& root, gid_t gid) { return lookup_id(root, "/etc/group", gid); }

}  // namespace amsvc
