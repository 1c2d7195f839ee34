// Lua binding of the asset records, their lists and the collectors (tolua++).
//
// Every record is described once, in the field tables below; the accessors,
// collection hooks and list methods are stamped out of those tables with the
// native names scripts and debuggers know them by. All of them have internal
// linkage: only tolua_assetman_open and luaopen_assetman leave this unit.
//
// Errors: tolua_error and lua_error leave a function by longjmp under the
// stock interpreter, so no C++ object with a destructor may be alive when they
// are called. All C++ work that can throw (copies, the facade) runs inside
// cxx_call, which turns an exception into a Lua error once its frame is clean.
#include <stdio.h>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <tolua++.h>

#include "assetman.h"
#include "lua_number.h"

namespace {

using assetman::collect_system_asset_data;

// ---------------------------------------------------------------- the records

// Fields of each record in member order: F(Record, field). The member's C++
// type picks the accessor kind, so nothing else needs to be said per field.
// clang-format off
#define ASSETMAN_FIELDS_NetworkCardInfo(F, R)                                                 \
    F(R, name) F(R, ipv4) F(R, ipv6) F(R, mac) F(R, gateway) F(R, mask) F(R, broad) F(R, mtu)
#define ASSETMAN_FIELDS_DiskInfo(F, R)                                 \
    F(R, name) F(R, desc) F(R, fs) F(R, size) F(R, free) F(R, percent)
#define ASSETMAN_FIELDS_NetShareInfo(F, R)              \
    F(R, name) F(R, path) F(R, max_conn) F(R, cur_conn)
#define ASSETMAN_FIELDS_SystemInfo(F, R)                                                    \
    F(R, host) F(R, version) F(R, kernel_version) F(R, arch) F(R, b64) F(R, Manufacturer)   \
    F(R, product) F(R, Serial) F(R, mem) F(R, cpu) F(R, envs) F(R, network_card) F(R, disk) \
    F(R, net_share)
#define ASSETMAN_FIELDS_RegAutoStartInfo(F, R)                                    \
    F(R, name) F(R, cmd_line) F(R, company) F(R, verified) F(R, md5) F(R, sha256)
#define ASSETMAN_FIELDS_SysLoadModuleInfo(F, R)                                                 \
    F(R, name) F(R, size) F(R, load_addr) F(R, path) F(R, md5) F(R, sha256) F(R, used) F(R, by) \
    F(R, company) F(R, verified)
#define ASSETMAN_FIELDS_CronInfo(F, R)                                        \
    F(R, user) F(R, cmd_line) F(R, timer) F(R, name) F(R, comment) F(R, file)
#define ASSETMAN_FIELDS_AutoRunServInfo(F, R)                                                  \
    F(R, name) F(R, script_path) F(R, level) F(R, comment) F(R, status) F(R, md5) F(R, sha256) \
    F(R, company) F(R, verified)
#define ASSETMAN_FIELDS_SysInstallPackageInfo(F, R)                                              \
    F(R, name) F(R, version) F(R, release) F(R, installtime) F(R, type) F(R, size) F(R, summary) \
    F(R, source) F(R, installdir) F(R, company)
#define ASSETMAN_FIELDS_UserInfo(F, R)                                                     \
    F(R, name) F(R, uid) F(R, gid) F(R, groupname) F(R, comment) F(R, homedir) F(R, shell) \
    F(R, is_admin) F(R, is_disable) F(R, last_change_passwd) F(R, account_expire)          \
    F(R, passwd_expire) F(R, last_login_time) F(R, last_login_term) F(R, last_login_ip)
#define ASSETMAN_FIELDS_WebSiteInfo(F, R)                       \
    F(R, ip) F(R, port) F(R, host) F(R, document) F(R, logpath)
#define ASSETMAN_FIELDS_ServiceInfo(F, R)                                                  \
    F(R, pid) F(R, port) F(R, type) F(R, name) F(R, arch) F(R, version) F(R, install_path) \
    F(R, process_path) F(R, configure_path) F(R, exec_env) F(R, command) F(R, exec_user)   \
    F(R, data_path) F(R, log_path) F(R, desc) F(R, current_dir) F(R, hosts) F(R, srv_name) \
    F(R, reserve)
#define ASSETMAN_FIELDS_NetLinkInfo(F, R)                                                         \
    F(R, proto) F(R, local_addr) F(R, local_port) F(R, remote_addr) F(R, remote_port) F(R, state) \
    F(R, pid) F(R, proc_name) F(R, proc_path)
#define ASSETMAN_FIELDS_ProcessModuleInfo(F, R)                    \
    F(R, path) F(R, md5) F(R, sha256) F(R, company) F(R, verified)
#define ASSETMAN_FIELDS_ProcessInfo(F, R)                                                       \
    F(R, user) F(R, pid) F(R, ppid) F(R, stime) F(R, rtime) F(R, cmd_line) F(R, env) F(R, path) \
    F(R, name) F(R, current_dir) F(R, modules)
#define ASSETMAN_FIELDS_ThirdPartDevLibInfo(F, R) \
    F(R, name) F(R, version) F(R, path)
#define ASSETMAN_FIELDS_DockerInfo(F, R)                                                  \
    F(R, storage_driver) F(R, root_dir) F(R, version) F(R, image_num) F(R, container_num) \
    F(R, images) F(R, containers)

// All record classes, in the order they are registered in api.assetman (the
// holder is registered between SystemInfo and RegAutoStartInfo).
#define ASSETMAN_RECORDS(X)                                                                  \
    X(NetworkCardInfo) X(DiskInfo) X(NetShareInfo) X(SystemInfo) X(RegAutoStartInfo)         \
    X(SysLoadModuleInfo) X(CronInfo) X(AutoRunServInfo) X(SysInstallPackageInfo) X(UserInfo) \
    X(WebSiteInfo) X(ServiceInfo) X(NetLinkInfo) X(ProcessModuleInfo) X(ProcessInfo)         \
    X(ThirdPartDevLibInfo) X(DockerInfo)

// Records that have a list class, in the order the list classes are registered.
#define ASSETMAN_LISTS(X)                                                                    \
    X(RegAutoStartInfo) X(NetworkCardInfo) X(DiskInfo) X(NetShareInfo) X(SysLoadModuleInfo)  \
    X(CronInfo) X(AutoRunServInfo) X(SysInstallPackageInfo) X(UserInfo) X(WebSiteInfo)       \
    X(ServiceInfo) X(NetLinkInfo) X(ProcessModuleInfo) X(ProcessInfo) X(ThirdPartDevLibInfo)

// The collector functions in registration order: LIST(kind, Record) for kinds
// collected into a list, SINGLE(kind, Record) for the two single records.
#define ASSETMAN_COLLECTORS(LIST, SINGLE)                                                         \
    LIST(process, ProcessInfo) LIST(netlink, NetLinkInfo) LIST(service, ServiceInfo)              \
    LIST(user, UserInfo) LIST(sys_install_package, SysInstallPackageInfo)                         \
    LIST(auto_run_serv, AutoRunServInfo) LIST(cron, CronInfo) LIST(sys_module, SysLoadModuleInfo) \
    SINGLE(system, SystemInfo) LIST(thirdpart_dev_lib, ThirdPartDevLibInfo)                       \
    LIST(windows_reg_autostart, RegAutoStartInfo) SINGLE(docker, DockerInfo)
// clang-format on

// Lua type names of a record, its read-only twin and its list types.
template <class T>
struct names;
#define ASSETMAN_NAMES(R)                                                           \
    template <>                                                                     \
    struct names<IAssetManager::R> {                                                \
        static constexpr const char* type = "assetman::" #R;                        \
        static constexpr const char* const_type = "const assetman::" #R;            \
        static constexpr const char* list = "vector<assetman::" #R ">";             \
        static constexpr const char* const_list = "const vector<assetman::" #R ">"; \
    };
ASSETMAN_RECORDS(ASSETMAN_NAMES)
#undef ASSETMAN_NAMES
template <>
struct names<std::string> {
    static constexpr const char* list = "vector<string>";
};
template <>
struct names<collect_system_asset_data> {
    static constexpr const char* type = "assetman::collect_system_asset_data";
};

// ------------------------------------------------------------------- helpers

// Runs C++ work that may throw; an exception becomes a Lua error raised after
// every C++ frame involved has been left.
template <class F>
void cxx_call(lua_State* L, F&& f) {
    char msg[512];
    try {
        f();
        return;
    } catch (const std::exception& e) {
        snprintf(msg, sizeof msg, "%s", e.what());
    } catch (...) {
        snprintf(msg, sizeof msg, "unknown C++ exception");
    }
    lua_pushstring(L, msg);
    lua_error(L);
}

// An object freed by delete must leave the binding library's collection table,
// or a collected new_local object would be freed a second time.
void forget_gc(lua_State* L, void* p) {
    lua_pushstring(L, "tolua_gc");
    lua_rawget(L, LUA_REGISTRYINDEX);
    if (lua_istable(L, -1)) {
        lua_pushlightuserdata(L, p);
        lua_pushnil(L);
        lua_rawset(L, -3);
    }
    lua_pop(L, 1);
}

// After delete, every Lua reference to the object (tolua++ keeps one userdata
// per address) holds a null pointer and gets "invalid 'self'" instead of freed
// memory; the address map forgets it, so a new object that reuses the address
// gets a Lua value of its own.
void detach_userdata(lua_State* L, int idx, void* p) {
    if (!lua_isuserdata(L, idx) || lua_islightuserdata(L, idx)) return;
    void** box = static_cast<void**>(lua_touserdata(L, idx));
    if (!box || *box != p) return;
    if (lua_getmetatable(L, idx)) {
        lua_pushstring(L, "tolua_ubox");
        lua_rawget(L, -2);
        if (!lua_istable(L, -1)) {
            lua_pop(L, 1);
            lua_pushstring(L, "tolua_ubox");
            lua_rawget(L, LUA_REGISTRYINDEX);
        }
        if (lua_istable(L, -1)) {
            lua_pushlightuserdata(L, p);
            lua_rawget(L, -2);
            const bool mine = lua_rawequal(L, -1, idx) != 0;
            lua_pop(L, 1);
            if (mine) {
                lua_pushlightuserdata(L, p);
                lua_pushnil(L);
                lua_rawset(L, -3);
            }
        }
        lua_pop(L, 2);
    }
    *box = nullptr;
}

// Pushes p as `type` without disturbing another Lua value tolua++ already keeps
// for the same address. tolua++ keeps one userdata per address in a
// "tolua_ubox" table (per class in this build, registry-wide for classes that
// have none) and retypes the value it finds there; the holder's record shares
// the holder's address, so a holder found there is set aside for the push.
void push_alias(lua_State* L, void* p, const char* type) {
    const int base = lua_gettop(L);
    luaL_getmetatable(L, type);  // base+1: the class metatable
    lua_pushstring(L, "tolua_ubox");
    lua_rawget(L, base + 1);  // base+2: the table this class uses
    if (!lua_istable(L, base + 2)) {
        lua_pop(L, 1);
        lua_pushstring(L, "tolua_ubox");
        lua_rawget(L, LUA_REGISTRYINDEX);
    }
    bool set_aside = false;
    if (lua_istable(L, base + 2)) {
        lua_pushlightuserdata(L, p);
        lua_rawget(L, base + 2);  // base+3: what the address maps to now
        if (!lua_isnil(L, base + 3)) {
            bool same = false;
            if (lua_getmetatable(L, base + 3)) {
                same = lua_rawequal(L, -1, base + 1);
                lua_pop(L, 1);
            }
            if (!same) {
                lua_pushlightuserdata(L, p);
                lua_pushnil(L);
                lua_rawset(L, base + 2);
                set_aside = true;
            }
        }
    } else {
        lua_pushnil(L);
    }
    tolua_pushusertype(L, p, type);  // base+4
    if (set_aside) {
        lua_pushlightuserdata(L, p);
        lua_pushvalue(L, base + 3);
        lua_rawset(L, base + 2);
    }
    lua_replace(L, base + 1);
    lua_settop(L, base + 1);
}

// -------------------------------------------------------------- field access

// What a member's type means for Lua: how it is pushed, which values a write
// accepts, and how an accepted value at stack position 2 is stored.
template <class M>
struct field_kind;

template <>
struct field_kind<std::string> {
    static void push(lua_State* L, const std::string& v) { tolua_pushstring(L, v.c_str()); }
    static bool accepts(lua_State* L, tolua_Error* e) { return tolua_isstring(L, 2, 0, e); }
    static void store(lua_State* L, std::string& m) {
        const char* s = tolua_tostring(L, 2, 0);
        cxx_call(L, [&] { m.assign(s ? s : ""); });
    }
};

template <>
struct field_kind<bool> {
    static void push(lua_State* L, bool v) { tolua_pushboolean(L, v); }
    static bool accepts(lua_State* L, tolua_Error* e) { return tolua_isboolean(L, 2, 0, e); }
    static void store(lua_State* L, bool& m) { m = tolua_toboolean(L, 2, 0) != 0; }
};

// Numbers: Conv turns the Lua number into the stored value.
template <class M, M (*Conv)(double)>
struct number_kind {
    static void push(lua_State* L, M v) { tolua_pushnumber(L, static_cast<lua_Number>(v)); }
    static bool accepts(lua_State* L, tolua_Error* e) { return tolua_isnumber(L, 2, 0, e); }
    static void store(lua_State* L, M& m) { m = Conv(tolua_tonumber(L, 2, 0)); }
};
double as_double(double v) { return v; }
template <>
struct field_kind<int32_t> : number_kind<int32_t, assetman::luanum::to_int32> {};
template <>
struct field_kind<uint32_t> : number_kind<uint32_t, assetman::luanum::to_uint32_via_int32> {};
template <>
struct field_kind<int64_t> : number_kind<int64_t, assetman::luanum::to_int64> {};
template <>
struct field_kind<uint64_t> : number_kind<uint64_t, assetman::luanum::to_uint64_via_int32> {};
template <>
struct field_kind<double> : number_kind<double, as_double> {};

// A nested list reads as a view of the record's own member (never collected)
// and is written by copying the given list.
template <class T>
struct field_kind<std::vector<T>> {
    static void push(lua_State* L, std::vector<T>& v) { tolua_pushusertype(L, &v, names<T>::list); }
    static bool accepts(lua_State* L, tolua_Error* e) {
        return !tolua_isvaluenil(L, 2, e) && tolua_isusertype(L, 2, names<T>::list, 0, e);
    }
    static void store(lua_State* L, std::vector<T>& m) {
        const auto* src = static_cast<const std::vector<T>*>(tolua_tousertype(L, 2, 0));
        cxx_call(L, [&] { m = *src; });
    }
};

// The record at position 1. Accessors are reached through the record's class,
// but a script can pull them out of the metatable, so anything that is not a
// record of this class counts as a missing one instead of being dereferenced.
template <class R>
R* field_self(lua_State* L, const char* field) {
    tolua_Error err;
    R* self = nullptr;
    if (tolua_isusertype(L, 1, names<R>::const_type, 0, &err))
        self = static_cast<R*>(tolua_tousertype(L, 1, 0));
    if (!self) {
        char msg[160];
        snprintf(msg, sizeof msg, "invalid 'self' in accessing variable '%s'", field);
        tolua_error(L, msg, nullptr);
    }
    return self;
}

template <class R, class M>
int get_field(lua_State* L, M R::*member, const char* field) {
    R* self = field_self<R>(L, field);
    field_kind<M>::push(L, self->*member);
    return 1;
}

template <class R, class M>
int set_field(lua_State* L, M R::*member, const char* field) {
    R* self = field_self<R>(L, field);
    tolua_Error err;
    if (!field_kind<M>::accepts(L, &err)) tolua_error(L, "#vinvalid type in variable assignment.", &err);
    field_kind<M>::store(L, self->*member);
    return 0;
}

// ------------------------------------------------- objects owned from Lua

template <class T>
int free_object(lua_State* L) {
    delete static_cast<T*>(tolua_tousertype(L, 1, 0));
    return 0;
}

template <class T>
int new_object(lua_State* L, const char* type, bool collected) {
    tolua_Error err;
    if (!tolua_isusertable(L, 1, type, 0, &err) || !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, "#ferror in function 'new'.", &err);
        return 0;
    }
    T* obj = nullptr;
    cxx_call(L, [&] { obj = new T(); });  // value-initialised: no undefined flags
    tolua_pushusertype(L, obj, type);
    if (collected) tolua_register_gc(L, lua_gettop(L));
    return 1;
}

