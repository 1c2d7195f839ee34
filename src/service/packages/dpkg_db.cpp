#include "packages/dpkg_db.h"

#include <errno.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "core/common.h"

namespace amsvc {

namespace {

bool field_is(std::string_view name, const char* want, size_t n) {
    return name.size() == n && strncasecmp(name.data(), want, n) == 0;
}

void parse_conffiles(std::string_view value, std::vector<DpkgConffile>& out) {
    for (std::string_view line : split_lines(value)) {
        const std::vector<std::string_view> w = split_ws(line);
        if (w.size() < 2 || w[0].empty() || w[0][0] != '/') continue;
        out.push_back(DpkgConffile{std::string(w[0]), std::string(w[1])});
    }
}

enum class Field { kOther, kPackage, kStatus, kArch, kVersion, kMaintainer, kDescription, kMultiArch, kSource,
                   kSize, kConffiles };

// Which field a name is (case-insensitive), by its length first: most fields
// of a stanza (Depends, Section, Homepage...) are passed over after one compare.
Field field_of(std::string_view name) {
    switch (name.size()) {
        case 6:
            if (field_is(name, "Status", 6)) return Field::kStatus;
            if (field_is(name, "Source", 6)) return Field::kSource;
            break;
        case 7:
            if (field_is(name, "Package", 7)) return Field::kPackage;
            if (field_is(name, "Version", 7)) return Field::kVersion;
            break;
        case 9:
            if (field_is(name, "Conffiles", 9)) return Field::kConffiles;
            break;
        case 10:
            if (field_is(name, "Maintainer", 10)) return Field::kMaintainer;
            if (field_is(name, "Multi-Arch", 10)) return Field::kMultiArch;
            break;
        case 11:
            if (field_is(name, "Description", 11)) return Field::kDescription;
            break;
        case 12:
            if (field_is(name, "Architecture", 12)) return Field::kArch;
            break;
        case 14:
            if (field_is(name, "Installed-Size", 14)) return Field::kSize;
            break;
    }
    return Field::kOther;
}

// Applies one complete field (value with continuation lines) to `p`.
void apply_field(DpkgPackage& p, Field f, std::string_view value) {
    // The first line is the value proper; continuation lines follow after '\n'.
    const size_t nl = value.find('\n');
    const std::string_view first = trim(value.substr(0, nl));
    switch (f) {
        case Field::kOther:
            break;
        case Field::kPackage:
            p.name.assign(first.data(), first.size());
            break;
        case Field::kStatus:
            p.status.assign(first.data(), first.size());
            break;
        case Field::kArch:
            p.arch.assign(first.data(), first.size());
            break;
        case Field::kVersion:
            p.version.assign(first.data(), first.size());
            break;
        case Field::kMaintainer:
            p.maintainer.assign(first.data(), first.size());
            break;
        case Field::kDescription: {
            // As dpkg keeps it: blanks after the colon and at the very end of the
            // whole value go, a trailing blank of the first line before more lines stays.
            std::string_view v = value;
            while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
            while (!v.empty() && (v.back() == ' ' || v.back() == '\t' || v.back() == '\n' || v.back() == '\r'))
                v.remove_suffix(1);
            v = v.substr(0, v.find('\n'));
            p.summary.assign(v.data(), v.size());
            break;
        }
        case Field::kMultiArch:
            p.multi_arch.assign(first.data(), first.size());
            break;
        case Field::kSource: {
            // "glibc (2.36-9)" when the source version differs from the binary's.
            const size_t sp = first.find_first_of(" \t(");
            const std::string_view src = trim(first.substr(0, sp));
            p.source.assign(src.data(), src.size());
            break;
        }
        case Field::kSize: {
            uint64_t kib = 0;
            if (parse_u64(first, kib) && kib <= (UINT64_MAX >> 10)) p.installed_size_kib = kib;
            break;
        }
        case Field::kConffiles:
            if (nl != std::string_view::npos) parse_conffiles(value.substr(nl + 1), p.conffiles);
            break;
    }
}

// A line of nothing but blanks ends a stanza (its '\n' not included).
bool blank_line(const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (!(b[i] == ' ' || b[i] == '\t' || b[i] == '\r' || b[i] == '\v' || b[i] == '\f')) return false;
    return true;
}

// Where the text after the last blank line ending in '\n' begins, 0 when
// there is none: the parser starts afresh there.
size_t after_last_blank_line(const char* b, size_t n) {
    const void* nl = ::memrchr(b, '\n', n);
    while (nl) {
        const size_t e = static_cast<size_t>(static_cast<const char*>(nl) - b);
        const void* prev = e ? ::memrchr(b, '\n', e) : nullptr;
        const size_t s = prev ? static_cast<size_t>(static_cast<const char*>(prev) - b) + 1 : 0;
        if (blank_line(b + s, e - s)) return e + 1;
        nl = prev;
    }
    return 0;
}

void clear_package(DpkgPackage& p) {
    // Cleared, not replaced: the next stanza reuses what was allocated.
    for (std::string* s : {&p.name, &p.arch, &p.version, &p.status, &p.maintainer, &p.summary, &p.source,
                           &p.multi_arch})
        s->clear();
    p.installed_size_kib = 0;
    p.conffiles.clear();
}

}  // namespace

void for_each_dpkg_stanza(std::string_view text, const std::function<void(DpkgPackage&)>& fn) {
    DpkgPackage cur;
    bool in_stanza = false;
    Field field = Field::kOther;  // field being read
    const char* vstart = nullptr;
    const char* vend = nullptr;
    auto flush_field = [&]() {
        if (vstart && field != Field::kOther)
            apply_field(cur, field, std::string_view(vstart, static_cast<size_t>(vend - vstart)));
        field = Field::kOther;
        vstart = vend = nullptr;
    };
    auto flush_stanza = [&]() {
        flush_field();
        if (in_stanza && !cur.name.empty()) fn(cur);
        if (in_stanza) clear_package(cur);
        in_stanza = false;
    };
    const char* p = text.data();
    const char* const last = p + text.size();
    while (p < last) {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(last - p)));
        const char* const eol = nl ? nl : last;
        const char* const line_begin = p;
        size_t len = static_cast<size_t>(eol - p);
        p = eol + 1;
        if (len && line_begin[len - 1] == '\r') --len;
        if (len == 0 || ((line_begin[0] == ' ' || line_begin[0] == '\t' || line_begin[0] == '\r' ||
                          line_begin[0] == '\v' || line_begin[0] == '\f') &&
                         blank_line(line_begin, len))) {
            flush_stanza();
            continue;
        }
        in_stanza = true;
        if (line_begin[0] == ' ' || line_begin[0] == '\t') {
            // Continuation: extend the current field's value over this line.
            if (vstart) vend = line_begin + len;
            continue;
        }
        flush_field();
        const void* colon = std::memchr(line_begin, ':', len);
        if (!colon || colon == line_begin) continue;  // junk line: ignored
        const size_t at = static_cast<size_t>(static_cast<const char*>(colon) - line_begin);
        field = field_of(std::string_view(line_begin, at));
        vstart = line_begin + at + 1;
        vend = line_begin + len;
    }
    flush_stanza();
}

