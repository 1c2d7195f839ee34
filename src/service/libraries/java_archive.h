// Libraries inside Java archives (jar, war, ear and their kin), archives
// inside archives included, read through libzip: the central directory and
// the few entries that name a library, never the whole archive.
#ifndef ASSETMAN_SERVICE_JAVA_ARCHIVE_H
#define ASSETMAN_SERVICE_JAVA_ARCHIVE_H

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "libraries/lib_parse.h"

namespace amsvc {

struct ArchiveLimits {
    int max_depth = 4;                       // archive levels opened: 1 = the file only
    size_t max_entries = 262144;             // central directory entries looked at per archive
    size_t max_nested_inflate = 16u << 20;   // a compressed nested archive is inflated in memory up to this
    uint64_t max_total_read = 256ull << 20;  // bytes read from all entries of one file's archive tree
    size_t max_poms = 2000;                  // pom.properties read per archive
    size_t max_nested = 4096;                // nested archives opened per archive
    // For one file's whole archive tree: entries may share their data, so a
    // small file can hold archives inside archives without end.
    size_t max_archives = 10000;         // archives opened
    size_t max_total_entries = 1000000;  // central directory entries looked at
};

// Whether a file name ends in one of the Java archive extensions.
bool is_java_archive_name(std::string_view name);

// The libraries of the archive open at `fd` (taken over and closed),
// `file_name` its base name (the fallback name). Each library's `where` is
// "" for the file itself or the "!/<entry>" chain of a nested archive. A file
// that is not a readable archive yields its file-name library.
void scan_java_archive(int fd, std::string_view file_name, std::vector<LibId>& out,
                       const ArchiveLimits& limits = ArchiveLimits());

// The same for an archive held in memory (tests, fuzzing).
void scan_java_archive_buffer(const void* data, size_t size, std::string_view file_name,
                              std::vector<LibId>& out, const ArchiveLimits& limits = ArchiveLimits());

}  // namespace amsvc

#endif
