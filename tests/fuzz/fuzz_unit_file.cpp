// systemd unit files and drop-ins (a second half of the input is applied as a
// drop-in), as both the cron and the auto-start kinds read them; init-script
// LSB headers and XDG autostart entries.
#include "fuzz_util.h"
#include "schedule/autorun_parse.h"
#include "schedule/cron_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    const size_t cut = t.find("\n%%\n");
    amsvc::UnitKeys keys;
    amsvc::parse_unit(t.substr(0, cut), keys);
    if (cut != std::string_view::npos) amsvc::parse_unit(t.substr(cut + 4), keys);
    const amsvc::UnitFile u = amsvc::unit_file_from(keys);
    (void)amsvc::exec_program(u.exec_start);
    (void)amsvc::cron::timer_schedule(keys);
    (void)amsvc::cron::service_command(keys);
    (void)amsvc::dropin_names(std::string(t.substr(0, t.find('\n'))));
    (void)amsvc::parse_lsb_header(t);
    (void)amsvc::parse_desktop_entry(t);
    return 0;
}
