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

#include <mutex>

namespace amsvc {

namespace {

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
    const char* s = headerGetString(h, tag);
    return s ? std::string(s) : std::string();
}

std::string first_string(Header h, rpmTagVal tag) {
    std::string out;
    rpmtd td = rpmtdNew();
    if (!td) return out;
    if (headerGet(h, tag, td, HEADERGET_MINMEM)) {
        const char* s = rpmtdNextString(td);
        if (s) out = s;
        rpmtdFreeData(td);
    }
    rpmtdFree(td);
    return out;
}

void read_files(Header h, std::vector<RpmFile>& out) {
    rpmfiles fi = rpmfilesNew(nullptr, h, RPMTAG_BASENAMES, RPMFI_FLAGS_QUERY);
    if (!fi) return;
    const rpm_count_t n = rpmfilesFC(fi);
    out.reserve(n);
    for (rpm_count_t i = 0; i < n; ++i) {
        const int ix = static_cast<int>(i);
        const char* dn = rpmfilesDN(fi, rpmfilesDI(fi, ix));
        const char* bn = rpmfilesBN(fi, ix);
        if (!dn || !bn) continue;
        const rpm_mode_t mode = rpmfilesFMode(fi, ix);
        if (S_ISDIR(mode)) continue;  // ownership is asked of files only
        RpmFile f;
        f.path = std::string(dn) + bn;
        if (S_ISREG(mode) && !(rpmfilesFFlags(fi, ix) & RPMFILE_GHOST)) {
            int algo = 0;
            size_t len = 0;
            const unsigned char* d = rpmfilesFDigest(fi, ix, &algo, &len);
            const DigestAlgo a = algo_of(algo);
            if (d && a != DigestAlgo::kNone && len == digest_size(a)) {
                f.algo = a;
                std::copy(d, d + len, f.digest);
            }
        }
        out.push_back(std::move(f));
    }
    rpmfilesFree(fi);
}

bool has_db_files(const std::string& dir) {
    for (const char* f : {"rpmdb.sqlite", "Packages.db", "Packages"}) {
        struct stat st;
        if (::stat((dir + "/" + f).c_str(), &st) == 0 && S_ISREG(st.st_mode)) return true;
    }
    return false;
}

}  // namespace

std::string rpm_db_dir(const HostRoot& root) {
    for (const char* d : {"/usr/lib/sysimage/rpm", "/var/lib/rpm"}) {
        struct stat st;
        // lstat: a link into the real host's /usr from an image must not count.
        if (::lstat(root.path(d).c_str(), &st) == 0 && S_ISDIR(st.st_mode) && has_db_files(root.path(d)))
            return d;
    }
    return std::string();
}

namespace {

// Opens the database of `root` read-only and runs `body` on it; serialised,
// because librpm keeps global state.
int with_rpm_db(const HostRoot& root, const std::function<int(rpmts)>& body) {
    const std::string dbdir = rpm_db_dir(root);
    if (dbdir.empty()) return -ENOENT;
    std::lock_guard<std::mutex> lock(rpm_mutex());
    static bool configured = false;
    if (!configured) {
        // The service has no use for rpm's diagnostics on the agent's stderr.
        rpmlogSetMask(RPMLOG_UPTO(RPMLOG_EMERG));
        if (rpmReadConfigFiles(nullptr, nullptr) != 0) return -EIO;
        configured = true;
    }
    rpmPushMacro(nullptr, "_dbpath", nullptr, dbdir.c_str(), RMIL_CMDLINE);
    rpmts ts = rpmtsCreate();
    int rc = 0;
    if (!ts) {
        rpmPopMacro(nullptr, "_dbpath");
        return -ENOMEM;
    }
    rpmtsSetRootDir(ts, root.root().c_str());
    rpmtsSetVSFlags(ts, RPMVSF_MASK_NODIGESTS | RPMVSF_MASK_NOSIGNATURES | RPMVSF_NOHDRCHK);
    if (rpmtsOpenDB(ts, O_RDONLY) != 0) {
        rc = ::access(root.path(dbdir).c_str(), R_OK) == 0 ? -EIO : -EACCES;
    } else {
        try {
            rc = body(ts);
        } catch (...) {
            rc = -ENOMEM;
        }
    }
    rpmtsFree(ts);
    rpmPopMacro(nullptr, "_dbpath");
    return rc;
}

}  // namespace

