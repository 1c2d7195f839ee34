#include "core/file_facts.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "core/digest_cache.h"
#include "packages/package_index.h"
#include "packages/package_index_impl.h"
#include "core/root_open.h"

namespace amsvc {

namespace {

// A file this large takes a hashing thread longer than most collections'
// other files together (and is hashed on two threads, see digest_cache).
constexpr uint64_t kLargeFile = 8u << 20;

// The O_PATH descriptor of the last root directory used, so a thread working
// through the modules of one container opens its root once, not per file.
class RootFds {
public:
    RootFds() = default;
    RootFds(const RootFds&) = delete;
    RootFds& operator=(const RootFds&) = delete;
    ~RootFds() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get(const std::string& dir) {
        if (fd_ >= 0 && dir == dir_) return fd_;
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        dir_.clear();
        const int fd = open_root_dir(dir);
        if (fd < 0) return fd;
        try {
            dir_ = dir;
        } catch (...) {
            ::close(fd);
            return -ENOMEM;
        }
        fd_ = fd;
        return fd_;
    }

private:
    std::string dir_;
    int fd_ = -1;
};

// Files a collection left for the next one (budget spent), by defer_key.
class Deferred {
public:
    void set(const std::string& key, bool deferred) {
        std::lock_guard<std::mutex> lock(mu_);
        if (!deferred) {
            keys_.erase(key);
        } else if (keys_.size() < kMax) {
            keys_.insert(key);
        }
    }
    bool has(const std::string& key) {
        std::lock_guard<std::mutex> lock(mu_);
        return keys_.count(key) != 0;
    }
    bool empty() {
        std::lock_guard<std::mutex> lock(mu_);
        return keys_.empty();
    }

private:
    static constexpr size_t kMax = 65536;
    std::mutex mu_;
    std::unordered_set<std::string> keys_;
};

// Never destroyed: hashing threads of a caller may outlive static destruction.
Deferred& deferred() {
    static Deferred* d = new Deferred();
    return *d;
}

std::string defer_key(const FileRef& f) {
    if (f.expect_id) return "i" + std::to_string(f.dev) + ":" + std::to_string(f.ino);
    std::string k = "p" + f.root_dir;
    k += '\0';
    k += f.open_path;
    k += '\0';
    k += f.host_path;
    return k;
}

// Digests of `file`. Its kernel links first; then a path given as seen from
// a root (a container's, a mounted image's) is resolved inside that root; an
// explicit open_path without a root_dir is opened as it stands. Everything
// is opened O_PATH and read only once digest_opened has seen what it is.
DigestStatus digest_ref(const HostRoot& root, const FileRef& file, DigestAlgo algo, RootFds& fds,
                        DigestBudget* budget, FileDigests& d) {
    ExpectedFile expect;
    expect.set = file.expect_id;
    expect.dev = file.dev;
    expect.ino = file.ino;
    if (!file.links.empty()) {
        expect.kernel_link = true;
        for (const std::string& link : file.links) {
            Fd fd(::open(link.c_str(), O_PATH | O_CLOEXEC));
            if (fd.get() >= 0) return digest_opened(fd.get(), expect, algo, budget, d);
        }
        expect.kernel_link = false;
        if (file.root_dir.empty() && file.open_path.empty()) return DigestStatus::kRefused;
    }
    const std::string* dir = nullptr;
    if (!file.root_dir.empty()) {
        dir = &file.root_dir;
    } else if (file.open_path.empty() && !root.is_live_host()) {
        dir = &root.root();
    }
    Fd fd;
    if (!dir) {
        const std::string& path = file.open_path.empty() ? file.host_path : file.open_path;
        fd.reset(::open(path.c_str(), O_PATH | O_CLOEXEC | (file.no_follow ? O_NOFOLLOW : 0)));
    } else {
        const int root_fd = fds.get(*dir);
        if (root_fd < 0) return DigestStatus::kRefused;
        const std::string& path =
            !file.root_dir.empty() && !file.open_path.empty() ? file.open_path : file.host_path;
        fd.reset(open_path_in_root(root_fd, path, file.no_follow));
    }
    if (fd.get() < 0) return DigestStatus::kRefused;
    return digest_opened(fd.get(), expect, algo, budget, d);
}

// Digests taken before the owner was known (FileFactsBatch).
struct Prehashed {
    bool done = false;
    DigestStatus status = DigestStatus::kRefused;
    FileDigests digests;
};

// Whether the host's package database judges `file` at all.
bool judged(const FileRef& file) { return !file.foreign && !file.host_path.empty(); }

// The path may be a link (/etc/rc2.d/S01cron, /usr/bin/python3): the content
// read is its target's, so the target's package judges it when the path's
// own does not. "" when there is no other name to ask about.
std::string link_target(const FileRef& file, DirCanon& canon) {
    if (file.no_follow) return std::string();
    std::string target = canon.canon(normalize_path(file.host_path));
    if (target == file.host_path) target.clear();
    return target;
}

bool owner_of(const HostRoot& root, const FileRef& file, FileOwner& owner) {
    if (!judged(file)) return false;
    bool owned = package_owner(root, file.host_path, owner);
    if (!owned || owner.algo == DigestAlgo::kNone) {
        DirCanon canon(root);
        const std::string target = link_target(file, canon);
        FileOwner target_owner;
        if (!target.empty() && package_owner(root, target, target_owner)) {
            owner = std::move(target_owner);
            owned = true;
        }
    }
    return owned;
}

// Owners of many files: every name (and link target) asked in one batch, so
// the package databases' file lists are read once.
void owners_of(const HostRoot& root, const std::vector<FileRef>& files, std::vector<FileOwner>& owners,
               std::vector<char>& owned) {
    owners.assign(files.size(), FileOwner());
    owned.assign(files.size(), 0);
    DirCanon canon(root, 1L << 14);
    std::vector<std::string> asked;
    std::vector<size_t> at(files.size(), SIZE_MAX), target_at(files.size(), SIZE_MAX);
    for (size_t i = 0; i < files.size(); ++i) {
        if (!judged(files[i])) continue;
        at[i] = asked.size();
        asked.push_back(files[i].host_path);
        std::string target = link_target(files[i], canon);
        if (target.empty()) continue;
        target_at[i] = asked.size();
        asked.push_back(std::move(target));
    }
    std::vector<FileOwner> found;
    std::vector<char> ok;
    package_owners(root, asked, found, ok);
    for (size_t i = 0; i < files.size(); ++i) {
        if (at[i] == SIZE_MAX) continue;
        if (ok[at[i]]) {
            owners[i] = found[at[i]];
            owned[i] = 1;
        }
        if ((!owned[i] || owners[i].algo == DigestAlgo::kNone) && target_at[i] != SIZE_MAX && ok[target_at[i]]) {
            owners[i] = found[target_at[i]];
            owned[i] = 1;
        }
    }
}

// Digests of one file, as many as the owner's recorded kind needs.
DigestStatus digests_of(const HostRoot& root, const FileRef& file, DigestAlgo algo, RootFds& fds,
                        DigestBudget* budget, FileDigests& d) {
    const DigestStatus st = digest_ref(root, file, algo, fds, budget, d);
    if (budget && (st == DigestStatus::kDeferred || !deferred().empty()))
        deferred().set(defer_key(file), st == DigestStatus::kDeferred);
    return st;
}

// Whether `d` holds the digest kind the owner recorded.
bool has_kind(const FileDigests& d, DigestAlgo algo) {
    return algo == DigestAlgo::kNone || algo == DigestAlgo::kMd5 || algo == DigestAlgo::kSha256 ||
           d.extra_algo == algo;
}

FileFacts facts_from(bool owned, const FileOwner& owner, DigestStatus st, const FileDigests& d) {
    FileFacts facts;
    if (owned) facts.company = owner.company;
    if (st != DigestStatus::kOk) return facts;
    facts.md5 = to_hex(d.md5, sizeof d.md5);
    facts.sha256 = to_hex(d.sha256, sizeof d.sha256);
    if (owned) {
        const size_t n = digest_size(owner.algo);
        const unsigned char* have = nullptr;
        if (owner.algo == DigestAlgo::kMd5) {
            have = d.md5;
        } else if (owner.algo == DigestAlgo::kSha256) {
            have = d.sha256;
        } else if (d.extra_algo == owner.algo) {
            have = d.extra;
        }
        facts.verified = have && n > 0 && std::memcmp(have, owner.digest, n) == 0;
    }
    return facts;
}

FileFacts facts_of(const HostRoot& root, const FileRef& file, RootFds& fds, DigestBudget* budget) {
    try {
        FileOwner owner;
        const bool owned = owner_of(root, file, owner);
        FileDigests d;
        const DigestStatus st = digests_of(root, file, owned ? owner.algo : DigestAlgo::kNone, fds, budget, d);
        return facts_from(owned, owner, st, d);
    } catch (...) {
        // Out of memory mid-way: nothing is claimed.
        return FileFacts();
    }
}

}  // namespace

FileFacts file_facts(const HostRoot& root, const FileRef& file) {
    RootFds fds;
    return facts_of(root, file, fds, nullptr);
}

std::vector<FileFacts> file_facts_many(const HostRoot& root, const std::vector<FileRef>& files) {
    std::vector<FileFacts> out;
    try {
        out.resize(files.size());
    } catch (...) {
        return out;
    }
    // Hashing is read-bound on a cold cache and CPU-bound on a warm page
    // cache; a few threads cover both without flooding a shared host.
    const unsigned hw = std::max(1u, std::thread::hardware_concurrency());
    // A handful of files is not worth starting threads for.
    const size_t nthreads = files.size() < 8 ? 1 : std::min<size_t>({hw, 4, files.size()});
    // Files the last collection left unread come first, so each collection
    // continues where the one before stopped.
    std::vector<size_t> order;
    try {
        order.reserve(files.size());
        if (!deferred().empty()) {
            for (size_t i = 0; i < files.size(); ++i)
                if (deferred().has(defer_key(files[i]))) order.push_back(i);
        }
        const size_t front = order.size();
        for (size_t i = 0; i < files.size(); ++i)
            if (front == 0 || !std::binary_search(order.begin(), order.begin() + front, i))
                order.push_back(i);
        // Then the largest first: the last file started is a small one.
        std::stable_sort(order.begin() + static_cast<std::ptrdiff_t>(front), order.end(),
                         [&](size_t a, size_t b) { return files[a].size_hint > files[b].size_hint; });
    } catch (...) {
        return out;
    }
    // Hashing never waits for ownership: the owners are found on a thread of
    // their own meanwhile. A file hashed before they are known gets the
    // common digests, and a second read only if its owner recorded another kind.
    std::vector<FileOwner> owners;
    std::vector<char> owned;
    std::vector<FileDigests> digests;
    std::vector<DigestStatus> status;
    try {
        digests.resize(files.size());
        status.resize(files.size(), DigestStatus::kRefused);
    } catch (...) {
        return out;
    }
    std::atomic<bool> owners_ready{false};
    auto find_owners = [&]() {
        try {
            owners_of(root, files, owners, owned);
        } catch (...) {
            owners.assign(files.size(), FileOwner());
            owned.assign(files.size(), 0);
        }
        owners_ready.store(true, std::memory_order_release);
    };
    std::thread owner_thread;
    try {
        owner_thread = std::thread(find_owners);
    } catch (...) {
        find_owners();
    }
    DigestBudget budget;
    std::atomic<size_t> next{0};
    auto work = [&]() {
        RootFds fds;
        for (size_t k; (k = next.fetch_add(1)) < order.size();) {
            const size_t i = order[k];
            DigestAlgo algo = DigestAlgo::kNone;
            if (owners_ready.load(std::memory_order_acquire) && owned[i]) algo = owners[i].algo;
            try {
                status[i] = digests_of(root, files[i], algo, fds, &budget, digests[i]);
            } catch (...) {
                status[i] = DigestStatus::kRefused;
            }
        }
    };
    std::vector<std::thread> pool;
    if (nthreads > 1) {
        try {
            for (size_t t = 1; t < nthreads; ++t) pool.emplace_back(work);
        } catch (...) {
            // No thread to be had: the calling thread does it all.
        }
    }
    work();
    for (std::thread& t : pool) t.join();
    if (owner_thread.joinable()) owner_thread.join();
    RootFds fds;
    for (size_t i = 0; i < files.size(); ++i) {
        try {
            if (owned[i] && status[i] == DigestStatus::kOk && !has_kind(digests[i], owners[i].algo))
                status[i] = digests_of(root, files[i], owners[i].algo, fds, &budget, digests[i]);
            out[i] = facts_from(owned[i], owners[i], status[i], digests[i]);
        } catch (...) {
            // Out of memory: this file's facts stay empty.
        }
    }
    return out;
}

struct FileFactsBatch::Impl {
    explicit Impl(const HostRoot& r) : root(r) {}

