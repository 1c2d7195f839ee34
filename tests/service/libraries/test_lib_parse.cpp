// The metadata parsers on literal text.
#include <tuple>

#include <gtest/gtest.h>

#include "libraries/lib_parse.h"

using namespace amsvc;

// One metadata file's text: what it names as "name|version", "" when refused.
TEST(LibParse, MetadataFiles) {
    typedef bool (*Parse)(std::string_view, LibId&);
    const Parse pom = parse_pom_properties, mf = manifest_library, py = parse_python_metadata,
                pkg = parse_package_json, gem = parse_gemspec;
    const std::tuple<Parse, std::string, const char*> cases[] = {
        {pom, "version = 1.0 \r\nartifactId : a\r\n", "a|1.0"},
        {pom, "groupId=g\nversion=1\n", ""},
        {pom, "", ""},
        // A 10 MB file is read from its head only.
        {pom, "groupId=g\nartifactId=a\nversion=1\n" + std::string(10u << 20, 'x'), "g:a|1"},
        {mf,
         "Manifest-Version: 1.0\r\nImplementation-Title: Apache Log4j Core\r\nImplementation-Version: "
         "2.14.1\r\n",
         "Apache Log4j Core|2.14.1"},
        // Directives of the symbolic name go; a 72-byte line continues after one space.
        {mf,
         "Bundle-SymbolicName: com.google.guava.fail\n ureaccess;singleton:=true\nBundle-Version: 1.0.1\n",
         "com.google.guava.failureaccess|1.0.1"},
        // Only the main section counts.
        {mf, "Manifest-Version: 1.0\n\nName: x/\nImplementation-Title: other\n", ""},
        {mf, "Created-By: 17 (Debian)\n", ""},
        {mf, "Implementation-Version: 3\nBundle-SymbolicName: b\n", "b|3"},
        {py, "\nName: body-only\n", ""},
        {pkg, R"({"version": "1"})", ""},
        {pkg, R"(["name", "x"])", ""},
        {pkg, "{\"name\": \"cut", ""},
        // Nesting as deep as the text allows builds no tree and no recursion:
        // what came before the cut stands.
        {pkg, "{\"name\":\"d\",\"x\":" + std::string(200000, '[') + std::string(200000, ']') + "}", "d|"},
        {gem, "Gem::Specification.new do |spec|\n spec.name = %q{json}\n spec.version = '2.6.1'\n",
         "json|2.6.1"},
        {gem, "s.required_rubygems_version = Gem::Requirement.new(\">= 0\")\n", ""},
    };
    for (const auto& [parse, text, want] : cases) {
        LibId id;
        EXPECT_EQ(parse(text, id) ? id.name + "|" + id.version : "", want) << text.substr(0, 200);
    }
}

TEST(LibParse, FileAndSharedObjectNames) {
    // "file=name|version". Archive and gemspec file names always split.
    for (const std::string c :
         {"log4j-core-2.14.1.jar=log4j-core|2.14.1", "log4j-1.2-api-2.17.1.jar=log4j-1.2-api|2.17.1",
          "guava-31.1-jre.jar=guava|31.1-jre", "lucene-core-9.4.2-2.jar=lucene-core|9.4.2-2",
          "hadoop-3.war=hadoop|3", "app.jar=app|", "rake-13.0.6.gemspec=rake|13.0.6",
          "bcprov-jdk15on-1.70.jar=bcprov-jdk15on|1.70"}) {
        std::string n, v;
        split_file_version(c.substr(0, c.find('=')), n, v);
        EXPECT_EQ(n + "|" + v, c.substr(c.find('=') + 1)) << c;
    }
    // Shared object names split only when they are one ("=": refused).
    for (const std::string c : {"libfoo.so.1.2.3=libfoo|1.2.3", "libssl.so.3=libssl|3", "libfoo.so=libfoo|",
                                "libfoo-1.2.so=libfoo-1.2|", "libx.solver.so.1=libx.solver|1",
                                "notes.sol=", "libfoo.so.bak=", ".so="}) {
        std::string n, v;
        const std::string want = c.substr(c.find('=') + 1);
        EXPECT_EQ(split_so_name(c.substr(0, c.find('=')), n, v), !want.empty()) << c;
        EXPECT_EQ(want.empty() ? "" : n + "|" + v, want) << c;
    }
}

// Version 1 of installed.json names no install path: the vendor directory's
// layout gives it. (Version 2 is in the ecosystem tree.)
TEST(LibParse, ComposerInstalledVersion1) {
    std::string got;
    for (const LibId& l :
         parse_composer_installed(R"([{"name": "symfony/yaml", "version": "v4.4.0"}, {"version": "1"}])"))
        got += l.name + "|" + l.version + "|" + l.where + "\n";
    EXPECT_EQ(got, "symfony/yaml|v4.4.0|../symfony/yaml\n");
}

TEST(LibParse, GoModinfo) {
    const std::vector<LibId> mods = parse_go_modinfo(
        "path\texample.com/app/cmd/x\n"
        "dep\tgolang.org/x/text\tv0.3.7\th1:abc=\n"
        "dep\tgithub.com/a/b\tv1.0.0\th1:x=\n"
        "=>\tgithub.com/fork/b\tv1.0.1\th1:y=\n"
        "dep\texample.com/local\tv0.0.0-00010101000000-000000000000\n"
        "=>\t./internal/local\t(devel)\t\n"
        "build\t-compiler=gc\n");
    std::vector<std::string> got;
    for (const LibId& m : mods) got.push_back(m.name + " " + m.version);
    EXPECT_EQ(got, (std::vector<std::string>{"golang.org/x/text v0.3.7", "github.com/fork/b v1.0.1",
                                             "example.com/local v0.0.0-00010101000000-000000000000"}));
}

namespace {

// The sentinels Go puts around the module text (octal escapes).
const std::string kMod = std::string("0w\257\014\222t\010\002A\341\301\007\346\326\030\346", 16) +
                         "path\tx\nmod\tx\t(devel)\t\n" +
                         std::string("\3712C1\206\030 r\000\202B\020A\026\330\362", 16);

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
    const std::string blob = header(8, 2) + '\x08' + "go1.19.8" + static_cast<char>(kMod.size()) + kMod;
    std::string vers, mod;
    ASSERT_TRUE(decode_go_buildinfo(blob, nullptr, vers, mod));
    EXPECT_EQ(vers + "|" + mod, "go1.19.8|path\tx\nmod\tx\t(devel)\t\n");
    EXPECT_FALSE(decode_go_buildinfo(blob.substr(0, 34), nullptr, vers, mod));
    EXPECT_FALSE(decode_go_buildinfo("\xff Go buildinf:", nullptr, vers, mod));

    // Before: two pointers to string headers, read through an ELF's
    // segments. A minimal little-endian ELF64 with one writable PT_LOAD
    // mapping file offset 0x100 at address 0x400100.
    std::string elf(0x400, '\0');
    elf.replace(0, 7, "\177ELF\2\1\1");
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
