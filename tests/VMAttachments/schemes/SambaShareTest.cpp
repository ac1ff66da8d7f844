// The share schemes against a real SMB server on loopback, mounted through rclone and FUSE.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <random>

#include "VMAttachments/schemes/ShareSchemes.h"
#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "platform/Subprocess.h"
#include "platform/VolumeWatcher.h"
#include "tests/VMAttachments/schemes/ShareServerSupport.h"
#include "tests/VMAttachments/schemes/ShareTestHost.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::FreeLoopbackPort;
using testing::Program;
using testing::ReadFile;
using testing::RecordingDelegate;
using testing::TempDir;
using testing::Trimmed;
using testing::VmattachRunner;
using testing::WriteFile;
using Kinds = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr char kPassword[] = "s3cret pass";

std::string RandomBytes(size_t size) {
  std::mt19937 generator(42);
  std::string out(size, '\0');
  for (char& c : out) c = static_cast<char>(generator());
  return out;
}

// Counts the mount requests and hands them to the real mounter.
class CountingMounter : public ShareMounter {
 public:
  explicit CountingMounter(std::shared_ptr<ShareMounter> real) : real_(std::move(real)) {}
  int mountURLAsync(const ShareMountRequest& request, Completion completion) override {
    ++calls;
    return real_->mountURLAsync(request, std::move(completion));
  }
  std::string lastFailureReason() const override { return real_->lastFailureReason(); }
  std::atomic<int> calls{0};

 private:
  std::shared_ptr<ShareMounter> real_;
};

// smbd with a private configuration: its own folders, a port of the test's choosing on
// 127.0.0.1 only, one share, one user in a private password database.
class SambaShareTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::optional<std::string> missing =
            testing::MissingForShareTests({"smbd", "smbpasswd", "rclone", "fusermount3"})) {
      if (testing::SkipShareTests()) GTEST_SKIP() << *missing;
      FAIL() << *missing << " (VM_SKIP_SHARE_TESTS=1 skips this test)";
    }
    user_ = getpwuid(geteuid())->pw_name;
    share_ = dir_ / "share";
    for (const char* sub :
         {"share", "private", "lock", "state", "cache", "pid", "ncalrpc", "logs"}) {
      fs::create_directories(dir_ / sub);
    }
    port_ = FreeLoopbackPort();
    ASSERT_GT(port_, 0);
    fs::path conf = dir_ / "smb.conf";
    std::ofstream(conf) << "[global]\n"
                        << "  server role = standalone server\n"
                        << "  smb ports = " << port_ << "\n"
                        << "  interfaces = 127.0.0.1\n"
                        << "  bind interfaces only = yes\n"
                        << "  disable netbios = yes\n"
                        << "  private dir = " << (dir_ / "private").string() << "\n"
                        << "  lock directory = " << (dir_ / "lock").string() << "\n"
                        << "  state directory = " << (dir_ / "state").string() << "\n"
                        << "  cache directory = " << (dir_ / "cache").string() << "\n"
                        << "  pid directory = " << (dir_ / "pid").string() << "\n"
                        << "  ncalrpc dir = " << (dir_ / "ncalrpc").string() << "\n"
                        << "  log file = " << (dir_ / "logs" / "log.%m").string() << "\n"
                        << "  passdb backend = tdbsam:"
                        << (dir_ / "private" / "passdb.tdb").string() << "\n"
                        << "  load printers = no\n  printcap name = /dev/null\n"
                        << "  disable spoolss = yes\n  map to guest = never\n"
                        << "  server min protocol = SMB2\n"
                        << "[share]\n  path = " << share_.string() << "\n  read only = no\n";
    ProcessOptions add_user;
    add_user.input = std::string(kPassword) + "\n" + kPassword + "\n";
    ProcessResult added =
        RunProcess({Program("smbpasswd"), "-c", conf.string(), "-a", "-s", user_}, add_user);
    ASSERT_TRUE(added.succeeded()) << added.err;

    ErrorRef error;
    smbd_ = ChildProcess::Start({Program("smbd"), "--foreground", "--no-process-group",
                                 "--debug-stdout", "-s", conf.string()},
                                dir_ / "smbd.out", {}, &error);
    ASSERT_NE(smbd_, nullptr) << error->summary();
    ASSERT_TRUE(testing::WaitUntilListening(*smbd_, port_)) << ReadFile(dir_ / "smbd.out");

    FuseShareMounter::Options options;
    options.runtime_folder = dir_ / "run";
    mounter_ = std::make_shared<CountingMounter>(std::make_shared<FuseShareMounter>(options));
    ShareMounter::setShared(mounter_);
    HXAttachmentCache::setSharedCache(std::make_shared<testing::TestCache>());
  }

  // Unmounts everything mounted under the test's runtime folder, then stops smbd, whether
  // the test passed or not.
  void TearDown() override {
    ShareMounter::setShared(nullptr);
    HXAttachmentCache::setSharedCache(nullptr);
    testing::UnmountEverythingUnder(dir_ / "run");
    testing::UnmountEverythingUnder(dir_ / "xdg");
    if (smbd_) smbd_->stop();
  }

  std::string Server(const std::string& path) {
    return "smb://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::shared_ptr<HXFileAttachmentScheme> Scheme(const std::string& server,
                                                 const std::string& password,
                                                 const std::string& folder = "",
                                                 const std::string& user = "") {
    auto scheme = std::make_shared<HXFileAttachmentScheme>(&context_);
    scheme->setInfoData(
        MakeShareSettingsInfoData(server, user.empty() ? user_ : user, password, folder));
    return scheme;
  }
  static std::shared_ptr<testing::TestAttachment> Attachment(const std::string& name,
                                                             const std::string& path = "") {
    auto attachment = std::make_shared<testing::TestAttachment>(nullptr);
    attachment->setName(name);
    attachment->setAttachmentPath(path);
    attachment->setAttachmentModifyDate(Date(std::chrono::seconds(1700000000)));
    return attachment;
  }
  // Runs one transfer to its end and returns the message kinds.
  static Kinds Finish(const std::shared_ptr<RecordingDelegate>& delegate) {
    EXPECT_TRUE(delegate->waitUntilEnded(std::chrono::seconds(60)));
    return delegate->kinds();
  }

  TempDir dir_;
  fs::path share_;
  std::string user_;
  int port_ = -1;
  std::unique_ptr<ChildProcess> smbd_;
  std::shared_ptr<CountingMounter> mounter_;
  testing::TestContext context_;
};