    HostRoot root;
    DigestBudget budget;
    // Deques: elements stay where they are while more are added. Workers
    // take element addresses under the lock, then work on them without it.
    std::deque<FileRef> files;
    std::deque<Prehashed> hashed;
    std::unordered_map<std::string, size_t> by_key;
    std::mutex mu;
    std::condition_variable cv;
    // Files not started yet: those the last collection left unread first,
    // then the largest, so the longest hash starts as early as it can.
    struct Queued {
        size_t index;
        bool deferred;
        uint64_t size;
    };
    std::vector<Queued> pending;
    bool closed = false;
    std::vector<std::thread> workers;
    size_t max_workers = 1;
    DigestAlgo extra = DigestAlgo::kNone;

    void work() {
        RootFds fds;
        for (;;) {
            const FileRef* f;
            Prehashed* h;
            {
                std::unique_lock<std::mutex> lock(mu);
                cv.wait(lock, [this] { return closed || !pending.empty(); });
                if (pending.empty()) return;
                size_t best = 0;
                for (size_t k = 1; k < pending.size(); ++k) {
                    const Queued &a = pending[k], &b = pending[best];
                    if (a.deferred != b.deferred ? a.deferred : a.size > b.size) best = k;
                }
                const size_t i = pending[best].index;
                pending[best] = pending.back();
                pending.pop_back();
                f = &files[i];
                h = &hashed[i];
            }
            // The owner's digest kind is not known yet: md5 and sha256 (dpkg,
            // most rpm), sha1 too where apk records it; another kind is read
            // again in finish().
            FileDigests d;
            const DigestStatus st = digest_ref(root, *f, extra, fds, &budget, d);
            std::lock_guard<std::mutex> lock(mu);
            h->digests = d;
            h->status = st;
            h->done = true;
        }
    }

