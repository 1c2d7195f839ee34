#include "core/digest_cache.h"

#include "core/common.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace amsvc {

namespace {

// A file is the same file with the same content as long as none of these
// change; ctime moves on any write, even one that restores the mtime.
struct FileId {
    uint64_t dev, ino, size;
    int64_t mtime_s, mtime_ns, ctime_s, ctime_ns;
    bool operator==(const FileId& o) const {
        return dev == o.dev && ino == o.ino && size == o.size && mtime_s == o.mtime_s &&
               mtime_ns == o.mtime_ns && ctime_s == o.ctime_s && ctime_ns == o.ctime_ns;
    }
};

struct FileIdHash {
    size_t operator()(const FileId& k) const {
        uint64_t h = 1469598103934665603ull;
        for (uint64_t v : {k.dev, k.ino, k.size, static_cast<uint64_t>(k.mtime_s),
                           static_cast<uint64_t>(k.mtime_ns), static_cast<uint64_t>(k.ctime_ns)}) {
            h ^= v + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
        }
        return static_cast<size_t>(h);
    }
};

FileId id_of(const struct stat& st) {
    return FileId{static_cast<uint64_t>(st.st_dev),         static_cast<uint64_t>(st.st_ino),
                  static_cast<uint64_t>(st.st_size),        static_cast<int64_t>(st.st_mtim.tv_sec),
                  static_cast<int64_t>(st.st_mtim.tv_nsec), static_cast<int64_t>(st.st_ctim.tv_sec),
                  static_cast<int64_t>(st.st_ctim.tv_nsec)};
}

// ~200 bytes an entry: 32768 entries stay under 8 MiB.
constexpr size_t kMaxEntries = 32768;

class DigestCache {
public:
    // True and `out` filled when cached with what `extra` needs. When another
    // thread is hashing the same file, waits for it instead of reading twice.
    // False means the caller now owns hashing `id` and must call finish().
    bool lookup_or_claim(const FileId& id, DigestAlgo extra, FileDigests& out) {
        std::unique_lock<std::mutex> lock(mu_);
        for (;;) {
            auto it = map_.find(id);
            if (it != map_.end() && satisfies(it->second.digests, extra)) {
                lru_.splice(lru_.begin(), lru_, it->second.pos);
                out = it->second.digests;
                return true;
            }
            if (!busy_.count(id)) break;
            cv_.wait(lock);
        }
        busy_.insert(id);
        return false;
    }

    void finish(const FileId& id, const FileDigests* digests) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            busy_.erase(id);
            if (digests) store(id, *digests);
        }
        cv_.notify_all();
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mu_);
        map_.clear();
        lru_.clear();
    }

private:
    struct Entry {
        FileDigests digests;
        std::list<FileId>::iterator pos;
    };

    static bool satisfies(const FileDigests& d, DigestAlgo extra) {
        if (extra == DigestAlgo::kNone || extra == DigestAlgo::kMd5 || extra == DigestAlgo::kSha256)
            return true;
        return d.extra_algo == extra;
    }

    void store(const FileId& id, const FileDigests& d) {
        auto it = map_.find(id);
        if (it != map_.end()) {
            it->second.digests = d;
            lru_.splice(lru_.begin(), lru_, it->second.pos);
            return;
        }
        lru_.push_front(id);
        map_.emplace(id, Entry{d, lru_.begin()});
        while (map_.size() > kMaxEntries) {
            map_.erase(lru_.back());
            lru_.pop_back();
        }
    }

    std::mutex mu_;
    std::condition_variable cv_;
    std::unordered_map<FileId, Entry, FileIdHash> map_;
    std::list<FileId> lru_;  // most recently used first
    std::unordered_set<FileId, FileIdHash> busy_;
};

// Never destroyed: hashing threads of a caller may outlive static destruction.
DigestCache& cache() {
    static DigestCache* c = new DigestCache();
    return *c;
}

