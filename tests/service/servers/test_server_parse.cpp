// Configuration parsers of the server collector on literal texts.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "servers/server_parse.h"

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
            if (f.first.compare(0, prefix.size(), prefix) == 0) s.insert(f.first.substr(prefix.size(), f.first.find('/', prefix.size()) - prefix.size()));
        names.assign(s.begin(), s.end());
        return !names.empty();
    }
    size_t reads = 0;

private:
    std::map<std::string, std::string> files_;
};

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
                 {"[a-c]*", "b", true},      {"[!a]*", "a", false},          {"*", "", true}};
    for (const auto& g : globs) EXPECT_EQ(glob_match(g.pat, g.name), g.match) << g.pat << " " << g.name;

    struct {
        const char* in;
        bool ok;
        const char* host;
        uint32_t port;
    } hp[] = {{"80", true, "", 80},           {"127.0.0.1:8080", true, "127.0.0.1", 8080}, {"[::1]:443", true, "::1", 443},
              {"*:80", true, "*", 80},        {"::1", false, "", 0},                        {"host:99999", false, "", 0},
              {"example.com", false, "", 0}};
    for (const auto& c : hp) {
        std::string host;
        uint32_t port = 0;
        EXPECT_EQ(split_host_port(c.in, host, port), c.ok) << c.in;
        if (c.ok) {
            EXPECT_EQ(host + ":" + std::to_string(port), std::string(c.host) + ":" + std::to_string(c.port));
        }
    }
}

TEST(ServerParse, NginxSitesIncludesAndInheritance) {
    MapSource src({
        {"/etc/nginx/nginx.conf",
         "user www-data; error_log logs/err.log;\n"
         "http {\n access_log /var/log/nginx/access.log main; # comment ; {\n"
         " include /etc/nginx/sites-enabled/*;\n include snippets/none.conf;\n}\n"},
        {"/etc/nginx/sites-enabled/a",
         "server { listen 80; listen [::]:8080 default_server; server_name a.test \"b.test\";\n"
         "  root /srv/a; include snippets/log.conf; location ~ \"^/x{1,3}$\" { return 404; } }\n"},
        {"/etc/nginx/sites-enabled/b",
         "server { listen 127.0.0.1:81; server_name c.test; include snippets/log.conf;\n"
         "  location / { proxy_pass http://127.0.0.1:9; } }\n"
         "server { listen unix:/run/x.sock; listen 10.0.0.1; access_log off; location / { root html; } }\n"},
        {"/etc/nginx/snippets/log.conf", "access_log /var/log/nginx/snip.log;\n"},
    });
    const WebConfig c = parse_nginx(src, "/etc/nginx/nginx.conf", "/usr/share/nginx");
    EXPECT_EQ(sites_text(c.sites),
              "0.0.0.0:80 a.test /srv/a /var/log/nginx/snip.log\n"
              "0.0.0.0:80 b.test /srv/a /var/log/nginx/snip.log\n"
              ":::8080 a.test /srv/a /var/log/nginx/snip.log\n"
              ":::8080 b.test /srv/a /var/log/nginx/snip.log\n"
              "127.0.0.1:81 c.test  /var/log/nginx/snip.log\n"
              "10.0.0.1:80  /usr/share/nginx/html \n");
    EXPECT_EQ(c.error_log, "/usr/share/nginx/logs/err.log");
    EXPECT_FALSE(c.truncated);
}

TEST(ServerParse, HostileIncludesEndBounded) {
    std::map<std::string, std::string> files = {
        {"/n/nginx.conf", "http { include loop/*.conf; include chain0.conf; server { listen 1; server_name main; } }\n"},
        {"/n/loop/a.conf", "include loop/*.conf; server { listen 2; server_name a; }\n"},
        {"/n/loop/b.conf", "include loop/*.conf; include /n/nginx.conf; server { listen 3; server_name b; }\n"},
        {"/n/deep.conf", std::string(100000, '{') + "server {listen 9;}"},
    };
    for (int i = 0; i < 200; ++i)
        files["/n/chain" + std::to_string(i) + ".conf"] =
            "server { listen " + std::to_string(1000 + i) + "; }\ninclude chain" + std::to_string(i + 1) + ".conf;\n";
    files["/n/nginx.conf"] += "include deep.conf;\n";
    MapSource src(files);
    const WebConfig c = parse_nginx(src, "/n/nginx.conf", "/n");
    std::set<std::string> unique;
    for (const Site& s : c.sites) unique.insert(s.host + std::to_string(s.port));
    EXPECT_TRUE(unique.count("main1") && unique.count("a2") && unique.count("b3"));
    EXPECT_TRUE(c.truncated);  // the chain was cut at the depth bound
    EXPECT_LT(c.sites.size(), 200u);
    EXPECT_LE(src.reads, 80u);  // each file read once

    // A huge file is read only up to the bound; NUL bytes are plain bytes here.
    MapSource big({{"/n/nginx.conf", "http { server { listen 5; server_name big; }\n" + std::string(50u << 20, 'x')}});
    const WebConfig b = parse_nginx(big, "/n/nginx.conf", "/n");
    EXPECT_EQ(sites_text(b.sites), "0.0.0.0:5 big  \n");

    // One large file included over and over is parsed only up to a bound.
    std::string many = "http { server { listen 6; } ";
    for (int i = 0; i < 2000; ++i) many += "include big.conf; ";
    MapSource rep({{"/n/nginx.conf", many + "}"}, {"/n/big.conf", "server { listen 7; }" + std::string(1u << 20, ' ')}});
    const WebConfig r = parse_nginx(rep, "/n/nginx.conf", "/n");
    EXPECT_TRUE(r.truncated);
    EXPECT_LT(r.sites.size(), 100u);
}

