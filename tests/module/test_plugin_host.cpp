// Loads assetman.so the way a host agent does (dlopen, the exported setup
// point, the plugin object) and checks that installing through it gives the
// same Lua state as the Lua entry point. This program provides the Lua API to
// the module and does not link the module itself.
#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <lua.hpp>
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "plugin.h"

namespace {

// The module stays loaded for the whole program, as in a host agent.
void* module_handle() {
    static void* const handle = dlopen(ASSETMAN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    return handle;
}

const cplugin_api_setup* setup_point() {
    void* h = module_handle();
    return h ? static_cast<const cplugin_api_setup*>(dlsym(h, "cplugin_api_setup_point")) : nullptr;
}

luacall::ICPLUGIN_API* plugin_object() {
    const cplugin_api_setup* point = setup_point();
    return point && point->entry ? point->entry() : nullptr;
}

using LuaEntry = int (*)(lua_State*);

LuaEntry luaopen_entry() {
    // Exported only under its decorated name: luaopen_assetman(lua_State*).
    void* h = module_handle();
    return h ? reinterpret_cast<LuaEntry>(dlsym(h, "_Z16luaopen_assetmanP9lua_State")) : nullptr;
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
// Non-string keys are counted by type.
std::map<std::string, std::string> entries(lua_State* L, const char* path) {
    std::map<std::string, std::string> out;
    const int top = lua_gettop(L);
    const std::string chunk = std::string("return ") + path;
    if (luaL_dostring(L, chunk.c_str()) != 0 || !lua_istable(L, -1)) {
        lua_settop(L, top);
        out["<not a table>"] = path;
        return out;
    }
    const int table = lua_gettop(L);
    lua_pushnil(L);
    int other_keys = 0;
    while (lua_next(L, table) != 0) {
        std::string value = luaL_typename(L, -1);
        if (lua_iscfunction(L, -1)) {
            char buf[32];
            snprintf(buf, sizeof buf, " %p", reinterpret_cast<void*>(lua_tocfunction(L, -1)));
            value += buf;
        }
        if (lua_type(L, -2) == LUA_TSTRING) {
            out[lua_tostring(L, -2)] = value;
        } else {
            out[std::string("<") + luaL_typename(L, -2) + " key " + std::to_string(++other_keys) + ">"] =
                value;
        }
        lua_pop(L, 1);
    }
    lua_settop(L, top);
    return out;
}

const void* table_identity(lua_State* L, const char* path) {
    const std::string chunk = std::string("return ") + path;
    if (luaL_dostring(L, chunk.c_str()) != 0) return nullptr;
    const void* p = lua_istable(L, -1) ? lua_topointer(L, -1) : nullptr;
    lua_pop(L, 1);
    return p;
}

// The tables whose entries both ways of opening must make alike.
const char* const kComparedTables[] = {
    "_G",
    "api",
    "api.assetman",
    "api.assetman.ProcessInfo",
    "api.assetman.collect_system_asset_data",
    "api.assetman.DockerInfo",
    "vector_assetman__ProcessInfo_",
};

TEST(PluginSetupPoint, NamesTheModuleAndHandsOutOneObject) {
    ASSERT_NE(module_handle(), nullptr) << dlerror();
    const cplugin_api_setup* point = setup_point();
    ASSERT_NE(point, nullptr);
    ASSERT_NE(point->name, nullptr);
    EXPECT_STREQ(point->name, "assetman");
    ASSERT_NE(point->entry, nullptr);
    EXPECT_EQ(reinterpret_cast<void*>(point->entry), dlsym(module_handle(), "get_cplug_api_point"));

    luacall::ICPLUGIN_API* first = point->entry();
    luacall::ICPLUGIN_API* second = point->entry();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);

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
    const LuaEntry luaopen = luaopen_entry();
    ASSERT_NE(luaopen, nullptr);
    EXPECT_EQ(dlsym(module_handle(), "luaopen_assetman"), nullptr) << "no bare entry symbol";

    State via_plugin, via_luaopen;
    // Both leave the caller's stack as it was.
    lua_pushstring(via_plugin.L, "assetman");
    EXPECT_TRUE(api->setup_capi(via_plugin.L));
    ASSERT_EQ(lua_gettop(via_plugin.L), 1);
    EXPECT_STREQ(lua_tostring(via_plugin.L, 1), "assetman");
    lua_pushstring(via_luaopen.L, "assetman");
    EXPECT_EQ(luaopen(via_luaopen.L), 1);
    ASSERT_EQ(lua_gettop(via_luaopen.L), 1);
    EXPECT_STREQ(lua_tostring(via_luaopen.L, 1), "assetman");
    for (const char* t : kComparedTables) EXPECT_EQ(entries(via_plugin.L, t), entries(via_luaopen.L, t)) << t;

    // Installed again both ways: the same tables, rebound alike, still working.
    const void* am = table_identity(via_plugin.L, "api.assetman");
    const void* list_class = table_identity(via_plugin.L, "vector_assetman__ProcessInfo_");
    ASSERT_NE(am, nullptr);
    EXPECT_TRUE(api->setup_capi(via_plugin.L));
    ASSERT_EQ(luaopen(via_plugin.L), 1);
    EXPECT_EQ(table_identity(via_plugin.L, "api.assetman"), am);
    EXPECT_EQ(table_identity(via_plugin.L, "vector_assetman__ProcessInfo_"), list_class);
    for (const char* t : kComparedTables) EXPECT_EQ(entries(via_plugin.L, t), entries(via_luaopen.L, t)) << t;
    EXPECT_EQ(
        luaL_dostring(via_plugin.L,
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
    std::atomic<int> ready{0};
    luacall::ICPLUGIN_API* seen[kThreads] = {};
    bool ok[kThreads] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < kThreads) {
            }
            seen[t] = point->entry();
            for (int round = 0; round < 5; ++round) {
                State s;
                ok[t] = seen[t]->setup_capi(s.L) &&
                        luaL_dostring(s.L,
                                      "local l = vector_assetman__RegAutoStartInfo_:new_local()\n"
                                      "assert(api.assetman.collect_windows_reg_autostart_asset(l) == 0)\n"
                                      "local h = api.assetman.collect_system_asset_data()\n"
                                      "h:get().host = 'h'\n"
                                      "assert(h:get().host == 'h')") == 0;
                if (!ok[t]) break;
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_TRUE(ok[t]) << "thread " << t;
        EXPECT_EQ(seen[t], seen[0]);
    }
}

// Lua's allocator, failing once a budget is spent.
struct Budget {
    size_t left;
};

void* limited_alloc(void* ud, void* ptr, size_t old_size, size_t new_size) {
    auto* budget = static_cast<Budget*>(ud);
    if (new_size == 0) {
        free(ptr);
        return nullptr;
    }
    if (new_size > old_size) {
        if (new_size - old_size > budget->left) return nullptr;
        budget->left -= new_size - old_size;
    }
    return realloc(ptr, new_size);
}

struct Install {
    luacall::ICPLUGIN_API* api;
    bool installed;
};

int install(lua_State* L) {
    auto* in = static_cast<Install*>(lua_touserdata(L, 1));
    lua_pop(L, 1);
    in->installed = in->api->setup_capi(L);
    return 0;
}

// Running out of memory half-way is a Lua error in the host's state, never a
// crash or a C++ exception, and the state stays usable and closable.
TEST(PluginSetup, OutOfMemoryIsALuaErrorInTheHostState) {
    luacall::ICPLUGIN_API* api = plugin_object();
    ASSERT_NE(api, nullptr);
    int failures = 0;
    bool installed = false;
    for (size_t budget = 2048; budget < 64 * 1024 * 1024 && !installed; budget += budget / 8) {
        Budget b{budget};
        lua_State* L = lua_newstate(limited_alloc, &b);
        if (!L) continue;
        Install in{api, false};
        const int rc = lua_cpcall(L, install, &in);
        if (rc == 0) {
            EXPECT_TRUE(in.installed);
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
