#include "packages/package_index.h"

#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "packages/apk_db.h"
#include "packages/dpkg_db.h"
#include "packages/package_index_impl.h"
#include "packages/rpm_db.h"

namespace amsvc {

// ---- path canonicalisation inside a root -----------------------------------

std::string DirCanon::canon(const std::string& dir, int depth) {
    if (dir.empty() || dir == "/") return "/";
    // Bounded work whatever links a hostile user laid out (chains, loops,
    // links that fan out into more links): past the budget, names stay as given.
    if (dir.size() > 4096 || budget_ <= 0) return normalize_path(dir);
    auto it = memo_.find(dir);
    if (it != memo_.end()) return it->second;
    const size_t slash = dir.rfind('/');
    const std::string parent =
        canon(slash == 0 || slash == std::string::npos ? "/" : dir.substr(0, slash), depth);
    const std::string base = slash == std::string::npos ? dir : dir.substr(slash + 1);
    std::string result = normalize_path(parent + "/" + base);
    struct stat st;
    --budget_;
    if (depth < 32 && ::lstat(root_.path(result).c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        const std::string target = read_link(root_.path(result));
        if (!target.empty()) {
            // An absolute target points inside the root, never out of it.
            const std::string joined =
                target[0] == '/' ? normalize_path(target) : normalize_path(parent + "/" + target);
            result = canon(joined, depth + 1);
        }
    }
    memo_.emplace(dir, result);
    return result;
}

// ---- the index ---------------------------------------------------------------

namespace {

uint64_t hash_key(uint32_t dir, std::string_view base) {
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : base) h = (h ^ c) * 1099511628211ull;
    // FNV leaves the low bits, which pick the slot, poorly mixed: finish like murmur3.
    h ^= static_cast<uint64_t>(dir) * 0x9e3779b97f4a7c15ull;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ull;
    h ^= h >> 33;
    return h;
}

void split_dir_base(std::string_view path, std::string_view& dir, std::string_view& base) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        dir = "/";
        base = path;
    } else {
        dir = slash == 0 ? std::string_view("/") : path.substr(0, slash);
        base = path.substr(slash + 1);
    }
}

}  // namespace

uint32_t PackageIndex::add_package(std::string name, std::string company) {
    packages_.push_back(Package{std::move(name), std::move(company)});
    return static_cast<uint32_t>(packages_.size() - 1);
}

uint32_t PackageIndex::dir_id(std::string_view dir, DirCanon& canon) {
    // Package lists name the files of one directory one after another.
    if (last_dir_valid_ && dir == last_dir_) return last_dir_id_;
    const uint32_t id = dir_id_slow(dir, canon);
    last_dir_.assign(dir.data(), dir.size());
    last_dir_id_ = id;
    last_dir_valid_ = true;
    return id;
}

uint32_t PackageIndex::dir_id_slow(std::string_view dir, DirCanon& canon) {
    const std::string key(dir);
    auto it = dirs_.find(key);
    if (it != dirs_.end()) return it->second;
    const std::string c = canon.canon(key);
    auto ct = dirs_.find(c);
    uint32_t id;
    if (ct != dirs_.end()) {
        id = ct->second;
    } else {
        id = static_cast<uint32_t>(dir_count_++);
        dirs_.emplace(c, id);
    }
    dirs_.emplace(key, id);
    return id;
}

PackageIndex::Slot* PackageIndex::probe(uint32_t dir, std::string_view base) {
    const uint32_t h = static_cast<uint32_t>(hash_key(dir, base));
    const size_t mask = table_.size() - 1;
    for (size_t i = h & mask;; i = (i + 1) & mask) {
        Slot& slot = table_[i];
        if (slot.entry == 0) {
            slot.hash = h;  // where a new entry goes
            return &slot;
        }
        if (slot.hash != h) continue;  // most misses end here, without touching the entry
        const Entry& e = entries_[slot.entry - 1];
        if (e.dir == dir && e.base_len == base.size() &&
            std::memcmp(names_.data() + e.base_off, base.data(), base.size()) == 0)
            return &slot;
    }
}

