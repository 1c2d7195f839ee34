// Conversions of Lua numbers (doubles) to the integer members of the records.
//
// A plain cast of an out-of-range double or NaN to an integer is undefined
// behaviour in C++, so every conversion checks the range first. Values are
// truncated toward zero; anything outside the signed range of the width (and
// NaN) becomes the lowest value of that width, which is what the x86 truncating
// conversion yields and what scripts written against this module expect.
#ifndef ASSETMAN_MODULE_LUA_NUMBER_H
#define ASSETMAN_MODULE_LUA_NUMBER_H

#include <stdint.h>

#include <limits>

namespace assetman {
namespace luanum {

// Signed 32-bit: valid when the truncated value lies in [-2^31, 2^31).
inline int32_t to_int32(double v) {
    if (!(v > -2147483649.0 && v < 2147483648.0)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

// Signed 64-bit: -2^63 is exact and the next double below it is far below,
// so the valid range is [-2^63, 2^63).
inline int64_t to_int64(double v) {
    if (!(v >= -9223372036854775808.0 && v < 9223372036854775808.0))
        return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(v);
}

// Unsigned 32-bit members are written through the signed 32-bit conversion
// and keep its bit pattern (-1 becomes 4294967295).
inline uint32_t to_uint32_via_int32(double v) { return static_cast<uint32_t>(to_int32(v)); }

// The one unsigned 64-bit member is written through the signed 32-bit
// conversion and sign-extended (-1 becomes 2^64 - 1).
inline uint64_t to_uint64_via_int32(double v) {
    return static_cast<uint64_t>(static_cast<int64_t>(to_int32(v)));
}

// A list's element count as the signed 32-bit number that Lua is given
// (wraps modulo 2^32 like the conversion it stands for).
inline int32_t count_to_int32(uint64_t n) {
    const uint32_t low = static_cast<uint32_t>(n);
    return low <= 0x7fffffffu ? static_cast<int32_t>(low)
                              : static_cast<int32_t>(static_cast<int64_t>(low) - 4294967296LL);
}

}  // namespace luanum
}  // namespace assetman

#endif
