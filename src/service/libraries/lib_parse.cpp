#include "libraries/lib_parse.h"

#include <string.h>

#include <nlohmann/json.hpp>

#include "core/common.h"

namespace amsvc {

namespace {

std::string_view value_after(std::string_view line, size_t eq) { return trim(line.substr(eq + 1)); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Keeps text metadata printable: control bytes (a NUL, an escape sequence
// planted in a file name) never reach a report.
std::string clean(std::string_view s) {
    s = trim(s);
    std::string out;
    out.reserve(s.size());
    for (char c : s) out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    return out;
}

}  // namespace

bool parse_pom_properties(std::string_view text, LibId& out) {
    std::string group, artifact, version;
    for (std::string_view line : split_lines(text.substr(0, kMaxMetaBytes))) {
        line = trim(line);
        if (line.empty() || line[0] == '#' || line[0] == '!') continue;
        const size_t eq = line.find_first_of("=:");
        if (eq == std::string_view::npos) continue;
        const std::string_view key = trim(line.substr(0, eq));
        if (key == "groupId")
            group = clean(value_after(line, eq));
        else if (key == "artifactId")
            artifact = clean(value_after(line, eq));
        else if (key == "version")
            version = clean(value_after(line, eq));
    }
    if (artifact.empty()) return false;
    out.name = group.empty() ? artifact : group + ":" + artifact;
    out.version = version;
    return true;
}

std::vector<std::pair<std::string, std::string>> parse_manifest(std::string_view text) {
    std::vector<std::pair<std::string, std::string>> out;
    text = text.substr(0, kMaxMetaBytes);
    for (std::string_view line : split_lines(text)) {
        if (line.empty()) break;  // end of the main section
        if (line[0] == ' ') {
            // 72-byte lines continue on the next line after one space.
            if (!out.empty() && out.back().second.size() < 4096) out.back().second.append(line.substr(1));
            continue;
        }
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) continue;
        out.emplace_back(std::string(line.substr(0, colon)), std::string(line.substr(colon + 1)));
        if (out.size() > 1000) break;
    }
    for (auto& kv : out) kv.second = clean(kv.second);
    return out;
}

bool manifest_library(std::string_view text, LibId& out) {
    std::string title, version, bsn, bversion;
    for (const auto& kv : parse_manifest(text)) {
        if (kv.first == "Implementation-Title")
            title = kv.second;
        else if (kv.first == "Implementation-Version")
            version = kv.second;
        else if (kv.first == "Bundle-SymbolicName")
            bsn = std::string(trim(std::string_view(kv.second).substr(0, kv.second.find(';'))));
        else if (kv.first == "Bundle-Version")
            bversion = kv.second;
    }
    if (title.empty() && version.empty()) {
        title = bsn;
        version = bversion;
    } else {
        if (title.empty()) title = bsn;
        if (version.empty()) version = bversion;
    }
    if (title.empty() && version.empty()) return false;
    out.name = title;
    out.version = version;
    return true;
}

void split_file_version(std::string_view file_name, std::string& name, std::string& version) {
    std::string_view stem = file_name;
    const size_t dot = stem.rfind('.');
    if (dot != std::string_view::npos && dot > 0) stem = stem.substr(0, dot);
    // The version starts at a '-' followed by a digit: the last such one
    // whose first part is dotted ("log4j-1.2-api-2.17.1", "lucene-core-9.4.2-2"),
    // else the last one ("hadoop-3").
    size_t best = std::string_view::npos, last = std::string_view::npos;
    for (size_t i = 1; i + 1 < stem.size(); ++i) {
        if (stem[i] != '-' || !is_digit(stem[i + 1])) continue;
        last = i;
        size_t end = stem.find('-', i + 1);
        if (end == std::string_view::npos) end = stem.size();
        if (stem.substr(i + 1, end - i - 1).find('.') != std::string_view::npos) best = i;
    }
    if (best == std::string_view::npos) best = last;
    if (best == std::string_view::npos) {
        name = clean(stem);
        version.clear();
        return;
    }
    name = clean(stem.substr(0, best));
    version = clean(stem.substr(best + 1));
}

bool split_so_name(std::string_view file_name, std::string& name, std::string& version) {
    size_t pos = file_name.size();
    while (pos > 0) {
        const size_t at = file_name.rfind(".so", pos - 1);
        if (at == std::string_view::npos || at == 0) return false;
        const std::string_view rest = file_name.substr(at + 3);
        bool ok = rest.empty();
        if (!ok && rest[0] == '.' && rest.size() > 1 && is_digit(rest[1])) {
            ok = true;
            for (char c : rest)
                if (!(is_digit(c) || c == '.' || (c >= 'a' && c <= 'z') || c == '_' || c == '-')) ok = false;
        }
        if (ok) {
            name = clean(file_name.substr(0, at));
            version = rest.empty() ? std::string() : clean(rest.substr(1));
            return true;
        }
        pos = at;
    }
    return false;
}

bool parse_python_metadata(std::string_view text, LibId& out) {
    std::string name, version;
    for (std::string_view line : split_lines(text.substr(0, kMaxMetaBytes))) {
        if (trim(line).empty()) break;  // the body (long description) follows
        if (line[0] == ' ' || line[0] == '\t') continue;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view key = line.substr(0, colon);
        if (key == "Name" && name.empty())
            name = clean(line.substr(colon + 1));
        else if (key == "Version" && version.empty())
            version = clean(line.substr(colon + 1));
    }
    if (name.empty()) return false;
    out.name = name;
    out.version = version;
    return true;
}

namespace {

using nlohmann::json;

// Keeps the string members of objects at one depth of a JSON document,
// nothing else: no tree is built, however large or deep the text.
class FieldSax : public nlohmann::json_sax<json> {
public:
    // `depth`: nesting of the objects wanted (1: the top-level object);
    // `under`: when set, only objects inside a top-level member of that name.
    FieldSax(size_t depth, const char* under) : want_(depth), under_(under) {}

