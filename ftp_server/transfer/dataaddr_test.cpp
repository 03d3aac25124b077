// The decimal field rule behind the data-address commands: at most four characters, and a
// skipped non-digit still takes its place.
#include <gtest/gtest.h>

#include "base/ftpd.h"
#include "transfer/transfer.h"

namespace {

TEST(Toint, AtMostFourCharactersAndSkippedNonDigitsKeepTheirPlace) {
    EXPECT_EQ(toint("", 0), -1);
    EXPECT_EQ(toint("0010", 1), 10);
    EXPECT_EQ(toint("9999", 1), 9999);
    EXPECT_EQ(toint("00010", 0), -1);
    EXPECT_EQ(toint("1x2", 0), 102);
    EXPECT_EQ(toint("12 ", 0), 120);
    EXPECT_EQ(toint("1x2", 1), -1);
}

}  // namespace
