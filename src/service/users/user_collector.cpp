// User accounts: /etc/passwd joined with /etc/group, /etc/shadow, the sudoers
// rules and the login records. Parsing is pure (users:: below); the I/O part
// reads only under the host root and degrades to a partial record for every
// source it cannot read.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "collectors.h"
#include "users/user_parse.h"

namespace amsvc {
namespace users {

namespace {

// Splits `line` on ':' into exactly `n` fields (the last keeps any further
// colons only when `rest_in_last`); false when there are fewer.
bool split_colon(std::string_view line, size_t n, std::vector<std::string_view>& f) {
    f.clear();
    size_t pos = 0;
    while (f.size() + 1 < n) {
        const size_t c = line.find(':', pos);
        if (c == std::string_view::npos) return false;
        f.push_back(line.substr(pos, c - pos));
        pos = c + 1;
    }
    f.push_back(line.substr(pos));
    return true;
}

bool skippable(std::string_view line) {
    if (line.empty() || line[0] == '#') return true;
    // NIS compat entries ("+", "+name", "-name", "+@netgroup").
    return line[0] == '+' || line[0] == '-';
}

int64_t shadow_num(std::string_view s) {
    int64_t v;
    // Day counts beyond 32 bits are junk; bounding them keeps the date
    // arithmetic below free of overflow.
    if (!parse_i64(s, v) || v < 0 || v > INT32_MAX) return -1;
    return v;
}

constexpr int64_t kDay = 86400;
// Day counts past this are not representable as dates anywhere useful.
constexpr int64_t kMaxDays = 2932896;  // 9999-12-31

std::string day_date(int64_t days) {
    if (days < 0 || days > kMaxDays) return std::string();
    return format_date(static_cast<time_t>(days * kDay));
}

std::string cstr_field(std::string_view rec, size_t off, size_t len) {
    std::string_view f = rec.substr(off, len);
    const size_t z = f.find('\0');
    if (z != std::string_view::npos) f = f.substr(0, z);
    return std::string(f);
}

int32_t load_i32(const char* p) {
    int32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Position of the first `ch` that is neither escaped nor inside parentheses.
size_t find_top(std::string_view s, char ch) {
    int depth = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == '\\') {
            ++i;
        } else if (c == '(') {
            ++depth;
        } else if (c == ')') {
            if (depth > 0) --depth;
        } else if (c == ch && depth == 0) {
            return i;
        }
    }
    return std::string_view::npos;
}

// Splits on unescaped `sep` outside parentheses.
std::vector<std::string_view> split_top(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    for (size_t at = find_top(s, sep); at != std::string_view::npos; at = find_top(s, sep)) {
        out.push_back(s.substr(0, at));
        s.remove_prefix(at + 1);
    }
    out.push_back(s);
    return out;
}

std::string_view unquote(std::string_view s) {
    s = trim(s);
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
    return s;
}

bool is_tag_word(std::string_view w) {
    if (w.empty()) return false;
    for (char c : w)
        if (!((c >= 'A' && c <= 'Z') || c == '_')) return false;
    return true;
}

constexpr int kMaxAliasDepth = 16;

}  // namespace

std::string canon_id(std::string_view id) {
    uint64_t v;
    if (parse_u64(id, v)) return std::to_string(v);
    return std::string(id);
}

std::vector<PasswdEntry> parse_passwd(std::string_view text) {
    std::vector<PasswdEntry> out;
    std::vector<std::string_view> f;
    for (std::string_view line : split_lines(text)) {
        if (skippable(line) || !split_colon(line, 7, f)) continue;
        if (f[0].empty() || f[2].empty() || f[3].empty()) continue;
        if (f[6].find(':') != std::string_view::npos) continue;  // more than 7 fields
        if (line.find('\0') != std::string_view::npos) continue;
        PasswdEntry e;
        e.name = std::string(f[0]);
        e.passwd = std::string(f[1]);
        e.uid = std::string(f[2]);
        e.gid = std::string(f[3]);
        e.gecos = std::string(f[4]);
        e.home = std::string(f[5]);
        e.shell = std::string(f[6]);
        out.push_back(std::move(e));
    }
    return out;
}

std::vector<GroupEntry> parse_group(std::string_view text) {
    std::vector<GroupEntry> out;
    std::vector<std::string_view> f;
    for (std::string_view line : split_lines(text)) {
        if (skippable(line) || !split_colon(line, 4, f)) continue;
        if (f[0].empty() || f[2].empty() || f[3].find(':') != std::string_view::npos) continue;
        GroupEntry g;
        g.name = std::string(f[0]);
        g.gid = std::string(f[2]);
        for (std::string_view m : split_top(f[3], ',')) {
            m = trim(m);
            if (!m.empty()) g.members.emplace_back(m);
        }
        out.push_back(std::move(g));
    }
    return out;
}

std::vector<ShadowEntry> parse_shadow(std::string_view text) {
    std::vector<ShadowEntry> out;
    std::vector<std::string_view> f;
    for (std::string_view line : split_lines(text)) {
        if (skippable(line) || !split_colon(line, 9, f) || f[0].empty()) continue;
        ShadowEntry s;
        s.name = std::string(f[0]);
        s.hash = std::string(f[1]);
        s.last_change = shadow_num(f[2]);
        s.min_days = shadow_num(f[3]);
        s.max_days = shadow_num(f[4]);
        s.warn_days = shadow_num(f[5]);
        s.inactive_days = shadow_num(f[6]);
        s.expire = shadow_num(f[7]);
        out.push_back(std::move(s));
    }
    return out;
}

std::string last_change_date(const ShadowEntry& s) {
    // 0 means "must change at next login", not a date.
    return s.last_change > 0 ? day_date(s.last_change) : std::string();
}

std::string account_expire_date(const ShadowEntry& s) { return day_date(s.expire); }

std::string password_expire_date(const ShadowEntry& s) {
    // As chage does: 99999 and any other maximum of 10000 days or more means
    // the password never expires.
    if (s.last_change <= 0 || s.max_days < 0 || s.max_days >= 10000) return std::string();
    return day_date(s.last_change + s.max_days);
}

bool is_disabled(const ShadowEntry& s, time_t now) {
    if (!s.hash.empty() && s.hash[0] == '!') return true;
    const int64_t today = static_cast<int64_t>(now) / kDay;
    // PAM treats an expiry day of 0 as a real date, so it is expired too.
    if (s.expire >= 0 && today >= s.expire) return true;
    if (s.last_change > 0 && s.max_days >= 0 && s.inactive_days >= 0 &&
        today - s.last_change - s.inactive_days > s.max_days)
        return true;
    return false;
}

void SudoersParser::parse(std::string_view text, const IncludeFn& include) {
    const std::vector<std::string_view> phys = split_lines(text);
    std::string logical;
    for (size_t i = 0; i < phys.size(); ++i) {
        std::string_view p = phys[i];
        if (p.find('\0') != std::string_view::npos) {
            logical.clear();
            continue;
        }
        // A trailing backslash continues the line.
        if (!p.empty() && p.back() == '\\' && i + 1 < phys.size()) {
            logical.append(p.data(), p.size() - 1);
            if (logical.size() > (1u << 20)) logical.clear();
            continue;
        }
        logical.append(p.data(), p.size());
        std::string_view line = trim(logical);
        std::string_view word = line.substr(0, line.find_first_of(" \t"));
        if (word == "#include" || word == "@include" || word == "#includedir" || word == "@includedir") {
            const std::string arg(unquote(line.substr(word.size())));
            if (!arg.empty()) include(arg, ends_with(word, "dir"));
            logical.clear();
            continue;
        }
        // '#' starts a comment unless it introduces a numeric id ("#0").
        for (size_t k = 0; k < line.size(); ++k) {
            if (line[k] == '\\') {
                ++k;
            } else if (line[k] == '#' && !(k + 1 < line.size() && line[k + 1] >= '0' && line[k + 1] <= '9')) {
                line = trim(line.substr(0, k));
                break;
            }
        }
        if (!line.empty()) {
            word = line.substr(0, line.find_first_of(" \t"));
            if (starts_with(word, "Defaults")) {
                // settings only
            } else if (word == "User_Alias" || word == "Runas_Alias" || word == "Cmnd_Alias" ||
                       word == "Cmd_Alias") {
                parse_alias(word, line.substr(word.size()));
            } else if (word != "Host_Alias") {
                parse_user_spec(line);
            }
        }
        logical.clear();
    }
}

void SudoersParser::parse_alias(std::string_view kind, std::string_view body) {
    auto& table = kind == "User_Alias" ? user_alias_ : kind == "Runas_Alias" ? runas_alias_ : cmnd_alias_;
    for (std::string_view def : split_top(body, ':')) {
        const size_t eq = def.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string name(trim(def.substr(0, eq)));
        if (name.empty()) continue;
        std::vector<std::string>& items = table[name];
        for (std::string_view it : split_top(def.substr(eq + 1), ',')) {
            it = trim(it);
            if (!it.empty()) items.emplace_back(it);
        }
    }
}

bool SudoersParser::runas_is_root(std::string_view spec, int depth) const {
    if (depth == 0) expanded_.clear();
    for (std::string_view it : split_top(spec, ',')) {
        it = unquote(it);
        if (it.empty() || it[0] == '!') continue;
        if (it == "ALL" || it == "root" || it == "#0") return true;
        auto a = runas_alias_.find(std::string(it));
        if (a != runas_alias_.end() && depth < kMaxAliasDepth && expanded_.insert(a->first).second) {
            for (const std::string& sub : a->second)
                if (runas_is_root(sub, depth + 1)) return true;
        }
    }
    return false;
}

bool SudoersParser::cmnd_is_all(std::string_view cmnd, int depth) const {
    if (depth == 0) expanded_.clear();
    cmnd = trim(cmnd);
    if (cmnd == "ALL") return true;
    if (cmnd.empty() || cmnd[0] == '!' || depth >= kMaxAliasDepth) return false;
    auto a = cmnd_alias_.find(std::string(cmnd));
    if (a == cmnd_alias_.end() || !expanded_.insert(a->first).second) return false;
    for (const std::string& sub : a->second)
        if (cmnd_is_all(sub, depth + 1)) return true;
    return false;
}

void SudoersParser::add_user_item(std::string_view item, int depth) {
    if (depth == 0) expanded_.clear();
    item = unquote(item);
    if (item.empty() || item[0] == '!' || item[0] == '+') return;  // negations, netgroups
    if (item == "ALL") {
        grants_.everyone = true;
    } else if (item[0] == '%') {
        item.remove_prefix(1);
        if (item.empty() || item[0] == ':') return;  // "%:x" is a non-Unix group
        grants_.groups.emplace(item[0] == '#' ? "#" + canon_id(item.substr(1)) : std::string(item));
    } else if (item[0] == '#') {
        grants_.users.emplace("#" + canon_id(item.substr(1)));
    } else {
        auto a = user_alias_.find(std::string(item));
        if (a == user_alias_.end()) {
            grants_.users.emplace(item);
        } else if (depth < kMaxAliasDepth && expanded_.insert(a->first).second) {
            for (const std::string& sub : a->second) add_user_item(sub, depth + 1);
        }
    }
}

void SudoersParser::parse_user_spec(std::string_view line) {
    const size_t eq = find_top(line, '=');
    if (eq == std::string_view::npos) return;
    // "user1, user2  host1, host2": drop blanks around commas, then the first
    // word is the user list and the second the host list (hosts not checked).
    std::string left;
    std::string_view l = trim(line.substr(0, eq));
    for (size_t i = 0; i < l.size(); ++i) {
        const char c = l[i];
        if ((c == ' ' || c == '\t')) {
            size_t j = i;
            while (j < l.size() && (l[j] == ' ' || l[j] == '\t')) ++j;
            const bool comma_next = j < l.size() && l[j] == ',';
            const bool comma_prev = !left.empty() && left.back() == ',';
            if (!comma_next && !comma_prev) left += ' ';
            i = j - 1;
        } else {
            left += c;
        }
    }
    const std::vector<std::string_view> lw = split_ws(left);
    if (lw.size() != 2) return;

    bool full = false;
    std::string_view rest = line.substr(eq + 1);
    bool have_runas = false;
    std::string_view runas_users;
    std::vector<std::string_view> segments = split_top(rest, ',');
    size_t si = 0;
    while (si < segments.size() && !full) {
        std::string_view s = trim(segments[si]);
        for (;;) {
            if (!s.empty() && s[0] == '(') {
                const size_t close = s.find(')');
                if (close == std::string_view::npos) return;
                std::string_view inner = s.substr(1, close - 1);
                const size_t colon = inner.find(':');
                runas_users = trim(colon == std::string_view::npos ? inner : inner.substr(0, colon));
                // "(:group)" keeps the invoking user: not root rights.
                have_runas = true;
                s = trim(s.substr(close + 1));
                continue;
            }
            const size_t colon = s.find(':');
            const size_t eqs = s.find('=');
            const size_t sp = s.find_first_of(" \t");
            if (colon != std::string_view::npos && colon < sp && is_tag_word(s.substr(0, colon))) {
                s = trim(s.substr(colon + 1));  // NOPASSWD:, SETENV:, ...
                continue;
            }
            if (eqs != std::string_view::npos && eqs < sp && is_tag_word(s.substr(0, eqs))) {
                s = trim(sp == std::string_view::npos ? std::string_view() : s.substr(sp));  // ROLE=x
                continue;
            }
            break;
        }
        // "cmnd : host = more" starts another host spec within the segment.
        const size_t colon = find_top(s, ':');
        std::string_view cmnd = colon == std::string_view::npos ? s : s.substr(0, colon);
        const bool root = !have_runas || runas_is_root(runas_users, 0);
        if (root && cmnd_is_all(cmnd, 0)) full = true;
        if (colon != std::string_view::npos) {
            std::string_view next = s.substr(colon + 1);
            const size_t e2 = find_top(next, '=');
            if (e2 == std::string_view::npos) break;
            segments[si] = next.substr(e2 + 1);  // parse the rest of this segment again
            have_runas = false;
            runas_users = std::string_view();
            continue;
        }
        ++si;
    }
    if (!full) return;
    for (std::string_view u : split_top(lw[0], ',')) add_user_item(u, 0);
}

std::vector<std::string> sudoers_dir_files(std::vector<std::string> names) {
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& n) {
                                   return n.empty() || n.find('.') != std::string::npos || n.back() == '~';
                               }),
                names.end());
    std::sort(names.begin(), names.end());
    return names;
}

