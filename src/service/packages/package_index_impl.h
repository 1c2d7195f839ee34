// The package ownership index itself, for package_index.cpp, its tests and
// the benchmark.
#ifndef ASSETMAN_SERVICE_PACKAGE_INDEX_IMPL_H
#define ASSETMAN_SERVICE_PACKAGE_INDEX_IMPL_H

#include <stdint.h>

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/common.h"
#include "packages/dpkg_db.h"
#include "packages/package_index.h"

namespace amsvc {

// Resolves symbolic links among the directories of a host path, inside the
// root (an absolute link target is taken relative to the root). Remembers
// what it resolved; one instance per thread.
class DirCanon {
public:
    // `budget`: lstat calls allowed, for all names this instance resolves.
    explicit DirCanon(const HostRoot& root, long budget = 256) : root_(root), budget_(budget) {}
    std::string canon(const std::string& dir, int depth = 0);
    size_t remembered() const { return memo_.size(); }

private:
    // Whether `path` (parent already resolved) is a link, and its target.
    bool link_target(const std::string& path, std::string& target);

    HostRoot root_;
    std::unordered_map<std::string, std::string> memo_;
    long budget_;
};

// Which packages may own a file, by its base name: a sorted table of
// (hash of base name, package) built in one pass over the databases' file
// lists, without keeping paths or digests. A lookup then reads the few
// candidate packages' own records (see package_index.cpp). Immutable once
// built.
class PackageIndex {
public:
    enum class Kind : uint8_t { kDpkg, kRpm, kApk };
    struct Package {
        std::string name, company;
        Kind kind = Kind::kDpkg;
        std::string stem;        // dpkg: info file name without extension ("libc6:amd64")
        bool list_regular = false;  // dpkg: the directory listing said the .list is a regular file
        uint32_t rpm_hnum = 0;   // rpm: header instance
        uint64_t apk_off = 0;    // apk: the package's stanza in the installed database
        uint64_t apk_len = 0;
        std::vector<DpkgConffile> conffiles;  // dpkg: from the status file
    };
    // dpkg-divert: a package's file named `from` is installed as `to`, except
    // in the diverting package itself (`by`, "" for a local diversion).
    struct Diversion {
        std::string to, by;
    };

    uint32_t add_package(Package p);
    void add_name(uint32_t pkg, std::string_view base);
    void reserve(size_t packages, size_t names) {
        packages_.reserve(packages);
        table_.reserve(names);
    }
    void finish();  // sorts the table; no more names after it

    // Packages that list a file named `base`, in database order (some may
    // list it in another directory: the caller checks).
    void candidates(std::string_view base, std::vector<uint32_t>& out) const;
    const Package& package(uint32_t id) const { return packages_[id]; }
    size_t packages() const { return packages_.size(); }
    size_t names() const { return table_.size(); }
    size_t memory_bytes() const;  // estimate of what the index holds on the heap

    std::unordered_map<std::string, Diversion> diversions;
    std::string apk_signature;  // the apk database's identity when its stanzas were located

private:
    std::vector<Package> packages_;
    std::vector<uint64_t> table_;  // hash << 32 | package
};

uint32_t base_name_hash(std::string_view base);

// The base names one batch of lookups asks about, with a test cheap enough
// for every line of every file list: most lines are passed over on their last
// four bytes alone, without finding their base name.
class NameFilter {
public:
    void add(std::string_view base);   // a name to find
    void pass(std::string_view base);  // a name let through the line test, not wanted (a diversion's source)
    bool wants(std::string_view base) const { return wants(base, base_name_hash(base)); }
    // The same with base_name_hash(base) at hand: most names are told apart
    // by it, without a string made to ask the set.
    bool wants(std::string_view base, uint32_t hash) const {
        return hashes_.count(hash) != 0 && wanted_.count(std::string(base)) != 0;
    }
    bool empty() const { return wanted_.empty(); }
    size_t size() const { return wanted_.size(); }
    // Calls fn(path) for the lines of a dpkg file list that for_each_listed_file
    // would give and that may end in a name added or passed. `more`, for a part
    // of a list read a piece at a time: where the bytes after `text` that are
    // at hand end (its last line's successor decides whether it is a directory).
    template <class F>
    void for_each_candidate(std::string_view text, F&& fn, const char* more = nullptr) const {
        const char* const last = more ? more : text.data() + text.size();
        for_each_line(text, [&](std::string_view l, const char* nl) {
            if (!maybe(l) || l == "/." || l == "/") return;
            // dpkg lists a directory right before its first entry.
            if (nl < last) {
                const std::string_view rest(nl + 1, static_cast<size_t>(last - nl - 1));
                if (rest.size() > l.size() && rest[l.size()] == '/' && rest.compare(0, l.size(), l) == 0) return;
            }
            fn(l);
        });
    }
    // Calls fn(line) for every line (without its end) that may end in a name
    // added or passed.
    template <class F>
    void for_each_maybe_line(std::string_view text, F&& fn) const {
        for_each_line(text, [&](std::string_view l, const char*) {
            if (maybe(l)) fn(l);
        });
    }

private:
    // fn(line without "\r\n", where its '\n' is or the end of text).
    template <class F>
    static void for_each_line(std::string_view text, F&& fn) {
        const char* const first = text.data();
        const char* const last = first + text.size();
        auto line = [&](const char* b, const char* nl) {
            std::string_view l(b, static_cast<size_t>(nl - b));
            if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
            fn(l, nl);
        };
        // Newlines many bytes at a time: a call per line to find its end
        // costs more than the test that follows.
        const char* b = first;
        const char* p = first;
#if defined(__SSE2__)
        const __m128i nlv = _mm_set1_epi8('\n');
        for (; p + 32 <= last; p += 32) {
            const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
            uint32_t m = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(lo, nlv))) |
                         static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(hi, nlv))) << 16;
            while (m) {
                const char* nl = p + __builtin_ctz(m);
                line(b, nl);
                b = nl + 1;
                m &= m - 1;
            }
        }
