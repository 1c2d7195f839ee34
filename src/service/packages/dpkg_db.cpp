#include "packages/dpkg_db.h"

#include <errno.h>
#include <strings.h>

#include <algorithm>

#include "core/common.h"

namespace amsvc {

namespace {

bool field_is(std::string_view name, const char* want) {
    const size_t n = std::char_traits<char>::length(want);
    return name.size() == n && strncasecmp(name.data(), want, n) == 0;
}

void parse_conffiles(std::string_view value, std::vector<DpkgConffile>& out) {
    for (std::string_view line : split_lines(value)) {
        const std::vector<std::string_view> w = split_ws(line);
        if (w.size() < 2 || w[0].empty() || w[0][0] != '/') continue;
        out.push_back(DpkgConffile{std::string(w[0]), std::string(w[1])});
    }
}

// Applies one complete field (value with continuation lines) to `p`.
void apply_field(DpkgPackage& p, std::string_view name, std::string_view value) {
    // The first line is the value proper; continuation lines follow after '\n'.
    const size_t nl = value.find('\n');
    const std::string_view first = trim(value.substr(0, nl));
    if (field_is(name, "Package")) {
        p.name = std::string(first);
    } else if (field_is(name, "Status")) {
        p.status = std::string(first);
    } else if (field_is(name, "Architecture")) {
        p.arch = std::string(first);
    } else if (field_is(name, "Version")) {
        p.version = std::string(first);
    } else if (field_is(name, "Maintainer")) {
        p.maintainer = std::string(first);
    } else if (field_is(name, "Description")) {
        // As dpkg keeps it: blanks after the colon and at the very end of the
        // whole value go, a trailing blank of the first line before more lines stays.
        std::string_view v = value;
        while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
        while (!v.empty() && (v.back() == ' ' || v.back() == '\t' || v.back() == '\n' || v.back() == '\r'))
            v.remove_suffix(1);
        p.summary = std::string(v.substr(0, v.find('\n')));
    } else if (field_is(name, "Multi-Arch")) {
        p.multi_arch = std::string(first);
    } else if (field_is(name, "Source")) {
        // "glibc (2.36-9)" when the source version differs from the binary's.
        const size_t sp = first.find_first_of(" \t(");
        p.source = std::string(trim(first.substr(0, sp)));
    } else if (field_is(name, "Installed-Size")) {
        uint64_t kib = 0;
        if (parse_u64(first, kib) && kib <= (UINT64_MAX >> 10)) p.installed_size_kib = kib;
    } else if (field_is(name, "Conffiles")) {
        if (nl != std::string_view::npos) parse_conffiles(value.substr(nl + 1), p.conffiles);
    }
}

}  // namespace

std::vector<DpkgPackage> parse_dpkg_status(std::string_view text) {
    std::vector<DpkgPackage> out;
    // A stanza takes about a kilobyte: growing the vector would move every
    // package several times.
    out.reserve(text.size() / 768 + 4);
    DpkgPackage cur;
    bool in_stanza = false;
    std::string_view fname;  // field being read
    const char* vstart = nullptr;
    const char* vend = nullptr;
    auto flush_field = [&]() {
        if (!fname.empty() && vstart)
            apply_field(cur, fname, std::string_view(vstart, static_cast<size_t>(vend - vstart)));
        fname = {};
        vstart = vend = nullptr;
    };
    auto flush_stanza = [&]() {
        flush_field();
        if (in_stanza && !cur.name.empty()) out.push_back(std::move(cur));
        cur = DpkgPackage();
        in_stanza = false;
    };
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string_view::npos) eol = text.size();
        std::string_view line = text.substr(pos, eol - pos);
        const char* line_begin = text.data() + pos;
        pos = eol + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (trim(line).empty()) {
            flush_stanza();
            continue;
        }
        in_stanza = true;
        if (line[0] == ' ' || line[0] == '\t') {
            // Continuation: extend the current field's value over this line.
            if (vstart) vend = line_begin + line.size();
            continue;
        }
        flush_field();
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) continue;  // junk line: ignored
        fname = line.substr(0, colon);
        vstart = line_begin + colon + 1;
        vend = line_begin + line.size();
    }
    flush_stanza();
    return out;
}

