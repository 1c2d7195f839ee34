#include "servers/server_parse.h"

#include <algorithm>
#include <set>
#include <unordered_map>

#include "core/common.h"

namespace amsvc {
namespace servers {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }

bool has_wildcard(std::string_view s) { return s.find_first_of("*?[") != std::string_view::npos; }

// An absolute path: `p` as it is, or `p` under `base`.
std::string resolve(const std::string& base, std::string_view p) {
    if (!p.empty() && p[0] == '/') return std::string(p);
    return (base.empty() || base == "/" ? std::string("/") : base + "/") + std::string(p);
}

// Reads files once each within the bounds; a file on the current include
// chain is not entered again.
class Reader {
public:
    Reader(ConfigSource& src, const Limits& lim) : src_(src), lim_(lim) {}

    // Contents of `path` for an include at `depth`, or nullptr when refused
    // (absent, a bound reached, or already on the include chain).
    const std::string* enter(const std::string& path, size_t depth) {
        if (depth > lim_.max_depth || expansions_ >= lim_.max_files) {
            truncated = true;
            return nullptr;
        }
        const std::string key = normalize_path(path);
        if (std::find(chain_.begin(), chain_.end(), key) != chain_.end()) return nullptr;
        auto it = cache_.find(key);
        if (it == cache_.end()) {
            std::string text;
            if (total_ >= lim_.max_total) {
                truncated = true;
                return nullptr;
            }
            if (!src_.read(key, text, std::min(lim_.max_file, lim_.max_total - total_))) {
                cache_.emplace(key, std::string());
                missing_.insert(key);
                return nullptr;
            }
            total_ += text.size();
            ++files_read;
            it = cache_.emplace(key, std::move(text)).first;
        } else if (missing_.count(key)) {
            return nullptr;
        }
        if (parsed_ + it->second.size() > lim_.max_parsed) {
            truncated = true;
            return nullptr;
        }
        parsed_ += it->second.size();
        ++expansions_;
        chain_.push_back(key);
        return &it->second;
    }
    void leave() { chain_.pop_back(); }

    std::vector<std::string> glob(const std::string& pattern) { return expand_glob(src_, pattern); }
    ConfigSource& source() { return src_; }

    size_t files_read = 0;
    bool truncated = false;

private:
    ConfigSource& src_;
    const Limits& lim_;
    std::unordered_map<std::string, std::string> cache_;
    std::set<std::string> missing_;
    std::vector<std::string> chain_;
    size_t total_ = 0;
    size_t parsed_ = 0;
    size_t expansions_ = 0;
};

// ---------------------------------------------------------------- nginx

struct NDirective {
    std::string name;
    std::vector<std::string> args;
    bool has_block = false;
    std::vector<NDirective> block;
};

constexpr size_t kMaxBlockNesting = 48;

class NginxParser {
public:
    NginxParser(Reader& r, std::string conf_dir) : r_(r), conf_dir_(std::move(conf_dir)) {}

    // Parses `text` into `out` until EOF or an unmatched '}' (which it
    // consumes). `nest` counts open blocks across files.
    void parse(std::string_view text, size_t& pos, std::vector<NDirective>& out, size_t nest, size_t depth) {
        std::vector<std::string> words;
        std::string tok;
        bool quoted = false;
        while (next_token(text, pos, tok, quoted)) {
            if (!quoted && tok == ";") {
                if (!words.empty()) finish(words, out, nest, depth);
                words.clear();
            } else if (!quoted && tok == "{") {
                if (words.empty()) words.push_back(std::string());
                if (nest >= kMaxBlockNesting) {
                    skip_block(text, pos);
                    r_.truncated = true;
                } else {
                    NDirective d;
                    d.name = std::move(words[0]);
                    d.args.assign(std::make_move_iterator(words.begin() + 1), std::make_move_iterator(words.end()));
                    d.has_block = true;
                    parse(text, pos, d.block, nest + 1, depth);
                    out.push_back(std::move(d));
                }
                words.clear();
            } else if (!quoted && tok == "}") {
                return;
            } else {
                words.push_back(std::move(tok));
            }
        }
    }

private:
    void finish(std::vector<std::string>& words, std::vector<NDirective>& out, size_t nest, size_t depth) {
        if (words[0] == "include" && words.size() >= 2) {
            const std::string pattern = resolve(conf_dir_, words[1]);
            for (const std::string& path : has_wildcard(pattern) ? r_.glob(pattern)
                                                                  : std::vector<std::string>{pattern}) {
                const std::string* text = r_.enter(path, depth + 1);
                if (!text) continue;
                size_t p = 0;
                parse(*text, p, out, nest, depth + 1);
                r_.leave();
            }
            return;
        }
        NDirective d;
        d.name = std::move(words[0]);
        d.args.assign(std::make_move_iterator(words.begin() + 1), std::make_move_iterator(words.end()));
        out.push_back(std::move(d));
    }

    // Skips a block whose '{' was just read, without recursion.
    static void skip_block(std::string_view text, size_t& pos) {
        size_t open = 1;
        std::string tok;
        bool quoted = false;
        while (open > 0 && next_token(text, pos, tok, quoted)) {
            if (quoted) continue;
            if (tok == "{") ++open;
            if (tok == "}") --open;
        }
    }

