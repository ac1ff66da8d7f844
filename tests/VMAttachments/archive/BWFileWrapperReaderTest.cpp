#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "VMAttachments/archive/BWFileWrapper.h"
#include "VMAttachments/archive/BWFileWrapperReader.h"
#include "VMAttachments/archive/VMArchiver.h"
#include "tests/VMAttachments/archive/ArchiveBytes.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ArchiveBytes;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

constexpr char kRegular[] = R"("type":"NSFileTypeRegular")";
constexpr char kDirectory[] = R"("type":"NSFileTypeDirectory")";

std::string Info(const std::string& path, const char* type) {
  return R"({"path":")" + path + R"(",)" + type + "}";
}

struct Outcome {
  std::int32_t result;
  ErrorRef error;
};

// Unpacks `bytes` into `destination`. The error starts as a sentinel object, so a test
// can tell "no error written" from "an error written".
Outcome Unpack(const TempDir& temp, const std::string& bytes, const fs::path& destination,
               const ErrorRef& sentinel) {
  WriteFile(temp / "archive", bytes);
  fs::create_directories(destination);
  Outcome outcome{0, sentinel};
  outcome.result =
      VMArchiver::unpackFilesFromArchive(temp / "archive", destination, &outcome.error);
  return outcome;
}

std::vector<std::string> List(const std::string& url, bool* ok);