std::atomic<uint64_t> g_files_hashed{0};
std::atomic<uint64_t> g_bytes_hashed{0};
std::atomic<uint64_t> g_cache_hits{0};

const EVP_MD* md_of(DigestAlgo a) {
    switch (a) {
        case DigestAlgo::kSha1:
            return EVP_sha1();
        case DigestAlgo::kSha224:
            return EVP_sha224();
        case DigestAlgo::kSha384:
            return EVP_sha384();
        case DigestAlgo::kSha512:
            return EVP_sha512();
        default:
            return nullptr;
    }
}

struct MdCtx {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    ~MdCtx() { EVP_MD_CTX_free(ctx); }
};

struct OwnedFd {
    int fd;
    ~OwnedFd() {
        if (fd >= 0) ::close(fd);
    }
};

// Reads `fd` to its end in chunks of at most `cap` bytes into the buffer that
// `next` hands out, and gives each chunk to `take`. False on a read error, and
// when `budget` runs out of time first (`timed_out` then set).
template <class Next, class Take>
bool read_chunks(int fd, size_t cap, const DigestBudget* budget, uint64_t& bytes, bool& timed_out, Next&& next,
                 Take&& take) {
    timed_out = false;
    bytes = 0;
    for (;;) {
        unsigned char* buf = next();
        const ssize_t n = ::read(fd, buf, cap);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) return true;
        // The clock is looked at every 2 MiB.
        if (budget && (bytes & ((2u << 20) - 1)) + static_cast<uint64_t>(n) >= (2u << 20) &&
            budget->expired()) {
            timed_out = true;
            return false;
        }
        bytes += static_cast<uint64_t>(n);
        // A file that grows while it is read must not keep us reading forever.
        if (bytes > kMaxHashedFileSize) return false;
        take(buf, static_cast<size_t>(n));
    }
}

// Files from this size on are hashed on two threads when a second CPU is
// ours: MD5 on one, SHA-256 (and an extra kind) on the other. MD5 is the
// slowest kind, so a large program no longer costs the sum of both.
constexpr uint64_t kSplitMinSize = 8u << 20;

size_t usable_cpus() {
    static const size_t n = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        if (::sched_getaffinity(0, sizeof set, &set) != 0) return static_cast<size_t>(1);
        return static_cast<size_t>(CPU_COUNT(&set));
    }();
    return n;
}

// Files hashed on two threads right now: at most one per two CPUs, so
// concurrent hashing threads do not each add a helper to a full machine.
std::atomic<size_t> g_split_active{0};

// The reader's chunks handed to the MD5 thread through a ring of buffers;
// the reader fills a buffer again only after the MD5 thread is done with it.
class Md5Lane {
public:
    static constexpr size_t kChunk = 256u << 10, kSlots = 4;

    explicit Md5Lane(EVP_MD_CTX* ctx) : ctx_(ctx), mem_(new unsigned char[kChunk * kSlots]) {}
    ~Md5Lane() { stop(); }
    Md5Lane(const Md5Lane&) = delete;
    Md5Lane& operator=(const Md5Lane&) = delete;

    // False when no thread could be started (the caller hashes alone).
    bool start() {
        try {
            thread_ = std::thread([this] { run(); });
            return true;
        } catch (...) {
            return false;
        }
    }
    // The buffer for the next chunk, once the MD5 thread is done with its last use.
    unsigned char* next() {
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait(lock, [&] { return produced_ < consumed_ + kSlots; });
        return mem_.get() + (produced_ % kSlots) * kChunk;
    }
    void push(size_t n) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            len_[produced_ % kSlots] = n;
            ++produced_;
        }
        cv_.notify_all();
    }
    // Waits for every chunk pushed to be hashed and ends the thread.
    void stop() {
        if (!thread_.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mu_);
            ending_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mu_);
        for (;;) {
            cv_.wait(lock, [&] { return consumed_ < produced_ || ending_; });
            if (consumed_ == produced_) return;  // ending, nothing left
            const size_t slot = consumed_ % kSlots, n = len_[slot];
            lock.unlock();
            EVP_DigestUpdate(ctx_, mem_.get() + slot * kChunk, n);
            lock.lock();
            ++consumed_;
            cv_.notify_all();
        }
    }

    EVP_MD_CTX* ctx_;
    std::unique_ptr<unsigned char[]> mem_;
    size_t len_[kSlots] = {};
    uint64_t produced_ = 0, consumed_ = 0;  // chunks
    bool ending_ = false;
    std::mutex mu_;
    std::condition_variable cv_;
    std::thread thread_;
};

