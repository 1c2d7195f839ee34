// What a user meets, as whole processes: build/bin/assetman-run running a
// tiny Lua script, fresh (a new process, every cache empty) and warm (more
// calls in the same process), each paired with its peer run right after it,
// medians of the pairs, printed as ratios (ours / peer; below 1: faster), with
// the floor beside them: the runner's own start, a bare /proc scan, and
// reading and hashing every distinct mapped file once in this process.
//
//   usage: bench_whole [--extra N] [--scale] [--runs N] [--peer bench/process_peer.py]
//                      [--json examples/inventory_json.lua]
//   --extra N   start N extra processes first (sleep, cat from a pipe, sh
//               reading a pipe, python3), as a busy host has them
//   --scale     also the scale points: processes grown to 5,000 (warm call and
//               the JSON inventory against its peer pipeline), sockets from
//               2,000 to 20,000 on loopback, with the growth of each
// Run as root from the source tree for the full view.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <dirent.h>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "bench_util.h"
#include "core/common.h"
#include "packages/package_index_impl.h"

namespace {

using ambench::Clock;
using ambench::seconds_since;

struct Run {
    double secs = -1;
    long maxrss_kib = 0;  // of the process, or of the largest process of a pipeline
    int status = -1;
};

// Runs argv (through /bin/sh -c when given one string) with stdout to
// /dev/null, waits, and reports wall time and peak RSS.
Run spawn(const std::vector<std::string>& argv) {
    Run r;
    const auto t0 = Clock::now();
    const pid_t pid = fork();
    if (pid < 0) return r;
    if (pid == 0) {
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (null < 0) _exit(126);
        dup2(null, 1);
        if (!getenv("BENCH_VERBOSE")) dup2(null, 2);
        std::vector<char*> a;
        for (const std::string& s : argv) a.push_back(const_cast<char*>(s.c_str()));
        a.push_back(nullptr);
        execvp(a[0], a.data());
        _exit(127);
    }
    struct rusage ru;
    int status = 0;
    if (wait4(pid, &status, 0, &ru) != pid) return r;
    r.secs = seconds_since(t0);
    r.maxrss_kib = ru.ru_maxrss;
    r.status = status;
    return r;
}

Run shell(const std::string& cmd) { return spawn({"/bin/sh", "-c", cmd}); }

// Runs argv and returns the first number it prints (or -1).
double spawn_number(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        std::vector<char*> a;
        for (const std::string& s : argv) a.push_back(const_cast<char*>(s.c_str()));
        a.push_back(nullptr);
        execvp(a[0], a.data());
        _exit(127);
    }
    close(fds[1]);
    char buf[256];
    const ssize_t n = pid > 0 ? read(fds[0], buf, sizeof buf - 1) : -1;
    close(fds[0]);
    if (pid > 0) waitpid(pid, nullptr, 0);
    if (n <= 0) return -1;
    buf[n] = 0;
    return atof(buf);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

struct Pair {
    double ours = 0, peer = 0;
    long ours_rss = 0, peer_rss = 0;
    double ratio() const { return peer > 0 ? ours / peer : 0; }
};

// `runs` pairs, ours then the peer each time, so load on a shared host hits both alike.
template <class A, class B>
Pair paired(int runs, A&& ours, B&& peer) {
    std::vector<double> o, p;
    Pair r;
    for (int i = 0; i < runs; ++i) {
        const Run a = ours();
        const Run b = peer();
        o.push_back(a.secs);
        p.push_back(b.secs);
        r.ours_rss = std::max(r.ours_rss, a.maxrss_kib);
        r.peer_rss = std::max(r.peer_rss, b.maxrss_kib);
    }
    r.ours = median(o);
    r.peer = median(p);
    return r;
}

// ---- the host made busy ------------------------------------------------------

std::vector<pid_t> g_children;
std::vector<int> g_pipes;  // write ends keeping cat and sh waiting

pid_t start_child(const std::vector<const char*>& argv, int in_fd) {
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (in_fd >= 0) dup2(in_fd, 0);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        std::vector<char*> a;
        for (const char* s : argv) a.push_back(const_cast<char*>(s));
        a.push_back(nullptr);
        execv(a[0], a.data());
        _exit(127);
    }
    if (pid > 0) g_children.push_back(pid);
    return pid;
}

