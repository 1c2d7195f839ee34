// Readers of dpkg's database: the status file, and the per-package file lists
// and md5sums under info/.
#ifndef ASSETMAN_SERVICE_DPKG_DB_H
#define ASSETMAN_SERVICE_DPKG_DB_H

#include <stdint.h>

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/common.h"

namespace amsvc {

struct DpkgConffile {
    std::string path;
    std::string md5;  // hex as dpkg wrote it; "newconffile" or junk is not a digest
};

struct DpkgPackage {
    std::string name;
    std::string arch;
    std::string version;  // full Debian version, epoch and revision included
    std::string status;   // "want eflag state", e.g. "install ok installed"
    std::string maintainer;
    std::string summary;  // first line of Description
    std::string source;   // source package name, without a "(version)"
    std::string multi_arch;
    uint64_t installed_size_kib = 0;
    std::vector<DpkgConffile> conffiles;
};

// Parses the text of a status file. Stanzas without a Package field are
// skipped; a truncated last stanza keeps what it has. Never throws for
// malformed input.
std::vector<DpkgPackage> parse_dpkg_status(std::string_view text);
// The same, one package at a time: fn may move from its argument.
void for_each_dpkg_stanza(std::string_view text, const std::function<void(DpkgPackage&)>& fn);
// The same for the status file open at `fd` (the caller closes it), read
// `piece` bytes at a time and parsed up to each piece's last blank line, so
// the file is never held whole; at most `max_bytes` are read, as
// read_host_file would. 0, or -errno when nothing could be read.
int read_dpkg_status_fd(int fd, const std::function<void(DpkgPackage&)>& fn, size_t max_bytes = kDefaultMaxFile,
                        size_t piece = 128u << 10);

// Whether a Status value means the package's files are on disk and configured:
// error flag "ok" and state installed (or only awaiting trigger processing),
// whatever the selection (install, hold, deinstall, purge).
bool dpkg_is_installed(std::string_view status);

// "1:2.36-9+deb12u1" -> version "1:2.36", release "9+deb12u1" (split at the
// last '-'; a native package has no release).
void split_deb_version(std::string_view full, std::string& version, std::string& release);

// Base name of a package's files under info/ ("libc6:amd64" for Multi-Arch:
// same packages, "bash" otherwise); callers fall back to the other form.
std::string dpkg_info_name(const DpkgPackage& p, bool with_arch);

// Calls fn(path, digest) for every well-formed line "<32 hex>  <path>" of an
// md5sums file; `path` is made absolute. Lines with bad hex are skipped.
void parse_md5sums(std::string_view text,
                   const std::function<void(std::string_view path, const unsigned char* md5)>& fn);

bool hex_to_bytes(std::string_view hex, unsigned char* out, size_t n);

// The dpkg database of a host root.
struct DpkgDb {
    std::vector<DpkgPackage> packages;  // installed ones only
    // Where each package was read: "/var/lib/dpkg/status", or its own file
    // under status.d/ (parallel to `packages`).
    std::vector<std::string> sources;
    bool per_package = false;  // read from status.d/
};

// Reads /var/lib/dpkg/status under `root`; where there is none (distroless
// images) every file of /var/lib/dpkg/status.d/ (one package each, "*.md5sums"
// aside; a stanza without Status counts as installed). Every file is reached
// inside the root. 0, -ENOENT when neither exists, or another -errno.
int read_dpkg_db(const HostRoot& root, DpkgDb& db);

// Calls fn(path) for every file of a package's .list: every line but "/." and
// the directories (dpkg lists a directory right before its first entry, and
// ownership is asked of files only).
template <class F>
void for_each_listed_file(std::string_view text, F&& fn) {
    std::string_view prev;
    bool have_prev = false;
    size_t pos = 0;
    while (pos < text.size()) {
        const char* nl = static_cast<const char*>(std::memchr(text.data() + pos, '\n', text.size() - pos));
        const size_t end = nl ? static_cast<size_t>(nl - text.data()) : text.size();
        std::string_view line = text.substr(pos, end - pos);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        pos = end + 1;
        if (have_prev) {
            const bool is_dir =
                line.size() > prev.size() && line[prev.size()] == '/' && line.substr(0, prev.size()) == prev;
            if (!is_dir && prev != "/." && prev != "/") fn(prev);
        }
        prev = line;
        have_prev = true;
    }
    if (have_prev && prev != "/." && prev != "/") fn(prev);
}
// The same through a std::function, for callers that need no speed.
void parse_dpkg_list(std::string_view text, const std::function<void(std::string_view path)>& fn);

}  // namespace amsvc

#endif
