#include "tools/vmattach/AttachmentVerifier.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <optional>
#include <system_error>
#include <vector>

#include "BWCryptographer/BWCryptographer.h"
#include "VMAttachments/cloud/AttachmentAPILoader.h"
#include "VMAttachments/cloud/AttachmentAPIRequest.h"
#include "VMAttachments/cloud/VMCAttachment.h"
#include "host/HXFileAttachment.h"
#include "host/HostConstants.h"
#include "platform/ScopedFd.h"
#include "platform/URLSession.h"

namespace vm::vmattach {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kReadChunk = 1 << 20;
constexpr std::uint64_t kAPIReplyLimit = 1 << 20;
constexpr double kStorageTimeout = 60.0;
constexpr int kSuccessfulInfoCode = 200;

VerifyOutcome Outcome(VerifyStatus status, std::string detail) {
  return VerifyOutcome{status, std::move(detail)};
}

std::string Describe(const ErrorRef& error) {
  return error ? error->localizedDescription() : std::string("no answer");
}

// SHA-1 over OpenSSL's digest API.
class Sha1 {
 public:
  Sha1() : ctx_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(ctx_, EVP_sha1(), nullptr); }
  ~Sha1() { EVP_MD_CTX_free(ctx_); }
  Sha1(const Sha1&) = delete;
  Sha1& operator=(const Sha1&) = delete;
  void update(const std::uint8_t* bytes, std::size_t length) {
    if (length > 0) EVP_DigestUpdate(ctx_, bytes, length);
  }
  Bytes finish() {
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx_, digest.data(), &length);
    digest.resize(length);
    return digest;
  }

 private:
  EVP_MD_CTX* ctx_;
};

bool IsGone(int code) { return code == ENOENT || code == ENOTDIR || code == ESTALE; }

// Opens one file and reads its first byte, or all of it when `deep`; nullopt when it is
// fine. Opening alone proves little on a share: its mount may still list a file the
// server no longer has, and open it without asking the server until the first read.
std::optional<VerifyOutcome> CheckFile(const fs::path& path, bool deep) {
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) {
    int code = errno;
    if (IsGone(code)) {
      return Outcome(VerifyStatus::kMissing, fmt::format("{} is not there", path.string()));
    }
    return Outcome(VerifyStatus::kMissing,
                   fmt::format("{} cannot be read: {}", path.string(), std::strerror(code)));
  }
  std::vector<std::uint8_t> chunk(deep ? kReadChunk : 1);
  for (;;) {
    ssize_t got = ::read(fd.get(), chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      int code = errno;
      if (IsGone(code)) {
        return Outcome(VerifyStatus::kMissing, fmt::format("{} is no longer there", path.string()));
      }
      return Outcome(VerifyStatus::kCorrupt, fmt::format("{} cannot be read through: {}",
                                                         path.string(), std::strerror(code)));
    }
    if (got == 0 || !deep) return std::nullopt;
  }
}

}  // namespace

std::string_view VerifyStatusName(VerifyStatus status) {
  switch (status) {
    case VerifyStatus::kOK:
      return "ok";
    case VerifyStatus::kMissing:
      return "missing";
    case VerifyStatus::kCorrupt:
      return "corrupt";
    case VerifyStatus::kPending:
      return "pending";
    case VerifyStatus::kUnreachable:
      return "unreachable";
  }
  return "corrupt";
}

VerifyOutcome VerifyStoredPath(const fs::path& path, bool deep) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return Outcome(VerifyStatus::kMissing, fmt::format("{} is not there", path.string()));
    }
    return Outcome(VerifyStatus::kMissing,
                   fmt::format("{} cannot be reached: {}", path.string(), std::strerror(errno)));
  }
  if (S_ISREG(st.st_mode)) {
    if (std::optional<VerifyOutcome> problem = CheckFile(path, deep)) return *problem;
    return Outcome(VerifyStatus::kOK, deep ? "read whole" : "there and readable");
  }
  if (!S_ISDIR(st.st_mode)) {
    return Outcome(VerifyStatus::kCorrupt,
                   fmt::format("{} is neither a file nor a folder", path.string()));
  }
  // Links inside a stored folder are not followed: they are the folder's content, not a
  // way out of it.
  std::error_code ec;
  fs::recursive_directory_iterator it(path, ec);
  std::size_t files = 0;
  for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    std::error_code type_error;
    if (!it->is_regular_file(type_error) || it->is_symlink(type_error)) continue;
    if (std::optional<VerifyOutcome> problem = CheckFile(it->path(), deep)) return *problem;
    ++files;
  }
  if (ec) {
    return Outcome(VerifyStatus::kMissing,
                   fmt::format("{} cannot be listed: {}", path.string(), ec.message()));
  }
  return Outcome(VerifyStatus::kOK,
                 fmt::format("folder of {} file{} {}", files, files == 1 ? "" : "s",
                             deep ? "read whole" : "there and readable"));
}

