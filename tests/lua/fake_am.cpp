// The counting fake service (see fake_am.h). Preloaded into the interpreter or
// linked into a test program, so assetman.so's get_am_instance resolves here.
#include "fake_am.h"

#include <malloc.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <vector>

extern "C" {
#include <lauxlib.h>
#include <lua.h>
}

#include "asset_manager.h"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using fake_am::Plan;

// Guarded by mu: the facade tests call from several threads.
struct State {
    std::mutex mu;
    std::condition_variable released_cv;
    bool released = false;
    std::map<std::string, Plan> plans;
    std::map<std::string, int> calls;
    std::map<std::string, size_t> size_seen;
} g;

Plan enter(const char* op, size_t size) {
    std::unique_lock<std::mutex> lock(g.mu);
    ++g.calls[op];
    g.size_seen[op] = size;
    const Plan p = g.plans[op];
    if (p.hold) g.released_cv.wait(lock, [] { return g.released; });
    if (p.fail) throw std::runtime_error(std::string("fake service failed in ") + op);
    return p;
}

// Distinct, recognisable content per record, and nested lists to copy; the
// rest stays value-initialised.
template <class R>
void decorate(R&, size_t, const Plan&) {}
void decorate(IAssetManager::ProcessInfo& r, size_t i, const Plan& p) {
    r.name = "proc" + std::to_string(i);
    r.cmd_line = std::string(p.text_len, 'c');
    r.modules.resize(2);
}
void decorate(IAssetManager::ServiceInfo& r, size_t, const Plan&) { r.hosts.resize(1); }
void decorate(IAssetManager::CronInfo& r, size_t i, const Plan&) { r.cmd_line = "job" + std::to_string(i); }

template <class R>
int32_t fill(const char* op, std::vector<R>& list) {
    const Plan p = enter(op, list.size());
    list.clear();
    for (size_t i = 0; i < p.records; ++i) {
        R r{};
        decorate(r, i, p);
        list.push_back(r);
    }
    return p.code;
}

class FakeAm : public IAssetManager {
public:
    int32_t init() override { return enter("init", 0).code; }
    int32_t release() override { return enter("release", 0).code; }
// Each list operation is named by its kind.
#define FAKE_LIST(kind, R) \
    int32_t collect_##kind(std::vector<R>& l) override { return fill(#kind, l); }
    FAKE_LIST(process, ProcessInfo)
    FAKE_LIST(netlink, NetLinkInfo)
    FAKE_LIST(service, ServiceInfo)
    FAKE_LIST(user, UserInfo)
    FAKE_LIST(sys_install_package, SysInstallPackageInfo)
    FAKE_LIST(auto_run_serv, AutoRunServInfo)
    FAKE_LIST(cron, CronInfo)
    FAKE_LIST(sys_module, SysLoadModuleInfo)
    FAKE_LIST(thirdpart_dev_lib, ThirdPartDevLibInfo)
#undef FAKE_LIST
    int32_t collect_system(SystemInfo* s) override {
        const Plan p = enter("system", s != nullptr);
        if (!s) return p.code;
        s->host = "host1";
        s->version = p.blank ? "" : "os-1";
        s->envs.clear();
        for (size_t i = 0; i < p.records; ++i) s->envs.push_back("K" + std::to_string(i) + "=V");
        s->network_card.assign(p.records, NetworkCardInfo{"", "", "", "", "", "", "", 1500});
        s->disk.assign(p.records, DiskInfo{"sda", "", "", -5000000000LL, 5000000000LL, 12.5});
        s->net_share.assign(p.records, NetShareInfo{"", "", -1, 0});
        return p.code;
    }
    int32_t collect_docker(DockerInfo& d) override {
        const Plan p = enter("docker", 0);
        d.storage_driver = p.blank ? "" : "overlay2";
        d.version = "20.10";
        d.image_num = "3";
        d.container_num = "0";
        return p.code;
    }
};

