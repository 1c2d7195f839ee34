// The process-wide Linux asset service behind get_am_instance().
#include <errno.h>
#include <stdlib.h>

#include <exception>
#include <new>

#include "collectors.h"

namespace amsvc {
namespace {

HostRoot root_from_environment() {
    const char* r = getenv("ASSETMAN_HOST_ROOT");
    return HostRoot(r && *r ? r : "/");
}

class LinuxAssetManager : public IAssetManager {
public:
    LinuxAssetManager() : root_(root_from_environment()) {}

    int32_t init() override { return 0; }
    int32_t release() override { return 0; }

    int32_t collect_process(std::vector<ProcessInfo>& l) override {
        return guarded(l, [&] { return collect_processes(root_, l); });
    }
    int32_t collect_netlink(std::vector<NetLinkInfo>& l) override {
        return guarded(l, [&] { return collect_netlinks(root_, l); });
    }
    int32_t collect_service(std::vector<ServiceInfo>& l) override {
        return guarded(l, [&] { return collect_servers(root_, l); });
    }
    int32_t collect_user(std::vector<UserInfo>& l) override {
        return guarded(l, [&] { return collect_users(root_, l); });
    }
    int32_t collect_sys_install_package(std::vector<SysInstallPackageInfo>& l) override {
        return guarded(l, [&] { return collect_packages(root_, l); });
    }
    int32_t collect_auto_run_serv(std::vector<AutoRunServInfo>& l) override {
        return guarded(l, [&] { return collect_autoruns(root_, l); });
    }
    int32_t collect_cron(std::vector<CronInfo>& l) override {
        return guarded(l, [&] { return collect_crons(root_, l); });
    }
    int32_t collect_sys_module(std::vector<SysLoadModuleInfo>& l) override {
        return guarded(l, [&] { return collect_kernel_modules(root_, l); });
    }
    int32_t collect_system(SystemInfo* info) override {
        if (!info) return -EINVAL;
        return guarded([&] { return collect_system_facts(root_, *info); });
    }
    int32_t collect_thirdpart_dev_lib(std::vector<ThirdPartDevLibInfo>& l) override {
        return guarded(l, [&] { return collect_libraries(root_, l); });
    }
    int32_t collect_docker(DockerInfo& d) override {
        return guarded([&] { return collect_engine(root_, d); });
    }

private:
    const HostRoot root_;
};

}  // namespace
}  // namespace amsvc

extern "C" __attribute__((visibility("default"))) IAssetManager* get_am_instance() {
    // Never destroyed: callers may still hold it while the process exits.
    static IAssetManager* const instance = new amsvc::LinuxAssetManager();
    return instance;
}
