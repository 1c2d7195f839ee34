// Opening a file of another file system tree (a container's root, a mounted
// image) so that its symbolic links resolve inside that tree: an absolute link
// or a ".." never reaches a file of the host.
#ifndef ASSETMAN_SERVICE_ROOT_OPEN_H
#define ASSETMAN_SERVICE_ROOT_OPEN_H

#include <string>
#include <string_view>

namespace amsvc {

// Opens `path` for reading as if the directory `root_fd` were "/": absolute
// links and ".." anywhere on the way stay inside it, procfs magic links are
// refused. The final component must not be a link when `no_follow`. Opens
// O_NONBLOCK|O_NOCTTY|O_CLOEXEC; the caller checks the file type. Returns a
// descriptor or a negative errno (-ELOOP for a refused or endless link chain).
// Uses openat2 where the kernel has it, else open_in_root_walk.
int open_in_root(int root_fd, std::string_view path, bool no_follow);

// The same, but O_PATH: nothing is opened for reading (a FIFO's writer is not
// released, a device's open routine does not run), and a final link refused
// by `no_follow` comes back as the link itself. The caller checks type and
// identity with fstat before it reopens the file for reading.
int open_path_in_root(int root_fd, std::string_view path, bool no_follow);

// The same, one component at a time with O_NOFOLLOW, links resolved by
// reading them (at most kMaxLinkHops). For kernels without openat2, and tests.
int open_in_root_walk(int root_fd, std::string_view path, bool no_follow);

// The same with the open(2) flags given: O_PATH (a handle to stat or read a
// link through), O_DIRECTORY, O_NOFOLLOW (the final component itself, also
// when it is a link, with O_PATH). O_CLOEXEC is always added.
int open_in_root_flags(int root_fd, std::string_view path, int oflags);

// The component walk behind open_in_root_walk with any flags; when `canon` is
// given it receives the path of the file reached, every link resolved ("/usr/lib/x"
// for "/lib/x" when /lib is a link to usr/lib).
int walk_in_root(int root_fd, std::string_view path, int oflags, std::string* canon);

constexpr int kMaxLinkHops = 40;

// A directory to resolve in: O_PATH descriptor of `dir` (following links to
// it: the caller names a trusted directory, such as /proc/<pid>/root), or a
// negative errno.
int open_root_dir(const std::string& dir);

}  // namespace amsvc

#endif