    static bool next_token(std::string_view t, size_t& pos, std::string& tok, bool& quoted) {
        tok.clear();
        quoted = false;
        for (;;) {
            while (pos < t.size() && is_blank(t[pos])) ++pos;
            if (pos >= t.size()) return false;
            if (t[pos] != '#') break;
            while (pos < t.size() && t[pos] != '\n') ++pos;
        }
        const char c = t[pos];
        if (c == ';' || c == '{' || c == '}') {
            tok.assign(1, c);
            ++pos;
            return true;
        }
        if (c == '"' || c == '\'') {
            quoted = true;
            ++pos;
            while (pos < t.size() && t[pos] != c) {
                if (t[pos] == '\\' && pos + 1 < t.size()) ++pos;
                tok.push_back(t[pos++]);
            }
            if (pos < t.size()) ++pos;
            return true;
        }
        while (pos < t.size()) {
            const char d = t[pos];
            if (is_blank(d) || d == ';' || d == '}') break;
            if (d == '{') {
                if (tok.empty() || tok.back() != '$') break;
                // "${name}" inside a word
                while (pos < t.size() && t[pos] != '}') tok.push_back(t[pos++]);
                if (pos < t.size()) tok.push_back(t[pos++]);
                continue;
            }
            if (d == '\\' && pos + 1 < t.size()) tok.push_back(t[pos++]);
            tok.push_back(t[pos++]);
        }
        return true;
    }

    Reader& r_;
    std::string conf_dir_;
};

const NDirective* find_directive(const std::vector<NDirective>& v, std::string_view name) {
    for (const NDirective& d : v)
        if (d.name == name && !d.has_block && !d.args.empty()) return &d;
    return nullptr;
}

std::string nginx_log(const NDirective* d, const std::string& prefix, const std::string& inherited) {
    if (!d) return inherited;
    const std::string& v = d->args[0];
    if (v == "off") return std::string();
    if (starts_with(v, "syslog:") || starts_with(v, "/")) return v;
    return resolve(prefix, v);
}

// "80", "127.0.0.1:8080", "[::]:80", "*:80", "127.0.0.1"; false for unix:.
bool nginx_listen(std::string_view a, std::string& ip, uint32_t& port) {
    if (starts_with(a, "unix:")) return false;
    std::string host;
    if (split_host_port(a, host, port)) {
        ip = host.empty() || host == "*" ? "0.0.0.0" : host;
        return true;
    }
    if (a.empty()) return false;
    ip = a[0] == '[' ? std::string(a.substr(1, a.find(']') == std::string_view::npos ? a.npos : a.find(']') - 1))
                     : std::string(a);
    port = 80;
    return true;
}

void nginx_sites(const std::vector<NDirective>& http, const std::string& prefix, const std::string& http_log_in,
                 WebConfig& cfg, const Limits& lim) {
    const NDirective* hroot = find_directive(http, "root");
    const std::string http_log = nginx_log(find_directive(http, "access_log"), prefix, http_log_in);
    for (const NDirective& s : http) {
        if (s.name != "server" || !s.has_block) continue;
        std::vector<std::pair<std::string, uint32_t>> listens;
        std::vector<std::string> names;
        for (const NDirective& d : s.block) {
            if (d.has_block || d.args.empty()) continue;
            if (d.name == "listen") {
                std::string ip;
                uint32_t port = 0;
                if (nginx_listen(d.args[0], ip, port)) listens.emplace_back(ip, port);
            } else if (d.name == "server_name") {
                names.insert(names.end(), d.args.begin(), d.args.end());
            }
        }
        if (listens.empty()) listens.emplace_back("0.0.0.0", 80);
        if (names.empty()) names.push_back(std::string());
        std::string doc;
        const NDirective* root = find_directive(s.block, "root");
        if (!root) root = hroot;
        if (!root) {
            for (const NDirective& l : s.block)
                if (l.name == "location" && l.has_block && !l.args.empty() && l.args.back() == "/")
                    root = find_directive(l.block, "root");
        }
        if (root) doc = resolve(prefix, root->args[0]);
        const std::string log = nginx_log(find_directive(s.block, "access_log"), prefix, http_log);
        for (const auto& l : listens) {
            cfg.listens.push_back(l);
            for (const std::string& n : names) {
                if (cfg.sites.size() >= lim.max_sites) return;
                cfg.sites.push_back(Site{l.first, l.second, n, doc, log});
            }
        }
    }
}

// ---------------------------------------------------------------- Apache

// Words of a directive line: blanks separate, "..." and '...' group.
std::vector<std::string> apache_words(std::string_view s) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && is_blank(s[i])) ++i;
        if (i >= s.size()) break;
        std::string w;
        if (s[i] == '"' || s[i] == '\'') {
            const char q = s[i++];
            while (i < s.size() && s[i] != q) {
                if (s[i] == '\\' && i + 1 < s.size() && (s[i + 1] == q || s[i + 1] == '\\')) ++i;
                w.push_back(s[i++]);
            }
            ++i;
        } else {
            while (i < s.size() && !is_blank(s[i])) w.push_back(s[i++]);
        }
        out.push_back(std::move(w));
    }
    return out;
}

// ${NAME} replaced from `vars`; unknown names stay as written, as httpd does.
std::string substitute(std::string_view s, const std::map<std::string, std::string>& vars) {
    std::string out;
    size_t i = 0;
    while (i < s.size()) {
        if (s[i] == '$' && i + 1 < s.size() && s[i + 1] == '{') {
            const size_t end = s.find('}', i + 2);
            if (end != std::string_view::npos) {
                auto it = vars.find(std::string(s.substr(i + 2, end - i - 2)));
                if (it != vars.end()) {
                    out += it->second;
                    i = end + 1;
                    continue;
                }
            }
        }
        out.push_back(s[i++]);
    }
    return out;
}

