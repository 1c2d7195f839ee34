// /etc/exports
#include "fuzz_util.h"
#include "system/sysfacts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const amsvc::AM::NetShareInfo& s : amsvc::parse_exports(fuzz::text(data, size)))
        if (s.path.empty() || s.path[0] != '/') __builtin_trap();
    return 0;
}
