#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "fundix/Exception.h"
#include "fundix/Functor.h"
#include "fundix/MessageFormatter.h"
#include "fundix/PanicAssert.h"

using namespace Fundix;

namespace {

TEST(ExceptionTest, MessagesAndDetails) {
    TypeMismatchException mismatch("int32", "string");
    EXPECT_STREQ(mismatch.what(), "type mismatch: expected int32, received string");
    EXPECT_EQ(mismatch.GetExpected(), "int32");
    EXPECT_EQ(mismatch.GetReceived(), "string");

    std::ostringstream out;
    InvalidArgumentException("bad size").Dump(out);
    EXPECT_EQ(out.str(), "bad size\n");
    EXPECT_THROW(throw InvalidArgumentException("x"), Throwable);
    EXPECT_THROW(throw TypeMismatchException("a", "b"), std::exception);
}

TEST(ExceptionTest, CloneAndThrowKeepMostDerivedType) {
    std::unique_ptr<Exception> stored;
    try {
        throw TypeMismatchException("bool", "double");
    } catch (const Exception& e) {
        stored.reset(e.Clone());
    }
    try {
        stored->Throw();
    } catch (const TypeMismatchException& e) {
        EXPECT_EQ(e.GetMessage(), "type mismatch: expected bool, received double");
    }

    std::unique_ptr<Exception> invalid(InvalidArgumentException("nope").Clone());
    EXPECT_THROW(invalid->Throw(), InvalidArgumentException);
    std::unique_ptr<Exception> plain(Exception("plain").Clone());
    EXPECT_THROW(plain->Throw(), Exception);
}

TEST(FunctorTest, CallsWrappedCallableOrThrowsWhenEmpty) {
    Functor<int(int, int)> add = [](int a, int b) { return a + b; };
    ASSERT_TRUE(add);
    EXPECT_EQ(add(2, 3), 5);
    Functor<void(std::unique_ptr<int>)> sink = [](std::unique_ptr<int> p) { EXPECT_EQ(*p, 4); };
    sink(std::make_unique<int>(4));

    Functor<void()> empty;
    Functor<void()> copyOfEmpty = empty;
    EXPECT_FALSE(copyOfEmpty);
    try {
        copyOfEmpty();
        FAIL() << "expected an exception";
    } catch (const InvalidArgumentException& e) {
        EXPECT_EQ(e.GetMessage(), "empty functor");
    }
}

TEST(PanicAssertDeathTest, WritesOneLineAndAborts) {
    // Other suites start threads; re-executing the binary for the death test keeps that safe.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Fundix::PanicAssert("x > 0", "src/thing.cpp", 42),
                 "^panic: x > 0 \\(src/thing\\.cpp:42\\)\n$");

    int items = 2;
    FUNDIX_ASSERT(items == 2);
    EXPECT_DEATH(FUNDIX_ASSERT(items == 3), "panic: items == 3 \\(.*ExceptionTest\\.cpp:[0-9]+\\)");
}

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