template <class T>
int delete_object(lua_State* L, const char* type) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, type, 0, &err) || !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, "#ferror in function 'delete'.", &err);
        return 0;
    }
    T* self = static_cast<T*>(tolua_tousertype(L, 1, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'delete'", nullptr);
    forget_gc(L, self);
    detach_userdata(L, 1, self);
    delete self;
    return 0;
}

// --------------------------------------------------------------- list methods

template <class R>
using list_of = std::vector<R>;

template <class R>
int list_clear(lua_State* L) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, names<R>::list, 0, &err) || !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, "#ferror in function 'clear'.", &err);
        return 0;
    }
    auto* self = static_cast<list_of<R>*>(tolua_tousertype(L, 1, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'clear'", nullptr);
    self->clear();
    return 0;
}

template <class R>
int list_size(lua_State* L) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, names<R>::const_list, 0, &err) || !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, "#ferror in function 'size'.", &err);
        return 0;
    }
    auto* self = static_cast<const list_of<R>*>(tolua_tousertype(L, 1, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'size'", nullptr);
    tolua_pushnumber(L, assetman::luanum::count_to_int32(self->size()));
    return 1;
}

// Indices are 0-based, as the key arrives. An index outside the list is an
// error rather than a read or write outside it.
template <class R>
size_t list_index(lua_State* L, const list_of<R>& list, const char* op) {
    const int32_t i = assetman::luanum::to_int32(tolua_tonumber(L, 2, 0));
    if (i < 0 || static_cast<size_t>(i) >= list.size()) {
        char msg[160];
        snprintf(msg, sizeof msg, "index out of range in function '%s'", op);
        tolua_error(L, msg, nullptr);
    }
    return static_cast<size_t>(i);
}

// Hands out a copy of element i that the collector owns.
template <class R>
int list_push_copy(lua_State* L, const list_of<R>& list, size_t i, const char* type) {
    R* copy = nullptr;
    cxx_call(L, [&] { copy = new R(list[i]); });
    tolua_pushusertype(L, copy, type);
    tolua_register_gc(L, lua_gettop(L));
    return 1;
}

template <class R>
int list_geti_const(lua_State* L) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, names<R>::const_list, 0, &err) || !tolua_isnumber(L, 2, 0, &err) ||
        !tolua_isnoobj(L, 3, &err)) {
        tolua_error(L, "#ferror in function '.geti'.", &err);
        return 0;
    }
    auto* self = static_cast<const list_of<R>*>(tolua_tousertype(L, 1, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'operator[]'", nullptr);
    return list_push_copy<R>(L, *self, list_index<R>(L, *self, "operator[]"), names<R>::const_type);
}

// The class keeps only this form under ".geti"; anything it does not accept
// goes to the read-only form, which serves const lists and reports errors.
template <class R>
int list_geti(lua_State* L, lua_CFunction read_only) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, names<R>::list, 0, &err) || !tolua_isnumber(L, 2, 0, &err) ||
        !tolua_isnoobj(L, 3, &err))
        return read_only(L);
    auto* self = static_cast<list_of<R>*>(tolua_tousertype(L, 1, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'operator[]'", nullptr);
    return list_push_copy<R>(L, *self, list_index<R>(L, *self, "operator[]"), names<R>::type);
}

template <class R>
int list_seti(lua_State* L) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, names<R>::list, 0, &err) || !tolua_isnumber(L, 2, 0, &err) ||
        tolua_isvaluenil(L, 3, &err) || !tolua_isusertype(L, 3, names<R>::type, 0, &err) ||
        !tolua_isnoobj(L, 4, &err)) {
        tolua_error(L, "#ferror in function '.seti'.", &err);
        return 0;
    }
    auto* self = static_cast<list_of<R>*>(tolua_tousertype(L, 1, 0));
    const R* rec = static_cast<const R*>(tolua_tousertype(L, 3, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'operator&[]'", nullptr);
    const size_t i = list_index<R>(L, *self, "operator&[]");
    cxx_call(L, [&] {
        R tmp(*rec);  // a failed copy leaves the element as it was
        (*self)[i] = std::move(tmp);
    });
    return 0;
}

template <class R>
int list_push_back(lua_State* L) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, names<R>::list, 0, &err) || tolua_isvaluenil(L, 2, &err) ||
        !tolua_isusertype(L, 2, names<R>::type, 0, &err) || !tolua_isnoobj(L, 3, &err)) {
        tolua_error(L, "#ferror in function 'push_back'.", &err);
        return 0;
    }
    auto* self = static_cast<list_of<R>*>(tolua_tousertype(L, 1, 0));
    const R* rec = static_cast<const R*>(tolua_tousertype(L, 2, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'push_back'", nullptr);
    cxx_call(L, [&] { self->push_back(*rec); });
    return 0;
}

// ---------------------------------------------------------- collector calls

// Heap bytes a record holds beyond its own size: what a list that Lua owns
// keeps alive, though Lua counts only the pointer to it.
template <class T>
size_t heap_bytes(const T&) {
    return 0;  // numbers and truth values live in the record
}
size_t heap_bytes(const std::string& s) { return s.capacity() > 15 ? s.capacity() + 1 : 0; }
#define ASSETMAN_DECLARE_BYTES(R) size_t heap_bytes(const IAssetManager::R& r);
ASSETMAN_RECORDS(ASSETMAN_DECLARE_BYTES)
#undef ASSETMAN_DECLARE_BYTES
template <class T>
size_t heap_bytes(const std::vector<T>& v) {
    size_t n = v.capacity() * sizeof(T);
    for (const T& e : v) n += heap_bytes(e);
    return n;
}
#define ASSETMAN_FIELD_BYTES(R, f) n += heap_bytes(r.f);
#define ASSETMAN_DEFINE_BYTES(R)                                    \
    [[maybe_unused]] size_t heap_bytes(const IAssetManager::R& r) { \
        size_t n = 0;                                 \
        ASSETMAN_FIELDS_##R(ASSETMAN_FIELD_BYTES, R); \
        return n;                                     \
    }
ASSETMAN_RECORDS(ASSETMAN_DEFINE_BYTES)
#undef ASSETMAN_DEFINE_BYTES
#undef ASSETMAN_FIELD_BYTES

// A filled list is memory Lua's collector does not see: a script that makes
// a new list per call would keep every earlier one until Lua's own
// allocations next start a cycle (tens of MiB at a few thousand processes,
// each call touching fresh pages). The collector is told, as if Lua had
// allocated that much, so the lists already dropped are freed and their
// memory is reused.
void account_to_collector(lua_State* L, size_t bytes) {
    const size_t kib = bytes >> 10;
    if (kib) lua_gc(L, LUA_GCSTEP, static_cast<int>(std::min<size_t>(kib, 1u << 30)));
}

template <class R>
int collect_list(lua_State* L, int32_t (*collect)(std::vector<R>&), const char* err_msg) {
    tolua_Error err;
    if (tolua_isvaluenil(L, 1, &err) || !tolua_isusertype(L, 1, names<R>::list, 0, &err) ||
        !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, err_msg, &err);
        return 0;
    }
    auto* list = static_cast<std::vector<R>*>(tolua_tousertype(L, 1, 0));
    int32_t code = 0;
    cxx_call(L, [&] { code = collect(*list); });
    account_to_collector(L, heap_bytes(*list));
    tolua_pushnumber(L, code);
    return 1;
}

