// Wildcard matching of listing patterns: "*" and "?" only, tail first, then a greedy front pass
// that never backtracks.
#include "files/entries.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "base/ftpd.h"

namespace {

TEST(MatchTest, TailDecidesWithoutStarAndTheFrontPassIsGreedy) {
    // "aXa1c": a full glob accepts it, but the first "a" is taken and "X" then fails "?c". "*a" against
    // "a": the tail pass uses up the name while "*" is left over.
    const std::tuple<const char *, const char *, int> cases[] = {
        {"abc", "abc", 1}, {"abc", "abd", 0},        {"abc", "a?c", 1},   {"ac", "a?c", 0},      {"xabc", "abc", 0},
        {"abc", "bc", 0},  {"ab", "ab?", 0},         {"", "*", 0},        {"a", "", 0},          {"a.txt", "*.txt", 1},
        {"abc", "b*", 0},  {"abbbc", "a*c", 1},      {"ac", "a*c", 1},    {"abc", "*b*", 1},     {"abc", "*x*", 0},
        {"ab", "a?*", 1},  {"a", "a?*", 0},          {"a1c", "*a?c*", 1}, {"aXa1c", "*a?c*", 0}, {"a", "*a", 0},
        {"ba", "*a", 1},   {"a.txt.bak", "*.txt", 0}};
    for (const auto &[name, pattern, expected] : cases)
        EXPECT_EQ(ftpd_is_match(name, pattern), expected) << name << " vs " << pattern;
}

TEST(MatchTest, InputsAreCutAt255Characters) {
    std::string name = std::string(299, 'a') + "b";
    EXPECT_EQ(ftpd_is_match(name.c_str(), "*b"), 0);
    EXPECT_EQ(ftpd_is_match(name.c_str(), std::string(255, 'a').c_str()), 1);
}

}  // namespace
