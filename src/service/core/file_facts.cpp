#include "core/file_facts.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include "core/digest_cache.h"
#include "packages/package_index.h"
#include "packages/package_index_impl.h"
#include "core/root_open.h"

namespace amsvc {

namespace {

// The O_PATH descriptor of the last root directory used, so a thread working
// through the modules of one container opens its root once, not per file.
class RootFds {
public:
    RootFds() = default;
    RootFds(const RootFds&) = delete;
    RootFds& operator=(const RootFds&) = delete;
    ~RootFds() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get(const std::string& dir) {
        if (fd_ >= 0 && dir == dir_) return fd_;
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        dir_.clear();
        const int fd = open_root_dir(dir);
        if (fd < 0) return fd;
        try {
            dir_ = dir;
        } catch (...) {
            ::close(fd);
            return -ENOMEM;
        }
        fd_ = fd;
        return fd_;
    }

private:
    std::string dir_;
    int fd_ = -1;
};

// Digests of `file`. A path given as seen from a root (a container's, a
// mounted image's) is resolved inside that root; an explicit open_path
// without a root_dir (/proc/<pid>/exe, map_files on procfs) is opened as it
// stands: the kernel's own link to the very file mapped.
bool digest_ref(const HostRoot& root, const FileRef& file, DigestAlgo algo, RootFds& fds, FileDigests& d) {
    const std::string* dir = nullptr;
    if (!file.root_dir.empty()) {
        dir = &file.root_dir;
    } else if (file.open_path.empty() && !root.is_live_host()) {
        dir = &root.root();
    }
    if (!dir) {
        const std::string& path = file.open_path.empty() ? file.host_path : file.open_path;
        return digest_file(path, file.no_follow, algo, d);
    }
    const int root_fd = fds.get(*dir);
    if (root_fd < 0) return false;
    const std::string& path =
        !file.root_dir.empty() && !file.open_path.empty() ? file.open_path : file.host_path;
    const int fd = open_in_root(root_fd, path, file.no_follow);
    if (fd < 0) return false;
    const bool ok = digest_fd(fd, algo, d);
    ::close(fd);
    return ok;
}

FileFacts facts_of(const HostRoot& root, const FileRef& file, RootFds& fds) {
    FileFacts facts;
    try {
        FileOwner owner;
        bool owned = !file.foreign && !file.host_path.empty() && package_owner(root, file.host_path, owner);
        if (!file.foreign && !file.no_follow && !file.host_path.empty() &&
            (!owned || owner.algo == DigestAlgo::kNone)) {
            // The path may be a link (/etc/rc2.d/S01cron, /usr/bin/python3):
            // the content read is its target's, so the target's package judges it.
            DirCanon canon(root);
            const std::string target = canon.canon(normalize_path(file.host_path));
            FileOwner target_owner;
            if (target != file.host_path && package_owner(root, target, target_owner)) {
                owner = std::move(target_owner);
                owned = true;
            }
        }
        if (owned) facts.company = owner.company;
        FileDigests d;
        if (!digest_ref(root, file, owned ? owner.algo : DigestAlgo::kNone, fds, d)) return facts;
        facts.md5 = to_hex(d.md5, sizeof d.md5);
        facts.sha256 = to_hex(d.sha256, sizeof d.sha256);
        if (owned) {
            const size_t n = digest_size(owner.algo);
            const unsigned char* have = nullptr;
            if (owner.algo == DigestAlgo::kMd5) {
                have = d.md5;
            } else if (owner.algo == DigestAlgo::kSha256) {
                have = d.sha256;
            } else if (d.extra_algo == owner.algo) {
                have = d.extra;
            }
            facts.verified = have && n > 0 && std::memcmp(have, owner.digest, n) == 0;
        }
    } catch (...) {
        // Out of memory mid-way: what was filled stays, the verdict stays false.
    }
    return facts;
}

}  // namespace

FileFacts file_facts(const HostRoot& root, const FileRef& file) {
    RootFds fds;
    return facts_of(root, file, fds);
}

std::vector<FileFacts> file_facts_many(const HostRoot& root, const std::vector<FileRef>& files) {
    std::vector<FileFacts> out;
    try {
        out.resize(files.size());
    } catch (...) {
        return out;
    }
    // Hashing is read-bound on a cold cache and CPU-bound on a warm page
    // cache; a few threads cover both without flooding a shared host.
    const unsigned hw = std::max(1u, std::thread::hardware_concurrency());
    // A handful of files is not worth starting threads for.
    const size_t nthreads = files.size() < 8 ? 1 : std::min<size_t>({hw, 4, files.size()});
    std::atomic<size_t> next{0};
    auto work = [&]() {
        RootFds fds;
        for (size_t i; (i = next.fetch_add(1)) < files.size();) out[i] = facts_of(root, files[i], fds);
    };
    std::vector<std::thread> pool;
    if (nthreads > 1) {
        try {
            for (size_t t = 1; t < nthreads; ++t) pool.emplace_back(work);
        } catch (...) {
            // No thread to be had: the calling thread does it all.
        }
    }
    work();
    for (std::thread& t : pool) t.join();
    return out;
}

}  // namespace amsvc