const PackageIndex::Slot* PackageIndex::probe(uint32_t dir, std::string_view base) const {
    if (table_.empty()) return nullptr;
    const uint32_t h = static_cast<uint32_t>(hash_key(dir, base));
    const size_t mask = table_.size() - 1;
    for (size_t i = h & mask;; i = (i + 1) & mask) {
        const Slot& slot = table_[i];
        if (slot.entry == 0) return nullptr;
        if (slot.hash != h) continue;
        const Entry& e = entries_[slot.entry - 1];
        if (e.dir == dir && e.base_len == base.size() &&
            std::memcmp(names_.data() + e.base_off, base.data(), base.size()) == 0)
            return &slot;
    }
}

void PackageIndex::grow() {
    std::vector<Slot> old;
    old.swap(table_);
    table_.assign(old.empty() ? 1024 : old.size() * 2, Slot{0, 0});
    const size_t mask = table_.size() - 1;
    for (const Slot& s : old) {
        if (s.entry == 0) continue;
        size_t i = s.hash & mask;
        while (table_[i].entry != 0) i = (i + 1) & mask;
        table_[i] = s;
    }
}

void PackageIndex::add_file(uint32_t pkg, std::string_view path, DigestAlgo algo, const unsigned char* digest,
                            DirCanon& canon) {
    if (path.empty() || path[0] != '/' || path.find('\0') != std::string_view::npos) return;
    std::string norm;
    if (path.find("/.") != std::string_view::npos || path.find("//") != std::string_view::npos) {
        norm = normalize_path(path);
        path = norm;
    }
    std::string_view dir, base;
    split_dir_base(path, dir, base);
    if (base.empty() || base.size() > 0xffff) return;
    const uint32_t d = dir_id(dir, canon);
    if ((entries_.size() + 1) * 2 > table_.size()) grow();
    Slot* slot = probe(d, base);
    const bool has_digest = algo != DigestAlgo::kNone && digest;
    if (slot->entry != 0) {
        // Known already: the list came first and the digest follows, or a
        // second package claims the path (the first one keeps it, unless only
        // the second recorded a digest).
        Entry& e = entries_[slot->entry - 1];
        if (has_digest && (e.pkg == pkg || e.algo == static_cast<uint8_t>(DigestAlgo::kNone))) {
            e.pkg = pkg;
            e.algo = static_cast<uint8_t>(algo);
            e.digest_off = static_cast<uint32_t>(digests_.size());
            digests_.append(reinterpret_cast<const char*>(digest), digest_size(algo));
        }
        return;
    }
    Entry e;
    e.dir = d;
    e.base_off = static_cast<uint32_t>(names_.size());
    e.base_len = static_cast<uint16_t>(base.size());
    e.pkg = pkg;
    e.algo = static_cast<uint8_t>(has_digest ? algo : DigestAlgo::kNone);
    e.digest_off = static_cast<uint32_t>(digests_.size());
    names_.append(base.data(), base.size());
    if (has_digest) digests_.append(reinterpret_cast<const char*>(digest), digest_size(algo));
    entries_.push_back(e);
    slot->entry = static_cast<uint32_t>(entries_.size());
}

bool PackageIndex::find(const HostRoot& root, const std::string& host_path, FileOwner& out) const {
    if (entries_.empty() || host_path.empty() || host_path[0] != '/') return false;
    std::string norm;
    std::string_view path = host_path;
    if (path.find("/.") != std::string_view::npos || path.find("//") != std::string_view::npos) {
        norm = normalize_path(path);
        path = norm;
    }
    std::string_view dir, base;
    split_dir_base(path, dir, base);
    auto it = dirs_.find(std::string(dir));
    if (it == dirs_.end()) {
        // A directory no package names as such: it may still be an alias of
        // one (a link like /lib -> usr/lib in a path we were handed).
        DirCanon canon(root);
        it = dirs_.find(canon.canon(std::string(dir)));
        if (it == dirs_.end()) return false;
    }
    const Slot* slot = probe(it->second, base);
    if (!slot) return false;
    const Entry& e = entries_[slot->entry - 1];
    const Package& p = packages_[e.pkg];
    out.package = p.name;
    out.company = p.company;
    out.algo = static_cast<DigestAlgo>(e.algo);
    const size_t n = digest_size(out.algo);
    if (n) std::memcpy(out.digest, digests_.data() + e.digest_off, n);
    return true;
}

