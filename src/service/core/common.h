// Helpers every collector shares: the host root, bounded and non-blocking file
// reads, text splitting, and the one time format of the whole service.
#ifndef ASSETMAN_SERVICE_COMMON_H
#define ASSETMAN_SERVICE_COMMON_H

#include <errno.h>
#include <stdint.h>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <new>
#include <string>
#include <unordered_map>
#include <string_view>
#include <vector>

namespace amsvc {

// Every path the service reads is a host path ("/etc/passwd") placed under
// this root, so a collector can inventory a fixture tree or a mounted image.
class HostRoot {
public:
    explicit HostRoot(std::string root = "/");
    const std::string& root() const { return root_; }
    bool is_live_host() const { return root_ == "/"; }
    // A test's fixture tree keeps /proc as plain files; under any other root
    // only a real procfs mounted at the root's /proc is read (open_host_proc).
    bool fixture_proc() const { return fixture_proc_; }
    HostRoot& set_fixture_proc(bool on) {
        fixture_proc_ = on;
        return *this;
    }
    // "/etc/passwd" -> "<root>/etc/passwd"; a relative path is taken as absolute.
    std::string path(std::string_view host_path) const;

private:
    std::string root_;  // "/" or a directory without trailing slash
    bool fixture_proc_ = false;
};

// Result codes of the service: 0 success (also for a kind read in part),
// negative errno values for a kind that could not be collected at all.
//   -ENOSYS  kind not collected on this platform (yet)
//   -ENOENT  the kind's sources do not exist under the host root
//   -EACCES  the kind's sources exist but none could be read
//   -EINVAL  a null record was handed in
//   -ENOMEM  memory ran out while collecting
//   -EIO     any other failure inside a collector

namespace detail {
template <class F, class Undo>
int32_t run_guarded(F& body, Undo&& undo) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        undo();
        return -ENOMEM;
    } catch (...) {
        undo();
        return -EIO;
    }
}
}  // namespace detail

// Runs a collector's body so that no exception leaves it (the caller may be a
// Lua state): bad_alloc becomes -ENOMEM, anything else -EIO.
template <class F>
int32_t guarded(F&& body) noexcept {
    return detail::run_guarded(body, [] {});
}

// The same for a body that fills `out`: after an exception the list is
// emptied, never handed back half filled.
template <class List, class F>
int32_t guarded(List& out, F&& body) noexcept {
    return detail::run_guarded(body, [&out] { out.clear(); });
}

constexpr size_t kDefaultMaxFile = 64u << 20;  // 64 MiB

enum ReadFlags : unsigned {
    kReadDefault = 0,
    kNoFollow = 1u << 0,  // refuse a symlink as the final component
};

// Owns one file descriptor; closes it when it goes out of scope.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// Reads a regular file (S_ISREG after open) into `out`, at most `max_bytes`
// (the rest is dropped). Opens with O_NONBLOCK so a FIFO never blocks, and
// never reads a device or socket. Returns 0 or a negative errno (-EINVAL for a
// file that is not regular, -ELOOP for a refused symlink).
int read_file(const std::string& path, std::string& out, size_t max_bytes = kDefaultMaxFile,
              unsigned flags = kReadDefault);

// Opens the regular host file `host_path` for reading under `root` (links
// resolve inside a root other than "/", as for read_host_file), O_NONBLOCK.
// The file is found first without being opened, and only a regular file is
// then opened for reading: -EINVAL for a FIFO, device, socket or directory,
// -ELOOP for a link refused by kNoFollow. A descriptor or a negative errno.
int open_host_file(const HostRoot& root, std::string_view host_path, unsigned flags = kReadDefault);

// Whether /proc/self/fd/N reopens exactly the file descriptor N holds (a
// real procfs at /proc); when not, a file reopened so must be checked.
bool proc_fd_reopens();

// Reads the host file `host_path` ("/etc/passwd") under `root`, as read_file
// does. Under a root other than "/" (a mounted image, a fixture tree) every
// link on the way resolves inside that root, so an image cannot point the
// service at a file of the machine it runs on.
int read_host_file(const HostRoot& root, std::string_view host_path, std::string& out,
                   size_t max_bytes = kDefaultMaxFile, unsigned flags = kReadDefault);

// ---- host files: the one way a collector reaches a file under the root ----
// Each takes a host path ("/etc/cron.d") and resolves every component inside
// the host root: an absolute link or ".." of an image stays in the image, and
// /proc magic links are refused. On the live host ("/") they are the plain
// system calls. kNoFollow acts on the final component only.

