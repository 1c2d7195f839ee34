// systemd unit files, shared by the cron kind (timers and the services they
// start) and the auto-start kind: one parser, and one way of finding and
// applying drop-ins.
#ifndef ASSETMAN_SERVICE_UNIT_FILE_H
#define ASSETMAN_SERVICE_UNIT_FILE_H

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
std::vector<std::string> find_dropins(const HostRoot& root, const std::vector<std::string>& names,
                                      DropinScope scope = DropinScope::kManager);

// Parses every drop-in of `names` into `keys`.
void apply_dropins(const HostRoot& root, const std::vector<std::string>& names, UnitKeys& keys,
                   DropinScope scope = DropinScope::kManager);

}  // namespace amsvc

#endif
