#include "libraries/java_archive.h"

#include <stdio.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <memory>
#include <set>
#include <utility>

#include "core/common.h"

namespace amsvc {

namespace {

const char* const kJavaExt[] = {".jar", ".war", ".ear", ".jpi", ".hpi", ".par", ".sar"};

struct ZipCloser {
    void operator()(zip_t* z) const {
        if (z) zip_discard(z);
    }
};
typedef std::unique_ptr<zip_t, ZipCloser> ZipPtr;

struct Walk {
    Walk(const ArchiveLimits& l, std::vector<LibId>& o)
        : lim(l),
          read_left(l.max_total_read),
          archives_left(l.max_archives),
          entries_left(l.max_total_entries),
          out(o) {}
    const ArchiveLimits& lim;
    uint64_t read_left;
    size_t archives_left, entries_left;
    std::vector<LibId>& out;
};

std::string_view base_name(std::string_view p) {
    const size_t slash = p.rfind('/');
    return slash == std::string_view::npos ? p : p.substr(slash + 1);
}

// An entry name good enough to nest into and to print: no traversal, no
// absolute path, no control bytes.
bool sane_entry_name(std::string_view n) {
    if (n.empty() || n.size() > 1024 || n[0] == '/' || n.back() == '/') return false;
    for (char c : n)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
    return n != ".." && !starts_with(n, "../") && n.find("/../") == std::string_view::npos &&
           !ends_with(n, "/..");
}

// Reads at most `cap` bytes of entry `i`; `complete` tells whether the entry
// ended within them. Counts what it inflated against the file's budget.
bool read_entry(zip_t* za, zip_uint64_t i, size_t cap, Walk& w, std::string& out, bool& complete) {
    out.clear();
    complete = false;
    if (w.read_left == 0) return false;
    zip_file_t* f = zip_fopen_index(za, i, 0);
    if (!f) return false;
    const size_t limit = static_cast<size_t>(std::min<uint64_t>(cap, w.read_left));
    char buf[65536];
    bool ok = true;
    while (true) {
        const size_t room = limit + 1 - out.size();  // one byte past the cap tells a cut entry
        const zip_int64_t n = zip_fread(f, buf, std::min(sizeof buf, room));
        if (n < 0) {
            ok = !out.empty();
            break;
        }
        if (n == 0) {
            complete = true;
            break;
        }
        w.read_left -= std::min<uint64_t>(w.read_left, static_cast<uint64_t>(n));
        const size_t take = std::min(static_cast<size_t>(n), limit - out.size());
        out.append(buf, take);
        if (static_cast<size_t>(n) > take) break;  // cut: the rest is never inflated
    }
    zip_fclose(f);
    return ok;
}

void add_file_name_lib(std::string_view file_name, const std::string& where, std::vector<LibId>& out) {
    LibId id;
    split_file_version(file_name, id.name, id.version);
    if (id.name.empty()) return;
    id.where = where;
    out.push_back(std::move(id));
}

void scan_zip(zip_t* za, std::string_view file_name, const std::string& where, int depth, Walk& w);

// A nested archive: stored entries are opened in place (a window of the
// outer archive, nothing copied), compressed ones inflated in memory within
// the bound; anything else is known by its name.
void scan_nested(zip_t* za, zip_uint64_t i, std::string_view entry, const std::string& where, int depth,
                 Walk& w) {
    const std::string_view fname = base_name(entry);
    if (depth >= w.lim.max_depth || w.archives_left == 0 || w.entries_left == 0)
        return add_file_name_lib(fname, where, w.out);
    --w.archives_left;
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(za, i, 0, &st) != 0) return add_file_name_lib(fname, where, w.out);
    const bool stored = (st.valid & ZIP_STAT_COMP_METHOD) && st.comp_method == ZIP_CM_STORE &&
                        !((st.valid & ZIP_STAT_ENCRYPTION_METHOD) && st.encryption_method != ZIP_EM_NONE);
    zip_error_t err;
    zip_error_init(&err);
    ZipPtr inner;
    std::string buf;
    if (stored) {
        zip_source_t* src = zip_source_zip(za, za, i, 0, 0, -1);
        if (src) {
            inner.reset(zip_open_from_source(src, ZIP_RDONLY, &err));
            if (!inner) zip_source_free(src);
        }
    } else {
        bool complete = false;
        if ((!(st.valid & ZIP_STAT_SIZE) || st.size <= w.lim.max_nested_inflate) &&
            read_entry(za, i, w.lim.max_nested_inflate, w, buf, complete) && complete) {
            zip_source_t* src = zip_source_buffer_create(buf.data(), buf.size(), 0, &err);
            if (src) {
                inner.reset(zip_open_from_source(src, ZIP_RDONLY, &err));
                if (!inner) zip_source_free(src);
            }
        }
    }
    zip_error_fini(&err);
    if (!inner) return add_file_name_lib(fname, where, w.out);
    scan_zip(inner.get(), fname, where, depth + 1, w);
}

void scan_zip(zip_t* za, std::string_view file_name, const std::string& where, int depth, Walk& w) {
    const zip_int64_t count = zip_get_num_entries(za, 0);
    // libzip has parsed the whole central directory already: all of it counts.
    const zip_uint64_t all = count < 0 ? 0 : static_cast<zip_uint64_t>(count);
    const zip_uint64_t n =
        std::min<zip_uint64_t>(std::min<zip_uint64_t>(all, w.lim.max_entries), w.entries_left);
    w.entries_left -= std::min<zip_uint64_t>(all, w.entries_left);
    zip_int64_t manifest = -1;
    std::vector<zip_uint64_t> poms, nested;
    for (zip_uint64_t i = 0; i < n; ++i) {
        const char* cname = zip_get_name(za, i, ZIP_FL_ENC_RAW);
        if (!cname) continue;
        const std::string_view name(cname);
        if (starts_with(name, "META-INF/")) {
            if (name == "META-INF/MANIFEST.MF")
                manifest = static_cast<zip_int64_t>(i);
            else if (starts_with(name, "META-INF/maven/") && ends_with(name, "/pom.properties") &&
                     poms.size() < w.lim.max_poms)
                poms.push_back(i);
        } else if (nested.size() < w.lim.max_nested && is_java_archive_name(name) && sane_entry_name(name)) {
            nested.push_back(i);
        }
    }
    std::string text;
    bool complete;
    std::set<std::pair<std::string, std::string>> seen;
    size_t found = 0;
    for (zip_uint64_t i : poms) {
        LibId id;
        if (!read_entry(za, i, kMaxMetaBytes, w, text, complete) || !parse_pom_properties(text, id)) continue;
        if (!seen.emplace(id.name, id.version).second) continue;
        id.where = where;
        w.out.push_back(std::move(id));
        ++found;
    }
    if (found == 0) {
        LibId id;
        if (manifest >= 0 &&
            read_entry(za, static_cast<zip_uint64_t>(manifest), kMaxMetaBytes, w, text, complete) &&
            manifest_library(text, id)) {
            if (id.name.empty() || id.version.empty()) {
                // The file name fills what the manifest leaves out.
                LibId by_name;
                split_file_version(file_name, by_name.name, by_name.version);
                if (id.name.empty()) id.name = by_name.name;
                if (id.version.empty()) id.version = by_name.version;
            }
            id.where = where;
            w.out.push_back(std::move(id));
        } else {
            add_file_name_lib(file_name, where, w.out);
        }
    }
    for (zip_uint64_t i : nested) {
        const char* cname = zip_get_name(za, i, ZIP_FL_ENC_RAW);
        if (!cname) continue;
        scan_nested(za, i, cname, where + "!/" + cname, depth, w);
    }
}

}  // namespace

