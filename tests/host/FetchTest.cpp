#include "host/Fetch.h"

#include <gtest/gtest.h>

#include "host/HXFileAttachment.h"

namespace vm {
namespace {

TEST(FetchTest, KeyValueQualifiersTreatNullAsADistinctValue) {
  HXFileAttachment never_uploaded(nullptr);
  HXFileAttachment uploaded(nullptr);
  uploaded.setUploaded(true);
  HXFileAttachment not_uploaded(nullptr);
  not_uploaded.setUploaded(false);

  auto is_not_uploaded =
      BDKeyValueQualifier::qualifierWhereValueOfKeyIsNotEqualTo("uploaded", std::int64_t{1});
  EXPECT_TRUE(is_not_uploaded->evaluateWithObject(never_uploaded));
  EXPECT_TRUE(is_not_uploaded->evaluateWithObject(not_uploaded));
  EXPECT_FALSE(is_not_uploaded->evaluateWithObject(uploaded));

  uploaded.setAttachmentUUID("abc");
  auto both = BDAndQualifier::andQualifierWithQualifiers(
      {BDKeyValueQualifier::qualifierWhereValueOfKey("attachmentUUID", std::string("abc")),
       is_not_uploaded});
  EXPECT_FALSE(both->evaluateWithObject(uploaded));
  not_uploaded.setAttachmentUUID("abc");
  EXPECT_TRUE(both->evaluateWithObject(not_uploaded));
}

}  // namespace
}  // namespace vm
