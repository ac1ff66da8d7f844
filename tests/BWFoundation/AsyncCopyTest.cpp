#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <vector>

#include "BWFoundation/BWFileManagerAdditions.h"
#include "platform/DispatchQueue.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

struct Report {
  int stage;
  std::int32_t status;
  FSOperationStatus bytes;
  bool on_main;
};

// What the callbacks of one copy saw; reached through the copy's context.
struct Recorder {
  std::mutex mu;
  std::vector<Report> reports;
  bool done() {
    std::lock_guard lock(mu);
    return !reports.empty() &&
           (reports.back().stage == kFSOperationStageComplete || reports.back().status != 0);
  }
};

void Record(const FSFileOperation&, const fs::path&, int stage, std::int32_t status,
            const FSOperationStatus* bytes, const BWCopyContext& info) {
  auto recorder = std::any_cast<std::shared_ptr<Recorder>>(info.at("recorder"));
  std::lock_guard lock(recorder->mu);
  recorder->reports.push_back(
      {stage, status, bytes ? *bytes : FSOperationStatus{-1, -1}, MainQueue::isMainThread()});
}

// Runs one copy to its end; false when it could not start.
bool Copy(const fs::path& from, const fs::path& to, std::vector<Report>* reports,
          ErrorRef* error = nullptr, BWCopyExisting existing = BWCopyExisting::kReplace) {
  auto recorder = std::make_shared<Recorder>();
  if (!bwPerformAsyncCopyFromURL(from, to, existing, {{"recorder", recorder}}, &Record, error)) {
    return false;
  }
  std::weak_ptr<Recorder> weak = recorder;
  bool finished = MainQueue::shared().runUntilCondition(
      [&] { return recorder->done(); },
      std::chrono::steady_clock::now() + std::chrono::seconds(20));
  EXPECT_TRUE(finished);
  *reports = recorder->reports;
  return true;
}

TEST(AsyncCopyTest, CopiesOnABackgroundThreadReportingProgressThenCompletion) {
  TempDir dir;
  std::string contents(2 * 1024 * 1024 + 100, 'q');
  WriteFile(dir / "in.bin", contents);
  std::vector<Report> reports;
  ASSERT_TRUE(Copy(dir / "in.bin", dir / "out.bin", &reports));
  ASSERT_EQ(reports.size(), 4u);
  std::int64_t previous = 0;
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(reports[i].stage, kFSOperationStageRunning);
    EXPECT_GT(reports[i].bytes.bytesComplete, previous);
    EXPECT_EQ(reports[i].bytes.totalBytes, static_cast<std::int64_t>(contents.size()));
    previous = reports[i].bytes.bytesComplete;
  }
  EXPECT_EQ(reports.back().stage, kFSOperationStageComplete);
  EXPECT_EQ(reports.back().status, 0);
  EXPECT_EQ(reports.back().bytes.bytesComplete, static_cast<std::int64_t>(contents.size()));
  for (const Report& r : reports) EXPECT_FALSE(r.on_main);
  EXPECT_EQ(ReadFile(dir / "out.bin"), contents);
  // Only the file itself is left behind: no temporary copies.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 2);
}

TEST(AsyncCopyTest, ReplacesAFileOrAnEmptyFolderAtTheDestination) {
  TempDir dir;
  WriteFile(dir / "in.txt", "");
  WriteFile(dir / "old.txt", "old contents");
  fs::create_directories(dir / "placeholder");
  for (const char* target : {"old.txt", "placeholder"}) {
    SCOPED_TRACE(target);
    std::vector<Report> reports;
    ASSERT_TRUE(Copy(dir / "in.txt", dir / target, &reports));
    // An empty file still reports one running stage, with nothing to count.
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].stage, kFSOperationStageRunning);
    EXPECT_EQ(reports[0].bytes.totalBytes, 0);
    EXPECT_EQ(reports[1].status, 0);
    EXPECT_TRUE(fs::is_regular_file(dir / target));
    EXPECT_EQ(ReadFile(dir / target), "");
  }
}