    // No more files: the workers finish what is queued and end.
    void close() {
        {
            std::lock_guard<std::mutex> lock(mu);
            closed = true;
        }
        cv.notify_all();
    }

    void start_worker() {
        try {
            workers.emplace_back([this] { work(); });
        } catch (...) {
            // No thread to be had: what is left is hashed in finish().
        }
    }

    void close_and_join() {
        close();
        for (std::thread& t : workers) t.join();
        workers.clear();
    }
};

FileFactsBatch::FileFactsBatch(const HostRoot& root) {
    std::unique_ptr<Impl> m(new Impl(root));
    // Hashing is read-bound on a cold cache and CPU-bound on a warm page
    // cache; a few threads cover both without flooding a shared host.
    m->max_workers = std::min(4u, std::max(1u, std::thread::hardware_concurrency()));
    m->workers.reserve(m->max_workers);
    struct stat st;
    if (stat_host(root, "/lib/apk/db/installed", st) == 0) m->extra = DigestAlgo::kSha1;
    impl_ = m.release();
}

FileFactsBatch::~FileFactsBatch() {
    impl_->close_and_join();
    delete impl_;
}

size_t FileFactsBatch::add(const FileRef& file) {
    // Called from one thread (the collection's); workers only take from `pending`.
    Impl& m = *impl_;
    // Identical requests share one entry; a request tied to a mapping's
    // identity or kernel links is kept apart.
    std::string key;
    if (!file.expect_id && file.links.empty()) {
        key = file.root_dir;
        key += '\0';
        key += file.open_path;
        key += '\0';
        key += file.host_path;
        key += '\0';
        key += file.no_follow ? 'n' : 'f';
        key += file.foreign ? 'x' : 'h';
    }
    std::unique_lock<std::mutex> lock(m.mu);
    if (!key.empty()) {
        auto it = m.by_key.find(key);
        if (it != m.by_key.end()) return it->second;
    }
    // Only this thread adds: the size is looked up without holding the workers up.
    lock.unlock();
    Impl::Queued q{0, !deferred().empty() && deferred().has(defer_key(file)), 0};
    if (file.links.empty() && file.open_path.empty() && file.root_dir.empty()) {
        struct stat st;
        if (stat_host(m.root, file.host_path, st) == 0) q.size = static_cast<uint64_t>(st.st_size);
    }
    lock.lock();
    const size_t i = m.files.size();
    m.files.push_back(file);
    m.hashed.emplace_back();
    if (!key.empty()) m.by_key.emplace(std::move(key), i);
    if (m.closed) return i;  // hashed in finish()
    q.index = i;
    m.pending.push_back(q);
    // While the caller is still finding files, one CPU is left to it: the
    // largest file is hashed sooner when it is found sooner. A file that
    // alone takes longer than the rest (a large program) does not wait for
    // a worker busy with a smaller one.
    const bool start = m.workers.size() < std::max<size_t>(1, m.max_workers - 1) ||
                       (q.size >= kLargeFile && m.workers.size() < m.max_workers);
    lock.unlock();
    m.cv.notify_one();
    if (start) m.start_worker();
    return i;
}

std::vector<FileFacts> FileFactsBatch::finish() {
    Impl& m = *impl_;
    // Every file is known: all workers for what is queued.
    {
        std::unique_lock<std::mutex> lock(m.mu);
        const size_t queued = m.pending.size();
        lock.unlock();
        const size_t have = m.workers.size();
        for (size_t k = have; k < m.max_workers && k < have + queued; ++k) m.start_worker();
    }
    // The owners are asked on this thread while the workers still hash what
    // is queued (the largest file last started is often still being read):
    // ownership no longer adds its time after the last hash.
    m.close();
    std::vector<FileFacts> out;
    try {
        out.resize(m.files.size());
        const std::vector<FileRef> files(m.files.begin(), m.files.end());
        std::vector<FileOwner> owners;
        std::vector<char> owned;
        owners_of(m.root, files, owners, owned);
        m.close_and_join();
        RootFds fds;
        for (size_t i = 0; i < files.size(); ++i) {
            const DigestAlgo algo = owned[i] ? owners[i].algo : DigestAlgo::kNone;
            const Prehashed& h = m.hashed[i];
            FileDigests d = h.digests;
            DigestStatus st = h.status;
            if (!h.done || (st == DigestStatus::kOk && !has_kind(d, algo))) {
                // Not hashed yet, or the package records a kind not taken: read (again).
                st = digests_of(m.root, files[i], algo, fds, &m.budget, d);
            } else if (st == DigestStatus::kDeferred || !deferred().empty()) {
                deferred().set(defer_key(files[i]), st == DigestStatus::kDeferred);
            }
            out[i] = facts_from(owned[i] != 0, owners[i], st, d);
        }
    } catch (...) {
        // Out of memory mid-way: nothing is claimed.
        out.clear();
    }
    m.close_and_join();  // a no-op unless owners_of threw
    return out;
}

}  // namespace amsvc
