// Crontabs (system and user) and anacrontab.
#include "fuzz_util.h"
#include "schedule/cron_parse.h"

using namespace amsvc::cron;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    std::vector<CronInfo> jobs;
    parse_crontab(t, true, "", "/etc/crontab", jobs);
    parse_crontab(t, false, "alice", "/var/spool/cron/crontabs/alice", jobs);
    parse_anacrontab(t, "/etc/anacrontab", jobs);
    for (const CronInfo& j : jobs)
        if (j.cmd_line.empty()) __builtin_trap();
    (void)program_name(t);
    (void)run_parts_name(t);
    return 0;
}