TEST_F(SambaShareTest, AFPSchemeStoresRetrievesAndNoticesAnOutsideUnmount) {
  std::string contents = RandomBytes(1536 * 1024 + 11);
  WriteFile(dir_ / "src" / "hello.bin", contents);
  auto handler = std::make_shared<VMAFPAttachment>(Scheme(Server("/share/Attachments"), kPassword));
  auto hello = Attachment("hello.bin");

  auto store = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(
      handler->storeFile(dir_ / "src" / "hello.bin", "cache/hello.bin", hello, store, nullptr));
  ASSERT_EQ(Finish(store), (Kinds{"willSend", "finished"}));
  EXPECT_EQ(ReadFile(share_ / "Attachments" / "cache" / "hello.bin" / "hello.bin"), contents);
  ASSERT_TRUE(handler->volumePath());
  EXPECT_EQ(handler->sharePath(), *handler->volumePath() / "Attachments");
  EXPECT_EQ(mounter_->calls, 1);

  for (const char* folder : {"out1", "out2"}) {
    SCOPED_TRACE(folder);
    fs::create_directories(dir_ / folder);
    auto retrieve = std::make_shared<RecordingDelegate>();
    ASSERT_TRUE(handler->retrieveAttachment(hello, dir_ / folder, retrieve, nullptr));
    ASSERT_EQ(Finish(retrieve), (Kinds{"willReceive", "finished"}));
    EXPECT_EQ(ReadFile(dir_ / folder / "hello.bin"), contents);
    EXPECT_EQ(hello->attachmentModifyDate(), Date(std::chrono::seconds(1700000000)));
  }
  EXPECT_EQ(mounter_->calls, 1);  // the second retrieval used the mount as it was

  // The process serving the mount dies: the kernel keeps listing the mount, so no unmount
  // notice comes, yet the next retrieval must mount again rather than fail.
  ASSERT_TRUE(testing::KillMountDaemon(*handler->volumePath()));
  auto after_kill = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->retrieveAttachment(hello, dir_ / "out1", after_kill, nullptr));
  ASSERT_EQ(Finish(after_kill), (Kinds{"willReceive", "finished"}));
  EXPECT_EQ(ReadFile(dir_ / "out1" / "hello.bin"), contents);
  EXPECT_EQ(mounter_->calls, 2);

  ProcessResult unmounted = RunProcess({"fusermount3", "-u", handler->volumePath()->string()});
  ASSERT_TRUE(unmounted.succeeded()) << unmounted.err;
  ASSERT_TRUE(MainQueue::shared().runUntilCondition([&] { return !handler->isVolumeMounted(); },
                                                    Clock::now() + std::chrono::seconds(10)));
  EXPECT_EQ(handler->volumePath(), std::nullopt);

  WriteFile(dir_ / "src" / "second.txt", "second");
  auto second = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->storeFile(dir_ / "src" / "second.txt", "cache/second.txt",
                                 Attachment("second.txt"), second, nullptr));
  ASSERT_EQ(Finish(second), (Kinds{"willSend", "finished"}));
  EXPECT_EQ(mounter_->calls, 3);
  EXPECT_EQ(ReadFile(share_ / "Attachments" / "cache" / "second.txt" / "second.txt"), "second");

  // Refused credentials: the mount fails and the delegate hears it, without an error object.
  // (Another user, since a share already mounted for a user is handed out as it is.)
  auto refused_handler =
      std::make_shared<VMAFPAttachment>(Scheme(Server("/share"), "wrong", "", "intruder"));
  auto refused = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(refused_handler->storeFile(dir_ / "src" / "second.txt", "x", Attachment("second.txt"),
                                         refused, nullptr));
  ASSERT_EQ(Finish(refused), (Kinds{"willSend", "gotError"}));
  EXPECT_EQ(refused->last("gotError")->error, nullptr);
  EXPECT_NE(mounter_->lastFailureReason().find("refused the user name or password"),
            std::string::npos)
      << mounter_->lastFailureReason();
}

