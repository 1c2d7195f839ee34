#include "schedule/unit_file.h"

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
}  // namespace

void parse_unit(std::string_view text, UnitKeys& keys) {
    std::string section;
    std::string logical;
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
                std::vector<std::string>& v = keys[section + "." + std::string(key)];
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

std::vector<std::string> find_dropins(const HostRoot& root, const std::vector<std::string>& names,
                                      DropinScope scope) {
    std::vector<std::string> dirs;  // host paths of "<name>.d", in precedence order
    std::set<std::string> seen_dirs;
    auto add_dir = [&](const char* unit_dir, const std::string& name) {
        const std::string real = resolve_host_path(root, std::string(unit_dir) + "/" + name + ".d");
        if (!real.empty() && seen_dirs.insert(real).second) dirs.push_back(real);
    };
    std::string type;
    for (const std::string& n : names) {
        if (type.empty() && n.rfind('.') != std::string::npos) type = n.substr(n.rfind('.') + 1);
        std::vector<std::string> variants = dropin_names(n);
        if (scope == DropinScope::kInstall) {
            const size_t at = n.find('@'), dot = n.rfind('.');
            const bool instance = at != std::string::npos && dot != std::string::npos && dot > at + 1;
            variants.resize(instance ? 2 : 1);
        }
        for (const char* d : kSystemUnitDirs)
            for (const std::string& v : variants) add_dir(d, v);
    }
    if (!type.empty() && scope == DropinScope::kManager)
        for (const char* d : kSystemUnitDirs) add_dir(d, type);

    std::map<std::string, std::string> by_file;  // file name -> host path; the first seen wins
    for (const std::string& d : dirs) {
        std::vector<std::string> files;
        if (list_host_dir(root, d, files) != 0) continue;
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

void apply_dropins(const HostRoot& root, const std::vector<std::string>& names, UnitKeys& keys,
                   DropinScope scope) {
    std::string text;
    for (const std::string& p : find_dropins(root, names, scope))
        if (read_host_file(root, p, text, kMaxUnitFile) == 0) parse_unit(text, keys);
}

}  // namespace amsvc