// n more processes of several programs; python3 (the heavy one) at most `max_python`.
void start_extra(int n, int max_python) {
    int python = 0;
    for (int i = 0; i < n; ++i) {
        const int kind = i % 4;
        if (kind == 0 || (kind == 3 && python >= max_python)) {
            start_child({"/bin/sleep", "3600"}, -1);
        } else if (kind == 1 || kind == 2) {
            int fds[2];
            if (pipe2(fds, O_CLOEXEC) != 0) break;
            if (kind == 1)
                start_child({"/bin/cat"}, fds[0]);
            else
                start_child({"/bin/sh", "-c", "read x"}, fds[0]);
            close(fds[0]);
            g_pipes.push_back(fds[1]);
        } else {
            ++python;
            start_child({"/usr/bin/python3", "-c", "import time; time.sleep(3600)"}, -1);
        }
    }
    usleep(500000 + 200 * n);  // let them exec
}

void stop_extra() {
    for (pid_t p : g_children) kill(p, SIGKILL);
    for (pid_t p : g_children) waitpid(p, nullptr, 0);
    for (int fd : g_pipes) close(fd);
    g_children.clear();
    g_pipes.clear();
}

size_t count_pids() {
    size_t n = 0;
    DIR* d = opendir("/proc");
    while (struct dirent* e = d ? readdir(d) : nullptr)
        if (e->d_name[0] >= '1' && e->d_name[0] <= '9') ++n;
    if (d) closedir(d);
    return n;
}

// Loopback sockets held by this process: half TCP listeners, half UDP.
std::vector<int> g_sockets;
void hold_sockets(size_t n) {
    struct rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < n + 1024) {
        rl.rlim_cur = rl.rlim_max = std::max<rlim_t>(rl.rlim_max, n + 1024);
        setrlimit(RLIMIT_NOFILE, &rl);
        getrlimit(RLIMIT_NOFILE, &rl);  // what we got: leave room for the runs' own descriptors
        if (rl.rlim_cur < n + 64) n = rl.rlim_cur > 64 ? rl.rlim_cur - 64 : 0;
    }
    while (g_sockets.size() < n) {
        const bool tcp = g_sockets.size() % 2 == 0;
        const int fd = socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
        if (fd < 0) break;
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || (tcp && listen(fd, 4) != 0)) {
            close(fd);
            break;
        }
        g_sockets.push_back(fd);
    }
}

// ---- the floor ---------------------------------------------------------------

// A bare /proc scan: every process's stat, once.
double proc_scan() {
    const auto t0 = Clock::now();
    DIR* d = opendir("/proc");
    char buf[4096];
    while (struct dirent* e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
        const std::string p = std::string("/proc/") + e->d_name + "/stat";
        const int fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        if (read(fd, buf, sizeof buf) < 0) buf[0] = 0;
        close(fd);
    }
    if (d) closedir(d);
    return seconds_since(t0);
}

// Distinct files mapped by any process, each as one process reaches it.
std::vector<std::string> mapped_files() {
    std::set<std::string> seen;
    std::vector<std::string> out;
    DIR* d = opendir("/proc");
    while (struct dirent* e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
        std::ifstream maps(std::string("/proc/") + e->d_name + "/maps");
        std::string line;
        while (std::getline(maps, line)) {
            const size_t slash = line.find('/');
            if (slash == std::string::npos || line.find(" (deleted)") != std::string::npos) continue;
            const std::string path = line.substr(slash);
            if (seen.insert(path).second) out.push_back(std::string("/proc/") + e->d_name + "/root" + path);
        }
    }
    if (d) closedir(d);
    return out;
}

// The package index work of a first collection, each run in a fresh child:
// the packages, then the owners of every mapped file. Medians over `runs`.
struct IndexRun {
    double table = 0, ask = 0, cpu = 0, rss_mib = 0, held_mib = 0;
    size_t packages = 0, owned = 0, packages_read = 0;
};

bool package_index_once(const std::vector<std::string>& files, IndexRun& r) {
    int fds[2];
    if (pipe(fds) != 0) return false;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        auto rss = [] {
            std::ifstream st("/proc/self/statm");
            long size = 0, res = 0;
            st >> size >> res;
            return res * (sysconf(_SC_PAGESIZE) / 1024);
        };
        auto cpu = [] {
            struct timespec ts;
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
            return ts.tv_sec + ts.tv_nsec / 1e9;
        };
        const amsvc::HostRoot root("/");
        const long rss0 = rss();
        const double c0 = cpu();
        IndexRun out;
        auto t0 = Clock::now();
        amsvc::package_index(root);
        out.table = seconds_since(t0);
        t0 = Clock::now();
        // As a collection asks: every mapped file at once.
        std::vector<std::string> paths;
        for (const std::string& f : files) paths.push_back(f.substr(f.find("/root/") + 5));
        std::vector<amsvc::FileOwner> owners;
        std::vector<char> ok;
        amsvc::package_owners(root, paths, owners, ok);
        out.ask = seconds_since(t0);
        out.cpu = cpu() - c0;
        out.owned = static_cast<size_t>(std::count(ok.begin(), ok.end(), 1));
        const amsvc::OwnershipStats st = amsvc::ownership_stats(root);
        out.packages = st.packages;
        out.packages_read = st.packages_read;
        out.rss_mib = (rss() - rss0) / 1024.0;
        out.held_mib = st.memory_bytes / 1048576.0;
        if (write(fds[1], &out, sizeof out) != static_cast<ssize_t>(sizeof out)) _exit(1);
        _exit(0);
    }
    close(fds[1]);
    const ssize_t n = read(fds[0], &r, sizeof r);
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return n == static_cast<ssize_t>(sizeof r);
}