TEST_F(SambaShareTest, ArchiverSchemeUsesItsFolderAndFallsBackToTheServer) {
  WriteFile(share_ / "Attachments" / "old.txt", "kept on the server");
  fs::path folder = dir_ / "archive";  // not there yet: the first lookup needs the server
  auto handler =
      std::make_shared<VMArchiverAttachment>(Scheme(Server("/share"), kPassword, folder.string()));
  fs::create_directories(dir_ / "out");

  auto from_server = std::make_shared<RecordingDelegate>();
  auto old = Attachment("old.txt", "Attachments/old.txt");
  ASSERT_TRUE(handler->retrieveAttachment(old, dir_ / "out", from_server, nullptr));
  ASSERT_EQ(Finish(from_server), (Kinds{"willReceive", "finished"}));
  EXPECT_EQ(ReadFile(dir_ / "out" / "old.txt"), "kept on the server");
  EXPECT_EQ(mounter_->calls, 1);
  ASSERT_EQ(old->detailsURLs().size(), 1u);

  WriteFile(dir_ / "src" / "local.txt", "kept in the folder");
  auto note = Attachment("local.txt", "2024/local.txt");
  auto store = std::make_shared<RecordingDelegate>();
  ErrorRef error;
  ASSERT_TRUE(handler->storeFile(dir_ / "src" / "local.txt", "2024", note, store, &error));
  ASSERT_EQ(Finish(store), (Kinds{"willSend", "finished"}));
  EXPECT_EQ(ReadFile(folder / "2024" / "local.txt"), "kept in the folder");

  auto from_folder = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->retrieveAttachment(note, dir_ / "out", from_folder, &error));
  ASSERT_EQ(Finish(from_folder), (Kinds{"willReceive", "finished"}));
  EXPECT_EQ(ReadFile(dir_ / "out" / "local.txt"), "kept in the folder");
  EXPECT_EQ(note->detailsURLs(), std::vector<fs::path>{folder / "2024" / "local.txt"});
  EXPECT_EQ(mounter_->calls, 1);
}

