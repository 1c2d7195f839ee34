// Server applications and the web sites they serve.
#include "collectors.h"

namespace amsvc {

int32_t collect_servers(const HostRoot&, std::vector<AM::ServiceInfo>&) { return -ENOSYS; }

}  // namespace amsvc
