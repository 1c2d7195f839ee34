// The process-wide Linux asset service behind get_am_instance().
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "collectors.h"
#include "libraries/library_walk.h"

namespace amsvc {
namespace {

HostRoot root_from_environment() {
    const char* r = getenv("ASSETMAN_HOST_ROOT");
    return HostRoot(r && *r ? r : "/");
}

// One kind collected into its record(s), guarded: the same call for the
// caller's own list and for the round's worker. `cancel` ends a library walk
// early.
int32_t collect_into(const HostRoot& r, std::vector<AM::ProcessInfo>& l) {
    return guarded(l, [&] { return collect_processes(r, l); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::NetLinkInfo>& l) {
    return guarded(l, [&] { return collect_netlinks(r, l); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::ServiceInfo>& l) {
    return guarded(l, [&] { return collect_servers(r, l); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::UserInfo>& l) {
    return guarded(l, [&] { return collect_users(r, l); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::SysInstallPackageInfo>& l) {
    return guarded(l, [&] { return collect_packages(r, l); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::AutoRunServInfo>& l) {
    return guarded(l, [&] { return collect_autoruns(r, l); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::CronInfo>& l) {
    return guarded(l, [&] { return collect_crons(r, l); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::SysLoadModuleInfo>& l) {
    return guarded(l, [&] { return collect_kernel_modules(r, l); });
}
int32_t collect_into(const HostRoot& r, AM::SystemInfo& info) {
    return guarded([&] { return collect_system_facts(r, info); });
}
int32_t collect_into(const HostRoot& r, AM::DockerInfo& d) {
    return guarded([&] { return collect_engine(r, d); });
}
int32_t collect_into(const HostRoot& r, std::vector<AM::ThirdPartDevLibInfo>& l,
                     const std::atomic<bool>* cancel = nullptr) {
    LibraryLimits lim;
    lim.cancel = cancel;
    return guarded(l, [&] { return collect_libraries(r, l, lim); });
}

// A collection round, from init to release: an agent takes its inventory
// kind after kind from one script, so while it reads one answer, one
// background worker makes the next. The worker goes through the kinds in the
// order below, the costliest first; a call takes the answer made for it (or
// waits while it is being made), and collects by itself when the worker has
// not started its kind yet. An answer is used once, and only within kMaxAge
// of being made: after that, or once taken, every call asks the host again.
class Round {
public:
    enum Kind {
        kLibraries,
        kAutoruns,
        kServers,
        kNetlinks,
        kPackages,
        kEngine,
        kSystem,
        kModules,
        kCrons,
        kUsers,
        kProcesses,
        kKinds
    };

    struct Answers {
        std::vector<AM::ThirdPartDevLibInfo> libraries;
        std::vector<AM::AutoRunServInfo> autoruns;
        std::vector<AM::ServiceInfo> servers;
        std::vector<AM::NetLinkInfo> netlinks;
        std::vector<AM::SysInstallPackageInfo> packages;
        AM::DockerInfo engine;
        AM::SystemInfo system;
        std::vector<AM::SysLoadModuleInfo> modules;
        std::vector<AM::CronInfo> crons;
        std::vector<AM::UserInfo> users;
        std::vector<AM::ProcessInfo> processes;
    };

    static constexpr std::chrono::seconds kMaxAge{30};

    explicit Round(const HostRoot& root) : root_(root), pid_(getpid()) {
        worker_ = std::thread([this] { work(); });
    }
    ~Round() { end(); }

    // A child forked during the round has no worker: it collects by itself.
    bool here() const { return getpid() == pid_; }

    // Ends the round: nothing more is started, the kind being made is cut
    // short where its collector allows (the library walk), and the worker
    // has stopped when this returns.
    void end() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            for (State& s : state_)
                if (s == kQueued) s = kTaken;
        }
        cancel_.store(true);
        if (worker_.joinable()) worker_.join();
    }

    // The answer of `kind` into `out` and its result code into `rc`; false
    // when the caller must collect by itself.
    template <class T>
    bool take(Kind kind, T Answers::*member, T& out, int32_t& rc) {
        std::unique_lock<std::mutex> lock(mu_);
        State& s = state_[kind];
        if (s == kQueued) {
            s = kTaken;  // the worker will not start it: the caller is quicker
            return false;
        }
        done_.wait(lock, [&] { return s != kRunning; });
        if (s != kDone) return false;
        s = kTaken;
        T answer;
        std::swap(answer, answers_.*member);
        if (std::chrono::steady_clock::now() - made_[kind] > kMaxAge) return false;
        std::swap(out, answer);
        rc = rc_[kind];
        return true;
    }

private:
    enum State : uint8_t { kQueued, kRunning, kDone, kTaken };

    void work() {
        for (;;) {
            int kind = 0;
            {
                std::lock_guard<std::mutex> lock(mu_);
                while (kind < kKinds && state_[kind] != kQueued) ++kind;
                if (kind == kKinds) return;
                state_[kind] = kRunning;
            }
            const int32_t rc = collect(static_cast<Kind>(kind));
            {
                std::lock_guard<std::mutex> lock(mu_);
                rc_[kind] = rc;
                made_[kind] = std::chrono::steady_clock::now();
                // A walk cut short by the end of the round is not an answer.
                state_[kind] = kind == kLibraries && cancel_.load() ? kTaken : kDone;
            }
            done_.notify_all();
        }
    }

    // Only the worker writes an answer, and only while its kind is running.
    int32_t collect(Kind kind) {
        Answers& a = answers_;
        switch (kind) {
            case kLibraries:
                return collect_into(root_, a.libraries, &cancel_);
            case kAutoruns:
                return collect_into(root_, a.autoruns);
            case kServers:
                return collect_into(root_, a.servers);
            case kNetlinks:
                return collect_into(root_, a.netlinks);
            case kPackages:
                return collect_into(root_, a.packages);
            case kEngine:
                return collect_into(root_, a.engine);
            case kSystem:
                return collect_into(root_, a.system);
            case kModules:
                return collect_into(root_, a.modules);
            case kCrons:
                return collect_into(root_, a.crons);
            case kUsers:
                return collect_into(root_, a.users);
            case kProcesses:
                return collect_into(root_, a.processes);
            case kKinds:
                break;
        }
        return -EINVAL;
    }

    const HostRoot root_;
    const pid_t pid_;
    std::mutex mu_;
    std::condition_variable done_;
    State state_[kKinds] = {};
    int32_t rc_[kKinds] = {};
    std::chrono::steady_clock::time_point made_[kKinds];
    Answers answers_;
    std::atomic<bool> cancel_{false};
    std::thread worker_;  // last: started once everything above exists
};

class LinuxAssetManager : public IAssetManager {
public:
    LinuxAssetManager() : root_(root_from_environment()) {}

    int32_t init() override {
        try {
            std::shared_ptr<Round> next = std::make_shared<Round>(root_);
            std::shared_ptr<Round> old;
            {
                std::lock_guard<std::mutex> lock(mu_);
                old = std::move(round_);
                round_ = std::move(next);
            }
            finish(std::move(old));
            static std::once_flag once;
            // A script may end without release: the worker is stopped before
            // the library (or the process) goes away.
            std::call_once(once, [] {
                atexit(end_at_exit);
                pthread_atfork(stop_before_fork, nullptr, nullptr);
            });
            return 0;
        } catch (...) {
            return -ENOMEM;  // no thread: every call simply collects by itself
        }
    }

    int32_t release() override {
        std::shared_ptr<Round> old;
        {
            std::lock_guard<std::mutex> lock(mu_);
            old = std::move(round_);
        }
        finish(std::move(old));
        return 0;
    }

    int32_t collect_process(std::vector<ProcessInfo>& l) override {
        return from_round(Round::kProcesses, &Round::Answers::processes, l);
    }
    int32_t collect_netlink(std::vector<NetLinkInfo>& l) override {
        return from_round(Round::kNetlinks, &Round::Answers::netlinks, l);
    }
    int32_t collect_service(std::vector<ServiceInfo>& l) override {
        return from_round(Round::kServers, &Round::Answers::servers, l);
    }
    int32_t collect_user(std::vector<UserInfo>& l) override {
        return from_round(Round::kUsers, &Round::Answers::users, l);
    }
    int32_t collect_sys_install_package(std::vector<SysInstallPackageInfo>& l) override {
        return from_round(Round::kPackages, &Round::Answers::packages, l);
    }
    int32_t collect_auto_run_serv(std::vector<AutoRunServInfo>& l) override {
        return from_round(Round::kAutoruns, &Round::Answers::autoruns, l);
    }
    int32_t collect_cron(std::vector<CronInfo>& l) override {
        return from_round(Round::kCrons, &Round::Answers::crons, l);
    }
    int32_t collect_sys_module(std::vector<SysLoadModuleInfo>& l) override {
        return from_round(Round::kModules, &Round::Answers::modules, l);
    }
    int32_t collect_system(SystemInfo* info) override {
        if (!info) return -EINVAL;
        return from_round(Round::kSystem, &Round::Answers::system, *info);
    }
    int32_t collect_thirdpart_dev_lib(std::vector<ThirdPartDevLibInfo>& l) override {
        return from_round(Round::kLibraries, &Round::Answers::libraries, l);
    }
    int32_t collect_docker(DockerInfo& d) override {
        return from_round(Round::kEngine, &Round::Answers::engine, d);
    }

private:
    // The round's answer of `kind` when it has one for this call, else a
    // collection of the caller's own.
    template <class T>
    int32_t from_round(Round::Kind kind, T Round::Answers::*member, T& out) {
        std::shared_ptr<Round> round;
        {
            std::lock_guard<std::mutex> lock(mu_);
            round = round_;
        }
        int32_t rc = 0;
        try {
            if (round && round->here() && round->take(kind, member, out, rc)) return rc;
        } catch (...) {
            // Out of memory while handing over: collect as without a round.
        }
        return collect_into(root_, out);
    }

    // Ends a round; one inherited from the parent process is left alone (its
    // worker thread does not exist here, there is nothing to join).
    static void finish(std::shared_ptr<Round> round) {
        if (!round) return;
        if (round->here()) {
            round->end();
            return;
        }
        // Kept, never destroyed: destroying it would join a thread this
        // process does not have.
        static auto* const inherited = new std::vector<std::shared_ptr<Round>>();
        inherited->push_back(std::move(round));
    }

    static void end_at_exit();
    static void stop_before_fork();

    const HostRoot root_;
    std::mutex mu_;
    std::shared_ptr<Round> round_;
};

LinuxAssetManager* g_instance = nullptr;

void LinuxAssetManager::end_at_exit() {
    if (g_instance) g_instance->release();
}

// A child forked while the worker holds a collector's lock would wait for it
// forever: the worker stops first. Answers already made stay for the parent.
void LinuxAssetManager::stop_before_fork() {
    if (!g_instance) return;
    std::shared_ptr<Round> round;
    {
        std::lock_guard<std::mutex> lock(g_instance->mu_);
        round = g_instance->round_;
    }
    if (round && round->here()) round->end();
}

}  // namespace
}  // namespace amsvc

extern "C" __attribute__((visibility("default"))) IAssetManager* get_am_instance() {
    // Never destroyed: callers may still hold it while the process exits.
    static IAssetManager* const instance = amsvc::g_instance = new amsvc::LinuxAssetManager();
    return instance;
}