bool parse_lastlog_record(std::string_view rec, LoginRecord& out) {
    if (rec.size() < kLastlogRecordSize) return false;
    const int32_t t = load_i32(rec.data());
    if (t == 0) return false;
    out.time = static_cast<uint32_t>(t);  // written as an unsigned 32-bit count
    out.line = cstr_field(rec, 4, 32);
    out.host = cstr_field(rec, 36, 256);
    return true;
}

std::unordered_map<std::string, LoginRecord> parse_wtmp(std::string_view data) {
    std::unordered_map<std::string, LoginRecord> out;
    constexpr int16_t kUserProcess = 7;
    for (size_t off = 0; off + kUtmpRecordSize <= data.size(); off += kUtmpRecordSize) {
        const std::string_view rec = data.substr(off, kUtmpRecordSize);
        int16_t type;
        std::memcpy(&type, rec.data(), sizeof type);
        if (type != kUserProcess) continue;
        std::string user = cstr_field(rec, 44, 32);
        if (user.empty()) continue;
        LoginRecord r;
        r.time = static_cast<uint32_t>(load_i32(rec.data() + 340));
        r.line = cstr_field(rec, 8, 32);
        r.host = cstr_field(rec, 76, 256);
        if (r.host.empty()) {
            uint32_t a[4];
            std::memcpy(a, rec.data() + 348, sizeof a);
            char buf[INET6_ADDRSTRLEN] = {0};
            if (a[0] != 0 && a[1] == 0 && a[2] == 0 && a[3] == 0) {
                inet_ntop(AF_INET, a, buf, sizeof buf);
            } else if (a[0] | a[1] | a[2] | a[3]) {
                inet_ntop(AF_INET6, a, buf, sizeof buf);
            }
            r.host = buf;
        }
        out[std::move(user)] = std::move(r);  // later records win
    }
    return out;
}

}  // namespace users

