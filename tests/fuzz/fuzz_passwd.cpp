// /etc/passwd
#include "fuzz_util.h"
#include "users/user_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const amsvc::users::PasswdEntry& e : amsvc::users::parse_passwd(fuzz::text(data, size))) {
        if (e.name.empty()) __builtin_trap();
        (void)amsvc::users::canon_id(e.uid);
    }
    return 0;
}
