// A counting stand-in for the platform service. The test program defines
// get_am_instance itself, which the module resolves before the real library.
#ifndef ASSETMAN_TESTS_FAKE_SERVICE_H
#define ASSETMAN_TESTS_FAKE_SERVICE_H

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "asset_manager.h"

class FakeService : public IAssetManager {
public:
    // What the next calls of an operation do, by operation name.
    struct Plan {
        int32_t code = 0;
        size_t records = 0;        // how many records to append
        bool throw_error = false;  // throw std::runtime_error instead
        int delay_ms = 0;
        std::string version = "v";  // SystemInfo.version / DockerInfo.storage_driver
        std::string host = "h";
    };

    std::map<std::string, Plan> plans;
    std::map<std::string, int> calls;
    std::map<std::string, size_t> sizes_seen;  // list size when the op was entered
    std::vector<std::string> order;
    std::mutex mu;

    void reset() {
        std::lock_guard<std::mutex> l(mu);
        plans.clear();
        calls.clear();
        sizes_seen.clear();
        order.clear();
    }
    int count(const std::string& op) {
        std::lock_guard<std::mutex> l(mu);
        return calls[op];
    }

    int32_t init() override { return enter("init", 0).code; }
    int32_t release() override { return enter("release", 0).code; }
    int32_t collect_process(std::vector<ProcessInfo>& l) override { return fill("collect_process", l); }
    int32_t collect_netlink(std::vector<NetLinkInfo>& l) override { return fill("collect_netlink", l); }
    int32_t collect_service(std::vector<ServiceInfo>& l) override { return fill("collect_service", l); }
    int32_t collect_user(std::vector<UserInfo>& l) override { return fill("collect_user", l); }
    int32_t collect_sys_install_package(std::vector<SysInstallPackageInfo>& l) override {
        return fill("collect_sys_install_package", l);
    }
    int32_t collect_auto_run_serv(std::vector<AutoRunServInfo>& l) override {
        return fill("collect_auto_run_serv", l);
    }
    int32_t collect_cron(std::vector<CronInfo>& l) override { return fill("collect_cron", l); }
    int32_t collect_sys_module(std::vector<SysLoadModuleInfo>& l) override {
        return fill("collect_sys_module", l);
    }
    int32_t collect_system(SystemInfo* s) override {
        const Plan p = enter("collect_system", 0);
        if (s) {
            s->version = p.version;
            s->host = p.host;
            s->b64 = true;
            s->disk.resize(p.records);
        }
        return p.code;
    }
    int32_t collect_thirdpart_dev_lib(std::vector<ThirdPartDevLibInfo>& l) override {
        return fill("collect_thirdpart_dev_lib", l);
    }
    int32_t collect_docker(DockerInfo& d) override {
        const Plan p = enter("collect_docker", 0);
        d.storage_driver = p.version;
        d.version = p.host;
        return p.code;
    }

private:
    Plan enter(const std::string& op, size_t size) {
        Plan p;
        {
            std::lock_guard<std::mutex> l(mu);
            ++calls[op];
            sizes_seen[op] = size;
            order.push_back(op);
            p = plans[op];
        }
        if (p.delay_ms) std::this_thread::sleep_for(std::chrono::milliseconds(p.delay_ms));
        if (p.throw_error) throw std::runtime_error("service failed: " + op);
        return p;
    }
    template <class T>
    int32_t fill(const std::string& op, std::vector<T>& l) {
        const Plan p = enter(op, l.size());
        for (size_t i = 0; i < p.records; ++i) l.push_back(make<T>(i));
        return p.code;
    }
    template <class T>
    static T make(size_t i) {
        T t = T();
        t.name = op_name_prefix() + std::to_string(i);
        return t;
    }
    static std::string op_name_prefix() { return "rec"; }
};

// ProcessInfo and NetLinkInfo have no `name`; give them one record shape each.
template <>
inline IAssetManager::ProcessInfo FakeService::make<IAssetManager::ProcessInfo>(size_t i) {
    IAssetManager::ProcessInfo p = IAssetManager::ProcessInfo();
    p.pid = static_cast<int32_t>(i + 1);
    p.name = "proc" + std::to_string(i);
    IAssetManager::ProcessModuleInfo m = IAssetManager::ProcessModuleInfo();
    m.path = "/lib/mod" + std::to_string(i);
    p.modules.push_back(m);
    return p;
}
template <>
inline IAssetManager::NetLinkInfo FakeService::make<IAssetManager::NetLinkInfo>(size_t i) {
    IAssetManager::NetLinkInfo n = IAssetManager::NetLinkInfo();
    n.local_port = static_cast<int32_t>(1000 + i);
    n.proto = "tcp";
    return n;
}
template <>
inline IAssetManager::CronInfo FakeService::make<IAssetManager::CronInfo>(size_t i) {
    IAssetManager::CronInfo c = IAssetManager::CronInfo();
    c.name = "cron" + std::to_string(i);
    return c;
}

FakeService& fake();

#endif
