// Installed packages against dpkg-query, and file hashing against a plain
// read of the same files. Run by hand: figures are ratios to a peer measured
// in the same run, on the same (noisy, shared) machine.
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "bench_util.h"
#include "collectors.h"
#include "core/digest_cache.h"
#include "core/file_facts.h"
#include "packages/package_index_impl.h"

extern char** environ;

using namespace amsvc;
using ambench::Clock;

namespace {

using ambench::seconds_since;

template <class F>
double median_of_5(F f) {
    return ambench::median_ms(f) / 1e3;
}

void run_dpkg_query() {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>("dpkg-query"), const_cast<char*>("-W"), nullptr};
    pid_t pid;
    if (posix_spawnp(&pid, "dpkg-query", &fa, nullptr, argv, environ) == 0) {
        int st;
        waitpid(pid, &st, 0);
    }
    posix_spawn_file_actions_destroy(&fa);
}

long peak_rss_kib() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

long rss_kib() {
    std::ifstream f("/proc/self/statm");
    long size = 0, resident = 0;
    f >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Every file mapped by any process, once each.
std::vector<std::string> mapped_files() {
    std::set<std::string> paths;
    for (const std::string& pid : list_dir("/proc")) {
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string maps;
        if (read_file("/proc/" + pid + "/maps", maps, 8u << 20) != 0) continue;
        for (std::string_view line : split_lines(maps)) {
            const size_t slash = line.find('/');
            if (slash == std::string_view::npos) continue;
            const std::string_view p = line.substr(slash);
            if (ends_with(p, " (deleted)")) continue;
            paths.emplace(p);
        }
    }
    return std::vector<std::string>(paths.begin(), paths.end());
}

}  // namespace

int main() {
    const HostRoot root("/");
    if (getenv("BENCH_TABLE_ONLY")) {  // for profiling the name table alone
        for (int i = 0; i < 20; ++i) build_package_index(root);
        return 0;
    }
    if (getenv("BENCH_OWNERS_ONLY")) {  // for profiling a fresh process's batch of lookups alone
        std::vector<std::string> files = mapped_files();
        std::vector<FileOwner> owners;
        std::vector<char> owned;
        auto cpu = [] {
            struct timespec ts;
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
            return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
        };
        const long rss0 = rss_kib();
        const double c0 = cpu();
        auto t0 = Clock::now();
        package_index(root);
        const double c1 = cpu(), w1 = seconds_since(t0) * 1e3;
        t0 = Clock::now();
        if (getenv("BENCH_ONE_AT_A_TIME")) {  // as lone lookups ask: the table of every name first
            owners.resize(files.size());
            owned.assign(files.size(), 0);
            for (size_t i = 0; i < files.size(); ++i) owned[i] = package_owner(root, files[i], owners[i]);
        } else {
            package_owners(root, files, owners, owned);
        }
        const double c2 = cpu(), w2 = seconds_since(t0) * 1e3;
        printf("fresh: packages %.1f ms (CPU %.1f), owners of %zu files %.1f ms (CPU %.1f, %zu owned), RSS +%.1f MiB\n",
               w1, c1 - c0, files.size(), w2, c2 - c1, static_cast<size_t>(std::count(owned.begin(), owned.end(), 1)),
               (rss_kib() - rss0) / 1024.0);
        return 0;
    }
    std::vector<AM::SysInstallPackageInfo> pkgs;
    collect_packages(root, pkgs);  // warm the page cache for both
    run_dpkg_query();
    const double ours = median_of_5([&] { collect_packages(root, pkgs); });
    const double theirs = median_of_5(run_dpkg_query);
    printf("packages: %zu  collect_packages %.1f ms  dpkg-query -W %.1f ms  ratio %.2f (lower is better)\n",
           pkgs.size(), ours * 1e3, theirs * 1e3, ours / theirs);

    const long rss0 = rss_kib();
    auto t0 = Clock::now();
    const auto index = package_index(root);
    const double build = seconds_since(t0);
    printf("ownership name table: %zu packages, %zu names, built in %.1f ms, holds %.1f MiB, RSS +%.1f MiB\n",
           index->packages(), index->names(), build * 1e3, index->memory_bytes() / 1048576.0,
           (rss_kib() - rss0) / 1024.0);

    const double rebuild = median_of_5([&] { build_package_index(root); });
    printf("name table rebuilt (page cache warm): %.1f ms\n", rebuild * 1e3);

    const std::vector<std::string> files = mapped_files();
    std::vector<FileRef> refs;
    for (const std::string& p : files) refs.push_back(FileRef{p, p, false});
    // Plain read first: it also brings every file into the page cache, so
    // both runs below read from memory and the ratio is the hashing cost.
    uint64_t bytes = 0;
    std::vector<char> buf(1 << 17);
    auto read_all = [&] {
        bytes = 0;
        for (const std::string& p : files) {
            const int fd = open(p.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd < 0) continue;
            ssize_t n;
            while ((n = read(fd, buf.data(), buf.size())) > 0) bytes += static_cast<uint64_t>(n);
            close(fd);
        }
    };
    read_all();
    const double read_once = median_of_5(read_all);
    const double cold = median_of_5([&] {
        digest_cache_clear();
        file_facts_many(root, refs);
    });
    t0 = Clock::now();
    const std::vector<FileFacts> facts = file_facts_many(root, refs);
    const double warm = seconds_since(t0);
    size_t owned = 0, verified = 0, hashed = 0;
    for (const FileFacts& f : facts) {
        owned += !f.company.empty();
        verified += f.verified;
        hashed += !f.md5.empty();
    }
    printf("mapped files: %zu (%.1f MiB), hashed %zu, owned %zu, verified %zu\n", files.size(),
           bytes / 1048576.0, hashed, owned, verified);
    printf("digests cold %.1f ms (%.0f MiB/s)  plain read %.1f ms  ratio %.2f;  warm (cache hits) %.1f ms\n",
           cold * 1e3, bytes / 1048576.0 / cold, read_once * 1e3, cold / read_once, warm * 1e3);
    const OwnershipStats st = ownership_stats(root);
    printf("ownership after: %zu packages' records read, %zu answers remembered, %.2f MiB held\n",
           st.packages_read, st.answers, st.memory_bytes / 1048576.0);
    printf("peak RSS %.1f MiB\n", peak_rss_kib() / 1024.0);
    return 0;
}
