// Pure parsers behind collect_users: account databases, sudoers rules and
// login records, text (or bytes) in, records out. No I/O except through the
// include callback of the sudoers reader.
#ifndef ASSETMAN_SERVICE_USER_PARSE_H
#define ASSETMAN_SERVICE_USER_PARSE_H

#include <stdint.h>
#include <time.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace amsvc {
namespace users {

struct PasswdEntry {
    std::string name, passwd, uid, gid, gecos, home, shell;
};

struct GroupEntry {
    std::string name, gid;
    std::vector<std::string> members;
};

// Numbers of a shadow line; -1 where the field is empty or not a number.
struct ShadowEntry {
    std::string name, hash;
    int64_t last_change = -1, min_days = -1, max_days = -1, warn_days = -1, inactive_days = -1, expire = -1;
};

// A numeric id without leading zeros ("007" -> "7"); other text unchanged.
// Only for matching: records keep ids as written.
std::string canon_id(std::string_view id);

// Lines with too few fields, an empty name, or NIS "+"/"-" entries are skipped.
std::vector<PasswdEntry> parse_passwd(std::string_view text);
std::vector<GroupEntry> parse_group(std::string_view text);
std::vector<ShadowEntry> parse_shadow(std::string_view text);

// Dates of a shadow entry as "YYYY-MM-DD", empty when not set.
std::string last_change_date(const ShadowEntry& s);
std::string account_expire_date(const ShadowEntry& s);
std::string password_expire_date(const ShadowEntry& s);
// Locked ('!' prefix, as `passwd -S` reports "L"), account expired, or
// password expired beyond its inactivity period, as login would refuse it.
bool is_disabled(const ShadowEntry& s, time_t now);

// Who sudoers grants full rights to: ALL commands as root (or as ALL).
struct SudoGrants {
    std::set<std::string> users;   // user names, "#uid" entries kept as "#<n>"
    std::set<std::string> groups;  // group names; "%#gid" kept as "#<n>"
    bool everyone = false;         // a rule for ALL users
};

// Reads one sudoers file's text. `include(path, is_dir)` is called for every
// include directive, in order, with the path as written; it is expected to
// feed the included text back through parse_sudoers with the same state.
class SudoersParser {
public:
    using IncludeFn = std::function<void(const std::string& path, bool is_dir)>;
    void parse(std::string_view text, const IncludeFn& include);
    const SudoGrants& grants() const { return grants_; }

private:
    void parse_alias(std::string_view kind, std::string_view body);
    void parse_user_spec(std::string_view line);
    void add_user_item(std::string_view item, int depth);
    bool runas_is_root(std::string_view users, int depth) const;
    bool cmnd_is_all(std::string_view cmnd, int depth) const;

    std::map<std::string, std::vector<std::string>> user_alias_, runas_alias_, cmnd_alias_;
    // Aliases already expanded in the current lookup: each is expanded once,
    // so "A = A, A, A" costs one pass, not 3^depth.
    mutable std::set<std::string> expanded_;
    SudoGrants grants_;
};

// Names in a sudoers include directory that sudo reads, in its order: no '.'
// in the name, no trailing '~'.
std::vector<std::string> sudoers_dir_files(std::vector<std::string> names);

struct LoginRecord {
    int64_t time = 0;
    std::string line, host;
};

// One struct lastlog (32-bit time, line[32], host[256]).
constexpr size_t kLastlogRecordSize = 292;
bool parse_lastlog_record(std::string_view rec, LoginRecord& out);

// struct utmp as written on 64-bit Linux (384 bytes, 32-bit times).
constexpr size_t kUtmpRecordSize = 384;
// Last USER_PROCESS record per user name from a run of whole utmp records.
std::unordered_map<std::string, LoginRecord> parse_wtmp(std::string_view data);

}  // namespace users
}  // namespace amsvc

#endif
