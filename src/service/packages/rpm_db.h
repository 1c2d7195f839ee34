// Reader of rpm databases through librpm, so every database format that rpm
// itself reads (sqlite, ndb, Berkeley DB) is read.
#ifndef ASSETMAN_SERVICE_RPM_DB_H
#define ASSETMAN_SERVICE_RPM_DB_H

#include <stdint.h>
#include <time.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/common.h"
#include "core/digest_cache.h"

namespace amsvc {

struct RpmFile {
    std::string path;
    DigestAlgo algo = DigestAlgo::kNone;  // kNone: no digest recorded (directory, link, ghost)
    unsigned char digest[64] = {};
};

struct RpmPackage {
    std::string name;
    std::string version;  // "epoch:version" when the package has an epoch
    std::string release;
    time_t installtime = 0;
    uint64_t size = 0;  // bytes
    std::string summary;
    std::string sourcerpm;
    std::string prefix;  // first relocation prefix
    std::string vendor;
    std::vector<RpmFile> files;  // only when asked for
    uint32_t hnum = 0;           // header instance in the database
};

// Where the rpm database lives under `root` ("/var/lib/rpm", ...), empty when
// there is none.
std::string rpm_db_dir(const HostRoot& root);

// Walks the slots of an ndb Packages.db image, calling blob_fn with each
// package's header blob. The number of blobs, or -EIO for no ndb file.
int parse_ndb(std::string_view file, const std::function<void(const void* blob, size_t len)>& blob_fn);

// Calls fn for every installed package. Returns 0, -ENOENT when there is no
// database, -EACCES when it cannot be opened, -EIO when it exists but cannot
// be read (also when it holds records and none decodes). Reads sqlite and ndb
// databases itself and Berkeley DB through rpm's read-only reader, always from
// the bytes of the file found inside the root (or a private copy of them):
// nothing in the image is written or locked. A database that failed is not
// tried again until its identity (device, inode, size, times) changes.
// Serialised: librpm keeps global state.
int read_rpm_db(const HostRoot& root, bool with_files, const std::function<void(RpmPackage&)>& fn);

// Calls fn for every installed package with the base names of its files
// (directories too), without reading digests: enough to tell which packages
// may own a file.
int read_rpm_base_names(const HostRoot& root,
                        const std::function<void(uint32_t hnum, const std::string& name, const std::string& vendor,
                                                 const std::vector<std::string_view>& bases)>& fn);

// Files and recorded digests of the one package at header instance `hnum`.
int read_rpm_package_files(const HostRoot& root, uint32_t hnum, std::vector<RpmFile>& out);

}  // namespace amsvc

#endif
