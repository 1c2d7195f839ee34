// The shared library as the module sees it: one instance, and no exception or
// crash for a null record or a kind this platform does not collect.
#include <errno.h>
#include <gtest/gtest.h>

#include "asset_manager.h"

namespace {

TEST(ServiceLibrary, OneInstanceThatAnswersEveryOperation) {
    IAssetManager* svc = get_am_instance();
    ASSERT_NE(nullptr, svc);
    EXPECT_EQ(svc, get_am_instance());
    EXPECT_EQ(0, svc->init());
    EXPECT_EQ(-EINVAL, svc->collect_system(nullptr));
    std::vector<IAssetManager::ServiceInfo> services(1);
    EXPECT_EQ(0, svc->collect_service(services));  // replaces the list with what it finds
    std::vector<IAssetManager::ThirdPartDevLibInfo> libs;
    EXPECT_EQ(0, svc->collect_thirdpart_dev_lib(libs));
    IAssetManager::DockerInfo docker;
    EXPECT_NE(-ENOSYS, svc->collect_docker(docker));  // -ENOENT without an engine socket
    EXPECT_EQ(0, svc->release());
}

}  // namespace