// The system record is passed by pointer and nil passes as a null pointer;
// DockerInfo is passed by reference and must be there.
int collect_single(lua_State* L, int32_t (*collect)(IAssetManager::SystemInfo*), const char* err_msg) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, names<IAssetManager::SystemInfo>::type, 0, &err) ||
        !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, err_msg, &err);
        return 0;
    }
    auto* info = static_cast<IAssetManager::SystemInfo*>(tolua_tousertype(L, 1, 0));
    int32_t code = 0;
    cxx_call(L, [&] { code = collect(info); });
    tolua_pushnumber(L, code);
    return 1;
}

int collect_single(lua_State* L, int32_t (*collect)(IAssetManager::DockerInfo&), const char* err_msg) {
    tolua_Error err;
    if (tolua_isvaluenil(L, 1, &err) ||
        !tolua_isusertype(L, 1, names<IAssetManager::DockerInfo>::type, 0, &err) ||
        !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, err_msg, &err);
        return 0;
    }
    auto* info = static_cast<IAssetManager::DockerInfo*>(tolua_tousertype(L, 1, 0));
    int32_t code = 0;
    cxx_call(L, [&] { code = collect(*info); });
    tolua_pushnumber(L, code);
    return 1;
}

// ------------------------------------------------- the named native functions

