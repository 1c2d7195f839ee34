// The unit directories listed once per collection: lookups among the names
// listed must find what a walk of the tree finds, stay inside an image's root,
// and survive a tree that changes after it was listed; files hashed while the
// units are read must get the facts a one-shot call gives.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/digest_cache.h"
#include "core/file_facts.h"
#include "core/host_path.h"
#include "schedule/unit_file.h"
#include "test_util.h"

using namespace amsvc;

namespace {

const std::string kEtc = "/etc/systemd/system", kLib = "/lib/systemd/system";

// Lookups through the listings give what resolve_host_path gives walking the tree.
TEST(UnitDirs, ResolveAgreesWithAWalk) {
    amtest::TempDir t("amudirs");
    t.mkdir("/usr/lib/systemd/system");
    t.link("/lib", "usr/lib");
    t.file("/usr/bin/prog", "x");
    t.link("/usr/sbin/prog", "../bin/prog");
    t.file(kLib + "/real.service", "[Service]\n");
    t.link(kEtc + "/masked.service", "/dev/null");
    t.link(kEtc + "/alias.service", kLib + "/real.service");
    t.link(kEtc + "/chain.service", "alias.service");
    t.link(kEtc + "/loop.service", "loop.service");
    t.link(kEtc + "/proc.service", "/proc/self/environ");
    t.link(kEtc + "/out.service", "/../../../../usr/bin/prog");
    t.link(kEtc + "/dangling.service", "/nowhere/x.service");
    t.link("/opt/bin", "/usr/bin");
    const HostRoot root(t.path);
    UnitDirs dirs(root);
    for (const char* p :
         {"/usr/sbin/prog", "/opt/bin/prog", "/opt/bin/none", "/lib/systemd/system/real.service",
          "/etc/systemd/system/masked.service", "/etc/systemd/system/chain.service",
          "/etc/systemd/system/loop.service", "/etc/systemd/system/proc.service",
          "/etc/systemd/system/out.service", "/etc/systemd/system/dangling.service",
          "/etc/systemd/system/absent.service", "/lib/systemd/system/../../../bin/../usr/bin/prog", "/"})
        for (bool dev : {false, true}) EXPECT_EQ(dirs.resolve(p, dev), resolve_host_path(root, p, dev)) << p;
}

// Drop-in directories that are links resolve inside the image; names listed
// and then removed or replaced are skipped, never followed out of the tree.
TEST(UnitDirs, DropinLinksAndATreeThatChanges) {
    amtest::TempDir host("amudhost"), t("amudirs");
    host.file("/conf/10-host.conf", "[Unit]\nDescription=from the host\n");
    t.file("/srv/d/10-in.conf", "[Unit]\nDescription=in the image\n");
    t.link(kEtc + "/a.service.d", "/srv/d");             // absolute: the image's /srv
    t.link(kEtc + "/b.service.d", "../../../srv/d");     // relative
    t.link(kEtc + "/c.service.d", host.path + "/conf");  // the host's directory: absent in the image
    t.link(kEtc + "/d.service.d", "/proc/self/cwd");     // refused
    t.file(kLib + "/e.service.d/10-e.conf", "[Unit]\nDescription=e\n");
    t.file(kLib + "/f.service.d/10-f.conf", "[Unit]\nDescription=f\n");
    t.file(kLib + "/g.service.d/10-g.conf", "[Unit]\nDescription=g\n");
    const HostRoot root(t.path);
    UnitDirs dirs(root);
    // After the listing: e.service.d goes, f.service.d becomes a FIFO, g.service.d a link out.
    std::filesystem::remove_all(t.path + kLib + "/e.service.d");
    std::filesystem::remove_all(t.path + kLib + "/f.service.d");
    ASSERT_EQ(mkfifo((t.path + kLib + "/f.service.d").c_str(), 0644), 0);
    std::filesystem::remove_all(t.path + kLib + "/g.service.d");
    t.link(kLib + "/g.service.d", host.path + "/conf");
    // Only a and b reach the image's drop-in directory.
    for (const char* unit :
         {"a.service", "b.service", "c.service", "d.service", "e.service", "f.service", "g.service"}) {
        const bool in = unit[0] <= 'b';
        EXPECT_EQ(find_dropins(dirs, {unit}),
                  in ? std::vector<std::string>{"/srv/d/10-in.conf"} : std::vector<std::string>{})
            << unit;
        UnitKeys keys;
        apply_dropins(dirs, {unit}, keys);
        EXPECT_EQ(unit_last(keys, "Unit.Description"), in ? "in the image" : "") << unit;
    }
}

// Files added one by one while hashing runs get what one call for all gives:
// repeated paths, links, a FIFO, a directory and a missing file included.
TEST(FileFactsBatch, SameFactsAsOneCall) {
    amtest::TempDir t("amudfacts");
    std::vector<FileRef> refs;
    for (int i = 0; i < 12; ++i)
        refs.emplace_back(t.file("/bin/p" + std::to_string(i % 5), std::string(i * 7000, 'a' + i % 5)), "");
    t.link("/bin/link", "p1");
    ASSERT_EQ(mkfifo((t.path + "/bin/fifo").c_str(), 0644), 0);
    for (const char* p : {"/bin/link", "/bin/fifo", "/bin", "/bin/missing"})
        refs.emplace_back(t.path + p, "");
    FileFactsBatch batch{HostRoot("/")};
    std::vector<size_t> idx;
    for (const FileRef& r : refs) idx.push_back(batch.add(r));
    const std::vector<FileFacts> got = batch.finish();
    digest_cache_clear();  // read afresh, not from what the batch left
    const std::vector<FileFacts> want = file_facts_many(HostRoot("/"), refs);
    for (size_t i = 0; i < refs.size(); ++i) {
        ASSERT_LT(idx[i], got.size());
        EXPECT_EQ(got[idx[i]].md5, want[i].md5) << refs[i].host_path;
        EXPECT_EQ(got[idx[i]].sha256, want[i].sha256) << refs[i].host_path;
        EXPECT_EQ(got[idx[i]].verified, want[i].verified) << refs[i].host_path;
    }
    EXPECT_EQ(idx[0], idx[5]);  // one path, one entry
    EXPECT_FALSE(want[0].md5.empty());
    EXPECT_TRUE(want[refs.size() - 3].md5.empty());  // the FIFO is never read
}

}  // namespace
