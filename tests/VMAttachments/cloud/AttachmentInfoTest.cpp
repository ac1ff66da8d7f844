#include <gtest/gtest.h>

#include "VMAttachments/cloud/AttachmentAPIRequest.h"
#include "VMAttachments/cloud/AttachmentInfo.h"
#include "tests/VMAttachments/cloud/CloudTestService.h"

namespace vm {
namespace {

JSONData Bytes(std::string_view text) { return JSONData(text.begin(), text.end()); }
std::string Text(const JSONData& data) { return std::string(data.begin(), data.end()); }

struct DecodeCase {
  const char* name;
  const char* json;
  std::int64_t error_code;  // 0: decodes
  bool has_url;
};

TEST(AttachmentInfoTest, UploadInfoDecoding) {
  const DecodeCase cases[] = {
      {"complete", R"({"uuid":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","size":5,"state":"new",
                       "upload_url":"http://h/put?sig=1","extra":[1]})",
       0, true},
      {"url that does not parse", R"({"uuid":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","size":5,
                                      "state":"new","upload_url":"not a url"})",
       0, false},
      {"url not a string", R"({"uuid":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","size":5,
                               "state":"new","upload_url":7})",
       4864, false},
      {"negative size", R"({"uuid":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","size":-1,
                            "state":"new","upload_url":"http://h/"})",
       4864, false},
      {"bad uuid", R"({"uuid":"nope","size":1,"state":"new","upload_url":"http://h/"})", 4864,
       false},
      {"not an object", R"(["uuid"])", 4864, false},
      {"not JSON", "<html>", 4864, false},
  };
  for (const DecodeCase& c : cases) {
    SCOPED_TRACE(c.name);
    ErrorRef error;
    std::shared_ptr<UploadInfo> info = UploadInfo::decode(Bytes(c.json), &error);
    if (c.error_code != 0) {
      EXPECT_EQ(info, nullptr);
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
      EXPECT_EQ(error->code(), c.error_code);
      continue;
    }
    ASSERT_NE(info, nullptr) << error->summary();
    EXPECT_EQ(info->uuid(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(info->size(), 5u);
    EXPECT_EQ(info->state(), State::kNew);
    EXPECT_EQ(info->uploadURL().has_value(), c.has_url);
  }
  // An Empty reads nothing at all.
  EXPECT_NE(Empty::decode(Bytes("<html>"), nullptr), nullptr);
}

TEST(AttachmentInfoTest, EncodingAndRequests) {
  testing::CloudTestService::shared();  // the API base comes from its environment
  AttachmentInfo info("e621e1f8-c36c-495a-93fc-0c247a3e6e5f", 12, State::kUploaded);
  EXPECT_EQ(Text(*info.encode(nullptr)),
            R"({"uuid":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","size":12,"state":"uploaded"})");

  std::string base = AttachmentAPIBaseURL().absoluteString();
  EXPECT_EQ(base.substr(base.find("/api/")), "/api/v1/_internal/attachment");
  std::optional<URLRequest> finish = FinishUploadRequest(200).makeRequest(info, nullptr);
  ASSERT_TRUE(finish);
  EXPECT_EQ(finish->url().absoluteString(), base + "/E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(finish->httpMethod(), "PUT");
  for (const URLRequest& request :
       {*finish, *StartUploadRequest(201).makeRequest(UploadRequestInfo(3), nullptr),
        *DownloadRequest(200).makeRequest("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", nullptr),
        *DeletionRequest(204).makeRequest("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", nullptr)}) {
    EXPECT_EQ(request.cachePolicy(), 0);
    EXPECT_EQ(request.timeoutInterval(), 60.0);
    EXPECT_TRUE(request.allHTTPHeaderFields().empty()) << "the sender adds the headers";
  }
  EXPECT_FALSE(DownloadRequest(200)
                   .makeRequest("E621E1F8-C36C-495A-93FC-0C247A3E6E5F", nullptr)
                   ->httpBody());
}

}  // namespace
}  // namespace vm
