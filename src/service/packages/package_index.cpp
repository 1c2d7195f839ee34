#include "packages/package_index.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>

#include "packages/apk_db.h"
#include "packages/dpkg_db.h"
#include "packages/package_index_impl.h"
#include "packages/rpm_db.h"

namespace amsvc {

// ---- path canonicalisation inside a root -----------------------------------

bool DirCanon::link_target(const std::string& path, std::string& target) {
    // Every component is resolved inside the root: a link an image planted on
    // the way cannot lead to the machine's own directories.
    struct stat st;
    if (stat_host(root_, path, st, kNoFollow) != 0 || !S_ISLNK(st.st_mode)) return false;
    target = read_host_link(root_, path);
    return true;
}

std::string DirCanon::canon(const std::string& dir, int depth) {
    if (dir.empty() || dir == "/") return "/";
    // Bounded work whatever links a hostile user laid out (chains, loops,
    // links that fan out into more links): past the budget, names stay as given.
    if (dir.size() > 4096 || budget_ <= 0) return normalize_path(dir);
    auto it = memo_.find(dir);
    if (it != memo_.end()) return it->second;
    const size_t slash = dir.rfind('/');
    const std::string parent =
        canon(slash == 0 || slash == std::string::npos ? "/" : dir.substr(0, slash), depth);
    const std::string base = slash == std::string::npos ? dir : dir.substr(slash + 1);
    std::string result = normalize_path(parent + "/" + base);
    --budget_;
    std::string target;
    if (depth < 32 && result != "/" && link_target(result, target) && !target.empty()) {
        // An absolute target points inside the root, never out of it.
        const std::string joined =
            target[0] == '/' ? normalize_path(target) : normalize_path(parent + "/" + target);
        result = canon(joined, depth + 1);
    }
    memo_.emplace(dir, result);
    return result;
}

// ---- the name table ------------------------------------------------------------

namespace {

void split_dir_base(std::string_view path, std::string_view& dir, std::string_view& base) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        dir = "/";
        base = path;
    } else {
        dir = slash == 0 ? std::string_view("/") : path.substr(0, slash);
        base = path.substr(slash + 1);
    }
}

std::string_view dir_of(std::string_view path) {
    std::string_view dir, base;
    split_dir_base(path, dir, base);
    return dir;
}

std::string_view base_of(std::string_view path) {
    const void* slash = ::memrchr(path.data(), '/', path.size());
    if (!slash) return path;
    const size_t at = static_cast<size_t>(static_cast<const char*>(slash) - path.data());
    return path.substr(at + 1);
}

}  // namespace

uint32_t base_name_hash(std::string_view base) {
    // Eight bytes at a time: a byte-wise hash is a chain of dependent
    // multiplies, and this runs once per line of every file list.
    const char* p = base.data();
    size_t n = base.size();
    uint64_t h = 0x9e3779b97f4a7c15ull ^ n;
    while (n >= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        h = (h ^ w) * 0xbf58476d1ce4e5b9ull;
        h ^= h >> 31;
        p += 8;
        n -= 8;
    }
    if (n) {
        uint64_t w = 0;
        std::memcpy(&w, p, n);
        h = (h ^ w) * 0xbf58476d1ce4e5b9ull;
    }
    h ^= h >> 29;
    h *= 0x94d049bb133111ebull;
    h ^= h >> 32;
    return static_cast<uint32_t>(h);
}

uint32_t PackageIndex::add_package(Package p) {
    packages_.push_back(std::move(p));
    return static_cast<uint32_t>(packages_.size() - 1);
}

void PackageIndex::add_name(uint32_t pkg, std::string_view base) {
    if (base.empty()) return;
    table_.push_back(static_cast<uint64_t>(base_name_hash(base)) << 32 | pkg);
}

void PackageIndex::finish() {
    // Radix sort on the hash, stable, so each name's packages stay in
    // database order (which decides between two owners).
    std::vector<uint64_t> tmp(table_.size());
    for (int shift = 32; shift < 64; shift += 8) {
        size_t count[257] = {};
        for (uint64_t v : table_) ++count[((v >> shift) & 0xff) + 1];
        for (int i = 0; i < 256; ++i) count[i + 1] += count[i];
        for (uint64_t v : table_) tmp[count[(v >> shift) & 0xff]++] = v;
        table_.swap(tmp);
    }
    tmp.clear();
    tmp.shrink_to_fit();
    table_.erase(std::unique(table_.begin(), table_.end()), table_.end());
    table_.shrink_to_fit();
    packages_.shrink_to_fit();
}

void PackageIndex::candidates(std::string_view base, std::vector<uint32_t>& out) const {
    out.clear();
    const uint64_t h = static_cast<uint64_t>(base_name_hash(base)) << 32;
    for (auto it = std::lower_bound(table_.begin(), table_.end(), h);
         it != table_.end() && (*it & 0xffffffff00000000ull) == h; ++it)
        out.push_back(static_cast<uint32_t>(*it));
    // Package ids follow database order, which decides between two owners.
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
}

void NameFilter::mark(std::string_view base) {
    if (base.size() < 4) {
        short_ = true;
        return;
    }
    const size_t k = key(base.data() + base.size());
    bits_[k >> 6] |= 1ull << (k & 63);
    if (base.size() >= 8) {
        uint64_t w;
        std::memcpy(&w, base.data() + base.size() - 8, 8);
        const size_t k8 = key8(w);
        bits8_[k8 >> 6] |= 1ull << (k8 & 63);
    }
}

void NameFilter::add(std::string_view base) {
    if (base.empty() || !wanted_.emplace(base).second) return;
    hashes_.insert(base_name_hash(base));
    mark(base);
}

void NameFilter::pass(std::string_view base) {
    if (!base.empty()) mark(base);
}

size_t PackageIndex::memory_bytes() const {
    size_t n = sizeof *this + table_.capacity() * sizeof(uint64_t) + packages_.capacity() * sizeof(Package);
    for (const Package& p : packages_) {
        n += p.name.capacity() + p.company.capacity() + p.stem.capacity();
        for (const DpkgConffile& c : p.conffiles) n += sizeof c + c.path.capacity() + c.md5.capacity();
    }
    for (const auto& d : diversions) n += 64 + d.first.capacity() + d.second.to.capacity() + d.second.by.capacity();
    return n;
}