// vmattach as a person uses it: files stored with and without a folder of their choosing
// come back byte for byte, a mount whose process died is mounted again, and `shares
// unmount --all` leaves no mount behind.
TEST_F(SambaShareTest, VmattachKeepsFoldersRemountsAndReleasesItsMounts) {
  VmattachRunner vmattach(dir_ / "data", dir_ / "xdg");
  ASSERT_TRUE(vmattach.available()) << "VMATTACH must name the vmattach program";
  std::map<std::string, std::string> password{{"VMATTACH_SHARE_PASSWORD", kPassword}};
  ProcessResult added = vmattach.run({"scheme", "add", "nas", "--type", "afp", "--server",
                                      Server("/share/Attachments"), "--user", user_},
                                     password);
  ASSERT_TRUE(added.succeeded()) << added.err;
  std::string plain = RandomBytes(700 * 1024);
  std::string filed = "filed under inbox";
  WriteFile(dir_ / "src" / "plain.bin", plain);
  WriteFile(dir_ / "src" / "letter.txt", filed);

  ProcessResult first =
      vmattach.run({"store", (dir_ / "src" / "plain.bin").string(), "--scheme", "nas"});
  ASSERT_TRUE(first.succeeded()) << first.err;
  ProcessResult second = vmattach.run(
      {"store", (dir_ / "src" / "letter.txt").string(), "--scheme", "nas", "--path", "inbox"});
  ASSERT_TRUE(second.succeeded()) << second.err;
  EXPECT_EQ(ReadFile(share_ / "Attachments" / "inbox" / "letter.txt"), filed);

  // What the share keeps of a stored file: the modification date, but not the mode 0774
  // that was asked for; rclone's SMB mount has no way to pass modes on.
  struct stat st;
  ASSERT_EQ(stat((share_ / "Attachments" / "inbox" / "letter.txt").c_str(), &st), 0);
  struct stat source;
  ASSERT_EQ(stat((dir_ / "src" / "letter.txt").c_str(), &source), 0);
  EXPECT_TRUE(testing::KeptModificationSecond(st, source));
  EXPECT_NE(st.st_mode & 0777, 0774u);

  struct Retrieval {
    std::string id;
    std::string name;
    std::string contents;
  };
  const Retrieval retrievals[] = {{Trimmed(first.out), "plain.bin", plain},
                                  {Trimmed(second.out), "letter.txt", filed}};
  for (const Retrieval& r : retrievals) {
    SCOPED_TRACE(r.name);
    fs::path out = dir_ / ("out-" + r.name);
    ProcessResult retrieved = vmattach.run({"retrieve", r.id, "--to", out.string()});
    ASSERT_TRUE(retrieved.succeeded()) << retrieved.err;
    EXPECT_EQ(ReadFile(out / r.name), r.contents);
  }

  ProcessResult listed = vmattach.run({"shares"});
  ASSERT_TRUE(listed.succeeded()) << listed.err;
  std::vector<std::string> mounts = testing::MountsUnder(vmattach.mountFolder());
  ASSERT_EQ(mounts.size(), 1u);
  EXPECT_NE(listed.out.find(mounts[0] + "\talive"), std::string::npos) << listed.out;

  ASSERT_TRUE(testing::KillMountDaemon(mounts[0]));
  listed = vmattach.run({"shares", "--json"});
  EXPECT_NE(listed.out.find("\"stale\""), std::string::npos) << listed.out;
  fs::path again = dir_ / "out-again";
  ProcessResult remounted = vmattach.run({"retrieve", Trimmed(second.out), "--to", again.string()});
  ASSERT_TRUE(remounted.succeeded()) << remounted.err;
  EXPECT_EQ(ReadFile(again / "letter.txt"), filed);
  EXPECT_TRUE(FuseShareMounter::MountPointAnswers(mounts[0]));

  ProcessResult released = vmattach.run({"shares", "unmount", "--all"});
  EXPECT_TRUE(released.succeeded()) << released.err;
  EXPECT_EQ(testing::MountsUnder(vmattach.mountFolder()), std::vector<std::string>{});
  EXPECT_EQ(Trimmed(vmattach.run({"shares"}).out), "");

  // A refused password: the mounter's own reason reaches the user, and the exit code says so.
  ProcessResult bad_scheme = vmattach.run({"scheme", "add", "wrong", "--type", "afp", "--server",
                                           Server("/share"), "--user", "intruder"},
                                          {{"VMATTACH_SHARE_PASSWORD", "not it"}});
  ASSERT_TRUE(bad_scheme.succeeded()) << bad_scheme.err;
  ProcessResult refused =
      vmattach.run({"store", (dir_ / "src" / "letter.txt").string(), "--scheme", "wrong"});
  EXPECT_FALSE(refused.succeeded());
  EXPECT_NE(refused.err.find("refused the user name or password"), std::string::npos)
      << refused.err;
}

}  // namespace
}  // namespace vm