TEST(AsyncCopyTest, RefusesToStartWhenSourceOrDestinationIsUnusable) {
  TempDir dir;
  WriteFile(dir / "in.txt", "x");
  WriteFile(dir / "full" / "keep.txt", "keep");
  struct Case {
    std::string name;
    fs::path from, to;
    int code;
  };
  const Case cases[] = {
      {"missing source", dir / "nope.txt", dir / "out.txt", ENOENT},
      {"source is a folder", dir / "full", dir / "out.txt", EISDIR},
      {"missing destination folder", dir / "in.txt", dir / "no" / "out.txt", ENOENT},
      {"destination is a folder with files", dir / "in.txt", dir / "full", EISDIR},
      {"no source at all", "", dir / "out.txt", EINVAL},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Report> reports;
    ErrorRef error;
    EXPECT_FALSE(Copy(c.from, c.to, &reports, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), c.code);
    EXPECT_FALSE(Copy(c.from, c.to, &reports, nullptr));  // no out-pointer: still no crash
  }
  EXPECT_EQ(ReadFile(dir / "full" / "keep.txt"), "keep");
}

// Keeping what is there: a file or a link at the destination refuses the copy and keeps
// its bytes; an empty placeholder folder still gives way.
TEST(AsyncCopyTest, KeepingExistingEntriesRefusesAnythingButAnEmptyFolder) {
  TempDir dir;
  WriteFile(dir / "in.txt", "new");
  WriteFile(dir / "victim", "precious");
  struct Case {
    const char* name;
    std::function<void(const fs::path&)> make;
    bool refused;
  } cases[] = {
      {"file", [](const fs::path& p) { WriteFile(p, "precious"); }, true},
      {"link", [&](const fs::path& p) { fs::create_symlink(dir / "victim", p); }, true},
      {"dangling link", [&](const fs::path& p) { fs::create_symlink(dir / "gone", p); }, true},
      {"empty folder", [](const fs::path& p) { fs::create_directory(p); }, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::path to = dir / (std::string("to-") + c.name);
    c.make(to);
    std::vector<Report> reports;
    ErrorRef error;
    bool started = Copy(dir / "in.txt", to, &reports, &error, BWCopyExisting::kKeep);
    if (c.refused) {
      EXPECT_FALSE(started);
      ASSERT_TRUE(error);
      EXPECT_EQ(error->code(), EEXIST);
      EXPECT_EQ(ReadFile(dir / "victim"), "precious");
      EXPECT_FALSE(fs::exists(dir / "gone"));
    } else {
      ASSERT_TRUE(started);
      EXPECT_EQ(reports.back().status, 0);
      EXPECT_EQ(ReadFile(to), "new");
    }
  }
}

// Only regular files are read: a FIFO with no writer would block the open forever, and
// must be refused at once instead.
TEST(AsyncCopyTest, RefusesAFifoWithoutWaitingForAWriter) {
  TempDir dir;
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  std::vector<Report> reports;
  ErrorRef error;
  EXPECT_FALSE(Copy(dir / "pipe", dir / "out", &reports, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), EINVAL);
}

// The temporary copy's name does not grow with the destination's: a name of the longest
// length a folder accepts still copies.
TEST(AsyncCopyTest, CopiesToANameOfTheLongestLength) {
  TempDir dir;
  WriteFile(dir / "in.txt", "long");
  fs::path to = dir / std::string(255, 'n');
  std::vector<Report> reports;
  ASSERT_TRUE(Copy(dir / "in.txt", to, &reports));
  EXPECT_EQ(reports.back().status, 0);
  EXPECT_EQ(ReadFile(to), "long");
}

// A temporary copy whose writer died is removed by the next copy into the folder; one that
// a live copy still holds (its lock taken) stays, and so does a file that merely looks alike.
TEST(AsyncCopyTest, NextCopyRemovesTemporariesOfKilledCopiesOnly) {
  TempDir dir;
  WriteFile(dir / "in.txt", "x");
  const std::string abandoned = ".vmcopy-0123456789abcdef";
  const std::string held = ".vmcopy-fedcba9876543210";
  const std::string lookalike = ".vmcopy-not-a-temporary";
  for (const std::string& name : {abandoned, held, lookalike}) WriteFile(dir / name, "partial");
  int holder = open((dir / held).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  EXPECT_TRUE(bwIsCopyTemporaryName(abandoned));
  EXPECT_FALSE(bwIsCopyTemporaryName(lookalike));

  std::vector<Report> reports;
  ASSERT_TRUE(Copy(dir / "in.txt", dir / "out.txt", &reports));
  EXPECT_EQ(reports.back().status, 0);
  EXPECT_FALSE(fs::exists(dir / abandoned));
  EXPECT_TRUE(fs::exists(dir / held));
  EXPECT_TRUE(fs::exists(dir / lookalike));
  close(holder);
}

}  // namespace
}  // namespace vm
