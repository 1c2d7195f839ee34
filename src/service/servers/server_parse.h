// Parsers behind collect_servers: configuration files of the servers it knows
// (read as each server reads them, includes expanded through a ConfigSource),
// ELF headers and version texts inside executables. Text in, records out; no
// I/O except through the source the caller hands in.
#ifndef ASSETMAN_SERVICE_SERVER_PARSE_H
#define ASSETMAN_SERVICE_SERVER_PARSE_H

#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace amsvc {
namespace servers {

// Product codes of ServiceInfo.type (the README lists them).
enum Type : uint32_t {
    kUnknown = 0,
    kNginx = 1,
    kApache = 2,
    kTomcat = 3,
    kJava = 4,  // a Java server other than Tomcat and Elasticsearch
    kMysql = 5,
    kMariadb = 6,
    kPostgres = 7,
    kRedis = 8,
    kMongo = 9,
    kMemcached = 10,
    kPhpFpm = 11,
    kSshd = 12,
    kElastic = 13,
    kHaproxy = 14,
    kLighttpd = 15,
    kDns = 16,  // named, unbound, dnsmasq, ...
};

// The files a configuration reads. Tests hand in a map; the collector reads
// inside the host root or a process's own root.
class ConfigSource {
public:
    virtual ~ConfigSource() = default;
    // Contents of the regular file at absolute `path` (at most `max` bytes);
    // false when absent, unreadable or refused.
    virtual bool read(const std::string& path, std::string& out, size_t max) = 0;
    // Names of the entries of directory `dir`; false when it cannot be listed.
    virtual bool list(const std::string& dir, std::vector<std::string>& names) = 0;
};

// Bounds of one configuration read: a hostile tree (include loops, a glob that
// matches itself, endless chains, huge files) ends within them.
struct Limits {
    size_t max_file = 4u << 20;     // bytes of one file
    size_t max_total = 32u << 20;   // bytes of all files read (each file read once)
    size_t max_parsed = 64u << 20;  // bytes parsed, a file included many times counted each time
    size_t max_files = 2048;        // include expansions
    size_t max_depth = 64;          // nested includes
    size_t max_sites = 4096;        // sites kept
};

// fnmatch-style match of one path component: '*', '?', '[...]'.
bool glob_match(std::string_view pattern, std::string_view name);
// Expands a glob (wildcards in any component) to existing paths, sorted per
// directory as the servers do. A path without wildcards comes back as itself.
std::vector<std::string> expand_glob(ConfigSource& src, const std::string& pattern, size_t max_out = 1024);

// One web site of a configuration.
struct Site {
    std::string ip;  // "0.0.0.0", "::", "*", an address or a name as written
    uint32_t port = 0;
    std::string host;
    std::string document;
    std::string logpath;
};

// What a web server's configuration tells.
struct WebConfig {
    std::vector<Site> sites;
    std::vector<std::pair<std::string, uint32_t>> listens;  // every listen address and port
    std::string error_log;
    std::string server_root;  // Apache: ServerRoot; nginx: the prefix
    size_t files_read = 0;
    bool truncated = false;  // a bound was reached
};

// nginx: the main file `conf` with prefix `prefix` (for relative root and log
// paths); includes resolve against the main file's directory.
WebConfig parse_nginx(ConfigSource& src, const std::string& conf, const std::string& prefix,
                      const Limits& lim = Limits());

// Apache httpd: the main file `conf` under `server_root`, with `defines`
// (-D, Define) and `env` (the values of ${VAR}).
struct ApacheInput {
    std::string conf;
    std::string server_root;
    std::vector<std::string> defines;
    std::map<std::string, std::string> env;
};
WebConfig parse_apache(ConfigSource& src, const ApacheInput& in, const Limits& lim = Limits());

// Debian's /etc/apache2/envvars: "export NAME=value" lines, $NAME expanded
// from the earlier ones. The shell is never run.
std::map<std::string, std::string> parse_envvars(std::string_view text);

// Facts the other servers' configurations give.
struct ServerConf {
    std::vector<uint32_t> ports;
    std::string data_path;
    std::string log_path;
    std::string bind;
    size_t files_read = 0;
};

// my.cnf with !include and !includedir; options of [mysqld], [server],
// [mariadb], [mysqld-*], [mariadbd], [mariadb-*] groups.
ServerConf parse_mycnf(ConfigSource& src, const std::string& path, const Limits& lim = Limits());
// postgresql.conf with include, include_if_exists and include_dir.
ServerConf parse_postgresql(ConfigSource& src, const std::string& path, const Limits& lim = Limits());
// redis.conf with include.
ServerConf parse_redis(ConfigSource& src, const std::string& path, const Limits& lim = Limits());
// mongod.conf: the YAML subset it uses (net.port, storage.dbPath,
// systemLog.path), or the older "key = value" form.
ServerConf parse_mongod(std::string_view text);
// Tomcat's server.xml: Connector ports (comments skipped) and Host elements as
// sites of every Connector port.
struct TomcatConf {
    std::vector<uint32_t> ports;
    std::vector<Site> sites;  // document: appBase as written
};
TomcatConf parse_server_xml(std::string_view text);
// A simple "key: value" YAML (elasticsearch.yml): top-level dotted keys.
std::string yaml_flat_value(std::string_view text, std::string_view dotted_key);

// ELF machine of an executable's first bytes as uname -m names it
// ("x86_64", "aarch64", ...); empty when not ELF.
std::string elf_machine(std::string_view head);

// Version text after `marker` ("nginx/") in a chunk of an executable: digits
// and dots, at least "N.N". Empty when absent.
std::string find_version(std::string_view data, std::string_view marker);

// Version of package `name` in a dpkg status text; empty when not installed.
std::string dpkg_version_of(std::string_view status, std::string_view name);

// Installed packages of a dpkg status text whose name matches one of the
// globs, with what it takes to find their file lists.
struct DpkgEntry {
    std::string name, arch, version, multi_arch;
};
std::vector<DpkgEntry> dpkg_matching(std::string_view status, const std::vector<std::string>& globs);

// Parses "host:port", "[v6]:port", "port", "*:port"; false without a port.
bool split_host_port(std::string_view s, std::string& host, uint32_t& port);

// Value of a command-line option: "-c X", "-cX", "--opt=X", "--opt X".
std::string arg_value(const std::vector<std::string>& argv, std::string_view opt);

}  // namespace servers
}  // namespace amsvc

#endif