mode_t DefaultFileMode() {
  mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

// Every shape of entry the format allows, written byte by byte: escaped slashes, another
// key order and spacing, entries without "path", a symbolic link, data longer than one
// copy buffer and empty data.
ArchiveBytes SampleArchive(std::size_t big_size = 3 * 8192 + 17) {
  ArchiveBytes archive;
  archive.magic().boundary();
  archive.info(R"({"path":"docs","type":"NSFileTypeDirectory","permission":493})").boundary();
  archive.info(R"({"path":"docs\/a.txt","type":"NSFileTypeRegular","permission":493})")
      .data("hello")
      .boundary();
  archive.info(R"({ "permission" : 420 , "type" : "NSFileTypeRegular", "path" : "docs/big" })")
      .data(std::string(big_size, 'b'))
      .boundary();
  archive.info(R"({"type":"NSFileTypeRegular","permission":420})").data("first").boundary();
  archive.info(R"({"type":"NSFileTypeDirectory"})").boundary();
  archive.info(R"({"type":"NSFileTypeRegular"})").data("").boundary();
  archive.info(R"({"path":"docs/link","type":"NSFileTypeSymbolicLink","permission":511})")
      .boundary();
  return archive;
}

TEST(BWFileWrapperReaderTest, ExtractsHandWrittenArchive) {
  TempDir temp;
  const fs::path dest = temp / "dest";
  Outcome outcome = Unpack(temp, SampleArchive().bytes(), dest, nullptr);
  ASSERT_EQ(outcome.result, 2) << (outcome.error ? outcome.error->summary() : "");
  EXPECT_EQ(ReadFile(dest / "docs/a.txt"), "hello");
  EXPECT_EQ(ReadFile(dest / "docs/big"), std::string(3 * 8192 + 17, 'b'));
  EXPECT_EQ(ReadFile(dest / "0.recovered"), "first");
  EXPECT_TRUE(fs::is_regular_file(dest / "1.recovered"));
  EXPECT_EQ(fs::file_size(dest / "1.recovered"), 0u);
  EXPECT_FALSE(fs::exists(fs::symlink_status(dest / "docs/link")));
  // The recorded permission (493) is deliberately not applied.
  struct stat st;
  ASSERT_EQ(::stat((dest / "docs/a.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, DefaultFileMode());

  // The reader never rewinds: a second pass finds the end at once.
  auto reader = BWFileWrapperReader::initWithURL(temp / "archive", nullptr);
  ASSERT_TRUE(reader);
  fs::create_directory(temp / "again");
  EXPECT_EQ(reader->unarchiveFilesTo(temp / "again", nullptr), 2);
  EXPECT_EQ(reader->unarchiveFilesTo(temp / "again", nullptr), 1);
}

TEST(BWFileWrapperReaderTest, FailuresReportTheirDomainAndCode) {
  const std::string big_info = ArchiveBytes().magic().u64(std::uint64_t{1} << 62).raw("{}").bytes();
  // Well-formed, and every byte of it present: refused for its length alone.
  const std::string huge_info =
      R"({"path":"d","type":"NSFileTypeDirectory","pad":")" + std::string(16 << 20, 'p') + "\"}";
  struct Case {
    const char* name;
    std::string archive;
    std::int32_t result;
    std::optional<std::string_view> domain;  // nullopt: the error is left untouched
    std::int64_t code;
  };
  const Case cases[] = {
      {"magic only", ArchiveBytes().magic().bytes(), 1, std::nullopt, 0},
      {"empty file", "", 0, NSPOSIXErrorDomain, 0},
      {"shorter than the magic", "BWFILE", 0, NSPOSIXErrorDomain, 0},
      {"wrong magic", "BWFILEWRAPPER2", 0, BWFileWrapperErrorDomain, 1},
      {"info length past the end", big_info, 0, NSPOSIXErrorDomain, 0},
      {"info block over 16 MiB", ArchiveBytes().magic().info(huge_info).bytes(), 0,
       NSPOSIXErrorDomain, 0},
      {"info length of 2^64-1", ArchiveBytes().magic().u64(~std::uint64_t{0}).bytes(), 0,
       NSPOSIXErrorDomain, 0},
      {"data length past the end",
       ArchiveBytes().magic().info(Info("f", kRegular)).u64(1000).raw("abc").bytes(), 0,
       NSPOSIXErrorDomain, 0},
      {"info is not JSON", ArchiveBytes().magic().info("{nope").bytes(), 0, NSCocoaErrorDomain,
       kBWFileWrapperJSONReadError},
      {"info is an array", ArchiveBytes().magic().info("[1,2]").bytes(), 0, NSCocoaErrorDomain,
       kBWFileWrapperJSONReadError},
      {"path is a number", ArchiveBytes().magic().info(R"({"path":5})").bytes(), 0,
       NSCocoaErrorDomain, kBWFileWrapperJSONReadError},
      {"file in a folder with no entry",
       ArchiveBytes().magic().info(Info("missing/f", kRegular)).data("x").bytes(), 0, std::nullopt,
       0},
      {"directory where a file is",
       ArchiveBytes()
           .magic()
           .info(Info("f", kRegular))
           .data("x")
           .info(Info("f", kDirectory))
           .bytes(),
       0, NSPOSIXErrorDomain, EEXIST},
      {"symbolic link only",
       ArchiveBytes().magic().info(R"({"path":"l","type":"NSFileTypeSymbolicLink"})").bytes(), 1,
       std::nullopt, 0},
      {"directory without path", ArchiveBytes().magic().info(R"({"type":"x"})").bytes(), 2,
       std::nullopt, 0},
  };
  // Paths that would land outside the destination are refused before anything is written.
  std::vector<Case> all(std::begin(cases), std::end(cases));
  for (const char* path : {"../escaped", "a/../../escaped", "./../escaped", "/dev/null/escaped"}) {
    all.push_back({path, ArchiveBytes().magic().info(Info(path, kRegular)).data("x").bytes(), 0,
                   BWFileWrapperErrorDomain, kBWFileWrapperUnsafePathError});
  }
  for (const Case& c : all) {
    SCOPED_TRACE(c.name);
    TempDir temp;
    const ErrorRef sentinel = Error::Make("sentinel", -1);
    Outcome outcome = Unpack(temp, c.archive, temp / "dest", sentinel);
    EXPECT_EQ(outcome.result, c.result);
    EXPECT_EQ(std::distance(fs::directory_iterator(temp.path()), fs::directory_iterator()), 2);
    if (!c.domain) {
      EXPECT_EQ(outcome.error, sentinel);
      continue;
    }
    ASSERT_NE(outcome.error, sentinel);
    EXPECT_EQ(outcome.error->domain(), *c.domain);
    EXPECT_EQ(outcome.error->code(), c.code);
  }
}

// Whatever the JSON library refuses in an info block (numbers out of a double's range,
// values of the wrong kind, text that is not UTF-8) fails unpacking and listing with the
// format's error, after the entries before it.
TEST(BWFileWrapperReaderTest, EveryJSONProblemIsTheFormatsError) {
  const std::string infos[] = {
      R"({"n":1e999})",
      R"({"path":"f","type":"NSFileTypeRegular","permission":-1e999})",
      R"({"path":"f","type":"NSFileTypeRegular","permission":1e400,"x":[1e999]})",
      R"({"path":["f"],"type":"NSFileTypeRegular"})",
      R"({"path":"f","type":{"kind":1}})",
      R"({"path":null,"type":"NSFileTypeRegular"})",
      "{\"path\":\"\xff\xfe\",\"type\":\"NSFileTypeRegular\"}",
      "\"1e999\"",
      "1e999",
  };
  for (const std::string& info : infos) {
    SCOPED_TRACE(info);
    const std::string bytes =
        ArchiveBytes().magic().info(Info("before", kDirectory)).info(info).data("x").bytes();
    TempDir temp;
    Outcome outcome = Unpack(temp, bytes, temp / "dest", nullptr);
    EXPECT_EQ(outcome.result, 0);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(outcome.error->code(), kBWFileWrapperJSONReadError);
    EXPECT_TRUE(fs::is_directory(temp / "dest" / "before"));

    bool ok = true;
    EXPECT_EQ(List(temp / "archive", &ok).size(), 1u);
    EXPECT_FALSE(ok);
  }
}

TEST(BWFileWrapperReaderTest, PathsMayClimbOnlyWithinTheDestination) {
  TempDir temp;
  // Climbing back down inside the destination is fine.
  std::string inside = ArchiveBytes().magic().info(Info("a/../b", kRegular)).data("x").bytes();
  EXPECT_EQ(Unpack(temp, inside, temp / "dest/inner", nullptr).result, 0);  // a/ missing
  fs::create_directory(temp / "dest/inner/a");
  EXPECT_EQ(Unpack(temp, inside, temp / "dest/inner", nullptr).result, 1);
  EXPECT_EQ(ReadFile(temp / "dest/inner/b"), "x");
}

TEST(BWFileWrapperReaderTest, NeverWritesThroughALinkAlreadyInTheDestination) {
  struct Case {
    const char* name;
    std::string archive;
  };
  const Case cases[] = {
      {"file below a link",
       ArchiveBytes().magic().info(Info("out/pwned.txt", kRegular)).data("x").bytes()},
      {"folder below a link", ArchiveBytes().magic().info(Info("out/sub", kDirectory)).bytes()},
      {"the link as a folder", ArchiveBytes().magic().info(Info("out", kDirectory)).bytes()},
      {"deeper, folder first", ArchiveBytes()
                                   .magic()
                                   .info(Info("out/a", kDirectory))
                                   .info(Info("out/a/b.txt", kRegular))
                                   .data("x")
                                   .bytes()},
      {"link in the middle",
       ArchiveBytes().magic().info(Info("real/../out/f", kRegular)).data("x").bytes()},
      {"link that stays inside",
       ArchiveBytes().magic().info(Info("inside/f", kRegular)).data("x").bytes()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir temp;
    fs::create_directories(temp / "elsewhere");
    fs::create_directories(temp / "dest/real");
    fs::create_directory_symlink(temp / "elsewhere", temp / "dest/out");
    fs::create_directory_symlink(temp / "dest/real", temp / "dest/inside");
    Outcome outcome = Unpack(temp, c.archive, temp / "dest", nullptr);
    EXPECT_EQ(outcome.result, 0);
    ASSERT_NE(outcome.error, nullptr);
    EXPECT_EQ(outcome.error->domain(), BWFileWrapperErrorDomain);
    EXPECT_EQ(outcome.error->code(), kBWFileWrapperUnsafePathError);
    EXPECT_TRUE(fs::is_empty(temp / "elsewhere"));
    EXPECT_TRUE(fs::is_empty(temp / "dest/real"));
    EXPECT_TRUE(fs::is_symlink(temp / "dest/out"));
  }
}

TEST(BWFileWrapperReaderTest, ReplacesExistingFilesWithoutFollowingLinks) {
  TempDir temp;
  WriteFile(temp / "victim", "keep");
  fs::create_directories(temp / "dest");
  fs::create_symlink(temp / "victim", temp / "dest/link");
  WriteFile(temp / "dest/plain", "old");
  std::string archive = ArchiveBytes()
                            .magic()
                            .info(Info("link", kRegular))
                            .data("new link")
                            .info(Info("plain", kRegular))
                            .data("new plain")
                            .bytes();
  EXPECT_EQ(Unpack(temp, archive, temp / "dest", nullptr).result, 1);
  EXPECT_EQ(ReadFile(temp / "victim"), "keep");
  EXPECT_FALSE(fs::is_symlink(temp / "dest/link"));
  EXPECT_EQ(ReadFile(temp / "dest/link"), "new link");
  EXPECT_EQ(ReadFile(temp / "dest/plain"), "new plain");
}

TEST(BWFileWrapperReaderTest, TruncationAtEveryByteFailsCleanly) {
  const ArchiveBytes sample = SampleArchive(/*big_size=*/10);
  const std::string& bytes = sample.bytes();
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    SCOPED_TRACE(cut);
    TempDir temp;
    Outcome outcome = Unpack(temp, bytes.substr(0, cut), temp / "dest", nullptr);
    bool boundary = false;
    for (std::size_t b : sample.boundaries()) boundary |= b == cut;
    if (boundary) {
      EXPECT_NE(outcome.result, 0);
    } else {
      EXPECT_EQ(outcome.result, 0);
      ASSERT_TRUE(outcome.error);
      EXPECT_EQ(outcome.error->domain(), NSPOSIXErrorDomain);
    }
  }
}

// Lists the archive at `url` (a file, or a pipe where the reader cannot seek past data and
// must read it). `ok` tells whether the archive ended cleanly.
std::vector<std::string> List(const std::string& url, bool* ok) {
  std::vector<std::string> infos;
  ErrorRef error;
  auto reader = BWFileWrapperReader::initWithURL(url, &error);
  *ok = reader &&
        reader->enumerateEntries(
            [&](const BWFileWrapperReader::Entry& entry) { infos.push_back(entry.info); }, &error);
  return infos;
}

std::vector<std::string> ListThroughPipe(const std::string& bytes, bool* ok) {
  int fds[2];
  EXPECT_EQ(::pipe(fds), 0);
  std::thread feeder([&] {
    std::size_t done = 0;
    while (done < bytes.size()) {
      ssize_t n = ::write(fds[1], bytes.data() + done, bytes.size() - done);
      if (n <= 0) break;  // the reader stopped early
      done += static_cast<std::size_t>(n);
    }
    ::close(fds[1]);
  });
  std::vector<std::string> infos = List("/proc/self/fd/" + std::to_string(fds[0]), ok);
  ::close(fds[0]);
  feeder.join();
  return infos;
}

TEST(BWFileWrapperReaderTest, ListsFromAPipeAsFromAFile) {
  TempDir temp;
  const ArchiveBytes sample = SampleArchive();
  WriteFile(temp / "archive", sample.bytes());
  bool ok = false;
  const std::vector<std::string> expected = List(temp / "archive", &ok);
  ASSERT_TRUE(ok);
  ASSERT_EQ(expected.size(), 7u);

  EXPECT_EQ(ListThroughPipe(sample.bytes(), &ok), expected);
  EXPECT_TRUE(ok);
  // Cut inside the long file's data, which the pipe makes the reader read rather than skip.
  const std::size_t cut = sample.boundaries()[3] - 5;
  EXPECT_EQ(ListThroughPipe(sample.bytes().substr(0, cut), &ok).size(), 2u);
  EXPECT_FALSE(ok);
}

}  // namespace
}  // namespace vm
