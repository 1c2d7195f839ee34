// Processes of the host from /proc under the host root: one record per
// process with what can be read of it, and its executable and mapped
// executable files with their digests.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/mman.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "collectors.h"
#include "core/digest_cache.h"
#include "core/file_facts.h"
#include "process/process_cache.h"
#include "process/process_parse.h"

namespace amsvc {

namespace {

// Caps per file: a hostile process can make its command line or environment
// as large as the stack limit allows; a few MiB of maps cover any real process.
constexpr size_t kMaxSmall = 64u << 10;  // stat, status, /proc/stat
constexpr size_t kMaxArgs = 1u << 20;    // cmdline, environ
// Once this much command line and environment text has been kept, later
// processes keep at most kMaxArgsTight of each, so a host full of huge
// environments cannot balloon the result.
constexpr size_t kArgsBudget = 32u << 20;
constexpr size_t kMaxArgsTight = 64u << 10;
constexpr size_t kMaxMaps = 16u << 20;
// Pids are read in chunks that one reader, or two on a host of many
// processes, take in turn: most of a collection is the kernel formatting
// /proc files, and a second thread halves its wall time.
constexpr size_t kChunk = 64;
constexpr size_t kTwoReadersFrom = 256;
// Distinct environments one reader looks up to share (beyond, each is kept
// on its own).
constexpr size_t kMaxSharedEnvs = 4096;

// A read buffer reused for every /proc file of a collection, so reading a
// process costs no allocation once the buffer has grown.
class Buffer {
public:
    std::string_view view() const { return std::string_view(data_.get(), len_); }

