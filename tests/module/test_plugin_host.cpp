// Loads assetman.so the way a host agent does (dlopen, the exported setup
// point, the plugin object) and checks that installing through it gives the
// same Lua state as the Lua entry point. This program provides the Lua API to
// the module and does not link the module itself.
#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <lua.hpp>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "plugin.h"

namespace {

// A symbol of the module, which stays loaded for the whole program as in a host agent.
template <class T>
T module_symbol(const char* name) {
    static void* const handle = dlopen(ASSETMAN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    return handle ? reinterpret_cast<T>(dlsym(handle, name)) : nullptr;
}

const cplugin_api_setup* setup_point() {
    return module_symbol<const cplugin_api_setup*>("cplugin_api_setup_point");
}

luacall::ICPLUGIN_API* plugin_object() {
    const cplugin_api_setup* point = setup_point();
    return point && point->entry ? point->entry() : nullptr;
}

struct State {
    lua_State* L;
    State() : L(luaL_newstate()) { luaL_openlibs(L); }
    ~State() { lua_close(L); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
};

// A table's entries by key: the value's type, and for C functions the native
// function too, so that two states can be compared binding by binding (what
// one opening must contain is checked from Lua, registration_spec.lua).
std::map<std::string, std::string> entries(lua_State* L, const char* path) {
    std::map<std::string, std::string> out;
    const int top = lua_gettop(L);
    if (luaL_dostring(L, (std::string("return ") + path).c_str()) != 0 || !lua_istable(L, -1)) {
        lua_settop(L, top);
        return {{"<not a table>", path}};
    }
    char buf[32];
    int other_keys = 0;  // non-string keys are counted by type
    for (lua_pushnil(L); lua_next(L, -2) != 0; lua_pop(L, 1)) {
        std::string value = luaL_typename(L, -1);
        if (lua_iscfunction(L, -1)) {
            snprintf(buf, sizeof buf, " %p", reinterpret_cast<void*>(lua_tocfunction(L, -1)));
            value += buf;
        }
        out[lua_type(L, -2) == LUA_TSTRING ? std::string(lua_tostring(L, -2))
                                           : std::string("<") + luaL_typename(L, -2) + " key " +
                                                 std::to_string(++other_keys) + ">"] = value;
    }
    lua_settop(L, top);
    return out;
}

// The tables whose entries both ways of opening must make alike.
const char* const kComparedTables[] = {"_G",
                                       "api",
                                       "api.assetman",
                                       "api.assetman.ProcessInfo",
                                       "api.assetman.collect_system_asset_data",
                                       "api.assetman.DockerInfo",
                                       "vector_assetman__ProcessInfo_"};

TEST(PluginSetupPoint, NamesTheModuleAndHandsOutOneObject) {
    const cplugin_api_setup* point = setup_point();
    ASSERT_NE(point, nullptr) << dlerror();
    EXPECT_STREQ(point->name, "assetman");
    ASSERT_NE(point->entry, nullptr);
    EXPECT_EQ(reinterpret_cast<void*>(point->entry), module_symbol<void*>("get_cplug_api_point"));
    luacall::ICPLUGIN_API* first = point->entry();  // the same each time: see the threads below
    ASSERT_NE(first, nullptr);

    // The object's run-time type: plugin, with ICPLUGIN_API as its one public base.
    const std::type_info& dynamic = typeid(*first);
    EXPECT_STREQ(dynamic.name(), "6plugin");
    const auto* si = dynamic_cast<const abi::__si_class_type_info*>(&dynamic);
    ASSERT_NE(si, nullptr) << "single, public, non-virtual inheritance";
    EXPECT_STREQ(si->__base_type->name(), "N7luacall12ICPLUGIN_APIE");
}

TEST(PluginSetup, InstallsWhatLuaopenInstallsOnceOrAgain) {
    luacall::ICPLUGIN_API* api = plugin_object();
    ASSERT_NE(api, nullptr);
    // Exported under its decorated name only (module_exports checks the whole list).
    const auto luaopen = module_symbol<int (*)(lua_State*)>("_Z16luaopen_assetmanP9lua_State");
    ASSERT_NE(luaopen, nullptr);

    State via_plugin, via_luaopen;
    const std::pair<lua_State*, std::function<bool(lua_State*)>> ways[] = {
        {via_plugin.L, [&](lua_State* L) { return api->setup_capi(L); }},
        {via_luaopen.L, [&](lua_State* L) { return luaopen(L) == 1; }},
    };
    for (const auto& way : ways) {  // both leave the caller's stack as it was
        lua_pushstring(way.first, "assetman");
        EXPECT_TRUE(way.second(way.first));
        ASSERT_EQ(lua_gettop(way.first), 1);
        EXPECT_STREQ(lua_tostring(way.first, 1), "assetman");
    }
    for (const char* t : kComparedTables) EXPECT_EQ(entries(via_plugin.L, t), entries(via_luaopen.L, t)) << t;

    // Installed again both ways: the same tables, rebound alike, still working.
    ASSERT_EQ(
        luaL_dostring(via_plugin.L, "debug.getregistry().kept = {api.assetman, vector_assetman__CronInfo_}"),
        0);
    for (const auto& way : ways) EXPECT_TRUE(way.second(via_plugin.L));
    for (const char* t : kComparedTables) EXPECT_EQ(entries(via_plugin.L, t), entries(via_luaopen.L, t)) << t;
    EXPECT_EQ(
        luaL_dostring(
            via_plugin.L,
            "local kept = debug.getregistry().kept\n"
            "assert(rawequal(kept[1], api.assetman) and rawequal(kept[2], vector_assetman__CronInfo_))\n"
            "local l = vector_assetman__RegAutoStartInfo_()\n"
            "assert(api.assetman.collect_windows_reg_autostart_asset(l) == 0 and l:size() == 0)"),
        0)
        << lua_tostring(via_plugin.L, -1);
}

// An agent runs one Lua state per thread and installs the plug-in into each:
// the entry and installations on different states may run at the same time.
TEST(PluginSetup, InstallsIntoStatesOfSeveralThreadsAtOnce) {
    const cplugin_api_setup* point = setup_point();
    ASSERT_NE(point, nullptr);
    constexpr int kThreads = 4;
    std::atomic<int> ready{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (++ready; ready.load() < kThreads;) {
            }
            luacall::ICPLUGIN_API* api = point->entry();
            for (int round = 0; round < 5; ++round) {
                State s;
                if (api != point->entry() || !api->setup_capi(s.L) ||
                    luaL_dostring(s.L,
                                  "local l = vector_assetman__RegAutoStartInfo_:new_local()\n"
                                  "assert(api.assetman.collect_windows_reg_autostart_asset(l) == 0)\n"
                                  "local h = api.assetman.collect_system_asset_data()\n"
                                  "h:get().host = 'h'\n"
                                  "assert(h:get().host == 'h')") != 0)
                    ++failures;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
}

// Lua's allocator, failing once the budget in *ud is spent.
void* limited_alloc(void* ud, void* ptr, size_t old_size, size_t new_size) {
    auto* left = static_cast<size_t*>(ud);
    if (new_size == 0) {
        free(ptr);
        return nullptr;
    }
    if (new_size > old_size) {
        if (new_size - old_size > *left) return nullptr;
        *left -= new_size - old_size;
    }
    return realloc(ptr, new_size);
}

// Installs the plug-in, its result in the bool that lua_cpcall passes.
int install(lua_State* L) {
    *static_cast<bool*>(lua_touserdata(L, 1)) = plugin_object()->setup_capi(L);
    return 0;
}

// Running out of memory half-way is a Lua error in the host's state, never a
// crash or a C++ exception, and the state stays usable and closable.
TEST(PluginSetup, OutOfMemoryIsALuaErrorInTheHostState) {
    ASSERT_NE(plugin_object(), nullptr);
    int failures = 0;
    bool installed = false;
    for (size_t budget = 2048; budget < 64 * 1024 * 1024 && !installed; budget += budget / 8) {
        size_t left = budget;
        lua_State* L = lua_newstate(limited_alloc, &left);
        if (!L) continue;
        bool done = false;
        const int rc = lua_cpcall(L, install, &done);
        if (rc == 0) {
            EXPECT_TRUE(done);
            installed = true;
        } else {
            EXPECT_EQ(rc, LUA_ERRMEM);
            ++failures;
        }
        lua_close(L);
    }
    EXPECT_TRUE(installed);
    EXPECT_GT(failures, 0);
}

}  // namespace
