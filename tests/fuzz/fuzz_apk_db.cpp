// apk's installed database.
#include "fuzz_util.h"
#include "packages/apk_db.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    for (const amsvc::ApkPackage& p : amsvc::parse_apk_installed(t, true))
        if (p.name.empty()) __builtin_trap();
    unsigned char sha1[20];
    amsvc::decode_apk_checksum(t, sha1);
    return 0;
}
