#include "platform/Log.h"

#include <gtest/gtest.h>

#include <thread>

namespace vm {
namespace {

TEST(LogTest, CaptureSeesLinesWithSubsystemCategoryAndLevel) {
  LogCapture capture;
  Log& log = Log::Get("com.example", "Thing");
  EXPECT_EQ(&log, &Log::Get("com.example", "Thing"));  // one logger per name
  log.info("hello {}", 1);
  log.error("bad {}", "news");

  std::vector<LogRecord> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].subsystem, "com.example");
  EXPECT_EQ(records[0].category, "Thing");
  EXPECT_EQ(records[0].level, LogLevel::kInfo);
  EXPECT_EQ(records[0].message, "hello 1");
  EXPECT_EQ(records[1].level, LogLevel::kError);
  EXPECT_TRUE(capture.contains("bad news"));
}

TEST(LogTest, CaptureEndsWithItsLifetimeAndCollectsAcrossThreads) {
  LogCapture outer;
  {
    LogCapture inner;
    std::thread t([] { Log::Plain().notice("from a thread"); });
    t.join();
    EXPECT_EQ(inner.messages().size(), 1u);
  }
  Log::Plain().notice("after");
  EXPECT_EQ(outer.messages(), (std::vector<std::string>{"from a thread", "after"}));
}

}  // namespace
}  // namespace vm
