// A package's .list and .md5sums files under /var/lib/dpkg/info.
#include "fuzz_util.h"
#include "packages/dpkg_db.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    size_t files = 0;
    amsvc::parse_dpkg_list(t, [&](std::string_view path) { files += !path.empty(); });
    amsvc::parse_md5sums(t, [&](std::string_view path, const unsigned char* md5) {
        if (path.empty() || path[0] != '/' || !md5) __builtin_trap();
    });
    return 0;
}
