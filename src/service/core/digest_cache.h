// Digests of files on the host, computed in one read pass and remembered by
// file identity, so a library mapped by hundreds of processes, or seen again
// on the next collection, is read once.
#ifndef ASSETMAN_SERVICE_DIGEST_CACHE_H
#define ASSETMAN_SERVICE_DIGEST_CACHE_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <string>

namespace amsvc {

// Digest kinds a package manager may record for a file. md5 and sha256 are
// always computed; one further kind is computed in the same pass on request.
enum class DigestAlgo : uint8_t { kNone = 0, kMd5, kSha1, kSha224, kSha256, kSha384, kSha512 };

size_t digest_size(DigestAlgo algo);

struct FileDigests {
    unsigned char md5[16] = {};
    unsigned char sha256[32] = {};
    DigestAlgo extra_algo = DigestAlgo::kNone;  // what `extra` holds, kNone when nothing
    unsigned char extra[64] = {};
};

// Files larger than this are not hashed (a hostile user can map a sparse
// file of terabytes; reading it would stall the whole collection).
constexpr uint64_t kMaxHashedFileSize = 2ull << 30;  // 2 GiB

// What one collection may spend on reading files it has not hashed before.
// A file is started only while both are left; the first file a collection
// starts is always finished (at most kMaxHashedFileSize), so a file larger or
// slower than the whole budget is still hashed some day; any other file
// still being read when the time is up is dropped.
struct DigestBudgetLimits {
    uint64_t bytes;
    std::chrono::milliseconds time;
};
constexpr DigestBudgetLimits kDefaultDigestBudget{1ull << 30, std::chrono::milliseconds(10000)};
// Every later collection's budget (tests shrink it; the default otherwise).
void set_digest_budget(DigestBudgetLimits limits);
DigestBudgetLimits digest_budget();

// One collection's budget, shared by its hashing threads; starts counting
// time when constructed.
class DigestBudget {
public:
    DigestBudget();
    explicit DigestBudget(DigestBudgetLimits limits);
    // Takes `size` bytes of the budget. False (nothing taken) when too little
    // is left; `first` tells whether this is the collection's first file.
    bool take(uint64_t size, bool& first);
    bool expired() const { return std::chrono::steady_clock::now() >= deadline_; }

private:
    uint64_t bytes_;
    std::chrono::steady_clock::time_point deadline_;
    std::atomic<uint64_t> used_{0};
    std::atomic<bool> started_{false};
};

// What the file must be (the device and inode a process maps); `set` false:
// any regular file.
struct ExpectedFile {
    bool set = false;
    uint64_t dev = 0, ino = 0;
    // The descriptor came from the kernel's own link to the mapped file
    // (/proc/<pid>/map_files/..., /proc/<pid>/exe). Its inode must still be
    // the mapping's; its device may differ on btrfs, whose subvolumes show
    // their own device to stat but the file system's in maps.
    bool kernel_link = false;
};

enum class DigestStatus : uint8_t {
    kOk,
    kRefused,   // not a regular file, not the expected one, too large, unreadable
    kDeferred,  // left for the next collection: the budget ran out
};

// Digests of the file behind `path_fd`, a descriptor opened O_PATH (or any
// descriptor). The file is opened for reading only after fstat shows a
// regular file that is `expect`, and then only through /proc/self/fd, i.e.
// exactly that inode: a FIFO, a device or a file swapped in meanwhile is
// never opened for reading. Files of hugetlbfs (process memory) and FUSE (a
// user's server may never answer) are not read. With `budget`, a file not in
// the cache is read only within it.
DigestStatus digest_opened(int path_fd, const ExpectedFile& expect, DigestAlgo extra, DigestBudget* budget,
                           FileDigests& out);

// Digests of the regular file at `open_path`, opened as digest_opened does,
// with O_NOFOLLOW when `no_follow`. `extra` asks for one more digest kind in
// the same pass (kMd5/kSha256/kNone ask for nothing more). False when the
// file could not be hashed; never throws for I/O reasons.
bool digest_file(const std::string& open_path, bool no_follow, DigestAlgo extra, FileDigests& out);
// The same for a file already open for reading (O_NONBLOCK is dropped from it);
// the descriptor stays the caller's.
bool digest_fd(int fd, DigestAlgo extra, FileDigests& out);

// Readies the digest library: its first use in a process loads its
// configuration and providers (a few milliseconds), which a caller can have
// done on a thread of its own while it still reads what it will hash.
void digests_prepare();

struct DigestStats {
    uint64_t files_hashed = 0;  // files actually read
    uint64_t bytes_hashed = 0;
    uint64_t cache_hits = 0;
};
DigestStats digest_stats();
// Forgets every cached digest (tests, and a caller that wants a cold run).
void digest_cache_clear();

std::string to_hex(const unsigned char* bytes, size_t n);

}  // namespace amsvc

#endif