size_t PackageIndex::memory_bytes() const {
    size_t n = sizeof *this + entries_.capacity() * sizeof(Entry) + table_.capacity() * sizeof(Slot) +
               names_.capacity() + digests_.capacity();
    for (const Package& p : packages_) n += sizeof p + p.name.capacity() + p.company.capacity();
    // Node, key and bucket of each directory name.
    for (const auto& d : dirs_) n += 48 + d.first.capacity();
    n += dirs_.bucket_count() * sizeof(void*);
    return n;
}

void PackageIndex::shrink() {
    last_dir_valid_ = false;
    last_dir_.clear();
    last_dir_.shrink_to_fit();
    entries_.shrink_to_fit();
    names_.shrink_to_fit();
    digests_.shrink_to_fit();
    packages_.shrink_to_fit();
}

// ---- building from the package databases ------------------------------------

namespace {

// Files the dpkg database lists for `p`: its .list, then the digests of its
// md5sums and conffiles.
// dpkg-divert: a package's file named `from` is installed as `to`, except in
// the diverting package itself ("" for a local diversion by the admin).
struct Diversion {
    std::string to, by;
};
typedef std::unordered_map<std::string, Diversion> Diversions;

Diversions read_diversions(const HostRoot& root) {
    Diversions out;
    std::string text;
    if (read_host_file(root, "/var/lib/dpkg/diversions", text, 16u << 20) != 0) return out;
    const std::vector<std::string_view> lines = split_lines(text);
    for (size_t i = 0; i + 2 < lines.size(); i += 3) {
        if (lines[i].empty() || lines[i][0] != '/' || lines[i + 1].empty() || lines[i + 1][0] != '/')
            continue;
        const std::string_view by = lines[i + 2];
        out[std::string(lines[i])] =
            Diversion{std::string(lines[i + 1]), by == ":" ? std::string() : std::string(by)};
    }
    return out;
}

void index_dpkg_package(const HostRoot& root, const DpkgPackage& p, const Diversions& diversions,
                        PackageIndex& index, DirCanon& canon, std::string& buf) {
    std::string key;
    auto where = [&](std::string_view path) -> std::string_view {
        if (diversions.empty()) return path;
        key.assign(path.data(), path.size());
        auto it = diversions.find(key);
        if (it == diversions.end() || it->second.by == p.name) return path;
        return it->second.to;
    };
    const std::string info = "/var/lib/dpkg/info/";
    const bool same = p.multi_arch == "same";
    std::string stem;
    for (bool with_arch : {same, !same}) {
        stem = info + dpkg_info_name(p, with_arch);
        if (read_host_file(root, stem + ".list", buf, 256u << 20) == 0) break;
        buf.clear();
    }
    if (buf.empty()) return;
    const uint32_t id = index.add_package(p.name, p.maintainer);
    parse_dpkg_list(buf, [&](std::string_view path) {
        index.add_file(id, where(path), DigestAlgo::kNone, nullptr, canon);
    });
    if (read_host_file(root, stem + ".md5sums", buf, 256u << 20) == 0) {
        parse_md5sums(buf, [&](std::string_view path, const unsigned char* md5) {
            index.add_file(id, where(path), DigestAlgo::kMd5, md5, canon);
        });
    }
    for (const DpkgConffile& c : p.conffiles) {
        unsigned char md5[16];
        if (hex_to_bytes(c.md5, md5, 16)) index.add_file(id, where(c.path), DigestAlgo::kMd5, md5, canon);
    }
    buf.clear();
}

void index_dpkg(const HostRoot& root, PackageIndex& index, DirCanon& canon) {
    std::string text;
    if (read_host_file(root, "/var/lib/dpkg/status", text) != 0) return;
    std::vector<DpkgPackage> pkgs = parse_dpkg_status(text);
    const Diversions diversions = read_diversions(root);
    text.clear();
    text.shrink_to_fit();
    std::string buf;
    for (const DpkgPackage& p : pkgs) {
        if (dpkg_is_installed(p.status)) index_dpkg_package(root, p, diversions, index, canon, buf);
    }
}

void index_rpm(const HostRoot& root, PackageIndex& index, DirCanon& canon) {
    read_rpm_db(root, true, [&](RpmPackage& p) {
        const uint32_t id = index.add_package(p.name, p.vendor);
        for (const RpmFile& f : p.files) index.add_file(id, f.path, f.algo, f.digest, canon);
    });
}

void index_apk(const HostRoot& root, PackageIndex& index, DirCanon& canon) {
    std::string text;
    if (read_host_file(root, "/lib/apk/db/installed", text) != 0) return;
    for (const ApkPackage& p : parse_apk_installed(text, true)) {
        const uint32_t id = index.add_package(p.name, p.maintainer);
        for (const ApkFile& f : p.files)
            index.add_file(id, f.path, f.has_sha1 ? DigestAlgo::kSha1 : DigestAlgo::kNone, f.sha1, canon);
    }
}

// What the package databases looked like when an index was built.
std::string db_signature(const HostRoot& root) {
    std::string sig;
    std::vector<std::string> files = {"/var/lib/dpkg/status", "/var/lib/dpkg/diversions",
                                      "/lib/apk/db/installed"};
    const std::string rpmdir = rpm_db_dir(root);
    if (!rpmdir.empty()) {
        for (const char* f : {"/rpmdb.sqlite", "/rpmdb.sqlite-wal", "/Packages.db", "/Packages"})
            files.push_back(rpmdir + f);
    }
    for (const std::string& f : files) {
        struct stat st;
        if (::stat(root.path(f).c_str(), &st) != 0) continue;
        sig += f + ":" + std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
               std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ";";
    }
    return sig;
}

struct RootSlot {
    std::mutex mu;
    std::shared_ptr<const PackageIndex> index;
    std::string signature;
    std::chrono::steady_clock::time_point checked;
};

// Signatures are looked at no more often than this: a process collection asks
// thousands of times within a second.
constexpr std::chrono::seconds kRecheck(2);

}  // namespace

