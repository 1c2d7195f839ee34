#include <errno.h>

#include "collectors.h"

namespace amsvc {

// Not collected yet.
int32_t collect_crons(const HostRoot&, std::vector<AM::CronInfo>&) { return -ENOSYS; }

}  // namespace amsvc