#define ASSETMAN_DEFINE_FIELD(R, f)                                                                    \
    int tolua_get_assetman__##R##_##f(lua_State* L) { return get_field(L, &IAssetManager::R::f, #f); } \
    int tolua_set_assetman__##R##_##f(lua_State* L) { return set_field(L, &IAssetManager::R::f, #f); }
#define ASSETMAN_DEFINE_RECORD(R) ASSETMAN_FIELDS_##R(ASSETMAN_DEFINE_FIELD, R)
ASSETMAN_RECORDS(ASSETMAN_DEFINE_RECORD)
#undef ASSETMAN_DEFINE_RECORD
#undef ASSETMAN_DEFINE_FIELD

// Every record that Lua can own has a collection hook: the list records
// (copies handed out by lists) and DockerInfo. SystemInfo has none.
#define ASSETMAN_DEFINE_COLLECT_HOOK(R) \
    int tolua_collect_assetman__##R(lua_State* L) { return free_object<IAssetManager::R>(L); }
ASSETMAN_LISTS(ASSETMAN_DEFINE_COLLECT_HOOK)
ASSETMAN_DEFINE_COLLECT_HOOK(DockerInfo)
#undef ASSETMAN_DEFINE_COLLECT_HOOK

#define ASSETMAN_DEFINE_LIST(R)                                                                \
    using list_##R = std::vector<IAssetManager::R>;                                            \
    int tolua_assetman_vector_assetman__##R##__clear00(lua_State* L) {                         \
        return list_clear<IAssetManager::R>(L);                                                \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##__size00(lua_State* L) {                          \
        return list_size<IAssetManager::R>(L);                                                 \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##___geti00(lua_State* L) {                         \
        return list_geti_const<IAssetManager::R>(L);                                           \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##___seti00(lua_State* L) {                         \
        return list_seti<IAssetManager::R>(L);                                                 \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##___geti01(lua_State* L) {                         \
        return list_geti<IAssetManager::R>(L, tolua_assetman_vector_assetman__##R##___geti00); \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##__push_back00(lua_State* L) {                     \
        return list_push_back<IAssetManager::R>(L);                                            \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##__new00(lua_State* L) {                           \
        return new_object<list_##R>(L, names<IAssetManager::R>::list, false);                  \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##__new00_local(lua_State* L) {                     \
        return new_object<list_##R>(L, names<IAssetManager::R>::list, true);                   \
    }                                                                                          \
    int tolua_assetman_vector_assetman__##R##__delete00(lua_State* L) {                        \
        return delete_object<list_##R>(L, names<IAssetManager::R>::list);                      \
    }                                                                                          \
    int tolua_collect_vector_assetman__##R##_(lua_State* L) { return free_object<list_##R>(L); }
