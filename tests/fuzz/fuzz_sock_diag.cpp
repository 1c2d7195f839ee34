// sock_diag answers: a datagram of inet_diag messages (the first byte picks
// the protocol and whether one bare message is parsed instead).
#include <sys/socket.h>

#include "fuzz_util.h"
#include "network/netlink_collector.h"

using namespace amsvc::netlink;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const unsigned sel = fuzz::take_selector(data, size);
    const Proto proto = static_cast<Proto>(sel % 3);
    const fuzz::Aligned buf(data, size);
    std::vector<Sock> socks;
    if (sel & 0x80) {
        Sock s;
        if (parse_diag_msg(buf.data(), buf.size, proto, s)) socks.push_back(s);
    } else {
        int err = 0;
        parse_diag_buffer(buf.data(), buf.size, 1, proto, socks, err, 64);
        if (socks.size() > 64) __builtin_trap();
    }
    for (const Sock& s : socks) {
        (void)to_record(s);
        (void)state_name(s.proto, s.state);
    }
    return 0;
}
