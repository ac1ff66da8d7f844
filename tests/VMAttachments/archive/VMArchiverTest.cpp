#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "VMAttachments/archive/BWFileWrapper.h"
#include "VMAttachments/archive/BWFileWrapperAdditions.h"
#include "VMAttachments/archive/VMArchiver.h"
#include "tests/VMAttachments/archive/ArchiveBytes.h"
#include "tests/VMAttachments/archive/InChild.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ParseArchive;
using testing::ReadFile;
using testing::RunInChild;
using testing::TempDir;
using testing::WriteFile;

std::string AllBytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 % 256);
  return bytes;
}

TEST(VMArchiverTest, RoundTripKeepsContentsAndRecordsWhatItDoesNotRestore) {
  TempDir temp;
  const fs::path src = temp / "src";
  const std::map<std::string, std::string> files = {
      {"deep/a/b/c/d/e/f/g/leaf.txt", "leaf"},
      {".hidden", "h"},
      {"dir/.inner/secret", "s"},
      {"empty.txt", ""},
      {"big.bin", AllBytes(3 * 8192 + 17)},
      {"exec.sh", "#!/bin/sh\n"},
      {"\xc3\xa9 \"q\"\\.txt", "unicode"},
  };
  for (const auto& [path, contents] : files) WriteFile(src / path, contents);
  fs::permissions(src / "exec.sh", fs::perms(0755));
  fs::create_directory(src / "emptydir");
  fs::create_symlink("big.bin", src / "link-to-file");
  fs::create_symlink("deep", src / "link-to-dir");

  ErrorRef error;
  ASSERT_TRUE(VMArchiver::archiveFilesInDirectory(src, temp / "a.bwfw", &error))
      << error->summary();
  auto entries = ParseArchive(ReadFile(temp / "a.bwfw"));
  ASSERT_TRUE(entries);

  std::map<std::string, nlohmann::json> infos;
  std::map<std::string, std::size_t> order;
  for (const auto& entry : *entries) {
    nlohmann::json info = nlohmann::json::parse(entry.info);
    std::string path = info.at("path");
    EXPECT_EQ(info.dump(), entry.info) << "compact, unescaped";
    // Pre-order: a folder's own entry comes before anything in it.
    if (auto slash = path.rfind('/'); slash != std::string::npos) {
      ASSERT_TRUE(order.count(path.substr(0, slash))) << path;
    }
    if (entry.data) {
      auto file = files.find(path);
      ASSERT_NE(file, files.end()) << path;
      EXPECT_EQ(*entry.data, file->second);
    }
    order[path] = order.size();
    infos[path] = info;
  }
  EXPECT_EQ(infos.size(), 20u);  // 7 files, 11 folders, 2 links; nothing behind a link
  EXPECT_EQ(infos["link-to-dir"]["type"], NSFileTypeSymbolicLink);
  EXPECT_EQ(infos["link-to-file"]["type"], NSFileTypeSymbolicLink);
  EXPECT_EQ(infos["emptydir"]["type"], NSFileTypeDirectory);
  EXPECT_EQ(infos["exec.sh"]["permission"], 0755);

  const fs::path dest = temp / "dest";
  fs::create_directory(dest);
  ASSERT_EQ(VMArchiver::unpackFilesFromArchive(temp / "a.bwfw", dest, &error), 1);
  for (const auto& [path, contents] : files) EXPECT_EQ(ReadFile(dest / path), contents) << path;
  EXPECT_TRUE(fs::is_directory(dest / "emptydir"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(dest / "link-to-file")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(dest / "link-to-dir")));
  EXPECT_NE(fs::status(dest / "exec.sh").permissions() & fs::perms::owner_exec,
            fs::perms::owner_exec);
}

TEST(VMArchiverTest, FacadeOutcomesWithAndWithoutErrorPointer) {
  TempDir temp;
  WriteFile(temp / "existing", "precious");
  ErrorRef error;
  EXPECT_FALSE(VMArchiver::createArchiveForWriting(temp / "existing", &error));
  EXPECT_EQ(error->domain(), BWFileWrapperErrorDomain);
  EXPECT_EQ(error->code(), kBWFileWrapperArchiveExistsError);
  EXPECT_TRUE(error->userInfo().empty());
  EXPECT_EQ(ReadFile(temp / "existing"), "precious");
  EXPECT_TRUE(VMArchiver::createArchiveForWriting(temp / "existing", nullptr));
  EXPECT_EQ(fs::file_size(temp / "existing"), 0u);

  fs::create_directory(temp / "empty");
  EXPECT_TRUE(VMArchiver::archiveFilesInDirectory(temp / "empty", temp / "e.bwfw", &error));
  EXPECT_EQ(ReadFile(temp / "e.bwfw"), std::string(kBWFileWrapperMagic));

  WriteFile(temp / "x/report.pdf", "%PDF");
  EXPECT_TRUE(VMArchiver::archiveFile(temp / "x/report.pdf", temp / "r.bwfw", &error));
  auto entries = ParseArchive(ReadFile(temp / "r.bwfw"));
  ASSERT_TRUE(entries && entries->size() == 1);
  EXPECT_EQ(nlohmann::json::parse((*entries)[0].info)["path"], "report.pdf");

  error = nullptr;
  EXPECT_FALSE(VMArchiver::archiveFile(temp / "x/report.pdf", temp / "no/such/dir/r", &error));
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->code(), ENOENT);
}

