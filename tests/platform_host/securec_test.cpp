// The bounds-checked memory functions: results, and what is left of the destination.
#include "platform/securec.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

// A destination of 4 bytes "d", followed by 4 guard bytes "g" that no call may change.
const std::string FRESH = "ddddgggg";

TEST(SecurecTest, NothingIsWrittenPastTheDestination) {
    std::string to = FRESH;
    EXPECT_EQ(memcpy_s(to.data(), 4, "wxyz", 4), 0);
    EXPECT_NE(memcpy_s(to.data(), SIZE_MAX, "abc", 3), 0);
    EXPECT_NE(memcpy_s(nullptr, 4, "abc", 3), 0);
    EXPECT_EQ(to, "wxyzgggg");
    EXPECT_NE(memcpy_s(to.data(), 4, "abcde", 5), 0);
    EXPECT_EQ(to, std::string(4, '\0') + "gggg");
    EXPECT_EQ(memset_s(to.data(), 4, 'x', 2), 0);
    EXPECT_NE(memset_s(to.data(), SIZE_MAX, 'z', 1), 0);
    EXPECT_EQ(to, std::string("xx\0\0gggg", 8));
    EXPECT_NE(memset_s(to.data(), 4, 'y', 5), 0);
    EXPECT_EQ(to, "yyyygggg");
}

TEST(SecurecTest, StrncpyEndsWithNulOrIsEmpty) {
    const char open[3] = {'a', 'b', 'c'};  // without a NUL: no further character may be read
    // The destination's size, the source, the count, and the 4 bytes: "d" is one not written.
    const std::tuple<size_t, const char*, size_t, std::string> cases[] = {
        {4, open, 3, std::string("abc\0", 4)},    {4, "abcdef", 3, std::string("abc\0", 4)},
        {4, "abcd", 4, std::string("\0ddd", 4)},  {2, "ab", 2, std::string("\0ddd", 4)},
        {4, nullptr, 3, std::string("\0ddd", 4)}, {0, "abc", 3, "dddd"},
    };
    for (const auto& [size, source, count, result] : cases) {
        std::string to = FRESH;
        EXPECT_EQ(strncpy_s(to.data(), size, source, count) == 0, result.starts_with("abc"));
        EXPECT_EQ(to, result + "gggg") << size << " " << count;
    }
}

}  // namespace
