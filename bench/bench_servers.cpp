// collect_servers with nginx (20 sites) and Apache (20 sites) running, against
// the tools an administrator runs for the same view: `ss -tlnp`, `nginx -T`
// and `apache2ctl -S`. Medians of 5 runs, warm in this process and fresh
// (a new process per run, as a first call after loading the module pays).
// With --dump the records are printed instead; --hold N keeps the servers up N s.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../tests/service/servers/live_servers.h"
#include "bench_util.h"
#include "collectors.h"

namespace {

size_t collect_once() {
    std::vector<amsvc::AM::ServiceInfo> out;
    amsvc::collect_servers(amsvc::HostRoot("/"), out);
    size_t sites = 0;
    for (const auto& s : out) sites += s.hosts.size();
    return out.size() * 1000 + sites;
}

void dump() {
    std::vector<amsvc::AM::ServiceInfo> out;
    const int rc = amsvc::collect_servers(amsvc::HostRoot("/"), out);
    printf("rc=%d records=%zu\n", rc, out.size());
    for (const auto& s : out) {
        printf("pid=%u port=%u type=%u name=%s arch=%s version=%s\n  install=%s exe=%s conf=%s user=%s\n"
               "  data=%s log=%s cwd=%s unit=%s desc=%s\n  cmd=%s\n",
               s.pid, s.port, s.type, s.name.c_str(), s.arch.c_str(), s.version.c_str(), s.install_path.c_str(),
               s.process_path.c_str(), s.configure_path.c_str(), s.exec_user.c_str(), s.data_path.c_str(),
               s.log_path.c_str(), s.current_dir.c_str(), s.srv_name.c_str(), s.desc.c_str(), s.command.c_str());
        for (const auto& h : s.hosts)
            printf("    site %s:%u %s doc=%s log=%s\n", h.ip.c_str(), h.port, h.host.c_str(), h.document.c_str(),
                   h.logpath.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--once") == 0) {
        collect_once();
        return 0;
    }
    const bool dump_only = argc > 1 && strcmp(argv[1], "--dump") == 0;
    amlive::LiveServers live(47100);
    if (!live.start_nginx(20) || !live.start_apache(20)) {
        printf("servers did not start: %s\n", live.log.c_str());
        return 1;
    }
    if (dump_only) {
        dump();
        return 0;
    }
    if (argc > 2 && strcmp(argv[1], "--hold") == 0) {  // keep them running for a look by hand
        printf("running under %s\n", live.dir.c_str());
        fflush(stdout);
        sleep(static_cast<unsigned>(atoi(argv[2])));
        return 0;
    }
    const std::string self = argc > 0 ? argv[0] : "bench_servers";
    const std::string cfgdir = live.dir;
    size_t shape = 0;
    collect_once();  // first call: package index and user names loaded
    const double warm = ambench::median_ms([&] { shape = collect_once(); });
    const double fresh = ambench::median_ms([&] { ambench::run_peer(self + " --once"); });
    size_t lines = 0;
    const double peers = ambench::median_ms([&] {
        lines = ambench::run_peer("ss -tlnp").lines;
        lines += ambench::run_peer("/usr/sbin/nginx -T -c " + cfgdir + "/nginx/nginx.conf -p " + cfgdir +
                                   "/nginx/ 2>/dev/null")
                     .lines;
        lines += ambench::run_peer("APACHE_CONFDIR=" + cfgdir + "/apache apache2ctl -S 2>/dev/null").lines;
    });
    printf("collect_servers warm:  %8.2f ms median of 5 (%zu records, %zu sites)\n", warm, shape / 1000,
           shape % 1000);
    printf("collect_servers fresh: %8.2f ms median of 5 (new process each)\n", fresh);
    printf("ss -tlnp + nginx -T + apache2ctl -S: %8.2f ms median of 5 (%zu lines)\n", peers, lines);
    printf("ratio warm / peers:  %.2f (target <= 0.5)\n", peers > 0 ? warm / peers : 0.0);
    printf("ratio fresh / peers: %.2f (target <= 0.5)\n", peers > 0 ? fresh / peers : 0.0);
    return 0;
}
