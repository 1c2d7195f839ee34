// What the service says about one file on the host: its digests (from the
// shared digest cache), the vendor of the package that owns it, and whether
// its content matches what that package recorded.
#ifndef ASSETMAN_SERVICE_FILE_FACTS_H
#define ASSETMAN_SERVICE_FILE_FACTS_H

#include <string>
#include <utility>
#include <vector>

#include "core/common.h"

namespace amsvc {

struct FileFacts {
    std::string md5;        // lower-case hex, empty when the file could not be hashed
    std::string sha256;     // lower-case hex, empty when the file could not be hashed
    std::string company;    // vendor of the owning package, empty when unowned
    bool verified = false;  // digest equals the one the owning package recorded
};

struct FileRef {
    FileRef() = default;
    FileRef(std::string host, std::string open, bool refuse_link = false)
        : host_path(std::move(host)), open_path(std::move(open)), no_follow(refuse_link) {}

    std::string host_path;   // the path as the host names it ("/usr/lib/x.so"); keys ownership
    std::string open_path;   // where to open it ("/proc/42/exe"); empty: host_path inside the root
    bool no_follow = false;  // refuse a symlink as final component (user-controlled paths)
    // When set, the file is opened with this directory as "/"
    // ("/proc/42/root"), at open_path when given, else at host_path: links on
    // the way resolve inside it, never on the host. Without it, a host root
    // other than "/" (a mounted image) is used the same way for host_path.
    std::string root_dir;
    // The file belongs to another root than the host's (a container): the
    // host's package database does not judge it, so company stays empty and
    // verified false.
    bool foreign = false;

    // The device and inode the file must have: the file a process maps. When
    // set, anything else found on the way (a file bind-mounted over it, a
    // link swapped in, a FIFO) is not read.
    bool expect_id = false;
    uint64_t dev = 0, ino = 0;
    // The kernel's own links to that file (/proc/<pid>/map_files/<range>,
    // /proc/<pid>/exe), tried first in order (several processes may map it,
    // and some may be gone). When none opens (without CAP_SYS_ADMIN the
    // kernel refuses map_files), the path is tried as above, unless neither
    // open_path nor root_dir is set.
    std::vector<std::string> links;
    // About how large the file is (0: unknown): a batch hashes the largest
    // first, so no large file is left to hash alone at the end.
    uint64_t size_hint = 0;
};

// Facts of one file. Never throws for I/O reasons; a FIFO, device, vanished or
// unreadable file yields empty digests and verified == false.
FileFacts file_facts(const HostRoot& root, const FileRef& file);

// Facts of many files (one collection's); cold files are hashed on all
// cores, within the digest budget (digest_cache.h): files past it get empty
// digests and come first in the next call. out[i] belongs to files[i].
std::vector<FileFacts> file_facts_many(const HostRoot& root, const std::vector<FileRef>& files);

// Facts of files handed in one by one while the caller is still finding
// them: each file is hashed on a worker thread as soon as it is added, and
// owners are asked only in finish(), so hashing never waits for the package
// index. One digest budget covers the batch. The threads are joined by
// finish() or the destructor: none outlives the batch.
class FileFactsBatch {
public:
    explicit FileFactsBatch(const HostRoot& root);
    ~FileFactsBatch();
    FileFactsBatch(const FileFactsBatch&) = delete;
    FileFactsBatch& operator=(const FileFactsBatch&) = delete;

    // The index of the file's facts in finish()'s result; a file added again
    // (same paths and options) gets the index it got first and is read once.
    size_t add(const FileRef& file);
    // Waits for the hashing, then judges ownership: out[i] belongs to the
    // index add() gave. Call once.
    std::vector<FileFacts> finish();

private:
    struct Impl;
    Impl* impl_;
};

}  // namespace amsvc

#endif
