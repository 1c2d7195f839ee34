// The plug-in host link: a host agent looks up cplugin_api_setup_point, calls
// its entry for the plugin object and asks that object to install the module
// into a Lua state, exactly as luaopen_assetman would.
#include "plugin.h"

#include <type_traits>

struct lua_State;

// The binding's registration function (lua_assetman.cpp).
int tolua_assetman_open(lua_State* L);

// The object holds only its vtable pointer and has nothing to tear down, so
// the static below needs no exit-time destructor and may be used by a host
// until the very end of the process.
static_assert(std::is_trivially_destructible<plugin>::value, "plugin must need no destructor");
static_assert(sizeof(plugin) == sizeof(void*), "plugin holds nothing but its vtable pointer");

bool plugin::setup_capi(void* lua_state) {
    return tolua_assetman_open(static_cast<lua_State*>(lua_state)) == 1;
}

plugin* plugin::GetInstance() {
    // A local static is built once even when several threads ask first; being
    // trivially destructible, it registers nothing to run at exit.
    static plugin instance;
    return &instance;
}

extern "C" {

luacall::ICPLUGIN_API* get_cplug_api_point() { return plugin::GetInstance(); }

// Writable and filled by the loader's relocation; the module never changes it.
cplugin_api_setup cplugin_api_setup_point = {"assetman", get_cplug_api_point};
}
