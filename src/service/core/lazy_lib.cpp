#include "core/lazy_lib.h"

#include <dlfcn.h>
#include <string.h>

namespace amsvc {

void* open_own_library(const char* soname) {
    // A bare soname only: a name with a slash would be opened as a path.
    if (!soname || !*soname || strchr(soname, '/')) return nullptr;
    void* h = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (!h) ::dlerror();  // clears the message kept for this thread
    return h;
}

void* SymbolBinder::lookup(const char* name) const {
    if (!handle_) return nullptr;
    return ::dlsym(handle_, name);  // the library and what it depends on
}

}  // namespace amsvc
