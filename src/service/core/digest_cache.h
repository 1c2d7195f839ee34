// Digests of files on the host, computed in one read pass and remembered by
// file identity, so a library mapped by hundreds of processes, or seen again
// on the next collection, is read once.
#ifndef ASSETMAN_SERVICE_DIGEST_CACHE_H
#define ASSETMAN_SERVICE_DIGEST_CACHE_H

#include <stddef.h>
#include <stdint.h>

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

// Digests of the regular file at `open_path`. Opens it O_NONBLOCK (a FIFO never
// blocks), with O_NOFOLLOW when `no_follow`, and reads it only when fstat says
// it is a regular file. `extra` asks for one more digest kind in the same pass
// (kMd5/kSha256/kNone ask for nothing more). False when the file could not be
// hashed; never throws for I/O reasons.
bool digest_file(const std::string& open_path, bool no_follow, DigestAlgo extra, FileDigests& out);
// The same for a file already open for reading (O_NONBLOCK is dropped from it);
// the descriptor stays the caller's.
bool digest_fd(int fd, DigestAlgo extra, FileDigests& out);

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
