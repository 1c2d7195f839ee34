// Kernel modules: a fixture /proc/modules (odd lines included) with module
// files found through an index that depmod builds here over objects compiled
// here, and lsmod on the host.
#include <set>

#include "system/sysfacts.h"
#include "test_util.h"

using namespace amsvc;

namespace {

using amtest::run;
using amtest::write_file;

// An ELF relocatable object whose .modinfo holds the given key=value strings.
bool build_module(const std::string& dir, const std::string& name, const std::vector<std::string>& info) {
    std::string c;
    for (size_t i = 0; i < info.size(); ++i)
        c += "static const char m" + std::to_string(i) +
             "[] __attribute__((section(\".modinfo\"), used, aligned(1))) = \"" + info[i] + "\";\n";
    write_file(dir + "/" + name + ".c", c);  // makes the directory
    int st = 0;
    run("gcc -c -o '" + dir + "/" + name + ".ko' '" + dir + "/" + name + ".c' 2>&1", &st);
    return st == 0;
}

// "md5 sha256" of a file by the coreutils tools.
std::string digests_of(const std::string& path) {
    return run("echo $(md5sum '" + path + "' | cut -c1-32) $(sha256sum '" + path +
               "' | cut -c1-64) | tr -d '\\n'");
}

}  // namespace

TEST(KmodCollect, FixtureTreeThroughDepmodIndex) {
    if (!amtest::have_tools("depmod")) GTEST_SKIP() << "depmod (kmod) not installed";
    amtest::TempDir dir("amkmod");
    const std::string root = dir.path, rel = "6.1.0-fixture";
    const std::string kdir = root + "/lib/modules/" + rel + "/kernel/drivers";
    write_file(root + "/proc/sys/kernel/osrelease", rel + "\n");
    ASSERT_TRUE(build_module(kdir, "alpha",
                             {"author=Jane Doe <jane@example.org>", "license=GPL", "name=alpha",
                              "vermagic=" + rel + " SMP mod_unload "}));
    ASSERT_TRUE(build_module(kdir, "beta", {"license=GPL", "name=beta"}));
    {  // beta is signed: the trailer the kernel's sign-file appends
        std::ofstream f(kdir + "/beta.ko", std::ios::app | std::ios::binary);
        f << std::string(12, '\0') << "~Module signature appended~\n";
    }
    ASSERT_TRUE(build_module(kdir, "gamma", {"author=Xz Packer", "name=gamma"}));
    const bool have_xz = amtest::have_tools("xz");
    if (have_xz) run("xz '" + kdir + "/gamma.ko'");
    int st = 0;
    run("depmod -b '" + root + "' " + rel + " 2>&1", &st);
    ASSERT_EQ(st, 0);
    write_file(root + "/proc/modules",
               "alpha 16384 2 beta,gamma, Live 0xffffffffc0a00000 (OE)\n"
               "beta 20480 1 gamma, Live 0xffffffffc0b00000\n"
               "gamma 8192 0 - Live 0xffffffffc0c00000\n"
               "notonDisk 4096 0 - Live 0x0000000000000000\nbroken line\n"
               "loading 4096 1 [permanent], Loading 0xffffffffc0000000\nbad notanumber 0 - Live 0x0\n");

    // Digests are of the stored bytes (gamma's compressed ones); a module no
    // package owns names its author; beta carries a signature.
    std::vector<AM::SysLoadModuleInfo> v;
    ASSERT_EQ(collect_kernel_modules(HostRoot(root), v), 0);
    std::vector<std::string> got;
    for (const auto& r : v)
        got.push_back(r.name + " " + r.size + " " + r.used + " [" + r.by + "] " + r.load_addr + "|" + r.path +
                      "|" + r.company + "|" + std::to_string(r.verified) + "|" + r.md5 + " " + r.sha256);
    const std::string mods = "/lib/modules/" + rel + "/kernel/drivers/",
                      gamma = have_xz ? "gamma.ko.xz" : "gamma.ko";
    EXPECT_EQ(got, (std::vector<std::string>{
                       "alpha 16384 2 [beta,gamma] 0xffffffffc0a00000|" + mods +
                           "alpha.ko|Jane Doe <jane@example.org>|0|" + digests_of(kdir + "/alpha.ko"),
                       "beta 20480 1 [gamma] 0xffffffffc0b00000|" + mods + "beta.ko||1|" +
                           digests_of(kdir + "/beta.ko"),
                       "gamma 8192 0 [] 0xffffffffc0c00000|" + mods + gamma + "|Xz Packer|0|" +
                           digests_of(kdir + "/" + gamma),
                       "notonDisk 4096 0 [] 0x0000000000000000|||0| ",
                       "loading 4096 1 [[permanent]] 0xffffffffc0000000|||0| ",
                   }));

    // A hostile index entry: the module file swapped for a FIFO and a link into /proc.
    unlink((kdir + "/alpha.ko").c_str());
    ASSERT_EQ(mkfifo((kdir + "/alpha.ko").c_str(), 0644), 0);
    unlink((kdir + "/beta.ko").c_str());
    ASSERT_EQ(symlink("/proc/self/environ", (kdir + "/beta.ko").c_str()), 0);
    ASSERT_EQ(collect_kernel_modules(HostRoot(root), v), 0);
    ASSERT_EQ(v.size(), 5u);
    EXPECT_EQ(v[0].path + v[1].path + v[1].md5, "");
}

TEST(KmodCollect, MissingSourcesAndHost) {
    std::vector<AM::SysLoadModuleInfo> v(3);
    EXPECT_EQ(collect_kernel_modules(HostRoot("/nonexistent/root"), v), -ENOENT);
    EXPECT_TRUE(v.empty());
    int st = 0;
    const std::string lsmod = run("lsmod 2>/dev/null", &st);
    const int rc = collect_kernel_modules(HostRoot("/"), v);
    if (access("/proc/modules", R_OK) != 0) {
        // This kernel has no loadable modules: nothing to list, and lsmod agrees.
        EXPECT_EQ(rc, -ENOENT);
        EXPECT_NE(st, 0);
        return;
    }
    ASSERT_EQ(rc, 0);
    // Each module lsmod shows, with its size and users, and no other.
    std::set<std::string> theirs, ours;
    for (std::string_view line : split_lines(lsmod)) {
        const auto f = split_ws(line);
        if (f.size() >= 3 && f[0] != "Module")
            theirs.insert(std::string(f[0]) + " " + std::string(f[1]) + " " +
                          std::string(f.size() > 3 ? f[3] : ""));
    }
    for (const auto& r : v) ours.insert(r.name + " " + r.size + " " + r.by);
    EXPECT_EQ(ours, theirs);
}
