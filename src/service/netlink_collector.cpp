#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_netlinks(const HostRoot&, std::vector<AM::NetLinkInfo>&) { return -ENOSYS; }

}  // namespace amsvc
