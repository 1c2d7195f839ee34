// /proc/<pid>/stat
#include "fuzz_util.h"
#include "process/process_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    amsvc::procfs::Stat st;
    if (amsvc::procfs::parse_stat(fuzz::text(data, size), st))
        (void)amsvc::procfs::format_cpu_time(st.utime + st.stime, 100);
    return 0;
}
