// /proc/<pid>/maps
#include "fuzz_util.h"
#include "process/process_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (amsvc::procfs::Mapping& m : amsvc::procfs::parse_maps(fuzz::text(data, size))) {
        if (m.path.empty() || m.path[0] != '/') __builtin_trap();
        (void)amsvc::procfs::map_files_name(m.start, m.end);
        amsvc::procfs::strip_deleted(m.path);
    }
    return 0;
}
