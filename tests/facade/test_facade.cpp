#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "assetman.h"
#include "fake_service.h"

FakeService& fake() {
    static FakeService* f = new FakeService();
    return *f;
}

extern "C" __attribute__((visibility("default"))) IAssetManager* get_am_instance() { return &fake(); }

namespace {

typedef IAssetManager AM;

class Facade : public ::testing::Test {
protected:
    void SetUp() override { fake().reset(); }
};

// Every direct collector reaches its own operation once per call, hands the
// caller's list over as it stands and passes the code back untouched.
TEST_F(Facade, DirectCollectorsForwardEveryCall) {
    fake().plans["collect_process"].code = -7;
    fake().plans["collect_process"].records = 1;
    std::vector<AM::ProcessInfo> procs(2);
    EXPECT_EQ(-7, assetman::collect_process_asset(procs));
    EXPECT_EQ(-7, assetman::collect_process_asset(procs));
    EXPECT_EQ(2, fake().count("collect_process"));
    EXPECT_EQ(3u, fake().sizes_seen["collect_process"]);  // nothing removed by the facade
    EXPECT_EQ(4u, procs.size());

    fake().plans["init"].code = -22;
    EXPECT_EQ(-22, assetman::collect_init());
    assetman::collect_release();
    EXPECT_EQ(1, fake().count("release"));

    std::vector<AM::NetLinkInfo> n;
    std::vector<AM::ServiceInfo> s;
    std::vector<AM::UserInfo> u;
    std::vector<AM::SysInstallPackageInfo> p;
    std::vector<AM::AutoRunServInfo> a;
    std::vector<AM::CronInfo> c;
    std::vector<AM::SysLoadModuleInfo> m;
    std::vector<AM::ThirdPartDevLibInfo> t;
    AM::SystemInfo sys = AM::SystemInfo();
    AM::DockerInfo d;
    fake().order.clear();
    assetman::collect_netlink_asset(n);
    assetman::collect_service_asset(s);
    assetman::collect_user_asset(u);
    assetman::collect_sys_install_package_asset(p);
    assetman::collect_auto_run_serv_asset(a);
    assetman::collect_cron_asset(c);
    assetman::collect_sys_module_asset(m);
    assetman::collect_system_asset(&sys);
    assetman::collect_thirdpart_dev_lib_asset(t);
    assetman::collect_docker_asset(d);
    const std::vector<std::string> expected = {
        "collect_netlink",           "collect_service", "collect_user",       "collect_sys_install_package",
        "collect_auto_run_serv",     "collect_cron",    "collect_sys_module", "collect_system",
        "collect_thirdpart_dev_lib", "collect_docker"};
    EXPECT_EQ(expected, fake().order);
    EXPECT_EQ("v", sys.version);
    EXPECT_EQ("v", d.storage_driver);
}

TEST_F(Facade, NullSystemInfoIsPassedOnUnguarded) {
    fake().plans["collect_system"].code = 5;
    EXPECT_EQ(5, assetman::collect_system_asset(nullptr));
    EXPECT_EQ(1, fake().count("collect_system"));
}

// The vtable slots of the shared header: slot 2 is init, 3 release, then the
// collecting operations in the platform's order.
TEST_F(Facade, InterfaceSlotOrder) {
    IAssetManager* svc = &fake();
    void** vt = *reinterpret_cast<void***>(svc);
    typedef int32_t (*NoArg)(IAssetManager*);
    typedef int32_t (*PtrArg)(IAssetManager*, void*);
    reinterpret_cast<NoArg>(vt[2])(svc);
    reinterpret_cast<NoArg>(vt[3])(svc);
    std::vector<AM::ProcessInfo> lp;
    std::vector<AM::NetLinkInfo> ln;
    std::vector<AM::ServiceInfo> ls;
    std::vector<AM::UserInfo> lu;
    std::vector<AM::SysInstallPackageInfo> lk;
    std::vector<AM::AutoRunServInfo> la;
    std::vector<AM::CronInfo> lc;
    std::vector<AM::SysLoadModuleInfo> lm;
    AM::SystemInfo sys = AM::SystemInfo();
    std::vector<AM::ThirdPartDevLibInfo> lt;
    AM::DockerInfo d;
    void* args[] = {&lp, &ln, &ls, &lu, &lk, &la, &lc, &lm, &sys, &lt, &d};
    for (int slot = 4; slot <= 14; ++slot) reinterpret_cast<PtrArg>(vt[slot])(svc, args[slot - 4]);
    const std::vector<std::string> expected = {"init",
                                               "release",
                                               "collect_process",
                                               "collect_netlink",
                                               "collect_service",
                                               "collect_user",
                                               "collect_sys_install_package",
                                               "collect_auto_run_serv",
                                               "collect_cron",
                                               "collect_sys_module",
                                               "collect_system",
                                               "collect_thirdpart_dev_lib",
                                               "collect_docker"};
    EXPECT_EQ(expected, fake().order);
}

TEST_F(Facade, RegistryStubNeverReachesServiceAndItsTwinEmpties) {
    std::vector<AM::RegAutoStartInfo> l(3);
    l[0].name = "kept";
    EXPECT_EQ(0, assetman::collect_windows_reg_autostart_asset(l));
    ASSERT_EQ(3u, l.size());
    EXPECT_EQ("kept", l[0].name);
    EXPECT_EQ(0, assetman::collect_windows_reg_autostart_asset_fast(l));
    EXPECT_TRUE(l.empty());
    l.resize(2);
    EXPECT_EQ(0, assetman::collect_windows_reg_autostart_asset_fast(l));
    EXPECT_TRUE(l.empty());
    EXPECT_TRUE(fake().order.empty());
}

// Each cached test uses its own kind: caches live for the whole process.
TEST_F(Facade, FirstFastCallFillsLaterCallsCopyTheCache) {
    fake().plans["collect_process"] = {3, 2};
    std::vector<AM::ProcessInfo> a;
    EXPECT_EQ(3, assetman::collect_process_asset_fast(a));
    ASSERT_EQ(2u, a.size());
    a[0].modules.clear();  // the caller's copy is its own, nested lists included
    a[1].name = "changed";
    std::vector<AM::ProcessInfo> b;
    EXPECT_EQ(0, assetman::collect_process_asset_fast(b));
    ASSERT_EQ(2u, b.size());
    EXPECT_EQ(1u, b[0].modules.size());
    EXPECT_EQ("proc1", b[1].name);
    EXPECT_EQ(1, fake().count("collect_process"));
}

TEST_F(Facade, FailureCodeWithRecordsIsCachedForGood) {
    fake().plans["collect_netlink"] = {-5, 3};
    std::vector<AM::NetLinkInfo> l;
    EXPECT_EQ(-5, assetman::collect_netlink_asset_fast(l));
    EXPECT_EQ(3u, l.size());
    fake().plans["collect_netlink"] = {9, 1};
    EXPECT_EQ(0, assetman::collect_netlink_asset_fast(l));
    EXPECT_EQ(3u, l.size());
    EXPECT_EQ(1, fake().count("collect_netlink"));
}

TEST_F(Facade, EmptyAnswerIsNeverCached) {
    fake().plans["collect_service"] = {-2, 0};
    std::vector<AM::ServiceInfo> l(4);
    EXPECT_EQ(-2, assetman::collect_service_asset_fast(l));
    EXPECT_TRUE(l.empty());
    EXPECT_EQ(-2, assetman::collect_service_asset_fast(l));
    EXPECT_EQ(2, fake().count("collect_service"));
    fake().plans["collect_service"] = {0, 1};
    EXPECT_EQ(0, assetman::collect_service_asset_fast(l));
    EXPECT_EQ(1u, l.size());
    EXPECT_EQ(0u, fake().sizes_seen["collect_service"]);  // the cache itself was handed over
    EXPECT_EQ(0, assetman::collect_service_asset_fast(l));
    EXPECT_EQ(3, fake().count("collect_service"));
}

TEST_F(Facade, CallersListIsReplacedNotAppendedTo) {
    fake().plans["collect_user"] = {0, 2};
    std::vector<AM::UserInfo> l(5);
    EXPECT_EQ(0, assetman::collect_user_asset_fast(l));
    EXPECT_EQ(2u, l.size());
    l.resize(7);
    EXPECT_EQ(0, assetman::collect_user_asset_fast(l));
    EXPECT_EQ(2u, l.size());
    EXPECT_EQ("rec1", l[1].name);
}

TEST_F(Facade, SystemInfoWithoutVersionIsNotKept) {
    fake().plans["collect_system"].version = "";
    fake().plans["collect_system"].host = "box";
    AM::SystemInfo s = AM::SystemInfo();
    EXPECT_EQ(0, assetman::collect_system_asset_fast(&s));
    EXPECT_EQ("box", s.host);
    EXPECT_EQ("", s.version);
    fake().plans["collect_system"] = FakeService::Plan();
    fake().plans["collect_system"].code = 4;
    fake().plans["collect_system"].records = 3;
    EXPECT_EQ(4, assetman::collect_system_asset_fast(&s));
    EXPECT_EQ("v", s.version);
    AM::SystemInfo t = AM::SystemInfo();
    EXPECT_EQ(0, assetman::collect_system_asset_fast(&t));
    EXPECT_EQ(3u, t.disk.size());
    EXPECT_TRUE(t.b64);
    EXPECT_EQ(2, fake().count("collect_system"));
}

TEST_F(Facade, DockerInfoIsJudgedByStorageDriver) {
    fake().plans["collect_docker"].version = "";
    AM::DockerInfo d;
    EXPECT_EQ(0, assetman::collect_docker_asset_fast(d));
    EXPECT_EQ("h", d.version);
    fake().plans["collect_docker"].version = "overlay2";
    EXPECT_EQ(0, assetman::collect_docker_asset_fast(d));
    AM::DockerInfo e;
    EXPECT_EQ(0, assetman::collect_docker_asset_fast(e));
    EXPECT_EQ("overlay2", e.storage_driver);
    EXPECT_EQ(2, fake().count("collect_docker"));
}

TEST_F(Facade, CachesSurviveRelease) {
    fake().plans["collect_sys_install_package"] = {0, 4};
    std::vector<AM::SysInstallPackageInfo> l;
    EXPECT_EQ(0, assetman::collect_sys_install_package_asset_fast(l));
    assetman::collect_release();
    l.clear();
    EXPECT_EQ(0, assetman::collect_sys_install_package_asset_fast(l));
    EXPECT_EQ(4u, l.size());
    EXPECT_EQ(1, fake().count("collect_sys_install_package"));
}

TEST_F(Facade, ExceptionFromServicePropagatesAndFreesTheLock) {
    fake().plans["collect_auto_run_serv"].throw_error = true;
    std::vector<AM::AutoRunServInfo> l;
    EXPECT_THROW(assetman::collect_auto_run_serv_asset_fast(l), std::runtime_error);
    ASSERT_TRUE(assetman::g_collect_auto_run_serv_asset_fast_mutex.try_lock());
    assetman::g_collect_auto_run_serv_asset_fast_mutex.unlock();
    EXPECT_THROW(assetman::collect_auto_run_serv_asset(l), std::runtime_error);
    fake().plans["collect_auto_run_serv"] = {0, 1};
    EXPECT_EQ(0, assetman::collect_auto_run_serv_asset_fast(l));
    EXPECT_EQ(1u, l.size());
}

TEST_F(Facade, ConcurrentFirstCallsAskTheServiceOnce) {
    fake().plans["collect_cron"] = {6, 3, false, 100};
    std::vector<AM::CronInfo> a, b;
    int32_t ra = -1, rb = -1;
    std::thread t1([&] { ra = assetman::collect_cron_asset_fast(a); });
    std::thread t2([&] { rb = assetman::collect_cron_asset_fast(b); });
    t1.join();
    t2.join();
    EXPECT_EQ(1, fake().count("collect_cron"));
    EXPECT_EQ(6, ra + rb);  // one filled (6), the other was answered from the cache (0)
    EXPECT_EQ(3u, a.size());
    EXPECT_EQ(3u, b.size());
}

TEST_F(Facade, SlowKindDoesNotBlockAnotherKind) {
    fake().plans["collect_sys_module"] = {0, 1, false, 3000};
    fake().plans["collect_thirdpart_dev_lib"] = {0, 1};
    std::atomic<bool> slow_done(false);
    std::thread slow([&] {
        std::vector<AM::SysLoadModuleInfo> l;
        assetman::collect_sys_module_asset_fast(l);
        slow_done = true;
    });
    while (fake().count("collect_sys_module") == 0) std::this_thread::yield();
    std::vector<AM::ThirdPartDevLibInfo> l;
    EXPECT_EQ(0, assetman::collect_thirdpart_dev_lib_asset_fast(l));
    EXPECT_FALSE(slow_done);  // answered while the other kind's lock was held
    EXPECT_FALSE(assetman::g_collect_sys_module_asset_fast_mutex.try_lock());
    slow.join();
}

}  // namespace
