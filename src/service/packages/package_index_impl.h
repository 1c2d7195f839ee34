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

private:
    const HostRoot& root_;
    std::unordered_map<std::string, std::string> memo_;
    long budget_;
};

// File -> owning package, keyed by (directory, base name). Directories are
// stored once each, under their canonical name and under every other name a
// package database used for them, so /lib/x/libc.so.6 and
// /usr/lib/x/libc.so.6 meet on a merged-/usr host. Immutable once built.
class PackageIndex {
public:
    uint32_t add_package(std::string name, std::string company);
    void add_file(uint32_t pkg, std::string_view path, DigestAlgo algo, const unsigned char* digest,
                  DirCanon& canon);
    void shrink();

    bool find(const HostRoot& root, const std::string& host_path, FileOwner& out) const;
    size_t files() const { return entries_.size(); }
    size_t packages() const { return packages_.size(); }
    size_t memory_bytes() const;  // estimate of what the index holds on the heap

private:
    struct Package {
        std::string name, company;
    };
    struct Entry {
        uint32_t dir;
        uint32_t base_off;
        uint32_t pkg;
        uint32_t digest_off;
        uint16_t base_len;
        uint8_t algo;
    };
    uint32_t dir_id(std::string_view dir, DirCanon& canon);
    uint32_t dir_id_slow(std::string_view dir, DirCanon& canon);
    struct Slot {
        uint32_t entry;  // entry index + 1, 0: empty
        uint32_t hash;   // of the entry's key, so most misses never touch the entry
    };
    Slot* probe(uint32_t dir, std::string_view base);              // the match, or the empty slot for it
    const Slot* probe(uint32_t dir, std::string_view base) const;  // the match, or null

    void grow();

    std::vector<Package> packages_;
    std::unordered_map<std::string, uint32_t> dirs_;
    size_t dir_count_ = 0;
    std::string last_dir_;  // while building: the directory of the previous file
    uint32_t last_dir_id_ = 0;
    bool last_dir_valid_ = false;
    std::vector<Entry> entries_;
    std::vector<Slot> table_;  // open addressing, linear probing, at most half full
    std::string names_;        // base names, back to back
    std::string digests_;      // recorded digests, back to back
};

// Builds the index of every package database under `root` (uncached).
std::shared_ptr<const PackageIndex> build_package_index(const HostRoot& root);
// The shared index of `root`: built once, rebuilt when a database changes.
std::shared_ptr<const PackageIndex> package_index(const HostRoot& root);

}  // namespace amsvc

#endif
