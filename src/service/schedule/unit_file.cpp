#include "schedule/unit_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "core/host_path.h"

namespace amsvc {

const char* const kSystemUnitDirs[8] = {
    "/etc/systemd/system.control", "/run/systemd/system.control", "/run/systemd/transient",
    "/etc/systemd/system",         "/run/systemd/system",         "/usr/local/lib/systemd/system",
    "/lib/systemd/system",         "/usr/lib/systemd/system",
};

namespace {
constexpr size_t kMaxValues = 256;
constexpr size_t kMaxDropins = 256;
constexpr size_t kMaxResolvedDirs = 4096;

unsigned char type_of(mode_t m) {
    if (S_ISREG(m)) return DT_REG;
    if (S_ISDIR(m)) return DT_DIR;
    if (S_ISLNK(m)) return DT_LNK;
    if (S_ISFIFO(m)) return DT_FIFO;
    if (S_ISSOCK(m)) return DT_SOCK;
    if (S_ISCHR(m)) return DT_CHR;
    if (S_ISBLK(m)) return DT_BLK;
    return DT_UNKNOWN;
}
}  // namespace

int list_dir_entries(const HostRoot& root, std::string_view host_path, DirEntries& out, bool& complete,
                     size_t max_entries) {
    out.clear();
    complete = false;
    DIR* d;
    if (const int r = open_host_dir(root, host_path, &d)) return r;
    // Types and link targets are read relative to the directory opened, one
    // component each, never following: nothing leaves the root.
    const int dfd = ::dirfd(d);
    complete = true;
    try {
        while (struct dirent* e = ::readdir(d)) {
            const char* n = e->d_name;
            if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
            if (out.size() >= max_entries) {
                complete = false;
                break;
            }
            DirEntry entry;
            entry.type = e->d_type;
            if (entry.type == DT_UNKNOWN) {
                struct stat st;
                if (::fstatat(dfd, n, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone meanwhile
                entry.type = type_of(st.st_mode);
            }
            if (entry.type == DT_LNK) {
                char buf[4096];
                const ssize_t len = ::readlinkat(dfd, n, buf, sizeof buf);
                if (len > 0 && static_cast<size_t>(len) < sizeof buf)
                    entry.link.assign(buf, static_cast<size_t>(len));
            }
            out.emplace(n, std::move(entry));
        }
    } catch (...) {
        ::closedir(d);
        throw;
    }
    ::closedir(d);
    return 0;
}

UnitDirs::UnitDirs(const HostRoot& root) : root_(root) {
    dirs_.resize(sizeof kSystemUnitDirs / sizeof kSystemUnitDirs[0]);
    std::set<std::string> seen;
    for (size_t i = 0; i < dirs_.size(); ++i) {
        Dir& d = dirs_[i];
        d.configured = kSystemUnitDirs[i];
        d.path = resolve_host_path(root_, d.configured);
        resolved_dirs_[d.configured] = d.path;
        if (d.path.empty()) continue;
        resolved_dirs_[d.path] = d.path;
        d.first = seen.insert(d.path).second;
        if (d.first) {
            d.rc = list_dir_entries(root_, d.path, d.entries, d.complete);
        } else {
            for (const Dir& e : dirs_)
                if (e.first && e.path == d.path) {
                    d.rc = e.rc;
                    d.complete = e.complete;
                    break;
                }
        }
    }
}

const UnitDirs::Dir* UnitDirs::listed(std::string_view path) const {
    for (const Dir& d : dirs_)
        if (d.first && d.rc == 0 && d.complete && d.path == path) return &d;
    return nullptr;
}

std::string UnitDirs::resolve(std::string_view host_path, bool allow_dev) {
    const std::string path = normalize_path(host_path);
    if (path == "/" || is_special_tree(path)) return resolve_host_path(root_, path, allow_dev);
    const std::string dir = dir_name(path);
    const std::string base = path.substr(dir.size() == 1 ? 1 : dir.size() + 1);
    std::string rdir;
    auto it = resolved_dirs_.find(dir);
    if (it != resolved_dirs_.end()) {
        rdir = it->second;
    } else {
        rdir = resolve_host_path(root_, dir);
        if (resolved_dirs_.size() < kMaxResolvedDirs) resolved_dirs_.emplace(dir, rdir);
    }
    if (rdir.empty()) return std::string();
    const std::string cand = (rdir == "/" ? std::string() : rdir) + "/" + base;
    if (is_special_tree(cand)) return resolve_host_path(root_, cand, allow_dev);
    if (const Dir* d = listed(rdir)) {
        auto e = d->entries.find(base);
        if (e == d->entries.end()) return std::string();
        return e->second.type == DT_LNK ? resolve_host_path(root_, cand, allow_dev) : cand;
    }
    // A canonical directory: only the last component is left to look at.
    struct stat st;
    if (stat_host(root_, cand, st, kNoFollow) != 0) return std::string();
    return S_ISLNK(st.st_mode) ? resolve_host_path(root_, cand, allow_dev) : cand;
}

void parse_unit(std::string_view text, UnitKeys& keys) {
    std::string section;
    std::string logical;
    std::string full;  // "Section.Key", one buffer for every line
    for (std::string_view line : split_lines(text)) {
        if (line.find('\0') != std::string_view::npos) continue;
        std::string_view t = trim(line);
        if (logical.empty() && (t.empty() || t[0] == '#' || t[0] == ';')) continue;
        if (!t.empty() && t.back() == '\\') {
            const std::string_view part = trim(t.substr(0, t.size() - 1));
            logical.append(part.data(), part.size());
            logical += ' ';
            if (logical.size() > kMaxUnitLine) logical.clear();
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
                const std::string_view key = trim(t.substr(0, eq));
                full.assign(section).append(1, '.').append(key.data(), key.size());
                std::vector<std::string>& v = keys[full];
                const std::string_view value = trim(t.substr(eq + 1));
                if (value.empty()) {
                    v.clear();
                } else if (v.size() < kMaxValues) {
                    v.emplace_back(value);
                }
            }
        }
        logical.clear();
    }
}

const std::vector<std::string>* unit_values(const UnitKeys& keys, const std::string& key) {
    auto it = keys.find(key);
    return it == keys.end() || it->second.empty() ? nullptr : &it->second;
}

std::string unit_last(const UnitKeys& keys, const std::string& key) {
    const std::vector<std::string>* v = unit_values(keys, key);
    return v ? v->back() : std::string();
}

std::vector<std::string> dropin_names(const std::string& unit) {
    std::vector<std::string> out{unit};
    const size_t dot = unit.rfind('.');
    if (dot == std::string::npos || dot == 0) return out;
    const std::string suffix = unit.substr(dot);
    std::string stem = unit.substr(0, dot);
    const size_t at = stem.find('@');
    if (at != std::string::npos && at + 1 < stem.size()) {
        stem.resize(at + 1);
        out.push_back(stem + suffix);  // the template
    }
    // "a-b-c" -> "a-b-", "a-": each prefix ending in a dash, longest first.
    std::string prefix = unit.substr(0, dot);
    if (!prefix.empty() && prefix.back() == '-') prefix.pop_back();
    for (size_t dash = prefix.rfind('-'); dash != std::string::npos && dash > 0; dash = prefix.rfind('-')) {
        prefix.resize(dash);
        out.push_back(prefix + "-" + suffix);
    }
    return out;
}

std::vector<std::string> find_dropins(UnitDirs& unit_dirs, const std::vector<std::string>& names,
                                      DropinScope scope) {
    std::vector<std::string> dirs;  // host paths of "<name>.d", in precedence order
    std::set<std::string> seen_dirs;
    // `child`: "<name>.d".
    auto add_dir = [&](const UnitDirs::Dir& ud, const std::string& child) {
        if (ud.path.empty()) return;
        std::string real;
        if (const UnitDirs::Dir* listed = unit_dirs.listed(ud.path)) {
            // Only a name the directory holds is looked at.
            auto e = listed->entries.find(child);
            if (e == listed->entries.end()) return;
            if (e->second.type == DT_DIR)
                real = ud.path + "/" + child;
            else if (e->second.type == DT_LNK)
                real = resolve_host_path(unit_dirs.root(), ud.path + "/" + child);
            else
                return;
        } else {
            real = resolve_host_path(unit_dirs.root(), ud.path + "/" + child);
        }
        if (!real.empty() && seen_dirs.insert(real).second) dirs.push_back(real);
    };
    std::string type;
    for (const std::string& n : names) {
        if (type.empty() && n.rfind('.') != std::string::npos) type = n.substr(n.rfind('.') + 1);
        // A unit name never holds a slash; one taken from a file's text
        // (Unit=) that does names no drop-in directory.
        if (n.find('/') != std::string::npos) continue;
        std::vector<std::string> variants = dropin_names(n);
        if (scope == DropinScope::kInstall) {
            const size_t at = n.find('@'), dot = n.rfind('.');
            const bool instance = at != std::string::npos && dot != std::string::npos && dot > at + 1;
            variants.resize(instance ? 2 : 1);
        }
        for (std::string& v : variants) v += ".d";
        for (const UnitDirs::Dir& d : unit_dirs.dirs())
            for (const std::string& v : variants) add_dir(d, v);
    }
    if (!type.empty() && type.find('/') == std::string::npos && scope == DropinScope::kManager) {
        const std::string child = type + ".d";
        for (const UnitDirs::Dir& d : unit_dirs.dirs()) add_dir(d, child);
    }

    std::map<std::string, std::string> by_file;  // file name -> host path; the first seen wins
    std::vector<std::string> files;
    for (const std::string& d : dirs) {
        if (list_host_dir(unit_dirs.root(), d, files) != 0) continue;
        std::sort(files.begin(), files.end());
        for (const std::string& f : files) {
            if (!ends_with(f, ".conf") || f.size() <= 5) continue;
            if (by_file.size() >= kMaxDropins) break;
            by_file.emplace(f, d + "/" + f);
        }
    }
    std::vector<std::string> out;
    out.reserve(by_file.size());
    for (auto& f : by_file) out.push_back(std::move(f.second));
    return out;
}

std::vector<std::string> find_dropins(const HostRoot& root, const std::vector<std::string>& names,
                                      DropinScope scope) {
    UnitDirs dirs(root);
    return find_dropins(dirs, names, scope);
}

void apply_dropins(UnitDirs& dirs, const std::vector<std::string>& names, UnitKeys& keys, DropinScope scope) {
    std::string text;
    for (const std::string& p : find_dropins(dirs, names, scope))
        if (read_host_file(dirs.root(), p, text, kMaxUnitFile) == 0) parse_unit(text, keys);
}

void apply_dropins(const HostRoot& root, const std::vector<std::string>& names, UnitKeys& keys,
                   DropinScope scope) {
    UnitDirs dirs(root);
    apply_dropins(dirs, names, keys, scope);
}

}  // namespace amsvc
