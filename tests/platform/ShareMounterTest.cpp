#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>

#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/ParsedURL.h"
#include "platform/ShareMounter.h"
#include "platform/Subprocess.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

TEST(ParsedURLTest, SplitsAndDecodes) {
  std::optional<ParsedURL> url = ParseURL("smb://anna@127.0.0.1:4455/My%20Share//a/b/");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme, "smb");
  EXPECT_EQ(url->host, "127.0.0.1");
  EXPECT_EQ(url->port, 4455);
  EXPECT_EQ(url->user, "anna");
  EXPECT_EQ(url->pathComponents(), (std::vector<std::string>{"My Share", "a", "b"}));
  EXPECT_TRUE(ParseURL("afp://srv/x"));
  EXPECT_FALSE(ParseURL(""));
  EXPECT_FALSE(ParseURL("just words"));
  EXPECT_EQ(PercentEncode("a b%/c", "/"), "a%20b%25/c");
}

TEST(SubprocessTest, FeedsInputCollectsOutputAndBoundsTheRun) {
  ProcessOptions options;
  options.input = "from stdin";
  options.environment["VM_TEST_VALUE"] = "from env";
  ProcessResult result = RunProcess(
      {"sh", "-c", "cat; printf ' %s' \"$VM_TEST_VALUE\"; echo oops >&2; exit 3"}, options);
  EXPECT_EQ(result.spawn_error, nullptr);
  EXPECT_EQ(result.exit_status, 3);
  EXPECT_EQ(result.out, "from stdin from env");
  EXPECT_EQ(result.err, "oops\n");

  options = {};
  options.timeout = std::chrono::milliseconds(200);
  result = RunProcess({"sleep", "30"}, options);
  EXPECT_TRUE(result.timed_out);
  EXPECT_FALSE(result.succeeded());

  result = RunProcess({"vm-no-such-program"});
  ASSERT_NE(result.spawn_error, nullptr);
  EXPECT_EQ(result.spawn_error->code(), ENOENT);
}

TEST(ShareMounterTest, RefusesWhatItCannotMountAtOnce) {
  TempDir dir;
  FuseShareMounter::Options options;
  options.runtime_folder = dir / "run";
  FuseShareMounter mounter(options);
  struct Case {
    std::string url;
    int status;
  };
  const Case cases[] = {
      {"ftp://srv/share", EPROTONOSUPPORT},
      {"smb://srv", EINVAL},
      {"not a url", EINVAL},
  };
  for (const Case& c : cases) {
    LogCapture log;
    std::atomic<bool> called{false};
    EXPECT_EQ(mounter.mountURLAsync({c.url, {}, {}, {}, {}, {}}, [&](int, auto) { called = true; }),
              c.status)
        << c.url;
    EXPECT_FALSE(log.messages("ShareMounter").empty());
    EXPECT_FALSE(called);
  }
}

// A stand-in for rclone that records how it was called and plays a server that refuses
// the password: enough to see what the mounter hands over, and how.
constexpr std::string_view kFakeRclone = R"(#!/bin/sh
{ echo "ARGS $*"; env | grep '^RCLONE_CONFIG_' ; } >> "$VM_FAKE_RCLONE_LOG"
case "$1" in
  obscure) cat >> "$VM_FAKE_RCLONE_LOG"; echo >> "$VM_FAKE_RCLONE_LOG"; echo OBSCURED ;;
  lsf) echo "ERROR : couldn't connect SMB: response error: The attempted logon is invalid." >&2; exit 1 ;;
  *) exit 1 ;;
esac
)";

