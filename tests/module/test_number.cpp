// Conversions of Lua numbers to record members, at the edges of each width.
// Run under UBSan: a plain cast of these values would be undefined. Which
// conversion each field uses is checked from Lua (fields_spec.lua).
#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <limits>
#include <utility>

#include "lua_number.h"

using namespace assetman::luanum;

namespace {
const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double k2p31 = 2147483648.0, k2p63 = 9223372036854775808.0;
const int32_t kMin32 = std::numeric_limits<int32_t>::min();
const int64_t kMin64 = std::numeric_limits<int64_t>::min();
const uint64_t kLow64 = 18446744071562067968ULL;  // the lowest int32, sign-extended

template <class F, class In, class Out, size_t N>
void check(F f, const std::pair<In, Out> (&cases)[N]) {
    for (const auto& c : cases) EXPECT_EQ(f(c.first), c.second) << c.first;
}
}  // namespace

// Inside the range: truncation toward zero. Outside it and NaN: the lowest value.
// The unsigned members are written through a signed 32-bit value.
TEST(LuaNumber, ConversionsAtTheEdgesOfEachWidth) {
    // clang-format off
    const std::pair<double, int32_t> i32[] = {
        {1.9, 1}, {-1.9, -1}, {-0.5, 0}, {-0.0, 0}, {k2p31 - 1, 2147483647}, {k2p31 - 0.5, 2147483647},
        {-k2p31, kMin32}, {-k2p31 - 0.5, kMin32}, {k2p31, kMin32}, {k2p31 + 0.5, kMin32}, {-k2p31 - 1, kMin32},
        {1e300, kMin32}, {-1e300, kMin32}, {kInf, kMin32}, {-kInf, kMin32}, {kNaN, kMin32}, {k2p63, kMin32}};
    const std::pair<double, int64_t> i64[] = {
        {3e9, 3000000000LL}, {-1.9, -1}, {9007199254740993.0, 9007199254740992LL}, {-k2p63, kMin64},
        {std::nextafter(k2p63, 0.0), 9223372036854774784LL}, {k2p63, kMin64}, {-k2p63 * 2, kMin64},
        {kInf, kMin64}, {-kInf, kMin64}, {kNaN, kMin64}};
    const std::pair<double, uint32_t> u32[] = {
        {-1, 4294967295u}, {3e9, 2147483648u}, {k2p31 - 1, 2147483647u}, {80.7, 80u}, {kNaN, 2147483648u}};
    const std::pair<double, uint64_t> u64[] = {
        {3e9, kLow64}, {-1, 18446744073709551615ULL}, {4096.5, 4096u}, {5e9, kLow64}, {-kInf, kLow64}};
    const std::pair<uint64_t, int32_t> counts[] = {
        {0, 0}, {2147483647u, 2147483647}, {2147483648u, kMin32}, {4294967295u, -1}, {4294967296ULL + 5, 5}};
    // clang-format on
    check(to_int32, i32);
    check(to_int64, i64);
    check(to_uint32_via_int32, u32);
    check(to_uint64_via_int32, u64);
    check(count_to_int32, counts);
}
