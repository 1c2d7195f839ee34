#include "core/root_open.h"

#include "core/common.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <vector>

namespace amsvc {

namespace {

constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
constexpr size_t kMaxPath = 4096;

std::atomic<bool> g_no_openat2{false};

// Pushes the components of `path` so that the first one is popped first.
void push_components(std::string_view path, std::vector<std::string>& todo) {
    std::vector<std::string> parts;
    size_t i = 0;
    while (i < path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string_view::npos) j = path.size();
        if (j > i) parts.emplace_back(path.substr(i, j - i));
        i = j + 1;
    }
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) todo.push_back(std::move(*it));
}

// The directory `done` names below the root, opened again from the root with
// every step refusing a link: what was a directory a moment ago may be a link now.
int reopen_dir(int root_fd, const std::vector<std::string>& done) {
    Fd cur(::openat(root_fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (cur.get() < 0) return -errno;
    for (const std::string& c : done) {
        const int next = ::openat(cur.get(), c.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0) return -errno;
        cur.reset(next);
    }
    return cur.release();
}

}  // namespace

int open_root_dir(const std::string& dir) {
    const int fd = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    return fd < 0 ? -errno : fd;
}

namespace {

int walk_in_root(int root_fd, std::string_view path, bool no_follow, bool path_only) {
    const int final_flags = path_only ? O_PATH | O_CLOEXEC : kReadFlags;
    if (path.empty() || path.find('\0') != std::string_view::npos) return -ENOENT;
    if (path.size() > kMaxPath) return -ENAMETOOLONG;
    try {
        std::vector<std::string> todo, done;
        push_components(path, todo);
        Fd cur(::openat(root_fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (cur.get() < 0) return -errno;
        int hops = 0;
        while (!todo.empty()) {
            const std::string c = std::move(todo.back());
            todo.pop_back();
            if (c == ".") continue;
            if (c == "..") {
                if (done.empty()) continue;  // ".." of the root is the root
                done.pop_back();
                const int fd = reopen_dir(root_fd, done);
                if (fd < 0) return fd;
                cur.reset(fd);
                continue;
            }
            if (todo.empty()) {
                const int fd = ::openat(cur.get(), c.c_str(), final_flags | O_NOFOLLOW);
                struct stat lst;
                // O_PATH|O_NOFOLLOW opens a link itself instead of failing.
                if (fd >= 0 && (!path_only || no_follow || ::fstat(fd, &lst) != 0 || !S_ISLNK(lst.st_mode)))
                    return fd;
                if (fd >= 0) {
                    ::close(fd);
                    errno = ELOOP;
                }
                // ELOOP under O_NOFOLLOW: the name is a link.
                if (errno != ELOOP || no_follow) return -errno;
            } else {
                Fd next(::openat(cur.get(), c.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
                if (next.get() < 0) return -errno;
                struct stat st;
                if (::fstat(next.get(), &st) != 0) return -errno;
                if (S_ISDIR(st.st_mode)) {
                    cur.reset(next.release());
                    done.push_back(c);
                    continue;
                }
                if (!S_ISLNK(st.st_mode)) return -ENOTDIR;
            }
            // `c` is a link inside `cur`: its text is resolved inside the root.
            if (++hops > kMaxLinkHops) return -ELOOP;
            char buf[kMaxPath];
            const ssize_t n = ::readlinkat(cur.get(), c.c_str(), buf, sizeof buf);
            if (n < 0) return -errno;
            if (n == 0) return -ENOENT;
            if (static_cast<size_t>(n) >= sizeof buf) return -ENAMETOOLONG;
            const std::string_view target(buf, static_cast<size_t>(n));
            if (target[0] == '/') {
                done.clear();
                const int fd = reopen_dir(root_fd, done);
                if (fd < 0) return fd;
                cur.reset(fd);
            }
            push_components(target, todo);
        }
        // The path named a directory (or the root itself).
        const int fd = ::openat(cur.get(), ".", final_flags);
        return fd < 0 ? -errno : fd;
    } catch (...) {
        return -ENOMEM;
    }
}

int resolve_in_root(int root_fd, std::string_view path, bool no_follow, bool path_only) {
    if (path.empty() || path.find('\0') != std::string_view::npos) return -ENOENT;
    if (path.size() > kMaxPath) return -ENAMETOOLONG;
    if (!g_no_openat2.load(std::memory_order_relaxed)) {
        char name[kMaxPath + 1];
        path.copy(name, path.size());
        name[path.size()] = '\0';
        struct open_how how = {};
        how.flags = static_cast<uint64_t>((path_only ? O_PATH | O_CLOEXEC : kReadFlags) |
                                          (no_follow ? O_NOFOLLOW : 0));
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
        long fd;
        // EAGAIN: a rename raced with a ".." on the way; worth a few more tries.
        int tries = 0;
        do {
            fd = ::syscall(SYS_openat2, root_fd, name, &how, sizeof how);
        } while (fd < 0 && (errno == EINTR || errno == EAGAIN) && ++tries < 8);
        if (fd >= 0) return static_cast<int>(fd);
        const int e = errno;
        if (e == ENOSYS) {
            g_no_openat2.store(true, std::memory_order_relaxed);
        } else if (e != EPERM) {  // EPERM: a sandbox that filters the call
            return -e;
        }
    }
    return walk_in_root(root_fd, path, no_follow, path_only);
}

}  // namespace

int open_in_root_walk(int root_fd, std::string_view path, bool no_follow) {
    return walk_in_root(root_fd, path, no_follow, false);
}

int open_in_root(int root_fd, std::string_view path, bool no_follow) {
    return resolve_in_root(root_fd, path, no_follow, false);
}

int open_path_in_root(int root_fd, std::string_view path, bool no_follow) {
    return resolve_in_root(root_fd, path, no_follow, true);
}

}  // namespace amsvc
