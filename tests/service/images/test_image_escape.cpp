// An image whose absolute links all point at files of the running machine:
// some at canaries this test plants in a scratch directory, some at the
// machine's own /proc, /sys, /etc, /var. Inventoried with every kind, no fact
// of the running machine may appear, and the image must not change.
#include <gtest/gtest.h>

#include "core/common.h"
#include "image_fixtures.h"

namespace {

using amsvc::HostRoot;
using amtest::run;

TEST(ImageEscape, NoFactOfTheRunningMachine) {
    const std::string token = "cAnArY";  // in every file of fixtures/canary
    amtest::TempDir canary{"amimg_canary"}, image{"amimg_escape"};
    const std::string& c = canary.path;
    // The running machine's files the image's links name.
    run("cp -r " + amimg::q(ASSETMAN_FIXTURES "/canary/.") + " " + amimg::q(c) + " && chmod 600 " +
        amimg::q(c + "/spool/root"));
    canary.link("/systemd/system/timers.target.wants/" + token + ".timer",
                c + "/systemd/system/" + token + ".timer");
    ASSERT_TRUE(amimg::make_rpm_sqlite(c + "/rpmroot")) << "needs rpm and rpmbuild";

    const std::string links = amtest::read_text(ASSETMAN_FIXTURES "/escape.links");
    size_t made = 0;
    for (std::string_view line : amsvc::split_lines(links)) {
        const auto f = amsvc::split_ws(line);
        if (f.size() != 2 || f[0][0] != '/') continue;
        image.link(std::string(f[0]),
                   amsvc::starts_with(f[1], "$C") ? c + std::string(f[1].substr(2)) : std::string(f[1]));
        ++made;
    }
    ASSERT_EQ(made, 21u) << "fixtures/escape.links";
    // The image's own dpkg database names a package of this machine: its
    // install time must not come from the machine's info/ directory.
    image.file("/var/lib/dpkg/status", "Package: dpkg\nStatus: install ok installed\nVersion: 0image\n");

    const std::string sum_image = amimg::tree_sum(image.path), sum_canary = amimg::tree_sum(c);
    const std::string inv = amimg::inventory(HostRoot(image.path));
    // escape.expected: no canary token, no package of the machine's rpm
    // database, the image's own dpkg entry without an install time.
    EXPECT_EQ(inv, amtest::read_text(ASSETMAN_FIXTURES "/escape.expected"));
    EXPECT_EQ(sum_image, amimg::tree_sum(image.path));
    EXPECT_EQ(sum_canary, amimg::tree_sum(c));

    // A whole image of links to the machine's top directories.
    amtest::TempDir top{"amimg_escape_top"};
    for (const char* d :
         {"/etc", "/var", "/usr", "/lib", "/bin", "/sbin", "/proc", "/sys", "/run", "/root", "/home"})
        top.link(d, d);
    const std::string inv_top = amimg::inventory(HostRoot(top.path));
    // Each link is a loop inside the image: no kind finds a record.
    EXPECT_EQ(inv_top, amtest::read_text(ASSETMAN_FIXTURES "/escape_top.expected"));
}

}  // namespace
