// Libraries that applications carry outside the package manager: a walk over
// the application roots, each directory opened from its parent's descriptor
// without following any link, so nothing outside the host root (or on a
// network or pseudo file system) is ever reached. Files are opened only when
// no package owns them, and only when still the file the walk found.
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "collectors.h"
#include "core/common.h"
#include "core/root_open.h"
#include "libraries/java_archive.h"
#include "libraries/lib_parse.h"
#include "libraries/library_walk.h"
#include "packages/package_index.h"

namespace amsvc {

namespace {

constexpr size_t kMaxComposerBytes = 16u << 20;
constexpr off_t kMinGoBinary = 256 << 10;
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int kFileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;

enum class Kind : uint8_t { kNone, kJava, kPythonDir, kPythonFile, kNode, kGem, kComposer, kGo, kSo };

struct DevIno {
    dev_t dev;
    ino_t ino;
    bool operator==(const DevIno& o) const { return dev == o.dev && ino == o.ino; }
};
struct DevInoHash {
    size_t operator()(const DevIno& k) const {
        return std::hash<uint64_t>()(static_cast<uint64_t>(k.ino) * 0x9e3779b97f4a7c15ull ^ k.dev);
    }
};

// What one file yielded, kept while its identity stays the same.
struct CacheEntry {
    off_t size;
    struct timespec mtime, ctime;
    Kind kind;
    uint64_t gen;
    std::vector<LibId> libs;
};

struct RootCache {
    std::unordered_map<DevIno, CacheEntry, DevInoHash> files;
    uint64_t gen = 0;
};

std::mutex g_cache_mutex;
std::map<std::string, RootCache>* g_caches =
    nullptr;  // by host root; never freed (no exit-time order issues)

bool same_time(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// File systems never walked: pseudo, network and user-space ones (slow,
// remote, or able to block the walk).
bool foreign_fs(int fd) {
    struct statfs sf;
    if (::fstatfs(fd, &sf) != 0) return true;
    switch (static_cast<unsigned long>(sf.f_type)) {
        case PROC_SUPER_MAGIC:
        case SYSFS_MAGIC:
        case DEVPTS_SUPER_MAGIC:
        case CGROUP_SUPER_MAGIC:
        case CGROUP2_SUPER_MAGIC:
        case DEBUGFS_MAGIC:
        case TRACEFS_MAGIC:
        case SECURITYFS_MAGIC:
        case BPF_FS_MAGIC:
        case PSTOREFS_MAGIC:
        case EFIVARFS_MAGIC:
        case BINFMTFS_MAGIC:
        case AUTOFS_SUPER_MAGIC:
        case NFS_SUPER_MAGIC:
        case SMB_SUPER_MAGIC:
        case 0xFF534D42ul:  // cifs
        case 0xFE534D42ul:  // smb2
        case 0x65735546ul:  // fuse
        case 0x00c36400ul:  // ceph
        case 0x01021997ul:  // 9p
        case CODA_SUPER_MAGIC:
        case AFS_SUPER_MAGIC:
        case 0x6B414653ul:  // kafs
        case 0x67596969ul:  // rpc_pipefs
        case 0x6e667364ul:  // nfsd
        case 0x62656570ul:  // configfs
        case 0x19800202ul:  // mqueue
        case HUGETLBFS_MAGIC:
            return true;
        default:
            return false;
    }
}

std::string_view base_of(std::string_view p) {
    const size_t s = p.rfind('/');
    return s == std::string_view::npos ? p : p.substr(s + 1);
}
std::string_view parent_of(std::string_view p) {
    const size_t s = p.rfind('/');
    return s == std::string_view::npos || s == 0 ? std::string_view("/") : p.substr(0, s);
}

// Python extension modules belong to the distribution (or the interpreter's
// lib-dynload) that carries them.
bool python_extension(std::string_view name) {
    return name.find(".cpython-") != std::string_view::npos || name.find(".pypy") != std::string_view::npos ||
           ends_with(name, ".abi3.so");
}

// What a file found in `dir` may hold, by its name and place alone.
Kind classify(std::string_view name, std::string_view dir) {
    const std::string_view dbase = base_of(dir);
    if (is_java_archive_name(name)) return Kind::kJava;
    if (name == "METADATA") return ends_with(dbase, ".dist-info") ? Kind::kPythonDir : Kind::kNone;
    if (name == "PKG-INFO") return ends_with(dbase, ".egg-info") ? Kind::kPythonDir : Kind::kNone;
    if (name == "package.json") {
        const std::string_view up = parent_of(dir);
        if (base_of(up) == "node_modules") return Kind::kNode;
        if (!dbase.empty() && base_of(up).substr(0, 1) == "@" && base_of(parent_of(up)) == "node_modules")
            return Kind::kNode;
        return Kind::kNone;
    }
    if (ends_with(name, ".gemspec")) return dbase == "specifications" ? Kind::kGem : Kind::kNone;
    if (name == "installed.json")
        return dbase == "composer" && base_of(parent_of(dir)) == "vendor" ? Kind::kComposer : Kind::kNone;
    if (ends_with(name, ".egg-info"))
        return dbase == "site-packages" || dbase == "dist-packages" ? Kind::kPythonFile : Kind::kNone;
    if (name.find(".so") != std::string_view::npos) {
        std::string n, v;
        return !python_extension(name) && dbase != "lib-dynload" && split_so_name(name, n, v) ? Kind::kSo
                                                                                              : Kind::kNone;
    }
    // Programs: no extension. Whether it is a Go program is for its content to say.
    if (name.find('.', 1) == std::string_view::npos) return Kind::kGo;
    return Kind::kNone;
}

// Directories that never hold a library worth a look.
bool skipped_dir(std::string_view name) {
    return name == ".git" || name == ".svn" || name == ".hg" || name == "__pycache__" || name == ".cache";
}

// Host paths not walked: container images belong to the container engine.
bool excluded_path(std::string_view path) {
    return path == "/var/lib/docker" || path == "/var/lib/containers" || path == "/proc" || path == "/sys" ||
           path == "/dev";
}

bool read_fd_bounded(int fd, size_t max, std::string& out) {
    out.clear();
    char buf[65536];
    while (out.size() < max) {
        const ssize_t n = ::read(fd, buf, std::min(sizeof buf, max - out.size()));
        if (n < 0) {
            if (errno == EINTR) continue;
            return !out.empty();
        }
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return true;
}

// Reads what a file of `kind` holds; takes over `fd`.
std::vector<LibId> read_libraries(Kind kind, int fd, std::string_view name, const LibraryLimits& lim) {
    std::vector<LibId> libs;
    if (kind == Kind::kJava) {
        scan_java_archive(fd, name, libs, lim.archive);
        return libs;
    }
    Fd owner(fd);
    std::string text;
    LibId id;
    switch (kind) {
        case Kind::kPythonDir:
        case Kind::kPythonFile:
            if (read_fd_bounded(fd, kMaxMetaBytes, text) && parse_python_metadata(text, id))
                libs.push_back(id);
            break;
        case Kind::kNode:
            if (read_fd_bounded(fd, kMaxMetaBytes * 4, text) && parse_package_json(text, id))
                libs.push_back(id);
            break;
        case Kind::kGem:
            if (read_fd_bounded(fd, kMaxMetaBytes, text)) {
                if (!parse_gemspec(text, id)) split_file_version(name, id.name, id.version);
                if (!id.name.empty()) libs.push_back(id);
            }
            break;
        case Kind::kComposer:
            if (read_fd_bounded(fd, kMaxComposerBytes, text)) libs = parse_composer_installed(text);
            break;
        case Kind::kGo: {
            ReadAt read = [fd](uint64_t off, size_t len, std::string& out) {
                out.resize(std::min<size_t>(len, (1u << 20) + (64u << 10)));
                size_t got = 0;
                while (got < out.size()) {
                    const ssize_t n = ::pread(fd, &out[got], out.size() - got, static_cast<off_t>(off + got));
                    if (n < 0 && errno == EINTR) continue;
                    if (n <= 0) break;
                    got += static_cast<size_t>(n);
                }
                out.resize(got);
                return got > 0;
            };
            std::string go_version, modinfo;
            if (!read_go_buildinfo(read, go_version, modinfo)) break;
            libs = parse_go_modinfo(modinfo);
            // The standard library is compiled in too, at the toolchain's version.
            LibId std_lib;
            std_lib.name = "stdlib";
            std_lib.version = go_version;
            libs.push_back(std_lib);
            break;
        }
        case Kind::kSo: {
            char magic[4];
            if (::pread(fd, magic, 4, 0) == 4 &&
                std::string_view(magic, 4) ==
                    "\x7f"
                    "ELF" &&
                split_so_name(name, id.name, id.version))
                libs.push_back(id);
            break;
        }
        default:
            break;
    }
    return libs;
}

class Walker {
public:
    Walker(const HostRoot& root, const LibraryLimits& lim, RootCache& cache, LibraryStats& stats)
        : root_(root),
          lim_(lim),
          cache_(cache),
          stats_(stats),
          deadline_(std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(static_cast<int64_t>(lim.max_seconds * 1000))) {}

    // Returns 0 when it could open the root dir, else the errno.
    int open_root() {
        const int fd = open_root_dir(root_.root());
        if (fd < 0) return -fd;
        root_fd_.reset(fd);
        return 0;
    }

    // Walks `host_path` (a directory); false when it does not exist or cannot be opened.
    bool walk_root(const std::string& host_path, int* err) {
        if (stopped()) return true;
        // The walk root itself may be a link (/var/www -> /srv/www): it is
        // resolved inside the host root; below it no link is followed.
        Fd fd(open_in_root(root_fd_.get(), host_path, false));
        if (fd.get() < 0) {
            *err = -fd.get();
            return false;
        }
        struct stat st;
        if (::fstat(fd.get(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            *err = ENOTDIR;
            return false;
        }
        if (foreign_fs(fd.get())) return true;
        std::string path = host_path == "/" ? std::string() : normalize_path(host_path);
        walk_dir(fd.release(), path, st, 0);
        return true;
    }

    // The working directory of each running process, as the host sees it.
    std::vector<std::string> process_dirs();

    bool stopped() const { return !stop_reason_.empty(); }
    // The bound that cut the walk short and where, "" when none did.
    std::string bound() const { return stopped() ? stop_reason_ : depth_cut_.empty() ? "" : "depth"; }
    const std::string& bound_path() const { return stopped() ? stop_path_ : depth_cut_; }
    std::vector<AM::ThirdPartDevLibInfo>& found() { return found_; }
    void settle();

private:
    void stop(const char* why, const std::string& where) {
        if (stop_reason_.empty()) {
            stop_reason_ = why;
            stop_path_ = where.empty() ? "/" : where;
        }
    }
    bool check_bounds(const std::string& where) {
        if (stopped()) return false;
        if (stats_.entries >= lim_.max_entries)
            stop("entries", where);
        else if (found_.size() >= lim_.max_records)
            stop("records", where);
        else if ((stats_.entries & 255) == 0 && out_of_time())
            stop("time", where);
        return !stopped();
    }

    bool out_of_time() const {
        return std::chrono::steady_clock::now() >= deadline_ ||
               (lim_.cancel && lim_.cancel->load(std::memory_order_relaxed));
    }

    void walk_dir(int dfd, std::string& path, const struct stat& dst, int depth);
    // A file worth reading, found by the walk and not judged yet.
    struct Pending {
        std::string file;
        Kind kind;
        struct stat st;
    };
    static constexpr size_t kMaxPending = 16384;

    void visit_file(int dfd, const char* name, const std::string& dir, Kind kind);
    void read_found(const Pending& p);
    void add(const std::vector<LibId>& libs, Kind kind, const std::string& dir, std::string_view name);

    const HostRoot& root_;
    const LibraryLimits& lim_;
    RootCache& cache_;
    LibraryStats& stats_;
    std::chrono::steady_clock::time_point deadline_;
    Fd root_fd_;
    std::unordered_set<DevIno, DevInoHash> dirs_seen_, files_seen_;
    std::vector<AM::ThirdPartDevLibInfo> found_;
    std::vector<Pending> pending_;
    std::string stop_reason_, stop_path_, depth_cut_;
};

void Walker::walk_dir(int dfd, std::string& path, const struct stat& dst, int depth) {
    DIR* d = ::fdopendir(dfd);
    if (!d) {
        ::close(dfd);
        return;
    }
    // A directory reached twice (two roots, a bind mount) is walked once.
    if (!dirs_seen_.insert(DevIno{dst.st_dev, dst.st_ino}).second) {
        ::closedir(d);
        return;
    }
    ++stats_.dirs;
    const size_t path_len = path.size();
    while (struct dirent* e = ::readdir(d)) {
        const char* n = e->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
        ++stats_.entries;
        if (!check_bounds(path)) break;
        unsigned char type = e->d_type;
        if (type == DT_UNKNOWN) {
            struct stat st;
            if (::fstatat(dfd, n, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_LNK;
        }
        if (type == DT_DIR) {
            if (skipped_dir(n)) continue;
            path.append("/").append(n);
            if (excluded_path(path)) {
                path.resize(path_len);
                continue;
            }
            if (depth + 1 > lim_.max_depth) {
                if (depth_cut_.empty()) depth_cut_ = path;  // the rest of the tree is still walked
                path.resize(path_len);
                continue;
            }
            const int sub = ::openat(dfd, n, kDirFlags);
            if (sub >= 0) {
                struct stat st;
                // Crossing into another file system: only local ones are walked.
                if (::fstat(sub, &st) == 0 && S_ISDIR(st.st_mode) &&
                    (st.st_dev == dst.st_dev || !foreign_fs(sub))) {
                    walk_dir(sub, path, st, depth + 1);
                } else {
                    ::close(sub);
                }
            }
            path.resize(path_len);
            if (stopped()) break;
            continue;
        }
        if (type != DT_REG) continue;  // links, FIFOs, sockets, devices: never opened
        const Kind kind = classify(n, path.empty() ? std::string_view("/") : std::string_view(path));
        if (kind != Kind::kNone) visit_file(dfd, n, path, kind);
    }
    ::closedir(d);
}

void Walker::visit_file(int dfd, const char* name, const std::string& dir, Kind kind) {
    struct stat st;
    if (::fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) return;
    if (kind == Kind::kGo && (!(st.st_mode & 0111) || st.st_size < kMinGoBinary)) return;
    if (!files_seen_.insert(DevIno{st.st_dev, st.st_ino}).second) return;  // a hard link seen already
    pending_.push_back(Pending{dir + "/" + name, kind, st});
    if (pending_.size() >= kMaxPending) settle();
}

// The files found so far: those a package owns are the package kind's
// business; the others are read (or taken from the cache). Ownership is
// asked for all of them at once: one pass over the package databases'
// file lists costs what a few single lookups would.
void Walker::settle() {
    std::vector<std::string> paths;
    paths.reserve(pending_.size());
    for (const Pending& p : pending_) paths.push_back(p.file);
    std::vector<FileOwner> owners;
    std::vector<char> owned;
    package_owners(root_, paths, owners, owned);
    for (size_t i = 0; i < pending_.size(); ++i) {
        if (owned[i]) continue;
        const std::string dir(parent_of(pending_[i].file));
        if (found_.size() >= lim_.max_records) {
            stop("records", dir);
            break;
        }
        if ((i & 63) == 0 && out_of_time()) {
            stop("time", dir);
            break;
        }
        read_found(pending_[i]);
    }
    pending_.clear();
}

void Walker::read_found(const Pending& p) {
    const std::string_view dir = parent_of(p.file), name = base_of(p.file);
    const DevIno key{p.st.st_dev, p.st.st_ino};
    auto it = cache_.files.find(key);
    if (it != cache_.files.end() && it->second.size == p.st.st_size && it->second.kind == p.kind &&
        same_time(it->second.mtime, p.st.st_mtim) && same_time(it->second.ctime, p.st.st_ctim)) {
        it->second.gen = cache_.gen;
        ++stats_.cached;
        add(it->second.libs, p.kind, std::string(dir), name);
        return;
    }
    // Opened again by its path: it must still be the very file the walk
    // found (a regular file, never a FIFO or device, same device and inode).
    const int fd = open_host_file(root_, p.file, kNoFollow);
    if (fd < 0) return;
    struct stat fst;
    if (::fstat(fd, &fst) != 0 || fst.st_dev != p.st.st_dev || fst.st_ino != p.st.st_ino) {
        ::close(fd);
        return;
    }
    ++stats_.parsed;
    CacheEntry entry;
    entry.size = fst.st_size;
    entry.mtime = fst.st_mtim;
    entry.ctime = fst.st_ctim;
    entry.kind = p.kind;
    entry.gen = cache_.gen;
    entry.libs = read_libraries(p.kind, fd, name, lim_);
    add(entry.libs, p.kind, std::string(dir), name);
    cache_.files[key] = std::move(entry);
}

void Walker::add(const std::vector<LibId>& libs, Kind kind, const std::string& dir, std::string_view name) {
    const std::string file = dir + "/" + std::string(name);
    for (const LibId& id : libs) {
        AM::ThirdPartDevLibInfo r;
        r.name = id.name;
        r.version = id.version;
        switch (kind) {
            case Kind::kPythonDir:
            case Kind::kNode:
                r.path = dir;
                break;
            case Kind::kComposer: {
                // Install paths are relative to vendor/composer; one that
                // climbs out of vendor/ is not believed.
                const std::string vendor = std::string(parent_of(dir));
                r.path = normalize_path(dir + "/" + id.where);
                if (!starts_with(r.path, vendor + "/")) r.path = vendor + "/" + id.name;
                break;
            }
            default:
                r.path = file + id.where;
                break;
        }
        found_.push_back(std::move(r));
    }
}

std::vector<std::string> Walker::process_dirs() {
    std::vector<std::string> dirs;
    Fd proc(open_in_root(root_fd_.get(), "/proc", true));
    if (proc.get() < 0) return dirs;
    struct statfs sf;
    // Only a live procfs tells where processes run; an image's /proc is just files.
    if (::fstatfs(proc.get(), &sf) != 0 || sf.f_type != PROC_SUPER_MAGIC) return dirs;
    const int dup = ::fcntl(proc.get(), F_DUPFD_CLOEXEC, 0);
    if (dup < 0) return dirs;
    DIR* d = ::fdopendir(dup);
    if (!d) {
        ::close(dup);
        return dirs;
    }
    std::unordered_set<std::string> seen;
    while (struct dirent* e = ::readdir(d)) {
        if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
        Fd pid(::openat(proc.get(), e->d_name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (pid.get() < 0) continue;
        char buf[4096];
        const ssize_t n = ::readlinkat(pid.get(), "cwd", buf, sizeof buf - 1);
        if (n <= 1 || buf[0] != '/') continue;
        std::string cwd(buf, static_cast<size_t>(n));
        if (ends_with(cwd, " (deleted)") || cwd.find('\0') != std::string::npos) continue;
        cwd = normalize_path(cwd);
        // "/" and the system's own trees are not applications' homes.
        static const char* const kSystem[] = {"/",     "/usr",  "/bin", "/sbin", "/lib", "/lib64", "/etc",
                                              "/boot", "/proc", "/sys", "/dev",  "/run", "/var",   "/tmp"};
        bool system = false;
        for (const char* s : kSystem) system |= cwd == s;
        for (const char* s : {"/proc/", "/sys/", "/dev/", "/run/"}) system |= starts_with(cwd, s);
        if (system || !seen.insert(cwd).second) continue;
        // A process in another mount namespace names a directory of its
        // own view: walked only when the host's path is that very directory.
        struct stat real, here;
        Fd in_root(open_in_root(root_fd_.get(), cwd, false));
        if (in_root.get() < 0 || ::fstatat(pid.get(), "cwd", &real, 0) != 0 ||
            ::fstat(in_root.get(), &here) != 0 || real.st_dev != here.st_dev || real.st_ino != here.st_ino)
            continue;
        dirs.push_back(cwd);
        if (dirs.size() >= 4096) break;
    }
    ::closedir(d);
    return dirs;
}

}  // namespace

std::vector<std::string> library_roots(const HostRoot& root) {
    std::vector<std::string> roots = {"/opt",
                                      "/srv",
                                      "/usr/local",
                                      "/var/www",
                                      "/var/lib",
                                      "/root",
                                      "/usr/share/java",
                                      "/usr/lib/jvm",
                                      "/usr/lib/node_modules",
                                      "/usr/share/nodejs",
                                      "/usr/lib/ruby",
                                      "/usr/share/rubygems-integration",
                                      "/usr/share/php"};
    const int rfd = open_root_dir(root.root());
    if (rfd < 0) return roots;
    Fd root_fd(rfd);
    auto children = [&](const char* dir, auto&& want) {
        Fd fd(open_in_root(root_fd.get(), dir, false));
        if (fd.get() < 0) return;
        DIR* d = ::fdopendir(fd.release());
        if (!d) return;
        std::vector<std::string> names;
        while (struct dirent* e = ::readdir(d)) {
            const std::string n = e->d_name;
            if (n != "." && n != ".." && want(n)) names.push_back(std::string(dir) + "/" + n);
        }
        ::closedir(d);
        std::sort(names.begin(), names.end());
        roots.insert(roots.end(), names.begin(), names.end());
    };
    children("/home", [](const std::string&) { return true; });
    // Python's prefixes: /usr/lib/python3, /usr/lib/python3.11, /usr/lib64/python3.9 ...
    children("/usr/lib", [](const std::string& n) { return starts_with(n, "python"); });
    children("/usr/lib64", [](const std::string& n) { return starts_with(n, "python"); });
    return roots;
}

void clear_library_cache() {
    std::lock_guard<std::mutex> lock(g_cache_mutex);
    if (g_caches) g_caches->clear();
}

int32_t collect_libraries(const HostRoot& root, std::vector<AM::ThirdPartDevLibInfo>& out,
                          const LibraryLimits& limits, LibraryStats* stats_out) {
    out.clear();
    LibraryStats stats;
    // One collection at a time per process: they share the cache, and two
    // walks at once would only compete for the same disk.
    std::lock_guard<std::mutex> lock(g_cache_mutex);
    if (!g_caches) g_caches = new std::map<std::string, RootCache>();
    RootCache& cache = (*g_caches)[root.root()];
    ++cache.gen;
    Walker w(root, limits, cache, stats);
    if (const int e = w.open_root()) return e == ENOENT ? -ENOENT : -EACCES;

    std::vector<std::string> roots;
    if (limits.with_process_dirs) roots = w.process_dirs();
    const std::vector<std::string> usual = limits.roots.empty() ? library_roots(root) : limits.roots;
    roots.insert(roots.end(), usual.begin(), usual.end());
    size_t walked = 0, absent = 0;
    int last_err = 0;
    for (const std::string& r : roots) {
        int err = 0;
        if (w.walk_root(r, &err))
            ++walked;
        else if (err == ENOENT || err == ENOTDIR)
            ++absent;
        else
            last_err = err;
    }
    w.settle();
    if (walked == 0) return last_err ? -EACCES : -ENOENT;

    std::vector<AM::ThirdPartDevLibInfo>& found = w.found();
    std::sort(found.begin(), found.end(),
              [](const AM::ThirdPartDevLibInfo& a, const AM::ThirdPartDevLibInfo& b) {
                  if (a.path != b.path) return a.path < b.path;
                  if (a.name != b.name) return a.name < b.name;
                  return a.version < b.version;
              });
    found.erase(std::unique(found.begin(), found.end(),
                            [](const AM::ThirdPartDevLibInfo& a, const AM::ThirdPartDevLibInfo& b) {
                                return a.path == b.path && a.name == b.name && a.version == b.version;
                            }),
                found.end());
    out.swap(found);
    stats.bound = w.bound();
    if (!stats.bound.empty()) {
        AM::ThirdPartDevLibInfo mark;
        mark.version = std::string(kBoundMarker) + stats.bound;
        mark.path = w.bound_path();
        out.push_back(std::move(mark));
    } else {
        // Files not met this time are gone (or out of reach): forget them.
        for (auto it = cache.files.begin(); it != cache.files.end();) {
            if (it->second.gen != cache.gen)
                it = cache.files.erase(it);
            else
                ++it;
        }
    }
    if (stats_out) *stats_out = stats;
    return 0;
}

int32_t collect_libraries(const HostRoot& root, std::vector<AM::ThirdPartDevLibInfo>& out) {
    return collect_libraries(root, out, LibraryLimits());
}

}  // namespace amsvc
