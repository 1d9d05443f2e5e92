#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>

#include "fundix/Exception.h"
#include "fundix/Optional.h"

using Fundix::InvalidArgumentException;
using Fundix::Optional;

namespace {

TEST(OptionalTest, SetUnsetAndEquality) {
    Optional<int> value;
    EXPECT_FALSE(value.IsSet());
    EXPECT_THROW(*std::as_const(value), InvalidArgumentException);

    value = 0;  // zero is a real value, not "unset"
    EXPECT_TRUE(value.IsSet());
    value.GetValue() = 4;
    EXPECT_EQ(*value, 4);
    EXPECT_TRUE(value == 4);
    EXPECT_TRUE(4 == value);

    Optional<int> unset;
    EXPECT_NE(value, unset);
    EXPECT_NE(unset, Optional<int>(0));
    EXPECT_FALSE(unset == 0);
    value.Unset();
    EXPECT_EQ(value, unset);
    EXPECT_THROW(value.GetValue(), InvalidArgumentException);
}

TEST(OptionalStringTest, CopiesAreIndependent) {
    Optional<std::string> original = "alpha";
    Optional<std::string> copy = original;
    ASSERT_NE(copy.GetPtr(), nullptr);
    EXPECT_NE(copy.GetPtr(), original.GetPtr());
    copy->append("-beta");
    EXPECT_EQ(*original, "alpha");

    Optional<std::string> assigned;
    assigned = original;
    EXPECT_NE(assigned.GetPtr(), original.GetPtr());
    EXPECT_EQ(assigned, original);
    assigned = Optional<std::string>();
    EXPECT_FALSE(assigned.IsSet());
    EXPECT_TRUE(original.IsSet());

    Optional<std::string> moved = std::move(copy);
    EXPECT_EQ(moved, "alpha-beta");
    EXPECT_FALSE(copy.IsSet());
}

TEST(OptionalStringTest, UnsetAndEmptyDiffer) {
    Optional<std::string> unset;
    EXPECT_EQ(unset.GetPtr(), nullptr);
    EXPECT_THROW(unset.GetValue(), InvalidArgumentException);
    EXPECT_FALSE(Optional<std::string>(static_cast<const char*>(nullptr)).IsSet());

    Optional<std::string> empty = std::string();
    EXPECT_TRUE(empty.IsSet());
    EXPECT_NE(unset, empty);
    EXPECT_TRUE(empty == "");
    EXPECT_FALSE(unset == "");
    EXPECT_FALSE(unset == std::string());
    EXPECT_TRUE(Optional<std::string>("word") == std::string("word"));
    EXPECT_FALSE(Optional<std::string>("word") == "other");
    empty.Unset();
    EXPECT_EQ(empty.GetPtr(), nullptr);
}

// A pointer (a string literal above all) never becomes a bool, and nothing narrows without a cast;
// conversions that lose nothing still work.
static_assert(!std::is_constructible_v<Fundix::Optional<bool>, const char*>);
static_assert(!std::is_constructible_v<Fundix::Optional<bool>, const char (&)[6]>);
static_assert(!std::is_convertible_v<const char*, Fundix::Optional<bool>>);
static_assert(!std::is_assignable_v<Fundix::Optional<bool>&, const char*>);
static_assert(!std::is_constructible_v<Fundix::Optional<bool>, int*>);
static_assert(!std::is_constructible_v<Fundix::Optional<bool>, int>);
static_assert(!std::is_constructible_v<Fundix::Optional<int32_t>, int64_t>);
static_assert(!std::is_constructible_v<Fundix::Optional<int32_t>, double>);
static_assert(!std::is_constructible_v<Fundix::Optional<int16_t>, int32_t>);
static_assert(!std::is_assignable_v<Fundix::Optional<int32_t>&, int64_t>);
static_assert(!std::is_constructible_v<Fundix::Optional<float>, double>);
static_assert(std::is_convertible_v<bool, Fundix::Optional<bool>>);
static_assert(std::is_convertible_v<int32_t, Fundix::Optional<int64_t>>);
static_assert(std::is_convertible_v<int16_t, Fundix::Optional<int32_t>>);
static_assert(std::is_convertible_v<float, Fundix::Optional<double>>);
static_assert(std::is_assignable_v<Fundix::Optional<int64_t>&, int32_t>);

TEST(OptionalTest, ConvertsOnlyWithoutLoss) {
    Fundix::Optional<bool> verify = false;
    EXPECT_TRUE(verify.IsSet());
    EXPECT_FALSE(verify.GetValue());
    Fundix::Optional<int64_t> wide = int32_t{-7};
    EXPECT_EQ(wide.GetValue(), -7);
    wide = int16_t{5};
    EXPECT_EQ(wide.GetValue(), 5);
}

}  // namespace