TEST(VMArchiverTest, FailedArchiveWriteFailsWithOrWithoutErrorPointer) {
  TempDir temp;
  WriteFile(temp / "src/first.txt", "first");
  WriteFile(temp / "src/big.bin", AllBytes(256 * 1024));
  // Room for the magic and a little more: the big file's data write fails part-way.
  constexpr std::uint64_t kLimit = 64 * 1024;
  struct Case {
    const char* name;
    bool whole_folder;
    bool with_error;
  };
  const Case cases[] = {
      {"folder, error pointer", true, true},
      {"folder, no error pointer", true, false},
      {"one file, error pointer", false, true},
      {"one file, no error pointer", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path archive = temp / (std::string(c.name) + ".bwfw");
    auto outcome = RunInChild(
        [&] {
          ErrorRef error;
          ErrorRef* out = c.with_error ? &error : nullptr;
          bool ok = c.whole_folder ? VMArchiver::archiveFilesInDirectory(temp / "src", archive, out)
                                   : VMArchiver::archiveFile(temp / "src/big.bin", archive, out);
          // True when the call failed as it should; with an error pointer, the error is
          // the archive's failed write.
          return !ok && (!c.with_error || (error && error->domain() == NSPOSIXErrorDomain));
        },
        kLimit);
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_LE(fs::file_size(archive), kLimit);
  }
}

TEST(VMArchiverTest, UnwritableItemFailsOnlyWithErrorPointer) {
  // A file name that is not UTF-8 cannot be stored in the JSON info block.
  TempDir temp;
  WriteFile(temp / "src/good.txt", "good");
  WriteFile(temp / "src/bad\xff", "bad");
  ErrorRef error;
  EXPECT_FALSE(VMArchiver::archiveFilesInDirectory(temp / "src", temp / "a", &error));
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(error->code(), kBWFileWrapperJSONWriteError);
  EXPECT_FALSE(VMArchiver::archiveFile(temp / "src/bad\xff", temp / "b", &error));

  EXPECT_TRUE(VMArchiver::archiveFilesInDirectory(temp / "src", temp / "c", nullptr));
  auto entries = ParseArchive(ReadFile(temp / "c"));
  ASSERT_TRUE(entries);
  EXPECT_EQ(entries->size(), 1u);
  EXPECT_TRUE(VMArchiver::archiveFile(temp / "src/bad\xff", temp / "d", nullptr));

  if (::geteuid() != 0) {  // root reads anything
    fs::permissions(temp / "src/good.txt", fs::perms::none);
    EXPECT_FALSE(VMArchiver::archiveFilesInDirectory(temp / "src", temp / "e", &error));
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), EACCES);
  }
}

TEST(VMArchiverTest, SubPathFromURL) {
  TempDir temp;
  WriteFile(temp / "x/y/z.txt", "z");
  fs::create_directory(temp / "q");
  fs::create_directory_symlink(temp / "x", temp / "via-link");
  fs::create_symlink(temp / "q", temp / "x/out-link");
  struct Case {
    fs::path item, parent;
    const char* expected;  // null: raises
  };
  const Case cases[] = {
      {temp / "x/y/z.txt", temp / "x", "y/z.txt"},
      {temp / "x/./y/../y/z.txt", temp / "x/", "y/z.txt"},
      {temp / "x/y/z.txt", temp / "via-link", "y/z.txt"},
      {temp / "x/out-link", temp / "x", "out-link"},  // the link itself lies inside
      {temp / "x/y/z.txt", temp / "x/y/z.txt", nullptr},
      {temp / "x/y/z.txt", temp / "q", nullptr},
      {temp / "x/y/z.txt", temp / "missing", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.item.string() + " in " + c.parent.string());
    if (c.expected) {
      EXPECT_EQ(subPathFromURL(c.item, c.parent), c.expected);
      continue;
    }
    try {
      subPathFromURL(c.item, c.parent);
      ADD_FAILURE() << "no exception";
    } catch (const InternalInconsistencyException& e) {
      EXPECT_EQ(std::string(e.what()).rfind(
                    "Base path components do not match - '" + FileURLString(c.item) +
                        "' is not a direct subpath of the passed in parent path ('" +
                        FileURLString(c.parent) + "') ",
                    0),
                0u)
          << e.what();
    }
  }
}

}  // namespace
}  // namespace vm
