// Scheduled jobs: the system crontab and /etc/cron.d, every user's crontab,
// anacron, the run-parts directories, and enabled systemd timers. Crontabs are
// written by their users, so they are read without following symlinks, never
// from a FIFO, and with bounded sizes.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>

#include "collectors.h"
#include "cron_parse.h"

namespace amsvc {
namespace cron {

namespace {

constexpr size_t kMaxJobsPerFile = 10000;

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Next blank-separated word of `s` from `pos`; empty at the end.
std::string_view next_word(std::string_view s, size_t& pos) {
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t')) ++pos;
    const size_t b = pos;
    while (pos < s.size() && s[pos] != ' ' && s[pos] != '\t') ++pos;
    return s.substr(b, pos - b);
}

bool schedule_field(std::string_view f) {
    if (f.empty()) return false;
    for (char c : f)
        if (!(is_digit(c) || is_alpha(c) || c == '*' || c == '/' || c == ',' || c == '-')) return false;
    return true;
}

bool special_schedule(std::string_view w) {
    static const char* const kNames[] = {"@reboot", "@yearly", "@annually", "@monthly",
                                         "@weekly", "@daily",  "@midnight", "@hourly"};
    for (const char* n : kNames)
        if (w == n) return true;
    return false;
}

bool all_digits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!is_digit(c)) return false;
    return true;
}

bool is_assignment_word(std::string_view w) {
    const size_t eq = w.find('=');
    if (eq == std::string_view::npos || eq == 0) return false;
    if (is_digit(w[0])) return false;
    for (size_t i = 0; i < eq; ++i)
        if (!(is_alpha(w[i]) || is_digit(w[i]) || w[i] == '_')) return false;
    return true;
}

// Walks the lines of a cron-style table, handing each non-comment line to
// `fn(line, comment)` with the comment line directly above it (or empty).
template <typename Fn>
void for_each_entry(std::string_view text, Fn fn) {
    std::string_view comment;
    bool prev_comment = false;
    for (std::string_view line : split_lines(text)) {
        if (line.size() > kMaxLine || line.find('\0') != std::string_view::npos) {
            prev_comment = false;
            continue;
        }
        const std::string_view t = trim(line);
        if (t.empty()) {
            prev_comment = false;
            continue;
        }
        if (t[0] == '#') {
            comment = trim(t.substr(1));
            prev_comment = true;
            continue;
        }
        const std::string_view c = prev_comment ? comment : std::string_view();
        prev_comment = false;
        if (!fn(t, c)) break;
    }
}

}  // namespace

std::string program_name(std::string_view cmd) {
    size_t pos = 0;
    for (;;) {
        std::string_view w = next_word(cmd, pos);
        if (w.empty()) return std::string();
        if (is_assignment_word(w)) continue;
        if (w.size() >= 2 && (w.front() == '"' || w.front() == '\'') && w.back() == w.front())
            w = w.substr(1, w.size() - 2);
        const size_t slash = w.rfind('/');
        if (slash != std::string_view::npos) w = w.substr(slash + 1);
        return std::string(w);
    }
}

void parse_crontab(std::string_view text, bool system_table, const std::string& user, const std::string& file,
                   std::vector<CronInfo>& out) {
    size_t jobs = 0;
    for_each_entry(text, [&](std::string_view s, std::string_view comment) {
        // cronie's "-" prefix only silences logging.
        if (s.size() > 1 && s[0] == '-' && (is_digit(s[1]) || s[1] == '*' || s[1] == '@')) s.remove_prefix(1);
        const char c = s[0];
        if (!(is_digit(c) || c == '*' || c == '@')) return true;  // environment setting or junk
        size_t pos = 0;
        std::string timer;
        if (c == '@') {
            const std::string_view w = next_word(s, pos);
            if (!special_schedule(w)) return true;
            timer = std::string(w);
        } else {
            // The five fields as written, one blank between them.
            for (int i = 0; i < 5; ++i) {
                const std::string_view f = next_word(s, pos);
                if (!schedule_field(f)) return true;
                if (i) timer += ' ';
                timer.append(f.data(), f.size());
            }
        }
        std::string_view run_as = user;
        if (system_table) {
            run_as = next_word(s, pos);
            if (run_as.empty()) return true;
        }
        const std::string_view cmd = trim(s.substr(pos));
        if (cmd.empty()) return true;
        CronInfo job;
        job.user = std::string(run_as);
        job.cmd_line = std::string(cmd);
        job.timer = std::move(timer);
        job.name = program_name(cmd);
        job.comment = std::string(comment);
        job.file = file;
        out.push_back(std::move(job));
        return ++jobs < kMaxJobsPerFile;
    });
}