std::shared_ptr<const PackageIndex> build_package_index(const HostRoot& root) {
    auto index = std::make_shared<PackageIndex>();
    DirCanon canon(root, 1L << 20);
    index_dpkg(root, *index, canon);
    index_rpm(root, *index, canon);
    index_apk(root, *index, canon);
    index->shrink();
    return index;
}

std::shared_ptr<const PackageIndex> package_index(const HostRoot& root) {
    static std::mutex* registry_mu = new std::mutex();
    static auto* registry = new std::unordered_map<std::string, std::unique_ptr<RootSlot>>();
    RootSlot* slot;
    {
        std::lock_guard<std::mutex> lock(*registry_mu);
        std::unique_ptr<RootSlot>& s = (*registry)[root.root()];
        if (!s) s.reset(new RootSlot());
        slot = s.get();
    }
    // One builder per root; the others wait for its index instead of building their own.
    std::lock_guard<std::mutex> lock(slot->mu);
    const auto now = std::chrono::steady_clock::now();
    if (slot->index && now - slot->checked < kRecheck) return slot->index;
    std::string sig = db_signature(root);
    slot->checked = now;
    if (slot->index && sig == slot->signature) return slot->index;
    slot->index.reset();  // free the old one before the new one grows
    slot->index = build_package_index(root);
    slot->signature = std::move(sig);
    slot->checked = std::chrono::steady_clock::now();
    return slot->index;
}

bool package_owner(const HostRoot& root, const std::string& host_path, FileOwner& out) {
    try {
        const std::shared_ptr<const PackageIndex> index = package_index(root);
        return index && index->find(root, host_path, out);
    } catch (...) {
        return false;
    }
}

}  // namespace amsvc
