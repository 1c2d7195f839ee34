#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_packages(const HostRoot&, std::vector<AM::SysInstallPackageInfo>&) { return -ENOSYS; }

}  // namespace amsvc