namespace {

using namespace users;

constexpr size_t kMaxAccountFile = 64u << 20;
constexpr size_t kMaxSudoersFile = 4u << 20;
constexpr size_t kWtmpTail = 8u << 20;
constexpr int kMaxIncludeDepth = 8;

struct SudoersReader {
    const HostRoot& root;
    SudoersParser parser;
    std::unordered_set<std::string> seen;
    int depth = 0;

    void read(const std::string& host_path) {
        if (depth >= kMaxIncludeDepth || !seen.insert(host_path).second) return;
        std::string text;
        if (read_host_file(root, host_path, text, kMaxSudoersFile) != 0) return;
        const std::string base = dir_name(host_path);
        ++depth;
        parser.parse(text, [&](const std::string& p, bool is_dir) {
            const std::string abs = normalize_path((!p.empty() && p[0] == '/') ? p : base + "/" + p);
            if (!is_dir) {
                read(abs);
                return;
            }
            for (const std::string& n : sudoers_dir_files(list_host_dir(root, abs))) read(abs + "/" + n);
        });
        --depth;
    }
};

// Reads the lastlog record of one uid with a single pread at its offset.
class LastlogFile {
public:
    LastlogFile(const HostRoot& root, std::string_view host_path) {
        fd_ = std::max(open_host_file(root, host_path), -1);
        struct stat st;
        if (fd_ >= 0 && (::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode))) {
            ::close(fd_);
            fd_ = -1;
        }
        if (fd_ >= 0) size_ = st.st_size;
    }
    ~LastlogFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    LastlogFile(const LastlogFile&) = delete;
    LastlogFile& operator=(const LastlogFile&) = delete;

