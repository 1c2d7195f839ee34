// Libraries that applications carry outside the package manager.
#include "collectors.h"

namespace amsvc {

int32_t collect_libraries(const HostRoot&, std::vector<AM::ThirdPartDevLibInfo>&) { return -ENOSYS; }

}  // namespace amsvc
