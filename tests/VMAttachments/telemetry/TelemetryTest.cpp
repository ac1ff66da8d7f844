#include <gtest/gtest.h>

#include "VMAttachments/telemetry/AttachmentTelemetry.h"

namespace vm {
namespace {

class TelemetryTest : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = SetTelemetrySink(sink_); }
  void TearDown() override { SetTelemetrySink(previous_); }

  std::shared_ptr<RecordingTelemetrySink> sink_ = std::make_shared<RecordingTelemetrySink>();
  std::shared_ptr<TelemetrySink> previous_;
};

TEST_F(TelemetryTest, OnlyCode500OfAnyDomainIsReported) {
  AttachmentTelemetry::logError(nullptr);
  AttachmentTelemetry::logError(Error::Make("any", 501));
  AttachmentTelemetry::logError(Error::Make("any", 0));
  EXPECT_TRUE(sink_->events().empty());

  for (const char* domain : {"HXFileAttachmentErrorDomain", "NSPOSIXErrorDomain", "x"}) {
    AttachmentTelemetry::logError(Error::WithDescription(domain, 500, "no scheme"));
  }
  std::vector<TelemetryEvent> events = sink_->events();
  ASSERT_EQ(events.size(), 3u);
  for (const TelemetryEvent& event : events) {
    EXPECT_EQ(event.message, "Scheme not found error");
    EXPECT_EQ(event.level, TelemetryLevel::kError);
    EXPECT_EQ(event.facility, AttachmentTelemetry::logFacility());
    EXPECT_EQ(event.extra, (TelemetryExtra{{"error", "no scheme"}}));
    EXPECT_FALSE(event.skipCache);
  }
}

TEST_F(TelemetryTest, FacilitiesAreMadeOnceWithTheirIdentifiersAndLevels) {
  EXPECT_EQ(AttachmentTelemetry::logFacility(), AttachmentTelemetry::logFacility());
  EXPECT_EQ(AttachmentTelemetry::errorFacility(), AttachmentTelemetry::errorFacility());
  EXPECT_NE(AttachmentTelemetry::logFacility(), AttachmentTelemetry::errorFacility());
  EXPECT_EQ(AttachmentRecoveryTelemetry::logFacility(), AttachmentRecoveryTelemetry::logFacility());

  EXPECT_EQ(AttachmentTelemetry::logFacility()->facility(), "com.brenwick.attachments");
  EXPECT_EQ(AttachmentTelemetry::errorFacility()->facility(), "com.brenwick.attachments");
  EXPECT_EQ(AttachmentRecoveryTelemetry::logFacility()->facility(),
            "com.brenwick.AttachmentRecovery");
  EXPECT_EQ(AttachmentRecoveryTelemetry::errorFacility()->facility(),
            "com.brenwick.AttachmentRecovery");
  EXPECT_EQ(static_cast<int>(AttachmentTelemetry::errorFacility()->logLevel()), 2);
  EXPECT_EQ(static_cast<int>(AttachmentRecoveryTelemetry::errorFacility()->logLevel()), 2);
  EXPECT_EQ(AttachmentTelemetry::logFacility()->logLevel(), TelemetryLevel::kInfo);
}

}  // namespace
}  // namespace vm
