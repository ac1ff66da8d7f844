#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "tests/support/TempDir.h"
#include "tools/vmattach/GrowingFileCopy.h"

namespace vm::vmattach {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

std::string RandomBytes(std::size_t length) {
  std::mt19937 generator(42);
  std::string bytes(length, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

// Appends `data` to a fresh `path` in uneven steps, pausing between them, as a decryption
// writing its output does; `between` runs at the halfway step.
void WriteSlowly(const fs::path& path, const std::string& data,
                 const std::function<void(int fd)>& between = nullptr) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640);
  ASSERT_GE(fd, 0);
  const std::size_t step = (std::size_t{1} << 20) - 333;
  for (std::size_t at = 0; at < data.size(); at += step) {
    if (between && at >= data.size() / 2 && at < data.size() / 2 + step) between(fd);
    const std::size_t length = std::min(step, data.size() - at);
    ASSERT_EQ(::write(fd, data.data() + at, length), static_cast<ssize_t>(length));
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
  ::close(fd);
}

// The writer's file grows while it is copied, then is renamed: the copy is whole, with
// the file's mode, whether it began before the file existed or after.
TEST(GrowingFileCopyTest, CopiesAFileThatGrowsAndMoves) {
  for (bool copy_first : {true, false}) {
    SCOPED_TRACE(copy_first);
    TempDir dir;
    const std::string data = RandomBytes((std::size_t{5} << 20) + 4097);
    std::optional<GrowingFileCopy> copy;
    if (copy_first) copy.emplace(dir / "work", dir / "copy");
    WriteSlowly(dir / "work", data, [&](int) {
      if (copy_first) return;
      // Joins half-way, and the writer goes on once the copy has the file open.
      copy.emplace(dir / "work", dir / "copy");
      for (int i = 0; i < 5000 && !fs::exists(dir / "copy"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
    fs::rename(dir / "work", dir / "final");
    ASSERT_TRUE(copy->finish(dir / "final"));
    EXPECT_EQ(ReadFile(dir / "copy"), data);
    struct stat info {};
    ASSERT_EQ(::stat((dir / "copy").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
  }
}

// Whatever does not prove the copy whole leaves no copy behind.
TEST(GrowingFileCopyTest, LeavesNothingUnlessTheCopyIsProvablyWhole) {
  const std::string data = RandomBytes((std::size_t{3} << 20) + 5);
  struct Case {
    const char* name;
    std::function<void(const TempDir&)> write;  // leaves the result at dir / "final"
  };
  std::error_code ignored;
  const Case cases[] = {
      {"another file with the same bytes ends at the final name",
       [&](const TempDir& dir) {
         WriteSlowly(dir / "work", data);
         WriteFile(dir / "final", data);
       }},
      {"the file is cut short after part of it was copied",
       [&](const TempDir& dir) {
         WriteSlowly(dir / "work", data, [&](int fd) {
           for (int i = 0; i < 5000 && fs::file_size(dir / "copy", ignored) < (1u << 20); ++i) {
             std::this_thread::sleep_for(std::chrono::milliseconds(1));
           }
           ASSERT_EQ(::ftruncate(fd, 1000), 0);
           ASSERT_EQ(::lseek(fd, 1000, SEEK_SET), 1000);
         });
         // Only the writer's last step follows: the file ends shorter than what was copied.
         fs::resize_file(dir / "work", 1000);
         fs::rename(dir / "work", dir / "final");
       }},
      {"the file never appears", [&](const TempDir& dir) { WriteFile(dir / "final", data); }},
      {"a link stands where the file should be",
       [&](const TempDir& dir) {
         WriteFile(dir / "elsewhere", data);
         fs::create_symlink(dir / "elsewhere", dir / "work");
         std::this_thread::sleep_for(std::chrono::milliseconds(30));
         fs::copy_file(dir / "elsewhere", dir / "final");
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    GrowingFileCopy copy(dir / "work", dir / "copy");
    c.write(dir);
    EXPECT_FALSE(copy.finish(dir / "final"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(dir / "copy")));
  }
  // Abandoned half-way, by the owner or by going away.
  TempDir dir;
  {
    GrowingFileCopy copy(dir / "work", dir / "copy");
    WriteSlowly(dir / "work", data);
  }
  EXPECT_FALSE(fs::exists(dir / "copy"));
}

// The copy never replaces what is already at its destination.
TEST(GrowingFileCopyTest, NeverWritesOverAnExistingDestination) {
  TempDir dir;
  WriteFile(dir / "copy", "the user's own");
  GrowingFileCopy copy(dir / "work", dir / "copy");
  WriteSlowly(dir / "work", "new bytes");
  EXPECT_FALSE(copy.finish(dir / "work"));
  EXPECT_EQ(ReadFile(dir / "copy"), "the user's own");
}

}  // namespace
}  // namespace vm::vmattach
