// Instance handles: creation order, no reuse, lookups that leave null entries.
#include <gtest/gtest.h>

#include <cstring>

#include "wrapperVantrelClass.h"

TEST(Registry, HandlesCountUpAndAreNeverReused) {
    const int base = objcount;
    const int a = VantrelObjCreatSelfEncode();
    const int b = VantrelObjCreatSelfEncode();
    EXPECT_EQ(a, base);
    EXPECT_EQ(b, base + 1);
    EXPECT_EQ(VantrelObjRelease(a), 0);
    EXPECT_EQ(VantrelObjCreatSelfEncode(), base + 2);  // a is not handed out again
    EXPECT_EQ(VantrelObjRelease(b), 0);
    EXPECT_EQ(VantrelObjRelease(base + 2), 0);
}

TEST(Registry, ReleaseTwiceGivesZeroThenMinusOne) {
    const int h = VantrelObjCreatSelfEncode();
    EXPECT_EQ(VantrelObjReset(h), 0);
    EXPECT_EQ(VantrelObjRelease(h), 0);
    EXPECT_EQ(VantrelObjRelease(h), -1);
    EXPECT_EQ(VantrelObjReset(h), -1);
}

TEST(Registry, LookupOfUnknownHandleLeavesNullEntry) {
    const int future = objcount + 7;
    const size_t before = VantrelObjCounter.size();
    EXPECT_EQ(VantrelObjReset(future), -1);
    ASSERT_EQ(VantrelObjCounter.count(future), 1u);
    EXPECT_EQ(VantrelObjCounter[future], nullptr);
    EXPECT_EQ(VantrelObjCounter.size(), before + 1);
    EXPECT_EQ(VantrelObjRelease(-3), -1);
    EXPECT_EQ(VantrelObjCounter.count(-3), 1u);
    // Creation still hands out the next counter value, not the probed one.
    const int next = objcount;
    EXPECT_EQ(VantrelObjCreatSelfEncode(), next);
    EXPECT_EQ(VantrelObjRelease(next), 0);
}

TEST(Registry, VersionTextIs26CharactersPlusTerminator) {
    char buf[40];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(GetALGVersion(buf), 26);
    EXPECT_STREQ(buf, "V1.0.0.202600811_X86_WIN64");
    EXPECT_EQ(buf[26], '\0');
    EXPECT_EQ(buf[27], 'x');  // exactly 27 bytes written
}
