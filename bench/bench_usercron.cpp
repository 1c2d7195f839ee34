// Run by hand: median of 5 runs of collect_users against `getent passwd` and
// of collect_crons against `crontab -l`, on this host, with their ratios.
// A ratio below 1 means the collector is faster than its peer.
#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "bench_util.h"
#include "collectors.h"

namespace {

using ambench::median_ms;

size_t run_tool(const char* cmd) { return ambench::run_peer(cmd).bytes; }

}  // namespace

int main() {
    const amsvc::HostRoot root("/");
    size_t users = 0, crons = 0, bytes = 0;
    const double u = median_ms([&] {
        std::vector<amsvc::AM::UserInfo> v;
        amsvc::collect_users(root, v);
        users = v.size();
    });
    const double g = median_ms([&] { bytes = run_tool("getent passwd"); });
    printf("collect_users  %8.3f ms (%zu accounts)\n", u, users);
    printf("getent passwd  %8.3f ms (%zu bytes)\n", g, bytes);
    printf("ratio users/getent  %.3f\n", g > 0 ? u / g : 0.0);

    const double c = median_ms([&] {
        std::vector<amsvc::AM::CronInfo> v;
        amsvc::collect_crons(root, v);
        crons = v.size();
    });
    const double l = median_ms([&] { run_tool("crontab -l 2>/dev/null"); });
    printf("collect_crons  %8.3f ms (%zu jobs)\n", c, crons);
    printf("crontab -l     %8.3f ms (root's table only)\n", l);
    printf("ratio crons/crontab-l  %.3f\n", l > 0 ? c / l : 0.0);
    return 0;
}
