// A mounted image is inventoried with the image as "/": its links, absolute or
// "..", must never lead the service to a file of the machine it runs on.
#include <gtest/gtest.h>
#include <unistd.h>

#include "collectors.h"
#include "core/common.h"
#include "test_util.h"

namespace {

using namespace amsvc;

class ImageRoot : public ::testing::Test {
protected:
    amtest::TempDir dir{"amsvc_image"};
    const std::string root = dir.path;
    void SetUp() override {
        dir.mkdir("/etc");
        dir.mkdir("/var/lib/dpkg/info");
    }
};

TEST_F(ImageRoot, LinksResolveInsideTheImage) {
    dir.file("/etc/hostname", "image-host\n");
    dir.link("/etc/abs", "/etc/hostname");                  // absolute: the image's own file
    dir.link("/etc/up", "../../../../../../etc/hostname");  // ".." stops at the image's "/"
    dir.link("/etc/missing", "/etc/machine-id");            // exists on the host, not in the image
    const HostRoot image(root);
    std::string text;
    for (const char* p : {"/etc/abs", "/etc/up"}) {
        EXPECT_EQ(0, read_host_file(image, p, text)) << p;
        EXPECT_EQ("image-host\n", text) << p;
    }
    EXPECT_GT(0, read_host_file(image, "/etc/missing", text));
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(-ELOOP, read_host_file(image, "/etc/abs", text, kDefaultMaxFile, kNoFollow));
    // The live host reads plainly.
    EXPECT_EQ(0, read_host_file(HostRoot("/"), "/proc/self/status", text));
}

TEST_F(ImageRoot, AccountFilesLinkedToHostFilesAreNotRead) {
    dir.link("/etc/passwd", "/etc/passwd");  // the host's accounts, were the link followed on the host
    dir.link("/etc/group", "/etc/group");
    std::vector<IAssetManager::UserInfo> users;
    EXPECT_GT(0, collect_users(HostRoot(root), users));
    EXPECT_TRUE(users.empty());

    unlink((root + "/etc/passwd").c_str());
    dir.file("/etc/passwd", "imageuser:x:1234:1234::/home/i:/bin/sh\n");
    EXPECT_EQ(0, collect_users(HostRoot(root), users));
    ASSERT_EQ(1u, users.size());
    EXPECT_EQ("imageuser", users[0].name);
}

TEST_F(ImageRoot, PackageDatabaseLinkedToTheHostsIsNotRead) {
    ASSERT_EQ(0, access("/var/lib/dpkg/status", R_OK)) << "needs a dpkg host";
    dir.link("/var/lib/dpkg/status", "/var/lib/dpkg/status");
    std::vector<IAssetManager::SysInstallPackageInfo> pkgs;
    collect_packages(HostRoot(root), pkgs);
    EXPECT_TRUE(pkgs.empty());
}

}  // namespace
