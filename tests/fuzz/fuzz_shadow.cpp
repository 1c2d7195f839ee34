// /etc/shadow, with the dates and states derived from it.
#include "fuzz_util.h"
#include "users/user_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const amsvc::users::ShadowEntry& e : amsvc::users::parse_shadow(fuzz::text(data, size))) {
        (void)amsvc::users::last_change_date(e);
        (void)amsvc::users::account_expire_date(e);
        (void)amsvc::users::password_expire_date(e);
        (void)amsvc::users::is_disabled(e, 1700000000);
    }
    return 0;
}