struct VHost {
    std::vector<std::string> addrs;
    std::string name;
    std::vector<std::string> aliases;
    std::string doc, log;
    bool has_doc = false, has_log = false;
};

class ApacheParser {
public:
    ApacheParser(Reader& r, const ApacheInput& in) : r_(r), root_(in.server_root.empty() ? "/" : in.server_root) {
        vars_ = in.env;
        for (const std::string& d : in.defines) vars_.emplace(d, std::string()), defines_.insert(d);
        for (const char* m : {"core.c", "mod_so.c", "http_core.c", "mod_watchdog.c", "mod_log_config.c",
                              "mod_logio.c", "mod_version.c", "mod_unixd.c", "core_module", "so_module",
                              "http_module", "watchdog_module", "log_config_module", "logio_module",
                              "version_module", "unixd_module"})
            modules_.insert(m);
    }

    void file(const std::string& text, size_t depth) {
        for (const std::string& raw : join_continued_lines(text, false)) {
            std::string_view line = trim(raw);
            if (line.empty() || line[0] == '#') continue;
            if (line.size() > 1 && line[0] == '<' && line[1] == '/') {
                close_section(line);
                continue;
            }
            if (line[0] == '<') {
                open_section(line);
                continue;
            }
            if (!active()) continue;
            directive(substitute(line, vars_), depth);
        }
    }

    WebConfig finish(const Limits& lim) {
        WebConfig cfg;
        cfg.server_root = root_;
        cfg.error_log = main_.has_log || !error_log_.empty() ? error_log_ : std::string();
        for (const auto& l : listens_) cfg.listens.push_back(l);
        const uint32_t first_port = listens_.empty() ? 80 : listens_[0].second;
        auto add = [&](const std::string& ip, uint32_t port, const VHost& v) {
            std::vector<std::string> names;
            names.push_back(v.name.empty() ? main_.name : v.name);
            names.insert(names.end(), v.aliases.begin(), v.aliases.end());
            const std::string& doc = v.has_doc ? v.doc : main_.doc;
            const std::string& log = v.has_log ? v.log : main_.log;
            for (const std::string& n : names) {
                if (cfg.sites.size() >= lim.max_sites) return;
                cfg.sites.push_back(Site{ip, port, n, doc, log});
            }
        };
        if (vhosts_.empty()) {
            for (const auto& l : listens_) add(l.first, l.second, main_);
        }
        for (const VHost& v : vhosts_) {
            for (const std::string& a : v.addrs) {
                std::string host;
                uint32_t port = 0;
                if (!split_host_port(a, host, port)) {
                    host = a;
                    port = first_port;
                    if (host == "*" || host == "_default_") {
                        // no port: every port httpd listens on
                        for (const auto& l : listens_) add("*", l.second, v);
                        if (listens_.empty()) add("*", port, v);
                        continue;
                    }
                }
                if (host == "_default_" || host.empty()) host = "*";
                if (!host.empty() && host[0] == '[') host = host.substr(1, host.size() - 2);
                add(host, port, v);
            }
        }
        return cfg;
    }

private:
    struct Section {
        std::string name;
        bool active;
    };

    bool active() const { return inactive_ == 0; }

    void open_section(std::string_view line) {
        std::string_view body = line.substr(1);
        if (!body.empty() && body.back() == '>') body.remove_suffix(1);
        const std::vector<std::string> w = apache_words(substitute(body, vars_));
        const std::string name = w.empty() ? std::string() : ascii_lower(w[0]);
        bool on = true;
        const std::string arg = w.size() > 1 ? w[1] : std::string();
        const bool neg = !arg.empty() && arg[0] == '!';
        const std::string what = neg ? arg.substr(1) : arg;
        if (name == "ifmodule") {
            on = modules_.count(what) > 0;
            if (neg) on = !on;
        } else if (name == "ifdefine") {
            on = defines_.count(what) > 0;
            if (neg) on = !on;
        } else if (name == "if" || name == "elseif" || name == "else") {
            on = false;  // request-time conditions: no server-level directives inside
        }
        if (!on) ++inactive_;
        stack_.push_back(Section{name, on});
        if (name == "virtualhost" && active() && !in_vhost_) {
            in_vhost_ = true;
            vhost_depth_ = stack_.size();
            cur_ = VHost();
            cur_.addrs.assign(w.begin() + (w.empty() ? 0 : 1), w.end());
        } else if (name != "ifmodule" && name != "ifdefine" && name != "ifversion" && name != "iffile" &&
                   name != "ifdirective" && name != "ifsection" && name != "virtualhost") {
            ++other_;  // <Directory>, <Location>, ...: not server-level
        }
    }

    void close_section(std::string_view) {
        if (stack_.empty()) return;
        const Section s = stack_.back();
        if (in_vhost_ && stack_.size() == vhost_depth_) {
            in_vhost_ = false;
            vhosts_.push_back(std::move(cur_));
        } else if (s.name != "ifmodule" && s.name != "ifdefine" && s.name != "ifversion" && s.name != "iffile" &&
                   s.name != "ifdirective" && s.name != "ifsection" && s.name != "virtualhost") {
            if (other_) --other_;
        }
        if (!s.active) --inactive_;
        stack_.pop_back();
    }

    std::string path_of(const std::string& v) const { return resolve(root_, v); }
    std::string log_of(const std::string& v) const {
        if (v.empty() || v[0] == '|' || starts_with(v, "syslog")) return v;
        return path_of(v);
    }

