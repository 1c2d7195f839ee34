// One collector per kind of asset. Each fills `out` (replacing what it held)
// with what it can read under `root` and returns a service result code
// (common.h). Collectors must not throw for I/O or parse reasons; the service
// object still guards against bad_alloc and the like.
#ifndef ASSETMAN_SERVICE_COLLECTORS_H
#define ASSETMAN_SERVICE_COLLECTORS_H

#include <stdint.h>

#include <vector>

#include "asset_manager.h"
#include "core/common.h"

namespace amsvc {

typedef IAssetManager AM;

int32_t collect_processes(const HostRoot& root, std::vector<AM::ProcessInfo>& out);
int32_t collect_netlinks(const HostRoot& root, std::vector<AM::NetLinkInfo>& out);
int32_t collect_packages(const HostRoot& root, std::vector<AM::SysInstallPackageInfo>& out);
int32_t collect_users(const HostRoot& root, std::vector<AM::UserInfo>& out);
int32_t collect_crons(const HostRoot& root, std::vector<AM::CronInfo>& out);
int32_t collect_kernel_modules(const HostRoot& root, std::vector<AM::SysLoadModuleInfo>& out);
int32_t collect_autoruns(const HostRoot& root, std::vector<AM::AutoRunServInfo>& out);
int32_t collect_system_facts(const HostRoot& root, AM::SystemInfo& out);
int32_t collect_servers(const HostRoot& root, std::vector<AM::ServiceInfo>& out);
int32_t collect_libraries(const HostRoot& root, std::vector<AM::ThirdPartDevLibInfo>& out);
int32_t collect_engine(const HostRoot& root, AM::DockerInfo& out);

}  // namespace amsvc

#endif
