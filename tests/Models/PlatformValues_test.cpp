// The value types records hand to the location service, and the test clock.

#include <gtest/gtest.h>

#include <thread>
#include <unordered_set>

#include "quorvel/Platform/Clock.h"
#include "quorvel/Platform/Uuid.h"

namespace {

TEST(UuidTest, ParsesTheStandardFormInEitherCase) {
  auto upper = qvl::Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  auto lower = qvl::Uuid::parse("e2c56db5-dffb-48d2-b060-d0f5a71096e0");
  ASSERT_TRUE(upper);
  ASSERT_TRUE(lower);
  EXPECT_EQ(*upper, *lower);
  EXPECT_EQ(lower->toString(), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  EXPECT_EQ(upper->bytes()[0], 0xE2);
  EXPECT_EQ(upper->bytes()[15], 0xE0);
  EXPECT_NE(*upper, *qvl::Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E1"));
  EXPECT_EQ(std::hash<qvl::Uuid>{}(*upper), std::hash<qvl::Uuid>{}(*lower));
  EXPECT_EQ(qvl::Uuid().toString(), "00000000-0000-0000-0000-000000000000");
}

TEST(UuidTest, RejectsEverythingElse) {
  for (const char* text : {
           "",
           "E2C56DB5DFFB48D2B060D0F5A71096E0",        // no hyphens
           "E2C56DB5-DFFB-48D2-B060-D0F5A71096E",     // short
           "E2C56DB5-DFFB-48D2-B060-D0F5A71096E00",   // long
           "E2C56DB-5DFFB-48D2-B060-D0F5A71096E0",    // hyphen misplaced
           "G2C56DB5-DFFB-48D2-B060-D0F5A71096E0",    // not hex
           " E2C56DB5-DFFB-48D2-B060-D0F5A71096E",    // blank
           "{E2C56DB5-DFFB-48D2-B060-D0F5A71096E0}",  // braces
       }) {
    EXPECT_FALSE(qvl::Uuid::parse(text)) << text;
  }
}

}  // namespace
