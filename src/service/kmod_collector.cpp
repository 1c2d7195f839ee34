#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_kernel_modules(const HostRoot&, std::vector<AM::SysLoadModuleInfo>&) { return -ENOSYS; }

}  // namespace amsvc
