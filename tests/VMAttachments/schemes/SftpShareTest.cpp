// The share scheme against a real sshd on loopback with a host key of its own, mounted
// through rclone and FUSE: the server's key decides whether the mount goes ahead.

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "platform/Subprocess.h"
#include "tests/VMAttachments/schemes/ShareServerSupport.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::TempDir;
using testing::Trimmed;
using testing::VmattachRunner;
using testing::WriteFile;

bool MakeKey(const fs::path& file) {
  ProcessResult made =
      RunProcess({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "", "-f", file.string()});
  return made.succeeded();
}

class SftpShareTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::optional<std::string> missing = testing::MissingForShareTests(
            {"sshd", "ssh-keygen", "ssh-keyscan", "rclone", "fusermount3"})) {
      if (testing::SkipShareTests()) GTEST_SKIP() << *missing;
      FAIL() << *missing << " (VM_SKIP_SHARE_TESTS=1 skips this test)";
    }
    user_ = getpwuid(geteuid())->pw_name;
    fs::create_directories(dir_ / "share");
    ASSERT_TRUE(MakeKey(dir_ / "host_key"));
    ASSERT_TRUE(MakeKey(dir_ / "user_key"));
    fs::copy_file(dir_ / "user_key.pub", dir_ / "authorized_keys");
    // sshd refuses to start without its privilege-separation folder.
    fs::create_directories("/run/sshd");
    port_ = testing::FreeLoopbackPort();
    ASSERT_GT(port_, 0);
    std::ofstream(dir_ / "sshd_config")
        << "Port " << port_ << "\n"
        << "ListenAddress 127.0.0.1\n"
        << "HostKey " << (dir_ / "host_key").string() << "\n"
        << "AuthorizedKeysFile " << (dir_ / "authorized_keys").string() << "\n"
        << "PubkeyAuthentication yes\nPasswordAuthentication no\n"
        << "KbdInteractiveAuthentication no\nPermitRootLogin prohibit-password\n"
        << "StrictModes no\nUsePAM no\nPidFile none\n"
        << "Subsystem sftp internal-sftp\n";
    startSshd();
  }

  void TearDown() override {
    testing::UnmountEverythingUnder(dir_ / "xdg");
    if (sshd_) sshd_->stop();
  }

  void startSshd() {
    ErrorRef error;
    sshd_ = ChildProcess::Start(
        {testing::Program("sshd"), "-D", "-e", "-f", (dir_ / "sshd_config").string()},
        dir_ / "sshd.out", {}, &error);
    ASSERT_NE(sshd_, nullptr) << error->summary();
    ASSERT_TRUE(testing::WaitUntilListening(*sshd_, port_)) << ReadFile(dir_ / "sshd.out");
  }

  // The share is the test's folder, named by its absolute path on the server.
  std::string Server() const {
    return "sftp://127.0.0.1:" + std::to_string(port_) + (dir_ / "share").string();
  }

  TempDir dir_;
  std::string user_;
  int port_ = -1;
  std::unique_ptr<ChildProcess> sshd_;
};

TEST_F(SftpShareTest, MountsOnlyAServerWhoseHostKeyIsKnownAndUnchanged) {
  VmattachRunner vmattach(dir_ / "data", dir_ / "xdg");
  ASSERT_TRUE(vmattach.available()) << "VMATTACH must name the vmattach program";
  fs::path known_hosts = dir_ / "known_hosts";
  WriteFile(known_hosts, "");
  std::vector<std::string> scheme_add = {"scheme",
                                         "add",
                                         "ssh",
                                         "--type",
                                         "afp",
                                         "--server",
                                         Server(),
                                         "--user",
                                         user_,
                                         "--identity",
                                         (dir_ / "user_key").string(),
                                         "--known-hosts",
                                         known_hosts.string()};
  ProcessResult added = vmattach.run(scheme_add);
  ASSERT_TRUE(added.succeeded()) << added.err;
  std::string contents(300 * 1024, 'x');
  WriteFile(dir_ / "src" / "report.pdf", contents);
  WriteFile(dir_ / "src" / "note.txt", "under a folder");
  std::vector<std::string> store = {"store", (dir_ / "src" / "report.pdf").string(), "--scheme",
                                    "ssh"};

  ProcessResult unknown = vmattach.run(store);
  EXPECT_FALSE(unknown.succeeded());
  EXPECT_NE(unknown.err.find("host key is not a known one"), std::string::npos) << unknown.err;
  EXPECT_EQ(testing::MountsUnder(vmattach.mountFolder()), std::vector<std::string>{});

  std::vector<std::string> accept = scheme_add;
  accept.push_back("--accept-host-key");
  ProcessResult accepted = vmattach.run(accept);
  ASSERT_TRUE(accepted.succeeded()) << accepted.err;
  EXPECT_NE(ReadFile(known_hosts).find("[127.0.0.1]:" + std::to_string(port_) + " ssh-ed25519"),
            std::string::npos);

  ProcessResult first = vmattach.run(store);
  ASSERT_TRUE(first.succeeded()) << first.err;
  ProcessResult second = vmattach.run(
      {"store", (dir_ / "src" / "note.txt").string(), "--scheme", "ssh", "--path", "2024/inbox"});
  ASSERT_TRUE(second.succeeded()) << second.err;
  EXPECT_EQ(ReadFile(dir_ / "share" / "2024" / "inbox" / "note.txt"), "under a folder");
  // Kept on the server: the modification date; not the mode 0774, which rclone's mount
  // does not pass on.
  struct stat stored, source;
  ASSERT_EQ(stat((dir_ / "share" / "2024" / "inbox" / "note.txt").c_str(), &stored), 0);
  ASSERT_EQ(stat((dir_ / "src" / "note.txt").c_str(), &source), 0);
  EXPECT_TRUE(testing::KeptModificationSecond(stored, source));
  EXPECT_NE(stored.st_mode & 0777, 0774u);
  for (const auto& [id, name, bytes] :
       {std::tuple{Trimmed(first.out), "report.pdf", contents},
        std::tuple{Trimmed(second.out), "note.txt", std::string("under a folder")}}) {
    fs::path out = dir_ / "out" / name;
    ProcessResult retrieved = vmattach.run({"retrieve", id, "--to", out.string()});
    ASSERT_TRUE(retrieved.succeeded()) << retrieved.err;
    EXPECT_EQ(ReadFile(out / name), bytes) << name;
  }

  // The server comes back with another host key: nothing is mounted any more.
  ASSERT_TRUE(vmattach.run({"shares", "unmount", "--all"}).succeeded());
  sshd_->stop();
  fs::remove(dir_ / "host_key");
  fs::remove(dir_ / "host_key.pub");
  ASSERT_TRUE(MakeKey(dir_ / "host_key"));
  startSshd();
  ProcessResult changed =
      vmattach.run({"retrieve", Trimmed(first.out), "--to", (dir_ / "out" / "again").string()});
  EXPECT_FALSE(changed.succeeded());
  EXPECT_NE(changed.err.find("differs from the one recorded"), std::string::npos) << changed.err;
  EXPECT_EQ(testing::MountsUnder(vmattach.mountFolder()), std::vector<std::string>{});
}