// fake_am.set(op, code [, records [, text_len [, fail]]])
int l_set(lua_State* L) {
    Plan p;
    p.code = static_cast<int32_t>(luaL_checknumber(L, 2));
    p.records = static_cast<size_t>(luaL_optnumber(L, 3, 1));
    p.text_len = static_cast<size_t>(luaL_optnumber(L, 4, 0));
    p.fail = lua_toboolean(L, 5) != 0;
    fake_am::set(luaL_checkstring(L, 1), p);
    return 0;
}
// The native object behind a tolua++ value, as a light userdata.
int l_address(lua_State* L) {
    luaL_checktype(L, 1, LUA_TUSERDATA);
    lua_pushlightuserdata(L, *static_cast<void**>(lua_touserdata(L, 1)));
    return 1;
}
// Frees a vector<assetman::ProcessInfo> made with `new` whose Lua value is gone.
int l_free_process_list(lua_State* L) {
    luaL_checktype(L, 1, LUA_TLIGHTUSERDATA);
    delete static_cast<std::vector<IAssetManager::ProcessInfo>*>(lua_touserdata(L, 1));
    return 0;
}
// The entries of a SystemInfo's envs, which Lua cannot read.
int l_envs(lua_State* L) {
    luaL_checktype(L, 1, LUA_TUSERDATA);
    const auto* s = *static_cast<IAssetManager::SystemInfo**>(lua_touserdata(L, 1));
    lua_newtable(L);
    for (size_t i = 0; i < s->envs.size(); ++i) {
        lua_pushstring(L, s->envs[i].c_str());
        lua_rawseti(L, -2, static_cast<int>(i + 1));
    }
    return 1;
}
int l_calls(lua_State* L) {
    lua_pushnumber(L, fake_am::calls(luaL_checkstring(L, 1)));
    return 1;
}
int l_size_seen(lua_State* L) {
    lua_pushnumber(L, static_cast<lua_Number>(fake_am::size_seen(luaL_checkstring(L, 1))));
    return 1;
}
int l_reset(lua_State*) {
    fake_am::reset();
    return 0;
}
// fake_am.push_reg(list, n): appends n records to a vector<assetman::RegAutoStartInfo>,
// which no collector on this platform ever fills.
int l_push_reg(lua_State* L) {
    luaL_checktype(L, 1, LUA_TUSERDATA);
    auto* list = *static_cast<std::vector<IAssetManager::RegAutoStartInfo>**>(lua_touserdata(L, 1));
    const size_t n = static_cast<size_t>(luaL_checknumber(L, 2));
    for (size_t i = 0; i < n; ++i) {
        IAssetManager::RegAutoStartInfo r{};
        r.name = "reg" + std::to_string(i);
        list->push_back(r);
    }
    return 0;
}
// Bytes the C++ heap holds now (ASan's count when it owns the heap).
int l_heap(lua_State* L) {
    size_t n = __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes()
                                                       : mallinfo2().uordblks;
    lua_pushnumber(L, static_cast<lua_Number>(n));
    return 1;
}

}  // namespace

namespace fake_am {
void set(const std::string& op, const Plan& plan) {
    std::lock_guard<std::mutex> lock(g.mu);
    g.plans[op] = plan;
}
int calls(const std::string& op) {
    std::lock_guard<std::mutex> lock(g.mu);
    return g.calls[op];
}
size_t size_seen(const std::string& op) {
    std::lock_guard<std::mutex> lock(g.mu);
    return g.size_seen[op];
}
void release_holds() {
    std::lock_guard<std::mutex> lock(g.mu);
    g.released = true;
    g.released_cv.notify_all();
}
void reset() {
    std::lock_guard<std::mutex> lock(g.mu);
    g.plans.clear();
    g.calls.clear();
    g.size_seen.clear();
    g.released = false;
}
}  // namespace fake_am

extern "C" __attribute__((visibility("default"))) IAssetManager* get_am_instance() {
    static FakeAm instance;
    return &instance;
}

extern "C" __attribute__((visibility("default"))) int luaopen_fake_am(lua_State* L) {
// Each l_<name> above is fake_am.<name> in Lua.
#define FN(name) \
    { #name, l_##name }
    static const luaL_Reg fns[] = {FN(set),  FN(calls),         FN(size_seen), FN(reset),
                                   FN(heap), FN(push_reg),      FN(address),   FN(free_process_list),
                                   FN(envs), {nullptr, nullptr}};
#undef FN
    lua_newtable(L);
    luaL_register(L, nullptr, fns);
    return 1;
}
