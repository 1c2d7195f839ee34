#include <errno.h>
#include <sys/stat.h>

#include <new>

#include "packages/apk_db.h"
#include "collectors.h"
#include "packages/dpkg_db.h"
#include "packages/rpm_db.h"

namespace amsvc {

namespace {

// The time dpkg last wrote the package's file list: when it was unpacked.
// A distroless image has no lists: its per-package status file tells instead.
std::string dpkg_install_time(const HostRoot& root, const DpkgPackage& p, const std::string& source,
                              bool per_package) {
    const bool same = p.multi_arch == "same";
    struct stat st;
    for (bool with_arch : {same, !same}) {
        const std::string list = "/var/lib/dpkg/info/" + dpkg_info_name(p, with_arch) + ".list";
        if (stat_host(root, list, st) == 0) return format_time(st.st_mtime);
    }
    if (per_package && stat_host(root, source, st, kNoFollow) == 0) return format_time(st.st_mtime);
    return std::string();
}

// 0 when read, -ENOENT when there is no dpkg database, another errno when unreadable.
int collect_dpkg(const HostRoot& root, std::vector<AM::SysInstallPackageInfo>& out) {
    DpkgDb db;
    const int rc = read_dpkg_db(root, db);
    if (rc != 0) return rc;
    for (size_t i = 0; i < db.packages.size(); ++i) {
        DpkgPackage& p = db.packages[i];
        AM::SysInstallPackageInfo r;
        r.name = p.name;
        split_deb_version(p.version, r.version, r.release);
        r.installtime = dpkg_install_time(root, p, db.sources[i], db.per_package);
        r.type = "deb";
        r.size = p.installed_size_kib << 10;
        r.summary = std::move(p.summary);
        r.source = p.source.empty() ? p.name : std::move(p.source);
        r.company = std::move(p.maintainer);
        out.push_back(std::move(r));
    }
    return 0;
}

int collect_rpm(const HostRoot& root, std::vector<AM::SysInstallPackageInfo>& out) {
    return read_rpm_db(root, false, [&](RpmPackage& p) {
        AM::SysInstallPackageInfo r;
        r.name = std::move(p.name);
        r.version = std::move(p.version);
        r.release = std::move(p.release);
        r.installtime = p.installtime > 0 ? format_time(p.installtime) : std::string();
        r.type = "rpm";
        r.size = p.size;
        r.summary = std::move(p.summary);
        r.source = std::move(p.sourcerpm);
        r.installdir = std::move(p.prefix);
        r.company = std::move(p.vendor);
        out.push_back(std::move(r));
    });
}

int collect_apk(const HostRoot& root, std::vector<AM::SysInstallPackageInfo>& out) {
    std::string text;
    const int rc = read_host_file(root, "/lib/apk/db/installed", text);
    if (rc != 0) return rc;
    for (ApkPackage& p : parse_apk_installed(text, false)) {
        AM::SysInstallPackageInfo r;
        r.name = p.name;
        // "1.36.1-r5": the "-rN" package revision goes to release, as for deb.
        split_deb_version(p.version, r.version, r.release);
        r.type = "apk";  // apk records no install time: installtime stays empty
        r.size = p.installed_size;
        r.summary = std::move(p.summary);
        r.source = p.origin.empty() ? p.name : std::move(p.origin);
        r.company = std::move(p.maintainer);
        out.push_back(std::move(r));
    }
    return 0;
}

}  // namespace

int32_t collect_packages(const HostRoot& root, std::vector<AM::SysInstallPackageInfo>& out) {
    return guarded(out, [&]() -> int32_t {
        std::vector<AM::SysInstallPackageInfo> found;
        int first_error = 0;
        bool any_read = false;
        for (auto* reader : {&collect_dpkg, &collect_rpm, &collect_apk}) {
            const int rc = reader(root, found);
            if (rc == 0) {
                any_read = true;
            } else if (rc != -ENOENT && first_error == 0) {
                first_error = rc;
            }
        }
        out.swap(found);
        if (any_read) return 0;
        if (first_error == -EACCES || first_error == -EPERM) return -EACCES;
        return first_error ? -EIO : -ENOENT;
    });
}

}  // namespace amsvc
