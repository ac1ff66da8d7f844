#ifndef VM_TESTS_SERVICES_VMCLOUDD_SERVICEFIXTURE_H_
#define VM_TESTS_SERVICES_VMCLOUDD_SERVICEFIXTURE_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/support/TempDir.h"

namespace vm::testing {

// A service in embedded mode on 127.0.0.1, in a fresh data folder, called with "alpha".
class ServiceFixture : public ::testing::Test {
 protected:
  // Starts the service with `options`, whose data folder and tokens are filled in here.
  void StartService(AttachmentServiceOptions options) {
    options.data_dir = dir_.path() / "data";
    options.tokens = {"alpha", "beta"};
    ErrorRef error;
    service_ = AttachmentService::Create(std::move(options), &error);
    ASSERT_TRUE(service_) << error->summary();
    ASSERT_TRUE(service_->start(&error)) << error->summary();
    api_.base_url = service_->baseURL();
  }

  // Starts an upload of `size` bytes; returns its reply.
  nlohmann::json StartUpload(std::uint64_t size) {
    HttpReply reply = api_.start(size);
    EXPECT_EQ(reply.status, 201) << reply.body;
    return reply.json();
  }

  std::filesystem::path BlobPath(const std::string& uuid) const {
    return dir_.path() / "data" / "blobs" / uuid;
  }

  TempDir dir_;
  std::unique_ptr<AttachmentService> service_;
  ApiClient api_;
};

}  // namespace vm::testing

#endif  // VM_TESTS_SERVICES_VMCLOUDD_SERVICEFIXTURE_H_
