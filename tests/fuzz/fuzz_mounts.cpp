// /proc/mounts
#include "fuzz_util.h"
#include "system/sysfacts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const amsvc::MountEntry& m : amsvc::parse_mounts(fuzz::text(data, size))) {
        (void)amsvc::is_pseudo_fs(m.fs_type);
        (void)amsvc::is_remote_fs(m.fs_type);
    }
    return 0;
}
