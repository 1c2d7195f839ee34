// Loaded kernel modules: /proc/modules, each module's file found through the
// running kernel's module index (libkmod), with its digests and maker.
#include <errno.h>
#include <fcntl.h>
#include <libkmod.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdarg>
#include <memory>
#include <new>
#include <utility>

#include "collectors.h"
#include "core/file_facts.h"
#include "system/sysfacts.h"

namespace amsvc {

std::vector<ProcModule> parse_proc_modules(std::string_view text) {
    std::vector<ProcModule> out;
    for (std::string_view line : split_lines(text)) {
        const auto f = split_ws(line);
        // name size refcount users state address [taint flags]
        if (f.size() < 4) continue;
        uint64_t n;
        if (!parse_u64(f[1], n)) continue;
        ProcModule m;
        m.name = std::string(f[0]);
        m.size = std::string(f[1]);
        m.used = std::string(f[2]);
        std::string_view by = f[3];
        if (by == "-") by = std::string_view();
        while (!by.empty() && by.back() == ',') by.remove_suffix(1);
        m.by = std::string(by);
        if (f.size() >= 6) m.load_addr = std::string(f[5]);
        out.push_back(std::move(m));
    }
    return out;
}

bool has_module_signature(std::string_view tail) { return ends_with(tail, "~Module signature appended~\n"); }

namespace {

void quiet_log(void*, int, const char*, int, const char*, const char*, va_list) {}

struct KmodUnref {
    void operator()(struct kmod_ctx* c) const { kmod_unref(c); }
};
using KmodCtx = std::unique_ptr<struct kmod_ctx, KmodUnref>;

std::string kernel_release(const HostRoot& root) {
    std::string text;
    if (!root.is_live_host()) {
        if (read_host_file(root, "/proc/sys/kernel/osrelease", text, 4096) != 0) return std::string();
        return std::string(trim(text));
    }
    struct utsname u;
    return uname(&u) == 0 ? std::string(u.release) : std::string();
}

// The last bytes of a regular file (never a FIFO or device).
std::string file_tail(const std::string& path, size_t n) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return std::string();
    std::string out;
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
        const off_t want = std::min<off_t>(st.st_size, static_cast<off_t>(n));
        out.resize(static_cast<size_t>(want));
        const ssize_t got = ::pread(fd, &out[0], out.size(), st.st_size - want);
        out.resize(got > 0 ? static_cast<size_t>(got) : 0);
    }
    ::close(fd);
    return out;
}

struct ModuleFile {
    std::string host_path;  // resolved, inside the root
    std::string author;
    bool signed_module = false;
};

// Finds the module's file through the index under `moddir` (a host path) and
// reads its modinfo. Paths the index gives are taken as host paths and
// resolved under the root before anything opens them.
ModuleFile module_file(const HostRoot& root, struct kmod_ctx* ctx, const std::string& moddir, int moddir_fd,
                       const std::string& name) {
    ModuleFile mf;
    struct kmod_module* mod = nullptr;
    if (kmod_module_new_from_name(ctx, name.c_str(), &mod) < 0 || !mod) return mf;
    const char* p = kmod_module_get_path(mod);
    std::string host;
    if (p && *p) {
        const std::string kp = p;
        const std::string prefix = "/proc/self/fd/" + std::to_string(moddir_fd) + "/";
        if (starts_with(kp, prefix))
            host = moddir + "/" + kp.substr(prefix.size());
        else if (kp[0] == '/')
            host = kp;  // an absolute index entry names a path of that host, resolved under the root below
    }
    kmod_module_unref(mod);
    if (host.empty()) return mf;
    mf.host_path = resolve_host_path(root, host);
    if (mf.host_path.empty()) return mf;
    // The file found inside the root, pinned by its descriptor: libkmod opens
    // "/proc/self/fd/<n>", which is that file whatever its name leads to now.
    Fd file(open_host_file(root, mf.host_path, kNoFollow));
    struct stat st;
    if (file.get() < 0 || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        mf.host_path.clear();
        return mf;
    }
    const std::string open_path = "/proc/self/fd/" + std::to_string(file.get());
    mf.signed_module = has_module_signature(file_tail(open_path, 64));
    // Read modinfo from the resolved path only, so libkmod never follows a
    // link out of the root (it decompresses .ko.xz / .ko.zst itself).
    struct kmod_module* fmod = nullptr;
    if (kmod_module_new_from_path(ctx, open_path.c_str(), &fmod) == 0 && fmod) {
        struct kmod_list* info = nullptr;
        if (kmod_module_get_info(fmod, &info) >= 0) {
            for (struct kmod_list* e = info; e; e = kmod_list_next(info, e)) {
                const char* k = kmod_module_info_get_key(e);
                const char* v = kmod_module_info_get_value(e);
                if (!k) continue;
                const std::string_view key(k);
                if (key == "author" && mf.author.empty() && v)
                    mf.author = v;
                else if ((key == "signer" || key == "sig_id") && v && *v)
                    mf.signed_module = true;
            }
            kmod_module_info_free_list(info);
        }
        kmod_module_unref(fmod);
    }
    return mf;
}

}  // namespace

