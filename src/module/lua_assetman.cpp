// Lua binding of the asset records, lists and collectors (tolua++).
#include <tolua++.h>

#include "assetman.h"

ASSETMAN_API int tolua_assetman_open(lua_State* L) {
    tolua_open(L);
    return 1;
}

ASSETMAN_API int luaopen_assetman(lua_State* L) { return tolua_assetman_open(L); }
