#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_system_facts(const HostRoot&, AM::SystemInfo&) { return -ENOSYS; }

}  // namespace amsvc
