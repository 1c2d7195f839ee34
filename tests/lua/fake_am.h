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
    size_t text_len = 0;  // when set, records carry one text of this length
    bool fail = false;    // throw instead of filling
    bool blank = false;   // system and docker records without version / storage driver
    bool hold = false;    // wait inside the call until release_holds()
};

void set(const std::string& op, const Plan& plan);
int calls(const std::string& op);
size_t size_seen(const std::string& op);  // the list's size when the call came in
void release_holds();
void reset();

}  // namespace fake_am