    std::vector<std::vector<std::pair<std::string, std::string>>> objects;

    bool null() override { return scalar(); }
    bool boolean(bool) override { return scalar(); }
    bool number_integer(number_integer_t) override { return scalar(); }
    bool number_unsigned(number_unsigned_t) override { return scalar(); }
    bool number_float(number_float_t, const string_t&) override { return scalar(); }
    bool binary(binary_t&) override { return scalar(); }
    bool string(string_t& val) override {
        if (in_wanted() && stack_.back() && !key_.empty() && objects.size() <= kMaxObjects)
            objects.back().emplace_back(key_, val.substr(0, 1024));
        return scalar();
    }
    bool start_object(std::size_t) override {
        stack_.push_back(true);
        if (in_wanted()) objects.emplace_back();
        key_.clear();
        return stack_.size() < kMaxDepth;
    }
    bool key(string_t& val) override {
        key_ = val.substr(0, 64);
        if (stack_.size() == 1) top_key_ = key_;
        return true;
    }
    bool end_object() override { return pop(); }
    bool start_array(std::size_t) override {
        stack_.push_back(false);
        key_.clear();
        return stack_.size() < kMaxDepth;
    }
    bool end_array() override { return pop(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

private:
    static constexpr size_t kMaxDepth = 256;
    static constexpr size_t kMaxObjects = 100000;
    bool in_wanted() const {
        if (stack_.size() != want_) return false;
        return !under_ || top_key_ == under_;
    }
    bool scalar() {
        key_.clear();
        return true;
    }
    bool pop() {
        if (!stack_.empty()) stack_.pop_back();
        key_.clear();
        return true;
    }
    size_t want_;
    const char* under_;
    std::vector<bool> stack_;  // true: object
    std::string key_, top_key_;
};

std::string field(const std::vector<std::pair<std::string, std::string>>& obj, const char* key) {
    for (const auto& kv : obj)
        if (kv.first == key) return clean(kv.second);
    return std::string();
}

void sax_parse(std::string_view text, FieldSax& sax) {
    try {
        json::sax_parse(text.begin(), text.end(), &sax, nlohmann::detail::input_format_t::json, false);
    } catch (...) {
        // what was kept before the fault stands
    }
}

}  // namespace

bool parse_package_json(std::string_view text, LibId& out) {
    if (text.size() > kMaxMetaBytes * 4) return false;
    FieldSax sax(1, nullptr);
    sax_parse(text, sax);
    if (sax.objects.empty()) return false;
    const std::string name = field(sax.objects[0], "name");
    if (name.empty()) return false;
    out.name = name;
    out.version = field(sax.objects[0], "version");
    return true;
}

bool parse_gemspec(std::string_view text, LibId& out) {
    std::string name, version;
    for (std::string_view line : split_lines(text.substr(0, kMaxMetaBytes))) {
        line = trim(line);
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos || eq + 1 >= line.size() || line[eq + 1] == '=') continue;
        const std::string_view lhs = trim(line.substr(0, eq));
        const bool is_name = ends_with(lhs, ".name"), is_version = ends_with(lhs, ".version");
        if (!is_name && !is_version) continue;
        std::string_view rhs = line.substr(eq + 1);
        std::string value;
        const size_t q = rhs.find_first_of("\"'");
        const size_t pq = rhs.find("%q{");
        if (pq != std::string_view::npos && (q == std::string_view::npos || pq < q)) {
            const size_t end = rhs.find('}', pq + 3);
            if (end != std::string_view::npos) value = clean(rhs.substr(pq + 3, end - pq - 3));
        } else if (q != std::string_view::npos) {
            const size_t end = rhs.find(rhs[q], q + 1);
            if (end != std::string_view::npos) value = clean(rhs.substr(q + 1, end - q - 1));
        }
        if (value.empty()) continue;
        if (is_name && name.empty()) name = value;
        if (is_version && version.empty()) version = value;
    }
    if (name.empty()) return false;
    out.name = name;
    out.version = version;
    return true;
}

std::vector<LibId> parse_composer_installed(std::string_view text) {
    std::vector<LibId> out;
    const size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return out;
    // Composer 1 wrote an array of packages; Composer 2 an object holding it.
    const bool v1 = text[start] == '[';
    FieldSax sax(v1 ? 2 : 3, v1 ? nullptr : "packages");
    sax_parse(text, sax);
    for (const auto& obj : sax.objects) {
        LibId id;
        id.name = field(obj, "name");
        if (id.name.empty() || id.name.find("..") != std::string::npos) continue;
        id.version = field(obj, "version");
        id.where = field(obj, "install-path");
        if (id.where.empty()) id.where = "../" + id.name;
        out.push_back(std::move(id));
    }
    return out;
}

std::vector<LibId> parse_go_modinfo(std::string_view modinfo) {
    std::vector<LibId> out;
    bool last_is_dep = false;
    for (std::string_view line : split_lines(modinfo)) {
        std::vector<std::string_view> f;
        size_t i = 0;
        while (i <= line.size() && f.size() < 5) {
            size_t j = line.find('\t', i);
            if (j == std::string_view::npos) j = line.size();
            f.push_back(line.substr(i, j - i));
            i = j + 1;
        }
        if (f.empty()) continue;
        if ((f[0] == "mod" || f[0] == "dep") && f.size() >= 2 && !f[1].empty()) {
            LibId id;
            id.name = clean(f[1]);
            if (f.size() >= 3) id.version = clean(f[2]);
            out.push_back(std::move(id));
            last_is_dep = f[0] == "dep";
        } else if (f[0] == "=>" && last_is_dep && f.size() >= 2) {
            // A replacement module stands for the dependency before it; a
            // local directory ("=> ../fork", no version) keeps the one asked for.
            const bool local = f[1].empty() || f[1][0] == '.' || f[1][0] == '/';
            if (!local && f.size() >= 3 && !f[2].empty() && f[2] != "(devel)") {
                out.back().name = clean(f[1]);
                out.back().version = clean(f[2]);
            }
            last_is_dep = false;
        } else {
            last_is_dep = false;
        }
        if (out.size() >= 10000) break;
    }
    return out;
}

namespace {

const char kGoMagic[] = "\xff Go buildinf:";
constexpr size_t kGoMagicLen = 14;
constexpr size_t kGoHeader = 32;

bool read_uvarint(std::string_view& s, uint64_t& v) {
    v = 0;
    for (unsigned shift = 0, i = 0; i < s.size() && shift < 64; ++i, shift += 7) {
        const unsigned char b = static_cast<unsigned char>(s[i]);
        v |= static_cast<uint64_t>(b & 0x7f) << shift;
        if (!(b & 0x80)) {
            s.remove_prefix(i + 1);
            return true;
        }
    }
    return false;
}

bool read_varint_string(std::string_view& s, std::string& out) {
    uint64_t n;
    if (!read_uvarint(s, n) || n > s.size() || n > (1u << 20)) return false;
    out.assign(s.data(), static_cast<size_t>(n));
    s.remove_prefix(static_cast<size_t>(n));
    return true;
}

uint64_t get_uint(const unsigned char* p, size_t size, bool big) {
    uint64_t v = 0;
    for (size_t i = 0; i < size; ++i) {
        const size_t k = big ? i : size - 1 - i;
        v = (v << 8) | p[k];
    }
    return v;
}

// The 16-byte markers the go command puts around the module text.
std::string strip_modinfo_frame(const std::string& mod) {
    if (mod.size() >= 33 && mod[mod.size() - 17] == '\n') return mod.substr(16, mod.size() - 32);
    return std::string();
}

}  // namespace

bool decode_go_buildinfo(std::string_view blob,
                         const std::function<bool(uint64_t, size_t, std::string&)>& read_addr,
                         std::string& go_version, std::string& modinfo) {
    if (blob.size() < kGoHeader || blob.compare(0, kGoMagicLen, kGoMagic) != 0) return false;
    const size_t ptr = static_cast<unsigned char>(blob[14]);
    const unsigned char flags = static_cast<unsigned char>(blob[15]);
    std::string vers, mod;
    if (flags & 2) {
        std::string_view rest = blob.substr(kGoHeader);
        if (!read_varint_string(rest, vers)) return false;
        read_varint_string(rest, mod);
    } else {
        if ((ptr != 4 && ptr != 8) || !read_addr) return false;
        const bool big = (flags & 1) != 0;
        const unsigned char* p = reinterpret_cast<const unsigned char*>(blob.data()) + 16;
        // Each pointer leads to a Go string header {data, len}.
        auto go_string = [&](uint64_t addr, std::string& out) {
            std::string hdr;
            if (!read_addr(addr, 2 * ptr, hdr) || hdr.size() < 2 * ptr) return false;
            const unsigned char* h = reinterpret_cast<const unsigned char*>(hdr.data());
            const uint64_t data = get_uint(h, ptr, big), len = get_uint(h + ptr, ptr, big);
            if (len == 0) return true;
            if (len > (1u << 20)) return false;
            return read_addr(data, static_cast<size_t>(len), out) && out.size() == len;
        };
        if (!go_string(get_uint(p, ptr, big), vers)) return false;
        go_string(get_uint(p + ptr, ptr, big), mod);
    }
    if (vers.empty()) return false;
    go_version = clean(vers);
    modinfo = strip_modinfo_frame(mod);
    return true;
}

namespace {

struct ElfLoad {
    uint64_t vaddr, off, filesz;
    bool writable;
};

}  // namespace

bool read_go_buildinfo(const ReadAt& read, std::string& go_version, std::string& modinfo) {
    std::string eh;
    if (!read(0, 64, eh) || eh.size() < 52 ||
        eh.compare(0, 4,
                   "\x7f"
                   "ELF") != 0)
        return false;
    const bool is64 = eh[4] == 2, big = eh[5] == 2;
    if ((!is64 && eh[4] != 1) || (is64 && eh.size() < 64)) return false;
    const unsigned char* h = reinterpret_cast<const unsigned char*>(eh.data());
    const uint64_t phoff = is64 ? get_uint(h + 32, 8, big) : get_uint(h + 28, 4, big);
    const uint64_t shoff = is64 ? get_uint(h + 40, 8, big) : get_uint(h + 32, 4, big);
    const size_t phentsize = get_uint(h + (is64 ? 54 : 42), 2, big);
    const size_t phnum = get_uint(h + (is64 ? 56 : 44), 2, big);
    const size_t shentsize = get_uint(h + (is64 ? 58 : 46), 2, big);
    const size_t shnum = get_uint(h + (is64 ? 60 : 48), 2, big);
    const size_t shstrndx = get_uint(h + (is64 ? 62 : 50), 2, big);

    std::vector<ElfLoad> loads;
    if (phentsize >= (is64 ? 56u : 32u) && phnum > 0 && phnum <= 256) {
        std::string ph;
        if (!read(phoff, phentsize * phnum, ph) || ph.size() < phentsize * phnum) return false;
        for (size_t i = 0; i < phnum; ++i) {
            const unsigned char* p = reinterpret_cast<const unsigned char*>(ph.data()) + i * phentsize;
            if (get_uint(p, 4, big) != 1) continue;  // PT_LOAD
            ElfLoad l;
            if (is64) {
                l.writable = (get_uint(p + 4, 4, big) & 2) != 0;
                l.off = get_uint(p + 8, 8, big);
                l.vaddr = get_uint(p + 16, 8, big);
                l.filesz = get_uint(p + 32, 8, big);
            } else {
                l.off = get_uint(p + 4, 4, big);
                l.vaddr = get_uint(p + 8, 4, big);
                l.filesz = get_uint(p + 16, 4, big);
                l.writable = (get_uint(p + 24, 4, big) & 2) != 0;
            }
            loads.push_back(l);
        }
    }
    auto read_addr = [&](uint64_t addr, size_t len, std::string& out) {
        for (const ElfLoad& l : loads) {
            if (addr < l.vaddr || addr - l.vaddr >= l.filesz) continue;
            const uint64_t n = std::min<uint64_t>(len, l.filesz - (addr - l.vaddr));
            return read(l.off + (addr - l.vaddr), static_cast<size_t>(n), out);
        }
        return false;
    };

    // Where the blob is: the .go.buildinfo section, else near the start of
    // the first writable segment.
    uint64_t data_addr = 0;
    bool have_addr = false;
    const size_t she = is64 ? 64 : 40;
    if (shentsize >= she && shnum > 0 && shnum <= 4096 && shstrndx < shnum) {
        std::string sh;
        if (read(shoff, shentsize * shnum, sh) && sh.size() == shentsize * shnum) {
            auto sec = [&](size_t i, size_t field, size_t size) {
                return get_uint(reinterpret_cast<const unsigned char*>(sh.data()) + i * shentsize + field,
                                size, big);
            };
            const uint64_t stroff = is64 ? sec(shstrndx, 24, 8) : sec(shstrndx, 16, 4);
            const uint64_t strsize = is64 ? sec(shstrndx, 32, 8) : sec(shstrndx, 20, 4);
            std::string names;
            if (strsize <= (1u << 20) && read(stroff, static_cast<size_t>(strsize), names)) {
                for (size_t i = 0; i < shnum && !have_addr; ++i) {
                    const uint64_t n = sec(i, 0, 4);
                    if (n < names.size() && strcmp(names.c_str() + n, ".go.buildinfo") == 0) {
                        data_addr = is64 ? sec(i, 16, 8) : sec(i, 12, 4);
                        have_addr = true;
                    }
                }
            }
        }
    }
    if (!have_addr) {
        for (const ElfLoad& l : loads) {
            if (l.writable) {
                data_addr = l.vaddr;
                have_addr = true;
                break;
            }
        }
    }
    if (!have_addr) return false;
    std::string data;
    if (!read_addr(data_addr, 64u << 10, data)) return false;
    std::string_view d = data;
    for (size_t at = 0;;) {
        const size_t i = d.find(std::string_view(kGoMagic, kGoMagicLen), at);
        if (i == std::string_view::npos || d.size() - i < kGoHeader) return false;
        if (i % 16 == 0) return decode_go_buildinfo(d.substr(i), read_addr, go_version, modinfo);
        at = i + 1;
    }
}

}  // namespace amsvc
