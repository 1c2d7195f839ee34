// Reader of apk's installed database (/lib/apk/db/installed).
#ifndef ASSETMAN_SERVICE_APK_DB_H
#define ASSETMAN_SERVICE_APK_DB_H

#include <stdint.h>
#include <time.h>

#include <string>
#include <string_view>
#include <vector>

namespace amsvc {

struct ApkFile {
    std::string path;  // absolute
    bool has_sha1 = false;
    unsigned char sha1[20] = {};
};

struct ApkPackage {
    std::string name;             // P:
    std::string version;          // V: as apk writes it, "1.2.3-r4"
    std::string arch;             // A:
    uint64_t installed_size = 0;  // I: bytes
    std::string summary;          // T:
    std::string origin;           // o:
    std::string maintainer;       // m:
    time_t build_time = 0;        // t:
    std::vector<ApkFile> files;   // F:/R:/Z:, only when asked for
};

// Parses the installed database. Records without P: are skipped; junk lines
// are ignored. Never throws for malformed input.
std::vector<ApkPackage> parse_apk_installed(std::string_view text, bool with_files);

// "Q1" + base64 of a sha1, as apk records file checksums; false for anything else.
bool decode_apk_checksum(std::string_view z, unsigned char sha1[20]);

}  // namespace amsvc

#endif
