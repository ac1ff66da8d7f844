// The service in embedded mode tried as an attacker would: reused upload URLs, bodies
// larger than announced, slow peers, forged tokens, ambiguous requests, forged log
// lines and half-closed connections. Raw sockets where a client library would tidy up.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/services/vmcloudd/RawConnection.h"
#include "tests/services/vmcloudd/ServiceFixture.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using namespace std::chrono_literals;
using testing::ApiClient;
using testing::Exchange;
using testing::HttpReply;
using testing::RawConnection;
using testing::Send;
using testing::StatusOf;
using testing::TestBytes;

constexpr auto kHeaderTimeout = 1s;
constexpr auto kTransferGrace = 1s;

class HostileClientTest : public testing::ServiceFixture {
 protected:
  void SetUp() override {
    AttachmentServiceOptions options;
    options.max_json_body = 1024;
    options.threads = 2;  // fewer than the slow peers below
    options.header_timeout = kHeaderTimeout;
    options.transfer_grace = kTransferGrace;
    options.min_transfer_rate = 1024;
    StartService(std::move(options));
  }

  // "PUT /blobs/...?..." for a raw request to the upload URL of `started`.
  static std::string UploadTarget(const nlohmann::json& started) {
    const std::string url = started["upload_url"];
    return url.substr(url.find('/', url.find("://") + 3));
  }

  std::string StartRequest(std::string_view extra_headers, std::string_view body = R"({"size":5})",
                           std::string_view token = "alpha") const {
    return "POST /v1/_internal/attachment HTTP/1.1\r\nHost: 127.0.0.1\r\n"
           "Authorization: Velmora " +
           std::string(token) + "\r\nContent-Type: application/json\r\n" +
           std::string(extra_headers) + "\r\n" + std::string(body);
  }

  bool NothingIncoming() const {
    return std::filesystem::is_empty(dir_.path() / "data" / "blobs" / ".incoming");
  }
};

TEST_F(HostileClientTest, UploadURLWorksOnlyWhileTheAttachmentIsNew) {
  nlohmann::json started = StartUpload(5);
  const std::string uuid = started["uuid"];
  const std::string upload = started["upload_url"];
  ASSERT_EQ(Send("PUT", upload, "hello").status, 200);
  ASSERT_EQ(Send("PUT", upload, "HELLO").status, 200) << "a new attachment may be sent again";
  ASSERT_EQ(api_.confirm(uuid, 5).status, 200);
  const std::string download = api_.info(uuid).json()["download_url"];

  EXPECT_EQ(Send("PUT", upload, TestBytes(1000, 1)).status, 409);
  EXPECT_EQ(Send("PUT", upload, "xxxxx").status, 409);
  EXPECT_EQ(Send("GET", download).body, "HELLO") << "confirmed bytes must not change";

  ASSERT_EQ(api_.remove(uuid).status, 204);
  EXPECT_EQ(Send("PUT", upload, "hello").status, 404);
  EXPECT_FALSE(std::filesystem::exists(BlobPath(uuid))) << "a deletion must stay a deletion";
  EXPECT_EQ(Send("GET", download).status, 404);
  EXPECT_TRUE(NothingIncoming());
}

TEST_F(HostileClientTest, UploadIsHeldToTheAnnouncedSize) {
  nlohmann::json started = StartUpload(5);
  const std::string uuid = started["uuid"];
  const std::string head = "PUT " + UploadTarget(started) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  struct Case {
    const char* name;
    std::string request;
    int status;
  } cases[] = {
      // Only the header is sent: the refusal may not wait for the body.
      {"length far above the size", head + "Content-Length: 104857600\r\n\r\n", 413},
      {"length one above the size", head + "Content-Length: 6\r\n\r\n", 413},
      {"chunked body past the size",
       head + "Transfer-Encoding: chunked\r\n\r\n4\r\nabcd\r\n4\r\nefgh\r\n0\r\n\r\n", 413},
      {"chunked body that never ends",
       head + "Transfer-Encoding: chunked\r\n\r\n400\r\n" + std::string(1024, 'z'), 413},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(StatusOf(Exchange(service_->port(), c.request)), c.status);
    EXPECT_FALSE(std::filesystem::exists(BlobPath(uuid))) << "nothing may be stored";
    EXPECT_TRUE(NothingIncoming());
  }
  const std::string exact = head + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n";
  EXPECT_EQ(StatusOf(Exchange(service_->port(), exact)), 200);
  EXPECT_EQ(api_.confirm(uuid, 5).status, 200);
}

TEST_F(HostileClientTest, SlowPeersAreDroppedWithoutHoldingTheWorkers) {
  nlohmann::json uploading = StartUpload(100);
  // Twice as many slow peers as workers, of every kind the service reads from.
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 4; ++i) {
    slow.push_back(std::make_unique<RawConnection>(service_->port()));
    slow.back()->send("POST /v1/_internal/attachment HTTP/1.1\r\nHost: x\r\n");
    slow.push_back(std::make_unique<RawConnection>(service_->port()));
    slow.back()->send(StartRequest("Content-Length: 100\r\n", "{"));
    slow.push_back(std::make_unique<RawConnection>(service_->port()));
    slow.back()->send("PUT " + UploadTarget(uploading) +
                      " HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\nab");
  }
  const auto began = std::chrono::steady_clock::now();
  nlohmann::json started = StartUpload(3);
  ASSERT_EQ(Send("PUT", started["upload_url"], "abc").status, 200);
  ASSERT_EQ(api_.confirm(started["uuid"], 3).status, 200);
  EXPECT_EQ(Send("GET", api_.info(started["uuid"]).json()["download_url"]).body, "abc");
  EXPECT_LT(std::chrono::steady_clock::now() - began, 1s) << "a full cycle waited on slow peers";

  for (std::size_t i = 0; i < slow.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(slow[i]->closedByPeer(kHeaderTimeout + kTransferGrace + 2s));
  }
  // The dropped upload's clean-up runs on a worker just after the connection closes.
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (!NothingIncoming() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(NothingIncoming()) << "a dropped upload leaves nothing behind";
}

