#include "services/vmcloudd/EmbeddedBlobStorage.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <system_error>

#include "platform/ScopedFd.h"
#include "platform/UniqueID.h"
#include "services/vmcloudd/HttpServer.h"
#include "services/vmcloudd/ServiceError.h"
#include "services/vmcloudd/internal/Crypto.h"
#include "services/vmcloudd/internal/Responses.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSigningKeySize = 32;
constexpr std::string_view kSigningKeyFile = "url-signing.key";
constexpr std::string_view kIncomingFolder = ".incoming";

ErrorRef StorageError(std::string_view what, ErrorRef underlying) {
  return CloudServiceError(kVMCloudServiceStorageFailed, what, std::move(underlying));
}

bool WriteAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t written = ::write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Reads the signing key, or makes one when there is none yet. O_EXCL makes the first of
// two racing starts win; the loser reads the winner's key.
std::optional<std::string> LoadOrCreateKey(const fs::path& file, ErrorRef* error) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    ScopedFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() >= 0) {
      std::string key(kSigningKeySize + 1, '\0');
      ssize_t got = ::read(fd.get(), key.data(), key.size());
      if (got != static_cast<ssize_t>(kSigningKeySize)) {
        Fail(error, StorageError(fmt::format("The URL signing key {} is damaged: it must hold "
                                             "exactly {} bytes",
                                             file.string(), kSigningKeySize),
                                 nullptr));
        return std::nullopt;
      }
      key.resize(kSigningKeySize);
      return key;
    }
    if (errno != ENOENT) {
      Fail(error, PosixError(errno, file));
      return std::nullopt;
    }
    auto key = internal::RandomBytes(kSigningKeySize);
    if (!key) {
      Fail(error, StorageError("The system's random generator failed", nullptr));
      return std::nullopt;
    }
    ScopedFd out(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (out.get() < 0) {
      if (errno == EEXIST) continue;
      Fail(error, PosixError(errno, file));
      return std::nullopt;
    }
    if (!WriteAll(out.get(), key->data(), key->size()) || ::fsync(out.get()) != 0) {
      int saved = errno;
      ::unlink(file.c_str());
      Fail(error, PosixError(saved, file));
      return std::nullopt;
    }
    return key;
  }
  Fail(error, StorageError("The URL signing key could not be made", nullptr));
  return std::nullopt;
}