    void directive(const std::string& line, size_t depth) {
        std::vector<std::string> w = apache_words(line);
        if (w.empty()) return;
        const std::string d = ascii_lower(w[0]);
        const std::string a1 = w.size() > 1 ? w[1] : std::string();
        if (d == "include" || d == "includeoptional") {
            if (a1.empty()) return;
            const std::string pattern = path_of(a1);
            std::vector<std::string> paths =
                has_wildcard(pattern) ? r_.glob(pattern) : std::vector<std::string>{pattern};
            std::vector<std::string> names;
            // A directory names every file in it, in order.
            if (paths.size() == 1 && !has_wildcard(pattern) && r_.source().list(normalize_path(pattern), names)) {
                std::sort(names.begin(), names.end());
                paths.clear();
                for (const std::string& n : names) paths.push_back(resolve(normalize_path(pattern), n));
            }
            for (const std::string& p : paths) {
                const std::string* text = r_.enter(p, depth + 1);
                if (!text) continue;
                file(*text, depth + 1);
                r_.leave();
            }
            return;
        }
        if (d == "define" && !a1.empty()) {
            vars_[a1] = w.size() > 2 ? w[2] : std::string();
            defines_.insert(a1);
            return;
        }
        if (d == "undefine" && !a1.empty()) {
            vars_.erase(a1);
            defines_.erase(a1);
            return;
        }
        if (d == "loadmodule" && w.size() > 2) {
            modules_.insert(a1);
            std::string base = w[2].substr(w[2].rfind('/') + 1);
            if (ends_with(base, ".so")) base.replace(base.size() - 3, 3, ".c");
            modules_.insert(base);
            return;
        }
        if (d == "serverroot" && !a1.empty()) {
            root_ = a1;
            return;
        }
        if (d == "listen" && !a1.empty()) {
            std::string host;
            uint32_t port = 0;
            if (split_host_port(a1, host, port)) {
                if (!host.empty() && host[0] == '[') host = host.substr(1, host.size() - 2);
                listens_.emplace_back(host.empty() ? "*" : host, port);
            }
            return;
        }
        if (other_) return;
        VHost& v = in_vhost_ ? cur_ : main_;
        if (d == "servername" && !a1.empty()) {
            std::string n = a1;
            const size_t scheme = n.find("://");
            if (scheme != std::string::npos) n.erase(0, scheme + 3);
            const size_t colon = n.rfind(':');
            if (colon != std::string::npos && n.find(']') == std::string::npos) n.erase(colon);
            v.name = n;
        } else if (d == "serveralias") {
            v.aliases.insert(v.aliases.end(), w.begin() + 1, w.end());
        } else if (d == "documentroot" && !a1.empty()) {
            v.doc = path_of(a1);
            v.has_doc = true;
        } else if ((d == "customlog" || d == "transferlog") && !a1.empty() && !v.has_log) {
            v.log = log_of(a1);
            v.has_log = true;
        } else if (d == "errorlog" && !a1.empty() && !in_vhost_) {
            error_log_ = log_of(a1);
        }
    }

    Reader& r_;
    std::string root_;
    std::map<std::string, std::string> vars_;
    std::set<std::string> defines_, modules_;
    std::vector<Section> stack_;
    size_t inactive_ = 0, other_ = 0;
    bool in_vhost_ = false;
    size_t vhost_depth_ = 0;
    VHost cur_, main_;
    std::vector<VHost> vhosts_;
    std::vector<std::pair<std::string, uint32_t>> listens_;
    std::string error_log_;
};

// ---------------------------------------------------------------- others

std::string unquote(std::string_view v) {
    v = trim(v);
    if (v.size() >= 2 && (v[0] == '"' || v[0] == '\'') && v.back() == v[0]) v = v.substr(1, v.size() - 2);
    return std::string(v);
}

void add_port(ServerConf& c, std::string_view v) {
    uint64_t p = 0;
    if (parse_u64(trim(v), p) && p > 0 && p < 65536) {
        c.ports.clear();  // the last setting wins
        c.ports.push_back(static_cast<uint32_t>(p));
    }
}

std::string norm_key(std::string_view k) {
    std::string s = ascii_lower(trim(k));
    std::replace(s.begin(), s.end(), '-', '_');
    return s;
}

bool mysql_group(const std::string& g) {
    return g == "mysqld" || g == "server" || g == "mariadb" || g == "mariadbd" || starts_with(g, "mysqld-") ||
           starts_with(g, "mariadb-");
}

void mycnf_file(Reader& r, const std::string& text, size_t depth, ServerConf& c, std::string& group) {
    for (std::string_view line : split_lines(text)) {
        line = trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (line[0] == '!') {
            const std::vector<std::string_view> w = split_ws(line);
            if (w.size() < 2) continue;
            const std::string arg(trim(line.substr(w[0].size())));
            std::vector<std::string> files;
            if (w[0] == "!include") {
                files.push_back(arg);
            } else if (w[0] == "!includedir") {
                std::vector<std::string> names;
                const std::string dir = normalize_path(arg);
                if (r.source().list(dir, names)) {
                    std::sort(names.begin(), names.end());
                    for (const std::string& n : names)
                        if (ends_with(n, ".cnf")) files.push_back(resolve(dir, n));
                }
            }
            for (const std::string& f : files) {
                const std::string* t = r.enter(f, depth + 1);
                if (!t) continue;
                std::string g;  // an included file starts outside any group
                mycnf_file(r, *t, depth + 1, c, g);
                r.leave();
            }
            continue;
        }
        if (line[0] == '[') {
            const size_t end = line.find(']');
            group = ascii_lower(trim(line.substr(1, end == std::string_view::npos ? line.npos : end - 1)));
            continue;
        }
        if (!mysql_group(group)) continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string key = norm_key(line.substr(0, eq));
        std::string_view val = trim(line.substr(eq + 1));
        const size_t hash = val.find(" #");
        if (hash != std::string_view::npos) val = trim(val.substr(0, hash));
        if (key == "port") add_port(c, unquote(val));
        else if (key == "datadir") c.data_path = unquote(val);
        else if (key == "log_error") c.log_path = unquote(val);
        else if (key == "bind_address") c.bind = unquote(val);
    }
}

