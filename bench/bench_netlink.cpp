// collect_netlinks against `ss -tunap` on the same host, with a few hundred
// loopback sockets of our own. Prints medians of 5 runs and their ratio.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

#include "bench_util.h"
#include "collectors.h"

namespace {

using ambench::median_ms;

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    return a;
}

uint16_t port_of(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

// Listeners, connected pairs and UDP sockets on 127.0.0.1.
std::vector<int> open_sockets(int pairs) {
    std::vector<int> fds;
    for (int i = 0; i < pairs; ++i) {
        const int l = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(0);
        if (l < 0 || bind(l, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(l, 4) != 0) break;
        fds.push_back(l);
        const int c = socket(AF_INET, SOCK_STREAM, 0);
        a = loopback(port_of(l));
        if (c < 0 || connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) break;
        fds.push_back(c);
        const int s = accept(l, nullptr, nullptr);
        if (s >= 0) fds.push_back(s);
        const int u = socket(AF_INET, SOCK_DGRAM, 0);
        a = loopback(0);
        if (u >= 0 && bind(u, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) fds.push_back(u);
    }
    return fds;
}

}  // namespace

int main() {
    const std::vector<int> fds = open_sockets(100);
    printf("sockets opened: %zu\n", fds.size());

    size_t records = 0;
    const double ours = median_ms([&] {
        std::vector<amsvc::AM::NetLinkInfo> out;
        amsvc::collect_netlinks(amsvc::HostRoot("/"), out);
        records = out.size();
    });
    size_t lines = 0;
    const double ss = median_ms([&] { lines = ambench::run_peer("ss -tunap").lines; });
    printf("collect_netlinks: %8.2f ms median of 5 (%zu records)\n", ours, records);
    printf("ss -tunap:        %8.2f ms median of 5 (%zu lines)\n", ss, lines);
    printf("ratio collect_netlinks / ss: %.2f (target <= 1)\n", ss > 0 ? ours / ss : 0.0);
    for (int fd : fds) close(fd);
    return 0;
}
