#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "fundix/MessageFormatter.h"

using Fundix::MessageFormatter;

namespace {

TEST(MessageFormatterTest, ReplacesNumberedPlaceholdersOnly) {
    EXPECT_EQ(MessageFormatter::Format("%2 before %1", {"one", "two"}), "two before one");
    EXPECT_EQ(MessageFormatter::Format("%1%1", {"ab"}), "abab");
    EXPECT_EQ(MessageFormatter::Format("no placeholders", {"unused"}), "no placeholders");
    // Arguments are inserted verbatim, never rescanned.
    EXPECT_EQ(MessageFormatter::Format("%1 %2", {"%2", "x"}), "%2 x");
    EXPECT_EQ(MessageFormatter::Format("%9", {"1", "2", "3", "4", "5", "6", "7", "8", "nine"}), "nine");
    // Unmatched percent signs are left alone.
    EXPECT_EQ(MessageFormatter::Format("%1 and %3", {"a", "b"}), "a and %3");
    EXPECT_EQ(MessageFormatter::Format("100%% of %1", {"x"}), "100% of x");
    EXPECT_EQ(MessageFormatter::Format("%%1", {"x"}), "%1");
    EXPECT_EQ(MessageFormatter::Format("%0 %x %", {"x"}), "%0 %x %");
    EXPECT_EQ(MessageFormatter::Format("%10", {"a"}), "a0");
    EXPECT_EQ(MessageFormatter::Format("", {}), "");
}

TEST(MessageFormatterTest, FormatValuesConvertsArguments) {
    const std::string name = "rows";
    EXPECT_EQ(MessageFormatter::FormatValues("%1 %2 (%3, %4)", name, -12,
                                             std::uint64_t{18446744073709551615u}, "literal"),
              "rows -12 (18446744073709551615, literal)");
    EXPECT_EQ(MessageFormatter::FormatValues("%1/%2/%3", true, 'c', std::string_view("v")), "true/c/v");
    EXPECT_EQ(MessageFormatter::FormatValues("plain %1"), "plain %1");
}

}  // namespace
