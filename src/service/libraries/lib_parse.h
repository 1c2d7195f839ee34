// Text in, libraries out: the metadata formats that language ecosystems leave
// beside (or inside) the libraries they install. No I/O here.
#ifndef ASSETMAN_SERVICE_LIB_PARSE_H
#define ASSETMAN_SERVICE_LIB_PARSE_H

#include <stdint.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace amsvc {

struct LibId {
    std::string name, version;
    // Where this one lives relative to the file it was read from: empty for
    // the file (or the directory the ecosystem names) itself, "!/BOOT-INF/lib/x.jar"
    // for an archive inside an archive, "../monolog/monolog" for a Composer
    // package's install directory relative to vendor/composer.
    std::string where;
};

// Largest metadata file read (pom.properties, METADATA, package.json, ...);
// a longer one is parsed from its first bytes only.
constexpr size_t kMaxMetaBytes = 256u << 10;

// META-INF/maven/<g>/<a>/pom.properties: groupId, artifactId, version.
// name "group:artifact"; false without an artifactId.
bool parse_pom_properties(std::string_view text, LibId& out);

// Main section of a JAR manifest (up to the first blank line), continuation
// lines (leading single space) joined. Keys as written.
std::vector<std::pair<std::string, std::string>> parse_manifest(std::string_view text);

// The library a manifest names: Implementation-Title/-Version, else
// Bundle-SymbolicName (without ";" directives)/Bundle-Version. False when it
// names neither a title nor a version.
bool manifest_library(std::string_view text, LibId& out);

// "log4j-core-2.14.1.jar" -> ("log4j-core", "2.14.1"); the extension (any) is
// dropped; no version part: (stem, "").
void split_file_version(std::string_view file_name, std::string& name, std::string& version);

// A shared object's file name: "libfoo.so.1.2.3" -> ("libfoo", "1.2.3"),
// "libfoo.so" -> ("libfoo", ""). False when the name is not "<x>.so" or
// "<x>.so.<digits...>".
bool split_so_name(std::string_view file_name, std::string& name, std::string& version);

// Python METADATA / PKG-INFO headers: Name and Version of the header block.
bool parse_python_metadata(std::string_view text, LibId& out);

// Top-level "name" and "version" of a package.json. False without a name.
bool parse_package_json(std::string_view text, LibId& out);

// s.name / s.version of a gemspec ("x".freeze, %q{x}, 'x').
bool parse_gemspec(std::string_view text, LibId& out);

// vendor/composer/installed.json, both the Composer 1 array and the
// Composer 2 {"packages": [...]} form. `where` is the install directory
// relative to vendor/composer ("../<name>" when the file does not say).
std::vector<LibId> parse_composer_installed(std::string_view text);

// The module list the Go linker embeds: "path", "mod", "dep" and "=>" lines.
// The main module first ("mod"), then each dependency; a dependency replaced
// by another module is reported as that module; one replaced by a local
// directory keeps its own path and the version it asked for.
std::vector<LibId> parse_go_modinfo(std::string_view modinfo);

// Reads `len` bytes at file offset `off` of the binary; false when it cannot.
typedef std::function<bool(uint64_t off, size_t len, std::string& out)> ReadAt;

// The Go toolchain version and module text embedded in an ELF program
// (the "\xff Go buildinf:" blob: pointer form before Go 1.18, inline after).
// False when the file is not a Go program.
bool read_go_buildinfo(const ReadAt& read, std::string& go_version, std::string& modinfo);

// The blob itself (from its magic on), for the inline form and tests;
// `read_addr` reads virtual addresses for the pointer form (may be empty).
bool decode_go_buildinfo(std::string_view blob,
                         const std::function<bool(uint64_t, size_t, std::string&)>& read_addr,
                         std::string& go_version, std::string& modinfo);

}  // namespace amsvc

#endif
