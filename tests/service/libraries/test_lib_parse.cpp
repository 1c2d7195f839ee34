// The metadata parsers on literal text.
#include <string.h>

#include <gtest/gtest.h>

#include "libraries/lib_parse.h"

using namespace amsvc;

namespace {

struct Case {
    const char* text;
    bool ok;
    const char* name;
    const char* version;
};

template <class F>
void check_table(const std::vector<Case>& cases, F parse) {
    for (const Case& c : cases) {
        LibId id;
        EXPECT_EQ(parse(c.text, id), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(id.name, c.name) << c.text;
            EXPECT_EQ(id.version, c.version) << c.text;
        }
    }
}

}  // namespace

TEST(LibParse, PomProperties) {
    check_table({{"#Generated\ngroupId=org.apache.logging.log4j\nartifactId=log4j-core\nversion=2.14.1\n",
                  true, "org.apache.logging.log4j:log4j-core", "2.14.1"},
                 {"version = 1.0 \r\nartifactId : a\r\n", true, "a", "1.0"},
                 {"groupId=g\nversion=1\n", false, "", ""},
                 {"", false, "", ""}},
                parse_pom_properties);
    // A 10 MB file is read from its head only.
    std::string big = "groupId=g\nartifactId=a\nversion=1\n" + std::string(10u << 20, 'x');
    LibId id;
    EXPECT_TRUE(parse_pom_properties(big, id));
    EXPECT_EQ(id.name, "g:a");
}

TEST(LibParse, Manifest) {
    check_table(
        {{"Manifest-Version: 1.0\r\nImplementation-Title: Apache Log4j Core\r\nImplementation-Version: "
          "2.14.1\r\n",
          true, "Apache Log4j Core", "2.14.1"},
         // Directives of the symbolic name go; a 72-byte line continues after one space.
         {"Bundle-SymbolicName: com.google.guava.fail\n ureaccess;singleton:=true\nBundle-Version: 1.0.1\n",
          true, "com.google.guava.failureaccess", "1.0.1"},
         // Only the main section counts.
         {"Manifest-Version: 1.0\n\nName: x/\nImplementation-Title: other\n", false, "", ""},
         {"Created-By: 17 (Debian)\n", false, "", ""},
         {"Implementation-Version: 3\nBundle-SymbolicName: b\n", true, "b", "3"}},
        manifest_library);
}

TEST(LibParse, FileAndSharedObjectNames) {
    // Archive and gemspec file names always split; shared object names only
    // when they are one (a null name: refused).
    const struct {
        bool so;
        const char *file, *name, *version;
    } cases[] = {
        {false, "log4j-core-2.14.1.jar", "log4j-core", "2.14.1"},
        {false, "log4j-1.2-api-2.17.1.jar", "log4j-1.2-api", "2.17.1"},
        {false, "guava-31.1-jre.jar", "guava", "31.1-jre"},
        {false, "lucene-core-9.4.2-2.jar", "lucene-core", "9.4.2-2"},
        {false, "hadoop-3.war", "hadoop", "3"},
        {false, "app.jar", "app", ""},
        {false, "rake-13.0.6.gemspec", "rake", "13.0.6"},
        {false, "bcprov-jdk15on-1.70.jar", "bcprov-jdk15on", "1.70"},
        {true, "libfoo.so.1.2.3", "libfoo", "1.2.3"},
        {true, "libssl.so.3", "libssl", "3"},
        {true, "libfoo.so", "libfoo", ""},
        {true, "libfoo-1.2.so", "libfoo-1.2", ""},
        {true, "libx.solver.so.1", "libx.solver", "1"},
        {true, "notes.sol", nullptr, nullptr},
        {true, "libfoo.so.bak", nullptr, nullptr},
        {true, ".so", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        std::string n, v;
        if (c.so) {
            EXPECT_EQ(split_so_name(c.file, n, v), c.name != nullptr) << c.file;
        } else {
            split_file_version(c.file, n, v);
        }
        if (c.name) {
            EXPECT_EQ(n + "|" + v, std::string(c.name) + "|" + c.version) << c.file;
        }
    }
}

TEST(LibParse, PythonNodeGem) {
    check_table({{"Metadata-Version: 2.1\nName: requests\nVersion: 2.31.0\nSummary: x\n\nName: not-me\n",
                  true, "requests", "2.31.0"},
                 {"Metadata-Version: 1.0\r\nName: old\r\nVersion: 0.1\r\n", true, "old", "0.1"},
                 {"\nName: body-only\n", false, "", ""}},
                parse_python_metadata);
    check_table({{R"({"version":"1.0.0","dependencies":{"name":"x","version":"9"},"name":"@scope/pkg"})",
                  true, "@scope/pkg", "1.0.0"},
                 {R"({"name": "yallist", "version": "4.0.0", "files": ["a"]})", true, "yallist", "4.0.0"},
                 {R"({"version": "1"})", false, "", ""},
                 {R"(["name", "x"])", false, "", ""},
                 {"{\"name\": \"cut", false, "", ""}},
                parse_package_json);
    // Nesting as deep as the text allows builds no tree and no recursion:
    // what came before the cut stands.
    std::string deep = "{\"name\":\"d\",\"x\":" + std::string(200000, '[') + std::string(200000, ']') + "}";
    LibId id;
    EXPECT_TRUE(parse_package_json(deep, id));
    EXPECT_EQ(id.name, "d");
    check_table({{"Gem::Specification.new do |s|\n  s.name = \"rake\".freeze\n  s.version = \"13.0.6\"\n",
                  true, "rake", "13.0.6"},
                 {"Gem::Specification.new do |spec|\n spec.name = %q{json}\n spec.version = '2.6.1'\n", true,
                  "json", "2.6.1"},
                 {"s.required_rubygems_version = Gem::Requirement.new(\">= 0\")\n", false, "", ""}},
                parse_gemspec);
}

TEST(LibParse, ComposerInstalled) {
    const char* v2 = R"({"packages": [
        {"name": "monolog/monolog", "version": "2.3.5", "require": {"name": "no"}, "install-path": "../monolog/monolog"},
        {"name": "psr/log", "version": "1.1.4", "install-path": "../psr/log"}], "dev": true})";
    const char* v1 = R"([{"name": "symfony/yaml", "version": "v4.4.0"}, {"version": "1"}])";
    std::vector<LibId> a = parse_composer_installed(v2), b = parse_composer_installed(v1);
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].name, "monolog/monolog");
    EXPECT_EQ(a[0].version, "2.3.5");
    EXPECT_EQ(a[1].where, "../psr/log");
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(b[0].version, "v4.4.0");
    EXPECT_EQ(b[0].where, "../symfony/yaml");
}

