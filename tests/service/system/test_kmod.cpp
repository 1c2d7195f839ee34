// Kernel modules: /proc/modules parsing, module files found through an index
// that depmod builds here over objects compiled here, and lsmod on the host.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>

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
    write_file(dir + "/" + name + ".c", c);
    int st = 0;
    run("gcc -c -o '" + dir + "/" + name + ".ko' '" + dir + "/" + name + ".c' 2>&1", &st);
    unlink((dir + "/" + name + ".c").c_str());
    return st == 0;
}

// "md5 sha256" of a file by the coreutils tools.
std::string digests_of(const std::string& path) {
    return run("md5sum '" + path + "' | cut -c1-32 | tr -d '\\n'; echo -n ' '; sha256sum '" + path +
               "' | cut -c1-64");
}

}  // namespace

TEST(KmodParse, ProcModulesFields) {
    const auto m = parse_proc_modules(
        "nf_nat 49152 2 xt_MASQUERADE,nft_chain_nat, Live 0xffffffffc0a8a000\n"
        "loop 32768 0 - Live 0x0000000000000000 (OE)\n"
        "loading 4096 1 [permanent], Loading 0xffffffffc0000000\n"
        "junk\nbad notanumber 0 - Live 0x0\n\n");
    std::vector<std::string> got;
    for (const auto& r : m)
        got.push_back(r.name + " " + r.size + " " + r.used + " [" + r.by + "] " + r.load_addr);
    EXPECT_EQ(got,
              (std::vector<std::string>{"nf_nat 49152 2 [xt_MASQUERADE,nft_chain_nat] 0xffffffffc0a8a000",
                                        "loop 32768 0 [] 0x0000000000000000",
                                        "loading 4096 1 [[permanent]] 0xffffffffc0000000"}));
    EXPECT_TRUE(has_module_signature(std::string("\x01\x02~Module signature appended~\n")));
    EXPECT_FALSE(has_module_signature("~Module signature appended~"));
}

TEST(KmodCollect, FixtureTreeThroughDepmodIndex) {
    if (!amtest::have_tools("depmod")) GTEST_SKIP() << "depmod (kmod) not installed";
    amtest::TempDir dir("amkmod");
    const std::string root = dir.path, rel = "6.1.0-fixture";
    const std::string kdir = root + "/lib/modules/" + rel + "/kernel/drivers";
    run("mkdir -p '" + kdir + "'");
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
               "notonDisk 4096 0 - Live 0x0000000000000000\nbroken line\n");

    std::vector<AM::SysLoadModuleInfo> v;
    ASSERT_EQ(collect_kernel_modules(HostRoot(root), v), 0);
    ASSERT_EQ(v.size(), 4u);
    std::map<std::string, const AM::SysLoadModuleInfo*> m;
    for (const auto& r : v) m[r.name] = &r;
    const auto* a = m.at("alpha");
    EXPECT_EQ(a->path + " " + a->size + " " + a->used + " " + a->by + " " + a->load_addr,
              "/lib/modules/" + rel + "/kernel/drivers/alpha.ko 16384 2 beta,gamma 0xffffffffc0a00000");
    EXPECT_EQ(a->md5 + " " + a->sha256 + "\n", digests_of(kdir + "/alpha.ko"));
    EXPECT_EQ(a->company, "Jane Doe <jane@example.org>");  // no package owns it: the module's author
    EXPECT_FALSE(a->verified);
    EXPECT_TRUE(m.at("beta")->verified);
    EXPECT_EQ(m.at("beta")->company, "");
    if (have_xz) {
        const auto* g = m.at("gamma");
        EXPECT_EQ(g->path, "/lib/modules/" + rel + "/kernel/drivers/gamma.ko.xz");
        // the stored bytes, not the payload
        EXPECT_EQ(g->md5 + " " + g->sha256 + "\n", digests_of(kdir + "/gamma.ko.xz"));
        EXPECT_EQ(g->company, "Xz Packer");
    }
    EXPECT_EQ(m.at("notonDisk")->path + m.at("notonDisk")->md5, "");

    // A hostile index entry: the module file swapped for a FIFO and a link into /proc.
    unlink((kdir + "/alpha.ko").c_str());
    ASSERT_EQ(mkfifo((kdir + "/alpha.ko").c_str(), 0644), 0);
    unlink((kdir + "/beta.ko").c_str());
    ASSERT_EQ(symlink("/proc/self/environ", (kdir + "/beta.ko").c_str()), 0);
    ASSERT_EQ(collect_kernel_modules(HostRoot(root), v), 0);
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(v[0].path, "");
    EXPECT_EQ(v[1].path, "");
    EXPECT_EQ(v[1].md5, "");
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
    std::map<std::string, const AM::SysLoadModuleInfo*> m;
    for (const auto& r : v) m[r.name] = &r;
    size_t rows = 0;
    for (std::string_view line : split_lines(lsmod)) {
        const auto f = split_ws(line);
        if (f.size() < 3 || f[0] == "Module") continue;
        ++rows;
        ASSERT_TRUE(m.count(std::string(f[0]))) << f[0];
        const auto* r = m.at(std::string(f[0]));
        EXPECT_EQ(r->size, f[1]);
        EXPECT_EQ(r->by, f.size() > 3 ? std::string(f[3]) : std::string());
    }
    EXPECT_EQ(rows, v.size());
}
