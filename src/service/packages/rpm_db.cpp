#include "packages/rpm_db.h"

#include <errno.h>
#include <fcntl.h>
#include <rpm/header.h>
#include <rpm/rpmdb.h>
#include <rpm/rpmfiles.h>
#include <rpm/rpmlib.h>
#include <rpm/rpmlog.h>
#include <rpm/rpmmacro.h>
#include <rpm/rpmpgp.h>
#include <rpm/rpmtag.h>
#include <rpm/rpmtd.h>
#include <rpm/rpmts.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>

#include "core/lazy_lib.h"

namespace amsvc {

namespace {

constexpr uint64_t kMaxDbBytes = 1ull << 30;      // a database past this is not read
constexpr uint64_t kMaxInMemory = 256ull << 20;   // larger sqlite files are read from a private copy on disk
constexpr size_t kMaxHeaderBlob = 256u << 20;  // rpm's own limit for one header

// librpm (with librpmio, which it loads), opened when an rpm database is
// first met.
struct RpmApi {
    static constexpr const char* kSoname = ASSETMAN_RPM_SONAME;
    decltype(&::headerFree) headerFree;
    decltype(&::headerGet) headerGet;
    decltype(&::headerGetNumber) headerGetNumber;
    decltype(&::headerGetString) headerGetString;
    decltype(&::headerImport) headerImport;
    decltype(&::headerIsEntry) headerIsEntry;
    decltype(&::rpmPopMacro) rpmPopMacro;
    decltype(&::rpmPushMacro) rpmPushMacro;
    decltype(&::rpmReadConfigFiles) rpmReadConfigFiles;
    decltype(&::rpmdbFreeIterator) rpmdbFreeIterator;
    decltype(&::rpmdbNextIterator) rpmdbNextIterator;
    decltype(&::rpmfilesBN) rpmfilesBN;
    decltype(&::rpmfilesDI) rpmfilesDI;
    decltype(&::rpmfilesDN) rpmfilesDN;
    decltype(&::rpmfilesFC) rpmfilesFC;
    decltype(&::rpmfilesFDigest) rpmfilesFDigest;
    decltype(&::rpmfilesFFlags) rpmfilesFFlags;
    decltype(&::rpmfilesFMode) rpmfilesFMode;
    decltype(&::rpmfilesFree) rpmfilesFree;
    decltype(&::rpmfilesNew) rpmfilesNew;
    decltype(&::rpmlogSetMask) rpmlogSetMask;
    decltype(&::rpmtdFree) rpmtdFree;
    decltype(&::rpmtdFreeData) rpmtdFreeData;
    decltype(&::rpmtdNew) rpmtdNew;
    decltype(&::rpmtdNextString) rpmtdNextString;
    decltype(&::rpmtsCreate) rpmtsCreate;
    decltype(&::rpmtsFree) rpmtsFree;
    decltype(&::rpmtsInitIterator) rpmtsInitIterator;
    decltype(&::rpmtsOpenDB) rpmtsOpenDB;
    decltype(&::rpmtsSetRootDir) rpmtsSetRootDir;
    decltype(&::rpmtsSetVSFlags) rpmtsSetVSFlags;
    void bind(SymbolBinder& b) {
        b(headerFree, "headerFree");
        b(headerGet, "headerGet");
        b(headerGetNumber, "headerGetNumber");
        b(headerGetString, "headerGetString");
        b(headerImport, "headerImport");
        b(headerIsEntry, "headerIsEntry");
        b(rpmPopMacro, "rpmPopMacro");
        b(rpmPushMacro, "rpmPushMacro");
        b(rpmReadConfigFiles, "rpmReadConfigFiles");
        b(rpmdbFreeIterator, "rpmdbFreeIterator");
        b(rpmdbNextIterator, "rpmdbNextIterator");
        b(rpmfilesBN, "rpmfilesBN");
        b(rpmfilesDI, "rpmfilesDI");
        b(rpmfilesDN, "rpmfilesDN");
        b(rpmfilesFC, "rpmfilesFC");
        b(rpmfilesFDigest, "rpmfilesFDigest");
        b(rpmfilesFFlags, "rpmfilesFFlags");
        b(rpmfilesFMode, "rpmfilesFMode");
        b(rpmfilesFree, "rpmfilesFree");
        b(rpmfilesNew, "rpmfilesNew");
        b(rpmlogSetMask, "rpmlogSetMask");
        b(rpmtdFree, "rpmtdFree");
        b(rpmtdFreeData, "rpmtdFreeData");
        b(rpmtdNew, "rpmtdNew");
        b(rpmtdNextString, "rpmtdNextString");
        b(rpmtsCreate, "rpmtsCreate");
        b(rpmtsFree, "rpmtsFree");
        b(rpmtsInitIterator, "rpmtsInitIterator");
        b(rpmtsOpenDB, "rpmtsOpenDB");
        b(rpmtsSetRootDir, "rpmtsSetRootDir");
        b(rpmtsSetVSFlags, "rpmtsSetVSFlags");
    }
};

// Only reached once read_rpm_db has seen the libraries loaded.
const RpmApi& rpm() { return *lazy_table<RpmApi>(); }

// libsqlite3, for rpm's sqlite databases, opened with librpm.
struct SqliteApi {
    static constexpr const char* kSoname = ASSETMAN_SQLITE_SONAME;
    decltype(&::sqlite3_close_v2) sqlite3_close_v2;
    decltype(&::sqlite3_column_blob) sqlite3_column_blob;
    decltype(&::sqlite3_column_bytes) sqlite3_column_bytes;
    decltype(&::sqlite3_deserialize) sqlite3_deserialize;
    decltype(&::sqlite3_finalize) sqlite3_finalize;
    decltype(&::sqlite3_open_v2) sqlite3_open_v2;
    decltype(&::sqlite3_prepare_v2) sqlite3_prepare_v2;
    decltype(&::sqlite3_step) sqlite3_step;
    void bind(SymbolBinder& b) {
        b(sqlite3_close_v2, "sqlite3_close_v2");
        b(sqlite3_column_blob, "sqlite3_column_blob");
        b(sqlite3_column_bytes, "sqlite3_column_bytes");
        b(sqlite3_deserialize, "sqlite3_deserialize");
        b(sqlite3_finalize, "sqlite3_finalize");
        b(sqlite3_open_v2, "sqlite3_open_v2");
        b(sqlite3_prepare_v2, "sqlite3_prepare_v2");
        b(sqlite3_step, "sqlite3_step");
    }
};

const SqliteApi& sqlite() { return *lazy_table<SqliteApi>(); }

std::mutex& rpm_mutex() {
    static std::mutex* m = new std::mutex();
    return *m;
}

DigestAlgo algo_of(int pgp) {
    switch (pgp) {
        case PGPHASHALGO_MD5:
            return DigestAlgo::kMd5;
        case PGPHASHALGO_SHA1:
            return DigestAlgo::kSha1;
        case PGPHASHALGO_SHA224:
            return DigestAlgo::kSha224;
        case PGPHASHALGO_SHA256:
            return DigestAlgo::kSha256;
        case PGPHASHALGO_SHA384:
            return DigestAlgo::kSha384;
        case PGPHASHALGO_SHA512:
            return DigestAlgo::kSha512;
        default:
            return DigestAlgo::kNone;
    }
}

std::string str_tag(Header h, rpmTagVal tag) {
    const char* s = rpm().headerGetString(h, tag);
    return s ? std::string(s) : std::string();
}

std::string first_string(Header h, rpmTagVal tag) {
    std::string out;
    rpmtd td = rpm().rpmtdNew();
    if (!td) return out;
    if (rpm().headerGet(h, tag, td, HEADERGET_MINMEM)) {
        const char* s = rpm().rpmtdNextString(td);
        if (s) out = s;
        rpm().rpmtdFreeData(td);
    }
    rpm().rpmtdFree(td);
    return out;
}

void read_files(Header h, std::vector<RpmFile>& out) {
    rpmfiles fi = rpm().rpmfilesNew(nullptr, h, RPMTAG_BASENAMES, RPMFI_FLAGS_QUERY);
    if (!fi) return;
    const rpm_count_t n = rpm().rpmfilesFC(fi);
    out.reserve(n);
    for (rpm_count_t i = 0; i < n; ++i) {
        const int ix = static_cast<int>(i);
        const char* dn = rpm().rpmfilesDN(fi, rpm().rpmfilesDI(fi, ix));
        const char* bn = rpm().rpmfilesBN(fi, ix);
        if (!dn || !bn) continue;
        const rpm_mode_t mode = rpm().rpmfilesFMode(fi, ix);
        if (S_ISDIR(mode)) continue;  // ownership is asked of files only
        RpmFile f;
        f.path = std::string(dn) + bn;
        if (S_ISREG(mode) && !(rpm().rpmfilesFFlags(fi, ix) & RPMFILE_GHOST)) {
            int algo = 0;
            size_t len = 0;
            const unsigned char* d = rpm().rpmfilesFDigest(fi, ix, &algo, &len);
            const DigestAlgo a = algo_of(algo);
            if (d && a != DigestAlgo::kNone && len == digest_size(a)) {
                f.algo = a;
                std::copy(d, d + len, f.digest);
            }
        }
        out.push_back(std::move(f));
    }
    rpm().rpmfilesFree(fi);
}

// Fills `p` from one package header.
void from_header(Header h, bool with_files, RpmPackage& p) {
    p.name = str_tag(h, RPMTAG_NAME);
    p.version = str_tag(h, RPMTAG_VERSION);
    if (rpm().headerIsEntry(h, RPMTAG_EPOCH)) p.version = std::to_string(rpm().headerGetNumber(h, RPMTAG_EPOCH)) + ":" + p.version;
    p.release = str_tag(h, RPMTAG_RELEASE);
    p.installtime = static_cast<time_t>(rpm().headerGetNumber(h, RPMTAG_INSTALLTIME));
    p.size = rpm().headerIsEntry(h, RPMTAG_LONGSIZE) ? rpm().headerGetNumber(h, RPMTAG_LONGSIZE) : rpm().headerGetNumber(h, RPMTAG_SIZE);
    p.summary = str_tag(h, RPMTAG_SUMMARY);
    const size_t nl = p.summary.find('\n');
    if (nl != std::string::npos) p.summary.resize(nl);
    p.sourcerpm = str_tag(h, RPMTAG_SOURCERPM);
    p.prefix = first_string(h, RPMTAG_PREFIXES);
    p.vendor = str_tag(h, RPMTAG_VENDOR);
    if (with_files) read_files(h, p.files);
}

// Counts what a database held and what could be decoded from it.
struct Tally {
    size_t records = 0;
    size_t decoded = 0;
};

// Decodes one stored header blob (as rpm exports it) and hands the package on.
void decode_blob(const void* blob, size_t len, bool with_files, const std::function<void(RpmPackage&)>& fn,
                 Tally& tally) {
    ++tally.records;
    if (len < 8 || len > kMaxHeaderBlob) return;
    Header h = rpm().headerImport(const_cast<void*>(blob), static_cast<unsigned int>(len), HEADERIMPORT_COPY);
    if (!h) return;
    RpmPackage p;
    try {
        from_header(h, with_files, p);
    } catch (...) {
        rpm().headerFree(h);
        throw;
    }
    rpm().headerFree(h);
    if (p.name.empty()) return;
    ++tally.decoded;
    fn(p);
}

// ---- private copies ------------------------------------------------------

// A directory of our own under TMPDIR, removed with its content.
class TempDir {
public:
    TempDir() {
        const char* t = getenv("TMPDIR");
        std::string tmpl = std::string(t && t[0] == '/' ? t : "/tmp") + "/amsvc-rpmdb-XXXXXX";
        if (::mkdtemp(&tmpl[0])) path_ = tmpl;
    }
    ~TempDir() {
        if (path_.empty()) return;
        // Descriptors a failing library left open on our copies go too.
        close_fds_below(path_ + "/");
        for (const std::string& n : list_dir(path_)) ::unlink((path_ + "/" + n).c_str());
        ::rmdir(path_.c_str());
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    static void close_fds_below(const std::string& prefix) {
        for (const std::string& n : list_dir("/proc/self/fd")) {
            int64_t fd;
            if (!parse_i64(n, fd) || fd < 3) continue;
            const std::string t = read_link("/proc/self/fd/" + n);
            if (starts_with(t, prefix)) ::close(static_cast<int>(fd));
        }
    }
    std::string path_;
};

// Copies the open file `from` to `to` (a new file of ours), at most `max` bytes.
int copy_to(int from, const std::string& to, uint64_t max) {
    Fd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (out.get() < 0) return -errno;
    off_t off = 0;
    char buf[1 << 16];
    while (static_cast<uint64_t>(off) < max) {
        const ssize_t n = ::pread(from, buf, sizeof buf, off);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -errno;
        if (n == 0) break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out.get(), buf + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return -EIO;
            done += w;
        }
        off += n;
    }
    return static_cast<uint64_t>(off) < max ? 0 : -EFBIG;
}

// Reads the whole of `fd` (a regular file) into `out`, at most `max` bytes.
int slurp(int fd, std::string& out, uint64_t max) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return -errno;
    if (static_cast<uint64_t>(st.st_size) > max) return -EFBIG;
    out.resize(static_cast<size_t>(st.st_size));
    size_t got = 0;
    while (got < out.size()) {
        const ssize_t n = ::pread(fd, &out[got], out.size() - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -errno;
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    out.resize(got);
    return 0;
}

// ---- sqlite (rpm >= 4.16: RHEL 9, Fedora) --------------------------------

// Rows of the Packages table of an open database.
int sqlite_rows(sqlite3* db, bool with_files, const std::function<void(RpmPackage&)>& fn, Tally& tally) {
    sqlite3_stmt* st = nullptr;
    if (sqlite().sqlite3_prepare_v2(db, "SELECT blob FROM Packages", -1, &st, nullptr) != SQLITE_OK) {
        sqlite().sqlite3_finalize(st);
        return -EIO;
    }
    int rc = 0;
    try {
        for (;;) {
            const int step = sqlite().sqlite3_step(st);
            if (step == SQLITE_DONE) break;
            if (step != SQLITE_ROW) {
                rc = -EIO;
                break;
            }
            const void* blob = sqlite().sqlite3_column_blob(st, 0);
            const int len = sqlite().sqlite3_column_bytes(st, 0);
            decode_blob(blob, len > 0 ? static_cast<size_t>(len) : 0, with_files, fn, tally);
        }
    } catch (...) {
        sqlite().sqlite3_finalize(st);
        throw;
    }
    sqlite().sqlite3_finalize(st);
    return rc;
}

// Never opens the image's file by name: its bytes are read through the
// descriptor found inside the root and handed to sqlite as an in-memory,
// read-only database, so no -shm, -wal or lock is made and a read-only mount
// reads the same. A write-ahead log with content (a crashed or running rpm)
// needs sqlite itself: then both files are copied to a private directory.
int read_sqlite(const HostRoot& root, const std::string& dir, int dbfd, bool with_files,
                const std::function<void(RpmPackage&)>& fn, Tally& tally) {
    Fd wal(open_host_file(root, dir + "/rpmdb.sqlite-wal", kNoFollow));
    struct stat wst;
    const bool use_wal = wal.get() >= 0 && ::fstat(wal.get(), &wst) == 0 && S_ISREG(wst.st_mode) && wst.st_size > 0;
    struct stat dst;
    if (::fstat(dbfd, &dst) != 0) return -errno;
    const bool on_disk = use_wal || static_cast<uint64_t>(dst.st_size) > kMaxInMemory;
    sqlite3* db = nullptr;
    std::string image;
    std::unique_ptr<TempDir> tmp;
    int rc;
    if (!on_disk) {
        rc = slurp(dbfd, image, kMaxInMemory);
        if (rc != 0) return rc;
        if (image.size() < 100 || image.compare(0, 16, std::string("SQLite format 3\0", 16)) != 0) return -EIO;
        image[18] = image[19] = 1;  // a WAL-mode file read as a plain one: its log is empty
        if (sqlite().sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            sqlite().sqlite3_close_v2(db);
            return -ENOMEM;
        }
        if (sqlite().sqlite3_deserialize(db, "main", reinterpret_cast<unsigned char*>(&image[0]),
                                static_cast<sqlite3_int64>(image.size()), static_cast<sqlite3_int64>(image.size()),
                                SQLITE_DESERIALIZE_READONLY) != SQLITE_OK) {
            sqlite().sqlite3_close_v2(db);
            return -EIO;
        }
    } else {
        tmp.reset(new TempDir());
        if (tmp->path().empty()) return -EIO;
        const std::string copy = tmp->path() + "/rpmdb.sqlite";
        if ((rc = copy_to(dbfd, copy, kMaxDbBytes)) != 0 ||
            (use_wal && (rc = copy_to(wal.get(), copy + "-wal", kMaxDbBytes)) != 0))
            return rc == -EFBIG ? -EIO : rc;
        if (!use_wal) {  // our copy, without a log: read as a plain database
            Fd c(::open(copy.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
            const char legacy[2] = {1, 1};
            if (c.get() < 0 || ::pwrite(c.get(), legacy, 2, 18) != 2) return -EIO;
        }
        if (sqlite().sqlite3_open_v2(copy.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW, nullptr) != SQLITE_OK) {
            sqlite().sqlite3_close_v2(db);
            return -EIO;
        }
    }
    try {
        rc = sqlite_rows(db, with_files, fn, tally);
    } catch (...) {
        sqlite().sqlite3_close_v2(db);
        throw;
    }
    sqlite().sqlite3_close_v2(db);
    return rc;
}

// ---- ndb (openSUSE, SLE 15 SP3+) -----------------------------------------
// Packages.db: little-endian. A 16-byte header ("RpmP", version 0,
// generation, number of 4 KiB slot pages), then 16-byte slots ("Slot",
// package index, block offset, block count; index 0 is a free slot) filling
// the slot pages; each package a blob at offset*16: "BlbS", package index,
// generation, length, then the header as rpm exports it.

uint32_t le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

constexpr uint32_t kNdbMagic = 'R' | 'p' << 8 | 'm' << 16 | 'P' << 24;
constexpr uint32_t kSlotMagic = 'S' | 'l' << 8 | 'o' << 16 | 't' << 24;
constexpr uint32_t kBlobMagic = 'B' | 'l' << 8 | 'b' << 16 | 'S' << 24;

}  // namespace

int parse_ndb(std::string_view file, const std::function<void(const void*, size_t)>& blob_fn) {
    const auto* base = reinterpret_cast<const unsigned char*>(file.data());
    if (file.size() < 16 || le32(base) != kNdbMagic || le32(base + 4) != 0) return -EIO;
    const uint64_t pages = le32(base + 12);
    const uint64_t slot_end = std::min<uint64_t>(pages * 4096, file.size());
    if (pages == 0) return -EIO;
    int records = 0;
    for (uint64_t off = 16; off + 16 <= slot_end; off += 16) {
        const unsigned char* s = base + off;
        if (le32(s) != kSlotMagic) continue;
        const uint32_t idx = le32(s + 4);
        const uint64_t blk = le32(s + 8), cnt = le32(s + 12);
        if (idx == 0 || cnt == 0) continue;
        const uint64_t at = blk * 16, span = cnt * 16;
        if (at < slot_end || at + span > file.size() || span < 16) continue;
        const unsigned char* b = base + at;
        const uint64_t len = le32(b + 12);
        if (le32(b) != kBlobMagic || le32(b + 4) != idx || len + 16 > span) continue;
        ++records;
        blob_fn(b + 16, static_cast<size_t>(len));
    }
    return records;
}

namespace {

int read_ndb(int dbfd, bool with_files, const std::function<void(RpmPackage&)>& fn, Tally& tally) {
    std::string image;
    const int rc = slurp(dbfd, image, kMaxInMemory);
    if (rc != 0) return rc == -EFBIG ? -EIO : rc;
    const int n = parse_ndb(image, [&](const void* blob, size_t len) { decode_blob(blob, len, with_files, fn, tally); });
    if (n < 0) return n;
    if (n == 0) tally.records = 0;
    return 0;
}

// ---- Berkeley DB (rpm < 4.16: CentOS 7, RHEL 8) --------------------------
// Read by rpm's own read-only Berkeley DB reader, from a private copy: the
// library opens files by name, and a name in the image could be swapped.
int read_bdb(int dbfd, bool with_files, const std::function<void(RpmPackage&)>& fn, Tally& tally) {
    TempDir tmp;
    if (tmp.path().empty()) return -EIO;
    int rc = copy_to(dbfd, tmp.path() + "/Packages", kMaxDbBytes);
    if (rc != 0) return rc == -EFBIG ? -EIO : rc;
    rpm().rpmPushMacro(nullptr, "_dbpath", nullptr, tmp.path().c_str(), RMIL_CMDLINE);
    rpm().rpmPushMacro(nullptr, "_db_backend", nullptr, "bdb_ro", RMIL_CMDLINE);
    rpmts ts = rpm().rpmtsCreate();
    rc = 0;
    if (!ts) {
        rc = -ENOMEM;
    } else {
        rpm().rpmtsSetRootDir(ts, "/");
        rpm().rpmtsSetVSFlags(ts, RPMVSF_MASK_NODIGESTS | RPMVSF_MASK_NOSIGNATURES | RPMVSF_NOHDRCHK);
        if (rpm().rpmtsOpenDB(ts, O_RDONLY) != 0) {
            rc = -EIO;
        } else {
            rpmdbMatchIterator mi = rpm().rpmtsInitIterator(ts, RPMDBI_PACKAGES, nullptr, 0);
            try {
                Header h;
                while (mi && (h = rpm().rpmdbNextIterator(mi)) != nullptr) {
                    ++tally.records;
                    RpmPackage p;
                    from_header(h, with_files, p);
                    if (p.name.empty()) continue;
                    ++tally.decoded;
                    fn(p);
                }
            } catch (...) {
                rc = -ENOMEM;
            }
            rpm().rpmdbFreeIterator(mi);
        }
        rpm().rpmtsFree(ts);
    }
    rpm().rpmPopMacro(nullptr, "_db_backend");
    rpm().rpmPopMacro(nullptr, "_dbpath");
    return rc;
}

enum class DbKind { kSqlite, kNdb, kBdb };

struct DbFound {
    std::string dir;  // host path of the database directory
    DbKind kind = DbKind::kSqlite;
    Fd fd;            // the database file, opened inside the root
    struct stat st = {};
};

// The first directory with a database file, each reached inside the root.
int find_db(const HostRoot& root, DbFound& found) {
    static const std::pair<const char*, DbKind> kFiles[] = {
        {"rpmdb.sqlite", DbKind::kSqlite}, {"Packages.db", DbKind::kNdb}, {"Packages", DbKind::kBdb}};
    int first_error = -ENOENT;
    for (const char* d : {"/usr/lib/sysimage/rpm", "/var/lib/rpm"}) {
        for (const auto& f : kFiles) {
            const int fd = open_host_file(root, std::string(d) + "/" + f.first, kNoFollow);
            if (fd < 0) {
                if (fd != -ENOENT && fd != -ENOTDIR && first_error == -ENOENT) first_error = fd;
                continue;
            }
            found.fd.reset(fd);
            if (::fstat(fd, &found.st) != 0 || !S_ISREG(found.st.st_mode)) {
                found.fd.reset();
                continue;
            }
            found.dir = d;
            found.kind = f.second;
            return 0;
        }
    }
    return first_error;
}

// A database that could not be read, remembered by its identity: it is not
// opened again until it changes.
struct Failure {
    dev_t dev;
    ino_t ino;
    off_t size;
    struct timespec mtime, ctime;
    int rc;
};

bool same_file(const Failure& f, const struct stat& st) {
    return f.dev == st.st_dev && f.ino == st.st_ino && f.size == st.st_size &&
           f.mtime.tv_sec == st.st_mtim.tv_sec && f.mtime.tv_nsec == st.st_mtim.tv_nsec &&
           f.ctime.tv_sec == st.st_ctim.tv_sec && f.ctime.tv_nsec == st.st_ctim.tv_nsec;
}

std::map<std::string, Failure>& failures() {
    static auto* m = new std::map<std::string, Failure>();
    return *m;
}

}  // namespace

std::string rpm_db_dir(const HostRoot& root) {
    DbFound f;
    return find_db(root, f) == 0 ? f.dir : std::string();
}

int read_rpm_db(const HostRoot& root, bool with_files, const std::function<void(RpmPackage&)>& fn) {
    DbFound db;
    int rc = find_db(root, db);
    if (rc != 0) return rc == -EACCES || rc == -EPERM ? -EACCES : rc;
    // Our librpm or libsqlite3 is not installed: the database is unreadable.
    if (!lazy_table<RpmApi>() || !lazy_table<SqliteApi>()) return -EIO;
    std::lock_guard<std::mutex> lock(rpm_mutex());
    static bool configured = false;
    if (!configured) {
        // The service has no use for rpm's diagnostics on the agent's stderr.
        rpm().rpmlogSetMask(RPMLOG_UPTO(RPMLOG_EMERG));
        if (rpm().rpmReadConfigFiles(nullptr, nullptr) != 0) return -EIO;
        configured = true;
    }
    const std::string key = root.root() + "\n" + db.dir;
    auto& failed = failures();
    auto it = failed.find(key);
    if (it != failed.end()) {
        if (same_file(it->second, db.st)) return it->second.rc;
        failed.erase(it);
    }
    Tally tally;
    // Packages are numbered in the order the database yields them; the
    // number finds a package again while the database is unchanged.
    uint32_t ordinal = 0;
    const std::function<void(RpmPackage&)> numbered = [&](RpmPackage& p) {
        p.hnum = ++ordinal;
        fn(p);
    };
    switch (db.kind) {
        case DbKind::kSqlite:
            rc = read_sqlite(root, db.dir, db.fd.get(), with_files, numbered, tally);
            break;
        case DbKind::kNdb:
            rc = read_ndb(db.fd.get(), with_files, numbered, tally);
            break;
        case DbKind::kBdb:
            rc = read_bdb(db.fd.get(), with_files, numbered, tally);
            break;
    }
    // Records that exist but none readable: the database is broken, not empty.
    if (rc == 0 && tally.records > 0 && tally.decoded == 0) rc = -EIO;
    if (rc == -ENOMEM) return rc;  // worth another try later
    if (rc != 0) {
        if (rc != -EACCES) rc = -EIO;
        if (failed.size() > 256) failed.clear();
        failed[key] = Failure{db.st.st_dev, db.st.st_ino, db.st.st_size, db.st.st_mtim, db.st.st_ctim, rc};
    }
    return rc;
}

int read_rpm_base_names(const HostRoot& root,
                        const std::function<void(uint32_t hnum, const std::string& name, const std::string& vendor,
                                                 const std::vector<std::string_view>& bases)>& fn) {
    std::vector<std::string_view> bases;
    return read_rpm_db(root, true, [&](RpmPackage& p) {
        bases.clear();
        for (const RpmFile& f : p.files) {
            const size_t slash = f.path.rfind('/');
            bases.push_back(std::string_view(f.path).substr(slash == std::string::npos ? 0 : slash + 1));
        }
        fn(p.hnum, p.name, p.vendor, bases);
    });
}

int read_rpm_package_files(const HostRoot& root, uint32_t hnum, std::vector<RpmFile>& out) {
    out.clear();
    bool found = false;
    const int rc = read_rpm_db(root, true, [&](RpmPackage& p) {
        if (p.hnum != hnum) return;
        out = std::move(p.files);
        found = true;
    });
    if (rc != 0) return rc;
    return found ? 0 : -ENOENT;
}

}  // namespace amsvc
