#include "process/process_cache.h"

#include <time.h>

namespace amsvc {

bool process_unchanged(const ProcessCacheEntry& e, int32_t pid, const procfs::Stat& now, int64_t now_secs) {
    const procfs::Stat& was = e.stat;
    if (now.starttime != was.starttime) return false;  // another process under a reused pid
    if (((now.flags & procfs::kPfKthread) != 0) != e.kthread) return false;
    // exec builds a new address space: with address randomisation the stack
    // and code move on every exec; without it the executable's identity,
    // checked by the caller, still tells another program.
    if (now.startcode != was.startcode || now.endcode != was.endcode || now.startstack != was.startstack ||
        now.arg_start != was.arg_start || now.arg_end != was.arg_end || now.env_start != was.env_start ||
        now.env_end != was.env_end)
        return false;
    // dlopen and dlclose map and unmap: the size moves. A process that
    // keeps it equal on purpose is caught by the periodic full read.
    if (now.vsize != was.vsize) return false;
    const int64_t period = kProcessRecheckSecs + static_cast<int64_t>(static_cast<uint32_t>(pid) % kProcessRecheckSecs);
    return now_secs >= e.checked && now_secs - e.checked < period;
}

int64_t monotonic_secs() {
    struct timespec ts;
    if (::clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return 0;
    return static_cast<int64_t>(ts.tv_sec);
}

ProcessCache& ProcessCache::instance() {
    static ProcessCache* cache = new ProcessCache;  // never destroyed: no exit-order hazard
    return *cache;
}

ProcessEntries ProcessCache::take(dev_t proc_dev) {
    std::lock_guard<std::mutex> lock(mu_);
    ProcessEntries out;
    if (dev_ == proc_dev) out.swap(entries_);
    entries_.clear();
    return out;
}

void ProcessCache::put(dev_t proc_dev, ProcessEntries&& entries) {
    std::lock_guard<std::mutex> lock(mu_);
    dev_ = proc_dev;
    entries_ = std::move(entries);
}

}  // namespace amsvc
