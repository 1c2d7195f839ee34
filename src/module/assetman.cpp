#include "assetman.h"

#include <boost/thread/locks.hpp>

namespace assetman {

// Construction order is part of the module's start-up contract; destruction
// runs in reverse at unload.
boost::shared_mutex g_collect_thirdpart_dev_lib_asset_fast_mutex;
boost::shared_mutex g_collect_process_asset_fast_mutex;
boost::shared_mutex g_collect_netlink_asset_fast_mutex;
boost::shared_mutex g_collect_service_asset_fast_mutex;
boost::shared_mutex g_collect_user_asset_fast_mutex;
boost::shared_mutex g_collect_sys_install_package_asset_fast_mutex;
boost::shared_mutex g_collect_auto_run_serv_asset_fast_mutex;
boost::shared_mutex g_collect_cron_asset_fast_mutex;
boost::shared_mutex g_collect_sys_module_asset_fast_mutex;
boost::shared_mutex g_collect_system_asset_fast_mutex;
boost::shared_mutex g_collect_windows_reg_autostart_asset_fast_mutex;
boost::shared_mutex g_collect_docker_asset_fast_mutex;

namespace {

template <class T>
bool is_empty(const std::vector<T>& v) {
    return v.empty();
}
bool is_empty(const IAssetManager::SystemInfo& s) { return s.version.empty(); }
bool is_empty(const IAssetManager::DockerInfo& d) { return d.storage_driver.empty(); }

// The caller holds the kind's lock. Only an answer that counts as non-empty
// stays; whatever the service left in the cache is kept, whatever its code.
template <class T, class Direct>
int32_t answer_from_cache(T& cache, T& out, Direct direct) {
    if (is_empty(cache)) {
        const int32_t rc = direct(cache);
        out = cache;
        return rc;
    }
    out = cache;
    return 0;
}

}  // namespace

int32_t collect_init() { return get_am_instance()->init(); }

void collect_release() { get_am_instance()->release(); }

#define ASSETMAN_DIRECT(kind, Record)                                          \
    int32_t collect_##kind##_asset(std::vector<IAssetManager::Record>& list) { \
        return get_am_instance()->collect_##kind(list);                        \
    }
ASSETMAN_DIRECT(process, ProcessInfo)
ASSETMAN_DIRECT(netlink, NetLinkInfo)
ASSETMAN_DIRECT(service, ServiceInfo)
ASSETMAN_DIRECT(user, UserInfo)
ASSETMAN_DIRECT(sys_install_package, SysInstallPackageInfo)
ASSETMAN_DIRECT(auto_run_serv, AutoRunServInfo)
ASSETMAN_DIRECT(cron, CronInfo)
ASSETMAN_DIRECT(sys_module, SysLoadModuleInfo)
ASSETMAN_DIRECT(thirdpart_dev_lib, ThirdPartDevLibInfo)
#undef ASSETMAN_DIRECT

// This platform has no registry: answer at once and leave the list alone.
int32_t collect_windows_reg_autostart_asset(std::vector<IAssetManager::RegAutoStartInfo>&) { return 0; }

int32_t collect_system_asset(IAssetManager::SystemInfo* info) {
    return get_am_instance()->collect_system(info);
}

int32_t collect_docker_asset(IAssetManager::DockerInfo& info) {
    return get_am_instance()->collect_docker(info);
}

// The cache is a function-local static so that it is built on first use, under
// the lock, and destroyed at unload before the locks.
#define ASSETMAN_FAST(kind, Record, cache)                                                  \
    int32_t collect_##kind##_asset_fast(std::vector<IAssetManager::Record>& list) {         \
        boost::unique_lock<boost::shared_mutex> guard(g_collect_##kind##_asset_fast_mutex); \
        static std::vector<IAssetManager::Record> cache;                                    \
        return answer_from_cache(cache, list, collect_##kind##_asset);                      \
    }
ASSETMAN_FAST(process, ProcessInfo, g_proc_asset_list)
ASSETMAN_FAST(netlink, NetLinkInfo, g_netlink_asset_list)
ASSETMAN_FAST(service, ServiceInfo, g_serv_asset_list)
ASSETMAN_FAST(user, UserInfo, g_user_asset_list)
ASSETMAN_FAST(sys_install_package, SysInstallPackageInfo, g_pkg_asset_list)
ASSETMAN_FAST(auto_run_serv, AutoRunServInfo, g_ars_asset_list)
ASSETMAN_FAST(cron, CronInfo, g_cron_asset_list)
ASSETMAN_FAST(sys_module, SysLoadModuleInfo, g_module_asset_list)
ASSETMAN_FAST(thirdpart_dev_lib, ThirdPartDevLibInfo, g_libs_asset_list)
ASSETMAN_FAST(windows_reg_autostart, RegAutoStartInfo, g_reg_auto_info)
#undef ASSETMAN_FAST

int32_t collect_system_asset_fast(IAssetManager::SystemInfo* info) {
    boost::unique_lock<boost::shared_mutex> guard(g_collect_system_asset_fast_mutex);
    static IAssetManager::SystemInfo g_system_asset = IAssetManager::SystemInfo();
    return answer_from_cache(g_system_asset, *info,
                             [](IAssetManager::SystemInfo& c) { return collect_system_asset(&c); });
}

int32_t collect_docker_asset_fast(IAssetManager::DockerInfo& info) {
    boost::unique_lock<boost::shared_mutex> guard(g_collect_docker_asset_fast_mutex);
    static IAssetManager::DockerInfo g_docker_info;
    return answer_from_cache(g_docker_info, info, collect_docker_asset);
}

}  // namespace assetman