int32_t collect_kernel_modules(const HostRoot& root, std::vector<AM::SysLoadModuleInfo>& out) {
    return guarded(out, [&]() -> int32_t {
        out.clear();
        Fd moddir_fd;  // declared before ctx: outlives it
        KmodCtx ctx;
        std::string text;
        const int rc = read_host_file(root, "/proc/modules", text, 16u << 20);
        if (rc != 0) return rc == -EACCES || rc == -EPERM ? -EACCES : -ENOENT;
        const std::vector<ProcModule> mods = parse_proc_modules(text);
        const std::string rel = kernel_release(root);
        std::string moddir;
        if (!rel.empty() && rel.find('/') == std::string::npos && rel != "." && rel != "..") {
            moddir = resolve_host_path(root, "/lib/modules/" + rel);
            // libkmod opens its index files by name: the directory is pinned by
            // a descriptor, and an index that is a link (which could lead out
            // of an image) means no index at all.
            bool index_ok = !moddir.empty();
            for (const char* f : {"modules.dep.bin", "modules.dep", "modules.alias.bin", "modules.symbols.bin",
                                  "modules.builtin.bin", "modules.builtin.alias.bin", "modules.builtin.modinfo",
                                  "modules.softdep", "modules.devname", "modules.builtin", "modules.order"}) {
                struct stat st;
                if (index_ok && stat_host(root, moddir + "/" + f, st, kNoFollow) == 0 && !S_ISREG(st.st_mode))
                    index_ok = false;
            }
            if (index_ok) moddir_fd.reset(open_host(root, moddir, O_PATH | O_DIRECTORY));
            if (moddir_fd.get() >= 0) {
                static const char* const kNoConfig[] = {nullptr};  // never the host's modprobe.d
                ctx.reset(kmod_new(("/proc/self/fd/" + std::to_string(moddir_fd.get())).c_str(), kNoConfig));
                if (ctx) kmod_set_log_fn(ctx.get(), quiet_log, nullptr);
            }
        }
        std::vector<ModuleFile> files(mods.size());
        std::vector<FileRef> refs;
        std::vector<size_t> idx;
        for (size_t i = 0; i < mods.size(); ++i) {
            if (ctx) files[i] = module_file(root, ctx.get(), moddir, moddir_fd.get(), mods[i].name);
            if (files[i].host_path.empty()) continue;
            FileRef r;
            r.host_path = files[i].host_path;
            refs.push_back(std::move(r));
            idx.push_back(i);
        }
        ctx.reset();  // the index is done with before the files are hashed
        const std::vector<FileFacts> facts = file_facts_many(root, refs);
        out.reserve(mods.size());
        for (size_t i = 0; i < mods.size(); ++i) {
            AM::SysLoadModuleInfo m;
            m.name = mods[i].name;
            m.size = mods[i].size;
            m.load_addr = mods[i].load_addr;
            m.used = mods[i].used;
            m.by = mods[i].by;
            m.path = files[i].host_path;
            m.company = files[i].author;
            m.verified = files[i].signed_module;
            out.push_back(std::move(m));
        }
        for (size_t k = 0; k < idx.size() && k < facts.size(); ++k) {
            AM::SysLoadModuleInfo& m = out[idx[k]];
            m.md5 = facts[k].md5;
            m.sha256 = facts[k].sha256;
            if (!facts[k].company.empty()) m.company = facts[k].company;  // the package's vendor first
            m.verified = m.verified || facts[k].verified;
        }
        return 0;
    });
}

}  // namespace amsvc
