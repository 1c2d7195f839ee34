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

int open_in_root_walk(int root_fd, std::string_view path, bool no_follow) {
    return walk_in_root(root_fd, path, kReadFlags | (no_follow ? O_NOFOLLOW : 0), nullptr);
}

int walk_in_root(int root_fd, std::string_view path, int oflags, std::string* canon) {
    if (path.empty() || path.find('\0') != std::string_view::npos) return -ENOENT;
    if (path.size() > kMaxPath) return -ENAMETOOLONG;
    const bool no_follow = (oflags & O_NOFOLLOW) != 0;
    const bool want_path = (oflags & O_PATH) != 0;
    oflags |= O_CLOEXEC;
    try {
        std::vector<std::string> todo, done;
        push_components(path, todo);
        Fd cur(::openat(root_fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (cur.get() < 0) return -errno;
        int hops = 0;
        auto finish = [&](int fd, const std::string* last) {
            if (canon) {
                canon->clear();
                for (const std::string& c : done) canon->append("/").append(c);
                if (last) canon->append("/").append(*last);
                if (canon->empty()) *canon = "/";
            }
            return fd;
        };
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
                const int fd = ::openat(cur.get(), c.c_str(), oflags | O_NOFOLLOW);
                if (fd >= 0) {
                    // O_PATH|O_NOFOLLOW opens a link itself: follow it unless asked not to.
                    struct stat st;
                    if (!want_path || no_follow || ::fstat(fd, &st) != 0 || !S_ISLNK(st.st_mode))
                        return finish(fd, &c);
                    ::close(fd);
                } else {
                    // ELOOP under O_NOFOLLOW: the name is a link (ENOTDIR when
                    // O_DIRECTORY was asked on some kernels).
                    const int e = errno;
                    struct stat st;
                    const bool is_link = e == ELOOP || (e == ENOTDIR && ::fstatat(cur.get(), c.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                                                        S_ISLNK(st.st_mode));
                    if (!is_link) return -e;
                    if (no_follow) return -ELOOP;
                }
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
        const int fd = ::openat(cur.get(), ".", oflags & ~O_NOFOLLOW);
        return fd < 0 ? -errno : finish(fd, nullptr);
    } catch (...) {
        return -ENOMEM;
    }
}

int open_in_root(int root_fd, std::string_view path, bool no_follow) {
    return open_in_root_flags(root_fd, path, kReadFlags | (no_follow ? O_NOFOLLOW : 0));
}

int open_path_in_root(int root_fd, std::string_view path, bool no_follow) {
    return open_in_root_flags(root_fd, path, O_PATH | (no_follow ? O_NOFOLLOW : 0));
}

int open_in_root_flags(int root_fd, std::string_view path, int oflags) {
    if (path.empty() || path.find('\0') != std::string_view::npos) return -ENOENT;
    if (path.size() > kMaxPath) return -ENAMETOOLONG;
    if (!g_no_openat2.load(std::memory_order_relaxed)) {
        char name[kMaxPath + 1];
        path.copy(name, path.size());
        name[path.size()] = '\0';
        struct open_how how = {};
        how.flags = static_cast<uint64_t>(oflags | O_CLOEXEC);
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
    return walk_in_root(root_fd, path, oflags, nullptr);
}

}  // namespace amsvc