bool dpkg_is_installed(std::string_view status) {
    const std::vector<std::string_view> w = split_ws(status);
    if (w.size() != 3 || w[1] != "ok") return false;
    return w[2] == "installed" || w[2] == "triggers-pending" || w[2] == "triggers-awaited";
}

void split_deb_version(std::string_view full, std::string& version, std::string& release) {
    full = trim(full);
    const size_t dash = full.rfind('-');
    if (dash == std::string_view::npos || dash == 0) {
        version = std::string(full);
        release.clear();
        return;
    }
    version = std::string(full.substr(0, dash));
    release = std::string(full.substr(dash + 1));
}

std::string dpkg_info_name(const DpkgPackage& p, bool with_arch) {
    if (with_arch && !p.arch.empty()) return p.name + ":" + p.arch;
    return p.name;
}

bool hex_to_bytes(std::string_view hex, unsigned char* out, size_t n) {
    if (hex.size() != 2 * n) return false;
    for (size_t i = 0; i < n; ++i) {
        const int hi = hex_value(hex[2 * i]), lo = hex_value(hex[2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = static_cast<unsigned char>(hi << 4 | lo);
    }
    return true;
}

void parse_md5sums(std::string_view text,
                   const std::function<void(std::string_view path, const unsigned char* md5)>& fn) {
    std::string abs;
    for (std::string_view line : split_lines(text)) {
        // "<md5>  <path>": two blanks (or " *" for binary mode), path may hold blanks.
        if (line.size() < 35) continue;
        unsigned char md5[16];
        if (!hex_to_bytes(line.substr(0, 32), md5, 16)) continue;
        if (line[32] != ' ') continue;
        std::string_view path = line.substr(33);
        if (!path.empty() && (path[0] == ' ' || path[0] == '*')) path.remove_prefix(1);
        if (path.empty() || path.find('\0') != std::string_view::npos) continue;
        abs.clear();
        if (path[0] != '/') abs.push_back('/');
        abs.append(path);
        fn(abs, md5);
    }
}

int read_dpkg_db(const HostRoot& root, DpkgDb& db) {
    db = DpkgDb();
    std::string text;
    int rc = read_host_file(root, "/var/lib/dpkg/status", text);
    if (rc == 0) {
        for (DpkgPackage& p : parse_dpkg_status(text)) {
            if (!dpkg_is_installed(p.status)) continue;
            db.packages.push_back(std::move(p));
            db.sources.emplace_back("/var/lib/dpkg/status");
        }
        return 0;
    }
    if (rc != -ENOENT) return rc;
    std::vector<std::string> names;
    rc = list_host_dir(root, "/var/lib/dpkg/status.d", names, 1u << 16);
    if (rc != 0) return rc == -ENOTDIR ? -ENOENT : rc;
    std::sort(names.begin(), names.end());
    db.per_package = true;
    int read = 0, first_error = 0;
    for (const std::string& n : names) {
        if (n[0] == '.' || ends_with(n, ".md5sums")) continue;
        const std::string path = "/var/lib/dpkg/status.d/" + n;
        const int r = read_host_file(root, path, text, 16u << 20, kNoFollow);
        if (r != 0) {
            if (first_error == 0 && r != -EINVAL) first_error = r;
            continue;
        }
        ++read;
        for (DpkgPackage& p : parse_dpkg_status(text)) {
            if (!p.status.empty() && !dpkg_is_installed(p.status)) continue;
            db.packages.push_back(std::move(p));
            db.sources.push_back(path);
        }
    }
    return read > 0 || first_error == 0 ? 0 : first_error;
}

void parse_dpkg_list(std::string_view text, const std::function<void(std::string_view path)>& fn) {
    for_each_listed_file(text, fn);
}

}  // namespace amsvc