    // Reads `name` relative to `dirfd`, at most `max` bytes, only if it is a
    // regular file. On procfs (`trusted`) the type check is skipped: its pid
    // files are all regular. `short_is_eof`: the file hands out everything it
    // has in one read, so a short read ends it (saves a read per file).
    // Returns 0 or a negative errno.
    int read_at(int dirfd, const char* name, size_t max, bool trusted, bool short_is_eof) {
        len_ = 0;
        const int fd = ::openat(dirfd, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
        if (fd < 0) return -errno;
        struct stat st;
        if (!trusted && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
            ::close(fd);
            return -EINVAL;
        }
        int rc = 0;
        while (len_ < max) {
            if (len_ == cap_) grow(std::min(max, std::max<size_t>(cap_ * 2, 8192)));
            const size_t want = std::min(cap_, max) - len_;
            const ssize_t n = ::read(fd, data_.get() + len_, want);
            if (n < 0) {
                if (errno == EINTR) continue;
                if (len_ == 0) rc = -errno;
                break;
            }
            if (n == 0) break;
            len_ += static_cast<size_t>(n);
            if (short_is_eof && static_cast<size_t>(n) < want) break;
        }
        ::close(fd);
        return rc;
    }

private:
    void grow(size_t cap) {
        std::unique_ptr<char[]> p(new char[cap]);
        if (len_) std::memcpy(p.get(), data_.get(), len_);
        data_ = std::move(p);
        cap_ = cap;
    }

    std::unique_ptr<char[]> data_;
    size_t cap_ = 0;
    size_t len_ = 0;
};

std::string read_link_at(int dirfd, const char* name) {
    char buf[4096];
    const ssize_t n = ::readlinkat(dirfd, name, buf, sizeof buf);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof buf) return std::string();
    return std::string(buf, static_cast<size_t>(n));
}

std::vector<int32_t> list_pids(int procfd) {
    std::vector<int32_t> pids;
    const int dfd = ::dup(procfd);
    if (dfd < 0) return pids;
    DIR* d = ::fdopendir(dfd);
    if (!d) {
        ::close(dfd);
        return pids;
    }
    while (struct dirent* e = ::readdir(d)) {
        int64_t v = 0;
        if (e->d_name[0] < '1' || e->d_name[0] > '9' || !parse_i64(e->d_name, v) || v > INT32_MAX) continue;
        pids.push_back(static_cast<int32_t>(v));
    }
    ::closedir(d);
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::string basename_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Distinct module files of a whole collection: each file is hashed once even
// when hundreds of processes map it.
class ModuleFiles {
public:
    // A file seen again keeps up to kMaxLinks kernel links to it, so that it
    // can still be read when the first process that mapped it has exited.
    size_t add(const std::string& key, const FileRef& ref) {
        return add(
            key, [&] { return ref; },
            [&](std::vector<std::string>& links) {
                for (size_t l = 0; l < ref.links.size() && links.size() < kMaxLinks; ++l)
                    links.push_back(ref.links[l]);
            });
    }
    // The same, the reference made by make() only for a file not seen yet;
    // link(links) adds a later sighting's kernel link.
    template <class Make, class Link>
    size_t add(const std::string& key, Make&& make, Link&& link) {
        auto it = index_.find(key);
        if (it != index_.end()) {
            std::vector<std::string>& links = refs_[it->second].links;
            if (links.size() < kMaxLinks) link(links);
            return it->second;
        }
        const size_t i = refs_.size();
        refs_.push_back(make());
        keys_.push_back(&index_.emplace(key, i).first->first);
        return i;
    }
    const std::vector<FileRef>& refs() const { return refs_; }
    const std::string& key(size_t i) const { return *keys_[i]; }

private:
    static constexpr size_t kMaxLinks = 4;
    std::unordered_map<std::string, size_t> index_;
    std::vector<FileRef> refs_;
    std::vector<const std::string*> keys_;  // into index_, whose nodes stay put
};

// The device of the kernel's internal tmpfs, where shared anonymous memory
// ("/dev/zero (deleted)"), memfd_create ("/memfd:x (deleted)") and System V
// shared memory ("/SYSV00000000 (deleted)") live: a memfd of our own is there.
bool shm_device(dev_t& dev) {
    const int fd = ::memfd_create("amsvc-probe", MFD_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    const bool ok = ::fstat(fd, &st) == 0;
    ::close(fd);
    if (ok) dev = st.st_dev;
    return ok;
}

void append_dev_ino_key(std::string& key, char kind, uint64_t dev, uint64_t ino) {
    char buf[48];
    char* p = buf;
    *p++ = kind;
    p = std::to_chars(p, p + 20, dev).ptr;  // 20 digits hold any 64-bit number
    *p++ = ':';
    p = std::to_chars(p, p + 20, ino).ptr;
    key.append(buf, static_cast<size_t>(p - buf));
}

// Joins a thread however the scope that started it ends.
struct JoinOnExit {
    std::thread& t;
    ~JoinOnExit() {
        if (t.joinable()) t.join();
    }
};

// A mapped file's path without the " (deleted)" the kernel adds.
std::string_view bare_path(std::string_view shown) {
    static constexpr std::string_view kDeleted = " (deleted)";
    if (shown.size() >= kDeleted.size() && shown.substr(shown.size() - kDeleted.size()) == kDeleted)
        shown.remove_suffix(kDeleted.size());
    return shown;
}

// A module's entry in its process's /proc directory: exe, or its
// map_files range (hex, no padding).
void link_name(const ProcessFixed::Module& m, char* name, size_t size) {
    if (m.exe)
        snprintf(name, size, "exe");
    else
        snprintf(name, size, "map_files/%llx-%llx", static_cast<unsigned long long>(m.start),
                 static_cast<unsigned long long>(m.end));
}

struct Pending {
    std::vector<std::pair<std::string, size_t>> modules;  // shown path, index into ModuleFiles
};

// What one chunk of pids gave, and which reader's ModuleFiles its indices are of.
struct Part {
    std::vector<AM::ProcessInfo> out;
    std::vector<Pending> pending;
    int reader = 0;
};

class Collector {
public:
    explicit Collector(const HostRoot& root) : root_(root) {
        const long t = ::sysconf(_SC_CLK_TCK);
        clk_tck_ = t > 0 ? t : 100;
    }

    // A second reader of the same collection: what `lead` found out about
    // the procfs, with a buffer, module files and kept entries of its own.
    struct Sibling {};
    Collector(const Collector& lead, Sibling) : root_(lead.root_) {
        clk_tck_ = lead.clk_tck_;
        procfs_ = lead.procfs_;
        use_query_ = lead.use_query_;
        args_kept_ = lead.args_kept_;
        have_btime_ = lead.have_btime_;
        btime_ = lead.btime_;
        proc_prefix_ = lead.proc_prefix_;
        have_shm_dev_ = lead.have_shm_dev_;
        shm_dev_ = lead.shm_dev_;
        have_host_root_ = lead.have_host_root_;
        host_root_dev_ = lead.host_root_dev_;
        host_root_ino_ = lead.host_root_ino_;
        cache_on_ = lead.cache_on_;
        watched_ = lead.watched_;
        proc_dev_ = lead.proc_dev_;
        now_ = lead.now_;
    }

    int32_t run(std::vector<AM::ProcessInfo>& out) {
        out.clear();
        // The digest library readies itself (once per process) while /proc
        // is read, not when the hashing starts.
        static std::atomic<bool> digests_readied{false};
        std::thread prepare;
        if (std::thread::hardware_concurrency() > 1 && !digests_readied.exchange(true)) {
            try {
                prepare = std::thread(digests_prepare);
            } catch (const std::system_error&) {
                // Readied by the first hash instead.
            }
        }
        const JoinOnExit join_prepare{prepare};
        // Under an image only a real procfs mounted at its /proc is read: a
        // link or a directory of files is no source.
        Fd procfd(open_host_proc(root_));
        if (procfd.get() < 0) {
            const int e = -procfd.get();
            if (e == ENOENT || e == ENOTDIR) return -ENOENT;
            if (e == EACCES || e == EPERM) return -EACCES;
            return -EIO;
        }
        // Paths below the /proc found: the descriptor itself pins it.
        proc_prefix_ = root_.is_live_host() ? std::string("/proc")
                                            : "/proc/self/fd/" + std::to_string(procfd.get());
        struct stat hst;
        have_host_root_ = stat_host(root_, "/", hst) == 0;
        if (have_host_root_) {
            host_root_dev_ = hst.st_dev;
            host_root_ino_ = hst.st_ino;
        }
        struct statfs sfs;
        procfs_ = ::fstatfs(procfd.get(), &sfs) == 0 && sfs.f_type == PROC_SUPER_MAGIC;
        have_shm_dev_ = procfs_ && shm_device(shm_dev_);
        if (read(procfd.get(), "stat", kMaxSmall, false) == 0)
            have_btime_ = procfs::parse_btime(buf_.view(), btime_);

        // Only the live host's own procfs is remembered between collections:
        // its pids and start times name processes; an image's do not.
        struct stat pst;
        cache_on_ = procfs_ && root_.is_live_host() && ::fstat(procfd.get(), &pst) == 0;
        ProcessEntries prev;
        // However the collection ends, the cache learns it has ended.
        struct PutBack {
            Collector* c;
            ~PutBack() {
                if (c->cache_on_) ProcessCache::instance().put(c->proc_dev_, std::move(c->kept_));
            }
        } put_back{this};
        if (cache_on_) {
            proc_dev_ = pst.st_dev;
            prev = ProcessCache::instance().take(proc_dev_, watched_);
            now_ = monotonic_secs();
        }

        const std::vector<int32_t> pids = list_pids(procfd.get());
        const size_t chunks = (pids.size() + kChunk - 1) / kChunk;
        std::vector<Part> parts(chunks);
        std::atomic<size_t> next{0};
        auto work = [&](Collector& c, int reader) {
            for (size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < chunks;) {
                parts[i].reader = reader;
                const size_t end = std::min(pids.size(), (i + 1) * kChunk);
                c.read_chunk(procfd.get(), pids.data() + i * kChunk, pids.data() + end, prev, parts[i]);
            }
        };
        std::unique_ptr<Collector> sibling;
        std::thread second;
        std::exception_ptr failed;
        if (pids.size() >= kTwoReadersFrom && std::thread::hardware_concurrency() > 1) {
            try {
                sibling.reset(new Collector(*this, Sibling{}));
                second = std::thread([&] {
                    try {
                        work(*sibling, 1);
                    } catch (...) {
                        failed = std::current_exception();
                    }
                });
            } catch (const std::system_error&) {
                // No thread to be had: this one reads every chunk.
            }
        }
        {
            const JoinOnExit join{second};
            work(*this, 0);
        }
        if (failed) std::rethrow_exception(failed);

        // The second reader's module files are renumbered into this one's.
        std::vector<size_t> renumber;
        if (sibling) {
            for (auto& kv : sibling->kept_) keep(kv.first, std::move(kv.second));
            const std::vector<FileRef>& refs = sibling->files_.refs();
            renumber.reserve(refs.size());
            for (size_t j = 0; j < refs.size(); ++j) renumber.push_back(files_.add(sibling->files_.key(j), refs[j]));
        }
        size_t total = 0;
        for (const Part& p : parts) total += p.out.size();
        out.reserve(total);
        std::vector<Pending> pending;
        pending.reserve(total);
        for (Part& p : parts) {
            for (size_t k = 0; k < p.out.size(); ++k) {
                if (p.reader == 1)
                    for (auto& m : p.pending[k].modules)
                        if (m.second < renumber.size()) m.second = renumber[m.second];
                out.push_back(std::move(p.out[k]));
                pending.push_back(std::move(p.pending[k]));
            }
            p = Part();
        }
        // Entries of processes gone are not carried over (kept_ has only
        // the processes listed now).

        if (prepare.joinable()) prepare.join();
        const std::vector<FileFacts> facts = file_facts_many(root_, files_.refs());
        for (size_t i = 0; i < out.size(); ++i) {
            std::vector<AM::ProcessModuleInfo>& mods = out[i].modules;
            mods.reserve(pending[i].modules.size());
            for (auto& pm : pending[i].modules) {
                AM::ProcessModuleInfo m;
                m.path = std::move(pm.first);
                m.verified = false;
                if (pm.second < facts.size()) {
                    const FileFacts& f = facts[pm.second];
                    m.md5 = f.md5;
                    m.sha256 = f.sha256;
                    m.company = f.company;
                    m.verified = f.verified;
                }
                mods.push_back(std::move(m));
            }
        }
        return 0;
    }

private:
    enum class Warm { served, gone, full };

    // The pids [b, e): each a record, read in full or, remembered, warm.
    // `prev` is only looked up (each pid is in one chunk), so two readers
    // share it.
    void read_chunk(int procfd, const int32_t* b, const int32_t* e, ProcessEntries& prev, Part& part) {
        std::vector<AM::ProcessInfo>& out = part.out;
        std::vector<Pending>& pending = part.pending;
        out.reserve(static_cast<size_t>(e - b));
        pending.reserve(static_cast<size_t>(e - b));
        for (; b != e; ++b) {
            const int32_t pid = *b;
            AM::ProcessInfo rec;
            Pending mods;
            auto it = cache_on_ ? prev.find(pid) : prev.end();
            if (it != prev.end()) {
                const Warm w = read_warm(procfd, pid, it->second, rec, mods);
                if (w == Warm::gone) continue;
                if (w == Warm::served) {
                    keep(pid, std::move(it->second));
                    out.push_back(std::move(rec));
                    pending.push_back(std::move(mods));
                    continue;
                }
                rec = AM::ProcessInfo();
                mods = Pending();
            }
            ProcessCacheEntry entry;
            bool cacheable = false;
            if (!read_process(procfd, pid, rec, mods, entry, cacheable)) continue;
            if (cacheable) keep(pid, std::move(entry));
            out.push_back(std::move(rec));
            pending.push_back(std::move(mods));
        }
    }

    void keep(int32_t pid, ProcessCacheEntry&& e) {
        if (kept_.size() < kProcessCacheMax) kept_.emplace(pid, std::move(e));
    }

    // A process read before: what moves is read again, what only an exec
    // changes comes from `e`. stat is read last, so a pid that changed hands
    // during the reads shows another start time and nothing read is served.
    Warm read_warm(int procfd, int32_t pid, const ProcessCacheEntry& e, AM::ProcessInfo& rec, Pending& mods) {
        const ProcessFixed& f = *e.fixed;
        char name[40];
        uint32_t uid = e.uid;
        if (!e.kthread) {
            // The environment was read under the same cap it would get now.
            const size_t cap = args_cap();
            if (f.env_raw > cap || (f.env_raw >= f.env_cap && f.env_cap != cap)) return Warm::full;
            snprintf(name, sizeof name, "%d/cmdline", static_cast<int>(pid));
            int rc = read(procfd, name, args_cap(), true);
            if (rc == -ENOENT || rc == -ESRCH) return Warm::gone;
            if (rc != 0) return Warm::full;
            rec.cmd_line = procfs::join_nul(buf_.view(), ' ');
            snprintf(name, sizeof name, "%d/cwd", static_cast<int>(pid));
            rec.current_dir = read_link_at(procfd, name);
            // Watched, an exec or uid change would have dropped the entry.
            if (!watched_) {
                snprintf(name, sizeof name, "%d/status", static_cast<int>(pid));
                if (read(procfd, name, kMaxSmall, true) != 0 || !procfs::parse_status_uid(buf_.view(), uid))
                    return Warm::full;
                // Another program run by exec: the exe link leads elsewhere.
                snprintf(name, sizeof name, "%d/exe", static_cast<int>(pid));
                struct stat xst;
                if (::fstatat(procfd, name, &xst, 0) != 0 || xst.st_dev != e.exe_dev || xst.st_ino != e.exe_ino)
                    return Warm::full;
            }
        } else {
            // Only kernel code moves a kernel thread's directory, and it has
            // no program to exec.
            rec.current_dir = e.cwd;
        }
        snprintf(name, sizeof name, "%d/stat", static_cast<int>(pid));
        const int src = read(procfd, name, kMaxSmall, true);
        if (src == -ENOENT || src == -ESRCH) return Warm::gone;
        procfs::Stat st;
        if (src != 0 || !procfs::parse_stat(buf_.view(), st) || !process_unchanged(e, pid, st, now_))
            return Warm::full;

        rec.pid = pid;
        rec.ppid = st.ppid >= 0 && st.ppid <= INT32_MAX ? static_cast<int32_t>(st.ppid) : 0;
        rec.name = st.comm.empty() ? f.name : st.comm;
        rec.stime = e.stime;  // the start time is the entry's (checked above)
        rec.rtime = procfs::format_cpu_time(st.utime + st.stime, clk_tck_);
        rec.user = users_.of(uid);
        rec.path = f.path;
        if (f.env) rec.env = *f.env;
        args_kept_->fetch_add(rec.cmd_line.size() + rec.env.size(), std::memory_order_relaxed);
        add_modules(f, mods);
        return Warm::served;
    }

    void add_modules(const ProcessFixed& f, Pending& mods) {
        mods.modules.reserve(f.modules.size());
        for (const ProcessFixed::Module& m : f.modules)
            mods.modules.emplace_back(m.shown, m.hashable ? add_file(f, m) : SIZE_MAX);
    }

    // The collection's index of a module's file. On procfs the file read is
    // the one mapped (same device and inode), through the kernel's link to
    // it where that opens, else by path inside the process's root. A tree
    // that is not procfs holds no kernel links, only what its owner laid:
    // its paths and links are followed inside the host root.
    size_t add_file(const ProcessFixed& f, const ProcessFixed::Module& m) {
        const std::string_view bare = bare_path(m.shown);
        key_.clear();
        if (procfs_ || m.deleted) {
            // One file under two roots is judged by each root's own rules;
            // one inode under two names (on procfs) by each name's package.
            append_dev_ino_key(key_, f.foreign ? 'f' : 'd', m.dev, m.ino);
            if (procfs_) {
                key_ += '\0';
                key_ += bare;
            }
        } else {
            key_ += f.root_key;
            key_ += bare;
        }
        char name[64];
        return files_.add(
            key_, [&] { return file_ref(f, m, bare); },
            [&](std::vector<std::string>& links) {
                if (!procfs_) return;
                link_name(m, name, sizeof name);
                links.push_back(f.proc_dir + '/' + name);
            });
    }

    FileRef file_ref(const ProcessFixed& f, const ProcessFixed::Module& m, std::string_view bare) const {
        FileRef ref;
        ref.host_path = std::string(bare);
        ref.foreign = f.foreign;
        if (!m.deleted) {
            // By the path the process sees: on procfs the fallback when the
            // kernel's links cannot be opened.
            ref.no_follow = true;
            if (procfs_) {
                ref.root_dir = f.proc_dir + "/root";
                const std::string& jail = f.jail;
                if (!jail.empty() && bare.size() > jail.size() && bare[jail.size()] == '/' && starts_with(bare, jail))
                    ref.open_path = std::string(bare.substr(jail.size()));
            } else {
                ref.root_dir = root_.root();
                ref.open_path = f.tree_root == "/" ? ref.host_path : f.tree_root + ref.host_path;
            }
        } else if (!procfs_) {
            ref.root_dir = root_.root();
            ref.open_path = m.tree_open;
        }
        if (procfs_) {
            ref.size_hint = m.end - m.start;  // its code: most of a program's or library's size
            ref.expect_id = true;
            ref.dev = m.dev;
            ref.ino = m.ino;
            char name[64];
            link_name(m, name, sizeof name);
            ref.links.push_back(f.proc_dir + '/' + name);
        }
        return ref;
    }

    // False when the process is gone; otherwise fills what can be read, and
    // `entry` with what a later collection may reuse (`cacheable`: enough of
    // it was read to tell an exec).
    bool read_process(int procfd, int32_t pid, AM::ProcessInfo& rec, Pending& mods, ProcessCacheEntry& entry,
                      bool& cacheable) {
        cacheable = false;
        auto fixed = std::make_shared<ProcessFixed>();
        const std::string pidname = std::to_string(pid);
        Fd dir(::openat(procfd, pidname.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
        if (dir.get() < 0) return false;
        const int dfd = dir.get();

        rec.pid = pid;
        rec.ppid = 0;
        procfs::Stat st;
        bool have_stat = false;
        const int src = read(dfd, "stat", kMaxSmall, true);
        if (src == -ENOENT || src == -ESRCH) return false;  // exited since the listing
        if (src == 0) have_stat = procfs::parse_stat(buf_.view(), st);
        if (src == 0) {
            rec.name = st.comm;  // parse_stat keeps the name even when later fields are bad
        }
        if (have_stat) {
            entry.stat = st;
            entry.kthread = (st.flags & procfs::kPfKthread) != 0;
            entry.checked = now_;
            rec.ppid = st.ppid >= 0 && st.ppid <= INT32_MAX ? static_cast<int32_t>(st.ppid) : 0;
            if (have_btime_)
                rec.stime = entry.stime = format_time(static_cast<time_t>(
                    btime_ + static_cast<int64_t>(st.starttime / static_cast<uint64_t>(clk_tck_))));
            rec.rtime = procfs::format_cpu_time(st.utime + st.stime, clk_tck_);
        }

        uint32_t uid = 0;
        const bool have_uid = read(dfd, "status", kMaxSmall, true) == 0 && procfs::parse_status_uid(buf_.view(), uid);
        if (have_uid) rec.user = users_.of(uid);
        entry.uid = uid;

        if (read(dfd, "cmdline", args_cap(), true) == 0) rec.cmd_line = procfs::join_nul(buf_.view(), ' ');
        args_kept_->fetch_add(rec.cmd_line.size(), std::memory_order_relaxed);

        rec.current_dir = read_link_at(dfd, "cwd");
        // Kernel threads have no executable, environment or mappings.
        if (have_stat && (st.flags & procfs::kPfKthread)) {
            entry.cwd = rec.current_dir;
            entry.fixed = std::move(fixed);
            cacheable = have_uid;
            return true;
        }

        fixed->env_cap = args_cap();
        if (read(dfd, "environ", fixed->env_cap, true) == 0) {
            rec.env = procfs::format_environ(buf_.view());
            fixed->env_raw = buf_.view().size();
        }
        args_kept_->fetch_add(rec.env.size(), std::memory_order_relaxed);
        rec.path = read_link_at(dfd, "exe");
        if (!rec.path.empty()) {
            std::string bare = rec.path;
            procfs::strip_deleted(bare);
            fixed->name = basename_of(bare);
            if (rec.name.empty()) rec.name = fixed->name;
        }
        // What the exe link leads to now, to tell a later exec by.
        struct stat xst;
        const bool have_exe = cache_on_ && !rec.path.empty() && ::fstatat(dfd, "exe", &xst, 0) == 0;
        if (have_exe) {
            entry.exe_dev = xst.st_dev;
            entry.exe_ino = xst.st_ino;
        }
        const auto finish = [&] {
            fixed->path = rec.path;
            fixed->env = shared_env(rec.env);
            add_modules(*fixed, mods);
            entry.fixed = std::move(fixed);
            cacheable = have_stat && have_uid && have_exe;
            return true;
        };

        // Files a process maps are opened through its own root, so a process
        // in a container is hashed from its own file system, and its links
        // resolve inside it. A root other than the host's (or one that cannot
        // be told) makes its files foreign: the host's packages do not own them.
        struct stat rootst;
        std::string root_key;
        bool foreign = true;
        if (::fstatat(dfd, "root", &rootst, 0) == 0) {
            foreign = !have_host_root_ || rootst.st_dev != host_root_dev_ || rootst.st_ino != host_root_ino_;
            if (!procfs_) {
                // A tree's files are known by path within a root. Same root,
                // other mounts (unshare -m, a service's private /tmp): a
                // path may name another file there.
                append_dev_ino_key(root_key, 'r', rootst.st_dev, rootst.st_ino);
                struct stat nsst;
                if (::fstatat(dfd, "ns/mnt", &nsst, 0) == 0)
                    append_dev_ino_key(root_key, 'm', nsst.st_dev, nsst.st_ino);
            }
        } else {
            root_key = "p" + pidname;
        }
        root_key += '\0';
        const std::string pid_in_tree = "/proc/" + pidname;
        // A chrooted process's paths are printed as the host sees them
        // ("/srv/jail/usr/lib/x.so"); inside its root the jail prefix goes.
        // A root in another mount namespace (a container) reads as "/".
        // Our own root needs no look: its link reads "/".
        std::string jail = procfs_ && (foreign || !root_.is_live_host()) ? read_link_at(dfd, "root") : std::string();
        if (jail.size() < 2 || jail[0] != '/' || jail.back() == '/') jail.clear();
        fixed->proc_dir = proc_prefix_ + "/" + pidname;
        fixed->foreign = foreign;
        fixed->jail = std::move(jail);
        if (!procfs_) {
            fixed->root_key = std::move(root_key);
            fixed->tree_root = tree_link(dfd, pid_in_tree, "root");
        }
        // One module: its identity and where the kernel shows it; how to
        // reach it is made when a collection first meets the file.
        auto add_module = [&](std::string shown, bool deleted, dev_t dev, uint64_t ino, bool exe, uint64_t start,
                              uint64_t end) {
            ProcessFixed::Module mod;
            const std::string_view bare = bare_path(shown);
            // Without a probe (memfd_create filtered), by the names the kernel gives.
            const bool shm = have_shm_dev_ ? dev == shm_dev_
                                           : major(dev) == 0 && deleted &&
                                                 (bare == "/dev/zero" || starts_with(bare, "/memfd:") ||
                                                  starts_with(bare, "/SYSV"));
            // Shared anonymous memory or a memfd is process memory, not a
            // file: listed (code run from memory is worth seeing) but not read.
            mod.hashable = !(procfs_ && shm);
            mod.deleted = deleted;
            mod.exe = exe;
            mod.dev = dev;
            mod.ino = ino;
            mod.start = start;
            mod.end = end;
            if (!procfs_ && deleted) {
                char name[64];
                link_name(mod, name, sizeof name);
                mod.tree_open = tree_link(dfd, pid_in_tree, name);
            }
            mod.shown = std::move(shown);
            fixed->modules.push_back(std::move(mod));
        };

        const bool have_maps = read_maps(dfd);
        if (!rec.path.empty()) {
            // The executable's identity: its mapping's, else what the link leads to.
            const procfs::Mapping* em = nullptr;
            for (const procfs::Mapping& m : maps_)
                if (m.path == rec.path) em = &m;
            std::string bare = rec.path;
            const bool deleted = procfs::strip_deleted(bare);
            struct stat est;
            if (em) {
                add_module(rec.path, deleted, makedev(em->dev_major, em->dev_minor), em->inode, true, em->start,
                           em->end);
            } else if (::fstatat(dfd, "exe", &est, 0) == 0) {
                add_module(rec.path, deleted, est.st_dev, est.st_ino, true, 0, static_cast<uint64_t>(est.st_size));
            } else {
                ProcessFixed::Module mod;  // no identity: not read
                mod.shown = rec.path;
                fixed->modules.push_back(std::move(mod));
            }
        }
        if (!have_maps) return finish();
        fixed->modules.reserve(fixed->modules.size() + maps_.size());
        for (procfs::Mapping& m : maps_) {
            if (m.path == rec.path) continue;
            add_module(std::move(m.path), m.deleted, makedev(m.dev_major, m.dev_minor), m.inode, false, m.start,
                       m.end);
        }
        return finish();
    }

    // Executable file-backed mappings into maps_: by query on a kernel that
    // has it, else by parsing the text. False when maps is unreadable.
    bool read_maps(int dfd) {
        maps_.clear();
        if (procfs_ && use_query_) {
            Fd fd(::openat(dfd, "maps", O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
            if (fd.get() < 0) return false;
            const int rc = procfs::query_maps(fd.get(), maps_);
            if (rc == 0) return true;
            if (rc == -ENOTTY || rc == -EINVAL) use_query_ = false;  // not on this kernel
        }
        if (read(dfd, "maps", kMaxMaps, false) != 0) return false;
        maps_ = procfs::parse_maps(buf_.view());
        return true;
    }

    // Where a link of a /proc that is not procfs (a fixture tree, an image's
    // own /proc) leads, as a path inside the host root: such links are plain
    // links the tree's owner laid, so their targets are looked up inside the
    // root like any other path there. A target naming the root by its full
    // host path (a tree laid out by a tool outside it) is taken from there on.
    std::string tree_link(int dfd, const std::string& pid_in_tree, const std::string& name) const {
        const std::string t = read_link_at(dfd, name.c_str());
        const std::string self = pid_in_tree + "/" + name;
        if (t.empty()) return self;  // not a link: the entry itself
        if (t[0] != '/') return self.substr(0, self.rfind('/') + 1) + t;
        const std::string& r = root_.root();
        if (r != "/" && t.compare(0, r.size(), r) == 0) {
            if (t.size() == r.size()) return "/";
            if (t[r.size()] == '/') return t.substr(r.size());
        }
        return t;
    }

    // The kept copy of an environment: the one kept already when another
    // process of this reader has the same.
    std::shared_ptr<const std::string> shared_env(const std::string& env) {
        const auto it = envs_.find(env);
        if (it != envs_.end()) return it->second;
        auto kept = std::make_shared<const std::string>(env);
        if (envs_.size() < kMaxSharedEnvs) envs_.emplace(*kept, kept);
        return kept;
    }

    size_t args_cap() const {
        return args_kept_->load(std::memory_order_relaxed) < kArgsBudget ? kMaxArgs : kMaxArgsTight;
    }

    int read(int dirfd, const char* name, size_t max, bool short_is_eof) {
        return buf_.read_at(dirfd, name, max, procfs_, short_is_eof);
    }


    const HostRoot& root_;
    long clk_tck_ = 100;
    bool procfs_ = false;  // a real procfs, not a fixture tree
    bool use_query_ = true;
    // Command line and environment text kept by every reader of the collection.
    std::atomic<size_t> args_total_{0};
    std::atomic<size_t>* args_kept_ = &args_total_;
    std::vector<procfs::Mapping> maps_;
    bool have_btime_ = false;
    int64_t btime_ = 0;
    std::string proc_prefix_;
    bool have_shm_dev_ = false;
    dev_t shm_dev_ = 0;
    bool have_host_root_ = false;  // identity of the host root, to tell a container's root from it
    dev_t host_root_dev_ = 0;
    ino_t host_root_ino_ = 0;
    Buffer buf_;
    ModuleFiles files_;
    std::string key_;  // a module's file key, built here for the lookup
    std::unordered_map<std::string_view, std::shared_ptr<const std::string>> envs_;
    bool cache_on_ = false;  // the live host's procfs: processes are remembered
    bool watched_ = false;   // exec and uid changes arrive as events
    dev_t proc_dev_ = 0;
    int64_t now_ = 0;
    ProcessEntries kept_;
    UserNames users_{root_};
};

}  // namespace

int32_t collect_processes(const HostRoot& root, std::vector<AM::ProcessInfo>& out) {
    return guarded(out, [&] {
        Collector c(root);
        return c.run(out);
    });
}

}  // namespace amsvc