ASSETMAN_LISTS(ASSETMAN_DEFINE_LIST)
#undef ASSETMAN_DEFINE_LIST

#define ASSETMAN_DEFINE_LIST_COLLECTOR(kind, R)                                                       \
    int tolua_assetman_api_assetman_collect_##kind##_asset00(lua_State* L) {                          \
        return collect_list<IAssetManager::R>(L, assetman::collect_##kind##_asset,                    \
                                              "#ferror in function 'collect_" #kind "_asset'.");      \
    }                                                                                                 \
    int tolua_assetman_api_assetman_collect_##kind##_asset_fast00(lua_State* L) {                     \
        return collect_list<IAssetManager::R>(L, assetman::collect_##kind##_asset_fast,               \
                                              "#ferror in function 'collect_" #kind "_asset_fast'."); \
    }
#define ASSETMAN_DEFINE_SINGLE_COLLECTOR(kind, R)                                     \
    int tolua_assetman_api_assetman_collect_##kind##_asset00(lua_State* L) {          \
        return collect_single(L, assetman::collect_##kind##_asset,                    \
                              "#ferror in function 'collect_" #kind "_asset'.");      \
    }                                                                                 \
    int tolua_assetman_api_assetman_collect_##kind##_asset_fast00(lua_State* L) {     \
        return collect_single(L, assetman::collect_##kind##_asset_fast,               \
                              "#ferror in function 'collect_" #kind "_asset_fast'."); \
    }
