// Run by hand: each collector against the tool people would run for the same
// facts, median of 5, printed as a ratio (collector time / tool time).
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "bench_util.h"
#include "collectors.h"

using namespace amsvc;

namespace {

double median_ms(int n, const std::function<void()>& f) { return ambench::median_ms(f, n); }

// Runs a shell command, reading all it prints; returns its exit status.
int shell(const std::string& cmd) { return ambench::run_peer("{ " + cmd + "; } 2>/dev/null").status; }

bool have(const char* tool) { return shell(std::string("command -v ") + tool + " >/dev/null") == 0; }

void report(const char* what, double mine, const std::string& peer, double theirs, int peer_status) {
    printf("%-22s %9.2f ms   %-48s %9.2f ms%s   ratio %.3g\n", what, mine, peer.c_str(), theirs,
           peer_status == 0 ? "" : " (exit!=0)", theirs > 0 ? mine / theirs : 0.0);
}

}  // namespace

int main() {
    const HostRoot root("/");
    int st = 0;

    std::vector<AM::AutoRunServInfo> ar;
    collect_autoruns(root, ar);  // warm the digest cache, as a long-lived agent has it
    const double t_ar = median_ms(5, [&] { collect_autoruns(root, ar); });
    const std::string p_ar = "systemctl list-unit-files --root=/ --no-pager";
    const double t_par = median_ms(5, [&] { st = shell(p_ar); });
    report("auto-start", t_ar, p_ar, t_par, st);

    std::vector<AM::SysLoadModuleInfo> km;
    const int krc = collect_kernel_modules(root, km);
    const double t_km = median_ms(5, [&] { collect_kernel_modules(root, km); });
    const double t_pkm = median_ms(5, [&] { st = shell("lsmod"); });
    report("kernel modules", t_km, "lsmod", t_pkm, st);
    if (krc != 0) printf("  (no /proc/modules here: rc %d, %zu modules)\n", krc, km.size());

    AM::SystemInfo si;
    collect_system_facts(root, si);
    const double t_si = median_ms(5, [&] { collect_system_facts(root, si); });
    std::string p_si;
    if (have("facter"))
        p_si = "facter";
    else
        p_si = "hostnamectl; df -B1; ip addr";
    const double t_psi = median_ms(have("facter") ? 3 : 5, [&] { st = shell(p_si); });
    report("system facts", t_si, p_si, t_psi, st);
    if (p_si == "facter") {
        const std::string lite = "hostnamectl; df -B1; ip addr";
        const double t_lite = median_ms(5, [&] { st = shell(lite); });
        report("system facts", t_si, lite, t_lite, st);
    }
    const double warm = median_ms(21, [&] { collect_system_facts(root, si); });
    printf("collect_system_facts warm: %.3f ms (median of 21; %zu cards, %zu disks)\n", warm,
           si.network_card.size(), si.disk.size());
    return 0;
}