std::optional<std::int64_t> ParseInteger(std::string_view text) {
  std::int64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

class EmbeddedBlobStorage::Impl {
 public:
  Impl(fs::path directory, std::string key, std::uint64_t max_blob_size, ServiceClock clock)
      : directory_(std::move(directory)),
        incoming_(directory_ / kIncomingFolder),
        key_(std::move(key)),
        max_blob_size_(max_blob_size),
        clock_(std::move(clock)) {}

  std::string signedURL(std::string_view method, std::string_view key,
                        std::chrono::seconds lifetime) const {
    std::int64_t expires =
        std::chrono::duration_cast<std::chrono::seconds>((clock_() + lifetime).time_since_epoch())
            .count();
    return fmt::format("{}{}{}?expires={}&signature={}", base_url_, kRoutePrefix, key, expires,
                       signature(method, key, expires));
  }

  std::string signature(std::string_view method, std::string_view key, std::int64_t expires) const {
    return internal::HexEncode(internal::HmacSha256(
        key_, fmt::format("{}\n{}{}\n{}", method, kRoutePrefix, key, expires)));
  }

  fs::path blobPath(std::string_view key) const { return directory_ / key; }

  // Checks the URL a request came with. Sends the refusal and returns false when it
  // does not grant `method` on the blob.
  bool authorize(const HttpRequest& request, std::string_view method, const std::string& key,
                 HttpResponse& response) const {
    const std::string expires_text = request.queryParameter("expires");
    const std::string given = request.queryParameter("signature");
    auto expires = ParseInteger(expires_text);
    if (!expires || given.empty() ||
        !internal::ConstantTimeEquals(given, signature(method, key, *expires))) {
      internal::SendError(response, 403, "forbidden", "The URL's signature does not match");
      return false;
    }
    auto now = std::chrono::duration_cast<std::chrono::seconds>(clock_().time_since_epoch());
    if (now.count() > *expires) {
      internal::SendError(response, 403, "expired", "The URL has expired");
      return false;
    }
    return true;
  }

  // Refuses with the gate's decision; false when the upload may go on.
  static bool Refused(const UploadGate::Decision& decision, HttpResponse& response) {
    if (decision.status == 0) return false;
    internal::SendError(response, decision.status, decision.code, decision.message);
    return true;
  }

  class BlobUpload;
  std::unique_ptr<BodySink> handlePut(HttpRequest& request, HttpResponse& response) const;

  void handleGet(const HttpRequest& request, HttpResponse& response) const {
    auto key = ParseUUID(request.matches[1]);
    if (!key) return internal::SendError(response, 404, "not_found", "No such blob");
    if (!authorize(request, "GET", *key, response)) return;
    int fd = ::open(blobPath(*key).c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0) {
      if (fd >= 0) ::close(fd);
      return internal::SendError(response, 404, "not_found", "No such blob");
    }
    // The descriptor keeps the bytes readable even if a deletion removes the file while
    // this answer is being sent.
    response.status = 200;
    response.content_type = "application/octet-stream";
    response.setFile(fd, static_cast<std::uint64_t>(info.st_size));
  }

  fs::path directory_;
  fs::path incoming_;
  std::string key_;
  std::uint64_t max_blob_size_;
  ServiceClock clock_;
  std::string base_url_;
  UploadGate* gate_ = nullptr;
};

// Streams one upload into a temporary file beside the blobs and moves it into place
// only when the whole body arrived and the gate still allows it.
class EmbeddedBlobStorage::Impl::BlobUpload : public BodySink {
 public:
  BlobUpload(const Impl& storage, std::string key, std::uint64_t limit, std::string temp, int fd)
      : storage_(storage), key_(std::move(key)), limit_(limit), temp_(std::move(temp)), fd_(fd) {}
  ~BlobUpload() override {
    fd_.reset();
    if (!stored_) ::unlink(temp_.c_str());
  }

  std::uint64_t limit() const override { return limit_; }
  bool write(const char* data, std::size_t size) override {
    return WriteAll(fd_.get(), data, size);
  }
  void finish(HttpRequest&, BodyOutcome outcome, HttpResponse& response) override {
    if (outcome == BodyOutcome::kTooLarge) {
      return internal::SendError(response, 413, "too_large",
                                 fmt::format("The blob may hold at most {} bytes", limit_));
    }
    if (outcome == BodyOutcome::kIncomplete) {
      return internal::SendError(response, 400, "incomplete",
                                 "The body ended before it was complete");
    }
    bool written = outcome == BodyOutcome::kComplete && ::fdatasync(fd_.get()) == 0;
    fd_.reset();
    if (written) {
      auto store = [&] {
        stored_ = ::rename(temp_.c_str(), storage_.blobPath(key_).c_str()) == 0;
        return stored_;
      };
      if (storage_.gate_ == nullptr) {
        store();
      } else if (Refused(storage_.gate_->commit(key_, store), response)) {
        return;
      }
    }
    if (!stored_) {
      return internal::SendError(response, 500, "storage_failed", "The blob could not be stored");
    }
    response.status = 200;
  }

 private:
  const Impl& storage_;
  std::string key_;
  std::uint64_t limit_;
  std::string temp_;
  ScopedFd fd_;
  bool stored_ = false;
};

std::unique_ptr<BodySink> EmbeddedBlobStorage::Impl::handlePut(HttpRequest& request,
                                                               HttpResponse& response) const {
  auto key = ParseUUID(request.matches[1]);
  if (!key) {
    internal::SendError(response, 404, "not_found", "No such blob");
    return nullptr;
  }
  if (!authorize(request, "PUT", *key, response)) return nullptr;
  std::uint64_t limit = max_blob_size_;
  if (gate_ != nullptr) {
    UploadGate::Decision decision = gate_->check(*key);
    if (Refused(decision, response)) return nullptr;
    limit = std::min(limit, decision.size);
  }
  std::string temp = (incoming_ / (*key + ".XXXXXX")).string();
  int fd = ::mkstemp(temp.data());
  if (fd < 0) {
    internal::SendError(response, 500, "storage_failed", "The blob could not be stored");
    return nullptr;
  }
  return std::make_unique<BlobUpload>(*this, *key, limit, std::move(temp), fd);
}

std::unique_ptr<EmbeddedBlobStorage> EmbeddedBlobStorage::Open(const fs::path& directory,
                                                               std::uint64_t max_blob_size,
                                                               ServiceClock clock,
                                                               ErrorRef* error) {
  std::error_code ec;
  fs::create_directories(directory / kIncomingFolder, ec);
  if (ec) {
    Fail(error, StorageError(fmt::format("Cannot make the blob folder {}", directory.string()),
                             PosixError(ec, directory)));
    return nullptr;
  }
  // Whatever is still incoming belonged to uploads that a stop cut short.
  for (const auto& entry : fs::directory_iterator(directory / kIncomingFolder, ec)) {
    std::error_code ignored;
    fs::remove(entry.path(), ignored);
  }
  auto key = LoadOrCreateKey(directory / kSigningKeyFile, error);
  if (!key) return nullptr;
  return std::unique_ptr<EmbeddedBlobStorage>(new EmbeddedBlobStorage(
      std::make_unique<Impl>(directory, std::move(*key), max_blob_size, std::move(clock))));
}

EmbeddedBlobStorage::EmbeddedBlobStorage(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
EmbeddedBlobStorage::~EmbeddedBlobStorage() = default;

void EmbeddedBlobStorage::setSigningKey(std::string key) { impl_->key_ = std::move(key); }

void EmbeddedBlobStorage::setBaseURL(std::string base_url) {
  while (!base_url.empty() && base_url.back() == '/') base_url.pop_back();
  impl_->base_url_ = std::move(base_url);
}

void EmbeddedBlobStorage::setUploadGate(UploadGate* gate) { impl_->gate_ = gate; }

void EmbeddedBlobStorage::installRoutes(HttpServer* server) {
  const std::string pattern = std::string(kRoutePrefix) + "([^/]+)";
  Impl* impl = impl_.get();
  server->route(
      "PUT", pattern,
      [impl](HttpRequest& request, HttpResponse& response) {
        return impl->handlePut(request, response);
      },
      "blob_put");
  server->route(
      "GET", pattern,
      [impl](HttpRequest& request, HttpResponse& response) {
        impl->handleGet(request, response);
        return std::unique_ptr<BodySink>();
      },
      "blob_get");
}

std::string EmbeddedBlobStorage::uploadURL(std::string_view key,
                                           std::chrono::seconds lifetime) const {
  return impl_->signedURL("PUT", key, lifetime);
}

std::string EmbeddedBlobStorage::downloadURL(std::string_view key,
                                             std::chrono::seconds lifetime) const {
  return impl_->signedURL("GET", key, lifetime);
}

namespace {

// Keys reach the provider from request paths and from record rows, which another process
// sharing the records may have written: only a canonical UUID names a file in the folder.
bool IsBlobKey(std::string_view key, ErrorRef* error) {
  if (ParseUUID(key) == key) return true;
  return Fail(error, StorageError("A stored blob is named by an attachment UUID, not by this key",
                                  nullptr));
}

}  // namespace

bool EmbeddedBlobStorage::statObject(std::string_view key, StoredObject* object,
                                     ErrorRef* error) const {
  if (!IsBlobKey(key, error)) return false;
  const fs::path path = impl_->blobPath(key);
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) {
      *object = StoredObject{};
      return true;
    }
    return Fail(error, StorageError("Cannot look at a stored blob", PosixError(errno, path)));
  }
  *object = StoredObject{true, static_cast<std::uint64_t>(info.st_size)};
  return true;
}

bool EmbeddedBlobStorage::removeObject(std::string_view key, ErrorRef* error) const {
  if (!IsBlobKey(key, error)) return false;
  const fs::path path = impl_->blobPath(key);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    return Fail(error, StorageError("Cannot remove a stored blob", PosixError(errno, path)));
  }
  return true;
}

bool EmbeddedBlobStorage::probe(ErrorRef* error) const {
  std::string path = (impl_->incoming_ / ".probe-XXXXXX").string();
  int fd = ::mkstemp(path.data());
  if (fd < 0) {
    return Fail(error, StorageError("Cannot write in the blob folder", PosixError(errno, path)));
  }
  const bool written = ::write(fd, "r", 1) == 1;
  const int saved = errno;
  ::close(fd);
  ::unlink(path.c_str());
  if (!written) {
    return Fail(error, StorageError("Cannot write in the blob folder", PosixError(saved, path)));
  }
  return true;
}

}  // namespace vm
