// os-release, /etc/environment, /proc/meminfo and /proc/cpuinfo.
#include "fuzz_util.h"
#include "system/sysfacts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    (void)amsvc::parse_os_release(t);
    (void)amsvc::parse_environment(t);
    (void)amsvc::parse_meminfo(t);
    (void)amsvc::parse_cpuinfo(t);
    return 0;
}
