// The service over HTTPS, with a self-signed certificate made by the test.
#include <gtest/gtest.h>

#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/support/LoopbackServer.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::ApiClient;
using testing::Send;

TEST(AttachmentServiceTls, ServesHttpsWithTheGivenCertificate) {
  testing::TempDir dir;
  ASSERT_TRUE(testing::WriteSelfSignedCertificate(dir / "cert.pem", dir / "key.pem"));
  AttachmentServiceOptions options;
  options.data_dir = dir / "data";
  options.tokens = {"alpha"};
  options.tls_cert = dir / "cert.pem";
  options.tls_key = dir / "key.pem";
  ErrorRef error;
  auto service = AttachmentService::Create(options, &error);
  ASSERT_TRUE(service && service->start(&error)) << error->summary();
  ASSERT_EQ(service->baseURL().rfind("https://127.0.0.1:", 0), 0u);

  ApiClient api{service->baseURL()};
  testing::HttpReply started = api.start(3);
  ASSERT_EQ(started.status, 201);
  const std::string upload = started.json()["upload_url"];
  EXPECT_EQ(upload.rfind(service->baseURL() + "/blobs/", 0), 0u) << "blobs are served over TLS";
  EXPECT_EQ(Send("PUT", upload, "abc").status, 200);
  EXPECT_EQ(api.confirm(started.json()["uuid"], 3).status, 200);
  std::string plain = service->baseURL();
  plain.replace(0, 5, "http");
  EXPECT_EQ(ApiClient{plain}.start(3).status, 0) << "no plain HTTP on a TLS port";

  options.tls_cert = dir / "key.pem";  // not a certificate
  auto broken = AttachmentService::Create(options, &error);
  ASSERT_TRUE(broken);
  EXPECT_FALSE(broken->start(&error));
  EXPECT_EQ(error->domain(), "vmcloudd");
}

}  // namespace
}  // namespace vm
