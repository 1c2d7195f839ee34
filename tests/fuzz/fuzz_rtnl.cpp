// Routing netlink answers: RTM_NEWLINK and RTM_NEWADDR dumps.
#include "fuzz_util.h"
#include "system/net_cards.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::Aligned buf(data, size);
    std::vector<amsvc::RtLink> links;
    std::vector<amsvc::RtAddr> addrs;
    int err = 0;
    amsvc::parse_rtnl_buffer(buf.data(), buf.size, 1, links, addrs, err);
    return 0;
}