void package_index_fresh(const std::vector<std::string>& files, int runs) {
    std::vector<double> total, table, ask, cpu, rss;
    IndexRun r;
    for (int i = 0; i < runs; ++i) {
        if (!package_index_once(files, r)) continue;
        total.push_back(r.table + r.ask);
        table.push_back(r.table);
        ask.push_back(r.ask);
        cpu.push_back(r.cpu);
        rss.push_back(r.rss_mib);
    }
    if (total.empty()) return;
    printf("package index, fresh process (median of %zu): %.1f ms (CPU %.1f ms) = packages %.1f ms (%zu packages) + "
           "owners of %zu mapped files %.1f ms (one pass, %zu owned, %zu packages read), RSS +%.1f MiB, held %.2f MiB\n",
           total.size(), median(total) * 1e3, median(cpu) * 1e3, median(table) * 1e3, r.packages, files.size(),
           median(ask) * 1e3, r.owned, r.packages_read, median(rss), r.held_mib);
}

std::string g_runner, g_dir;

void write_script(const std::string& name, const std::string& text) { std::ofstream(g_dir + "/" + name) << text; }

// A runner that has loaded the module and waits on its standard input: while
// it lives, the files it maps (the module, the service library, Lua) are
// among the host's mapped files, as they are while a collection runs and
// hashes its own process's files too.
struct IdleRunner {
    pid_t pid = -1;
    int in = -1;
    IdleRunner() {
        write_script("idle.lua", "io.write('loaded\\n') io.flush() io.read('*l')\n");
        int to[2], from[2];
        if (pipe(to) != 0) return;
        if (pipe(from) != 0) {
            close(to[0]);
            close(to[1]);
            return;
        }
        pid = fork();
        if (pid == 0) {
            dup2(to[0], 0);
            dup2(from[1], 1);
            for (int fd : {to[0], to[1], from[0], from[1]}) close(fd);
            execl(g_runner.c_str(), g_runner.c_str(), (g_dir + "/idle.lua").c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(to[0]);
        close(from[1]);
        in = to[1];
        char c;
        if (pid > 0 && read(from[0], &c, 1) < 0) c = 0;  // it has loaded the module
        close(from[0]);
    }
    ~IdleRunner() {
        if (in >= 0) close(in);
        if (pid > 0) waitpid(pid, nullptr, 0);
        unlink((g_dir + "/idle.lua").c_str());
    }
};

Run ours(const std::string& script, const std::string& arg = "") {
    std::vector<std::string> a = {g_runner, g_dir + "/" + script};
    if (!arg.empty()) a.push_back(arg);
    return spawn(a);
}

// Warm per-call time, timed by the script itself after a first call:
// /proc/uptime (10 ms steps) around k more calls.
double warm_per_call(int k, int runs) {
    std::vector<double> t;
    for (int i = 0; i < runs; ++i) t.push_back(spawn_number({g_runner, g_dir + "/warm.lua", std::to_string(k)}));
    return median(t);
}

// System calls per process per warm call: `strace -f -c` of the runner
// making 1 and then 1 + k calls, the difference over k calls and the
// processes listed. Negative when strace is missing.
double warm_syscalls(int k) {
    auto total = [&](int calls) -> double {
        const std::string out = g_dir + "/strace.txt";
        const Run r = spawn({"strace", "-f", "-c", "-o", out, g_runner, g_dir + "/warm.lua", std::to_string(calls)});
        if (r.status != 0) return -1;
        FILE* f = fopen(out.c_str(), "r");
        if (!f) return -1;
        char line[512];
        double calls_total = -1;
        while (fgets(line, sizeof line, f)) {
            double pct, secs;
            long usecs, n;
            // "100.00    0.430675          11     36309       540 total"
            if (strstr(line, " total") && sscanf(line, "%lf %lf %ld %ld", &pct, &secs, &usecs, &n) == 4)
                calls_total = static_cast<double>(n);
        }
        fclose(f);
        unlink(out.c_str());
        return calls_total;
    };
    if (system("command -v strace >/dev/null 2>&1") != 0) return -1;
    const double base = total(0), more = total(k);
    if (base < 0 || more < 0) return -1;
    return (more - base) / k / static_cast<double>(count_pids());
}

const char* const kPsPeer = "ps -eo user,pid,ppid,lstart,time,args";

void print_pair(const char* what, const char* peer, const Pair& p) {
    printf("%-44s ours %8.1f ms  %-38s %8.1f ms  ratio %.2f\n", what, p.ours * 1e3, peer, p.peer * 1e3, p.ratio());
}

void sockets_point(size_t n, int runs, double& ours_ms, double& ss_ms) {
    hold_sockets(n);
    const Pair p = paired(runs, [] { return ours("netlink.lua"); }, [] { return shell("ss -tunap"); });
    ours_ms = p.ours * 1e3;
    ss_ms = p.peer * 1e3;
    printf("sockets %6zu: netlink collection (fresh process) %8.1f ms, ss -tunap %8.1f ms, ratio %.2f\n",
           g_sockets.size(), ours_ms, ss_ms, p.ratio());
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is measured
    int extra = 0, runs = 5;
    bool scale = false;
    std::string peer = "bench/process_peer.py", json = "examples/inventory_json.lua";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--extra" && i + 1 < argc) extra = atoi(argv[++i]);
        else if (a == "--runs" && i + 1 < argc) runs = std::max(1, atoi(argv[++i]));
        else if (a == "--scale") scale = true;
        else if (a == "--peer" && i + 1 < argc) peer = argv[++i];
        else if (a == "--json" && i + 1 < argc) json = argv[++i];
        else {
            fprintf(stderr, "usage: bench_whole [--extra N] [--scale] [--runs N] [--peer P] [--json J]\n");
            return 2;
        }
    }
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return 1;
    self[n] = 0;
    g_runner = std::string(self).substr(0, std::string(self).rfind('/')) + "/assetman-run";
    if (access(g_runner.c_str(), X_OK) != 0 || access(peer.c_str(), R_OK) != 0 || access(json.c_str(), R_OK) != 0) {
        fprintf(stderr, "need %s, %s and %s (build assetman-run; run from the source tree)\n", g_runner.c_str(),
                peer.c_str(), json.c_str());
        return 2;
    }
    char tmpl[] = "/tmp/bench_whole.XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    g_dir = tmpl;
    write_script("empty.lua", "local am = api.assetman\n");
    write_script("procs.lua",
                 "local am, k = api.assetman, tonumber((...)) or 1\n"
                 "for i = 1, k do\n"
                 "  local l = vector_assetman__ProcessInfo_:new_local()\n"
                 "  am.collect_process_asset(l)\n"
                 "end\n");
    write_script("warm.lua",
                 "local am, k = api.assetman, tonumber((...)) or 5\n"
                 "local function collect() am.collect_process_asset(vector_assetman__ProcessInfo_:new_local()) end\n"
                 "local function uptime() local f = io.open('/proc/uptime'); local t = f:read('*n'); f:close(); return t end\n"
                 "collect()\n"
                 "local t0 = uptime()\n"
                 "for i = 1, k do collect() end\n"
                 "io.write(string.format('%.6f\\n', (uptime() - t0) / k))\n");
    write_script("cronauto.lua",
                 "local am = api.assetman\n"
                 "am.collect_cron_asset(vector_assetman__CronInfo_:new_local())\n"
                 "am.collect_auto_run_serv_asset(vector_assetman__AutoRunServInfo_:new_local())\n");
    write_script("netlink.lua",
                 "api.assetman.collect_netlink_asset(vector_assetman__NetLinkInfo_:new_local())\n");
    const std::string psutil = "/usr/bin/python3 " + peer;

    if (extra > 0) start_extra(extra, extra);
    printf("host: %zu processes (%d started by this benchmark), %d runs each, medians of pairs\n", count_pids(),
           extra, runs);

    // The floor of a fresh process collection.
    std::vector<double> start, scan;
    for (int i = 0; i < runs; ++i) {
        start.push_back(ours("empty.lua").secs);
        scan.push_back(proc_scan());
    }
    std::vector<std::string> files;
    uint64_t bytes = 0;
    std::vector<double> hashes;
    {
        const IdleRunner runner;  // its files are reached through its /proc entry
        files = mapped_files();
        ambench::hash_files_once(files, bytes);  // the page cache, as every other run meets it
        for (int i = 0; i < runs; ++i) hashes.push_back(ambench::hash_files_once(files, bytes));
    }
    const double floor_s = median(start) + median(scan) + median(hashes);
    printf("floor: runner start %.1f ms + /proc scan %.1f ms + hashing %zu distinct mapped files (the runner's own too) once "
           "(%.1f MiB) %.1f ms = %.1f ms\n",
           median(start) * 1e3, median(scan) * 1e3, files.size(), bytes / 1048576.0, median(hashes) * 1e3,
           floor_s * 1e3);

    package_index_fresh(files, runs);

    const Pair fresh = paired(runs, [] { return ours("procs.lua", "1"); }, [&] { return shell(psutil); });
    print_pair("processes+modules+digests, fresh process", "psutil + hashlib script", fresh);
    printf("%-44s ours/floor %.2f, peak RSS ours %.1f MiB, peer %.1f MiB\n", "", fresh.ours / floor_s,
           fresh.ours_rss / 1024.0, fresh.peer_rss / 1024.0);

    const double warm = warm_per_call(5, runs);
    std::vector<double> ps;
    for (int i = 0; i < runs; ++i) ps.push_back(shell(kPsPeer).secs);
    printf("%-44s ours %8.1f ms  %-38s %8.1f ms  ratio %.2f\n", "processes, warm call (per call)", warm * 1e3,
           kPsPeer, median(ps) * 1e3, warm / median(ps));
    printf("%-44s %.1f system calls per process per warm call (strace -f -c, 10 calls)\n", "",
           warm_syscalls(10));

    const Pair cron =
        paired(runs, [] { return ours("cronauto.lua"); }, [] { return shell("systemctl list-unit-files"); });
    print_pair("cron + auto-start, fresh process", "systemctl list-unit-files", cron);

    if (scale) {
        const size_t base = count_pids();
        const double warm_base = warm_per_call(5, runs);
        // Up to 5,000 processes, python3 kept to 100 of them.
        if (base < 5000) start_extra(static_cast<int>(5000 - base), 100);
        const size_t big = count_pids();
        const double warm_big = warm_per_call(3, std::max(1, runs / 2));
        printf("growth, processes %zu -> %zu: warm call %.1f -> %.1f ms, per process %.3f -> %.3f ms "
               "(x%.2f per process; 1.00 is linear)\n",
               base, big, warm_base * 1e3, warm_big * 1e3, warm_base * 1e3 / base, warm_big * 1e3 / big,
               (warm_big / big) / (warm_base / base));
        std::vector<double> ps_big;
        for (int i = 0; i < std::max(1, runs / 2); ++i) ps_big.push_back(shell(kPsPeer).secs);
        printf("%-44s ours %8.1f ms  %-38s %8.1f ms  ratio %.2f\n", "processes, warm call, 5,000", warm_big * 1e3,
               kPsPeer, median(ps_big) * 1e3, warm_big / median(ps_big));
        printf("%-44s %.1f system calls per process per warm call (strace -f -c, 3 calls)\n", "",
               warm_syscalls(3));

        const std::string pipeline =
            "facter >/dev/null 2>&1; ps -eo user,pid,ppid,lstart,time,args >/dev/null; ss -tunap >/dev/null; "
            "dpkg-query -W >/dev/null; getent passwd >/dev/null; " + psutil + " >/dev/null";
        const Pair inv = paired(runs, [&] { return spawn({g_runner, json}); },
                                [&] { return shell(pipeline); });
        print_pair("inventory_json.lua, all kinds, 5,000 processes", "facter+ps+ss+dpkg-query+getent+psutil", inv);
        printf("%-44s peak RSS ours %.1f MiB, peer's largest process %.1f MiB, ratio %.2f\n", "",
               inv.ours_rss / 1024.0, inv.peer_rss / 1024.0,
               inv.peer_rss ? static_cast<double>(inv.ours_rss) / inv.peer_rss : 0);
        stop_extra();

        double o2k, s2k, o20k, s20k;
        sockets_point(2000, runs, o2k, s2k);
        sockets_point(20000, std::max(1, runs / 2), o20k, s20k);
        printf("growth, sockets 2,000 -> 20,000: ours x%.2f, ss x%.2f (x10 is linear)\n", o20k / o2k, s20k / s2k);
        for (int fd : g_sockets) close(fd);
    }
    stop_extra();
    for (const char* f : {"empty.lua", "procs.lua", "warm.lua", "cronauto.lua", "netlink.lua"}) unlink((g_dir + "/" + f).c_str());
    rmdir(g_dir.c_str());
    return 0;
}