std::vector<DpkgPackage> parse_dpkg_status(std::string_view text) {
    std::vector<DpkgPackage> out;
    // A stanza takes about a kilobyte: growing the vector would move every
    // package several times.
    out.reserve(text.size() / 768 + 4);
    for_each_dpkg_stanza(text, [&](DpkgPackage& p) { out.push_back(std::move(p)); });
    return out;
}

int read_dpkg_status_fd(int fd, const std::function<void(DpkgPackage&)>& fn, size_t max_bytes, size_t piece) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return -errno;
    if (!S_ISREG(st.st_mode)) return -EINVAL;
    piece = std::max<size_t>(piece, 1);
    size_t cap = std::min(piece, std::max<size_t>(max_bytes, 1));
    std::unique_ptr<char[]> buf(new char[cap]);
    size_t len = 0, total = 0;
    bool end = false;
    while (!end) {
        if (len == cap) {
            // A stanza longer than the buffer grows it, up to the file's bound.
            const size_t ncap = std::min(cap * 2, std::max(max_bytes, cap + 1));
            std::unique_ptr<char[]> nbuf(new char[ncap]);
            std::memcpy(nbuf.get(), buf.get(), len);
            buf = std::move(nbuf);
            cap = ncap;
        }
        const size_t want = std::min(cap - len, max_bytes - total);
        ssize_t n = want ? ::read(fd, buf.get() + len, want) : 0;
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && total == 0) return -errno;
        if (n <= 0) {
            end = true;
        } else {
            len += static_cast<size_t>(n);
            total += static_cast<size_t>(n);
            end = total >= max_bytes;
        }
        // Whole stanzas now; the rest waits for more of the file.
        const size_t cut = end ? len : after_last_blank_line(buf.get(), len);
        if (cut == 0) continue;
        for_each_dpkg_stanza(std::string_view(buf.get(), cut), fn);
        std::memmove(buf.get(), buf.get() + cut, len - cut);
        len -= cut;
    }
    return 0;
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
    int rc = open_host_file(root, "/var/lib/dpkg/status");
    if (rc >= 0) {
        const Fd fd(rc);
        rc = read_dpkg_status_fd(fd.get(), [&](DpkgPackage& p) {
            if (!dpkg_is_installed(p.status)) return;
            db.packages.push_back(std::move(p));
            db.sources.emplace_back("/var/lib/dpkg/status");
        });
        if (rc == 0) return 0;
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
