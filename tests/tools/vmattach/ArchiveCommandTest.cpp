#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/VMAttachments/archive/ArchiveBytes.h"
#include "tests/support/TempDir.h"
#include "tools/vmattach/ArchiveCommand.h"

namespace vm::vmattach {
namespace {

namespace fs = std::filesystem;
using vm::testing::ArchiveBytes;
using vm::testing::ReadFile;
using vm::testing::TempDir;
using vm::testing::WriteFile;

struct CommandRun {
  int exit_code;
  std::string out;
  std::string err;
};

CommandRun Vmattach(std::vector<std::string> args) {
  CLI::App app("vmattach");
  GlobalOptions options;
  int exit_code = -1;
  AddArchiveCommands(app, options, &exit_code);
  args.insert(args.begin(), "vmattach");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::ParseError& e) {
    exit_code = app.exit(e);
  }
  std::string out = ::testing::internal::GetCapturedStdout();
  return {exit_code, out, ::testing::internal::GetCapturedStderr()};
}

TEST(ArchiveCommandTest, PackListUnpack) {
  TempDir temp;
  WriteFile(temp / "src/docs/a.txt", "hello");
  const std::string archive = (temp / "a.bwfw").string();

  EXPECT_EQ(Vmattach({"archive", "pack", (temp / "src").string(), archive}).exit_code, 0);
  EXPECT_EQ(
      Vmattach({"archive", "pack", (temp / "src").string(), (temp / "src/in").string()}).exit_code,
      1);
  EXPECT_FALSE(fs::exists(temp / "src/in"));
  CommandRun again = Vmattach({"archive", "pack", (temp / "src").string(), archive});
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_NE(again.err.find("com.brenwick.FileWrapper 0"), std::string::npos) << again.err;

  CommandRun list = Vmattach({"archive", "list", archive});
  EXPECT_EQ(list.exit_code, 0);
  EXPECT_NE(list.out.find("dir"), std::string::npos);
  EXPECT_NE(list.out.find("5 docs/a.txt\n"), std::string::npos) << list.out;
  CommandRun json = Vmattach({"archive", "list", "--json", archive});
  EXPECT_EQ(nlohmann::json::parse(json.out).size(), 2u);

  EXPECT_EQ(Vmattach({"archive", "unpack", archive, (temp / "out/new").string()}).exit_code, 0);
  EXPECT_EQ(ReadFile(temp / "out/new/docs/a.txt"), "hello");
}

TEST(ArchiveCommandTest, UnpackOutcomes) {
  TempDir temp;
  const std::string stored_link = R"({"path":"a\/b","type":"NSFileTypeSymbolicLink"})";
  WriteFile(temp / "unnamed", ArchiveBytes()
                                  .magic()
                                  .info(R"({"type":"NSFileTypeRegular"})")
                                  .data("x")
                                  .info(stored_link)
                                  .bytes());
  // Listing shows each info block exactly as stored, escaped slash included.
  CommandRun json = Vmattach({"archive", "list", "--json", (temp / "unnamed").string()});
  EXPECT_NE(json.out.find(stored_link), std::string::npos) << json.out;
  EXPECT_EQ(nlohmann::json::parse(json.out).size(), 2u);
  CommandRun warned =
      Vmattach({"archive", "unpack", (temp / "unnamed").string(), (temp / "d1").string()});
  EXPECT_EQ(warned.exit_code, 0);
  EXPECT_NE(warned.err.find("warning"), std::string::npos);
  EXPECT_EQ(ReadFile(temp / "d1/0.recovered"), "x");

  WriteFile(temp / "bad", "NOTANARCHIVE!!");
  CommandRun bad = Vmattach({"archive", "unpack", (temp / "bad").string(), (temp / "d2").string()});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_NE(bad.err.find("com.brenwick.FileWrapper 1"), std::string::npos) << bad.err;

  WriteFile(temp / "short", ArchiveBytes().magic().u64(100).bytes());
  CommandRun cut = Vmattach({"archive", "list", (temp / "short").string()});
  EXPECT_EQ(cut.exit_code, 1);
  EXPECT_NE(cut.err.find("NSPOSIXErrorDomain"), std::string::npos) << cut.err;
}

}  // namespace
}  // namespace vm::vmattach
