#include "platform/Error.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace vm {
namespace {

bool FailingOperation(ErrorRef* error) {
  return Fail(error, Error::WithDescription("test", 7, "broken"));
}

bool SucceedingOperation(ErrorRef* /*error*/) { return true; }

TEST(ErrorTest, OutPointerIsWrittenOnlyOnFailureAndOnlyWhenGiven) {
  EXPECT_FALSE(FailingOperation(nullptr));  // A null out-pointer is never touched.

  ErrorRef error;
  EXPECT_FALSE(FailingOperation(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "test");
  EXPECT_EQ(error->code(), 7);
  EXPECT_EQ(error->localizedDescription(), "broken");

  ErrorRef untouched = error;
  EXPECT_TRUE(SucceedingOperation(&untouched));
  EXPECT_EQ(untouched, error);  // Same object: success leaves the pointer alone.
}

TEST(ErrorTest, UnderlyingErrorIsLeftOutWhenAbsent) {
  ErrorRef inner = Error::Make("inner", 1);
  ErrorRef with = Error::WithDescription("outer", 2, "text", inner);
  ErrorRef without = Error::WithDescription("outer", 2, "text", nullptr);
  EXPECT_EQ(with->underlyingError(), inner);
  EXPECT_EQ(without->userInfo().count(std::string(NSUnderlyingErrorKey)), 0u);
  EXPECT_EQ(without->underlyingError(), nullptr);
}

TEST(ErrorTest, DescriptionFallsBackToDomainAndCode) {
  ErrorRef error = Error::Make("some.domain", 42);
  EXPECT_NE(error->localizedDescription().find("some.domain"), std::string::npos);
  EXPECT_NE(error->localizedDescription().find("42"), std::string::npos);
  EXPECT_EQ(error->summary(), error->localizedDescription() + " (some.domain 42)");
}

TEST(ErrorTest, PosixErrorCarriesErrnoAndPath) {
  ErrorRef error = PosixError(ENOENT, "/no/such/file");
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_NE(error->localizedDescription().find("/no/such/file"), std::string::npos);
  ASSERT_NE(error->stringForKey(NSFilePathErrorKey), nullptr);
}

}  // namespace
}  // namespace vm