void parse_anacrontab(std::string_view text, const std::string& file, std::vector<CronInfo>& out) {
    size_t jobs = 0;
    for_each_entry(text, [&](std::string_view s, std::string_view comment) {
        size_t pos = 0;
        const std::string_view period = next_word(s, pos);
        const std::string_view delay = next_word(s, pos);
        const std::string_view id = next_word(s, pos);
        const std::string_view cmd = trim(s.substr(pos));
        const bool period_ok =
            all_digits(period) || (period.size() > 1 && period[0] == '@' && special_schedule(period));
        if (!period_ok || !all_digits(delay) || id.empty() || id.find('/') != std::string_view::npos ||
            cmd.empty())
            return true;  // environment setting or junk
        CronInfo job;
        job.user = "root";
        job.cmd_line = std::string(cmd);
        job.timer = std::string(period);
        job.name = std::string(id);
        job.comment = std::string(comment);
        job.file = file;
        out.push_back(std::move(job));
        return ++jobs < kMaxJobsPerFile;
    });
}

bool run_parts_name(std::string_view name) {
    if (name.empty()) return false;
    for (char c : name)
        if (!(is_alpha(c) || is_digit(c) || c == '_' || c == '-')) return false;
    return true;
}

void parse_unit(std::string_view text, UnitKeys& keys) {
    std::string section;
    std::string logical;
    for (std::string_view line : split_lines(text)) {
        if (line.find('\0') != std::string_view::npos) continue;
        std::string_view t = trim(line);
        if (logical.empty() && (t.empty() || t[0] == '#' || t[0] == ';')) continue;
        if (!t.empty() && t.back() == '\\') {
            logical.append(t.data(), t.size() - 1);
            logical += ' ';
            if (logical.size() > kMaxLine) logical.clear();
            continue;
        }
        logical.append(t.data(), t.size());
        t = trim(logical);
        if (!t.empty() && t[0] == '[') {
            const size_t close = t.find(']');
            section = close == std::string_view::npos ? std::string() : std::string(t.substr(1, close - 1));
        } else if (!section.empty()) {
            const size_t eq = t.find('=');
            if (eq != std::string_view::npos && eq > 0) {
                std::vector<std::string>& v = keys[section + "." + std::string(trim(t.substr(0, eq)))];
                const std::string_view value = trim(t.substr(eq + 1));
                if (value.empty()) {
                    v.clear();
                } else if (v.size() < 256) {
                    v.emplace_back(value);
                }
            }
        }
        logical.clear();
    }
}

namespace {

std::string join(const std::vector<std::string>& v, const char* sep) {
    std::string s;
    for (const std::string& x : v) {
        if (!s.empty()) s += sep;
        s += x;
    }
    return s;
}

const std::vector<std::string>* values(const UnitKeys& k, const char* key) {
    auto it = k.find(key);
    return it == k.end() || it->second.empty() ? nullptr : &it->second;
}

}  // namespace

std::string timer_schedule(const UnitKeys& timer) {
    if (const auto* cal = values(timer, "Timer.OnCalendar")) return join(*cal, "; ");
    static const char* const kMonotonic[] = {"OnActiveSec", "OnBootSec", "OnStartupSec", "OnUnitActiveSec",
                                             "OnUnitInactiveSec"};
    std::string s;
    for (const char* key : kMonotonic) {
        const auto* v = values(timer, (std::string("Timer.") + key).c_str());
        if (!v) continue;
        for (const std::string& x : *v) {
            if (!s.empty()) s += "; ";
            s += key;
            s += '=';
            s += x;
        }
    }
    return s;
}

std::string service_command(const UnitKeys& service) {
    const auto* exec = values(service, "Service.ExecStart");
    if (!exec) return std::string();
    std::vector<std::string> cmds;
    for (const std::string& e : *exec) {
        size_t i = 0;
        while (i < e.size() && (e[i] == '-' || e[i] == '+' || e[i] == '!' || e[i] == ':')) ++i;
        cmds.push_back(e.substr(i));
    }
    return join(cmds, "; ");
}

}  // namespace cron

