// Libraries loaded on first use: a fresh process that meets no container
// engine and no rpm database never maps libcurl, librpm or libsqlite3, and
// a missing library makes the kind fail with a result code, not a crash.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "collectors.h"
#include "containers/engine.h"
#include "core/lazy_lib.h"
#include "packages/rpm_db.h"
#include "test_util.h"

namespace {

std::string maps() {
    std::ifstream f("/proc/self/maps");
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

struct LibcPair {
    static constexpr const char* kSoname = "libc.so.6";
    decltype(&::getpid) getpid = nullptr;
    decltype(&::getppid) getppid = nullptr;
    void bind(amsvc::SymbolBinder& b) {
        b(getpid, "getpid");
        b(getppid, "getppid");
    }
};
struct MissingSymbol {
    static constexpr const char* kSoname = "libc.so.6";
    decltype(&::getpid) getpid = nullptr;
    decltype(&::getpid) absent = nullptr;
    void bind(amsvc::SymbolBinder& b) {
        b(getpid, "getpid");
        b(absent, "assetman_no_such_symbol");
    }
};
struct MissingLibrary {
    static constexpr const char* kSoname = "libassetman-absent.so.0";
    decltype(&::getpid) getpid = nullptr;
    void bind(amsvc::SymbolBinder& b) { b(getpid, "getpid"); }
};

// Runs `body` in a child whose library directories are empty (a private
// mount namespace): what a host without our libcurl or librpm meets.
int without_system_libraries(int (*body)()) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(100);
        for (const char* d : {"/usr/lib/x86_64-linux-gnu", "/usr/lib64", "/usr/lib", "/lib64"}) {
            struct stat st;
            if (stat(d, &st) == 0 && mount("tmpfs", d, "tmpfs", 0, "size=64k") != 0) _exit(101);
        }
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200 + WTERMSIG(status);
}

}  // namespace

// First, before anything below could load them: the collections that meet
// neither an engine socket nor an rpm database leave those libraries unmapped.
TEST(LazyLib, FreshCollectionsMapNoEngineOrRpmLibrary) {
    amsvc::HostRoot root("/");
    std::vector<amsvc::AM::ProcessInfo> procs;
    std::vector<amsvc::AM::SysInstallPackageInfo> pkgs;
    std::vector<amsvc::AM::AutoRunServInfo> autoruns;
    std::vector<amsvc::AM::CronInfo> crons;
    EXPECT_EQ(amsvc::collect_processes(root, procs), 0);
    amsvc::collect_packages(root, pkgs);
    amsvc::collect_autoruns(root, autoruns);
    amsvc::collect_crons(root, crons);
    ASSERT_FALSE(procs.empty());
    const std::string m = maps();
    EXPECT_EQ(m.find("libcurl"), std::string::npos);
    EXPECT_EQ(m.find("librpm"), std::string::npos);
    EXPECT_EQ(m.find("libsqlite3"), std::string::npos);
    EXPECT_EQ(m.find("libgnutls"), std::string::npos);
}

TEST(LazyLib, TablesLoadWholeOrNotAtAll) {
    const LibcPair* t = amsvc::lazy_table<LibcPair>();
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->getpid(), getpid());
    EXPECT_EQ(t->getppid(), getppid());
    EXPECT_EQ(amsvc::lazy_table<LibcPair>(), t);  // once
    EXPECT_EQ(amsvc::lazy_table<MissingSymbol>(), nullptr);
    EXPECT_EQ(amsvc::lazy_table<MissingLibrary>(), nullptr);
    for (const char* bad : {"", "/tmp/libc.so.6", "./libc.so.6", "../x.so"})
        EXPECT_EQ(amsvc::open_own_library(bad), nullptr) << bad;
}

// Without the libraries: the engine and rpm readers answer -EIO. The same
// calls in this process (libraries present) get past the loading.
TEST(LazyLib, MissingLibrariesGiveResultCodes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
    static amtest::TempDir tree("amlazy");
    tree.file("/var/lib/rpm/rpmdb.sqlite", std::string("SQLite format 3\0", 16) + std::string(4096, 'x'));
    static const std::string sock = tree.path + "/none.sock";
    const auto engine = [] {
        amsvc::AM::DockerInfo d;
        return -amsvc::engine::query_engines({sock}, d, 2000);
    };
    const auto rpm = [] { return -amsvc::read_rpm_db(amsvc::HostRoot(tree.path), false, [](amsvc::RpmPackage&) {}); };
    EXPECT_EQ(without_system_libraries(engine), EIO);
    EXPECT_EQ(without_system_libraries(rpm), EIO);
    EXPECT_NE(engine(), EIO);  // no such socket: refused or absent, not a missing library
    EXPECT_EQ(rpm(), EIO);     // not a database: unreadable, and rpm was loaded to find that out
    EXPECT_NE(maps().find("librpm"), std::string::npos);
}
