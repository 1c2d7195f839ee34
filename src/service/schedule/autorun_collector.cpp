// Auto-start entries: systemd unit files with the state `systemctl
// list-unit-files` gives them, SysV init scripts with their runlevels,
// /etc/rc.local and XDG autostart entries.
#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <new>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "collectors.h"
#include "core/file_facts.h"
#include "core/host_path.h"
#include "packages/package_index.h"
#include "packages/package_index_impl.h"
#include "schedule/autorun_parse.h"
#include "system/sysfacts.h"

namespace amsvc {

namespace {

constexpr size_t kConfigMax = kMaxUnitFile;
constexpr int kMaxLinks = 40;

std::string_view base_name(std::string_view p) {
    const size_t s = p.rfind('/');
    return s == std::string_view::npos ? p : p.substr(s + 1);
}

bool truthy(std::string_view v) {
    const std::string l = ascii_lower(trim(v));
    return l == "true" || l == "yes" || l == "1" || l == "on";
}

// First word of a command line, honouring one level of quotes.
std::string first_word(std::string_view s) {
    s = trim(s);
    if (s.empty()) return std::string();
    if (s[0] == '"' || s[0] == '\'') {
        const size_t end = s.find(s[0], 1);
        return std::string(s.substr(1, end == std::string_view::npos ? std::string_view::npos : end - 1));
    }
    size_t end = 0;
    while (end < s.size() && s[end] != ' ' && s[end] != '\t') ++end;
    return std::string(s.substr(0, end));
}

std::vector<std::string> words(std::string_view s) {
    std::vector<std::string> out;
    for (std::string_view w : split_ws(s)) out.emplace_back(w);
    return out;
}

}  // namespace

// ---- parsers -------------------------------------------------------------

UnitFile unit_file_from(const UnitKeys& keys) {
    UnitFile u;
    u.description = unit_last(keys, "Unit.Description");
    if (const auto* exec = unit_values(keys, "Service.ExecStart")) u.exec_start = exec->front();
    const std::pair<const char*, std::vector<std::string>*> lists[] = {{"Install.WantedBy", &u.wanted_by},
                                                                       {"Install.RequiredBy", &u.required_by},
                                                                       {"Install.UpheldBy", &u.upheld_by},
                                                                       {"Install.Alias", &u.aliases},
                                                                       {"Install.Also", &u.also}};
    for (const auto& l : lists)
        if (const auto* v = unit_values(keys, l.first))
            for (const std::string& line : *v)
                for (std::string& w : words(line)) l.second->push_back(std::move(w));
    u.default_instance = unit_last(keys, "Install.DefaultInstance");
    return u;
}

UnitFile parse_unit_file(std::string_view text) {
    UnitKeys keys;
    parse_unit(text, keys);
    return unit_file_from(keys);
}

std::string exec_program(std::string_view exec_start) {
    std::string_view s = trim(exec_start);
    while (!s.empty() && std::string_view("-@:+!|").find(s[0]) != std::string_view::npos) s.remove_prefix(1);
    return first_word(s);
}

LsbHeader parse_lsb_header(std::string_view script) {
    LsbHeader h;
    bool in = false;
    std::string chk_desc;
    for (std::string_view line : split_lines(script)) {
        line = trim(line);
        if (line == "### BEGIN INIT INFO") {
            in = true;
            continue;
        }
        if (line == "### END INIT INFO") break;
        if (!starts_with(line, "#")) continue;
        std::string_view body = trim(line.substr(1));
        const size_t colon = body.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view key = trim(body.substr(0, colon));
        const std::string_view val = trim(body.substr(colon + 1));
        if (in && key == "Short-Description")
            h.short_description = std::string(val);
        else if (in && key == "Default-Start")
            h.default_start = std::string(val);
        else if (!in && key == "description" && chk_desc.empty())
            chk_desc = std::string(val);  // chkconfig style
    }
    if (h.short_description.empty()) h.short_description = chk_desc;
    return h;
}

DesktopEntry parse_desktop_entry(std::string_view text) {
    DesktopEntry d;
    bool in = false;
    for (std::string_view line : split_lines(text)) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') {
            in = line == "[Desktop Entry]";
            continue;
        }
        if (!in) continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = trim(line.substr(0, eq));
        const std::string_view val = trim(line.substr(eq + 1));
        if (key == "Name")
            d.name = std::string(val);
        else if (key == "Exec")
            d.exec = std::string(val);
        else if (key == "Comment")
            d.comment = std::string(val);
        else if (key == "Hidden")
            d.hidden = truthy(val);
        else if (key == "X-GNOME-Autostart-enabled")
            d.autostart_enabled = truthy(val);
        else if (key == "OnlyShowIn")
            d.only_show_in = std::string(val);
    }
    return d;
}

