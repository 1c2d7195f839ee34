// Process collector against its peers, run by hand (needs root for a full
// view): starts 300 extra sleeping processes, then prints medians of 5 runs of
//   fresh  collection in a fresh forked child (every cache of the service empty),
//   cold   collection after clearing the digest cache (package index loaded),
//   warm   collection with every digest cached,
//   peer   bench/process_peer.py under /usr/bin/python3 (psutil + hashlib),
//   ps     ps -eo user,pid,ppid,lstart,args,
//   read   reading every distinct module file once with md5 and sha256,
// and the ratios between them, and peak RSS.
//   usage: bench_process [path/to/process_peer.py]
#include <openssl/evp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "bench_util.h"
#include "collectors.h"
#include "core/digest_cache.h"

using namespace amsvc;

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// CPU time of this process, all threads: on a shared host the wall time
// includes waiting for a core.
double cpu_seconds() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

std::vector<pid_t> start_sleepers(int n) {
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl("/bin/sleep", "sleep", "3600", (char*)nullptr);
            _exit(127);
        }
        if (pid > 0) pids.push_back(pid);
    }
    usleep(300000);  // let them exec
    return pids;
}

struct ColdResult {
    double secs = -1;
    long maxrss_kb = 0;
    size_t procs = 0;
};

// One collection in a fresh child: nothing of this process's caches exists there.
ColdResult cold_run() {
    int fds[2];
    ColdResult r;
    if (pipe(fds) != 0) return r;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::vector<AM::ProcessInfo> out;
        const double t0 = now();
        collect_processes(HostRoot("/"), out);
        ColdResult c;
        c.secs = now() - t0;
        c.procs = out.size();
        struct rusage ru;
        getrusage(RUSAGE_SELF, &ru);
        c.maxrss_kb = ru.ru_maxrss;
        if (write(fds[1], &c, sizeof c) != sizeof c) _exit(1);
        _exit(0);
    }
    close(fds[1]);
    if (read(fds[0], &r, sizeof r) != sizeof r) r.secs = -1;
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return r;
}

double run_command(const std::string& cmd, std::string* first_line = nullptr) {
    const double t0 = now();
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    char buf[65536];
    bool first = true;
    while (fgets(buf, sizeof buf, p))
        if (first && first_line) {
            *first_line = buf;
            first = false;
        }
    pclose(p);
    return now() - t0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string peer = argc > 1 ? argv[1] : "bench/process_peer.py";
    if (access(peer.c_str(), R_OK) != 0) {
        fprintf(stderr, "peer script %s not found (pass its path)\n", peer.c_str());
        return 2;
    }
    const std::vector<pid_t> sleepers = start_sleepers(300);
    const int kRuns = 5;

    std::vector<double> fresh, cold, warm, warm_cpu, py, ps, rd;
    long cold_rss = 0;
    size_t procs = 0;
    for (int i = 0; i < kRuns; ++i) {
        const ColdResult c = cold_run();
        fresh.push_back(c.secs);
        cold_rss = std::max(cold_rss, c.maxrss_kb);
        procs = c.procs;
    }

    // Cold runs, each paired with reading the files that very run found, so
    // processes coming and going on a shared host hit both sides alike.
    std::vector<AM::ProcessInfo> out;
    size_t modules = 0, hashed = 0, distinct_files = 0;
    uint64_t cold_bytes = 0, read_bytes = 0;
    for (int i = 0; i < kRuns; ++i) {
        digest_cache_clear();
        const DigestStats before = digest_stats();
        const double t0 = now();
        collect_processes(HostRoot("/"), out);
        cold.push_back(now() - t0);
        cold_bytes = digest_stats().bytes_hashed - before.bytes_hashed;

        // One open path per distinct file as the process sees it.
        std::vector<std::string> distinct;
        std::set<std::string> seen;
        modules = hashed = 0;
        for (const auto& p : out)
            for (const auto& m : p.modules) {
                ++modules;
                hashed += !m.sha256.empty();
                if (!seen.insert(m.path).second) continue;
                std::string bare = m.path;
                if (bare.size() > 10 && bare.compare(bare.size() - 10, 10, " (deleted)") == 0) {
                    if (&m == &p.modules[0]) distinct.push_back("/proc/" + std::to_string(p.pid) + "/exe");
                    continue;  // a deleted library: only its map_files entry reaches it
                }
                distinct.push_back("/proc/" + std::to_string(p.pid) + "/root" + bare);
            }
        distinct_files = distinct.size();
        rd.push_back(ambench::hash_files_once(distinct, read_bytes));
    }
    for (int i = 0; i < kRuns; ++i) {
        const double t0 = now();
        const double c0 = cpu_seconds();
        collect_processes(HostRoot("/"), out);
        warm.push_back(now() - t0);
        warm_cpu.push_back(cpu_seconds() - c0);
    }
    for (int i = 0; i < kRuns; ++i) {
        std::string line;
        run_command("/usr/bin/python3 " + peer, &line);
        py.push_back(atof(line.c_str()));  // the script's own time, interpreter start excluded
        ps.push_back(run_command("ps -eo user,pid,ppid,lstart,args"));
    }

    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    const double f = median(fresh), c = median(cold), w = median(warm), p = median(py), s = median(ps),
                 r = median(rd);
    printf("processes %zu, modules %zu (%zu with digests), distinct files %zu\n", procs, modules, hashed,
           distinct_files);
    printf("bytes hashed by a cold collection %.1f MiB, by the read baseline %.1f MiB\n",
           cold_bytes / 1048576.0, read_bytes / 1048576.0);
    printf("fresh process     %8.1f ms   fresh/read %.2fx\n", f * 1e3, r > 0 ? f / r : 0);
    printf("cold collection   %8.1f ms\n", c * 1e3);
    printf("warm collection   %8.1f ms   (CPU %.1f ms)\n", w * 1e3, median(warm_cpu) * 1e3);
    printf("psutil peer       %8.1f ms   peer/cold %.1fx, peer/fresh %.1fx\n", p * 1e3, c > 0 ? p / c : 0,
           f > 0 ? p / f : 0);
    printf("ps -eo ...        %8.1f ms   warm/ps %.2fx\n", s * 1e3, s > 0 ? w / s : 0);
    printf("read+digest once  %8.1f ms   cold/read %.2fx\n", r * 1e3, r > 0 ? c / r : 0);
    printf("peak RSS: fresh child %ld KiB, this process %ld KiB\n", cold_rss, ru.ru_maxrss);

    for (pid_t pid : sleepers) kill(pid, SIGKILL);
    for (pid_t pid : sleepers) waitpid(pid, nullptr, 0);
    return 0;
}