    bool get(uint64_t uid, LoginRecord& out) const {
        if (fd_ < 0) return false;
        const uint64_t off = uid * kLastlogRecordSize;
        if (off + kLastlogRecordSize > static_cast<uint64_t>(size_)) return false;
        char buf[kLastlogRecordSize];
        const ssize_t n = ::pread(fd_, buf, sizeof buf, static_cast<off_t>(off));
        if (n != static_cast<ssize_t>(sizeof buf)) return false;
        return parse_lastlog_record(std::string_view(buf, sizeof buf), out);
    }

private:
    int fd_ = -1;
    off_t size_ = 0;
};

// The last whole records of wtmp, at most kWtmpTail bytes of them.
std::string read_wtmp_tail(const HostRoot& root, std::string_view host_path) {
    std::string data;
    const int fd = open_host_file(root, host_path);
    if (fd < 0) return data;
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
        const uint64_t whole = static_cast<uint64_t>(st.st_size) / kUtmpRecordSize * kUtmpRecordSize;
        const uint64_t cap = kWtmpTail / kUtmpRecordSize * kUtmpRecordSize;
        const uint64_t start = whole > cap ? whole - cap : 0;
        data.resize(static_cast<size_t>(whole - start));
        size_t got = 0;
        while (got < data.size()) {
            const ssize_t n = ::pread(fd, &data[got], data.size() - got, static_cast<off_t>(start + got));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        data.resize(got / kUtmpRecordSize * kUtmpRecordSize);
    }
    ::close(fd);
    return data;
}

}  // namespace