namespace {

struct InfoAnswer {
  std::shared_ptr<DownloadInfo> info;
  ErrorRef error;
  int status = 0;
};

InfoAnswer AskInfo(const CloudVerifyTarget& target, const std::shared_ptr<URLSession>& session,
                   ErrorRef* build_error) {
  auto request = std::make_shared<DownloadRequest>(kSuccessfulInfoCode);
  std::optional<URLRequest> url_request = request->makeRequest(target.uuid, build_error);
  if (!url_request) return {};
  url_request->addValue("application/json", "Content-Type");
  url_request->addValue("Velmora " + target.token, "Authorization");
  url_request->setMaximumResponseLength(kAPIReplyLimit);
  auto answer = std::make_shared<InfoAnswer>();
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  AttachmentAPILoader<DownloadRequest> loader(request, session);
  loader.load(
      *url_request,
      [answer, done](std::shared_ptr<DownloadInfo> value, ErrorRef error) {
        answer->info = std::move(value);
        answer->error = std::move(error);
        done->set_value();
      },
      [answer](const HTTPURLResponse& response) { answer->status = response.statusCode(); });
  finished.wait();
  return std::move(*answer);
}

// Feeds the stored bytes through both digests and the decryptor as they arrive.
struct StreamCheck {
  std::unique_ptr<BWCryptographer> decryptor;
  Sha1 crypted;
  Sha1 plain;
  bool cipher_failed = false;

  bool consume(const std::uint8_t* bytes, std::size_t length) {
    crypted.update(bytes, length);
    std::size_t out_length = length;
    CryptBuffer out = decryptor->cryptChunk(bytes, &out_length);
    if (!out || decryptor->failed()) {
      cipher_failed = true;
      return false;
    }
    plain.update(out.get(), out_length);
    return true;
  }
};

VerifyOutcome StreamStoredBytes(const CloudVerifyTarget& target, const URL& url, std::uint64_t size,
                                const std::shared_ptr<URLSession>& session) {
  auto check = std::make_shared<StreamCheck>();
  check->decryptor = BWCryptographer::decryptorWithData(target.encryption_data);
  if (!check->decryptor) {
    return Outcome(VerifyStatus::kCorrupt, "the row's encryption data cannot rebuild a decryptor");
  }
  URLRequest request(url, URLRequest::kUseProtocolCachePolicy, kStorageTimeout);
  request.setHTTPMethod("GET");
  request.setMaximumResponseLength(size);
  struct Answer {
    std::shared_ptr<const URLResponse> response;
    ErrorRef error;
  };
  auto answer = std::make_shared<Answer>();
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  std::shared_ptr<URLSessionTask> task = session->streamingDataTaskWithRequest(
      std::move(request),
      // The session may release this consumer on its own thread after the answer, even
      // after the process began to exit; a weak reference keeps the cipher and digest
      // contexts' destruction on this thread, before OpenSSL's clean-up at exit.
      [weak_check = std::weak_ptr<StreamCheck>(check)](const std::uint8_t* bytes,
                                                       std::size_t length) {
        std::shared_ptr<StreamCheck> live = weak_check.lock();
        return live && live->consume(bytes, length);
      },
      [answer, done](std::optional<std::vector<std::uint8_t>>,
                     std::shared_ptr<const URLResponse> response, ErrorRef error) {
        answer->response = std::move(response);
        answer->error = std::move(error);
        done->set_value();
      });
  task->resume();
  finished.wait();

  if (check->cipher_failed) {
    return Outcome(VerifyStatus::kCorrupt, "the stored bytes do not decrypt");
  }
  const auto* http = dynamic_cast<const HTTPURLResponse*>(answer->response.get());
  if (!http) {
    return Outcome(VerifyStatus::kUnreachable,
                   fmt::format("the storage did not answer: {}", Describe(answer->error)));
  }
  if (http->statusCode() == 404) {
    return Outcome(VerifyStatus::kMissing, "the storage has no bytes for it");
  }
  if (http->statusCode() < 200 || http->statusCode() >= 300) {
    return Outcome(VerifyStatus::kUnreachable,
                   fmt::format("the storage answered status {}", http->statusCode()));
  }
  if (answer->error) {
    return Outcome(
        VerifyStatus::kCorrupt,
        fmt::format("the stored bytes could not be read through: {}", Describe(answer->error)));
  }
  std::size_t final_length = 0;
  CryptBuffer final_chunk = check->decryptor->cryptFinalChunkWithLength(&final_length);
  if (final_chunk) check->plain.update(final_chunk.get(), final_length);
  if (check->crypted.finish() != target.crypted_hash) {
    return Outcome(VerifyStatus::kCorrupt,
                   "the stored bytes differ from those uploaded (SHA-1 of the encrypted bytes)");
  }
  if (!final_chunk) {
    return Outcome(VerifyStatus::kCorrupt, "the stored bytes fail authentication");
  }
  if (check->plain.finish() != target.source_hash) {
    return Outcome(VerifyStatus::kCorrupt,
                   "the decrypted bytes differ from the source (SHA-1 of the plain bytes)");
  }
  return Outcome(VerifyStatus::kOK, "uploaded; stored bytes read whole and decrypted");
}

}  // namespace

