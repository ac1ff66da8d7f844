#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/Log.h"
#include "platform/SafeNames.h"

namespace vm {
namespace {

using namespace std::string_literals;

TEST(SafeNamesTest, FileNamesMustBeOneEntryOfAFolder) {
  struct Case {
    std::string name;
    bool accepted;
  } cases[] = {
      {"report.pdf", true},
      {"..hidden", true},
      {std::string(255, 'n'), true},
      {"with\nnewline", true},  // printable or not, a control character stays inside
      {"", false},
      {".", false},
      {"..", false},
      {"a/b", false},
      {"/etc", false},
      {"nul\0byte"s, false},
      {std::string(256, 'n'), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ErrorRef error = CheckFileName(c.name, "attachment name");
    EXPECT_EQ(error == nullptr, c.accepted);
    if (error) {
      EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
      EXPECT_EQ(error->code(), EINVAL);
      EXPECT_NE(error->localizedDescription().find("attachment name"), std::string::npos);
    }
  }
}

TEST(SafeNamesTest, RelativePathsMustNotLeaveTheirFolder) {
  struct Case {
    std::string path;
    bool accepted;
  } cases[] = {
      {"", true},           {"a/b/c", true}, {"a/./b", true},   {"a..b/c", true},
      {"a//b/", true},      {"/abs", false}, {"..", false},     {"../victim", false},
      {"a/../../b", false}, {"a/..", false}, {"a/b/..", false}, {"x\0/y"s, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    ErrorRef error = CheckRelativePath(c.path, "folder");
    EXPECT_EQ(error == nullptr, c.accepted);
    if (error) {
      EXPECT_EQ(error->code(), EINVAL);
    }
  }
}

TEST(SafeNamesTest, ControlCharactersAreEscapedAndTheRestKept) {
  struct Case {
    std::string text;
    std::string shown;
  } cases[] = {
      {"plain name.txt", "plain name.txt"},
      {"row\n4\tfake", "row\\n4\\tfake"},
      {"\r\x1b[2J\x7f", "\\r\\x1b[2J\\x7f"},
      {"nul\0"s, "nul\\x00"},
      {"csi\xc2\x9b", "csi\\u009b"},
      {"caf\xc3\xa9 \xc2\xa0", "caf\xc3\xa9 \xc2\xa0"},  // UTF-8 letters and NBSP stay
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.shown);
    EXPECT_EQ(EscapeControlCharacters(c.text), c.shown);
  }
}

// A name in a log line cannot start a line of its own.
TEST(SafeNamesTest, LogLinesCarryNoRawControlCharacters) {
  LogCapture capture;
  Log::Get("test", "names").error("stored {}", "evil\nforged line");
  ASSERT_EQ(capture.messages("names").size(), 1u);
  EXPECT_EQ(capture.messages("names")[0], "stored evil\\nforged line");
}

}  // namespace
}  // namespace vm
