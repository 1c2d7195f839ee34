// Host paths resolved by reading links, never by handing a path to the kernel
// to follow: every step stays inside the host root.
#ifndef ASSETMAN_SERVICE_HOST_PATH_H
#define ASSETMAN_SERVICE_HOST_PATH_H

#include <string>
#include <string_view>

#include "core/common.h"

namespace amsvc {

// Follows the symlinks of `host_path` textually, every step kept inside the
// root ("/.." stays "/", an absolute target restarts at the root). Returns the
// final host path, or empty when a loop, a dangling link or a step into
// /proc, /sys or /dev is met (unless `allow_dev` and the result is a device
// path such as /dev/null, which masked units point to).
std::string resolve_host_path(const HostRoot& root, std::string_view host_path, bool allow_dev = false);

// Whether a host path is /proc, /sys, /dev or below them.
bool is_special_tree(std::string_view host_path);

}  // namespace amsvc

#endif
