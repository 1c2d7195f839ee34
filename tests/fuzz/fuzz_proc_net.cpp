// /proc/net/{tcp,udp,raw}[6] tables, and the socket and namespace link texts.
#include <sys/socket.h>

#include "fuzz_util.h"
#include "network/netlink_collector.h"

using namespace amsvc::netlink;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const unsigned sel = fuzz::take_selector(data, size);
    const Proto proto = static_cast<Proto>(sel % 3);
    const int family = (sel & 4) ? AF_INET6 : AF_INET;
    const std::string_view t = fuzz::text(data, size);
    std::vector<Sock> socks;
    const size_t n = parse_proc_net_table(t, proto, family, socks, 1000);
    if (n != socks.size() || n > 1000) __builtin_trap();
    for (const Sock& s : socks) (void)to_record(s);
    uint64_t id;
    parse_socket_link(t, id);
    parse_ns_link(t, id);
    return 0;
}
