// Text parsers behind the auto-start collector: what a unit file (with its
// drop-ins), an init script's LSB header and an XDG autostart entry say.
#ifndef ASSETMAN_SERVICE_AUTORUN_PARSE_H
#define ASSETMAN_SERVICE_AUTORUN_PARSE_H

#include <string>
#include <string_view>
#include <vector>

#include "schedule/unit_file.h"

namespace amsvc {

struct UnitFile {
    std::string description;
    std::string exec_start;  // first ExecStart= value after the last reset, as written
    std::vector<std::string> wanted_by, required_by, upheld_by, aliases, also;
    std::string default_instance;
    bool has_install_rules() const {
        return !wanted_by.empty() || !required_by.empty() || !upheld_by.empty() || !aliases.empty();
    }
};
// The fields of a parsed unit (its file and, when applied, its drop-ins).
UnitFile unit_file_from(const UnitKeys& keys);
UnitFile parse_unit_file(std::string_view text);

// The program an ExecStart= value runs: the first word with its "-@:+!"
// prefixes removed (quotes honoured). Empty when there is none.
std::string exec_program(std::string_view exec_start);

struct LsbHeader {
    std::string short_description;
    std::string default_start;  // runlevels as written, "2 3 4 5"
};
LsbHeader parse_lsb_header(std::string_view script);

struct DesktopEntry {
    std::string name, exec, comment;
    bool hidden = false;            // Hidden=true
    bool autostart_enabled = true;  // X-GNOME-Autostart-enabled
    std::string only_show_in;
};
DesktopEntry parse_desktop_entry(std::string_view text);

}  // namespace amsvc

#endif