namespace {

using namespace cron;

constexpr size_t kMaxCrontab = 16u << 20;
constexpr size_t kMaxUnitFile = 1u << 20;

// Tracks whether any source of the kind existed and whether any was read.
struct Sources {
    bool seen = false;
    bool read = false;
    void note(int rc) {
        if (rc == -ENOENT || rc == -ENOTDIR) return;
        seen = true;
        if (rc == 0) read = true;
    }
};

int list_names(const std::string& path, std::vector<std::string>& names) {
    names.clear();
    DIR* d = ::opendir(path.c_str());
    if (!d) return -errno;
    while (struct dirent* e = ::readdir(d)) {
        const char* n = e->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
        names.emplace_back(n);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return 0;
}

void read_crontab(const HostRoot& root, const std::string& host_path, bool system_table,
                  const std::string& user, unsigned flags, Sources& src, std::vector<CronInfo>& out) {
    std::string text;
    const int rc = read_file(root.path(host_path), text, kMaxCrontab + 1, flags);
    src.note(rc);
    if (rc != 0) return;
    if (text.size() > kMaxCrontab) {
        // Cut at the bound: drop the partial last line.
        const size_t nl = text.rfind('\n', kMaxCrontab);
        text.resize(nl == std::string::npos ? 0 : nl);
    }
    parse_crontab(text, system_table, user, host_path, out);
}

// /etc/cron.d entries may be symlinks; cron follows them only to files that
// root owns and nobody else may write, and so do we.
unsigned cron_d_flags(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return kNoFollow;
    if (::stat(path.c_str(), &st) != 0 || st.st_uid != 0 || (st.st_mode & 022)) return kNoFollow;
    return kReadDefault;
}

void collect_crontabs(const HostRoot& root, Sources& src, std::vector<CronInfo>& out) {
    read_crontab(root, "/etc/crontab", true, std::string(), kReadDefault, src, out);

    std::vector<std::string> names;
    src.note(list_names(root.path("/etc/cron.d"), names));
    for (const std::string& n : names) {
        if (!run_parts_name(n)) continue;
        const std::string host = "/etc/cron.d/" + n;
        read_crontab(root, host, true, std::string(), cron_d_flags(root.path(host)), src, out);
    }

    // Debian keeps user crontabs in crontabs/, Red Hat directly in the spool.
    static const char* const kSpools[] = {"/var/spool/cron/crontabs", "/var/spool/cron"};
    for (const char* spool : kSpools) {
        src.note(list_names(root.path(spool), names));
        for (const std::string& n : names) {
            if (n[0] == '.' || starts_with(n, "tmp.")) continue;  // crontab(1)'s temporary files
            const std::string host = std::string(spool) + "/" + n;
            struct stat st;
            if (::lstat(root.path(host).c_str(), &st) != 0 || S_ISDIR(st.st_mode)) continue;
            read_crontab(root, host, false, n, kNoFollow, src, out);
        }
    }
}

void collect_anacron(const HostRoot& root, Sources& src, std::vector<CronInfo>& out) {
    std::string text;
    const int rc = read_file(root.path("/etc/anacrontab"), text, kMaxCrontab, kNoFollow);
    src.note(rc);
    if (rc == 0) parse_anacrontab(text, "/etc/anacrontab", out);
}

void collect_run_parts(const HostRoot& root, Sources& src, std::vector<CronInfo>& out) {
    static const char* const kDirs[][2] = {{"/etc/cron.hourly", "@hourly"},
                                           {"/etc/cron.daily", "@daily"},
                                           {"/etc/cron.weekly", "@weekly"},
                                           {"/etc/cron.monthly", "@monthly"}};
    std::vector<std::string> names;
    for (const auto& d : kDirs) {
        src.note(list_names(root.path(d[0]), names));
        for (const std::string& n : names) {
            if (!run_parts_name(n)) continue;
            const std::string host = std::string(d[0]) + "/" + n;
            struct stat st;
            // run-parts runs executable regular files, following symlinks.
            if (::stat(root.path(host).c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !(st.st_mode & 0111))
                continue;
            CronInfo job;
            job.user = "root";
            job.cmd_line = host;
            job.timer = d[1];
            job.name = n;
            job.file = host;
            out.push_back(std::move(job));
        }
    }
}

// Highest priority first.
const char* const kUnitDirs[] = {"/etc/systemd/system", "/lib/systemd/system", "/usr/lib/systemd/system"};

// "foo@bar.timer" -> "foo@.timer"; empty for a unit that is no instance.
std::string template_of(const std::string& unit) {
    const size_t at = unit.find('@');
    const size_t dot = unit.rfind('.');
    if (at == std::string::npos || dot == std::string::npos || dot <= at + 1) return std::string();
    return unit.substr(0, at + 1) + unit.substr(dot);
}

std::string instance_of(const std::string& unit) {
    const size_t at = unit.find('@');
    const size_t dot = unit.rfind('.');
    if (at == std::string::npos || dot == std::string::npos || dot <= at + 1) return std::string();
    return unit.substr(at + 1, dot - at - 1);
}

// Loads a unit with its drop-ins. `file` gets the host path it was found at;
// false when it is absent or masked.
bool load_unit(const HostRoot& root, const std::string& unit, UnitKeys& keys, std::string& file) {
    std::vector<std::string> candidates{unit};
    const std::string tmpl = template_of(unit);
    if (!tmpl.empty()) candidates.push_back(tmpl);
    std::string found_host, real;
    for (const std::string& name : candidates) {
        for (const char* dir : kUnitDirs) {
            const std::string host = std::string(dir) + "/" + name;
            const std::string p = root.path(host);
            struct stat st;
            if (::lstat(p.c_str(), &st) != 0) continue;
            if (S_ISLNK(st.st_mode)) {
                const std::string target = read_link(p);
                if (target.empty() || target == "/dev/null") return false;  // masked
                real = target[0] == '/' ? root.path(target) : root.path(std::string(dir) + "/" + target);
            } else {
                real = p;
            }
            found_host = host;
            break;
        }
        if (!found_host.empty()) break;
    }
    if (found_host.empty()) return false;
    std::string text;
    if (read_file(real, text, kMaxUnitFile) != 0) return false;
    parse_unit(text, keys);
    file = found_host;

    // Drop-ins: same-named files in a higher-priority directory win; applied
    // in file name order.
    std::map<std::string, std::string> dropins;
    std::vector<std::string> names;
    for (const std::string& name : candidates) {
        for (size_t i = sizeof kUnitDirs / sizeof kUnitDirs[0]; i-- > 0;) {
            const std::string d = root.path(std::string(kUnitDirs[i]) + "/" + name + ".d");
            if (list_names(d, names) != 0) continue;
            for (const std::string& n : names)
                if (ends_with(n, ".conf")) dropins[n] = d + "/" + n;
        }
    }
    for (const auto& di : dropins)
        if (read_file(di.second, text, kMaxUnitFile) == 0) parse_unit(text, keys);
    return true;
}

std::string last_value(const UnitKeys& k, const char* key) {
    auto it = k.find(key);
    return it == k.end() || it->second.empty() ? std::string() : it->second.back();
}

void replace_all(std::string& s, const std::string& from, const std::string& to) {
    for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size()))
        s.replace(p, from.size(), to);
}

void collect_timers(const HostRoot& root, Sources& src, std::vector<CronInfo>& out) {
    // Enabled timers are those some target wants or requires.
    std::set<std::string> enabled;
    std::vector<std::string> names, wanted;
    for (const char* dir : kUnitDirs) {
        const int rc = list_names(root.path(dir), names);
        src.note(rc);
        for (const std::string& n : names) {
            if (!ends_with(n, ".wants") && !ends_with(n, ".requires")) continue;
            if (list_names(root.path(std::string(dir) + "/" + n), wanted) != 0) continue;
            for (const std::string& w : wanted)
                if (ends_with(w, ".timer") && w.size() > 6) enabled.insert(w);
        }
    }
    for (const std::string& t : enabled) {
        UnitKeys timer;
        std::string file;
        if (!load_unit(root, t, timer, file)) continue;
        CronInfo job;
        job.name = t;
        job.timer = timer_schedule(timer);
        job.comment = last_value(timer, "Unit.Description");
        job.file = file;
        std::string service = last_value(timer, "Timer.Unit");
        if (service.empty()) service = t.substr(0, t.size() - 6) + ".service";
        UnitKeys svc;
        std::string svc_file;
        job.user = "root";
        if (load_unit(root, service, svc, svc_file)) {
            job.cmd_line = service_command(svc);
            const std::string inst = instance_of(service);
            if (!inst.empty()) {
                replace_all(job.cmd_line, "%i", inst);
                replace_all(job.cmd_line, "%I", inst);
            }
            const std::string u = last_value(svc, "Service.User");
            if (!u.empty()) job.user = u;
        }
        out.push_back(std::move(job));
    }
}

}  // namespace

int32_t collect_crons(const HostRoot& root, std::vector<AM::CronInfo>& out) {
    out.clear();
    Sources src;
    collect_crontabs(root, src, out);
    collect_anacron(root, src, out);
    collect_run_parts(root, src, out);
    collect_timers(root, src, out);
    if (!src.seen) return -ENOENT;
    if (!src.read) return -EACCES;
    return 0;
}

}  // namespace amsvc
