#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "VMAttachments/archive/VMArchiver.h"
#include "tests/VMAttachments/archive/InChild.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
constexpr std::uint64_t kFileSize = 5 * kGiB;
// The writer maps a bounded window at a time; the whole file mapped would be 5 GiB.
constexpr std::uint64_t kPeakMemoryLimit = 128u << 20;

// Marks at the edges that a single write(2) (at most 2 GiB - 4 KiB) or a 32-bit length
// would get wrong; everything between them is a hole.
std::vector<std::pair<std::uint64_t, std::string>> Marks() {
  return {{0, "start"},
          {2 * kGiB - 4096 - 3, "edge of one write"},
          {2 * kGiB, "past 2 GiB"},
          {4 * kGiB + 1, "past 4 GiB"},
          {kFileSize - 3, "end"}};
}

std::string ReadAt(int fd, std::uint64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  ssize_t n = ::pread(fd, bytes.data(), size, static_cast<off_t>(offset));
  bytes.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return bytes;
}

TEST(ArchiveLargeFileTest, FiveGiBRoundTripsWithFlatWriterMemory) {
  testing::TempDir temp;
  const fs::path source = temp / "src/sparse.bin";
  fs::create_directories(source.parent_path());
  {
    int fd = ::open(source.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(kFileSize)), 0);
    for (const auto& [offset, text] : Marks()) {
      ASSERT_EQ(::pwrite(fd, text.data(), text.size(), static_cast<off_t>(offset)),
                static_cast<ssize_t>(text.size()));
    }
    ::close(fd);
  }
  ASSERT_EQ(fs::file_size(source), kFileSize);

  const fs::path archive = temp / "sparse.bwfw";
  testing::ChildOutcome packed = testing::RunInChild([&] {
    ErrorRef error;
    return VMArchiver::archiveFile(source, archive, &error);
  });
  ASSERT_TRUE(packed.succeeded);
  EXPECT_LT(packed.peak_rss_bytes, kPeakMemoryLimit)
      << "peak " << (packed.peak_rss_bytes >> 20) << " MiB";
  fs::remove(source);  // only one 5 GiB copy of real blocks on disk at a time

  const fs::path dest = temp / "dest";
  fs::create_directory(dest);
  ErrorRef error;
  ASSERT_EQ(VMArchiver::unpackFilesFromArchive(archive, dest, &error), 1)
      << (error ? error->summary() : "");
  fs::remove(archive);
  const fs::path restored = dest / "sparse.bin";
  ASSERT_EQ(fs::file_size(restored), kFileSize);
  int fd = ::open(restored.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  for (const auto& [offset, text] : Marks()) {
    EXPECT_EQ(ReadAt(fd, offset, text.size()), text) << "at " << offset;
    if (offset > 0) {
      EXPECT_EQ(ReadAt(fd, offset - 1, 1), std::string(1, '\0')) << offset;
    }
  }
  ::close(fd);
}

}  // namespace
}  // namespace vm