TEST(LibParse, GoModinfo) {
    const std::vector<LibId> mods = parse_go_modinfo(
        "path\texample.com/app/cmd/x\n"
        "mod\texample.com/app\t(devel)\t\n"
        "dep\tgolang.org/x/text\tv0.3.7\th1:abc=\n"
        "dep\tgithub.com/a/b\tv1.0.0\th1:x=\n"
        "=>\tgithub.com/fork/b\tv1.0.1\th1:y=\n"
        "dep\texample.com/local\tv0.0.0-00010101000000-000000000000\n"
        "=>\t./internal/local\t(devel)\t\n"
        "build\t-compiler=gc\n");
    std::vector<std::string> got;
    for (const LibId& m : mods) got.push_back(m.name + " " + m.version);
    EXPECT_EQ(got, (std::vector<std::string>{"example.com/app (devel)", "golang.org/x/text v0.3.7",
                                             "github.com/fork/b v1.0.1",
                                             "example.com/local v0.0.0-00010101000000-000000000000"}));
}

namespace {

const char kStart[] =
    "0w\xaf\x0c\x92t\x08\x02"
    "A\xe1\xc1\x07\xe6\xd6\x18\xe6";
const char kEnd[] =
    "\xf9"
    "2C1\x86\x18 r\x00\x82"
    "B\x10"
    "A\x16\xd8\xf2";
const std::string kMod = std::string(kStart, 16) + "path\tx\nmod\tx\t(devel)\t\n" + std::string(kEnd, 16);

std::string header(unsigned char ptr, unsigned char flags) {
    std::string h("\xff Go buildinf:", 14);
    h += static_cast<char>(ptr);
    h += static_cast<char>(flags);
    h.resize(32, '\0');
    return h;
}

void put64(std::string& s, size_t at, uint64_t v) {
    if (s.size() < at + 8) s.resize(at + 8, '\0');
    for (int i = 0; i < 8; ++i) s[at + i] = static_cast<char>(v >> (8 * i));
}

}  // namespace

TEST(LibParse, GoBuildInfoBlob) {
    // Go 1.18 and later: the strings follow the header, varint-prefixed.
    std::string blob = header(8, 2);
    blob += static_cast<char>(8);
    blob += "go1.19.8";
    blob += static_cast<char>(kMod.size());
    blob += kMod;
    std::string vers, mod;
    ASSERT_TRUE(decode_go_buildinfo(blob, nullptr, vers, mod));
    EXPECT_EQ(vers, "go1.19.8");
    EXPECT_EQ(mod, "path\tx\nmod\tx\t(devel)\t\n");
    EXPECT_FALSE(decode_go_buildinfo(blob.substr(0, 34), nullptr, vers, mod));
    EXPECT_FALSE(decode_go_buildinfo("\xff Go buildinf:", nullptr, vers, mod));

    // Before: two pointers to string headers, read through an ELF's
    // segments. A minimal little-endian ELF64 with one writable PT_LOAD
    // mapping file offset 0x100 at address 0x400100.
    std::string elf(0x400, '\0');
    memcpy(&elf[0],
           "\x7f"
           "ELF\x02\x01\x01",
           7);
    put64(elf, 32, 64);             // e_phoff
    elf[54] = 56;                   // e_phentsize
    elf[56] = 1;                    // e_phnum
    elf[64] = 1;                    // PT_LOAD
    elf[68] = 6;                    // PF_R|PF_W
    put64(elf, 64 + 8, 0x100);      // p_offset
    put64(elf, 64 + 16, 0x400100);  // p_vaddr
    put64(elf, 64 + 32, 0x300);     // p_filesz
    std::string h = header(8, 0);
    put64(h, 16, 0x400180);  // -> version string header
    put64(h, 24, 0x400190);  // -> modinfo string header
    elf.replace(0x100, 32, h);
    put64(elf, 0x180, 0x400200);
    put64(elf, 0x188, 8);
    put64(elf, 0x190, 0x400210);
    put64(elf, 0x198, kMod.size());
    elf.replace(0x200, 8, "go1.16.3");
    elf.replace(0x210, kMod.size(), kMod);
    ReadAt read = [&](uint64_t off, size_t len, std::string& out) {
        if (off >= elf.size()) return false;
        out = elf.substr(off, len);
        return true;
    };
    ASSERT_TRUE(read_go_buildinfo(read, vers, mod));
    EXPECT_EQ(vers, "go1.16.3");
    EXPECT_EQ(parse_go_modinfo(mod).at(0).name, "x");
    // The header must sit on a 16-byte boundary.
    elf.insert(0x100, 1, '\0');
    EXPECT_FALSE(read_go_buildinfo(read, vers, mod));
}
