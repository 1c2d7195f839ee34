// Configuration parsers of the server collector on the configuration tree in
// fixtures/conf and on hostile trees made here.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>

#include "servers/server_parse.h"
#include "test_util.h"

using namespace amsvc::servers;

namespace {

// A configuration tree in memory: path -> text.
class MapSource : public ConfigSource {
public:
    explicit MapSource(std::map<std::string, std::string> files) : files_(std::move(files)) {}
    bool read(const std::string& path, std::string& out, size_t max) override {
        ++reads;
        auto it = files_.find(path);
        if (it == files_.end()) return false;
        out = it->second.substr(0, max);
        return true;
    }
    bool list(const std::string& dir, std::vector<std::string>& names) override {
        std::set<std::string> s;
        const std::string prefix = dir == "/" ? "/" : dir + "/";
        for (const auto& f : files_)
            if (f.first.compare(0, prefix.size(), prefix) == 0)
                s.insert(f.first.substr(prefix.size(), f.first.find('/', prefix.size()) - prefix.size()));
        names.assign(s.begin(), s.end());
        return !names.empty();
    }
    size_t reads = 0;

private:
    std::map<std::string, std::string> files_;
};

// The files of fixtures/conf, at their paths below it.
MapSource& conf_tree() {
    static MapSource src = [] {
        const std::string top = ASSETMAN_FIXTURES "/conf";
        std::map<std::string, std::string> files;
        for (const auto& e : std::filesystem::recursive_directory_iterator(top))
            if (e.is_regular_file())
                files[e.path().string().substr(top.size())] = amtest::read_text(e.path());
        return MapSource(files);
    }();
    return src;
}

std::string read_conf(const std::string& path) {
    std::string text;
    conf_tree().read(path, text, 1 << 20);
    return text;
}

std::string sites_text(const std::vector<Site>& sites) {
    std::string out;
    for (const Site& s : sites)
        out += s.ip + ":" + std::to_string(s.port) + " " + s.host + " " + s.document + " " + s.logpath + "\n";
    return out;
}
TEST(ServerParse, GlobAndHostPort) {
    struct {
        const char* pat;
        const char* name;
        bool match;
    } globs[] = {{"*.conf", "a.conf", true}, {"*.conf", "a.conf.bak", false}, {"site?", "site1", true},
                 {"[a-c]*", "b", true},      {"[!a]*", "a", false},           {"*", "", true}};
    for (const auto& g : globs) EXPECT_EQ(glob_match(g.pat, g.name), g.match) << g.pat << " " << g.name;

    const std::pair<const char*, const char*> hp[] = {{"80", ":80"},
                                                      {"127.0.0.1:8080", "127.0.0.1:8080"},
                                                      {"[::1]:443", "::1:443"},
                                                      {"*:80", "*:80"},
                                                      {"::1", "refused"},
                                                      {"host:99999", "refused"},
                                                      {"example.com", "refused"}};
    for (const auto& [in, want] : hp) {
        std::string host;
        uint32_t port = 0;
        EXPECT_EQ(split_host_port(in, host, port) ? host + ":" + std::to_string(port) : "refused", want)
            << in;
    }
}

// Every parser on the tree of fixtures/conf, as conf.expected shows it: nginx
// includes and inherited paths; Apache's envvars, defines, conditions and
// virtual hosts; my.cnf with !includedir, PostgreSQL, Redis, both MongoDB
// layouts, and Tomcat's server.xml.
TEST(ServerParse, ConfigurationTree) {
    const WebConfig n = parse_nginx(conf_tree(), "/etc/nginx/nginx.conf", "/usr/share/nginx");
    std::string got = "nginx " + n.error_log + (n.truncated ? " truncated\n" : "\n") + sites_text(n.sites);
    ApacheInput in;
    in.server_root = "/etc/apache2";
    in.conf = "apache2.conf";
    in.env = parse_envvars(read_conf("/etc/apache2/envvars"));
    in.defines = {"FROMCMD"};
    const WebConfig a = parse_apache(conf_tree(), in);
    got += "apache " + a.error_log + " pid file " + in.env.at("APACHE_PID_FILE") + "\n" + sites_text(a.sites);
    for (const auto& l : a.listens) got += "listen " + l.first + ":" + std::to_string(l.second) + "\n";
    const std::pair<const char*, ServerConf> dbs[] = {
        {"mysql", parse_mycnf(conf_tree(), "/etc/mysql/my.cnf")},
        {"postgresql", parse_postgresql(conf_tree(), "/etc/postgresql/15/main/postgresql.conf")},
        {"redis", parse_redis(conf_tree(), "/etc/redis/redis.conf")},
        {"mongod", parse_mongod(read_conf("/etc/mongod.conf"))},
        {"mongodb", parse_mongod(read_conf("/etc/mongodb.conf"))},
    };
    for (const auto& [name, c] : dbs) {
        got += std::string(name) + " " + c.bind;
        for (uint32_t port : c.ports) got += " " + std::to_string(port);
        got += " " + c.data_path + " " + c.log_path + "\n";
    }
    const TomcatConf t = parse_server_xml(read_conf("/etc/tomcat/server.xml"));
    got += "tomcat\n" + sites_text(t.sites);
    for (uint32_t port : t.ports) got += "port " + std::to_string(port) + "\n";
    EXPECT_EQ(got, amtest::read_text(ASSETMAN_FIXTURES "/conf.expected"));
}

// Loops, a chain deeper than the bound, deep nesting, and one large file
// included over and over: each ends within the bounds.
TEST(ServerParse, HostileIncludesEndBounded) {
    std::map<std::string, std::string> files = {
        {"/n/nginx.conf",
         "http { include loop/*.conf; include chain0.conf; server { listen 1; server_name main; } }\n"
         "include deep.conf;\n"},
        {"/n/loop/a.conf", "include loop/*.conf; server { listen 2; server_name a; }\n"},
        {"/n/loop/b.conf",
         "include loop/*.conf; include /n/nginx.conf; server { listen 3; server_name b; }\n"},
        {"/n/deep.conf", std::string(100000, '{') + "server {listen 9;}"},
    };
    for (int i = 0; i < 200; ++i)
        files["/n/chain" + std::to_string(i) + ".conf"] = "server { listen " + std::to_string(1000 + i) +
                                                          "; }\ninclude chain" + std::to_string(i + 1) +
                                                          ".conf;\n";
    MapSource src(files);
    const WebConfig c = parse_nginx(src, "/n/nginx.conf", "/n");
    std::set<std::string> unique;
    for (const Site& s : c.sites) unique.insert(s.host + std::to_string(s.port));
    EXPECT_TRUE(unique.count("main1") && unique.count("a2") && unique.count("b3"));
    EXPECT_TRUE(c.truncated);  // the chain was cut at the depth bound
    EXPECT_LT(c.sites.size(), 200u);
    EXPECT_LE(src.reads, 80u);  // each file read once

    std::string many = "http { server { listen 6; } ";
    for (int i = 0; i < 2000; ++i) many += "include big.conf; ";
    MapSource rep({{"/n/nginx.conf", many + "}"},
                   {"/n/big.conf", "server { listen 7; }" + std::string(1u << 20, ' ')}});
    const WebConfig r = parse_nginx(rep, "/n/nginx.conf", "/n");
    EXPECT_TRUE(r.truncated);
    EXPECT_LT(r.sites.size(), 100u);
}

TEST(ServerParse, ApacheDefinesConditionsAndVhosts) {
    ApacheInput in;
    in.server_root = "/etc/apache2";
    in.conf = "apache2.conf";
    in.env = parse_envvars(read_conf("/etc/apache2/envvars"));
    in.defines = {"FROMCMD"};
    EXPECT_EQ(in.env.at("APACHE_PID_FILE"), "/var/log/apache2/x.pid");
    const WebConfig c = parse_apache(conf_tree(), in);
    EXPECT_EQ(sites_text(c.sites),
              "*:80 www.a.test /srv/a |/usr/bin/rotatelogs x\n"
              "*:80 a.test /srv/a |/usr/bin/rotatelogs x\n"
              "*:80 alt.a.test /srv/a |/usr/bin/rotatelogs x\n"
              "127.0.0.1:443 main.test /srv/b |/usr/bin/rotatelogs x\n"
              "::1:8080 main.test /srv/b |/usr/bin/rotatelogs x\n"
              "10.0.0.9:80 z.test  /etc/apache2/logs/main.log\n");
    std::string listens;
    for (const auto& l : c.listens) listens += l.first + ":" + std::to_string(l.second) + " ";
    EXPECT_EQ(listens, "*:80 *:443 ::1:8080 ");
    EXPECT_EQ(c.error_log, "/var/log/apache2/error.log");
}

TEST(ServerParse, ExecutableFacts) {
    struct {
        int machine;
        char cls, data;
        const char* arch;
    } elves[] = {{62, 2, 1, "x86_64"}, {183, 2, 1, "aarch64"}, {3, 1, 1, "i386"},
                 {21, 2, 2, "ppc64"},  {21, 2, 1, "ppc64le"},  {22, 2, 2, "s390x"}};
    for (const auto& e : elves) EXPECT_EQ(elf_machine(amtest::elf_header(e.machine, e.cls, e.data)), e.arch);
    EXPECT_EQ(elf_machine("#!/bin/sh\n"), "");
    EXPECT_EQ(find_version(std::string("xxnginx/\0nginx/1.22.1\0", 22), "nginx/"), "1.22.1");
    EXPECT_EQ(find_version("Apache/2.4 Apache/2.4.57 (Debian)", "Apache/"), "2.4");
    EXPECT_EQ(find_version("memcached %s", "memcached "), "");

    const std::string status =
        "Package: nginx-common\nStatus: install ok installed\nVersion: 1.0\n\n"
        "Package: nginx\nStatus: deinstall ok config-files\nVersion: 0.9\n\n"
        "Package: nginx\nStatus: install ok installed\nArchitecture: amd64\nVersion: 1.22.1-9\n";
    EXPECT_EQ(dpkg_version_of(status, "nginx"), "1.22.1-9");
    const auto m = dpkg_matching(status, {"nginx*"});
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[1].arch, "amd64");

    const std::vector<std::string> argv = {"nginx", "-c", "/x.conf", "-p/pre", "--defaults-file=/my.cnf"};
    for (const auto& [opt, value] : std::map<std::string, std::string>{
             {"-c", "/x.conf"}, {"-p", "/pre"}, {"--defaults-file", "/my.cnf"}, {"-g", ""}})
        EXPECT_EQ(arg_value(argv, opt), value) << opt;
}

}  // namespace
