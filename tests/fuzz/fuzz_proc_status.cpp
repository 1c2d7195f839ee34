// /proc/<pid>/status, /proc/stat, and the NUL-separated cmdline and environ.
#include "fuzz_util.h"
#include "process/process_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    uint32_t uid;
    amsvc::procfs::parse_status_uid(t, uid);
    int64_t btime;
    amsvc::procfs::parse_btime(t, btime);
    const std::string joined = amsvc::procfs::join_nul(t, ' ');
    if (joined.size() > t.size()) __builtin_trap();
    return 0;
}