TEST_F(HostileClientTest, TokenMustBeTheWholeHeaderValue) {
  using std::string_literals::operator""s;
  struct Case {
    const char* name;
    std::string token;
    bool accepted;
  } cases[] = {
      {"the token", "alpha", true},
      {"NUL byte and more", "alpha\0more"s, false},
      {"NUL byte", "alpha\0"s, false},
      {"a second word", "alpha beta", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int status = StatusOf(Exchange(
        service_->port(), StartRequest("Content-Length: 10\r\n", R"({"size":5})", c.token)));
    if (c.accepted) {
      EXPECT_EQ(status, 201);
    } else {
      EXPECT_TRUE(status == 400 || status == 401) << status;
    }
  }
}

TEST_F(HostileClientTest, AmbiguousRequestsAreRefused) {
  struct Case {
    const char* name;
    std::string headers;
    int status;
  } cases[] = {
      {"plain", "Content-Length: 10\r\n", 201},
      {"two different lengths", "Content-Length: 10\r\nContent-Length: 4\r\n", 400},
      {"line without a colon", "Content-Length: 10\r\nX-Forwarded-For 1.2.3.4\r\n", 400},
      {"folded line", "Content-Length: 10\r\nX-Note: one\r\n two\r\n", 400},
      {"folded with a tab", "X-Note: one\r\n\tContent-Length: 4\r\nContent-Length: 10\r\n", 400},
      {"length and chunked", "Content-Length: 10\r\nTransfer-Encoding: chunked\r\n", 400},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(StatusOf(Exchange(service_->port(), StartRequest(c.headers))), c.status);
  }
}

TEST_F(HostileClientTest, LogLinesCannotBeForged) {
  LogCapture capture;
  const std::string forged = "%0a6.6.6.6%20%22GET%20forged%22%20200%200";
  const std::string request = "GET /v1/_internal/attachment/" + forged +
                              " HTTP/1.1\r\nHost: x\r\nAuthorization: Velmora alpha\r\n\r\n";
  EXPECT_EQ(StatusOf(Exchange(service_->port(), request)), 400);
  EXPECT_EQ(StatusOf(Exchange(service_->port(), "GET /%0d%0a%1b[2J HTTP/1.1\r\nHost: x\r\n\r\n")),
            404);
  std::vector<std::string> lines = capture.messages("http");
  ASSERT_EQ(lines.size(), 2u);
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    EXPECT_EQ(line.find_first_of(std::string("\r\n\x1b", 3)), std::string::npos);
    EXPECT_EQ(line.rfind("6.6.6.6", 0), std::string::npos);
  }
}

TEST_F(HostileClientTest, HalfClosedClientStillGetsItsAnswer) {
  LogCapture capture;
  nlohmann::json started = StartUpload(5);
  struct Case {
    const char* name;
    std::string request;
    int status;
  } cases[] = {
      {"start", StartRequest("Content-Length: 10\r\n"), 201},
      {"blob upload",
       "PUT " + UploadTarget(started) + " HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello",
       200},
      {"unknown path", "GET /nothing HTTP/1.1\r\nHost: x\r\n\r\n", 404},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawConnection connection(service_->port());
    ASSERT_TRUE(connection.send(c.request));
    connection.shutdownWrite();
    std::string answer = connection.readAll();
    EXPECT_EQ(StatusOf(answer), c.status) << answer;
  }
  EXPECT_EQ(api_.confirm(started["uuid"], 5).status, 200);
  std::vector<std::string> lines = capture.messages("http");
  ASSERT_GE(lines.size(), 3u);
  EXPECT_NE(lines[1].find("\"POST /v1/_internal/attachment\" 201"), std::string::npos) << lines[1];
}

TEST_F(HostileClientTest, ClientWaitingToSendItsBodyIsToldOnlyWhenItWillBeRead) {
  nlohmann::json started = StartUpload(5);
  const std::string head =
      "PUT " + UploadTarget(started) + " HTTP/1.1\r\nHost: 127.0.0.1\r\nExpect: 100-continue\r\n";
  // What the server sends first, while the body is still held back.
  auto first_answer = [](RawConnection& connection) {
    pollfd waiting{connection.fd(), POLLIN, 0};
    char buffer[512];
    if (::poll(&waiting, 1, 5000) <= 0) return std::string();
    ssize_t got = ::recv(connection.fd(), buffer, sizeof buffer, 0);
    return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
  };

  RawConnection refused(service_->port());
  ASSERT_TRUE(refused.send(head + "Content-Length: 6\r\n\r\n"));
  EXPECT_EQ(StatusOf(first_answer(refused)), 413) << "a body it will not read is not invited";

  RawConnection accepted(service_->port());
  ASSERT_TRUE(accepted.send(head + "Content-Length: 5\r\n\r\n"));
  const std::string invitation = first_answer(accepted);
  EXPECT_EQ(invitation, "HTTP/1.1 100 Continue\r\n\r\n");
  ASSERT_TRUE(accepted.send("hello"));
  accepted.shutdownWrite();
  EXPECT_EQ(StatusOf(accepted.readAll()), 200);
  EXPECT_EQ(api_.confirm(started["uuid"], 5).status, 200);
}

}  // namespace
}  // namespace vm
