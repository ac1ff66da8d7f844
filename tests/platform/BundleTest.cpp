#include "platform/Bundle.h"

#include <gtest/gtest.h>

namespace vm {
namespace {

TEST(BundleTest, MissingTranslationGivesKeyOrValue) {
  auto bundle = Bundle::bundleWithIdentifier("com.example.test", "vm-test-no-catalogue");
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.test");
  EXPECT_EQ(bundle->localizedStringForKey("File not yet uploaded.", "", ""),
            "File not yet uploaded.");
  EXPECT_EQ(bundle->localizedStringForKey("key", "fallback"), "fallback");
}

}  // namespace
}  // namespace vm
