// Pure parsers behind collect_crons: crontab and anacrontab text, run-parts
// names, and what a timer's unit files say. Text in, CronInfo records out.
#ifndef ASSETMAN_SERVICE_CRON_PARSE_H
#define ASSETMAN_SERVICE_CRON_PARSE_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "asset_manager.h"
#include "schedule/unit_file.h"

namespace amsvc {
namespace cron {

typedef IAssetManager::CronInfo CronInfo;

// Longest crontab line taken; longer lines are skipped as cron would not
// run them sensibly either.
constexpr size_t kMaxLine = 64u << 10;

// One crontab. A system crontab (/etc/crontab, /etc/cron.d/*) has a user
// column; a user crontab runs as `user` (its file name). Appends to `out`.
void parse_crontab(std::string_view text, bool system_table, const std::string& user, const std::string& file,
                   std::vector<CronInfo>& out);

// /etc/anacrontab: "period delay job-id command"; jobs run as root.
void parse_anacrontab(std::string_view text, const std::string& file, std::vector<CronInfo>& out);

// Basename of the program a command line starts (leading VAR=value words
// skipped), or empty.
std::string program_name(std::string_view cmd);

// run-parts' default naming rule: only [A-Za-z0-9_-], non-empty.
bool run_parts_name(std::string_view name);

// Unit files are parsed by the shared parser (unit_file.h).
using amsvc::parse_unit;
using amsvc::UnitKeys;

// The schedule of a timer unit: its OnCalendar= values joined with "; ", or
// else its monotonic settings as "OnBootSec=15min; OnUnitActiveSec=1d".
std::string timer_schedule(const UnitKeys& timer);

// A service's ExecStart= lines joined with "; ", without the '-', '+', '!'
// and ':' prefixes.
std::string service_command(const UnitKeys& service);

}  // namespace cron
}  // namespace amsvc

#endif