// ---- systemd units ------------------------------------------------------

namespace {

struct Link {
    std::string name;       // name of the link
    std::string dest_base;  // last component of its target, as written
    std::string subdir;     // "multi-user.target.wants", empty at top level
};

struct UnitDir {
    std::string path;  // canonical host path
    bool persistent_config = false;
    bool runtime = false;
    bool transient = false;
    std::vector<Link> links;
    std::set<std::string> names;  // unit names (files and links) at top level
};

bool valid_unit_name(std::string_view n) {
    static const char* const kTypes[] = {".service",   ".socket", ".target", ".timer", ".path",  ".mount",
                                         ".automount", ".swap",   ".slice",  ".scope", ".device"};
    if (n.empty() || n.size() > 255 || n[0] == '.') return false;
    for (const char* t : kTypes)
        if (ends_with(n, t) && n.size() > std::string_view(t).size()) return true;
    return false;
}

bool is_template(std::string_view n) {
    const size_t at = n.find('@');
    const size_t dot = n.rfind('.');
    return at != std::string_view::npos && dot == at + 1;
}

bool is_instance(std::string_view n) {
    const size_t at = n.find('@');
    const size_t dot = n.rfind('.');
    return at != std::string_view::npos && dot != std::string_view::npos && dot > at + 1;
}

std::string template_of(std::string_view instance) {
    const size_t at = instance.find('@');
    const size_t dot = instance.rfind('.');
    return std::string(instance.substr(0, at + 1)) + std::string(instance.substr(dot));
}

// The unit directories' links and unit names, from the one listing of each.
std::vector<UnitDir> scan_unit_dirs(const UnitDirs& unit_dirs) {
    static const struct {
        bool persistent, runtime, transient;
    } kKinds[] = {
        {false, false, false},  // /etc/systemd/system.control
        {false, true, false},   // /run/systemd/system.control
        {false, true, true},    // /run/systemd/transient
        {true, false, false},   // /etc/systemd/system
        {false, true, false},   // /run/systemd/system
        {false, false, false},  // /usr/local/lib/systemd/system
        {false, false, false},  // /lib/systemd/system
        {false, false, false},  // /usr/lib/systemd/system
    };
    static_assert(sizeof kKinds / sizeof kKinds[0] == sizeof kSystemUnitDirs / sizeof kSystemUnitDirs[0],
                  "one kind per unit directory");
    std::vector<UnitDir> dirs;
    DirEntries sub;
    for (size_t i = 0; i < unit_dirs.dirs().size(); ++i) {
        const UnitDirs::Dir& s = unit_dirs.dirs()[i];
        // /lib -> /usr/lib on merged hosts: once. One that cannot be read still counts as a source.
        if (!s.first || s.rc == -ENOENT || s.rc == -ENOTDIR) continue;
        UnitDir d;
        d.path = s.path;
        d.persistent_config = kKinds[i].persistent;
        d.runtime = kKinds[i].runtime;
        d.transient = kKinds[i].transient;
        const std::string top = s.path == "/" ? std::string() : s.path;
        for (const auto& e : s.entries) {
            const std::string& n = e.first;
            if (e.second.type == DT_DIR) {
                if (!(ends_with(n, ".wants") || ends_with(n, ".requires") || ends_with(n, ".upholds")))
                    continue;
                bool complete;
                if (list_dir_entries(unit_dirs.root(), top + "/" + n, sub, complete) != 0) continue;
                for (const auto& l : sub)
                    if (!l.second.link.empty())
                        d.links.push_back(Link{l.first, std::string(base_name(l.second.link)), n});
            } else if (e.second.type == DT_LNK || e.second.type == DT_REG) {
                if (!valid_unit_name(n)) continue;
                d.names.insert(n);
                if (!e.second.link.empty())
                    d.links.push_back(Link{n, std::string(base_name(e.second.link)), ""});
            }
        }
        dirs.push_back(std::move(d));
    }
    return dirs;
}

struct Discovered {
    enum Kind { kRegular, kMasked, kBad } kind = kBad;
    std::string name;    // name of the unit file finally loaded
    std::string path;    // its host path (the masking link for a masked unit)
    UnitFile unit;       // with the drop-ins systemctl reads for [Install]: what the state is judged on
    UnitFile effective;  // with its drop-ins: what runs and how it is described
};

// Where a unit name leads: following links to a file of the same name
// ("linked") or to another unit name (an alias, looked up afresh).
Discovered discover(UnitDirs& unit_dirs, const std::vector<UnitDir>& dirs, const std::string& start) {
    const HostRoot& root = unit_dirs.root();
    Discovered d;
    std::string name = start;
    std::string path;
    for (int hop = 0; hop < kMaxLinks; ++hop) {
        if (path.empty()) {
            for (const UnitDir& u : dirs)
                if (u.names.count(name)) {
                    path = u.path + "/" + name;
                    break;
                }
            if (path.empty() && is_instance(name)) {
                const std::string t = template_of(name);
                for (const UnitDir& u : dirs)
                    if (u.names.count(t)) {
                        path = u.path + "/" + t;
                        break;
                    }
            }
            if (path.empty()) return d;
        }
        if (is_special_tree(path)) return d;
        // What the listing of a unit directory says, else a look at the file.
        unsigned char type;
        std::string link;
        const std::string dir = dir_name(path);
        const UnitDirs::Dir* listed = unit_dirs.listed(dir);
        const auto entry = listed ? listed->entries.find(path.substr(dir.size() == 1 ? 1 : dir.size() + 1))
                                  : DirEntries::const_iterator();
        if (listed && entry != listed->entries.end()) {
            type = entry->second.type;
            link = entry->second.link;
            if (type == DT_LNK && link.empty()) return d;
        } else {
            struct stat st;
            if (stat_host(root, path, st, kNoFollow) != 0) return d;
            type = S_ISLNK(st.st_mode) ? DT_LNK : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
            if (type == DT_LNK) {
                link = read_host_link(root, path);
                if (link.empty()) return d;
            }
        }
        if (type == DT_LNK) {
            const std::string target = normalize_path(link[0] == '/' ? link : dir_name(path) + "/" + link);
            if (target == "/dev/null" || unit_dirs.resolve(target, true) == "/dev/null") {
                d.kind = Discovered::kMasked;
                d.name = name;
                d.path = path;
                return d;
            }
            const std::string tb(base_name(target));
            if (tb == name || (is_instance(name) && tb == template_of(name))) {
                // linked unit file; its directories may be links themselves
                const std::string real_dir = unit_dirs.resolve(dir_name(target));
                if (real_dir.empty()) return d;
                path = (real_dir == "/" ? "" : real_dir) + "/" + tb;
            } else {
                if (!valid_unit_name(tb)) return d;
                // alias: foo@x.service -> bar@.service names bar@x.service
                name = (is_instance(name) && is_template(tb))
                           ? tb.substr(0, tb.find('@') + 1) + name.substr(name.find('@') + 1)
                           : tb;
                path.clear();
            }
            continue;
        }
        if (type != DT_REG) return d;
        d.name = name;
        d.path = path;
        std::string text;
        const int rc = read_host_file(root, path, text, kConfigMax, kNoFollow);
        struct stat st;
        const bool empty =
            rc == 0 ? text.empty()
                    : stat_host(root, path, st, kNoFollow) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
        if (empty) {
            d.kind = Discovered::kMasked;  // an empty file masks the unit
            return d;
        }
        if (rc != 0) return d;
        UnitKeys base;
        parse_unit(text, base);
        UnitKeys keys = base;
        std::vector<std::string> names{name};
        if (start != name) names.push_back(start);
        apply_dropins(unit_dirs, names, base, DropinScope::kInstall);
        d.unit = unit_file_from(base);
        apply_dropins(unit_dirs, names, keys, DropinScope::kManager);
        d.effective = unit_file_from(keys);
        d.kind = Discovered::kRegular;
        return d;
    }
    return d;
}

bool known_link_name(const std::string& name, const Discovered& u, const std::string& link) {
    if (link == name) return true;
    if (std::find(u.unit.aliases.begin(), u.unit.aliases.end(), link) != u.unit.aliases.end()) return true;
    if (!u.unit.default_instance.empty() && is_template(name)) {
        const std::string inst =
            name.substr(0, name.find('@') + 1) + u.unit.default_instance + name.substr(name.rfind('.'));
        return link == inst;
    }
    return false;
}

// State of a unit from the links that point at it, in search-path order.
// Returns empty when no link decides.
std::string link_state(const std::vector<UnitDir>& dirs, const std::string& name, const Discovered& u,
                       bool match_names) {
    bool ignore_same_name = false, enabled_runtime = false, enabled_elsewhere = false;
    bool same_config = false, same_runtime = false;
    for (const UnitDir& d : dirs) {
        bool found = false, same = false;
        for (const Link& l : d.links) {
            const bool found_path = !ignore_same_name && l.name == name;
            const bool found_dest = l.dest_base == name;
            if (found_path && found_dest && l.subdir.empty()) {
                same = true;
            } else if ((found_path || found_dest) && (!match_names || known_link_name(name, u, l.name))) {
                found = true;
                break;
            }
        }
        if (found) {
            if (d.persistent_config) return "enabled";
            if (d.runtime)
                enabled_runtime = true;
            else
                enabled_elsewhere = true;
        } else if (same) {
            if (d.persistent_config)
                same_config = true;
            else if (d.runtime)
                same_runtime = true;
        }
        if (!ignore_same_name && starts_with(u.path, d.path + "/")) ignore_same_name = true;
    }
    if (enabled_runtime) return "enabled-runtime";
    if (enabled_elsewhere && is_instance(name)) return "static";
    if (same_config) return "linked";
    if (same_runtime) return "linked-runtime";
    return std::string();
}

bool under_runtime(const std::vector<UnitDir>& dirs, const std::string& path) {
    for (const UnitDir& d : dirs)
        if (d.runtime && starts_with(path, d.path + "/")) return true;
    return starts_with(path, "/run/");
}

std::string unit_state(const std::vector<UnitDir>& dirs, const std::string& name, const Discovered& u) {
    switch (u.kind) {
        case Discovered::kBad:
            return "bad";
        case Discovered::kMasked:
            return under_runtime(dirs, u.path) ? "masked-runtime" : "masked";
        case Discovered::kRegular:
            break;
    }
    if (name != base_name(u.path) && !is_instance(u.name)) return "alias";
    if (starts_with(u.path, "/run/systemd/transient/")) return "transient";
    std::string s = link_state(dirs, name, u, true);
    if (!s.empty()) return s;
    if (!link_state(dirs, name, u, false).empty()) return "indirect";
    if (u.unit.has_install_rules()) return "disabled";
    if (!u.unit.also.empty()) return "indirect";
    return "static";
}

// The target units whose .wants/.requires directories start this unit.
std::string unit_levels(const std::vector<UnitDir>& dirs, const std::string& name) {
    std::vector<std::string> out;
    for (const UnitDir& d : dirs)
        for (const Link& l : d.links) {
            if (l.subdir.empty() || (l.name != name && l.dest_base != name)) continue;
            const std::string target = l.subdir.substr(0, l.subdir.rfind('.'));
            if (std::find(out.begin(), out.end(), target) == out.end()) out.push_back(target);
        }
    std::string s;
    for (const std::string& t : out) s += (s.empty() ? "" : ",") + t;
    return s;
}

// Host path of a program named by a command line: absolute as given, or
// searched the way systemd and session managers search PATH.
std::string program_path(UnitDirs& dirs, const std::string& prog) {
    const HostRoot& root = dirs.root();
    if (prog.empty()) return std::string();
    if (prog[0] == '/') return dirs.resolve(prog);
    if (prog.find('/') != std::string::npos) return std::string();
    for (const char* dir : {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin"}) {
        const std::string p = dirs.resolve(std::string(dir) + "/" + prog);
        struct stat st;
        if (!p.empty() && stat_host(root, p, st) == 0 && S_ISREG(st.st_mode)) return p;
    }
    return std::string();
}

struct Pending {
    AM::AutoRunServInfo rec;
    std::string facts_path;   // host path whose facts the record carries
    size_t facts = SIZE_MAX;  // its index in the batch
};

// Keeps a record; its file starts being hashed now, while the rest is read.
void push(std::vector<Pending>& out, FileFactsBatch& batch, Pending&& p) {
    if (!p.facts_path.empty()) {
        FileRef r;
        r.host_path = p.facts_path;
        p.facts = batch.add(r);
    }
    out.push_back(std::move(p));
}

void collect_units(UnitDirs& unit_dirs, FileFactsBatch& batch, std::vector<Pending>& out, bool& any_source) {
    const std::vector<UnitDir> dirs = scan_unit_dirs(unit_dirs);
    if (!dirs.empty()) any_source = true;
    std::set<std::string> done;
    for (const UnitDir& d : dirs) {
        for (const std::string& name : d.names) {
            if (!done.insert(name).second) continue;  // a higher directory already named it
            const Discovered u = discover(unit_dirs, dirs, name);
            Pending p;
            p.rec.name = name;
            p.rec.script_path = u.path.empty() ? d.path + "/" + name : u.path;
            p.rec.status = unit_state(dirs, name, u);
            p.rec.level = unit_levels(dirs, name);
            p.rec.comment = u.effective.description;
            p.rec.verified = false;
            if (u.kind == Discovered::kRegular) {
                // A unit that runs nothing itself (target, timer, socket) carries its own file's facts.
                p.facts_path = u.effective.exec_start.empty()
                                   ? u.path
                                   : program_path(unit_dirs, exec_program(u.effective.exec_start));
            }
            push(out, batch, std::move(p));
        }
    }
}

// ---- SysV, rc.local, XDG -------------------------------------------------

void collect_sysv(const HostRoot& root, FileFactsBatch& batch, std::vector<Pending>& out, bool& any_source) {
    const std::string initd = resolve_host_path(root, "/etc/init.d");
    if (initd.empty()) return;
    std::vector<std::string> scripts = list_host_dir(root, initd);
    if (scripts.empty()) return;
    any_source = true;
    std::sort(scripts.begin(), scripts.end());
    // runlevel -> names started there
    std::map<std::string, std::string> levels;
    for (const char* lv : {"0", "1", "2", "3", "4", "5", "6", "S"}) {
        const std::string rcd = resolve_host_path(root, "/etc/rc" + std::string(lv) + ".d");
        if (rcd.empty()) continue;
        for (const std::string& n : list_host_dir(root, rcd)) {
            if (n.size() < 4 || n[0] != 'S' || !isdigit(static_cast<unsigned char>(n[1])) ||
                !isdigit(static_cast<unsigned char>(n[2])))
                continue;
            const std::string target = read_host_link(root, rcd + "/" + n);
            const std::string script = target.empty() ? n.substr(3) : std::string(base_name(target));
            std::string& l = levels[script];
            if (l.find(lv) == std::string::npos) l += lv;
        }
    }
    // OpenRC (Alpine): /etc/runlevels/<level>/<service>, a link to the init.d
    // script; the level is kept by its name ("boot", "default", ...).
    const std::string runlevels = resolve_host_path(root, "/etc/runlevels");
    std::vector<std::string> rl_names = runlevels.empty() ? std::vector<std::string>()
                                                          : list_host_dir(root, runlevels);
    std::sort(rl_names.begin(), rl_names.end());
    for (const std::string& lv : rl_names) {
        if (lv[0] == '.') continue;
        std::vector<std::string> services = list_host_dir(root, runlevels + "/" + lv);
        std::sort(services.begin(), services.end());
        for (const std::string& n : services) {
            const std::string target = read_host_link(root, runlevels + "/" + lv + "/" + n);
            const std::string script = target.empty() ? n : std::string(base_name(target));
            std::string& l = levels[script];
            if (!l.empty()) l += ',';  // "boot,default"
            l += lv;
        }
    }
    for (const std::string& n : scripts) {
        if (n == "README" || n == "skeleton" || n.find(".dpkg-") != std::string::npos || ends_with(n, "~") ||
            n[0] == '.')
            continue;
        const std::string host = initd + "/" + n;
        struct stat st;
        if (stat_host(root, host, st, kNoFollow) != 0) continue;
        const std::string real = S_ISLNK(st.st_mode) ? resolve_host_path(root, host) : host;
        if (real.empty() || stat_host(root, real, st) != 0 || !S_ISREG(st.st_mode)) continue;
        std::string text;
        read_host_file(root, real, text, 64u << 10);  // the LSB header sits at the top
        const LsbHeader h = parse_lsb_header(text);
        Pending p;
        p.rec.name = n;
        p.rec.script_path = host;
        p.rec.level = levels.count(n) ? levels[n] : std::string();
        p.rec.comment = h.short_description;
        p.rec.status = p.rec.level.empty() ? "disabled" : "enabled";
        p.rec.verified = false;
        p.facts_path = real;
        push(out, batch, std::move(p));
    }
}

void collect_rc_local(const HostRoot& root, FileFactsBatch& batch, std::vector<Pending>& out,
                      bool& any_source) {
    const std::string real = resolve_host_path(root, "/etc/rc.local");
    struct stat st;
    if (real.empty() || stat_host(root, real, st) != 0 || !S_ISREG(st.st_mode)) return;
    any_source = true;
    if (!(st.st_mode & 0111)) return;  // not executable: never run
    Pending p;
    p.rec.name = "rc.local";
    p.rec.script_path = "/etc/rc.local";
    p.rec.status = "enabled";
    p.rec.verified = false;
    p.facts_path = real;
    push(out, batch, std::move(p));
}

void collect_xdg(UnitDirs& resolver, FileFactsBatch& batch, std::vector<Pending>& out, bool& any_source) {
    const HostRoot& root = resolver.root();
    const std::string dir = resolve_host_path(root, "/etc/xdg/autostart");
    if (dir.empty()) return;
    std::vector<std::string> names = list_host_dir(root, dir);
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) {
        if (!ends_with(n, ".desktop")) continue;
        any_source = true;
        const std::string host = dir + "/" + n;
        const std::string real = resolve_host_path(root, host);
        std::string text;
        if (real.empty() || read_host_file(root, real, text, kConfigMax) != 0) continue;
        const DesktopEntry e = parse_desktop_entry(text);
        Pending p;
        p.rec.name = n;
        p.rec.script_path = host;
        p.rec.comment = e.comment.empty() ? e.name : e.comment;
        p.rec.status = (e.hidden || !e.autostart_enabled) ? "disabled" : "enabled";
        p.rec.level = e.only_show_in;
        p.rec.verified = false;
        // "env VAR=x prog": the program is the first word that is not an assignment.
        std::vector<std::string> w = words(e.exec);
        size_t i = 0;
        if (i < w.size() && (w[i] == "env" || ends_with(w[i], "/env"))) {
            ++i;
            while (i < w.size() && w[i].find('=') != std::string::npos) ++i;
        }
        std::string prog = i < w.size() ? first_word(e.exec.substr(e.exec.find(w[i]))) : std::string();
        p.facts_path = program_path(resolver, prog);
        push(out, batch, std::move(p));
    }
}

}  // namespace

