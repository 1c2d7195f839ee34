#include "package_index.h"

namespace amsvc {

bool package_owner(const HostRoot&, const std::string&, FileOwner&) { return false; }

}  // namespace amsvc
