#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_users(const HostRoot&, std::vector<AM::UserInfo>&) { return -ENOSYS; }

}  // namespace amsvc