// postgresql.conf value: '...' with '' for a quote, or a bare word.
std::string pg_value(std::string_view v) {
    v = trim(v);
    if (!v.empty() && v[0] == '\'') {
        std::string out;
        for (size_t i = 1; i < v.size(); ++i) {
            if (v[i] == '\'') {
                if (i + 1 < v.size() && v[i + 1] == '\'') {
                    out.push_back('\'');
                    ++i;
                    continue;
                }
                break;
            }
            if (v[i] == '\\' && i + 1 < v.size()) ++i;
            out.push_back(v[i]);
        }
        return out;
    }
    const size_t hash = v.find('#');
    if (hash != std::string_view::npos) v = trim(v.substr(0, hash));
    const size_t sp = v.find_first_of(" \t");
    return std::string(sp == std::string_view::npos ? v : v.substr(0, sp));
}

struct PgState {
    std::string data_directory, log_directory = "log", logging_collector;
};

void pg_file(Reader& r, const std::string& path, const std::string& text, size_t depth, ServerConf& c, PgState& st) {
    const std::string dir = dir_name(path);
    for (std::string_view line : split_lines(text)) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        size_t k = 0;
        while (k < line.size() && !is_blank(line[k]) && line[k] != '=') ++k;
        const std::string key = ascii_lower(line.substr(0, k));
        std::string_view rest = trim(line.substr(k));
        if (!rest.empty() && rest[0] == '=') rest = trim(rest.substr(1));
        const std::string val = pg_value(rest);
        std::vector<std::string> files;
        if (key == "include" || key == "include_if_exists") {
            files.push_back(resolve(dir, val));
        } else if (key == "include_dir") {
            const std::string d = normalize_path(resolve(dir, val));
            std::vector<std::string> names;
            if (r.source().list(d, names)) {
                std::sort(names.begin(), names.end());
                for (const std::string& n : names)
                    if (n[0] != '.' && ends_with(n, ".conf")) files.push_back(resolve(d, n));
            }
        } else if (key == "port") {
            add_port(c, val);
        } else if (key == "data_directory") {
            st.data_directory = val;
        } else if (key == "log_directory") {
            st.log_directory = val;
        } else if (key == "logging_collector") {
            st.logging_collector = ascii_lower(val);
        } else if (key == "listen_addresses") {
            c.bind = val;
        }
        for (const std::string& f : files) {
            const std::string* t = r.enter(f, depth + 1);
            if (!t) continue;
            pg_file(r, f, *t, depth + 1, c, st);
            r.leave();
        }
    }
}

void redis_file(Reader& r, const std::string& path, const std::string& text, size_t depth, ServerConf& c) {
    for (std::string_view line : split_lines(text)) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        const std::vector<std::string> w = apache_words(line);
        if (w.size() < 2) continue;
        const std::string key = ascii_lower(w[0]);
        if (key == "include") {
            const std::string pattern = resolve(dir_name(path), w[1]);
            for (const std::string& f : has_wildcard(pattern) ? r.glob(pattern) : std::vector<std::string>{pattern}) {
                const std::string* t = r.enter(f, depth + 1);
                if (!t) continue;
                redis_file(r, f, *t, depth + 1, c);
                r.leave();
            }
        } else if (key == "port") {
            if (w[1] == "0") c.ports.clear();
            else add_port(c, w[1]);
        } else if (key == "dir") {
            c.data_path = w[1];
        } else if (key == "logfile") {
            c.log_path = w[1];
        } else if (key == "bind") {
            c.bind = w[1];
        }
    }
}

// Attributes of one XML start tag's text (after the element name).
std::map<std::string, std::string> xml_attrs(std::string_view s) {
    std::map<std::string, std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && (is_blank(s[i]) || s[i] == '/')) ++i;
        size_t k = i;
        while (k < s.size() && s[k] != '=' && !is_blank(s[k])) ++k;
        std::string name(s.substr(i, k - i));
        while (k < s.size() && is_blank(s[k])) ++k;
        if (k >= s.size() || s[k] != '=') {
            i = k + 1;
            continue;
        }
        ++k;
        while (k < s.size() && is_blank(s[k])) ++k;
        if (k >= s.size() || (s[k] != '"' && s[k] != '\'')) {
            i = k;
            continue;
        }
        const char q = s[k];
        const size_t end = s.find(q, k + 1);
        if (end == std::string_view::npos) break;
        out[std::move(name)] = std::string(s.substr(k + 1, end - k - 1));
        i = end + 1;
    }
    return out;
}

}  // namespace

