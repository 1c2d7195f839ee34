// /proc/net/route, /proc/net/ipv6_route and /proc/net/if_inet6.
#include "fuzz_util.h"
#include "system/sysfacts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    (void)amsvc::parse_route_v4(t);
    (void)amsvc::parse_route_v6(t);
    (void)amsvc::parse_if_inet6(t);
    return 0;
}