ASSETMAN_COLLECTORS(ASSETMAN_DEFINE_LIST_COLLECTOR, ASSETMAN_DEFINE_SINGLE_COLLECTOR)
#undef ASSETMAN_DEFINE_LIST_COLLECTOR
#undef ASSETMAN_DEFINE_SINGLE_COLLECTOR

int tolua_assetman_api_assetman_collect_init00(lua_State* L) {
    tolua_Error err;
    if (!tolua_isnoobj(L, 1, &err)) {
        tolua_error(L, "#ferror in function 'collect_init'.", &err);
        return 0;
    }
    int32_t code = 0;
    cxx_call(L, [&] { code = assetman::collect_init(); });
    tolua_pushnumber(L, code);
    return 1;
}

int tolua_assetman_api_assetman_collect_release00(lua_State* L) {
    tolua_Error err;
    if (!tolua_isnoobj(L, 1, &err)) {
        tolua_error(L, "#ferror in function 'collect_release'.", &err);
        return 0;
    }
    cxx_call(L, [] { assetman::collect_release(); });
    return 0;
}

using holder = collect_system_asset_data;
constexpr const char* kHolderType = names<holder>::type;
constexpr const char* kDockerType = names<IAssetManager::DockerInfo>::type;

int tolua_assetman_api_assetman_collect_system_asset_data_new00(lua_State* L) {
    return new_object<holder>(L, kHolderType, false);
}
int tolua_assetman_api_assetman_collect_system_asset_data_new00_local(lua_State* L) {
    return new_object<holder>(L, kHolderType, true);
}
int tolua_assetman_api_assetman_collect_system_asset_data_delete00(lua_State* L) {
    return delete_object<holder>(L, kHolderType);
}
int tolua_collect_assetman__collect_system_asset_data(lua_State* L) { return free_object<holder>(L); }