bool glob_match(std::string_view p, std::string_view n) {
    size_t pi = 0, ni = 0, star_p = std::string_view::npos, star_n = 0;
    while (ni < n.size()) {
        if (pi < p.size() && p[pi] == '*') {
            star_p = pi++;
            star_n = ni;
            continue;
        }
        if (pi < p.size() && p[pi] == '[') {
            size_t j = pi + 1;
            bool neg = false;
            if (j < p.size() && (p[j] == '!' || p[j] == '^')) neg = true, ++j;
            bool hit = false;
            const size_t first = j;
            while (j < p.size() && (p[j] != ']' || j == first)) {
                if (j + 2 < p.size() && p[j + 1] == '-' && p[j + 2] != ']') {
                    if (n[ni] >= p[j] && n[ni] <= p[j + 2]) hit = true;
                    j += 3;
                } else {
                    if (n[ni] == p[j]) hit = true;
                    ++j;
                }
            }
            if (j < p.size() && hit != neg) {
                pi = j + 1;
                ++ni;
                continue;
            }
        } else if (pi < p.size() && (p[pi] == '?' || p[pi] == n[ni])) {
            ++pi;
            ++ni;
            continue;
        }
        if (star_p == std::string_view::npos) return false;
        pi = star_p + 1;
        ni = ++star_n;
    }
    while (pi < p.size() && p[pi] == '*') ++pi;
    return pi == p.size();
}

std::vector<std::string> expand_glob(ConfigSource& src, const std::string& pattern, size_t max_out) {
    std::vector<std::string> parts;
    {
        size_t i = 0;
        while (i < pattern.size()) {
            size_t j = pattern.find('/', i);
            if (j == std::string::npos) j = pattern.size();
            if (j > i) parts.push_back(pattern.substr(i, j - i));
            i = j + 1;
        }
    }
    std::vector<std::string> cur{"/"};
    for (size_t k = 0; k < parts.size() && !cur.empty(); ++k) {
        std::vector<std::string> next;
        for (const std::string& base : cur) {
            const std::string prefix = base == "/" ? "/" : base + "/";
            if (!has_wildcard(parts[k])) {
                next.push_back(prefix + parts[k]);
                continue;
            }
            std::vector<std::string> names;
            if (!src.list(base, names)) continue;
            std::sort(names.begin(), names.end());
            for (const std::string& n : names) {
                // A leading dot is matched only by a pattern that has one.
                if (n[0] == '.' && parts[k][0] != '.') continue;
                if (glob_match(parts[k], n) && next.size() < max_out) next.push_back(prefix + n);
            }
        }
        cur = std::move(next);
    }
    return cur;
}

WebConfig parse_nginx(ConfigSource& src, const std::string& conf, const std::string& prefix, const Limits& lim) {
    Reader r(src, lim);
    WebConfig cfg;
    cfg.server_root = prefix;
    const std::string* text = r.enter(conf, 0);
    if (!text) return cfg;
    std::vector<NDirective> top;
    NginxParser p(r, dir_name(normalize_path(conf)));
    size_t pos = 0;
    p.parse(*text, pos, top, 0, 0);
    r.leave();
    const NDirective* el = find_directive(top, "error_log");
    cfg.error_log = el ? nginx_log(el, prefix, std::string()) : std::string();
    for (const NDirective& h : top)
        if (h.name == "http" && h.has_block) nginx_sites(h.block, prefix, std::string(), cfg, lim);
    cfg.files_read = r.files_read;
    cfg.truncated = r.truncated;
    return cfg;
}

WebConfig parse_apache(ConfigSource& src, const ApacheInput& in, const Limits& lim) {
    Reader r(src, lim);
    ApacheParser p(r, in);
    const std::string conf = resolve(in.server_root.empty() ? "/" : in.server_root, in.conf);
    const std::string* text = r.enter(conf, 0);
    if (!text) return WebConfig();
    p.file(*text, 0);
    r.leave();
    WebConfig cfg = p.finish(lim);
    cfg.files_read = r.files_read;
    cfg.truncated = r.truncated;
    return cfg;
}

std::map<std::string, std::string> parse_envvars(std::string_view text) {
    std::map<std::string, std::string> vars;
    for (std::string_view line : split_lines(text)) {
        line = trim(line);
        if (!starts_with(line, "export ")) continue;
        line = trim(line.substr(7));
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos || eq == 0) continue;
        const std::string name(line.substr(0, eq));
        std::string raw = unquote(line.substr(eq + 1));
        std::string val;
        for (size_t i = 0; i < raw.size();) {
            if (raw[i] != '$') {
                val.push_back(raw[i++]);
                continue;
            }
            size_t j = i + 1;
            const bool brace = j < raw.size() && raw[j] == '{';
            if (brace) ++j;
            size_t k = j;
            while (k < raw.size() && (isalnum(static_cast<unsigned char>(raw[k])) || raw[k] == '_')) ++k;
            auto it = vars.find(raw.substr(j, k - j));
            if (it != vars.end()) val += it->second;
            i = brace && k < raw.size() && raw[k] == '}' ? k + 1 : k;
        }
        vars[name] = val;
    }
    return vars;
}

ServerConf parse_mycnf(ConfigSource& src, const std::string& path, const Limits& lim) {
    Reader r(src, lim);
    ServerConf c;
    const std::string* t = r.enter(path, 0);
    if (!t) return c;
    std::string group;
    mycnf_file(r, *t, 0, c, group);
    r.leave();
    c.files_read = r.files_read;
    if (!c.log_path.empty() && c.log_path[0] != '/' && !c.data_path.empty()) c.log_path = resolve(c.data_path, c.log_path);
    return c;
}

