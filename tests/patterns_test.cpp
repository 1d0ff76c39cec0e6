// Names and patterns as users give them.
#include "host/patterns.h"

#include <gtest/gtest.h>

namespace {

using dolm::fits;
using dolm::names_meant;
using Names = std::vector<std::string>;

TEST(Patterns, FitWholeNamesWithAndWithoutHome) {
    for (const char *pattern :
         {"net/*", "/home/net/*", "*", "*hostname", "n?t/host*e", "*/*/*", "net/hostname*",
          "net/h*t*m*", "[m-o]et/hostname", "[!x]et/*", "net[/]hostname", "**name**"}) {
        EXPECT_TRUE(fits(pattern, "/home/net/hostname")) << pattern;
    }
    for (const char *pattern : {"", "net", "net/?", "et/*", "hostname", "NET/*", "/home/home/*",
                                "[!n]et/*", "[a-m]et/*", "net/hostname?", "*hostnam", "[net/*"}) {
        EXPECT_FALSE(fits(pattern, "/home/net/hostname")) << pattern;
    }
    EXPECT_TRUE(fits("*", "/home/"));
    EXPECT_TRUE(fits("[]-]\xff[\x80-\xfe]", "]\xff\xa0"));
    EXPECT_TRUE(fits("[a-]", "-"));
    EXPECT_FALSE(fits("[b-a]", "a"));
    EXPECT_TRUE(fits("a[", "a["));
}

TEST(Patterns, MeanEachNameOnceInTheOrderOfTheWords) {
    const Names names = {"/home/a/1", "/home/a/2", "/home/b[1]", "/home/b1", "/other/c"};
    const auto meant =
        names_meant({"b[1]", "x", "a/2", "a/*", "/home/a/1", "y*", "/other/c", "[b]1"}, names);
    EXPECT_EQ(meant.names, (Names{"/home/b[1]", "/home/a/2", "/home/a/1", "/other/c", "/home/b1"}));
    EXPECT_EQ(meant.unknown, (Names{"x", "y*"}));
}

} // namespace