// Reads the whole file once through every digest. False on a read error,
// and when `budget` runs out of time first (`timed_out` then set). `size`
// (from fstat) only chooses between one thread and two.
bool hash_fd(int fd, uint64_t size, DigestAlgo extra, const DigestBudget* budget, FileDigests& out,
             uint64_t& bytes, bool& timed_out) {
    timed_out = false;
    MdCtx md5, sha256, more;
    const EVP_MD* extra_md = md_of(extra);
    if (!md5.ctx || !sha256.ctx || !more.ctx) return false;
    if (EVP_DigestInit_ex(md5.ctx, EVP_md5(), nullptr) != 1 ||
        EVP_DigestInit_ex(sha256.ctx, EVP_sha256(), nullptr) != 1)
        return false;
    if (extra_md && EVP_DigestInit_ex(more.ctx, extra_md, nullptr) != 1) return false;
    const auto others = [&](const unsigned char* p, size_t n) {
        EVP_DigestUpdate(sha256.ctx, p, n);
        if (extra_md) EVP_DigestUpdate(more.ctx, p, n);
    };
    bool ok = false, split = false;
    if (size >= kSplitMinSize && usable_cpus() >= 2) {
        const size_t cap = std::max<size_t>(1, usable_cpus() / 2);
        size_t active = g_split_active.load();
        while (active < cap && !g_split_active.compare_exchange_weak(active, active + 1)) {
        }
        split = active < cap;
    }
    if (split) {
        struct Release {
            ~Release() { g_split_active.fetch_sub(1); }
        } release;
        Md5Lane lane(md5.ctx);
        split = lane.start();
        if (split) {
            ok = read_chunks(
                fd, Md5Lane::kChunk, budget, bytes, timed_out, [&] { return lane.next(); },
                [&](const unsigned char* p, size_t n) {
                    lane.push(n);
                    others(p, n);
                });
            lane.stop();
            if (!ok) return false;
        }
    }
    if (!split) {
        // One buffer per hashing thread, kept: a fresh one for every file
        // would be mapped, faulted in and unmapped (with a TLB shootdown on
        // every CPU of the process) each time.
        constexpr size_t kBuf = 128 * 1024;
        thread_local std::unique_ptr<unsigned char[]> buf;
        if (!buf) buf.reset(new unsigned char[kBuf]);
        ok = read_chunks(
            fd, kBuf, budget, bytes, timed_out, [&] { return buf.get(); },
            [&](const unsigned char* p, size_t n) {
                EVP_DigestUpdate(md5.ctx, p, n);
                others(p, n);
            });
        if (!ok) return false;
    }
    unsigned int len = 0;
    if (EVP_DigestFinal_ex(md5.ctx, out.md5, &len) != 1 || len != sizeof out.md5) return false;
    if (EVP_DigestFinal_ex(sha256.ctx, out.sha256, &len) != 1 || len != sizeof out.sha256) return false;
    out.extra_algo = DigestAlgo::kNone;
    if (extra_md) {
        if (EVP_DigestFinal_ex(more.ctx, out.extra, &len) != 1 || len != digest_size(extra)) return false;
        out.extra_algo = extra;
    }
    return true;
}

}  // namespace

void digests_prepare() {
    (void)cache();
    MdCtx c;
    if (c.ctx && EVP_DigestInit_ex(c.ctx, EVP_md5(), nullptr) == 1)
        EVP_DigestInit_ex(c.ctx, EVP_sha256(), nullptr);
}

