#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <random>
#include <string>

#include "platform/OwnerLock.h"
#include "tests/support/TempDir.h"
#include "tools/vmattach/CopyIntoPlace.h"

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

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

// A process that runs `make` (which takes an OwnerLock and keeps it) and then waits to
// be killed, as a writer does until it ends.
class Writer {
 public:
  explicit Writer(const std::function<bool()>& make) {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      const char answer = make() ? 'y' : 'n';
      (void)!::write(ready[1], &answer, 1);
      for (;;) ::pause();
    }
    ::close(ready[1]);
    char answer = 0;
    EXPECT_EQ(::read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    ::close(ready[0]);
  }
  ~Writer() { Kill(); }

  void Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

TEST(CopyIntoPlaceTest, CopiesFilesAndTreesWholeWithTheirModesAndNeverOverAnItem) {
  TempDir dir;
  const std::string big = RandomBytes((std::size_t{3} << 20) + 7);
  WriteFile(dir / "big.bin", big);
  fs::create_directories(dir / "tree/docs/empty");
  WriteFile(dir / "tree/docs/plan.txt", "plan");
  WriteFile(dir / "tree/run.sh", "#!/bin/sh\n");
  fs::permissions(dir / "tree/run.sh", fs::perms(0755));
  fs::create_symlink("docs/plan.txt", dir / "tree/link");
  fs::create_directories(dir / "out");

  ErrorRef error;
  ASSERT_TRUE(CopyIntoPlace(dir / "big.bin", dir / "out/big.bin", false, &error));
  EXPECT_EQ(ReadFile(dir / "out/big.bin"), big);
  ASSERT_TRUE(CopyIntoPlace(dir / "tree", dir / "out/tree", false, &error));
  EXPECT_EQ(ReadFile(dir / "out/tree/docs/plan.txt"), "plan");
  EXPECT_EQ(ModeOf(dir / "out/tree/run.sh"), 0755u);
  EXPECT_EQ(ModeOf(dir / "out/tree"), ModeOf(dir / "tree"));
  EXPECT_TRUE(fs::is_directory(dir / "out/tree/docs/empty"));
  EXPECT_EQ(fs::read_symlink(dir / "out/tree/link"), "docs/plan.txt");

  // An existing item is refused and stays as it was; replacing on purpose swaps it.
  WriteFile(dir / "small.txt", "new");
  WriteFile(dir / "out/kept.txt", "old");
  EXPECT_FALSE(CopyIntoPlace(dir / "small.txt", dir / "out/kept.txt", false, &error));
  EXPECT_EQ(error->code(), EEXIST);
  EXPECT_EQ(ReadFile(dir / "out/kept.txt"), "old");
  EXPECT_FALSE(CopyIntoPlace(dir / "small.txt", dir / "out/tree", false, &error));
  EXPECT_TRUE(fs::is_directory(dir / "out/tree"));
  ASSERT_TRUE(CopyIntoPlace(dir / "small.txt", dir / "out/tree", true, &error));
  EXPECT_EQ(ReadFile(dir / "out/tree"), "new");

  // A missing source or a special file fails and leaves nothing.
  EXPECT_FALSE(CopyIntoPlace(dir / "missing", dir / "out/missing", false, &error));
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_FALSE(CopyIntoPlace(dir / "fifo", dir / "out/fifo", false, &error));
  std::size_t items = 0;
  for (const auto& entry : fs::directory_iterator(dir / "out")) {
    EXPECT_EQ(entry.path().filename().string().find(".vmattach-partial"), std::string::npos);
    ++items;
  }
  EXPECT_EQ(items, 3u);  // big.bin, tree, kept.txt
}

// What a killed writer left is removed by the next copy; what a live one writes is not
// touched, and the copy says the place is busy.
TEST(CopyIntoPlaceTest, ReclaimsOnlyAPartialCopyWhoseWriterIsGone) {
  TempDir dir;
  WriteFile(dir / "source.txt", "whole");
  for (bool folder : {false, true}) {
    SCOPED_TRACE(folder ? "folder" : "file");
    const fs::path target = dir / (folder ? "f.txt" : "g.txt");
    const fs::path partial = PartialPathFor(target);
    Writer writer([&] {
      ErrorRef ignored;
      static OwnerLock held;
      held = folder ? OwnerLock::CreateFolder(partial, &ignored)
                    : OwnerLock::CreateFile(partial, 0600, &ignored);
      if (folder) WriteFile(partial / "half", "ha");
      return held.held();
    });
    ErrorRef error;
    EXPECT_FALSE(CopyIntoPlace(dir / "source.txt", target, false, &error));
    EXPECT_EQ(error->code(), EBUSY);
    EXPECT_TRUE(fs::exists(partial));
    EXPECT_FALSE(RemoveIfAbandoned(partial));

    writer.Kill();
    ASSERT_TRUE(CopyIntoPlace(dir / "source.txt", target, false, &error));
    EXPECT_EQ(ReadFile(target), "whole");
    EXPECT_FALSE(fs::exists(fs::symlink_status(partial)));
  }
}

// A copy into a folder also reclaims the partial copies other targets' killed writers left
// there, and nothing else: not a live writer's, not a link, not a user's file of another
// name.
TEST(CopyIntoPlaceTest, ReclaimsTheFoldersAbandonedPartialCopiesOfOtherTargets) {
  TempDir dir;
  WriteFile(dir / "source.txt", "whole");
  const fs::path out = dir / "out";
  fs::create_directories(out);
  Writer live([&] {
    ErrorRef ignored;
    static OwnerLock held;
    held = OwnerLock::CreateFile(PartialPathFor(out / "live.bin"), 0600, &ignored);
    return held.held();
  });
  WriteFile(PartialPathFor(out / "dead.bin"), "half");
  fs::create_directories(PartialPathFor(out / "dead-folder") / "inner");
  WriteFile(out / "kept.vmattach-partial", "a user's");
  WriteFile(out / ".kept.txt", "a user's");
  WriteFile(dir / "elsewhere.txt", "a user's");
  fs::create_symlink(dir / "elsewhere.txt", PartialPathFor(out / "link"));

  ErrorRef error;
  ASSERT_TRUE(CopyIntoPlace(dir / "source.txt", out / "new.txt", false, &error));
  EXPECT_FALSE(fs::exists(PartialPathFor(out / "dead.bin")));
  EXPECT_FALSE(fs::exists(PartialPathFor(out / "dead-folder")));
  EXPECT_TRUE(fs::exists(PartialPathFor(out / "live.bin")));
  EXPECT_TRUE(fs::is_symlink(PartialPathFor(out / "link")));
  EXPECT_EQ(ReadFile(dir / "elsewhere.txt"), "a user's");
  EXPECT_EQ(ReadFile(out / "kept.vmattach-partial"), "a user's");
  EXPECT_EQ(ReadFile(out / ".kept.txt"), "a user's");
}

}  // namespace
}  // namespace vm::vmattach