TEST(ShareMounterTest, HandsThePasswordOverOnlyThroughStdinAndEnvironment) {
  TempDir dir;
  WriteFile(dir / "bin" / "rclone", kFakeRclone);
  fs::permissions(dir / "bin" / "rclone", fs::perms::owner_all);
  std::string path = (dir / "bin").string() + ":" + getenv("PATH");
  setenv("PATH", path.c_str(), 1);
  setenv("VM_FAKE_RCLONE_LOG", (dir / "calls.log").c_str(), 1);

  FuseShareMounter::Options options;
  options.runtime_folder = dir / "run";
  FuseShareMounter mounter(options);
  std::atomic<int> status{-1};
  std::atomic<bool> on_main{true};
  LogCapture log;
  ASSERT_EQ(
      mounter.mountURLAsync({"smb://127.0.0.1:4455/share", "sub", "anna", "pa ss;word", {}, {}},
                            [&](int s, std::vector<fs::path> points) {
                              on_main = MainQueue::isMainThread();
                              EXPECT_TRUE(points.empty());
                              status = s;
                            }),
      0);
  ASSERT_TRUE(MainQueue::shared().runUntilCondition(
      [&] { return status != -1; }, std::chrono::steady_clock::now() + std::chrono::seconds(20)));
  EXPECT_EQ(status, EACCES);
  EXPECT_FALSE(on_main);
  EXPECT_TRUE(log.contains("attempted logon is invalid"));

  std::string calls = ReadFile(dir / "calls.log");
  EXPECT_NE(calls.find("ARGS obscure -"), std::string::npos);
  EXPECT_NE(calls.find("RCLONE_CONFIG_VMSHARE_PASS=OBSCURED"), std::string::npos);
  EXPECT_NE(calls.find("RCLONE_CONFIG_VMSHARE_HOST=127.0.0.1"), std::string::npos);
  EXPECT_NE(calls.find("RCLONE_CONFIG_VMSHARE_PORT=4455"), std::string::npos);
  EXPECT_NE(calls.find("RCLONE_CONFIG_VMSHARE_USER=anna"), std::string::npos);
  EXPECT_NE(calls.find("ARGS lsf VMSHARE:share"), std::string::npos);
  // The plain password went to `rclone obscure` on its standard input and nowhere else.
  size_t first = calls.find("pa ss;word");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(calls.find("pa ss;word", first + 1), std::string::npos);
  for (const LogRecord& record : log.records()) {
    EXPECT_EQ(record.message.find("pa ss;word"), std::string::npos) << record.message;
  }
  struct stat st;
  ASSERT_EQ(stat((dir / "run").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_NE(mounter.lastFailureReason().find("refused the user name or password"),
            std::string::npos)
      << mounter.lastFailureReason();
}

TEST(ShareMounterTest, SaysInWordsWhyAMountHelperFailed) {
  struct Case {
    std::string message;
    int status;
    std::string words;
  };
  const Case cases[] = {
      {"NewFs: couldn't connect SSH: ssh: handshake failed: knownhosts: key is unknown", ENOKEY,
       "host key is not a known one"},
      {"ssh: handshake failed: knownhosts: key mismatch", EKEYREJECTED, "differs from the one"},
      {"couldn't parse known_hosts_file: open /x: no such file or directory", ENOKEY,
       "known-hosts file"},
      {"couldn't connect SMB: response error: The attempted logon is invalid.", EACCES,
       "refused the user name or password"},
      {"dial tcp 127.0.0.1:9: connect: connection refused", ECONNREFUSED, "unreachable"},
      {"tree connect: bad network name", ENOENT, "share does not exist"},
      {"something new", EIO, "something new"},
  };
  for (const Case& c : cases) {
    std::string reason;
    EXPECT_EQ(FuseShareMounter::ClassifyFailure(c.message, &reason), c.status) << c.message;
    EXPECT_NE(reason.find(c.words), std::string::npos) << reason;
  }
}

TEST(ShareMounterTest, MatchesGvfsVolumesOnExactValues) {
  struct Case {
    std::string folder;
    bool matches;
  };
  const Case cases[] = {
      {"afp-volume:host=nas.local,user=anna,volume=Shared", true},
      {"afp-volume:host=NAS.local,volume=Shared,user=anna", true},
      {"afp-volume:host=nas.local,user=anna,volume=Shared%20Files", false},
      {"afp-volume:host=nas.local.example,user=anna,volume=Shared", false},
      {"afp-volume:host=nas.local,user=annabel,volume=Shared", false},
      {"afp-volume:host=nas.local,user=anna,volume=Shared,port=5480", false},
      {"smb-share:server=nas.local,share=Shared", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FuseShareMounter::GvfsFolderMatches(c.folder, "nas.local", 548, "Shared", "anna"),
              c.matches)
        << c.folder;
  }
  EXPECT_TRUE(FuseShareMounter::GvfsFolderMatches("afp-volume:host=nas.local,volume=Shared%20Files",
                                                  "nas.local", std::nullopt, "Shared Files", ""));
}

}  // namespace
}  // namespace vm
