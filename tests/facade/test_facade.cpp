// The facade's cached twins: what they keep, when they ask again, and their
// locks. Forwarding of every kind, codes, argument checks and a throwing
// service (its error, the lock freed, nothing cached) are covered through Lua
// (tests/lua/collectors_spec.lua).
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "assetman.h"
#include "fake_am.h"

typedef IAssetManager AM;

class Facade : public ::testing::Test {
protected:
    void SetUp() override { fake_am::reset(); }
};

// Each test uses kinds of its own: caches live for the whole process.
TEST_F(Facade, CallersGetCopiesOfTheCacheNestedListsIncluded) {
    fake_am::set("process", {3, 2});
    std::vector<AM::ProcessInfo> a, b;
    EXPECT_EQ(3, assetman::collect_process_asset_fast(a));
    ASSERT_EQ(2u, a.size());
    a[0].modules.clear();
    a[1].name = "changed";
    fake_am::set("process", {-1, 5});
    assetman::collect_release();  // the caches outlive the service's release
    EXPECT_EQ(0, assetman::collect_process_asset_fast(b));
    ASSERT_EQ(2u, b.size());
    EXPECT_EQ(2u, b[0].modules.size());
    EXPECT_EQ("proc1", b[1].name);
    EXPECT_EQ(1, fake_am::calls("process"));
}

TEST_F(Facade, EmptyAnswerIsNeverCachedAndTheCallersListIsReplaced) {
    fake_am::set("service", {-2, 0});
    std::vector<AM::ServiceInfo> l(4);
    EXPECT_EQ(-2, assetman::collect_service_asset_fast(l));
    EXPECT_TRUE(l.empty());
    EXPECT_EQ(-2, assetman::collect_service_asset_fast(l));
    fake_am::set("service", {0, 1});
    EXPECT_EQ(0, assetman::collect_service_asset_fast(l));
    EXPECT_EQ(0u, fake_am::size_seen("service"));  // the cache itself was handed over
    l.resize(7);
    EXPECT_EQ(0, assetman::collect_service_asset_fast(l));
    EXPECT_EQ(1u, l.size());
    EXPECT_EQ(3, fake_am::calls("service"));
}

TEST_F(Facade, SystemAndDockerWithoutVersionOrStorageDriverAreNotKept) {
    fake_am::set("system", {0, 1, false, true});  // blank
    fake_am::set("docker", {0, 1, false, true});
    AM::SystemInfo s = AM::SystemInfo(), t = AM::SystemInfo();
    AM::DockerInfo d, e;
    EXPECT_EQ(0, assetman::collect_system_asset_fast(&s));
    EXPECT_EQ(0, assetman::collect_docker_asset_fast(d));
    EXPECT_EQ("host1", s.host);  // handed out all the same
    EXPECT_EQ("20.10", d.version);
    fake_am::set("system", {4, 3});
    fake_am::set("docker", {0, 1});
    EXPECT_EQ(4, assetman::collect_system_asset_fast(&s));
    EXPECT_EQ(0, assetman::collect_docker_asset_fast(d));
    // The third call is answered from the cache (what it hands out: the Lua collector tests).
    EXPECT_EQ(0, assetman::collect_system_asset_fast(&t));
    EXPECT_EQ(0, assetman::collect_docker_asset_fast(e));
    EXPECT_EQ(2, fake_am::calls("system"));
    EXPECT_EQ(2, fake_am::calls("docker"));
}

// The first caller is held inside the service while the second one comes in.
TEST_F(Facade, ConcurrentFirstCallsAskTheServiceOnce) {
    fake_am::set("cron", {6, 3, true});  // held
    std::vector<AM::CronInfo> a, b;
    int32_t ra = -1, rb = -1;
    std::thread t1([&] { ra = assetman::collect_cron_asset_fast(a); });
    while (fake_am::calls("cron") == 0) std::this_thread::yield();
    std::thread t2([&] { rb = assetman::collect_cron_asset_fast(b); });
    fake_am::release_holds();
    t1.join();
    t2.join();
    EXPECT_EQ(1, fake_am::calls("cron"));
    EXPECT_EQ(6, ra + rb);  // one filled (6), the other was answered from the cache (0)
    EXPECT_EQ(3u, a.size());
    EXPECT_EQ(3u, b.size());
}

// A kind whose lock is held answers another kind at once (or the test hangs).
TEST_F(Facade, SlowKindDoesNotBlockAnotherKind) {
    fake_am::set("sys_module", {0, 1, true});  // held
    fake_am::set("thirdpart_dev_lib", {0, 1});
    std::thread slow([] {
        std::vector<AM::SysLoadModuleInfo> l;
        assetman::collect_sys_module_asset_fast(l);
    });
    while (fake_am::calls("sys_module") == 0) std::this_thread::yield();
    std::vector<AM::ThirdPartDevLibInfo> l;
    EXPECT_EQ(0, assetman::collect_thirdpart_dev_lib_asset_fast(l));
    if (assetman::g_collect_sys_module_asset_fast_mutex.try_lock()) {
        ADD_FAILURE() << "the slow kind's lock is free";
        assetman::g_collect_sys_module_asset_fast_mutex.unlock();
    }
    fake_am::release_holds();
    slow.join();
}
