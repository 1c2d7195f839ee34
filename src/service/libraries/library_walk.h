// The walk behind collect_libraries, with its bounds open to tests and the
// benchmark.
#ifndef ASSETMAN_SERVICE_LIBRARY_WALK_H
#define ASSETMAN_SERVICE_LIBRARY_WALK_H

#include <stddef.h>

#include <atomic>
#include <string>
#include <vector>

#include "collectors.h"
#include "libraries/java_archive.h"

namespace amsvc {

struct LibraryLimits {
    int max_depth = 64;            // directory levels below a walk root
    size_t max_entries = 2000000;  // directory entries looked at, all roots together
    double max_seconds = 300;      // wall time of one collection
    size_t max_records = 200000;   // libraries reported
    ArchiveLimits archive;
    // Walk these host paths instead of the usual application roots (tests,
    // benchmark); the working directories of processes are still walked first
    // when `with_process_dirs`.
    std::vector<std::string> roots;
    bool with_process_dirs = true;
    // Set by another thread to end the walk early, as if its time were up
    // (the service's background collection, when its round ends).
    const std::atomic<bool>* cancel = nullptr;
};

struct LibraryStats {
    size_t dirs = 0;     // directories walked
    size_t entries = 0;  // directory entries looked at
    size_t parsed = 0;   // files opened and read this time
    size_t cached = 0;   // files answered from the cache
    std::string bound;   // the bound that stopped the walk ("" when none did)
};

// Prefix of the `version` of the record that ends a list cut by a bound.
constexpr const char* kBoundMarker = "incomplete: ";

int32_t collect_libraries(const HostRoot& root, std::vector<AM::ThirdPartDevLibInfo>& out,
                          const LibraryLimits& limits, LibraryStats* stats = nullptr);

// The usual application roots that exist under `root`, working directories of
// processes not included.
std::vector<std::string> library_roots(const HostRoot& root);

// Forgets every file remembered from earlier collections.
void clear_library_cache();

}  // namespace amsvc

#endif
