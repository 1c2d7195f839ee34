#include "packages/apk_db.h"

#include "core/common.h"

namespace amsvc {

namespace {

int b64val(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

bool decode_apk_checksum(std::string_view z, unsigned char sha1[20]) {
    // 20 bytes are 27 base64 digits and one '=' of padding.
    if (z.size() != 30 || z[0] != 'Q' || z[1] != '1' || z[29] != '=') return false;
    z.remove_prefix(2);
    uint32_t acc = 0;
    int bits = 0;
    size_t n = 0;
    for (size_t i = 0; i < 27; ++i) {
        const int v = b64val(z[i]);
        if (v < 0) return false;
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            if (n < 20) sha1[n++] = static_cast<unsigned char>((acc >> bits) & 0xff);
        }
    }
    return n == 20;
}

std::vector<ApkPackage> parse_apk_installed(std::string_view text, bool with_files) {
    std::vector<ApkPackage> out;
    ApkPackage cur;
    std::string dir;  // current F: directory
    bool in_record = false;
    bool after_r = false;  // a Z: belongs to the R: right before it
    auto flush = [&]() {
        if (in_record && !cur.name.empty()) out.push_back(std::move(cur));
        cur = ApkPackage();
        dir.clear();
        in_record = false;
    };
    for (std::string_view line : split_lines(text)) {
        if (line.empty()) {
            flush();
            continue;
        }
        in_record = true;
        if (line.size() < 2 || line[1] != ':') continue;  // junk
        const bool z_ok = after_r;
        after_r = line[0] == 'R' || line[0] == 'a';
        const std::string_view v = line.substr(2);
        switch (line[0]) {
            case 'P':
                cur.name = std::string(v);
                break;
            case 'V':
                cur.version = std::string(v);
                break;
            case 'A':
                cur.arch = std::string(v);
                break;
            case 'T':
                cur.summary = std::string(v);
                break;
            case 'o':
                cur.origin = std::string(v);
                break;
            case 'm':
                cur.maintainer = std::string(v);
                break;
            case 'I': {
                uint64_t n = 0;
                if (parse_u64(v, n)) cur.installed_size = n;
                break;
            }
            case 't': {
                int64_t t = 0;
                if (parse_i64(v, t) && t >= 0) cur.build_time = static_cast<time_t>(t);
                break;
            }
            case 'F':
                if (with_files) dir = std::string(v);
                break;
            case 'R':
                if (with_files && !v.empty() && v.find('/') == std::string_view::npos) {
                    ApkFile f;
                    f.path.reserve(dir.size() + v.size() + 2);
                    f.path = "/";
                    if (!dir.empty()) f.path.append(dir).push_back('/');
                    f.path.append(v);
                    cur.files.push_back(std::move(f));
                } else {
                    after_r = false;
                }
                break;
            case 'Z':
                if (with_files && z_ok && !cur.files.empty() && !cur.files.back().has_sha1)
                    cur.files.back().has_sha1 = decode_apk_checksum(v, cur.files.back().sha1);
                break;
            default:
                break;
        }
    }
    flush();
    return out;
}

}  // namespace amsvc