// What `verify` says of files stored on a share: ok while they are there (read whole with
// --deep), missing once one is gone from the server, unreachable when the share cannot be
// mounted; and it writes nothing in the temporary folder or the attachment cache.
TEST_F(SftpShareTest, VerifyReportsTheSharesStateWritingNothing) {
  VmattachRunner vmattach(dir_ / "data", dir_ / "xdg");
  ASSERT_TRUE(vmattach.available()) << "VMATTACH must name the vmattach program";
  fs::create_directories(dir_ / "tmp");
  WriteFile(dir_ / "known_hosts", "");
  const std::map<std::string, std::string> env{{"TMPDIR", (dir_ / "tmp").string()}};
  auto run = [&](std::vector<std::string> args) { return vmattach.run(std::move(args), env); };
  ProcessResult added =
      run({"scheme", "add", "ssh", "--type", "afp", "--server", Server(), "--user", user_,
           "--identity", (dir_ / "user_key").string(), "--known-hosts",
           (dir_ / "known_hosts").string(), "--accept-host-key"});
  ASSERT_TRUE(added.succeeded()) << added.err;
  WriteFile(dir_ / "src" / "kept.bin", std::string(2 * 1024 * 1024 + 7, 'k'));
  WriteFile(dir_ / "src" / "gone.txt", "removed from the server later");
  std::string ids[2];
  for (int i = 0; i < 2; ++i) {
    ProcessResult stored =
        run({"store", (dir_ / "src" / (i == 0 ? "kept.bin" : "gone.txt")).string(), "--scheme",
             "ssh", "--path", "box"});
    ASSERT_TRUE(stored.succeeded()) << stored.err;
    ids[i] = Trimmed(stored.out);
  }
  // Every path under the temporary folder and the cache, with its size and time.
  auto snapshot = [&] {
    std::string out;
    for (const fs::path& root : {dir_ / "tmp", dir_ / "data" / "cache"}) {
      std::error_code ec;
      for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        struct stat st {};
        ::lstat(it->path().c_str(), &st);
        out += it->path().string() + " " + std::to_string(st.st_size) + " " +
               std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + "\n";
      }
    }
    return out;
  };
  // The status verify gave `id` ("id\tscheme\tstatus\tdetail" lines).
  auto status = [](const ProcessResult& result, const std::string& id) {
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind(id + "\t", 0) != 0) continue;
      std::size_t from = line.find('\t', id.size() + 1) + 1;
      return line.substr(from, line.find('\t', from) - from);
    }
    return std::string("absent");
  };
  const std::string before = snapshot();

  for (const char* depth : {"--jobs=1", "--deep"}) {
    SCOPED_TRACE(depth);
    ProcessResult intact = run({"verify", depth});
    EXPECT_EQ(intact.exit_status, 0) << intact.out << intact.err;
    EXPECT_EQ(status(intact, ids[0]) + " " + status(intact, ids[1]), "ok ok") << intact.out;
  }

  fs::remove(dir_ / "share" / "box" / "gone.txt");
  for (const char* depth : {"--jobs=1", "--deep"}) {
    SCOPED_TRACE(depth);
    ProcessResult removed = run({"verify", depth});
    EXPECT_EQ(removed.exit_status, 1) << removed.out << removed.err;
    EXPECT_EQ(status(removed, ids[0]) + " " + status(removed, ids[1]), "ok missing") << removed.out;
  }

  // The server goes away and the mount's process dies with it: nothing can be mounted.
  sshd_->stop();
  std::vector<std::string> mounts = testing::MountsUnder(vmattach.mountFolder());
  ASSERT_EQ(mounts.size(), 1u);
  ASSERT_TRUE(testing::KillMountDaemon(mounts[0]));
  ProcessResult down = run({"verify", ids[0]});
  EXPECT_EQ(down.exit_status, 1) << down.out << down.err;
  EXPECT_EQ(status(down, ids[0]), "unreachable") << down.out;
  EXPECT_EQ(snapshot(), before);
}

}  // namespace
}  // namespace vm
