// assetman-run: a small Lua 5.1 host that loads assetman.so the way a host
// agent does (through its plug-in setup point) and runs one script in a fresh
// state.
//
//   assetman-run [--module PATH] SCRIPT [ARGS...]
//
// The module is taken from --module, else $ASSETMAN_MODULE, else
// ../lib/assetman.so next to this executable, else the installed location.
// The script sees its arguments in the global `arg` (arg[0] is the script)
// and as `...`, as under the stock interpreter.
#include <dlfcn.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <lua.hpp>

#include "plugin.h"

#ifndef ASSETMAN_INSTALLED_MODULE
#define ASSETMAN_INSTALLED_MODULE "/usr/local/lib/assetman.so"
#endif

// Debian keeps Lua 5.1 C modules (cjson, lfs, ...) here.
#ifndef ASSETMAN_LUA_CMODULE_DIR
#define ASSETMAN_LUA_CMODULE_DIR "/usr/lib/x86_64-linux-gnu/lua/5.1"
#endif

namespace {

const char* const kProgram = "assetman-run";

enum ExitCode { kOk = 0, kScriptFailed = 1, kUsage = 2, kModuleFailed = 3 };

void usage(FILE* out) {
    fprintf(out,
            "usage: %s [--module PATH] SCRIPT [ARGS...]\n"
            "Runs a Lua 5.1 script with the assetman module installed.\n"
            "  --module PATH  assetman.so to load (default: $ASSETMAN_MODULE, then\n"
            "                 ../lib/assetman.so next to this program, then %s)\n"
            "SCRIPT may be - to read the script from standard input.\n",
            kProgram, ASSETMAN_INSTALLED_MODULE);
}

bool is_regular_file(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string module_next_to_executable() {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) return std::string();
    std::string dir(self, static_cast<size_t>(n));
    const size_t slash = dir.rfind('/');
    if (slash == std::string::npos) return std::string();
    dir.resize(slash);
    return dir + "/../lib/assetman.so";
}

std::string choose_module(const char* option) {
    if (option) return option;
    const char* env = getenv("ASSETMAN_MODULE");
    if (env && *env) return env;
    const std::string local = module_next_to_executable();
    if (!local.empty() && is_regular_file(local)) return local;
    return ASSETMAN_INSTALLED_MODULE;
}

struct Setup {
    luacall::ICPLUGIN_API* api;
    bool installed;
};

int run_setup(lua_State* L) {
    auto* setup = static_cast<Setup*>(lua_touserdata(L, 1));
    lua_pop(L, 1);
    setup->installed = setup->api->setup_capi(L);
    return 0;
}

// Finds the plug-in in the module and installs it into L; on failure says why
// on stderr and returns false.
bool install_module(lua_State* L, const std::string& path) {
    // dlopen takes a bare name as a library to search for; a path is meant.
    const std::string target = path.find('/') == std::string::npos ? "./" + path : path;
    // Never closed: the state holds functions of the module until lua_close,
    // and the module's caches may live until the process ends.
    void* handle = dlopen(target.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        fprintf(stderr, "%s: cannot load module %s: %s\n", kProgram, path.c_str(), dlerror());
        return false;
    }
    const auto* point = static_cast<const cplugin_api_setup*>(dlsym(handle, "cplugin_api_setup_point"));
    if (!point) {
        fprintf(stderr, "%s: %s has no cplugin_api_setup_point: not an assetman plug-in\n", kProgram,
                path.c_str());
        return false;
    }
    if (!point->name || strcmp(point->name, "assetman") != 0) {
        fprintf(stderr, "%s: %s is the plug-in \"%s\", not \"assetman\"\n", kProgram, path.c_str(),
                point->name ? point->name : "(null)");
        return false;
    }
    luacall::ICPLUGIN_API* api = point->entry ? point->entry() : nullptr;
    if (!api) {
        fprintf(stderr, "%s: %s: the plug-in entry returned no object\n", kProgram, path.c_str());
        return false;
    }
    // The registration raises a failure (such as running out of memory) as a
    // Lua error, so it runs in protected mode.
    Setup setup{api, false};
    if (lua_cpcall(L, run_setup, &setup) != 0) {
        const char* msg = lua_tostring(L, -1);
        fprintf(stderr, "%s: %s: installing the module raised: %s\n", kProgram, path.c_str(),
                msg ? msg : "(error object is not a string)");
        return false;
    }
    if (!setup.installed) {
        fprintf(stderr, "%s: %s: installing the module into the Lua state failed\n", kProgram, path.c_str());
        return false;
    }
    return true;
}

// Makes sure require finds Debian's Lua 5.1 C modules whatever LUA_CPATH says.
void add_debian_cpath(lua_State* L) {
    lua_getglobal(L, "package");
    if (!lua_istable(L, -1)) {
        lua_pop(L, 1);
        return;
    }
    lua_getfield(L, -1, "cpath");
    std::string cpath = lua_isstring(L, -1) ? lua_tostring(L, -1) : "";
    lua_pop(L, 1);
    const std::string entry = ASSETMAN_LUA_CMODULE_DIR "/?.so";
    if (cpath.find(entry) == std::string::npos) {
        if (!cpath.empty()) cpath += ';';
        cpath += entry;
        lua_pushstring(L, cpath.c_str());
        lua_setfield(L, -2, "cpath");
    }
    lua_pop(L, 1);
}

// The message handler: adds the stack traceback to the error, as lua.c does.
int traceback(lua_State* L) {
    if (!lua_isstring(L, 1)) {
        // A table or userdata error may carry its own __tostring.
        if (luaL_callmeta(L, 1, "__tostring") && lua_isstring(L, -1)) {
            lua_replace(L, 1);
        } else {
            lua_settop(L, 1);
            lua_pushfstring(L, "(error object is a %s value)", luaL_typename(L, 1));
            lua_replace(L, 1);
        }
    }
    lua_settop(L, 1);
    lua_getfield(L, LUA_GLOBALSINDEX, "debug");
    if (!lua_istable(L, -1)) {
        lua_pop(L, 1);
        return 1;
    }
    lua_getfield(L, -1, "traceback");
    if (!lua_isfunction(L, -1)) {
        lua_pop(L, 2);
        return 1;
    }
    lua_pushvalue(L, 1);
    lua_pushinteger(L, 2);
    lua_call(L, 2, 1);
    return 1;
}

// arg[0] is the script, arg[1..] its arguments, negative indices the host's
// own command line before the script.
void set_arg_table(lua_State* L, char** argv, int argc, int script_index) {
    lua_createtable(L, argc - script_index - 1, script_index + 1);
    for (int i = 0; i < argc; ++i) {
        lua_pushstring(L, argv[i]);
        lua_rawseti(L, -2, i - script_index);
    }
    lua_setglobal(L, "arg");
}

struct Options {
    const char* module = nullptr;
    int script_index = 0;  // 0: no script given
};

// Returns -1 to go on, otherwise the exit code.
int parse_options(int argc, char** argv, Options* opt) {
    int i = 1;
    for (; i < argc; ++i) {
        const char* a = argv[i];
        if (strcmp(a, "--") == 0) {
            ++i;
            break;
        }
        if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
            usage(stdout);
            return kOk;
        }
        if (strcmp(a, "--module") == 0) {
            if (i + 1 >= argc) {
                fprintf(stderr, "%s: --module needs a path\n", kProgram);
                return kUsage;
            }
            opt->module = argv[++i];
            continue;
        }
        if (strncmp(a, "--module=", 9) == 0) {
            opt->module = a + 9;
            continue;
        }
        if (a[0] == '-' && a[1] != '\0') {
            fprintf(stderr, "%s: unknown option %s\n", kProgram, a);
            usage(stderr);
            return kUsage;
        }
        break;
    }
    if (i >= argc) {
        fprintf(stderr, "%s: no script given\n", kProgram);
        usage(stderr);
        return kUsage;
    }
    opt->script_index = i;
    return -1;
}