VerifyOutcome VerifyCloudAttachment(const CloudVerifyTarget& target, bool deep,
                                    const std::shared_ptr<URLSession>& session) {
  if (!target.uploaded) return Outcome(VerifyStatus::kPending, "the upload has not finished");
  ErrorRef build_error;
  InfoAnswer answer = AskInfo(target, session, &build_error);
  if (build_error) {
    return Outcome(VerifyStatus::kCorrupt,
                   fmt::format("the row's attachment UUID is unusable: {}", Describe(build_error)));
  }
  if (answer.status == 0) {
    return Outcome(VerifyStatus::kUnreachable,
                   fmt::format("the service did not answer: {}", Describe(answer.error)));
  }
  if (answer.status == 404) {
    return Outcome(VerifyStatus::kMissing, "the service does not know it as uploaded");
  }
  if (answer.status != kSuccessfulInfoCode || !answer.info) {
    return Outcome(
        VerifyStatus::kUnreachable,
        fmt::format("the service answered status {} without a usable reply", answer.status));
  }
  if (answer.info->state() != State::kUploaded) {
    return Outcome(VerifyStatus::kMissing,
                   fmt::format("the service has it as {}", StateRawValue(answer.info->state())));
  }
  if (!deep) return Outcome(VerifyStatus::kOK, "the service has it as uploaded");
  const std::optional<URL>& url = answer.info->downloadURL();
  if (!url || !url->isHTTP()) {
    return Outcome(VerifyStatus::kUnreachable, "the service gave no usable download address");
  }
  return StreamStoredBytes(target, *url, answer.info->size(), session);
}

CloudVerifyTarget CloudVerifyTargetOf(const HXFileAttachment& attachment,
                                      const VMCAttachment& handler) {
  CloudVerifyTarget target;
  target.uploaded = attachment.uploaded().value_or(false);
  target.uuid = attachment.attachmentUUID().value_or("");
  if (handler.authToken()) target.token = handler.authToken()->bearer();
  target.crypted_hash = attachment.bytesForKeyedSubscript(kHXFileAttachmentCryptedHash);
  target.source_hash = attachment.bytesForKeyedSubscript(kHXFileAttachmentSourceHash);
  target.encryption_data = attachment.encryptionData().value_or(Bytes{});
  return target;
}

}  // namespace vm::vmattach
