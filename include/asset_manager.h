// Interface shared between the Lua module and the platform asset service.
//
// The service is a separate shared library that fills these records in place,
// so member order, width and signedness are an ABI: never reorder, never add
// constructors, never change a type. The virtual operations are called through
// the vtable by slot, so their order is an ABI too.
#ifndef ASSETMAN_ASSET_MANAGER_H
#define ASSETMAN_ASSET_MANAGER_H

#include <stdint.h>

#include <string>
#include <vector>

class IAssetManager {
public:
    struct ProcessModuleInfo {
        std::string path;
        std::string md5;
        std::string sha256;
        std::string company;
        bool verified;
    };

    struct ProcessInfo {
        std::string user;
        int32_t pid;
        int32_t ppid;
        std::string stime;
        std::string rtime;
        std::string cmd_line;
        std::string env;
        std::string path;
        std::string name;
        std::string current_dir;
        std::vector<ProcessModuleInfo> modules;
    };

    struct NetLinkInfo {
        std::string proto;
        std::string local_addr;
        int32_t local_port;
        std::string remote_addr;
        int32_t remote_port;
        std::string state;
        int32_t pid;
        std::string proc_name;
        std::string proc_path;
    };

    struct WebSiteInfo {
        std::string ip;
        uint32_t port;
        std::string host;
        std::string document;
        std::string logpath;
    };

    struct ServiceInfo {
        uint32_t pid;
        uint32_t port;
        uint32_t type;
        std::string name;
        std::string arch;
        std::string version;
        std::string install_path;
        std::string process_path;
        std::string configure_path;
        std::string exec_env;
        std::string command;
        std::string exec_user;
        std::string data_path;
        std::string log_path;
        std::string desc;
        std::string current_dir;
        std::vector<WebSiteInfo> hosts;
        std::string srv_name;
        std::string reserve;
    };

    struct UserInfo {
        std::string name;
        std::string uid;
        std::string gid;
        std::string groupname;
        std::string comment;
        std::string homedir;
        std::string shell;
        bool is_admin;
        bool is_disable;
        std::string last_change_passwd;
        std::string account_expire;
        std::string passwd_expire;
        std::string last_login_time;
        std::string last_login_term;
        std::string last_login_ip;
    };

    struct SysInstallPackageInfo {
        std::string name;
        std::string version;
        std::string release;
        std::string installtime;
        std::string type;
        uint64_t size;
        std::string summary;
        std::string source;
        std::string installdir;
        std::string company;
    };

    struct AutoRunServInfo {
        std::string name;
        std::string script_path;
        std::string level;
        std::string comment;
        std::string status;
        std::string md5;
        std::string sha256;
        std::string company;
        bool verified;
    };

    struct CronInfo {
        std::string user;
        std::string cmd_line;
        std::string timer;
        std::string name;
        std::string comment;
        std::string file;
    };

    struct SysLoadModuleInfo {
        std::string name;
        std::string size;
        std::string load_addr;
        std::string path;
        std::string md5;
        std::string sha256;
        std::string used;
        std::string by;
        std::string company;
        bool verified;
    };

    struct RegAutoStartInfo {
        std::string name;
        std::string cmd_line;
        std::string company;
        bool verified;
        std::string md5;
        std::string sha256;
    };

    struct ThirdPartDevLibInfo {
        std::string name;
        std::string version;
        std::string path;
    };

    struct NetworkCardInfo {
        std::string name;
        std::string ipv4;
        std::string ipv6;
        std::string mac;
        std::string gateway;
        std::string mask;
        std::string broad;
        int32_t mtu;
    };

    struct DiskInfo {
        std::string name;
        std::string desc;
        std::string fs;
        int64_t size;
        int64_t free;
        double percent;
    };

    struct NetShareInfo {
        std::string name;
        std::string path;
        int32_t max_conn;
        int32_t cur_conn;
    };

    struct SystemInfo {
        std::string host;
        std::string version;
        std::string kernel_version;
        std::string arch;
        bool b64;
        std::string Manufacturer;
        std::string product;
        std::string Serial;
        std::string mem;
        std::string cpu;
        std::vector<std::string> envs;
        std::vector<NetworkCardInfo> network_card;
        std::vector<DiskInfo> disk;
        std::vector<NetShareInfo> net_share;
    };

    struct DockerInfo {
        std::string storage_driver;
        std::string root_dir;
        std::string version;
        std::string image_num;
        std::string container_num;
        std::string images;
        std::string containers;
    };

    // Slots 1 and 2 (complete and deleting destructor); the module never uses them.
    virtual ~IAssetManager() {}
    virtual int32_t init() = 0;
    virtual int32_t release() = 0;
    virtual int32_t collect_process(std::vector<ProcessInfo>& list) = 0;
    virtual int32_t collect_netlink(std::vector<NetLinkInfo>& list) = 0;
    virtual int32_t collect_service(std::vector<ServiceInfo>& list) = 0;
    virtual int32_t collect_user(std::vector<UserInfo>& list) = 0;
    virtual int32_t collect_sys_install_package(std::vector<SysInstallPackageInfo>& list) = 0;
    virtual int32_t collect_auto_run_serv(std::vector<AutoRunServInfo>& list) = 0;
    virtual int32_t collect_cron(std::vector<CronInfo>& list) = 0;
    virtual int32_t collect_sys_module(std::vector<SysLoadModuleInfo>& list) = 0;
    virtual int32_t collect_system(SystemInfo* info) = 0;
    virtual int32_t collect_thirdpart_dev_lib(std::vector<ThirdPartDevLibInfo>& list) = 0;
    virtual int32_t collect_docker(DockerInfo& info) = 0;
};

// The process-wide service; valid for the life of the process. Never deleted.
extern "C" IAssetManager* get_am_instance();

namespace assetman {
typedef IAssetManager::ProcessInfo ProcessInfo;
typedef IAssetManager::ProcessModuleInfo ProcessModuleInfo;
typedef IAssetManager::NetLinkInfo NetLinkInfo;
typedef IAssetManager::ServiceInfo ServiceInfo;
typedef IAssetManager::WebSiteInfo WebSiteInfo;
typedef IAssetManager::UserInfo UserInfo;
typedef IAssetManager::SysInstallPackageInfo SysInstallPackageInfo;
typedef IAssetManager::AutoRunServInfo AutoRunServInfo;
typedef IAssetManager::CronInfo CronInfo;
typedef IAssetManager::SysLoadModuleInfo SysLoadModuleInfo;
typedef IAssetManager::RegAutoStartInfo RegAutoStartInfo;
typedef IAssetManager::ThirdPartDevLibInfo ThirdPartDevLibInfo;
typedef IAssetManager::SystemInfo SystemInfo;
typedef IAssetManager::NetworkCardInfo NetworkCardInfo;
typedef IAssetManager::DiskInfo DiskInfo;
typedef IAssetManager::NetShareInfo NetShareInfo;
typedef IAssetManager::DockerInfo DockerInfo;
}  // namespace assetman

#endif
