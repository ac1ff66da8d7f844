#ifndef VM_TESTS_SERVICES_VMCLOUDD_SERVICEFIXTURE_H_
#define VM_TESTS_SERVICES_VMCLOUDD_SERVICEFIXTURE_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/services/vmcloudd/TestDatabase.h"
#include "tests/support/TempDir.h"

namespace vm::testing {

// A service in embedded mode on 127.0.0.1, in a fresh data folder, called with "alpha".
// Its records are the embedded SQLite file, or a fresh PostgreSQL database when the test
// process runs with VMCLOUDD_TEST_BACKEND=postgresql; a restarted service keeps them.
class ServiceFixture : public ::testing::Test {
 protected:
  // Starts the service with `options`, whose data folder, records and tokens are filled in
  // here.
  void StartService(AttachmentServiceOptions options) {
    if (!database_) database_ = FreshRecordsDatabase();
    options.data_dir = dir_.path() / "data";
    options.database = *database_;
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
  std::optional<std::string> database_;  // chosen on the first start
  std::unique_ptr<AttachmentService> service_;
  ApiClient api_;
};

}  // namespace vm::testing

#endif  // VM_TESTS_SERVICES_VMCLOUDD_SERVICEFIXTURE_H_
