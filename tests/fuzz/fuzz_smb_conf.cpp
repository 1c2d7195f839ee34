// Samba's smb.conf
#include "fuzz_util.h"
#include "system/sysfacts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const amsvc::AM::NetShareInfo& s : amsvc::parse_smb_conf(fuzz::text(data, size)))
        if (s.name.empty() || s.max_conn == 0 || s.max_conn < -1) __builtin_trap();
    return 0;
}
