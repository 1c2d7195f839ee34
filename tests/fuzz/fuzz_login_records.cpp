// lastlog records and wtmp.
#include "fuzz_util.h"
#include "users/user_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view t = fuzz::text(data, size);
    amsvc::users::LoginRecord r;
    if (size >= amsvc::users::kLastlogRecordSize)
        amsvc::users::parse_lastlog_record(t.substr(0, amsvc::users::kLastlogRecordSize), r);
    (void)amsvc::users::parse_wtmp(t.substr(0, t.size() - t.size() % amsvc::users::kUtmpRecordSize));
    return 0;
}