int32_t collect_autoruns(const HostRoot& root, std::vector<AM::AutoRunServInfo>& out) {
    return guarded(out, [&]() -> int32_t {
        out.clear();
        // The programs' owners are asked in one batch after all sources are
        // read: the package list is read meanwhile, on a thread joined before
        // this call returns (none outlives it, so a fork never inherits its locks).
        struct Joiner {
            std::thread t;
            ~Joiner() {
                if (t.joinable()) t.join();
            }
        } warm;
        try {
            warm.t = std::thread([&root] {
                try {
                    package_index(root);
                } catch (...) {
                    // Out of memory: the batch reads it again, or answers without owners.
                }
            });
        } catch (const std::system_error&) {
            // No thread to spare: the index is built when first asked.
        }
        std::vector<Pending> found;
        bool any = false;
        FileFactsBatch batch(root);
        UnitDirs unit_dirs(root);
        collect_units(unit_dirs, batch, found, any);
        collect_sysv(root, batch, found, any);
        collect_rc_local(root, batch, found, any);
        collect_xdg(unit_dirs, batch, found, any);
        const std::vector<FileFacts> facts = batch.finish();
        for (Pending& p : found) {
            if (p.facts >= facts.size()) continue;
            AM::AutoRunServInfo& r = p.rec;
            r.md5 = facts[p.facts].md5;
            r.sha256 = facts[p.facts].sha256;
            r.company = facts[p.facts].company;
            r.verified = facts[p.facts].verified;
        }
        out.reserve(found.size());
        for (Pending& p : found) out.push_back(std::move(p.rec));
        return any ? 0 : -ENOENT;
    });
}

}  // namespace amsvc