int32_t collect_users(const HostRoot& root, std::vector<AM::UserInfo>& out) {
    out.clear();
    std::string text;
    const int rc = read_host_file(root, "/etc/passwd", text, kMaxAccountFile);
    if (rc == -ENOENT || rc == -ENOTDIR) return -ENOENT;
    if (rc == -EACCES || rc == -EPERM) return -EACCES;
    if (rc != 0) return -EIO;
    const std::vector<PasswdEntry> accounts = parse_passwd(text);

    std::vector<GroupEntry> groups;
    if (read_host_file(root, "/etc/group", text, kMaxAccountFile) == 0) groups = parse_group(text);
    std::unordered_map<std::string, const GroupEntry*> group_by_gid;
    std::unordered_map<std::string, std::vector<const GroupEntry*>> groups_of_member;
    for (const GroupEntry& g : groups) {
        group_by_gid.emplace(canon_id(g.gid), &g);
        for (const std::string& m : g.members) groups_of_member[m].push_back(&g);
    }

    std::vector<ShadowEntry> shadow;
    if (read_host_file(root, "/etc/shadow", text, kMaxAccountFile) == 0) shadow = parse_shadow(text);
    std::unordered_map<std::string, const ShadowEntry*> shadow_by_name;
    for (const ShadowEntry& s : shadow) shadow_by_name.emplace(s.name, &s);
    text.clear();
    text.shrink_to_fit();

    SudoersReader sudo{root, SudoersParser(), {}, 0};
    sudo.read("/etc/sudoers");
    const SudoGrants& grants = sudo.parser.grants();

    const LastlogFile lastlog(root, "/var/log/lastlog");
    bool wtmp_loaded = false;
    std::unordered_map<std::string, LoginRecord> wtmp;
    const time_t now = ::time(nullptr);

    out.reserve(accounts.size());
    for (const PasswdEntry& p : accounts) {
        AM::UserInfo u{};
        u.name = p.name;
        u.uid = p.uid;
        u.gid = p.gid;
        u.comment = p.gecos;
        u.homedir = p.home;
        u.shell = p.shell;
        const std::string gid = canon_id(p.gid);
        auto pg = group_by_gid.find(gid);
        if (pg != group_by_gid.end()) u.groupname = pg->second->name;

        uint64_t uid_num = 0;
        const bool uid_ok = parse_u64(p.uid, uid_num) && uid_num <= 0xffffffffu;
        bool admin = uid_ok && uid_num == 0;
        if (!admin && !grants.users.empty())
            admin = grants.users.count(p.name) || (uid_ok && grants.users.count("#" + canon_id(p.uid)));
        if (!admin && grants.everyone) admin = true;
        if (!admin && !grants.groups.empty()) {
            admin = grants.groups.count("#" + gid) != 0;
            if (!admin && pg != group_by_gid.end()) admin = grants.groups.count(pg->second->name) != 0;
            auto sg = groups_of_member.find(p.name);
            if (!admin && sg != groups_of_member.end()) {
                for (const GroupEntry* g : sg->second) {
                    if (grants.groups.count(g->name) || grants.groups.count("#" + canon_id(g->gid))) {
                        admin = true;
                        break;
                    }
                }
            }
        }
        u.is_admin = admin;

        u.is_disable = false;
        auto sh = shadow_by_name.find(p.name);
        if (sh != shadow_by_name.end()) {
            const ShadowEntry& s = *sh->second;
            u.last_change_passwd = last_change_date(s);
            u.account_expire = account_expire_date(s);
            u.passwd_expire = password_expire_date(s);
            u.is_disable = is_disabled(s, now);
        }

        LoginRecord login;
        bool have_login = uid_ok && lastlog.get(uid_num, login);
        if (!have_login) {
            if (!wtmp_loaded) {
                wtmp = parse_wtmp(read_wtmp_tail(root, "/var/log/wtmp"));
                wtmp_loaded = true;
            }
            auto w = wtmp.find(p.name);
            if (w != wtmp.end()) {
                login = w->second;
                have_login = true;
            }
        }
        if (have_login) {
            u.last_login_time = format_time(static_cast<time_t>(login.time));
            u.last_login_term = login.line;
            u.last_login_ip = login.host;
        }
        out.push_back(std::move(u));
    }
    return 0;
}

}  // namespace amsvc
