// sudoers: aliases, user rules, include directives (each include
// feeds the same text back once more, as a nested file would).
#include "fuzz_util.h"
#include "users/user_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    amsvc::users::SudoersParser p;
    int depth = 0;
    std::function<void(const std::string&, bool)> include = [&](const std::string& path, bool is_dir) {
        if (is_dir) {
            (void)amsvc::users::sudoers_dir_files({path, path + "~", "a.b"});
            return;
        }
        if (depth < 2) {
            ++depth;
            p.parse(t, include);
            --depth;
        }
    };
    p.parse(t, include);
    return 0;
}