// The record is handed out as a view; it lives at the holder's own address.
int tolua_assetman_api_assetman_collect_system_asset_data_get00(lua_State* L) {
    tolua_Error err;
    if (!tolua_isusertype(L, 1, kHolderType, 0, &err) || !tolua_isnoobj(L, 2, &err)) {
        tolua_error(L, "#ferror in function 'get'.", &err);
        return 0;
    }
    auto* self = static_cast<holder*>(tolua_tousertype(L, 1, 0));
    if (!self) tolua_error(L, "invalid 'self' in function 'get'", nullptr);
    push_alias(L, self->get(), names<IAssetManager::SystemInfo>::type);
    return 1;
}

int tolua_assetman_api_assetman_DockerInfo_new00(lua_State* L) {
    return new_object<IAssetManager::DockerInfo>(L, kDockerType, false);
}
int tolua_assetman_api_assetman_DockerInfo_new00_local(lua_State* L) {
    return new_object<IAssetManager::DockerInfo>(L, kDockerType, true);
}
int tolua_assetman_api_assetman_DockerInfo_delete00(lua_State* L) {
    return delete_object<IAssetManager::DockerInfo>(L, kDockerType);
}

// ------------------------------------------------------------- registration

// The user types, all declared before the first class.
#define ASSETMAN_V(R) "vector<assetman::" #R ">"
#define ASSETMAN_T(R) "assetman::" #R
const char* const kUserTypes[] = {
    ASSETMAN_V(ProcessInfo),
    ASSETMAN_T(AutoRunServInfo),
    ASSETMAN_T(SysInstallPackageInfo),
    kHolderType,
    ASSETMAN_V(ProcessModuleInfo),
    ASSETMAN_T(SysLoadModuleInfo),
    ASSETMAN_T(NetShareInfo),
    ASSETMAN_V(DiskInfo),
    ASSETMAN_T(NetworkCardInfo),
    ASSETMAN_T(DockerInfo),
    ASSETMAN_V(SysInstallPackageInfo),
    ASSETMAN_T(WebSiteInfo),
    ASSETMAN_V(SysLoadModuleInfo),
    ASSETMAN_T(CronInfo),
    ASSETMAN_V(NetworkCardInfo),
    ASSETMAN_T(NetLinkInfo),
    ASSETMAN_T(SystemInfo),
    ASSETMAN_V(CronInfo),
    "vector<string>",
    ASSETMAN_T(ThirdPartDevLibInfo),
    ASSETMAN_T(ProcessModuleInfo),
    ASSETMAN_T(DiskInfo),
    ASSETMAN_T(ProcessInfo),
    ASSETMAN_V(NetShareInfo),
    ASSETMAN_V(ServiceInfo),
    ASSETMAN_V(NetLinkInfo),
    ASSETMAN_V(WebSiteInfo),
    ASSETMAN_T(ServiceInfo),
    ASSETMAN_T(RegAutoStartInfo),
    ASSETMAN_T(UserInfo),
    ASSETMAN_V(ThirdPartDevLibInfo),
    ASSETMAN_V(UserInfo),
    ASSETMAN_V(RegAutoStartInfo),
    ASSETMAN_V(AutoRunServInfo),
};
#undef ASSETMAN_V
#undef ASSETMAN_T
static_assert(sizeof kUserTypes / sizeof kUserTypes[0] == 34, "every user type is declared");

}  // namespace