bool is_java_archive_name(std::string_view name) {
    if (name.size() < 5 || name[name.size() - 4] != '.') return false;
    const std::string ext = ascii_lower(name.substr(name.size() - 4));
    for (const char* e : kJavaExt)
        if (ext == e) return true;
    return false;
}

void scan_java_archive(int fd, std::string_view file_name, std::vector<LibId>& out,
                       const ArchiveLimits& limits) {
    // The source owns the stream (and so the descriptor) from here on.
    FILE* fp = ::fdopen(fd, "rb");
    if (!fp) {
        ::close(fd);
        return add_file_name_lib(file_name, std::string(), out);
    }
    zip_error_t err;
    zip_error_init(&err);
    zip_source_t* src = zip_source_filep_create(fp, 0, -1, &err);
    if (!src) ::fclose(fp);
    ZipPtr za(src ? zip_open_from_source(src, ZIP_RDONLY, &err) : nullptr);
    if (src && !za) zip_source_free(src);
    zip_error_fini(&err);
    if (!za) return add_file_name_lib(file_name, std::string(), out);
    Walk w(limits, out);
    scan_zip(za.get(), file_name, std::string(), 1, w);
}

void scan_java_archive_buffer(const void* data, size_t size, std::string_view file_name,
                              std::vector<LibId>& out, const ArchiveLimits& limits) {
    zip_error_t err;
    zip_error_init(&err);
    zip_source_t* src = zip_source_buffer_create(data, size, 0, &err);
    ZipPtr za(src ? zip_open_from_source(src, ZIP_RDONLY, &err) : nullptr);
    if (src && !za) zip_source_free(src);
    zip_error_fini(&err);
    if (!za) return add_file_name_lib(file_name, std::string(), out);
    Walk w(limits, out);
    scan_zip(za.get(), file_name, std::string(), 1, w);
}

}  // namespace amsvc
