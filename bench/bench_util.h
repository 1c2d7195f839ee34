// Timing and peer-command helpers the benchmark programs share.
#pragma once

#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace ambench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Median wall time of `runs` calls of `fn`, in milliseconds: the median,
// because the machine is shared and single runs are noisy.
template <class F>
double median_ms(F&& fn, int runs = 5) {
    std::vector<double> t;
    for (int i = 0; i < runs; ++i) {
        const auto t0 = Clock::now();
        fn();
        t.push_back(seconds_since(t0) * 1e3);
    }
    std::sort(t.begin(), t.end());
    return t.empty() ? 0 : t[t.size() / 2];
}

struct PeerRun {
    int status = -1;  // wait status, -1 when the command could not start
    size_t bytes = 0;
    size_t lines = 0;
};

// Runs a peer through the shell and reads all it prints, as a user of the
// tool waits for all of it.
inline PeerRun run_peer(const std::string& cmd) {
    PeerRun r;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        r.bytes += n;
        r.lines += static_cast<size_t>(std::count(buf, buf + n, '\n'));
    }
    r.status = pclose(p);
    return r;
}

}  // namespace ambench
