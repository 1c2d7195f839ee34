// A counting stand-in for the asset service. The Lua tests preload it as a
// library and drive it through luaopen_fake_am; the facade tests link it in
// and drive it through these functions. Operations are named by kind
// ("process", "system", "init", ...).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace fake_am {

// What the next calls of an operation do.
struct Plan {
    int32_t code = 0;
    size_t records = 1;
    bool hold = false;    // wait inside the call until release_holds()
    bool blank = false;   // system and docker records without version / storage driver
    bool fail = false;    // throw instead of filling
    size_t text_len = 0;  // when set, records carry one text of this length
};

void set(const std::string& op, const Plan& plan);
int calls(const std::string& op);
// The list's size when the last call came in; for system, 1 when a record came and 0 for none.
size_t size_seen(const std::string& op);
void release_holds();
void reset();

}  // namespace fake_am