// open(2) of a host file with `oflags` (O_RDONLY|O_DIRECTORY, O_PATH, ...;
// O_CLOEXEC is added). A descriptor or a negative errno.
int open_host(const HostRoot& root, std::string_view host_path, int oflags);
// stat(2), or lstat(2) with kNoFollow. 0 or a negative errno.
int stat_host(const HostRoot& root, std::string_view host_path, struct stat& st, unsigned flags = kReadDefault);
// Opens a directory of the host for reading its entries, in-root; *out is
// the caller's to closedir. 0 or a negative errno.
int open_host_dir(const HostRoot& root, std::string_view host_path, DIR** out);
// Entry names of a host directory, without "." and ".."; -errno when it
// cannot be opened. At most `max_entries` names (the rest dropped).
int list_host_dir(const HostRoot& root, std::string_view host_path, std::vector<std::string>& names,
                  size_t max_entries = 1u << 20);
std::vector<std::string> list_host_dir(const HostRoot& root, std::string_view host_path);
// Text of the link `host_path` names (its directories resolved in the root),
// empty when it is not a link or unreadable.
std::string read_host_link(const HostRoot& root, std::string_view host_path);
// The host path of the file `host_path` reaches with every link resolved in
// the root ("/usr/lib/systemd/system/x.timer" for "/lib/systemd/system/x.timer"
// when /lib -> usr/lib), empty when it does not exist.
std::string canonical_host_path(const HostRoot& root, std::string_view host_path);
// The root's /proc as an O_DIRECTORY descriptor: on the live host /proc; under
// an image only a real procfs mounted at the image's /proc (not a link, not a
// plain directory, unless a fixture tree), else -ENOENT.
int open_host_proc(const HostRoot& root);

// ---- files of the running machine only (/proc/<pid>/..., never root.path()) ----

// Entry names of a directory, without "." and "..". Empty when unreadable.
std::vector<std::string> list_dir(const std::string& path);
// The same into `names`; -errno when the directory cannot be opened.
int list_dir(const std::string& path, std::vector<std::string>& names);

// Target of a symbolic link, or empty.
std::string read_link(const std::string& path);

// Splits on '\n', dropping a trailing '\r' of each line; no empty last line.
std::vector<std::string_view> split_lines(std::string_view text);
std::string_view trim(std::string_view s);
// Splits on runs of blanks (space, tab).
std::vector<std::string_view> split_ws(std::string_view s);
bool starts_with(std::string_view s, std::string_view prefix);
bool ends_with(std::string_view s, std::string_view suffix);

// Lines with a trailing backslash joined to the next one by a space, the
// backslash dropped; blanks before the backslash do not count. With
// `ini_comments` (unit files) each line is trimmed and, outside a
// continuation, blank lines and lines starting with '#' or ';' are dropped;
// without it only trailing blanks go and every line is kept for the caller.
std::vector<std::string> join_continued_lines(std::string_view text, bool ini_comments);

// ASCII letters in lower case, nothing else changed (no locale).
std::string ascii_lower(std::string_view s);

// "/a/./b//../c" -> "/a/c", lexically; ".." never climbs above "/" and a
// relative path is taken as absolute.
std::string normalize_path(std::string_view path);
// Directory part of a host path: "/a/b" -> "/a", "/a" and "a" -> "/".
std::string dir_name(const std::string& path);

// Value of a hexadecimal digit, -1 for any other character.
int hex_value(char c);

// Decimal parses that never throw; false on junk or overflow.
bool parse_i64(std::string_view s, int64_t& out);
bool parse_u64(std::string_view s, uint64_t& out);

// The service's one time format: UTC, "YYYY-MM-DD HH:MM:SS". Dates: "YYYY-MM-DD".
std::string format_time(time_t t);
std::string format_date(time_t t);

// Name of a uid/gid from the host root's /etc/passwd and /etc/group, cached
// per root and refreshed when the file changes. Empty when unknown.
std::string user_name(const HostRoot& root, uid_t uid);
std::string group_name(const HostRoot& root, gid_t gid);

// user_name for one collection: each uid looked up once, an unknown one
// shown as its number.
class UserNames {
public:
    explicit UserNames(const HostRoot& root) : root_(root) {}
    const std::string& of(uint32_t uid) {
        auto it = names_.find(uid);
        if (it != names_.end()) return it->second;
        std::string name = user_name(root_, static_cast<uid_t>(uid));
        if (name.empty()) name = std::to_string(uid);
        return names_.emplace(uid, std::move(name)).first->second;
    }

private:
    const HostRoot& root_;
    std::unordered_map<uint32_t, std::string> names_;
};

}  // namespace amsvc

#endif