// ---- building the name table from the package databases -----------------------

namespace {

constexpr size_t kMaxList = 64u << 20;  // one package's file list

// Package names come from a database an image controls: one that is not a
// plain file name never reaches openat.
bool plain_name(std::string_view n) {
    return !n.empty() && n != "." && n != ".." && n.find('/') == std::string_view::npos &&
           n.find('\0') == std::string_view::npos;
}

// A buffer that grows and is never zero-filled: file lists are read one after
// another. A large list of root's on the running host is mapped instead of
// copied (only there: a file someone else can write could be cut short under
// the mapping).
struct ReadBuf {
    std::unique_ptr<char[]> data;
    size_t cap = 0, len = 0;
    void* map = nullptr;
    size_t map_len = 0;
    ReadBuf() = default;
    ReadBuf(const ReadBuf&) = delete;
    ReadBuf& operator=(const ReadBuf&) = delete;
    ~ReadBuf() { unmap(); }
    std::string_view view() const {
        return map ? std::string_view(static_cast<const char*>(map), map_len) : std::string_view(data.get(), len);
    }
    void reserve(size_t n) {
        if (n <= cap) return;
        data.reset(new char[n]);
        cap = n;
    }
    // Like reserve, keeping the first `len` bytes.
    void grow(size_t n) {
        if (n <= cap) return;
        std::unique_ptr<char[]> d(new char[n]);
        if (len) std::memcpy(d.get(), data.get(), len);
        data = std::move(d);
        cap = n;
    }
    void unmap() {
        if (map) ::munmap(map, map_len);
        map = nullptr;
        map_len = 0;
    }
};

constexpr size_t kMapAtLeast = 64u << 10;

// Opens `name` in the directory `dir` for reading: a regular file only,
// looked at before it is opened (a device or FIFO is never opened) and
// checked to be the same file after; no link followed. `known_regular`: the
// directory listing said so already (d_type), which saves a look per file
// when the lists of every package are read. A descriptor or -errno.
int open_in_dir(int dir, const std::string& name, bool known_regular, struct stat& st) {
    struct stat before;
    if (!known_regular) {
        if (::fstatat(dir, name.c_str(), &before, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
        if (!S_ISREG(before.st_mode)) return -EINVAL;
    }
    const int fd = ::openat(dir, name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
    if (fd < 0) return -errno;
    if (::fstat(fd, &st) != 0) {
        const int e = errno;
        ::close(fd);
        return -e;
    }
    if (!S_ISREG(st.st_mode) || (!known_regular && (st.st_dev != before.st_dev || st.st_ino != before.st_ino))) {
        ::close(fd);
        return -EINVAL;
    }
    return fd;
}

// Reads `name` in `dir` whole (see open_in_dir).
int read_in_dir(int dir, const std::string& name, ReadBuf& out, size_t max_bytes, bool known_regular = false,
                bool may_map = false) {
    out.len = 0;
    out.unmap();
    struct stat st;
    const int fd = open_in_dir(dir, name, known_regular, st);
    if (fd < 0) return fd;
    Fd guard(fd);
    if (may_map && st.st_uid == 0 && !(st.st_mode & 022) && static_cast<size_t>(st.st_size) >= kMapAtLeast &&
        static_cast<size_t>(st.st_size) <= max_bytes) {
        void* m = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
        if (m != MAP_FAILED) {
            out.map = m;
            out.map_len = static_cast<size_t>(st.st_size);
            return 0;
        }
    }
    // One byte more than the size, to see a file that grew meanwhile end.
    const size_t want = std::min<size_t>(static_cast<size_t>(st.st_size) + 1, max_bytes);
    out.reserve(std::max<size_t>(want, 64u << 10));
    while (out.len < want) {
        const ssize_t n = ::read(fd, out.data.get() + out.len, want - out.len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.len += static_cast<size_t>(n);
        if (out.len < want) break;  // a short read of a regular file: its end
    }
    return 0;
}

constexpr size_t kPiece = 128u << 10;

// Reads a text file of lines a piece at a time into `buf` (the same bytes
// read_in_dir would give), calling fn(text, more) on whole lines: `text` ends
// with a newline or the file; the `keep` last lines of a piece are held back
// for the next one but are at hand up to `more`. A piece stays in the cache
// between the copy and the scan, and no memory is faulted in per file.
template <class F>
int read_in_pieces(int dir, const std::string& name, bool known_regular, size_t max_bytes, ReadBuf& buf, int keep,
                   F&& fn) {
    buf.len = 0;
    buf.unmap();
    struct stat st;
    const int fd = open_in_dir(dir, name, known_regular, st);
    if (fd < 0) return fd;
    Fd guard(fd);
    // One byte more than the size, to see a file that grew meanwhile end.
    const size_t limit = std::min<size_t>(static_cast<size_t>(st.st_size) + 1, max_bytes);
    buf.grow(std::min(limit, kPiece));
    size_t total = 0;
    bool end = false;
    while (true) {
        if (!end) {
            // A line longer than the buffer grows it, up to the file's bound.
            if (buf.len == buf.cap) buf.grow(std::min(limit, buf.cap * 2));
            const size_t want = std::min(buf.cap - buf.len, limit - total);
            ssize_t n;
            do {
                n = ::read(fd, buf.data.get() + buf.len, want);
            } while (n < 0 && errno == EINTR);
            if (n <= 0) {
                end = true;
            } else {
                buf.len += static_cast<size_t>(n);
                total += static_cast<size_t>(n);
                // A short read of a regular file: its end.
                if (static_cast<size_t>(n) < want || total >= limit) end = true;
            }
        }
        const char* const b = buf.data.get();
        if (end) {
            if (buf.len) fn(std::string_view(b, buf.len), b + buf.len);
            buf.len = 0;
            return 0;
        }
        // Hold back the last `keep` whole lines and the partial one.
        const void* nl = ::memrchr(b, '\n', buf.len);
        if (!nl) continue;
        const char* more = static_cast<const char*>(nl) + 1;
        const char* cut = more;
        for (int k = 0; k < keep && cut; ++k) {
            const void* p = ::memrchr(b, '\n', static_cast<size_t>(cut - 1 - b));
            cut = p ? static_cast<const char*>(p) + 1 : nullptr;
        }
        if (!cut || cut == b) continue;
        fn(std::string_view(b, static_cast<size_t>(cut - b)), more);
        const size_t rest = buf.len - static_cast<size_t>(cut - b);
        std::memmove(buf.data.get(), cut, rest);
        buf.len = rest;
    }
}

// Names of the regular files in `dir` that end with `suffix` (d_type from the
// listing; DT_UNKNOWN file systems are asked per name later).
void regular_names(int dir, const char* suffix, std::unordered_map<std::string, bool>& out) {
    const int fd = ::openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    DIR* d = ::fdopendir(fd);
    if (!d) {
        ::close(fd);
        return;
    }
    const size_t sl = std::strlen(suffix);
    while (struct dirent* e = ::readdir(d)) {
        const size_t n = std::strlen(e->d_name);
        if (n <= sl || std::memcmp(e->d_name + n - sl, suffix, sl) != 0) continue;
        if (e->d_type == DT_REG || e->d_type == DT_UNKNOWN) out.emplace(e->d_name, e->d_type == DT_REG);
        if (out.size() > (1u << 20)) break;
    }
    ::closedir(d);
}

std::unordered_map<std::string, PackageIndex::Diversion> read_diversions(const HostRoot& root) {
    std::unordered_map<std::string, PackageIndex::Diversion> out;
    std::string text;
    if (read_host_file(root, "/var/lib/dpkg/diversions", text, 16u << 20) != 0) return out;
    const std::vector<std::string_view> lines = split_lines(text);
    for (size_t i = 0; i + 2 < lines.size(); i += 3) {
        if (lines[i].empty() || lines[i][0] != '/' || lines[i + 1].empty() || lines[i + 1][0] != '/')
            continue;
        const std::string_view by = lines[i + 2];
        out[std::string(lines[i])] =
            PackageIndex::Diversion{std::string(lines[i + 1]), by == ":" ? std::string() : std::string(by)};
    }
    return out;
}

// Where package `pkg` put its file `path`, after dpkg-divert.
std::string_view diverted(const PackageIndex& index, const std::string& pkg, std::string_view path,
                          std::string& key) {
    if (index.diversions.empty()) return path;
    key.assign(path.data(), path.size());
    auto it = index.diversions.find(key);
    if (it == index.diversions.end() || it->second.by == pkg) return path;
    return it->second.to;
}

// What the status file says: the installed packages that have a file list,
// in database order. The lists themselves are read by scan_dpkg.
void index_dpkg(const HostRoot& root, PackageIndex& index) {
    const Fd status(open_host_file(root, "/var/lib/dpkg/status"));
    if (status.get() < 0) return;
    const Fd info(open_host(root, "/var/lib/dpkg/info", O_RDONLY | O_DIRECTORY));
    std::unordered_map<std::string, bool> lists;  // name -> known to be a regular file
    // The info directory is listed on another thread while the status file is
    // read: in a fresh process each takes a few milliseconds.
    std::thread lister;
    bool list_failed = false;
    if (info.get() >= 0 && std::thread::hardware_concurrency() >= 2) {
        try {
            lister = std::thread([&]() {
                try {
                    regular_names(info.get(), ".list", lists);
                } catch (...) {
                    list_failed = true;
                }
            });
        } catch (...) {
            // No thread to be had: listed below.
        }
    }
    // What the index keeps of a stanza, until its .list is known.
    struct Pending {
        std::string name, arch, maintainer;
        bool same = false;
        std::vector<DpkgConffile> conffiles;
    };
    std::vector<Pending> pkgs;
    int rc = 0;
    try {
        struct stat st;
        if (::fstat(status.get(), &st) == 0) pkgs.reserve(static_cast<size_t>(st.st_size) / 768 + 4);
        rc = read_dpkg_status_fd(status.get(), [&](DpkgPackage& p) {
            if (!dpkg_is_installed(p.status) || !plain_name(p.name)) return;
            pkgs.push_back(Pending{std::move(p.name), std::move(p.arch), std::move(p.maintainer),
                                   p.multi_arch == "same", std::move(p.conffiles)});
        });
        if (rc == 0) index.diversions = read_diversions(root);
    } catch (...) {
        if (lister.joinable()) lister.join();
        throw;
    }
    if (lister.joinable()) {
        lister.join();
    } else if (info.get() >= 0) {
        regular_names(info.get(), ".list", lists);
    }
    if (list_failed) throw std::bad_alloc();
    if (rc != 0 || info.get() < 0) return;
    index.reserve(pkgs.size(), 0);
    std::string stem;
    for (Pending& p : pkgs) {
        bool regular = false, found = false;
        for (bool with_arch : {p.same, !p.same}) {
            stem = p.name;
            if (with_arch && !p.arch.empty()) stem.append(":").append(p.arch);
            auto it = plain_name(stem) ? lists.find(stem + ".list") : lists.end();
            if (it != lists.end()) {
                regular = it->second;
                found = true;
                break;
            }
        }
        if (!found) continue;
        PackageIndex::Package pkg;
        pkg.name = std::move(p.name);
        pkg.company = std::move(p.maintainer);
        pkg.kind = PackageIndex::Kind::kDpkg;
        pkg.stem = stem;
        pkg.list_regular = regular;
        pkg.conffiles = std::move(p.conffiles);
        index.add_package(std::move(pkg));
    }
}

// Calls fn(id, base) for every file name the dpkg packages from `*next` on
// list (after dpkg-divert), or with `filter` only for the names it wants.
// Packages are taken a few at a time from `next`, shared by the threads
// that read.
template <class F>
void scan_dpkg_part(const HostRoot& root, int info, const PackageIndex& index,
                    const std::vector<uint32_t>& diverted_bases, const NameFilter* filter,
                    std::atomic<uint32_t>& next, F&& fn) {
    constexpr uint32_t kStep = 16;
    ReadBuf buf;
    std::string key;
    for (uint32_t from; (from = next.fetch_add(kStep)) < index.packages();) {
        const uint32_t to = std::min<uint32_t>(from + kStep, static_cast<uint32_t>(index.packages()));
        for (uint32_t id = from; id < to; ++id) {
            const PackageIndex::Package& p = index.package(id);
            if (p.kind != PackageIndex::Kind::kDpkg) continue;
            auto one = [&](std::string_view path) {
                std::string_view base = base_of(path);
                if (!filter && diverted_bases.empty()) {
                    fn(id, base);
                    return;
                }
                const uint32_t h = base_name_hash(base);
                if (!diverted_bases.empty() && std::binary_search(diverted_bases.begin(), diverted_bases.end(), h)) {
                    base = base_of(diverted(index, p.name, path, key));
                    if (!filter || filter->wants(base)) fn(id, base);
                } else if (!filter || filter->wants(base, h)) {
                    fn(id, base);
                }
            };
            if (filter) {
                if (read_in_pieces(info, p.stem + ".list", p.list_regular, kMaxList, buf, 1,
                                   [&](std::string_view text, const char* more) {
                                       filter->for_each_candidate(text, one, more);
                                   }) != 0)
                    continue;
            } else {
                if (read_in_dir(info, p.stem + ".list", buf, kMaxList, p.list_regular, root.is_live_host()) != 0)
                    continue;
                for_each_listed_file(buf.view(), one);
            }
            for (const DpkgConffile& c : p.conffiles) {
                const std::string_view base = base_of(diverted(index, p.name, c.path, key));
                if (!filter || filter->wants(base)) fn(id, base);
            }
        }
    }
}

// Calls fn(id, base) for every file name a dpkg package lists, or with
// `filter` only for the names it wants: then the lists are read on two
// threads (reading them is most of a fresh process's ownership work), and
// fn is called on this one.
template <class F>
void scan_dpkg(const HostRoot& root, const PackageIndex& index, const NameFilter* filter, F&& fn) {
    const Fd info(open_host(root, "/var/lib/dpkg/info", O_RDONLY | O_DIRECTORY));
    if (info.get() < 0) return;
    // Base names that a diversion renames, so most lines skip the lookup.
    std::vector<uint32_t> diverted_bases;
    for (const auto& d : index.diversions) diverted_bases.push_back(base_name_hash(base_of(d.first)));
    std::sort(diverted_bases.begin(), diverted_bases.end());
    std::atomic<uint32_t> next{0};
    if (!filter || std::thread::hardware_concurrency() < 2) {
        scan_dpkg_part(root, info.get(), index, diverted_bases, filter, next, fn);
        return;
    }
    std::vector<std::pair<uint32_t, std::string>> theirs;
    bool failed = false;
    auto keep = [&](uint32_t id, std::string_view base) { theirs.emplace_back(id, std::string(base)); };
    std::thread helper;
    try {
        helper = std::thread([&]() {
            try {
                scan_dpkg_part(root, info.get(), index, diverted_bases, filter, next, keep);
            } catch (...) {
                failed = true;
            }
        });
    } catch (...) {
        // No thread to be had: this one reads every list.
    }
    try {
        scan_dpkg_part(root, info.get(), index, diverted_bases, filter, next, fn);
    } catch (...) {
        if (helper.joinable()) helper.join();
        throw;
    }
    if (helper.joinable()) helper.join();
    if (failed) throw std::bad_alloc();
    for (const auto& h : theirs) fn(h.first, h.second);
}

void index_rpm(const HostRoot& root, PackageIndex& index) {
    read_rpm_db(root, false, [&](RpmPackage& r) {
        PackageIndex::Package pkg;
        pkg.name = std::move(r.name);
        pkg.company = std::move(r.vendor);
        pkg.kind = PackageIndex::Kind::kRpm;
        pkg.rpm_hnum = r.hnum;
        index.add_package(std::move(pkg));
    });
}

// One read of the rpm database for every rpm package: fn(id, base) per file
// name (or per wanted one), and keep(id, files) for each package that listed
// a wanted name, so its records need no second read.
template <class F, class K>
void scan_rpm(const HostRoot& root, const PackageIndex& index, const NameFilter* filter, F&& fn, K&& keep) {
    std::unordered_map<uint32_t, uint32_t> by_hnum;
    for (uint32_t id = 0; id < index.packages(); ++id)
        if (index.package(id).kind == PackageIndex::Kind::kRpm) by_hnum.emplace(index.package(id).rpm_hnum, id);
    if (by_hnum.empty()) return;
    read_rpm_db(root, true, [&](RpmPackage& r) {
        auto it = by_hnum.find(r.hnum);
        if (it == by_hnum.end() || index.package(it->second).name != r.name) return;
        bool hit = false;
        for (const RpmFile& f : r.files) {
            const std::string_view base = base_of(f.path);
            if (filter && !filter->wants(base)) continue;
            hit = true;
            fn(it->second, base);
        }
        if (hit && filter) keep(it->second, r.files);
    });
}

// Identity of a database file, "" when absent. Looked at, never opened.
std::string file_signature(const HostRoot& root, const std::string& path) {
    struct stat st;
    if (stat_host(root, path, st, kNoFollow) != 0) return std::string();
    return path + ":" + std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" +
           std::to_string(st.st_size) + ":" + std::to_string(st.st_mtim.tv_sec) + "." +
           std::to_string(st.st_mtim.tv_nsec) + ";";
}

const char* const kApkDb = "/lib/apk/db/installed";

// Where the text after the last empty line of `b` begins (0: none): apk's
// stanzas end there.
size_t after_last_empty_line(const char* b, size_t n) {
    for (const void* nl = ::memrchr(b, '\n', n); nl;) {
        const size_t e = static_cast<size_t>(static_cast<const char*>(nl) - b);
        if ((e >= 1 && b[e - 1] == '\n') || (e >= 2 && b[e - 1] == '\r' && b[e - 2] == '\n')) return e + 1;
        nl = e ? ::memrchr(b, '\n', e) : nullptr;
    }
    return 0;
}

// Reads the file open at `fd` front to back a piece at a time, at most
// `max_bytes` as read_host_file would, calling fn(text, offset, last) on whole
// stanzas (text ends after an empty line, or at the end of the file when
// `last`). A stanza longer than a piece grows the buffer.
template <class F>
void read_stanzas(int fd, size_t max_bytes, F&& fn) {
    ReadBuf buf;
    buf.grow(std::min(kPiece, std::max<size_t>(max_bytes, 1)));
    uint64_t offset = 0;
    size_t total = 0;
    bool end = false;
    while (!end) {
        if (buf.len == buf.cap) buf.grow(std::min(buf.cap * 2, std::max(max_bytes, buf.cap + 1)));
        const size_t want = std::min(buf.cap - buf.len, max_bytes - total);
        const ssize_t n = want ? ::read(fd, buf.data.get() + buf.len, want) : 0;
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            end = true;
        } else {
            buf.len += static_cast<size_t>(n);
            total += static_cast<size_t>(n);
            end = total >= max_bytes;
        }
        const size_t cut = end ? buf.len : after_last_empty_line(buf.data.get(), buf.len);
        if (cut == 0 && !end) continue;
        fn(std::string_view(buf.data.get(), cut), offset, end);
        std::memmove(buf.data.get(), buf.data.get() + cut, buf.len - cut);
        buf.len -= cut;
        offset += cut;
    }
}

// apk keeps one text file: stanzas of P: (name), m: (maintainer), F: (a
// directory) and R: (a file in it). Only the stanza's place is kept; with
// `names`, the R: names go straight into the table. Read a piece at a time:
// a large database is never held whole.
void index_apk(const HostRoot& root, PackageIndex& index, bool names) {
    const Fd fd(open_host_file(root, kApkDb));
    if (fd.get() < 0) return;
    index.apk_signature = file_signature(root, kApkDb);
    PackageIndex::Package cur;
    std::vector<std::string_view> bases;  // in the piece at hand: a stanza never spans two
    uint64_t start = 0;
    auto flush = [&](uint64_t end) {
        if (!cur.name.empty()) {
            cur.kind = PackageIndex::Kind::kApk;
            cur.apk_off = start;
            cur.apk_len = end - start;
            const uint32_t id = index.add_package(std::move(cur));
            for (std::string_view b : bases) index.add_name(id, b);
        }
        cur = PackageIndex::Package();
        bases.clear();
    };
    read_stanzas(fd.get(), kDefaultMaxFile, [&](std::string_view text, uint64_t offset, bool last) {
        size_t pos = 0;
        while (pos < text.size()) {
            const void* nl = std::memchr(text.data() + pos, '\n', text.size() - pos);
            const size_t end = nl ? static_cast<size_t>(static_cast<const char*>(nl) - text.data()) : text.size();
            std::string_view line(text.data() + pos, end - pos);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (line.empty()) {
                flush(offset + pos);
                start = offset + end + 1;
            } else if (line.size() >= 2 && line[1] == ':') {
                const std::string_view v = line.substr(2);
                if (line[0] == 'P') cur.name.assign(v.data(), v.size());
                if (line[0] == 'm') cur.company.assign(v.data(), v.size());
                if (names && line[0] == 'R') bases.push_back(base_of(v));
            }
            pos = end + 1;
        }
        if (last) flush(offset + text.size());
    });
}

// The apk stanzas that list a wanted name: fn(id, base) per hit and
// keep(id, stanza) once per such stanza, from one read of the database, a
// piece at a time.
template <class F, class K>
void scan_apk(const HostRoot& root, const PackageIndex& index, const NameFilter& filter, F&& fn, K&& keep) {
    if (index.apk_signature.empty() || file_signature(root, kApkDb) != index.apk_signature) return;
    const Fd fd(open_host_file(root, kApkDb));
    if (fd.get() < 0) return;
    uint32_t id = 0;  // apk's packages come last, in the file's order
    while (id < index.packages() && index.package(id).kind != PackageIndex::Kind::kApk) ++id;
    read_stanzas(fd.get(), kDefaultMaxFile, [&](std::string_view text, uint64_t offset, bool) {
        for (; id < index.packages(); ++id) {
            const PackageIndex::Package& p = index.package(id);
            if (p.kind != PackageIndex::Kind::kApk || p.apk_off < offset) continue;
            if (p.apk_off + p.apk_len > offset + text.size()) break;  // in a later piece
            const std::string_view stanza = text.substr(p.apk_off - offset, p.apk_len);
            bool hit = false;
            for (size_t pos = 0; pos < stanza.size();) {
                const void* nl = std::memchr(stanza.data() + pos, '\n', stanza.size() - pos);
                const size_t end =
                    nl ? static_cast<size_t>(static_cast<const char*>(nl) - stanza.data()) : stanza.size();
                std::string_view line = stanza.substr(pos, end - pos);
                pos = end + 1;
                if (line.size() < 3 || line[0] != 'R' || line[1] != ':') continue;
                if (line.back() == '\r') line.remove_suffix(1);
                if (!filter.maybe(line.substr(2))) continue;
                const std::string_view base = base_of(line.substr(2));
                if (!filter.wants(base)) continue;
                hit = true;
                fn(id, base);
            }
            if (hit) keep(id, stanza);
        }
    });
}

// What the package databases looked like when a table was built.
std::string db_signature(const HostRoot& root) {
    std::string sig;
    std::vector<std::string> files = {"/var/lib/dpkg/status", "/var/lib/dpkg/diversions", kApkDb};
    const std::string rpmdir = rpm_db_dir(root);
    if (!rpmdir.empty()) {
        for (const char* f : {"/rpmdb.sqlite", "/rpmdb.sqlite-wal", "/Packages.db", "/Packages"})
            files.push_back(rpmdir + f);
    }
    for (const std::string& f : files) sig += file_signature(root, f);
    return sig;
}

// ---- answering: the candidates' own records -----------------------------------

// One file a package recorded: its path as installed, and its digest if any.
struct Recorded {
    std::string path;
    DigestAlgo algo = DigestAlgo::kNone;
    std::string digest;
};

// Records of one package, read when one of its files is first asked about:
// dpkg's .list, .md5sums and the status file's conffiles, apk's stanza, or
// rpm's header.
// With `filter`, only the files whose names it wants (others are not asked about).
void read_dpkg_records(const HostRoot& root, const PackageIndex& index, const PackageIndex::Package& p,
                       const NameFilter* filter, std::vector<Recorded>& out) {
    const Fd info(open_host(root, "/var/lib/dpkg/info", O_RDONLY | O_DIRECTORY));
    if (info.get() < 0) return;
    ReadBuf buf;
    std::string key;
    std::unordered_map<std::string, size_t> at;  // path -> its record
    auto record = [&](std::string_view path, DigestAlgo algo, const unsigned char* digest) {
        if (path.empty() || path[0] != '/') return;
        const std::string norm = normalize_path(diverted(index, p.name, path, key));
        if (filter && !filter->wants(base_of(norm))) return;
        auto it = at.find(norm);
        if (it == at.end()) {
            it = at.emplace(norm, out.size()).first;
            out.push_back(Recorded{norm, DigestAlgo::kNone, std::string()});
        }
        if (algo != DigestAlgo::kNone) {
            out[it->second].algo = algo;
            out[it->second].digest.assign(reinterpret_cast<const char*>(digest), digest_size(algo));
        }
    };
    auto listed = [&](std::string_view path) { record(path, DigestAlgo::kNone, nullptr); };
    const std::function<void(std::string_view, const unsigned char*)> md5 =
        [&](std::string_view path, const unsigned char* digest) { record(path, DigestAlgo::kMd5, digest); };
    if (filter) {
        read_in_pieces(info.get(), p.stem + ".list", false, kMaxList, buf, 1,
                       [&](std::string_view text, const char* more) {
                           filter->for_each_candidate(text, listed, more);
                       });
        // A line ends with its path: most are passed over unparsed.
        read_in_pieces(info.get(), p.stem + ".md5sums", false, kMaxList, buf, 0,
                       [&](std::string_view text, const char*) {
                           filter->for_each_maybe_line(text, [&](std::string_view line) { parse_md5sums(line, md5); });
                       });
    } else {
        if (read_in_dir(info.get(), p.stem + ".list", buf, kMaxList) == 0) for_each_listed_file(buf.view(), listed);
        if (read_in_dir(info.get(), p.stem + ".md5sums", buf, kMaxList) == 0) parse_md5sums(buf.view(), md5);
    }
    for (const DpkgConffile& c : p.conffiles) {
        unsigned char md5[16];
        if (hex_to_bytes(c.md5, md5, 16)) record(c.path, DigestAlgo::kMd5, md5);
    }
}

void read_apk_records(const HostRoot& root, const PackageIndex& index, const PackageIndex::Package& p,
                      std::vector<Recorded>& out) {
    // The stanza's place holds only for the database the table was built from.
    if (file_signature(root, kApkDb) != index.apk_signature) return;
    std::string text;
    if (read_host_file(root, kApkDb, text) != 0 || p.apk_off + p.apk_len > text.size()) return;
    for (ApkPackage& a : parse_apk_installed(std::string_view(text).substr(p.apk_off, p.apk_len), true)) {
        if (a.name != p.name) continue;
        for (const ApkFile& f : a.files) {
            Recorded r{normalize_path(f.path), f.has_sha1 ? DigestAlgo::kSha1 : DigestAlgo::kNone, std::string()};
            if (f.has_sha1) r.digest.assign(reinterpret_cast<const char*>(f.sha1), 20);
            out.push_back(std::move(r));
        }
    }
}


struct Answer {
    int32_t pkg = -1;  // -1: no package owns the file
    DigestAlgo algo = DigestAlgo::kNone;
    std::string digest;
};

// Bounds on what the lookups of one root remember; past them the memory is
// dropped and refilled from the databases as asked.
constexpr size_t kMaxRecords = 400000;
constexpr size_t kMaxAnswers = 65536;
constexpr size_t kMaxListed = 65536;
constexpr long kCanonBudget = 1L << 16;

struct RootSlot {
    std::mutex mu;
    // Packages of every database; with a name table only once a lookup came
    // alone (see package_owner), else `listed` answers by name.
    std::shared_ptr<const PackageIndex> index;
    bool full = false;
    std::string signature;
    std::chrono::steady_clock::time_point checked;
    std::unique_ptr<DirCanon> canon;
    std::unordered_map<uint32_t, std::vector<Recorded>> records;  // per package read
    size_t record_count = 0;
    std::unordered_map<std::string, Answer> answers;  // per normalised path asked
    // Packages listing each base name a batch asked about, in database order
    // (empty: none), from one pass over the file lists per batch.
    std::unordered_map<std::string, std::vector<uint32_t>> listed;
    NameFilter asked;  // the names of `listed` (and diversions' sources): dpkg records keep only these
    size_t passes = 0;

    void forget() {
        records.clear();
        record_count = 0;
        answers.clear();
        listed.clear();
        asked = NameFilter();
        canon.reset();
    }
};

// Signatures are looked at no more often than this: a process collection asks
// thousands of times within a second.
constexpr std::chrono::seconds kRecheck(2);

RootSlot& slot_of(const HostRoot& root) {
    static std::mutex* registry_mu = new std::mutex();
    static auto* registry = new std::unordered_map<std::string, std::unique_ptr<RootSlot>>();
    std::lock_guard<std::mutex> lock(*registry_mu);
    std::unique_ptr<RootSlot>& s = (*registry)[root.root()];
    if (!s) s.reset(new RootSlot());
    return *s;
}

std::shared_ptr<const PackageIndex> build_index(const HostRoot& root, bool names) {
    auto index = std::make_shared<PackageIndex>();
    index_dpkg(root, *index);
    index_rpm(root, *index);
    index_apk(root, *index, names);
    if (names) {
        PackageIndex& ix = *index;
        ix.reserve(0, 1u << 17);
        scan_dpkg(root, ix, nullptr, [&](uint32_t id, std::string_view base) { ix.add_name(id, base); });
        scan_rpm(
            root, ix, nullptr, [&](uint32_t id, std::string_view base) { ix.add_name(id, base); },
            [](uint32_t, const std::vector<RpmFile>&) {});
    }
    index->finish();
    return index;
}

// With slot.mu held: the packages, read again when a database changed.
const PackageIndex* fresh_index(RootSlot& slot, const HostRoot& root) {
    const auto now = std::chrono::steady_clock::now();
    if (slot.index && now - slot.checked < kRecheck) return slot.index.get();
    std::string sig = db_signature(root);
    slot.checked = now;
    if (slot.index && sig == slot.signature) return slot.index.get();
    slot.index.reset();  // free the old one before the new one grows
    slot.forget();
    slot.full = false;
    slot.index = build_index(root, false);
    slot.signature = std::move(sig);
    slot.checked = std::chrono::steady_clock::now();
    return slot.index.get();
}

// With slot.mu held: the name table, for lookups that come one at a time
// (one pass over the lists per name would cost more).
const PackageIndex* full_index(RootSlot& slot, const HostRoot& root) {
    if (slot.full) return slot.index.get();
    slot.index.reset();
    slot.forget();
    slot.index = build_index(root, true);
    slot.full = true;
    return slot.index.get();
}

// Records are kept sorted by base name (stable: a package's own order stays
// among equal names), so a lookup is a binary search, not a walk of every
// file of every candidate: a name like METADATA or package.json has hundreds.
bool base_less(const Recorded& a, const Recorded& b) { return base_of(a.path) < base_of(b.path); }

void keep_records(RootSlot& slot, uint32_t id, std::vector<Recorded> recs) {
    if (slot.records.count(id)) return;
    if (slot.record_count > kMaxRecords) {
        slot.records.clear();
        slot.record_count = 0;
    }
    std::stable_sort(recs.begin(), recs.end(), base_less);
    recs.shrink_to_fit();
    slot.record_count += recs.size() + 1;
    slot.records.emplace(id, std::move(recs));
}

void rpm_recorded(const std::vector<RpmFile>& files, std::vector<Recorded>& out) {
    for (const RpmFile& f : files) {
        Recorded r{normalize_path(f.path), f.algo, std::string()};
        if (f.algo != DigestAlgo::kNone) r.digest.assign(reinterpret_cast<const char*>(f.digest), digest_size(f.algo));
        out.push_back(std::move(r));
    }
}

void apk_recorded(std::string_view stanza, const std::string& name, std::vector<Recorded>& out) {
    for (ApkPackage& a : parse_apk_installed(stanza, true)) {
        if (a.name != name) continue;
        for (const ApkFile& f : a.files) {
            Recorded r{normalize_path(f.path), f.has_sha1 ? DigestAlgo::kSha1 : DigestAlgo::kNone, std::string()};
            if (f.has_sha1) r.digest.assign(reinterpret_cast<const char*>(f.sha1), 20);
            out.push_back(std::move(r));
        }
    }
}

// With slot.mu held: which packages list each base name in `bases` not
// asked before, from one pass over every database's file lists. The rpm and
// apk packages found keep their records from the same read.
void list_names(RootSlot& slot, const HostRoot& root, const PackageIndex& index,
                const std::vector<std::string_view>& bases) {
    NameFilter filter;
    for (std::string_view b : bases)
        if (!slot.listed.count(std::string(b))) filter.add(b);
    if (filter.empty()) return;
    if (slot.listed.size() + filter.size() > kMaxListed) slot.forget();
    for (const auto& d : index.diversions) {
        filter.pass(base_of(d.first));
        slot.asked.pass(base_of(d.first));
    }
    std::unordered_map<std::string, std::vector<uint32_t>> found;
    auto hit = [&](uint32_t id, std::string_view base) {
        std::vector<uint32_t>& ids = found[std::string(base)];
        if (ids.empty() || ids.back() != id) ids.push_back(id);
    };
    scan_dpkg(root, index, &filter, hit);
    scan_rpm(root, index, &filter, hit, [&](uint32_t id, const std::vector<RpmFile>& files) {
        std::vector<Recorded> recs;
        rpm_recorded(files, recs);
        keep_records(slot, id, std::move(recs));
    });
    scan_apk(root, index, filter, hit, [&](uint32_t id, std::string_view stanza) {
        std::vector<Recorded> recs;
        apk_recorded(stanza, index.package(id).name, recs);
        keep_records(slot, id, std::move(recs));
    });
    ++slot.passes;
    for (std::string_view b : bases) {
        std::string key(b);
        if (slot.listed.count(key)) continue;
        auto it = found.find(key);
        std::vector<uint32_t> ids;
        if (it != found.end()) {
            // Database order decides between two owners: dpkg's packages
            // came first, then rpm's, then apk's, as the ids go.
            ids = std::move(it->second);
            std::sort(ids.begin(), ids.end());
            ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
        }
        // A dpkg package read before for other names is read again for this one.
        for (uint32_t id : ids)
            if (index.package(id).kind == PackageIndex::Kind::kDpkg) slot.records.erase(id);
        slot.asked.add(key);
        slot.listed.emplace(std::move(key), std::move(ids));
    }
}

const std::vector<Recorded>& records_of(RootSlot& slot, const HostRoot& root, const PackageIndex& index,
                                        uint32_t id) {
    auto it = slot.records.find(id);
    if (it != slot.records.end()) return it->second;
    std::vector<Recorded> recs;
    const PackageIndex::Package& p = index.package(id);
    switch (p.kind) {
        case PackageIndex::Kind::kDpkg:
            read_dpkg_records(root, index, p, slot.full ? nullptr : &slot.asked, recs);
            break;
        case PackageIndex::Kind::kApk:
            read_apk_records(root, index, p, recs);
            break;
        case PackageIndex::Kind::kRpm:
            break;  // read by read_rpm_candidates, all at once
    }
    keep_records(slot, id, std::move(recs));
    return slot.records.find(id)->second;
}

// With slot.mu held: the records of the rpm packages among `cands` not read
// yet, from one read of the database (not one per package).
void read_rpm_candidates(RootSlot& slot, const HostRoot& root, const PackageIndex& index,
                         const std::vector<uint32_t>& cands) {
    std::unordered_map<uint32_t, uint32_t> want;  // hnum -> id
    for (uint32_t id : cands)
        if (index.package(id).kind == PackageIndex::Kind::kRpm && !slot.records.count(id))
            want.emplace(index.package(id).rpm_hnum, id);
    if (want.empty()) return;
    read_rpm_db(root, true, [&](RpmPackage& r) {
        auto it = want.find(r.hnum);
        if (it == want.end() || index.package(it->second).name != r.name) return;
        std::vector<Recorded> recs;
        rpm_recorded(r.files, recs);
        keep_records(slot, it->second, std::move(recs));
    });
}

// With slot.mu held. The first package (in database order) among `cands`
// that recorded a digest for the file owns it, else the first that lists it.
Answer answer(RootSlot& slot, const HostRoot& root, const PackageIndex& index, std::string_view path,
              const std::vector<uint32_t>& cands) {
    Answer a;
    if (cands.empty()) return a;
    std::string_view dir, base;
    split_dir_base(path, dir, base);
    if (!slot.canon) slot.canon.reset(new DirCanon(root, kCanonBudget));
    read_rpm_candidates(slot, root, index, cands);
    std::string qdir;  // canonical directory asked about, resolved on first need
    bool have_qdir = false;
    Recorded probe;
    probe.path.assign(base.data(), base.size());
    for (uint32_t id : cands) {
        const std::vector<Recorded>& recs = records_of(slot, root, index, id);
        for (auto r = std::lower_bound(recs.begin(), recs.end(), probe, base_less);
             r != recs.end() && base_of(r->path) == base; ++r) {
            const std::string_view rdir = dir_of(r->path);
            if (rdir != dir) {
                // The same file under another directory name (/lib -> usr/lib).
                if (!have_qdir) {
                    qdir = slot.canon->canon(std::string(dir));
                    have_qdir = true;
                }
                if (slot.canon->canon(std::string(rdir)) != qdir) continue;
            }
            if (a.pkg < 0 || (a.algo == DigestAlgo::kNone && r->algo != DigestAlgo::kNone)) {
                a.pkg = static_cast<int32_t>(id);
                a.algo = r->algo;
                a.digest = r->digest;
            }
            if (a.algo != DigestAlgo::kNone) return a;
            break;
        }
    }
    return a;
}

void fill(const PackageIndex& index, const Answer& a, FileOwner& out) {
    const PackageIndex::Package& p = index.package(static_cast<uint32_t>(a.pkg));
    out.package = p.name;
    out.company = p.company;
    out.algo = a.algo;
    std::memset(out.digest, 0, sizeof out.digest);
    if (a.digest.size() <= sizeof out.digest) std::memcpy(out.digest, a.digest.data(), a.digest.size());
}

bool usable_path(const std::string& p) {
    return !p.empty() && p[0] == '/' && p.find('\0') == std::string::npos;
}

}  // namespace

std::shared_ptr<const PackageIndex> build_package_index(const HostRoot& root) { return build_index(root, true); }

std::shared_ptr<const PackageIndex> package_index(const HostRoot& root) {
    RootSlot& slot = slot_of(root);
    std::lock_guard<std::mutex> lock(slot.mu);
    fresh_index(slot, root);
    return slot.index;
}

OwnershipStats ownership_stats(const HostRoot& root) {
    RootSlot& slot = slot_of(root);
    std::lock_guard<std::mutex> lock(slot.mu);
    OwnershipStats s;
    if (!slot.index) return s;
    s.packages = slot.index->packages();
    s.names = slot.index->names();
    s.listed = slot.listed.size();
    s.passes = slot.passes;
    s.packages_read = slot.records.size();
    s.answers = slot.answers.size();
    s.memory_bytes = slot.index->memory_bytes();
    for (const auto& r : slot.records) {
        s.memory_bytes += 48 + r.second.capacity() * sizeof(Recorded);
        for (const Recorded& x : r.second) s.memory_bytes += x.path.capacity() + x.digest.capacity();
    }
    for (const auto& a : slot.answers) s.memory_bytes += 64 + a.first.capacity() + a.second.digest.capacity();
    for (const auto& l : slot.listed) s.memory_bytes += 64 + l.first.capacity() + l.second.capacity() * 4;
    return s;
}

bool package_owner(const HostRoot& root, const std::string& host_path, FileOwner& out) {
    try {
        if (!usable_path(host_path)) return false;
        std::string norm = normalize_path(host_path);
        RootSlot& slot = slot_of(root);
        std::lock_guard<std::mutex> lock(slot.mu);
        const PackageIndex* index = fresh_index(slot, root);
        if (!index) return false;
        auto it = slot.answers.find(norm);
        if (it == slot.answers.end()) {
            std::string_view dir, base;
            split_dir_base(norm, dir, base);
            std::vector<uint32_t> cands;
            auto l = slot.full ? slot.listed.end() : slot.listed.find(std::string(base));
            if (l != slot.listed.end()) {
                cands = l->second;
            } else {
                index = full_index(slot, root);
                index->candidates(base, cands);
            }
            if (slot.answers.size() >= kMaxAnswers) slot.answers.clear();
            Answer a = answer(slot, root, *index, norm, cands);
            it = slot.answers.emplace(std::move(norm), std::move(a)).first;
        }
        if (it->second.pkg < 0) return false;
        fill(*index, it->second, out);
        return true;
    } catch (...) {
        return false;
    }
}

void package_owners(const HostRoot& root, const std::vector<std::string>& host_paths, std::vector<FileOwner>& out,
                    std::vector<char>& owned) {
    out.assign(host_paths.size(), FileOwner());
    owned.assign(host_paths.size(), 0);
    try {
        std::vector<std::string> norms(host_paths.size());
        std::vector<std::string_view> bases;
        for (size_t i = 0; i < host_paths.size(); ++i) {
            if (!usable_path(host_paths[i])) continue;
            norms[i] = normalize_path(host_paths[i]);
            std::string_view dir, base;
            split_dir_base(norms[i], dir, base);
            bases.push_back(base);
        }
        RootSlot& slot = slot_of(root);
        std::lock_guard<std::mutex> lock(slot.mu);
        const PackageIndex* index = fresh_index(slot, root);
        if (!index) return;
        if (!slot.full) list_names(slot, root, *index, bases);
        std::vector<uint32_t> cands;
        for (size_t i = 0; i < norms.size(); ++i) {
            if (norms[i].empty()) continue;
            auto it = slot.answers.find(norms[i]);
            if (it == slot.answers.end()) {
                std::string_view dir, base;
                split_dir_base(norms[i], dir, base);
                if (slot.full) {
                    index->candidates(base, cands);
                } else {
                    auto l = slot.listed.find(std::string(base));
                    if (l == slot.listed.end()) continue;  // dropped past its bound: no answer this time
                    cands = l->second;
                }
                if (slot.answers.size() >= kMaxAnswers) slot.answers.clear();
                Answer a = answer(slot, root, *index, norms[i], cands);
                it = slot.answers.emplace(norms[i], std::move(a)).first;
            }
            if (it->second.pkg < 0) continue;
            fill(*index, it->second, out[i]);
            owned[i] = 1;
        }
    } catch (...) {
        // Out of memory: the files not judged yet stay unowned.
    }
}

}  // namespace amsvc
