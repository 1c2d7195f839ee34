// The module's facade over the asset service: direct collectors that ask the
// service every time, and cached twins that ask it once per kind.
#ifndef ASSETMAN_MODULE_ASSETMAN_H
#define ASSETMAN_MODULE_ASSETMAN_H

#include <stdint.h>

#include <boost/thread/shared_mutex.hpp>
#include <vector>

#include "asset_manager.h"

#define ASSETMAN_API __attribute__((visibility("default")))

// The ten kinds collected into a list: X(kind, Record). The order is the order
// of the Lua collector functions (system and docker stand between sys_module
// and thirdpart_dev_lib there, and are not lists).
#define ASSETMAN_LIST_KINDS(X)                    \
    X(process, ProcessInfo)                       \
    X(netlink, NetLinkInfo)                       \
    X(service, ServiceInfo)                       \
    X(user, UserInfo)                             \
    X(sys_install_package, SysInstallPackageInfo) \
    X(auto_run_serv, AutoRunServInfo)             \
    X(cron, CronInfo)                             \
    X(sys_module, SysLoadModuleInfo)              \
    X(thirdpart_dev_lib, ThirdPartDevLibInfo)     \
    X(windows_reg_autostart, RegAutoStartInfo)

namespace assetman {

ASSETMAN_API int32_t collect_init();
ASSETMAN_API void collect_release();

#define ASSETMAN_DECLARE_LIST_KIND(kind, Record)                                           \
    ASSETMAN_API int32_t collect_##kind##_asset(std::vector<IAssetManager::Record>& list); \
    ASSETMAN_API int32_t collect_##kind##_asset_fast(std::vector<IAssetManager::Record>& list);
ASSETMAN_LIST_KINDS(ASSETMAN_DECLARE_LIST_KIND)
#undef ASSETMAN_DECLARE_LIST_KIND

ASSETMAN_API int32_t collect_system_asset(IAssetManager::SystemInfo* info);
ASSETMAN_API int32_t collect_system_asset_fast(IAssetManager::SystemInfo* info);
ASSETMAN_API int32_t collect_docker_asset(IAssetManager::DockerInfo& info);
ASSETMAN_API int32_t collect_docker_asset_fast(IAssetManager::DockerInfo& info);

// One lock per kind, held exclusively by that kind's cached collector.
extern ASSETMAN_API boost::shared_mutex g_collect_thirdpart_dev_lib_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_process_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_netlink_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_service_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_user_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_sys_install_package_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_auto_run_serv_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_cron_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_sys_module_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_system_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_windows_reg_autostart_asset_fast_mutex;
extern ASSETMAN_API boost::shared_mutex g_collect_docker_asset_fast_mutex;

// Owns the one SystemInfo a script may hold; the record is the holder's only
// member, so it lives at the holder's address. Kept inline so nothing of it
// is exported.
class collect_system_asset_data {
public:
    IAssetManager::SystemInfo* get() { return &info_; }

private:
    IAssetManager::SystemInfo info_;
};

}  // namespace assetman

#endif
