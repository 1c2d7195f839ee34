// systemd unit files, shared by the cron kind (timers and the services they
// start) and the auto-start kind: one parser, and one way of finding and
// applying drop-ins.
#ifndef ASSETMAN_SERVICE_UNIT_FILE_H
#define ASSETMAN_SERVICE_UNIT_FILE_H

#include <dirent.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "core/common.h"

namespace amsvc {

// Longest logical line (continuations joined) taken from a unit file.
constexpr size_t kMaxUnitLine = 64u << 10;
// Largest unit file or drop-in read.
constexpr size_t kMaxUnitFile = 1u << 20;

// The system unit search path, highest priority first.
extern const char* const kSystemUnitDirs[8];

// The directives of a unit file by "Section.Key", values in order, trimmed;
// an empty assignment resets the list as systemd does. Parsing more text into
// the same map applies a drop-in. Comments ('#', ';'), lines outside a
// section, lines holding NUL and keyless lines are skipped; a trailing
// backslash continues a line (joined by one blank). At most 256 values a key.
typedef std::map<std::string, std::vector<std::string>> UnitKeys;
void parse_unit(std::string_view text, UnitKeys& keys);

// The values of "Section.Key", null when unset or reset.
const std::vector<std::string>* unit_values(const UnitKeys& keys, const std::string& key);
// The last value of "Section.Key", empty when none.
std::string unit_last(const UnitKeys& keys, const std::string& key);

// The names whose "<name>.d" directories hold drop-ins for `unit`, most
// specific first: the unit, its template ("a@.service" for "a@x.service"),
// each dash prefix ("a-b-.service", "a-.service" for "a-b-c.service").
std::vector<std::string> dropin_names(const std::string& unit);

// A directory's entries as read once, by name: the type readdir gave (DT_REG,
// DT_DIR, DT_LNK, ... looked up without following when the file system gives
// none) and, for a link, its target as written (empty when unreadable).
struct DirEntry {
    unsigned char type = 0;
    std::string link;
};
typedef std::map<std::string, DirEntry> DirEntries;
// Most entries kept of one directory.
constexpr size_t kMaxDirEntries = 1u << 16;

// Lists the host directory `host_path` (resolved in the root) into `out`, at
// most `max_entries`; `complete` tells whether every entry was kept. 0 or a
// negative errno.
int list_dir_entries(const HostRoot& root, std::string_view host_path, DirEntries& out, bool& complete,
                     size_t max_entries = kMaxDirEntries);

// The unit search path of one collection: each directory of kSystemUnitDirs
// resolved and listed once, so that unit files and drop-in directories are
// looked up among the names present instead of probed on disk.
class UnitDirs {
public:
    struct Dir {
        const char* configured = nullptr;  // its kSystemUnitDirs entry
        std::string path;                  // canonical host path, empty when absent
        bool first = false;                // false when an earlier entry is the same directory
        int rc = -ENOENT;                  // result of listing it
        bool complete = false;             // every entry listed
        DirEntries entries;                // only in the first entry of a directory
    };

    explicit UnitDirs(const HostRoot& root);
    UnitDirs(const UnitDirs&) = delete;
    UnitDirs& operator=(const UnitDirs&) = delete;

    const HostRoot& root() const { return root_; }
    // One per kSystemUnitDirs entry, in that order.
    const std::vector<Dir>& dirs() const { return dirs_; }
    // The listing of the unit directory whose canonical path is `path`, null
    // when it is none (or was not listed whole).
    const Dir* listed(std::string_view path) const;
    // What resolve_host_path gives, with each directory resolved once per
    // collection and a final component inside a listed unit directory taken
    // from its listing.
    std::string resolve(std::string_view host_path, bool allow_dev = false);

private:
    HostRoot root_;
    std::vector<Dir> dirs_;
    std::map<std::string, std::string> resolved_dirs_;  // host directory -> canonical, "" when none
};

// Which drop-in directories apply. The service manager reads them all;
// `systemctl enable` and list-unit-files read only the unit's own and its
// template's when judging [Install].
enum class DropinScope { kManager, kInstall };

// The drop-in files ("*.conf") of the names in `names` (each with its
// dropin_names under kManager, itself and its template under kInstall), as
// host paths in the order systemd applies them: by file name; of files with
// one name the one in the highest directory of kSystemUnitDirs wins (within
// one directory the more specific name), and a type-wide "service.d" file
// yields to every other of its name. A file that cannot be read (a /dev/null
// link) still masks the ones below it. At most 256.
std::vector<std::string> find_dropins(UnitDirs& dirs, const std::vector<std::string>& names,
                                      DropinScope scope = DropinScope::kManager);
std::vector<std::string> find_dropins(const HostRoot& root, const std::vector<std::string>& names,
                                      DropinScope scope = DropinScope::kManager);

// Parses every drop-in of `names` into `keys`.
void apply_dropins(UnitDirs& dirs, const std::vector<std::string>& names, UnitKeys& keys,
                   DropinScope scope = DropinScope::kManager);
void apply_dropins(const HostRoot& root, const std::vector<std::string>& names, UnitKeys& keys,
                   DropinScope scope = DropinScope::kManager);

}  // namespace amsvc

#endif