#endif
        for (; p + 8 <= last; p += 8) {
            uint64_t w;
            std::memcpy(&w, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
            w = __builtin_bswap64(w);  // the first byte in the lowest bits
#endif
            const uint64_t x = w ^ 0x0a0a0a0a0a0a0a0aull;
            uint64_t m = ~(((x & 0x7f7f7f7f7f7f7f7full) + 0x7f7f7f7f7f7f7f7full) | x | 0x7f7f7f7f7f7f7f7full);
            while (m) {
                const char* nl = p + (__builtin_ctzll(m) >> 3);
                line(b, nl);
                b = nl + 1;
                m &= m - 1;
            }
        }
        for (; p < last; ++p) {
            if (*p != '\n') continue;
            line(b, p);
            b = p + 1;
        }
        if (b < last) line(b, last);
    }

    void mark(std::string_view base);
    static size_t key(const char* end) {
        uint32_t w;
        std::memcpy(&w, end - 4, 4);
        return (w * 0x9e3779b1u) >> 16;
    }
    // The same over the last eight bytes, for names that long: shared library
    // names end alike in four (".so.6") and differ in eight.
    static size_t key8(uint64_t w) { return static_cast<size_t>((w * 0x9e3779b97f4a7c15ull) >> 48); }
    static bool has_slash(uint64_t w) {
        const uint64_t x = w ^ 0x2f2f2f2f2f2f2f2full;
        return ((x - 0x0101010101010101ull) & ~x & 0x8080808080808080ull) != 0;
    }
public:
    // Whether `line` may end in a name added or passed: false for most lines,
    // without finding their base name.
    bool maybe(std::string_view line) const {
        if (line.size() < 4) return true;
        const char* end = line.data() + line.size();
        if (short_ && (end[-1] == '/' || end[-2] == '/' || end[-3] == '/' || end[-4] == '/')) return true;
        const size_t k = key(end);
        if (!(bits_[k >> 6] >> (k & 63) & 1)) return false;
        if (line.size() < 8) return true;
        uint64_t w;
        std::memcpy(&w, end - 8, 8);
        // A base name shorter than eight bytes: its four were the test.
        if (has_slash(w)) return true;
        const size_t k8 = key8(w);
        return bits8_[k8 >> 6] >> (k8 & 63) & 1;
    }

private:

    std::vector<uint64_t> bits_ = std::vector<uint64_t>(1024);
    std::vector<uint64_t> bits8_ = std::vector<uint64_t>(1024);
    std::unordered_set<std::string> wanted_;
    std::unordered_set<uint32_t> hashes_;  // base_name_hash of each name in wanted_
    bool short_ = false;  // a name shorter than the four bytes tested
};

// Builds the name table of every package database under `root` (uncached;
// lookups build one only for callers that ask one file at a time).
std::shared_ptr<const PackageIndex> build_package_index(const HostRoot& root);
// The shared packages of `root` (no name table until a lookup comes alone):
// read on first use, again when a database changes.
std::shared_ptr<const PackageIndex> package_index(const HostRoot& root);

// What the ownership lookups of `root` hold now, for tests and the benchmark.
struct OwnershipStats {
    size_t packages = 0, names = 0;
    size_t listed = 0;         // base names answered by passes over the file lists
    size_t passes = 0;         // such passes so far
    size_t packages_read = 0;  // packages whose own records were read to answer
    size_t answers = 0;        // remembered answers
    size_t memory_bytes = 0;   // estimate of all of it
};
OwnershipStats ownership_stats(const HostRoot& root);

}  // namespace amsvc

#endif
