// Servers installed and configured in an image but not running: reported
// with pid 0 and the ports of their packaged configuration.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "collectors.h"
#include "test_util.h"

namespace {

TEST(IdleServers, DatabasesAndCachesOfAnImage) {
    amtest::TempDir t{"amidle"};
    const std::string elf = std::string("\x7f" "ELF\x02\x01\x01", 7) + std::string(11, '\0') +
                            std::string("\x3e\0", 2) + std::string(64, 'x');
    t.file("/usr/sbin/mariadbd", elf, 0755);
    t.file("/etc/mysql/my.cnf", "[client]\nport = 1\n!includedir /etc/mysql/conf.d/\n");
    t.file("/etc/mysql/conf.d/server.cnf", "[mysqld]\nport = 3307\ndatadir = /srv/db\n");
    t.file("/usr/bin/redis-server", elf, 0755);
    t.file("/etc/redis/redis.conf", "port 6390\ndir /var/lib/redis\nlogfile /var/log/redis/r.log\n");
    t.file("/usr/lib/postgresql/15/bin/postgres", elf, 0755);
    t.file("/etc/postgresql/15/main/postgresql.conf", "port = 5433\ndata_directory = '/srv/pg'\n");
    t.file("/etc/mongod.conf", "net:\n  port: 27018\n");  // no mongod program: not installed
    t.mkdir("/proc");

    std::vector<IAssetManager::ServiceInfo> out;
    ASSERT_EQ(amsvc::collect_servers(amsvc::HostRoot(t.path).set_fixture_proc(true), out), 0);
    std::vector<std::tuple<uint32_t, uint32_t, std::string, std::string, std::string>> got;
    for (const auto& s : out) got.emplace_back(s.type, s.port, s.name, s.configure_path, s.data_path);
    const decltype(got) want = {
        {6, 3307, "MariaDB", "/etc/mysql/my.cnf", "/srv/db"},
        {8, 6390, "Redis", "/etc/redis/redis.conf", "/var/lib/redis"},
        {7, 5433, "PostgreSQL", "/etc/postgresql/15/main/postgresql.conf", "/srv/pg"},
    };
    EXPECT_EQ(got, want);
    for (const auto& s : out) {
        EXPECT_EQ(s.pid, 0u);
        EXPECT_EQ(s.arch, "x86_64");
    }
}

}  // namespace