size_t digest_size(DigestAlgo algo) {
    switch (algo) {
        case DigestAlgo::kMd5:
            return 16;
        case DigestAlgo::kSha1:
            return 20;
        case DigestAlgo::kSha224:
            return 28;
        case DigestAlgo::kSha256:
            return 32;
        case DigestAlgo::kSha384:
            return 48;
        case DigestAlgo::kSha512:
            return 64;
        default:
            return 0;
    }
}

namespace {

constexpr uint32_t kFuseSuperMagic = 0x65735546;

std::atomic<uint64_t> g_budget_bytes{kDefaultDigestBudget.bytes};
std::atomic<int64_t> g_budget_ms{kDefaultDigestBudget.time.count()};

bool same_file(const struct stat& st, const ExpectedFile& expect, int fd) {
    if (!expect.set) return true;
    if (static_cast<uint64_t>(st.st_ino) != expect.ino) return false;
    if (static_cast<uint64_t>(st.st_dev) == expect.dev) return true;
    struct statfs sfs;
    return expect.kernel_link && ::fstatfs(fd, &sfs) == 0 && sfs.f_type == BTRFS_SUPER_MAGIC;
}

// Files whose content is not a file's: hugetlbfs holds process memory
// (memfd_create(MFD_HUGETLB)), and a FUSE file is served by a process that
// may stall a read forever.
bool unreadable_fs(int fd, const struct stat& st) {
    if (major(st.st_dev) != 0) return false;  // block devices: ext4, xfs, ...
    struct statfs sfs;
    if (::fstatfs(fd, &sfs) != 0) return true;
    return sfs.f_type == HUGETLBFS_MAGIC || static_cast<uint32_t>(sfs.f_type) == kFuseSuperMagic;
}

// A descriptor for reading the very inode `path_fd` holds (`st`): /proc/self/fd
// reopens the file the descriptor refers to, never a path looked up again.
// Opened O_NONBLOCK (a lease another user holds on the file does not stall
// the open), then read blocking, so no file system ever answers EAGAIN.
int reopen_for_reading(int path_fd, const struct stat& st) {
    const int fl = ::fcntl(path_fd, F_GETFL);
    if (fl >= 0 && !(fl & O_PATH) && (fl & O_ACCMODE) != O_WRONLY) {
        const int fd = ::fcntl(path_fd, F_DUPFD_CLOEXEC, 0);
        if (fd >= 0 && (fl & O_NONBLOCK)) ::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
        return fd;
    }
    char name[40];
    snprintf(name, sizeof name, "/proc/self/fd/%d", path_fd);
    const int fd = ::open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return fd;
    struct stat now;
    // Not procfs: whatever opened there is read only if it is that file.
    if ((!proc_fd_reopens() && (::fstat(fd, &now) != 0 || !S_ISREG(now.st_mode) || now.st_dev != st.st_dev ||
                                now.st_ino != st.st_ino)) ||
        ::fcntl(fd, F_SETFL, 0) != 0) {  // clears O_NONBLOCK (and nothing else was set)
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

void set_digest_budget(DigestBudgetLimits limits) {
    g_budget_bytes.store(limits.bytes);
    g_budget_ms.store(limits.time.count());
}

DigestBudgetLimits digest_budget() {
    return DigestBudgetLimits{g_budget_bytes.load(), std::chrono::milliseconds(g_budget_ms.load())};
}

DigestBudget::DigestBudget() : DigestBudget(digest_budget()) {}

DigestBudget::DigestBudget(DigestBudgetLimits limits)
    : bytes_(limits.bytes), deadline_(std::chrono::steady_clock::now() + limits.time) {}

bool DigestBudget::take(uint64_t size, bool& first) {
    first = false;
    bool expected = false;
    if (started_.compare_exchange_strong(expected, true)) {
        // The first file is read whatever its size, so none waits forever.
        used_.fetch_add(size);
        first = true;
        return true;
    }
    if (expired()) return false;
    uint64_t used = used_.load();
    do {
        if (used >= bytes_ || size > bytes_ - used) return false;
    } while (!used_.compare_exchange_weak(used, used + size));
    return true;
}

bool digest_file(const std::string& open_path, bool no_follow, DigestAlgo extra, FileDigests& out) {
    OwnedFd f{::open(open_path.c_str(), O_PATH | O_CLOEXEC | (no_follow ? O_NOFOLLOW : 0))};
    if (f.fd < 0) return false;
    return digest_opened(f.fd, ExpectedFile(), extra, nullptr, out) == DigestStatus::kOk;
}

bool digest_fd(int fd, DigestAlgo extra, FileDigests& out) {
    return digest_opened(fd, ExpectedFile(), extra, nullptr, out) == DigestStatus::kOk;
}

DigestStatus digest_opened(int path_fd, const ExpectedFile& expect, DigestAlgo extra, DigestBudget* budget,
                           FileDigests& out) {
    struct stat st;
    if (::fstat(path_fd, &st) != 0 || !S_ISREG(st.st_mode) || !same_file(st, expect, path_fd))
        return DigestStatus::kRefused;
    if (static_cast<uint64_t>(st.st_size) > kMaxHashedFileSize) return DigestStatus::kRefused;
    const FileId id = id_of(st);
    try {
        if (cache().lookup_or_claim(id, extra, out)) {
            g_cache_hits.fetch_add(1, std::memory_order_relaxed);
            return DigestStatus::kOk;
        }
    } catch (...) {
        return DigestStatus::kRefused;
    }
    // We own hashing `id` now: every path below must call finish().
    bool first = false;
    if (unreadable_fs(path_fd, st)) {
        cache().finish(id, nullptr);
        return DigestStatus::kRefused;
    }
    if (budget && !budget->take(static_cast<uint64_t>(st.st_size), first)) {
        cache().finish(id, nullptr);
        return DigestStatus::kDeferred;
    }
    OwnedFd fd{reopen_for_reading(path_fd, st)};
    if (fd.fd < 0) {
        cache().finish(id, nullptr);
        return DigestStatus::kRefused;
    }
    FileDigests d;
    uint64_t bytes = 0;
    bool ok = false, timed_out = false;
    try {
        // A small file is read whole by the first readahead anyway.
        if (st.st_size >= (1 << 20)) ::posix_fadvise(fd.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        ok = hash_fd(fd.fd, static_cast<uint64_t>(st.st_size), extra, first ? nullptr : budget, d, bytes,
                     timed_out);
    } catch (...) {
        ok = false;
    }
    g_files_hashed.fetch_add(1, std::memory_order_relaxed);
    g_bytes_hashed.fetch_add(bytes, std::memory_order_relaxed);
    // Cache only what is surely the content of `id`: a file written while we
    // read it may give a torn digest, which is fine to hand out once, never to keep.
    struct stat after;
    const bool stable =
        ok && ::fstat(fd.fd, &after) == 0 && id_of(after) == id && bytes == static_cast<uint64_t>(st.st_size);
    try {
        cache().finish(id, stable ? &d : nullptr);
    } catch (...) {
        cache().finish(id, nullptr);
    }
    if (timed_out) return DigestStatus::kDeferred;
    if (!ok) return DigestStatus::kRefused;
    out = d;
    return DigestStatus::kOk;
}

DigestStats digest_stats() {
    DigestStats s;
    s.files_hashed = g_files_hashed.load();
    s.bytes_hashed = g_bytes_hashed.load();
    s.cache_hits = g_cache_hits.load();
    return s;
}

void digest_cache_clear() { cache().clear(); }

std::string to_hex(const unsigned char* bytes, size_t n) {
    static const char kHex[] = "0123456789abcdef";
    std::string s(n * 2, '0');
    for (size_t i = 0; i < n; ++i) {
        s[2 * i] = kHex[bytes[i] >> 4];
        s[2 * i + 1] = kHex[bytes[i] & 15];
    }
    return s;
}

}  // namespace amsvc
