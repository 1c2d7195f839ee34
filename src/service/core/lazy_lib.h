// Libraries of our own that only some hosts need (libcurl for a container
// engine, librpm for an rpm database), loaded on first use instead of at
// start: loading them and what they drag in costs a fresh process more than
// many collections do.
#ifndef ASSETMAN_SERVICE_LAZY_LIB_H
#define ASSETMAN_SERVICE_LAZY_LIB_H

#include <mutex>

namespace amsvc {

// Opens the library `soname` (RTLD_NOW | RTLD_LOCAL) from the system's library
// path, never from a host root or an image. Null when it cannot be loaded.
// The library stays loaded for the life of the process.
void* open_own_library(const char* soname);

// Resolves a table's entries in one library; ok() false when one is missing.
class SymbolBinder {
public:
    explicit SymbolBinder(void* handle) : handle_(handle) {}
    template <class Fn>
    void operator()(Fn& slot, const char* name) {
        void* p = lookup(name);
        if (!p) ok_ = false;
        slot = reinterpret_cast<Fn>(p);
    }
    bool ok() const { return ok_; }

private:
    void* lookup(const char* name) const;
    void* handle_;
    bool ok_ = true;
};

// The table of typed function pointers `Table` once its library is loaded,
// null when the library or any of its entries is missing. `Table` has
// `static constexpr const char* kSoname` and `void bind(SymbolBinder&)`.
// Loaded at most once per process, on the first call; thread-safe.
template <class Table>
const Table* lazy_table() {
    static std::once_flag once;
    static const Table* table = nullptr;
    std::call_once(once, [] {
        void* handle = open_own_library(Table::kSoname);
        if (!handle) return;
        static Table loaded;
        SymbolBinder bind(handle);
        loaded.bind(bind);
        if (bind.ok()) table = &loaded;
    });
    return table;
}

}  // namespace amsvc

#endif
