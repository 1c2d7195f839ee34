// The engine's JSON answers turned into the record's fields and its two JSON
// arrays. Shapes differ between Docker versions and Podman's compatible API:
// a field of an unexpected type reads as empty, never as an error.
#include <errno.h>

#include "containers/engine.h"

namespace amsvc {
namespace engine {

namespace {

// Nesting depth and value count by a scan that respects strings: the parser
// itself keeps a stack per level and a node per value.
bool within_bounds(std::string_view s) {
    int depth = 0;
    size_t values = 0;
    bool in_string = false, escaped = false;
    for (const char c : s) {
        if (in_string) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                in_string = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                in_string = true;
                break;
            case '[':
            case '{':
                if (++depth > kMaxDepth) return false;
                if (++values > kMaxValues) return false;
                break;
            case ']':
            case '}':
                --depth;
                break;
            case ',':
                if (++values > kMaxValues) return false;
                break;
            default:
                break;
        }
    }
    return true;
}

std::string text_of(const Json& o, const char* key) {
    const auto it = o.find(key);
    if (it == o.end() || !it->is_string()) return std::string();
    return it->get<std::string>();
}

bool int_of(const Json& o, const char* key, int64_t& v) {
    const auto it = o.find(key);
    if (it == o.end()) return false;
    if (it->is_number_integer()) {
        v = it->get<int64_t>();
        return true;
    }
    if (it->is_number_unsigned()) {
        const uint64_t u = it->get<uint64_t>();
        v = u > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(u);
        return true;
    }
    if (it->is_number_float()) {
        const double d = it->get<double>();
        if (!(d >= -9.2e18 && d <= 9.2e18)) return false;
        v = static_cast<int64_t>(d);
        return true;
    }
    return false;
}

int64_t int_or(const Json& o, const char* key, int64_t dflt) {
    int64_t v;
    return int_of(o, key, v) ? v : dflt;
}

// Docker and Podman's compatible API give seconds since the epoch; other
// shapes give RFC 3339 text, which is kept as it is.
std::string time_of(const Json& o, const char* key) {
    int64_t t;
    if (int_of(o, key, t)) return t > 0 ? format_time(static_cast<time_t>(t)) : std::string();
    return text_of(o, key);
}

// An array of texts; a lone text (early Docker versions) as one entry.
Json texts_of(const Json& o, const char* key, bool strip_slash = false) {
    Json out = Json::array();
    const auto it = o.find(key);
    if (it == o.end()) return out;
    auto add = [&](const Json& v) {
        if (!v.is_string()) return;
        std::string s = v.get<std::string>();
        if (strip_slash && !s.empty() && s[0] == '/') s.erase(0, 1);
        out.push_back(std::move(s));
    };
    if (it->is_array()) {
        for (const Json& v : *it) add(v);
    } else {
        add(*it);
    }
    return out;
}

Json port_rows(const Json& c) {
    Json out = Json::array();
    const auto it = c.find("Ports");
    if (it == c.end() || !it->is_array()) return out;
    for (const Json& p : *it) {
        if (!p.is_object()) continue;
        out.push_back(Json{{"ip", text_of(p, "IP")},
                           {"private_port", int_or(p, "PrivatePort", 0)},
                           {"public_port", int_or(p, "PublicPort", 0)},
                           {"type", text_of(p, "Type")}});
    }
    return out;
}

Json mount_rows(const Json& c) {
    Json out = Json::array();
    const auto it = c.find("Mounts");
    if (it == c.end() || !it->is_array()) return out;
    for (const Json& m : *it) {
        if (!m.is_object()) continue;
        const auto rw = m.find("RW");
        out.push_back(Json{{"type", text_of(m, "Type")},
                           {"name", text_of(m, "Name")},
                           {"source", text_of(m, "Source")},
                           {"destination", text_of(m, "Destination")},
                           {"mode", text_of(m, "Mode")},
                           {"rw", rw != m.end() && rw->is_boolean() && rw->get<bool>()}});
    }
    return out;
}

// Only these states have a main process to ask for.
bool has_process(const std::string& state) {
    return state == "running" || state == "paused" || state == "restarting";
}

}  // namespace

int parse_json(std::string_view body, Json& out) {
    if (!within_bounds(body)) return -EPROTO;
    out = Json::parse(body.begin(), body.end(), nullptr, false);
    return out.is_discarded() ? -EPROTO : 0;
}

bool is_api_version(std::string_view s) {
    const size_t dot = s.find('.');
    if (dot == 0 || dot == std::string_view::npos || dot + 1 == s.size() || s.size() > 7) return false;
    for (size_t i = 0; i < s.size(); ++i)
        if (i != dot && (s[i] < '0' || s[i] > '9')) return false;
    return true;
}

int read_info(const Json& info, DockerInfo& out) {
    if (!info.is_object()) return -EPROTO;
    out.storage_driver = text_of(info, "Driver");
    out.root_dir = text_of(info, "DockerRootDir");
    out.version = text_of(info, "ServerVersion");
    int64_t n;
    out.image_num = int_of(info, "Images", n) ? std::to_string(n) : std::string();
    out.container_num = int_of(info, "Containers", n) ? std::to_string(n) : std::string();
    return 0;
}

int image_rows(const Json& list, Json& rows) {
    if (!list.is_array()) return -EPROTO;
    rows = Json::array();
    for (const Json& im : list) {
        if (!im.is_object()) return -EPROTO;
        // Podman names the content digest; Docker only in "repo@digest" form.
        std::string digest = text_of(im, "Digest");
        if (digest.empty()) {
            const Json repo = texts_of(im, "RepoDigests");
            if (!repo.empty()) {
                const std::string& first = repo[0].get_ref<const std::string&>();
                const size_t at = first.rfind('@');
                if (at != std::string::npos) digest = first.substr(at + 1);
            }
        }
        Json tags = Json::array();
        for (const Json& t : texts_of(im, "RepoTags"))
            if (t.get_ref<const std::string&>() != "<none>:<none>") tags.push_back(t);
        rows.push_back(Json{{"id", text_of(im, "Id")},
                            {"tags", std::move(tags)},
                            {"digest", std::move(digest)},
                            {"size", int_or(im, "Size", -1)},
                            {"created", time_of(im, "Created")}});
    }
    return 0;
}

int container_rows(const Json& list, Json& rows) {
    if (!list.is_array()) return -EPROTO;
    rows = Json::array();
    for (const Json& c : list) {
        if (!c.is_object()) return -EPROTO;
        std::string state = text_of(c, "State");
        rows.push_back(Json{{"id", text_of(c, "Id")},
                            {"names", texts_of(c, "Names", true)},
                            {"image", text_of(c, "Image")},
                            {"image_id", text_of(c, "ImageID")},
                            {"command", text_of(c, "Command")},
                            {"state", state},
                            {"status", text_of(c, "Status")},
                            {"created", time_of(c, "Created")},
                            {"ports", port_rows(c)},
                            {"pid", has_process(state) ? -1 : 0},
                            {"mounts", mount_rows(c)}});
    }
    return 0;
}

int64_t inspect_pid(const Json& inspect) {
    if (!inspect.is_object()) return -1;
    const auto st = inspect.find("State");
    if (st == inspect.end() || !st->is_object()) return -1;
    int64_t pid;
    return int_of(*st, "Pid", pid) && pid >= 0 ? pid : -1;
}

std::string compact(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace engine
}  // namespace amsvc
