#include "file_facts.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include "digest_cache.h"
#include "package_index.h"

namespace amsvc {

FileFacts file_facts(const HostRoot& root, const FileRef& file) {
    FileFacts facts;
    try {
        FileOwner owner;
        const bool owned = !file.host_path.empty() && package_owner(root, file.host_path, owner);
        if (owned) facts.company = owner.company;
        const std::string open_path = file.open_path.empty() ? root.path(file.host_path) : file.open_path;
        FileDigests d;
        if (!digest_file(open_path, file.no_follow, owned ? owner.algo : DigestAlgo::kNone, d)) return facts;
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
    const size_t nthreads = std::min<size_t>({hw, 4, files.size()});
    std::atomic<size_t> next{0};
    auto work = [&]() {
        for (size_t i; (i = next.fetch_add(1)) < files.size();) out[i] = file_facts(root, files[i]);
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