ServerConf parse_postgresql(ConfigSource& src, const std::string& path, const Limits& lim) {
    Reader r(src, lim);
    ServerConf c;
    PgState st;
    const std::string* t = r.enter(path, 0);
    if (!t) return c;
    pg_file(r, path, *t, 0, c, st);
    r.leave();
    c.files_read = r.files_read;
    c.data_path = st.data_directory;
    if (st.logging_collector == "on" || st.logging_collector == "true" || st.logging_collector == "1")
        c.log_path = st.log_directory.empty() || st.log_directory[0] == '/' || c.data_path.empty()
                         ? st.log_directory
                         : resolve(c.data_path, st.log_directory);
    return c;
}

ServerConf parse_redis(ConfigSource& src, const std::string& path, const Limits& lim) {
    Reader r(src, lim);
    ServerConf c;
    const std::string* t = r.enter(path, 0);
    if (!t) return c;
    redis_file(r, path, *t, 0, c);
    r.leave();
    c.files_read = r.files_read;
    return c;
}

ServerConf parse_mongod(std::string_view text) {
    ServerConf c;
    std::vector<std::pair<size_t, std::string>> stack;  // indent, key
    for (std::string_view raw : split_lines(text)) {
        std::string_view line = raw;
        const size_t hash = line.find('#');
        if (hash != std::string_view::npos) line = line.substr(0, hash);
        if (trim(line).empty()) continue;
        size_t indent = 0;
        while (indent < line.size() && line[indent] == ' ') ++indent;
        line = trim(line);
        const size_t colon = line.find(':');
        const size_t eq = line.find('=');
        if (eq != std::string_view::npos && (colon == std::string_view::npos || eq < colon)) {
            // the older "key = value" form
            const std::string key = ascii_lower(trim(line.substr(0, eq)));
            const std::string val = unquote(line.substr(eq + 1));
            if (key == "port") add_port(c, val);
            else if (key == "dbpath") c.data_path = val;
            else if (key == "logpath") c.log_path = val;
            else if (key == "bind_ip") c.bind = val;
            continue;
        }
        if (colon == std::string_view::npos) continue;
        while (!stack.empty() && stack.back().first >= indent) stack.pop_back();
        const std::string key(trim(line.substr(0, colon)));
        const std::string val = unquote(line.substr(colon + 1));
        std::string full;
        for (const auto& s : stack) full += s.second + ".";
        full += key;
        if (val.empty()) {
            stack.emplace_back(indent, key);
            continue;
        }
        if (full == "net.port") add_port(c, val);
        else if (full == "storage.dbPath") c.data_path = val;
        else if (full == "systemLog.path") c.log_path = val;
        else if (full == "net.bindIp") c.bind = val;
    }
    return c;
}

TomcatConf parse_server_xml(std::string_view text) {
    TomcatConf t;
    std::string clean;
    size_t i = 0;
    while (i < text.size()) {
        const size_t c = text.find("<!--", i);
        if (c == std::string_view::npos) {
            clean.append(text.substr(i));
            break;
        }
        clean.append(text.substr(i, c - i));
        const size_t e = text.find("-->", c + 4);
        if (e == std::string_view::npos) break;
        i = e + 3;
    }
    struct Conn {
        std::string ip;
        uint32_t port;
    };
    std::vector<Conn> conns;
    std::vector<Site> hosts;
    size_t pos = 0;
    while ((pos = clean.find('<', pos)) != std::string::npos) {
        const size_t end = clean.find('>', pos);
        if (end == std::string::npos) break;
        const std::string_view tag(clean.data() + pos + 1, end - pos - 1);
        pos = end;
        size_t n = 0;
        while (n < tag.size() && !is_blank(tag[n]) && tag[n] != '/') ++n;
        const std::string_view name = tag.substr(0, n);
        if (name != "Connector" && name != "Host" && name != "Valve") continue;
        const auto a = xml_attrs(tag.substr(n));
        if (name == "Connector") {
            uint64_t p = 0;
            auto it = a.find("port");
            if (it == a.end() || !parse_u64(it->second, p) || p == 0 || p > 65535) continue;
            auto ad = a.find("address");
            conns.push_back(Conn{ad == a.end() ? "*" : ad->second, static_cast<uint32_t>(p)});
            t.ports.push_back(static_cast<uint32_t>(p));
        } else if (name == "Host") {
            Site s;
            auto nm = a.find("name");
            auto ab = a.find("appBase");
            s.host = nm == a.end() ? std::string() : nm->second;
            s.document = ab == a.end() ? std::string("webapps") : ab->second;
            hosts.push_back(s);
        } else if (!hosts.empty()) {
            auto cls = a.find("className");
            auto dir = a.find("directory");
            if (cls != a.end() && cls->second.find("AccessLogValve") != std::string::npos && hosts.back().logpath.empty())
                hosts.back().logpath = dir == a.end() ? std::string("logs") : dir->second;
        }
    }
    for (const Conn& c : conns)
        for (Site s : hosts) {
            s.ip = c.ip;
            s.port = c.port;
            t.sites.push_back(std::move(s));
        }
    return t;
}

std::string yaml_flat_value(std::string_view text, std::string_view key) {
    for (std::string_view line : split_lines(text)) {
        if (line.empty() || is_blank(line[0]) || line[0] == '#') continue;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos || trim(line.substr(0, colon)) != key) continue;
        std::string_view v = line.substr(colon + 1);
        const size_t hash = v.find(" #");
        if (hash != std::string_view::npos) v = v.substr(0, hash);
        return unquote(v);
    }
    return std::string();
}