int read_rpm_db(const HostRoot& root, bool with_files, const std::function<void(RpmPackage&)>& fn) {
    return with_rpm_db(root, [&](rpmts ts) {
        rpmdbMatchIterator mi = rpmtsInitIterator(ts, RPMDBI_PACKAGES, nullptr, 0);
        Header h;
        int rc = 0;
        try {
            while (mi && (h = rpmdbNextIterator(mi)) != nullptr) {
                RpmPackage p;
                p.name = str_tag(h, RPMTAG_NAME);
                if (p.name.empty()) continue;
                p.hnum = rpmdbGetIteratorOffset(mi);
                p.version = str_tag(h, RPMTAG_VERSION);
                if (headerIsEntry(h, RPMTAG_EPOCH))
                    p.version = std::to_string(headerGetNumber(h, RPMTAG_EPOCH)) + ":" + p.version;
                p.release = str_tag(h, RPMTAG_RELEASE);
                p.installtime = static_cast<time_t>(headerGetNumber(h, RPMTAG_INSTALLTIME));
                p.size = headerIsEntry(h, RPMTAG_LONGSIZE) ? headerGetNumber(h, RPMTAG_LONGSIZE)
                                                           : headerGetNumber(h, RPMTAG_SIZE);
                p.summary = str_tag(h, RPMTAG_SUMMARY);
                const size_t nl = p.summary.find('\n');
                if (nl != std::string::npos) p.summary.resize(nl);
                p.sourcerpm = str_tag(h, RPMTAG_SOURCERPM);
                p.prefix = first_string(h, RPMTAG_PREFIXES);
                p.vendor = str_tag(h, RPMTAG_VENDOR);
                if (with_files) read_files(h, p.files);
                fn(p);
            }
        } catch (...) {
            rc = -ENOMEM;
        }
        rpmdbFreeIterator(mi);
        return rc;
    });
}

int read_rpm_base_names(const HostRoot& root,
                        const std::function<void(uint32_t hnum, const std::string& name, const std::string& vendor,
                                                 const std::vector<std::string_view>& bases)>& fn) {
    return with_rpm_db(root, [&](rpmts ts) {
        rpmdbMatchIterator mi = rpmtsInitIterator(ts, RPMDBI_PACKAGES, nullptr, 0);
        Header h;
        int rc = 0;
        std::vector<std::string_view> bases;
        rpmtd td = rpmtdNew();
        try {
            while (mi && td && (h = rpmdbNextIterator(mi)) != nullptr) {
                const std::string name = str_tag(h, RPMTAG_NAME);
                if (name.empty()) continue;
                bases.clear();
                const bool got = headerGet(h, RPMTAG_BASENAMES, td, HEADERGET_MINMEM);
                if (got) {
                    while (const char* b = rpmtdNextString(td)) bases.emplace_back(b);
                }
                fn(rpmdbGetIteratorOffset(mi), name, str_tag(h, RPMTAG_VENDOR), bases);
                if (got) rpmtdFreeData(td);
            }
        } catch (...) {
            rc = -ENOMEM;
        }
        rpmtdFree(td);
        rpmdbFreeIterator(mi);
        return rc;
    });
}

int read_rpm_package_files(const HostRoot& root, uint32_t hnum, std::vector<RpmFile>& out) {
    out.clear();
    return with_rpm_db(root, [&](rpmts ts) {
        rpmdbMatchIterator mi = rpmtsInitIterator(ts, RPMDBI_PACKAGES, &hnum, sizeof hnum);
        Header h = mi ? rpmdbNextIterator(mi) : nullptr;
        int rc = h ? 0 : -ENOENT;
        try {
            if (h) read_files(h, out);
        } catch (...) {
            rc = -ENOMEM;
        }
        rpmdbFreeIterator(mi);
        return rc;
    });
}

}  // namespace amsvc