TEST(ServerParse, ApacheDefinesConditionsAndVhosts) {
    ApacheInput in;
    in.server_root = "/etc/apache2";
    in.conf = "apache2.conf";
    in.env = {{"APACHE_LOG_DIR", "/var/log/apache2"}};
    in.defines = {"FROMCMD"};
    MapSource src({
        {"/etc/apache2/apache2.conf",
         "ServerName main.test\nErrorLog ${APACHE_LOG_DIR}/error.log\nDefine DOCS /srv\n"
         "LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so\n"
         "Include ports.conf\nIncludeOptional sites-enabled/*.conf\nIncludeOptional missing/*.conf\n"
         "CustomLog logs/main.log combined\nInclude conf.d\n"},
        {"/etc/apache2/conf.d/z", "<VirtualHost 10.0.0.9:80>\n ServerName z.test\n</VirtualHost>\n"},
        {"/etc/apache2/ports.conf",
         "Listen 80\n<IfModule mod_ssl.c>\n Listen 443\n</IfModule>\n<IfModule mod_gnutls.c>\n Listen 444\n</IfModule>\n"
         "<IfDefine FROMCMD>\nListen [::1]:8080\n</IfDefine>\n<IfDefine !FROMCMD>\nListen 9\n</IfDefine>\n"},
        {"/etc/apache2/sites-enabled/000.conf",
         "<VirtualHost *:80>\n ServerName www.a.test:80\n ServerAlias a.test \\\n  alt.a.test\n"
         " DocumentRoot ${DOCS}/a\n <Directory /srv/a>\n  DocumentRoot /wrong\n </Directory>\n"
         " Include snippet.conf\n</VirtualHost>\n"
         "<VirtualHost 127.0.0.1:443 [::1]:8080>\n DocumentRoot \"/srv/b\"\n Include snippet.conf\n</VirtualHost>\n"},
        {"/etc/apache2/snippet.conf", "CustomLog \"|/usr/bin/rotatelogs x\" combined\n"},
    });
    const WebConfig c = parse_apache(src, in);
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

    const auto vars = parse_envvars(
        "unset HOME\nSUFFIX=\nexport APACHE_RUN_USER=www-data\nexport APACHE_LOG_DIR=/var/log/apache2$SUFFIX\n"
        "export APACHE_PID_FILE=${APACHE_LOG_DIR}/x.pid\n");
    EXPECT_EQ(vars.at("APACHE_LOG_DIR"), "/var/log/apache2");
    EXPECT_EQ(vars.at("APACHE_PID_FILE"), "/var/log/apache2/x.pid");
}

