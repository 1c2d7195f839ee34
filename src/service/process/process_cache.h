// What the process collector keeps between collections of the live host:
// per process (pid and start time), what only an exec changes, so that a
// later collection re-reads only what moves (stat, status, cmdline, cwd).
#ifndef ASSETMAN_SERVICE_PROCESS_CACHE_H
#define ASSETMAN_SERVICE_PROCESS_CACHE_H

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/file_facts.h"
#include "process/process_parse.h"

namespace amsvc {

// Fixed from one exec to the next: the executable, the environment as
// reported, and the mapped executable files with how to reach each.
struct ProcessFixed {
    // A mapped executable file as the kernel shows it. How to reach it (a
    // FileRef) is made only when a collection first meets the file: most
    // are libraries that many processes map.
    struct Module {
        std::string shown;      // path as the kernel prints it
        std::string tree_open;  // a tree's deleted file: where its link leads
        bool hashable = false;  // false: process memory (memfd, shared anonymous) or no identity
        bool deleted = false;
        bool exe = false;       // reached by the exe link, not a map_files range
        uint64_t dev = 0, ino = 0;
        uint64_t start = 0, end = 0;  // its mapping (exe by stat: 0 and the size)
    };
    std::string path;  // exe link
    // Formatted and redacted; one copy for all the processes of a
    // collection that have the same (a service's workers). Null: none read.
    std::shared_ptr<const std::string> env;
    std::string name;  // from the exe path, for a process whose comm is empty
    size_t env_cap = 0;  // bytes of environ the read was allowed
    size_t env_raw = 0;  // bytes it gave
    std::vector<Module> modules;
    // Where the modules are reached from.
    std::string proc_dir;   // "/proc/<pid>" as the collection opened it
    std::string jail;       // a chroot's directory, not part of paths inside it
    std::string root_key;   // a tree's: identity of the process's root
    std::string tree_root;  // a tree's: where the process's root link leads
    bool foreign = true;    // a root other than the host's
};

struct ProcessCacheEntry {
    procfs::Stat stat;  // the stat of the last full read: start time and exec layout
    bool kthread = false;
    // Identity of the file the exe link leads to (stat through the link).
    uint64_t exe_dev = 0, exe_ino = 0;
    uint32_t uid = 0;         // served when status is not re-read
    std::string stime;        // the start time as reported
    std::string cwd;          // kernel threads only
    int64_t checked = 0;      // monotonic seconds of the last full read
    std::shared_ptr<const ProcessFixed> fixed;
};

using ProcessEntries = std::unordered_map<int32_t, ProcessCacheEntry>;

// A full read is due at least this often per process, whatever the checks
// below say: it bounds how long a changed module list can go unseen.
constexpr int64_t kProcessRecheckSecs = 30;
// Entries kept at most (a pid space larger than this is served partly fresh).
constexpr size_t kProcessCacheMax = 65536;

// True when `now` (this collection's stat of the pid) is the process the
// entry describes, with the same program image as when it was read in full:
// same start time, no exec since (code, stack, argument and environment
// placement, kernel-thread flag) and no mapping added or removed (total
// virtual size), read within the re-check period (staggered by pid).
bool process_unchanged(const ProcessCacheEntry& e, int32_t pid, const procfs::Stat& now, int64_t now_secs);

// Seconds of CLOCK_MONOTONIC.
int64_t monotonic_secs();

// The entries of one procfs, handed out whole to one collection at a time:
// a concurrent collection meets an empty cache and reads in full, so no
// collection waits on another.
//
// Where the kernel reports them (root in the initial namespaces, Linux 6.6
// or later), exec and uid changes of every process arrive on a process
// events socket kept open between collections; an entry they name is
// dropped, so the collector need not look at each process's executable and
// status to tell them. Events lost (a full socket) drop every entry.
class ProcessCache {
public:
    static ProcessCache& instance();
    // The entries for the procfs `proc_dev`; the cache is left empty.
    // `watched`: exec and uid changes since the entries were read are
    // accounted for (the entries they concern are not handed out).
    ProcessEntries take(dev_t proc_dev, bool& watched);
    // Entries of the live processes of a finished collection.
    void put(dev_t proc_dev, ProcessEntries&& entries);

private:
    void watch();  // opens the events socket once per process
    void drain();  // events so far into dirty_ / lost_
    void forget_dirty(ProcessEntries& entries);

    std::mutex mu_;
    dev_t dev_ = 0;
    ProcessEntries entries_;
    int sock_ = -1;
    pid_t owner_ = 0;   // the process that opened sock_ (a forked child opens its own)
    bool lost_ = false; // events dropped since the last put
    int out_ = 0;       // collections under way
    std::vector<int32_t> dirty_;  // pids exec or uid events named while entries were out
};

}  // namespace amsvc

#endif