ASSETMAN_API int tolua_assetman_open(lua_State* L) {
    tolua_open(L);
    for (const char* type : kUserTypes) tolua_usertype(L, type);
    tolua_module(L, nullptr, 0);
    tolua_beginmodule(L, nullptr);

#define ASSETMAN_REGISTER_LIST(R)                                                       \
    tolua_cclass(L, "vector_assetman__" #R "_", names<IAssetManager::R>::list, "",      \
                 tolua_collect_vector_assetman__##R##_);                                \
    tolua_beginmodule(L, "vector_assetman__" #R "_");                                   \
    tolua_function(L, "clear", tolua_assetman_vector_assetman__##R##__clear00);         \
    tolua_function(L, "size", tolua_assetman_vector_assetman__##R##__size00);           \
    tolua_function(L, ".geti", tolua_assetman_vector_assetman__##R##___geti00);         \
    tolua_function(L, ".seti", tolua_assetman_vector_assetman__##R##___seti00);         \
    tolua_function(L, ".geti", tolua_assetman_vector_assetman__##R##___geti01);         \
    tolua_function(L, "push_back", tolua_assetman_vector_assetman__##R##__push_back00); \
    tolua_function(L, "new", tolua_assetman_vector_assetman__##R##__new00);             \
    tolua_function(L, "new_local", tolua_assetman_vector_assetman__##R##__new00_local); \
    tolua_function(L, ".call", tolua_assetman_vector_assetman__##R##__new00_local);     \
    tolua_function(L, "delete", tolua_assetman_vector_assetman__##R##__delete00);       \
    tolua_endmodule(L);
    ASSETMAN_LISTS(ASSETMAN_REGISTER_LIST)
#undef ASSETMAN_REGISTER_LIST

    tolua_module(L, "api", 0);
    tolua_beginmodule(L, "api");
    tolua_module(L, "assetman", 0);
    tolua_beginmodule(L, "assetman");

#define ASSETMAN_BIND_FIELD(R, f) \
    tolua_variable(L, #f, tolua_get_assetman__##R##_##f, tolua_set_assetman__##R##_##f);
#define ASSETMAN_OPEN_RECORD(R, hook)                             \
    tolua_cclass(L, #R, names<IAssetManager::R>::type, "", hook); \
    tolua_beginmodule(L, #R);                                     \
    ASSETMAN_FIELDS_##R(ASSETMAN_BIND_FIELD, R)
#define ASSETMAN_REGISTER_RECORD(R)                      \
    ASSETMAN_OPEN_RECORD(R, tolua_collect_assetman__##R) \
    tolua_endmodule(L);

    ASSETMAN_REGISTER_RECORD(NetworkCardInfo)
    ASSETMAN_REGISTER_RECORD(DiskInfo)
    ASSETMAN_REGISTER_RECORD(NetShareInfo)
    // Lua never owns a SystemInfo: it only sees the one inside a holder.
    ASSETMAN_OPEN_RECORD(SystemInfo, nullptr)
    tolua_endmodule(L);

    tolua_cclass(L, "collect_system_asset_data", kHolderType, "",
                 tolua_collect_assetman__collect_system_asset_data);
    tolua_beginmodule(L, "collect_system_asset_data");
    tolua_function(L, "new", tolua_assetman_api_assetman_collect_system_asset_data_new00);
    tolua_function(L, "new_local", tolua_assetman_api_assetman_collect_system_asset_data_new00_local);
    tolua_function(L, ".call", tolua_assetman_api_assetman_collect_system_asset_data_new00_local);
    tolua_function(L, "delete", tolua_assetman_api_assetman_collect_system_asset_data_delete00);
    tolua_function(L, "get", tolua_assetman_api_assetman_collect_system_asset_data_get00);
    tolua_endmodule(L);

    ASSETMAN_REGISTER_RECORD(RegAutoStartInfo)
    ASSETMAN_REGISTER_RECORD(SysLoadModuleInfo)
    ASSETMAN_REGISTER_RECORD(CronInfo)
    ASSETMAN_REGISTER_RECORD(AutoRunServInfo)
    ASSETMAN_REGISTER_RECORD(SysInstallPackageInfo)
    ASSETMAN_REGISTER_RECORD(UserInfo)
    ASSETMAN_REGISTER_RECORD(WebSiteInfo)
    ASSETMAN_REGISTER_RECORD(ServiceInfo)
    ASSETMAN_REGISTER_RECORD(NetLinkInfo)
    ASSETMAN_REGISTER_RECORD(ProcessModuleInfo)
    ASSETMAN_REGISTER_RECORD(ProcessInfo)
    ASSETMAN_REGISTER_RECORD(ThirdPartDevLibInfo)

    ASSETMAN_OPEN_RECORD(DockerInfo, tolua_collect_assetman__DockerInfo)
    tolua_function(L, "new", tolua_assetman_api_assetman_DockerInfo_new00);
    tolua_function(L, "new_local", tolua_assetman_api_assetman_DockerInfo_new00_local);
    tolua_function(L, ".call", tolua_assetman_api_assetman_DockerInfo_new00_local);
    tolua_function(L, "delete", tolua_assetman_api_assetman_DockerInfo_delete00);
    tolua_endmodule(L);
#undef ASSETMAN_REGISTER_RECORD
#undef ASSETMAN_OPEN_RECORD
#undef ASSETMAN_BIND_FIELD

    tolua_function(L, "collect_init", tolua_assetman_api_assetman_collect_init00);
    tolua_function(L, "collect_release", tolua_assetman_api_assetman_collect_release00);
#define ASSETMAN_BIND_COLLECTOR(kind, R)                                                                \
    tolua_function(L, "collect_" #kind "_asset", tolua_assetman_api_assetman_collect_##kind##_asset00); \
    tolua_function(L, "collect_" #kind "_asset_fast",                                                   \
                   tolua_assetman_api_assetman_collect_##kind##_asset_fast00);
    ASSETMAN_COLLECTORS(ASSETMAN_BIND_COLLECTOR, ASSETMAN_BIND_COLLECTOR)
#undef ASSETMAN_BIND_COLLECTOR

    tolua_endmodule(L);  // assetman
    tolua_endmodule(L);  // api
    tolua_endmodule(L);  // the global table
    return 1;
}

ASSETMAN_API int luaopen_assetman(lua_State* L) { return tolua_assetman_open(L); }
