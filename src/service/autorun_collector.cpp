#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_autoruns(const HostRoot&, std::vector<AM::AutoRunServInfo>&) { return -ENOSYS; }

}  // namespace amsvc