std::string elf_machine(std::string_view h) {
    if (h.size() < 20 || h.substr(0, 4) != "\x7f" "ELF") return std::string();
    const bool is64 = h[4] == 2;
    const bool le = h[5] != 2;
    const unsigned b0 = static_cast<unsigned char>(h[18]), b1 = static_cast<unsigned char>(h[19]);
    const unsigned m = le ? (b0 | b1 << 8) : (b1 | b0 << 8);
    switch (m) {
        case 3: return "i386";
        case 62: return "x86_64";
        case 40: return "arm";
        case 183: return "aarch64";
        case 8: return is64 ? "mips64" : "mips";
        case 20: return "ppc";
        case 21: return le ? "ppc64le" : "ppc64";
        case 22: return "s390x";
        case 243: return is64 ? "riscv64" : "riscv32";
        case 258: return "loongarch64";
        case 2: return "sparc";
        case 43: return "sparc64";
        default: return "elf-" + std::to_string(m);
    }
}

std::string find_version(std::string_view data, std::string_view marker) {
    size_t pos = 0;
    while ((pos = data.find(marker, pos)) != std::string_view::npos) {
        pos += marker.size();
        size_t e = pos;
        while (e < data.size() && e - pos < 32 && (isdigit(static_cast<unsigned char>(data[e])) || data[e] == '.')) ++e;
        std::string_view v = data.substr(pos, e - pos);
        while (!v.empty() && v.back() == '.') v.remove_suffix(1);
        if (v.size() >= 3 && isdigit(static_cast<unsigned char>(v[0])) && v.find('.') != std::string_view::npos)
            return std::string(v);
    }
    return std::string();
}

std::string dpkg_version_of(std::string_view status, std::string_view name) {
    const std::string needle = "Package: " + std::string(name) + "\n";
    size_t pos = 0;
    while ((pos = status.find(needle, pos)) != std::string_view::npos) {
        if (pos != 0 && status[pos - 1] != '\n') {
            pos += needle.size();
            continue;
        }
        size_t end = status.find("\n\n", pos);
        if (end == std::string_view::npos) end = status.size();
        const std::string_view stanza = status.substr(pos, end - pos);
        std::string version;
        bool installed = false;
        for (std::string_view line : split_lines(stanza)) {
            if (starts_with(line, "Version: ")) version = std::string(trim(line.substr(9)));
            if (starts_with(line, "Status: ")) installed = ends_with(trim(line), " installed");
        }
        if (installed) return version;
        pos = end;
    }
    return std::string();
}

std::vector<DpkgEntry> dpkg_matching(std::string_view status, const std::vector<std::string>& globs) {
    std::vector<DpkgEntry> out;
    size_t pos = 0;
    while (pos < status.size()) {
        size_t end = status.find("\n\n", pos);
        if (end == std::string_view::npos) end = status.size();
        const std::string_view stanza = status.substr(pos, end - pos);
        pos = end + 2;
        // The name first: most stanzas end there.
        const size_t at = starts_with(stanza, "Package: ") ? 0 : stanza.find("\nPackage: ");
        if (at == std::string_view::npos) continue;
        const size_t from = at == 0 ? 9 : at + 10;
        const size_t eol = stanza.find('\n', from);
        const std::string_view pname = trim(stanza.substr(from, eol == std::string_view::npos ? eol : eol - from));
        bool wanted = false;
        for (const std::string& g : globs) wanted = wanted || glob_match(g, pname);
        if (!wanted) continue;
        DpkgEntry e;
        bool installed = false;
        for (std::string_view line : split_lines(stanza)) {
            if (starts_with(line, "Package: ")) e.name = std::string(trim(line.substr(9)));
            else if (starts_with(line, "Version: ")) e.version = std::string(trim(line.substr(9)));
            else if (starts_with(line, "Architecture: ")) e.arch = std::string(trim(line.substr(14)));
            else if (starts_with(line, "Multi-Arch: ")) e.multi_arch = std::string(trim(line.substr(12)));
            else if (starts_with(line, "Status: ")) installed = ends_with(trim(line), " installed");
        }
        if (installed && !e.name.empty()) out.push_back(std::move(e));
    }
    return out;
}

bool split_host_port(std::string_view s, std::string& host, uint32_t& port) {
    host.clear();
    port = 0;
    uint64_t p = 0;
    if (parse_u64(s, p)) {
        if (p == 0 || p > 65535) return false;
        port = static_cast<uint32_t>(p);
        return true;
    }
    size_t colon;
    if (!s.empty() && s[0] == '[') {
        const size_t rb = s.find(']');
        if (rb == std::string_view::npos || rb + 1 >= s.size() || s[rb + 1] != ':') return false;
        host = std::string(s.substr(1, rb - 1));
        colon = rb + 1;
    } else {
        colon = s.rfind(':');
        if (colon == std::string_view::npos) return false;
        if (s.find(':') != colon) return false;  // a bare IPv6 address
        host = std::string(s.substr(0, colon));
    }
    if (!parse_u64(s.substr(colon + 1), p) || p == 0 || p > 65535) return false;
    port = static_cast<uint32_t>(p);
    return true;
}

std::string arg_value(const std::vector<std::string>& argv, std::string_view opt) {
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        if (a == opt) return i + 1 < argv.size() ? argv[i + 1] : std::string();
        if (starts_with(opt, "--")) {
            if (a.size() > opt.size() && starts_with(a, opt) && a[opt.size()] == '=') return a.substr(opt.size() + 1);
        } else if (opt.size() == 2 && a.size() > 2 && starts_with(a, opt) && a[1] != '-') {
            return a.substr(2);
        }
    }
    return std::string();
}

}  // namespace servers
}  // namespace amsvc