TEST(ServerParse, DatabaseAndCacheConfigs) {
    MapSource my({
        {"/etc/mysql/my.cnf", "[client]\nport=1\n!includedir /etc/mysql/conf.d/\n[mysqld]\nport = 3307\n"},
        {"/etc/mysql/conf.d/a.cnf", "[mysqld]\ndatadir = /data/mysql # here\nlog-error = err.log\n"},
        {"/etc/mysql/conf.d/b.txt", "[mysqld]\nport=5\n"},
        {"/etc/mysql/conf.d/c.cnf", "[mariadb-10.11]\nbind-address=127.0.0.1\n!include /etc/mysql/my.cnf\n"},
    });
    EXPECT_EQ(parse_mycnf(my, "/etc/mysql/my.cnf").bind, "127.0.0.1");

    MapSource pg({
        {"/etc/postgresql/15/main/postgresql.conf",
         "data_directory = '/var/lib/postgresql/15/main'\nport = 5433 # comment\n"
         "logging_collector = on\ninclude_dir 'conf.d'\ninclude_if_exists '/nope.conf'\n"},
        {"/etc/postgresql/15/main/conf.d/x.conf", "log_directory = 'it''s'\nlisten_addresses='*'\n"},
    });

    MapSource rd({{"/etc/redis/redis.conf", "port 6380\ninclude /etc/redis/extra.conf\ndir /var/lib/redis\n"},
                  {"/etc/redis/extra.conf", "logfile \"/var/log/redis/r.log\"\ninclude /etc/redis/redis.conf\n"}});

    const char* mongo_yaml =
        "storage:\n  dbPath: /var/lib/mongodb\n  journal:\n    enabled: true\nsystemLog:\n  destination: file\n"
        "  path: \"/var/log/mongodb/mongod.log\"\nnet:\n  port: 27018 # x\n  bindIp: 127.0.0.1\n";
    struct {
        ServerConf got;
        uint32_t port;
        const char* data;
        const char* log;
    } want[] = {
        {parse_mycnf(my, "/etc/mysql/my.cnf"), 3307, "/data/mysql", "/data/mysql/err.log"},
        {parse_postgresql(pg, "/etc/postgresql/15/main/postgresql.conf"), 5433, "/var/lib/postgresql/15/main",
         "/var/lib/postgresql/15/main/it's"},
        {parse_redis(rd, "/etc/redis/redis.conf"), 6380, "/var/lib/redis", "/var/log/redis/r.log"},
        {parse_mongod(mongo_yaml), 27018, "/var/lib/mongodb", "/var/log/mongodb/mongod.log"},
        {parse_mongod("dbpath=/data/db\nlogpath = /var/log/m.log\nport = 27019\n"), 27019, "/data/db",
         "/var/log/m.log"},
    };
    for (const auto& w : want) {
        EXPECT_EQ(w.got.ports, std::vector<uint32_t>{w.port});
        EXPECT_EQ(w.got.data_path, w.data);
        EXPECT_EQ(w.got.log_path, w.log);
    }
}

TEST(ServerParse, ExecutableFacts) {
    std::string elf(64, '\0');
    elf.replace(0, 4, "\x7f" "ELF");
    struct {
        char cls, data;
        unsigned char m0, m1;
        const char* arch;
    } elves[] = {{2, 1, 62, 0, "x86_64"}, {2, 1, 183, 0, "aarch64"}, {1, 1, 3, 0, "i386"}, {2, 2, 0, 21, "ppc64"},
                 {2, 1, 21, 0, "ppc64le"}, {2, 2, 0, 22, "s390x"}};
    for (const auto& e : elves) {
        std::string h = elf;
        h[4] = e.cls;
        h[5] = e.data;
        h[18] = static_cast<char>(e.m0);
        h[19] = static_cast<char>(e.m1);
        EXPECT_EQ(elf_machine(h), e.arch);
    }
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
    EXPECT_EQ(arg_value(argv, "-c"), "/x.conf");
    EXPECT_EQ(arg_value(argv, "-p"), "/pre");
    EXPECT_EQ(arg_value(argv, "--defaults-file"), "/my.cnf");
    EXPECT_EQ(arg_value(argv, "-g"), "");
}

TEST(ServerParse, TomcatServerXml) {
    const TomcatConf t = parse_server_xml(
        "<Server port=\"8005\" shutdown=\"SHUTDOWN\">\n<Service name=\"Catalina\">\n"
        "<!-- <Connector port=\"8443\" protocol=\"HTTP/1.1\"/> -->\n"
        "<Connector port=\"8080\" protocol=\"HTTP/1.1\" connectionTimeout=\"20000\"/>\n"
        "<Connector address='127.0.0.1' port='8009' protocol='AJP/1.3'/>\n"
        "<Engine name=\"Catalina\" defaultHost=\"localhost\">\n"
        "<Host name=\"localhost\" appBase=\"webapps\" unpackWARs=\"true\">\n"
        "<Valve className=\"org.apache.catalina.valves.AccessLogValve\" directory=\"logs\" prefix=\"x\"/>\n"
        "</Host></Engine></Service></Server>\n");
    EXPECT_EQ(t.ports, (std::vector<uint32_t>{8080, 8009}));
    EXPECT_EQ(sites_text(t.sites), "*:8080 localhost webapps logs\n127.0.0.1:8009 localhost webapps logs\n");
}

}  // namespace
