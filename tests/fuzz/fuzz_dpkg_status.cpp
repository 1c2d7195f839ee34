// dpkg's status file.
#include "fuzz_util.h"
#include "packages/dpkg_db.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const amsvc::DpkgPackage& p : amsvc::parse_dpkg_status(fuzz::text(data, size))) {
        if (p.name.empty()) __builtin_trap();
        (void)amsvc::dpkg_is_installed(p.status);
        std::string v, r;
        amsvc::split_deb_version(p.version, v, r);
        (void)amsvc::dpkg_info_name(p, true);
        unsigned char md5[16];
        for (const amsvc::DpkgConffile& c : p.conffiles) amsvc::hex_to_bytes(c.md5, md5, 16);
    }
    return 0;
}
