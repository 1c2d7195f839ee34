// The shared library as the module sees it: one instance, and no exception or
// crash for a null record or a kind this platform does not collect.
#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "asset_manager.h"

namespace {

TEST(ServiceLibrary, OneInstanceThatAnswersEveryOperation) {
    IAssetManager* svc = get_am_instance();
    ASSERT_NE(nullptr, svc);
    EXPECT_EQ(svc, get_am_instance());
    EXPECT_EQ(0, svc->init());
    EXPECT_EQ(-EINVAL, svc->collect_system(nullptr));
    std::vector<IAssetManager::ServiceInfo> services(1);
    EXPECT_EQ(0, svc->collect_service(services));  // replaces the list with what it finds
    std::vector<IAssetManager::ThirdPartDevLibInfo> libs;
    EXPECT_EQ(0, svc->collect_thirdpart_dev_lib(libs));
    IAssetManager::DockerInfo docker;
    EXPECT_NE(-ENOSYS, svc->collect_docker(docker));  // -ENOENT without an engine socket
    EXPECT_EQ(0, svc->release());
}

// Records of a kind as one comparable text.
template <class T>
std::string text(const std::vector<T>& l, std::string (*one)(const T&)) {
    std::string s;
    for (const T& r : l) s += one(r) + "\n";
    return s;
}
std::string user(const IAssetManager::UserInfo& u) { return u.name + ":" + u.uid + ":" + u.shell; }
std::string cron(const IAssetManager::CronInfo& c) { return c.user + " " + c.timer + " " + c.cmd_line; }
std::string unit(const IAssetManager::AutoRunServInfo& a) {
    return a.name + " " + a.script_path + " " + a.md5;
}
std::string pkg(const IAssetManager::SysInstallPackageInfo& p) { return p.name + " " + p.version; }

// What a round (init .. release) answers is what each call would collect by
// itself: kinds taken ready, being made, or not started yet, from two threads
// at once, in a forked child, and by a process that exits without release.
TEST(ServiceRound, AnswersAsWithoutARound) {
    IAssetManager* svc = get_am_instance();
    auto snapshot = [svc] {
        std::vector<IAssetManager::UserInfo> u;
        std::vector<IAssetManager::CronInfo> c;
        std::vector<IAssetManager::AutoRunServInfo> a;
        std::vector<IAssetManager::SysInstallPackageInfo> p(3);
        std::vector<IAssetManager::ProcessInfo> procs;
        std::vector<IAssetManager::ThirdPartDevLibInfo> libs;
        // The background worker starts with the libraries: the kinds after
        // them are met running, made, or not started yet.
        const int32_t rc = svc->collect_thirdpart_dev_lib(libs) | svc->collect_auto_run_serv(a) |
                           svc->collect_user(u) | svc->collect_cron(c) | svc->collect_sys_install_package(p) |
                           svc->collect_process(procs);
        bool me = false;
        for (const auto& r : procs) me |= r.pid == getpid();
        return std::to_string(rc) + (me ? " me\n" : " no me\n") + text(u, user) + text(c, cron) +
               text(a, unit) + text(p, pkg);
    };
    const std::string want = snapshot();
    ASSERT_EQ(want.substr(0, 5), "0 me\n");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(0, svc->init());
        std::string other;
        std::thread t([&] { other = snapshot(); });
        EXPECT_EQ(snapshot(), want);
        t.join();
        EXPECT_EQ(other, want);
    }
    EXPECT_EQ(0, svc->release());
    EXPECT_EQ(0, svc->release());
    EXPECT_EQ(snapshot(), want);

    for (bool release : {true, false}) {
        EXPECT_EQ(0, svc->init());
        const pid_t child = fork();
        if (child == 0) {
            alarm(120);
            const bool same = snapshot() == want;
            if (release) svc->release();
            exit(same ? 0 : 3);  // without release: the worker is stopped at exit
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        svc->release();
    }
}

}  // namespace