int run(lua_State* L, int argc, char** argv, int script_index) {
    set_arg_table(L, argv, argc, script_index);
    lua_pushcfunction(L, traceback);
    const int handler = lua_gettop(L);
    const char* script = argv[script_index];
    const int loaded = luaL_loadfile(L, strcmp(script, "-") == 0 ? nullptr : script);
    if (loaded != 0) {
        const char* msg = lua_tostring(L, -1);
        fprintf(stderr, "%s: %s\n", kProgram, msg ? msg : "cannot load the script");
        return kScriptFailed;
    }
    const int nargs = argc - script_index - 1;
    luaL_checkstack(L, nargs, "too many arguments to the script");
    for (int i = script_index + 1; i < argc; ++i) lua_pushstring(L, argv[i]);
    if (lua_pcall(L, nargs, 0, handler) != 0) {
        const char* msg = lua_tostring(L, -1);
        fprintf(stderr, "%s: %s\n", kProgram, msg ? msg : "(error object is not a string)");
        return kScriptFailed;
    }
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    const int parsed = parse_options(argc, argv, &opt);
    if (parsed >= 0) return parsed;

    lua_State* L = luaL_newstate();
    if (!L) {
        fprintf(stderr, "%s: cannot create a Lua state: out of memory\n", kProgram);
        return kScriptFailed;
    }
    luaL_openlibs(L);
    add_debian_cpath(L);

    int rc = kModuleFailed;
    if (install_module(L, choose_module(opt.module))) {
        // Whatever the registration left on the stack is not ours.
        lua_settop(L, 0);
        rc = run(L, argc, argv, opt.script_index);
    }
    fflush(stdout);
    // Runs the collection hooks of the module's objects while it is loaded.
    lua_close(L);
    return rc;
}
