// Conversions of Lua numbers to record members, at the edges of each width.
// Run under UBSan: a plain cast of these values would be undefined.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "lua_number.h"

using namespace assetman::luanum;

namespace {
const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double k2p31 = 2147483648.0;
const double k2p63 = 9223372036854775808.0;
const int32_t kMin32 = std::numeric_limits<int32_t>::min();
const int64_t kMin64 = std::numeric_limits<int64_t>::min();
}  // namespace

TEST(LuaNumber, Int32TruncatesTowardZeroInsideTheRange) {
    EXPECT_EQ(to_int32(1.9), 1);
    EXPECT_EQ(to_int32(-1.9), -1);
    EXPECT_EQ(to_int32(-0.5), 0);
    EXPECT_EQ(to_int32(-0.0), 0);
    EXPECT_EQ(to_int32(k2p31 - 1), 2147483647);
    EXPECT_EQ(to_int32(k2p31 - 0.5), 2147483647);
    EXPECT_EQ(to_int32(-k2p31), kMin32);
    EXPECT_EQ(to_int32(-k2p31 - 0.5), kMin32);  // truncates to -2^31, which fits
}

TEST(LuaNumber, Int32OutOfRangeAndNaNGiveTheLowestValue) {
    for (double v : {k2p31, k2p31 + 0.5, -k2p31 - 1, 1e300, -1e300, kInf, -kInf, kNaN, k2p63})
        EXPECT_EQ(to_int32(v), kMin32) << v;
}

TEST(LuaNumber, Int64TruncatesAndSaturatesLow) {
    EXPECT_EQ(to_int64(3e9), 3000000000LL);
    EXPECT_EQ(to_int64(-1.9), -1);
    EXPECT_EQ(to_int64(9007199254740993.0), 9007199254740992LL);  // nearest double of 2^53+1
    EXPECT_EQ(to_int64(-k2p63), kMin64);
    EXPECT_EQ(to_int64(std::nextafter(k2p63, 0.0)), 9223372036854774784LL);
    for (double v : {k2p63, -k2p63 * 2, kInf, -kInf, kNaN}) EXPECT_EQ(to_int64(v), kMin64) << v;
}

TEST(LuaNumber, Unsigned32IsWrittenThroughSigned32) {
    EXPECT_EQ(to_uint32_via_int32(-1), 4294967295u);
    EXPECT_EQ(to_uint32_via_int32(3e9), 2147483648u);
    EXPECT_EQ(to_uint32_via_int32(k2p31 - 1), 2147483647u);
    EXPECT_EQ(to_uint32_via_int32(80.7), 80u);
    EXPECT_EQ(to_uint32_via_int32(kNaN), 2147483648u);
}

TEST(LuaNumber, Unsigned64IsWrittenThroughSigned32AndSignExtended) {
    EXPECT_EQ(to_uint64_via_int32(3e9), 18446744071562067968ULL);
    EXPECT_EQ(to_uint64_via_int32(-1), 18446744073709551615ULL);
    EXPECT_EQ(to_uint64_via_int32(4096.5), 4096u);
    EXPECT_EQ(to_uint64_via_int32(5e9), 18446744071562067968ULL);  // beyond 32 bits: lowest value
    EXPECT_EQ(to_uint64_via_int32(-kInf), 18446744071562067968ULL);
}

TEST(LuaNumber, ElementCountWrapsToSigned32) {
    EXPECT_EQ(count_to_int32(0), 0);
    EXPECT_EQ(count_to_int32(2147483647u), 2147483647);
    EXPECT_EQ(count_to_int32(2147483648u), kMin32);
    EXPECT_EQ(count_to_int32(4294967295u), -1);
    EXPECT_EQ(count_to_int32(4294967296ULL + 5), 5);
}
