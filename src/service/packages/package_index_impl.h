// The package ownership index itself, for package_index.cpp, its tests and
// the benchmark.
#ifndef ASSETMAN_SERVICE_PACKAGE_INDEX_IMPL_H
#define ASSETMAN_SERVICE_PACKAGE_INDEX_IMPL_H

#include <stdint.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/common.h"
#include "packages/dpkg_db.h"
#include "packages/package_index.h"

namespace amsvc {

// Resolves symbolic links among the directories of a host path, inside the
// root (an absolute link target is taken relative to the root). Remembers
// what it resolved; one instance per thread.
class DirCanon {
public:
    // `budget`: lstat calls allowed, for all names this instance resolves.
    explicit DirCanon(const HostRoot& root, long budget = 256) : root_(root), budget_(budget) {}
    std::string canon(const std::string& dir, int depth = 0);
    size_t remembered() const { return memo_.size(); }

private:
    // Whether `path` (parent already resolved) is a link, and its target.
    bool link_target(const std::string& path, std::string& target);

    HostRoot root_;
    std::unordered_map<std::string, std::string> memo_;
    long budget_;
};

// Which packages may own a file, by its base name: a sorted table of
// (hash of base name, package) built in one pass over the databases' file
// lists, without keeping paths or digests. A lookup then reads the few
// candidate packages' own records (see package_index.cpp). Immutable once
// built.
class PackageIndex {
public:
    enum class Kind : uint8_t { kDpkg, kRpm, kApk };
    struct Package {
        std::string name, company;
        Kind kind = Kind::kDpkg;
        std::string stem;        // dpkg: info file name without extension ("libc6:amd64")
        uint32_t rpm_hnum = 0;   // rpm: header instance
        uint64_t apk_off = 0;    // apk: the package's stanza in the installed database
        uint64_t apk_len = 0;
        std::vector<DpkgConffile> conffiles;  // dpkg: from the status file
    };
    // dpkg-divert: a package's file named `from` is installed as `to`, except
    // in the diverting package itself (`by`, "" for a local diversion).
    struct Diversion {
        std::string to, by;
    };

    uint32_t add_package(Package p);
    void add_name(uint32_t pkg, std::string_view base);
    void reserve(size_t packages, size_t names) {
        packages_.reserve(packages);
        table_.reserve(names);
    }
    void finish();  // sorts the table; no more names after it

    // Packages that list a file named `base`, in database order (some may
    // list it in another directory: the caller checks).
    void candidates(std::string_view base, std::vector<uint32_t>& out) const;
    const Package& package(uint32_t id) const { return packages_[id]; }
    size_t packages() const { return packages_.size(); }
    size_t names() const { return table_.size(); }
    size_t memory_bytes() const;  // estimate of what the index holds on the heap

    std::unordered_map<std::string, Diversion> diversions;
    std::string apk_signature;  // the apk database's identity when its stanzas were located

private:
    std::vector<Package> packages_;
    std::vector<uint64_t> table_;  // hash << 32 | package
};

uint32_t base_name_hash(std::string_view base);

// Builds the name table of every package database under `root` (uncached).
std::shared_ptr<const PackageIndex> build_package_index(const HostRoot& root);
// The shared name table of `root`: built on first use, rebuilt when a
// database changes.
std::shared_ptr<const PackageIndex> package_index(const HostRoot& root);

// What the ownership lookups of `root` hold now, for tests and the benchmark.
struct OwnershipStats {
    size_t packages = 0, names = 0;
    size_t packages_read = 0;  // packages whose own records were read to answer
    size_t answers = 0;        // remembered answers
    size_t memory_bytes = 0;   // estimate of all of it
};
OwnershipStats ownership_stats(const HostRoot& root);

}  // namespace amsvc

#endif
