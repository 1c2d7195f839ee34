// Timing and peer-command helpers the benchmark programs share.
#pragma once

#include <fcntl.h>
#include <openssl/evp.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace ambench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Reads each file once and takes MD5 and SHA-256 in the same pass, as a
// collection must at least do; returns seconds, `bytes` the bytes read.
inline double hash_files_once(const std::vector<std::string>& files, uint64_t& bytes) {
    bytes = 0;
    static char buf[1 << 20];
    EVP_MD_CTX* md5 = EVP_MD_CTX_new();
    EVP_MD_CTX* sha = EVP_MD_CTX_new();
    const auto t0 = Clock::now();
    for (const std::string& f : files) {
        const int fd = open(f.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) continue;
        EVP_DigestInit_ex(md5, EVP_md5(), nullptr);
        EVP_DigestInit_ex(sha, EVP_sha256(), nullptr);
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0) {
            EVP_DigestUpdate(md5, buf, static_cast<size_t>(n));
            EVP_DigestUpdate(sha, buf, static_cast<size_t>(n));
            bytes += static_cast<uint64_t>(n);
        }
        unsigned char d[EVP_MAX_MD_SIZE];
        unsigned len;
        EVP_DigestFinal_ex(md5, d, &len);
        EVP_DigestFinal_ex(sha, d, &len);
        close(fd);
    }
    const double t = seconds_since(t0);
    EVP_MD_CTX_free(md5);
    EVP_MD_CTX_free(sha);
    return t;
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
