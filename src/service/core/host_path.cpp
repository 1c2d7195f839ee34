#include "core/host_path.h"

#include <sys/stat.h>

namespace amsvc {

namespace {
constexpr int kMaxLinks = 40;
}  // namespace

bool is_special_tree(std::string_view p) {
    for (std::string_view t : {"/proc", "/sys", "/dev"})
        if (p == t || (starts_with(p, t) && p.size() > t.size() && p[t.size()] == '/')) return true;
    return false;
}

std::string resolve_host_path(const HostRoot& root, std::string_view host_path, bool allow_dev) {
    std::string todo = normalize_path(host_path);
    std::string done;  // resolved prefix, "" meaning "/"
    int links = 0;
    size_t pos = 0;
    while (pos < todo.size()) {
        while (pos < todo.size() && todo[pos] == '/') ++pos;
        if (pos >= todo.size()) break;
        size_t end = todo.find('/', pos);
        if (end == std::string::npos) end = todo.size();
        const std::string comp = todo.substr(pos, end - pos);
        pos = end;
        if (comp == ".") continue;
        if (comp == "..") {
            done = done.empty() ? done : dir_name(done);
            if (done == "/") done.clear();
            continue;
        }
        const std::string cand = done + "/" + comp;
        if (is_special_tree(cand)) {
            // Only a device path itself (a mask's /dev/null) may be named, never looked into.
            const std::string full = normalize_path(cand + todo.substr(pos));
            if (allow_dev && starts_with(full, "/dev/")) return full;
            return std::string();
        }
        struct stat st;
        if (stat_host(root, cand, st, kNoFollow) != 0) return std::string();
        if (S_ISLNK(st.st_mode)) {
            if (++links > kMaxLinks) return std::string();
            const std::string target = read_host_link(root, cand);
            if (target.empty()) return std::string();
            const std::string rest = todo.substr(pos);
            todo = normalize_path((target[0] == '/' ? target : (done.empty() ? "/" : done) + "/" + target)) +
                   rest;
            done.clear();
            pos = 0;
            continue;
        }
        done = cand;
    }
    return done.empty() ? "/" : done;
}

}  // namespace amsvc
