#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_processes(const HostRoot&, std::vector<AM::ProcessInfo>&) { return -ENOSYS; }

}  // namespace amsvc
