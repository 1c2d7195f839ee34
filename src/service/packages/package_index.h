// Which installed package owns a file, that package's vendor, and the digest
// its package manager recorded for the file (dpkg, rpm and apk databases).
#ifndef ASSETMAN_SERVICE_PACKAGE_INDEX_H
#define ASSETMAN_SERVICE_PACKAGE_INDEX_H

#include <string>
#include <vector>

#include "core/common.h"
#include "core/digest_cache.h"

namespace amsvc {

struct FileOwner {
    std::string package;
    std::string company;                  // vendor of the owning package
    DigestAlgo algo = DigestAlgo::kNone;  // kind of the recorded digest, kNone: none recorded
    unsigned char digest[64] = {};        // the recorded digest, digest_size(algo) bytes
};

// Owner of `host_path` under `root`; false when no installed package owns it.
// What is read is remembered per root and read again when a package
// database changes. Never throws.
bool package_owner(const HostRoot& root, const std::string& host_path, FileOwner& out);

// Owners of many files at once (one collection's): one pass over the
// databases' file lists finds the packages that list any of their base names,
// and only those packages' records are read. owned[i] says whether out[i]
// was filled. Never throws.
void package_owners(const HostRoot& root, const std::vector<std::string>& host_paths, std::vector<FileOwner>& out,
                    std::vector<char>& owned);

}  // namespace amsvc

#endif
