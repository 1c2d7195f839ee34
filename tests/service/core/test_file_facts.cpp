// Digests of host files: known vectors, agreement with coreutils, files that
// must never be read (FIFO, device, refused symlink), and the identity cache.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>

#include "core/digest_cache.h"
#include "core/file_facts.h"

using namespace amsvc;

namespace {

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/am_ff_XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { (void)system(("rm -rf '" + path_ + "'").c_str()); }
    std::string file(const std::string& name, const std::string& content) const {
        const std::string p = path_ + "/" + name;
        std::ofstream(p, std::ios::binary) << content;
        return p;
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::string run(const std::string& cmd) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

FileFacts facts_of(const std::string& path, bool no_follow = false) {
    return file_facts(HostRoot("/"), FileRef{path, path, no_follow});
}

}  // namespace

TEST(Digests, KnownVectorsAndCoreutilsAgree) {
    TempDir dir;
    FileFacts empty = facts_of(dir.file("empty", ""));
    EXPECT_EQ(empty.md5, "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(empty.sha256, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    FileFacts abc = facts_of(dir.file("abc", "abc"));
    EXPECT_EQ(abc.md5, "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(abc.sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_TRUE(abc.company.empty());
    EXPECT_FALSE(abc.verified);

    // The extra digest comes from the same pass.
    FileDigests d;
    ASSERT_TRUE(digest_file(dir.path() + "/abc", false, DigestAlgo::kSha1, d));
    EXPECT_EQ(d.extra_algo, DigestAlgo::kSha1);
    EXPECT_EQ(to_hex(d.extra, 20), "a9993e364706816aba3e25717850c26c9cd0d89d");
    ASSERT_TRUE(digest_file(dir.path() + "/abc", false, DigestAlgo::kSha512, d));
    EXPECT_EQ(to_hex(d.extra, 64).substr(0, 16), "ddaf35a193617aba");

    // 3 MB of varied bytes: several buffer lengths and a short last read.
    std::string big(3 * 1024 * 1024 + 17, '\0');
    uint32_t x = 12345;
    for (char& c : big) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    const std::string p = dir.file("big", big);
    FileFacts f = facts_of(p);
    EXPECT_EQ(f.md5, run("md5sum '" + p + "'").substr(0, 32));
    EXPECT_EQ(f.sha256, run("sha256sum '" + p + "'").substr(0, 64));
}

TEST(Digests, NeverReadsWhatIsNotARegularFile) {
    TempDir dir;
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string target = dir.file("target", "abc");
    const std::string link = dir.path() + "/link";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);

    const auto t0 = std::chrono::steady_clock::now();
    FileFacts f = facts_of(fifo);  // no writer: a blocking open would hang here
    EXPECT_TRUE(f.md5.empty());
    EXPECT_TRUE(f.sha256.empty());
    f = facts_of("/dev/zero");  // endless: a read would never stop
    EXPECT_TRUE(f.md5.empty());
    f = facts_of(dir.path());  // a directory
    EXPECT_TRUE(f.md5.empty());
    f = facts_of(dir.path() + "/vanished");
    EXPECT_TRUE(f.md5.empty());
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));

    EXPECT_TRUE(facts_of(link, true).md5.empty());
    EXPECT_EQ(facts_of(link, false).md5, "900150983cd24fb0d6963f7d28e17f72");

    // Hashing through a root: host_path names it, the root places it.
    FileFacts rooted = file_facts(HostRoot(dir.path()), FileRef{"/target", "", false});
    EXPECT_EQ(rooted.md5, "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Digests, CacheReadsOnceAndNoticesRewrites) {
    TempDir dir;
    const std::string p = dir.file("f", "first content");
    const FileFacts a = facts_of(p);
    const uint64_t hashed = digest_stats().files_hashed;
    const FileFacts b = facts_of(p);
    EXPECT_EQ(a.sha256, b.sha256);
    EXPECT_EQ(digest_stats().files_hashed, hashed) << "a cache hit must not read the file";

    // Same size, new content, and the mtime put back: ctime still moves.
    struct stat st;
    ASSERT_EQ(stat(p.c_str(), &st), 0);
    dir.file("f", "other content");
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, p.c_str(), times, 0), 0);
    const FileFacts c = facts_of(p);
    EXPECT_EQ(digest_stats().files_hashed, hashed + 1);
    EXPECT_NE(c.sha256, a.sha256);
    EXPECT_EQ(c.md5, run("md5sum '" + p + "'").substr(0, 32));

    // Asking for a digest kind the cached entry lacks reads again, once.
    FileDigests d;
    ASSERT_TRUE(digest_file(p, false, DigestAlgo::kSha1, d));
    ASSERT_TRUE(digest_file(p, false, DigestAlgo::kSha1, d));
    EXPECT_EQ(digest_stats().files_hashed, hashed + 2);
}

TEST(Digests, ManyFilesInOrderEachReadOnce) {
    TempDir dir;
    digest_cache_clear();
    std::vector<FileRef> refs;
    for (int i = 0; i < 200; ++i) {
        const std::string p =
            dir.file("f" + std::to_string(i), std::string(1000 + i, static_cast<char>('a' + i % 26)));
        refs.push_back(FileRef{p, p, false});
        refs.push_back(FileRef{p, p, false});  // shared by two "processes"
    }
    refs.push_back(FileRef{"/dev/null", "/dev/null", false});
    const uint64_t hashed = digest_stats().files_hashed;
    const std::vector<FileFacts> out = file_facts_many(HostRoot("/"), refs);
    ASSERT_EQ(out.size(), refs.size());
    EXPECT_EQ(digest_stats().files_hashed, hashed + 200);
    for (size_t i = 0; i + 1 < refs.size(); ++i) {
        EXPECT_EQ(out[i].md5, facts_of(refs[i].open_path).md5) << refs[i].open_path;
    }
    EXPECT_TRUE(out.back().md5.empty());
}
