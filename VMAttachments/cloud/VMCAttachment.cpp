#include "VMAttachments/cloud/VMCAttachment.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "BWCryptographer/BWCryptographer.h"
#include "BWFoundation/BWFileManagerAdditions.h"
#include "VMAttachments/archive/VMArchiver.h"
#include "host/Fetch.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXObjectContext.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"
#include "platform/Log.h"
#include "platform/Operation.h"
#include "platform/OwnerLock.h"
#include "platform/SafeNames.h"
#include "platform/ScopedFd.h"

namespace vm {

namespace fs = std::filesystem;

const void* const kVMAttachmentUploadRetryContext = &kVMAttachmentUploadRetryContext;

std::optional<std::int64_t> retryCount(const HXFileAttachment& attachment) {
  std::any value = attachment.associatedObject(kVMAttachmentUploadRetryContext);
  if (const auto* count = std::any_cast<std::int64_t>(&value)) return *count;
  return std::nullopt;
}

void setRetryCount(HXFileAttachment& attachment, std::optional<std::int64_t> count) {
  attachment.setAssociatedObject(kVMAttachmentUploadRetryContext,
                                 count ? std::any(*count) : std::any());
}

namespace {

constexpr std::int64_t kProcessingErrorCode = 1000;
constexpr std::int64_t kCacheFolderErrorCode = 300;
constexpr std::size_t kDigestLength = 20;

ErrorRef ProcessingError(std::string_view description, ErrorRef underlying = nullptr) {
  return Error::WithDescription(kVMFileAttachmentDomain, kProcessingErrorCode, description,
                                std::move(underlying));
}

// Makes everything under `root` the owner's alone, as a retrieved single file is: folders
// 0700, files 0600. The stored modes are not kept, and what was private must not come back
// readable by others. Links (which unpacking never makes) are left alone.
std::error_code MakeTreeOwnerOnly(const fs::path& root) {
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    const fs::file_status status = it->symlink_status(ec);
    if (ec) break;
    if (fs::is_directory(status)) {
      fs::permissions(it->path(), fs::perms::owner_all, ec);
    } else if (fs::is_regular_file(status)) {
      fs::permissions(it->path(), fs::perms::owner_read | fs::perms::owner_write, ec);
    }
    if (ec) break;
  }
  return ec;
}

// One SHA-1 digest in progress.
class Sha1 {
 public:
  Sha1() : ctx_(EVP_MD_CTX_new()) {
    ok_ = ctx_ && EVP_DigestInit_ex(ctx_, EVP_sha1(), nullptr) == 1;
  }
  ~Sha1() { EVP_MD_CTX_free(ctx_); }
  Sha1(const Sha1&) = delete;
  Sha1& operator=(const Sha1&) = delete;

  void update(const std::uint8_t* bytes, std::size_t length) {
    if (ok_ && length > 0) ok_ = EVP_DigestUpdate(ctx_, bytes, length) == 1;
  }
  // Empty when any step failed.
  Bytes finish() {
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (!ok_ || EVP_DigestFinal_ex(ctx_, digest.data(), &length) != 1) return {};
    digest.resize(length);
    return digest;
  }

 private:
  EVP_MD_CTX* ctx_;
  bool ok_ = false;
};

// Hashes on a second thread while the caller works on the same bytes: the caller hands
// over a range, goes on (encrypting that chunk, writing that output) and waits before it
// reuses or frees the memory. One range is out at a time, so memory stays at one input
// and one output chunk and the digests see the bytes in order.
class BackgroundHasher {
 public:
  BackgroundHasher() : thread_([this] { run(); }) {}
  ~BackgroundHasher() {
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
    }
    work_cv_.notify_one();
    thread_.join();
  }
  BackgroundHasher(const BackgroundHasher&) = delete;
  BackgroundHasher& operator=(const BackgroundHasher&) = delete;

  void start(Sha1* digest, const std::uint8_t* bytes, std::size_t length) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      job_ = {digest, bytes, length};
      pending_ = true;
    }
    work_cv_.notify_one();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mu_);
    done_cv_.wait(lock, [this] { return !pending_; });
  }

 private:
  struct Job {
    Sha1* digest = nullptr;
    const std::uint8_t* bytes = nullptr;
    std::size_t length = 0;
  };

  void run() {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
      work_cv_.wait(lock, [this] { return pending_ || stop_; });
      if (!pending_) return;
      const Job job = job_;
      lock.unlock();
      job.digest->update(job.bytes, job.length);
      lock.lock();
      pending_ = false;
      done_cv_.notify_one();
    }
  }

  std::mutex mu_;
  std::condition_variable work_cv_;
  std::condition_variable done_cv_;
  Job job_;
  bool pending_ = false;
  bool stop_ = false;
  std::thread thread_;  // last: starts once the state above exists
};

ssize_t ReadSome(int fd, std::uint8_t* buffer, std::size_t length) {
  for (;;) {
    ssize_t got = ::read(fd, buffer, length);
    if (got >= 0 || errno != EINTR) return got;
  }
}

// Writes every byte; a short write is retried, an error ends it.
bool WriteAll(int fd, const std::uint8_t* bytes, std::size_t length) {
  while (length > 0) {
    ssize_t put = ::write(fd, bytes, length);
    if (put < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += put;
    length -= static_cast<std::size_t>(put);
  }
  return true;
}

// Compared as 20 bytes each: a missing or short stored value is a mismatch, never read
// past its end.
bool DigestMatches(const Bytes& digest, const Bytes& stored) {
  return digest.size() == kDigestLength && stored.size() >= kDigestLength &&
         std::equal(digest.begin(), digest.end(), stored.begin());
}

std::optional<std::int64_t> StorageType(const HXFileAttachment& attachment) {
  std::optional<KeyedValue> value =
      attachment.objectForKeyedSubscript(kHXFileAttachmentStorageTypeKey);
  if (!value) return std::nullopt;
  if (const auto* number = std::get_if<std::int64_t>(&*value)) return *number;
  if (const auto* text = std::get_if<std::string>(&*value)) {
    // A number kept as text reads as its integer value; anything else as 0.
    std::int64_t number = 0;
    std::from_chars(text->data(), text->data() + text->size(), number);
    return number;
  }
  return 0;
}

timespec ToTimespec(Date date) {
  auto since_epoch = std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch());
  timespec time{};
  time.tv_sec = static_cast<time_t>(since_epoch.count() / 1000000000);
  time.tv_nsec = static_cast<long>(since_epoch.count() % 1000000000);
  if (time.tv_nsec < 0) {
    time.tv_nsec += 1000000000;
    time.tv_sec -= 1;
  }
  return time;
}

// True when `path` is, without following a link, the regular file open at `fd`.
bool IsSameRegularFile(int fd, const fs::path& path) {
  struct stat open_info {};
  struct stat path_info {};
  return ::fstat(fd, &open_info) == 0 && ::lstat(path.c_str(), &path_info) == 0 &&
         S_ISREG(path_info.st_mode) && open_info.st_dev == path_info.st_dev &&
         open_info.st_ino == path_info.st_ino;
}

// Renames the cached file to `name` in its folder and sets its access date to now and
// its modification date to `modify_date` (left alone when there is none). Never replaces
// an existing file. On failure the file is removed from wherever it is: decrypted bytes
// never stay in the cache under a name that nobody looks for.
bool ApplyCachedFileValues(const fs::path& file, const std::string& name,
                           std::optional<Date> modify_date, ErrorRef* error) {
  std::error_code ignored;
  if (ErrorRef refused = CheckFileName(name, "attachment name")) {
    fs::remove(file, ignored);
    return Fail(error, refused);
  }
  const fs::path renamed = file.parent_path() / name;
  if (renamed != file) {
    if (::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, renamed.c_str(), RENAME_NOREPLACE) != 0) {
      ErrorRef failure = PosixError(errno, renamed);
      fs::remove(file, ignored);
      return Fail(error, failure);
    }
  }
  timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_NOW;
  if (modify_date) {
    times[1] = ToTimespec(*modify_date);
  } else {
    times[1].tv_sec = 0;
    times[1].tv_nsec = UTIME_OMIT;
  }
  if (::utimensat(AT_FDCWD, renamed.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
    ErrorRef failure = PosixError(errno, renamed);
    fs::remove(renamed, ignored);
    return Fail(error, failure);
  }
  return true;
}

}  // namespace

// ---- Set-up and lookup ----------------------------------------------------------------------

VMCAttachment::VMCAttachment(std::shared_ptr<HXFileAttachmentScheme> scheme)
    : HXFileAttachmentSchemeHandler(std::move(scheme)) {
  configureAuthToken();
  configureOperationQueue();
}

VMCAttachment::~VMCAttachment() = default;

Log& VMCAttachment::logger() {
  static Log& log = Log::Get("com.brenwick.velmora", "VMCAttachment");
  return log;
}

void VMCAttachment::configureAuthToken() {
  const std::shared_ptr<HXFileAttachmentScheme>& scheme = fileAttachmentScheme();
  HXObjectContext* context = scheme ? scheme->vmpObjectContext() : nullptr;
  if (context == nullptr) return;
  const std::string login = context->user().username;
  const std::uint64_t company_id = context->databaseIdentifier().customerID;
  std::string token = VMCloudAuthentication::companyTokenForLogin(login, company_id);
  // No token text is a token that cannot be made: the handler then has none.
  if (!token.empty()) auth_token_.emplace(std::move(token));
}

void VMCAttachment::configureOperationQueue() {
  operation_queue_ = std::make_shared<OperationQueue>();
}

std::shared_ptr<HXFileAttachment> VMCAttachment::attachmentForAttachmentUUID(
    const std::string& uuid) {
  const std::shared_ptr<HXFileAttachmentScheme>& scheme = fileAttachmentScheme();
  HXObjectContext* context = scheme ? scheme->objectContext() : nullptr;
  FetchResults results;
  if (context != nullptr) {
    BDQualifierRef qualifier =
        BDKeyValueQualifier::qualifierWhereValueOfKey("attachmentUUID", uuid);
    const std::string entity(HXFileAttachment::kEntityName);
    results = context->instanceCache().objectsForEntityNamed(entity, qualifier);
    if (results.empty()) {
      BWPFetchRequest request(BWPFetchSpecification{entity, qualifier, {}});
      request.setOverridePermissionsSystem(true);
      request.setOverrideTrashSystem(true);
      results = context->resultsForFetchRequest(request);
      // One immediate retry, on purpose: a row another connection just wrote may show
      // only now.
      if (results.empty()) results = context->resultsForFetchRequest(request);
    }
  }
  std::shared_ptr<HXFileAttachment> found =
      results.empty() ? nullptr : std::dynamic_pointer_cast<HXFileAttachment>(results.back());
  if (!found) logger().debug(">>>>!!! fileAttachment not found for UUID {}", uuid);
  return found;
}

void VMCAttachment::cleanUpForAttachment(const std::shared_ptr<HXFileAttachment>& attachment) {
  if (!attachment) return;
  HXObjectContext* context = attachment->vmpObjectContext();
  VMAttachmentTransferManager* manager =
      context != nullptr ? context->attachmentTransferManager() : nullptr;
  if (manager == nullptr) return;
  manager->removeTransferForAttachmentIdentifier(attachment->attachmentUUID().value_or(""));
}

std::optional<VMCAttachment::DeletionAttachments> VMCAttachment::deletionAttachments() const {
  std::lock_guard<std::mutex> lock(deletion_mu_);
  return deletion_attachments_;
}

void VMCAttachment::setDeletionAttachments(std::optional<DeletionAttachments> attachments) {
  std::lock_guard<std::mutex> lock(deletion_mu_);
  deletion_attachments_ = std::move(attachments);
}

void VMCAttachment::removeDeletionAttachment(const DataIdentifier& data_identifier) {
  std::lock_guard<std::mutex> lock(deletion_mu_);
  if (deletion_attachments_) deletion_attachments_->erase(data_identifier);
}

// ---- Processing -----------------------------------------------------------------------------

bool VMCAttachment::processAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                      const fs::path& source_url, const fs::path& destination_url,
                                      std::int64_t operation, ErrorRef* error) {
  if (!attachment) return Fail(error, ProcessingError("Must provide an attachment object."));
  if (source_url.empty()) return Fail(error, ProcessingError("Must provide a source file path."));
  std::error_code status_error;
  const fs::file_status destination_status = fs::status(destination_url, status_error);
  if (!fs::exists(destination_status)) {
    return Fail(error, ProcessingError("Must provide an existing destination file path"));
  }
  if (fs::is_directory(destination_status)) {
    return Fail(error, ProcessingError("Cannot provide a directory as a destination path."));
  }

  attachment->refreshIfNeeded();

  std::unique_ptr<BWCryptographer> cryptor;
  std::optional<Bytes> entropy;
  if (operation == kOperationEncrypt) {
    cryptor = BWCryptographer::encryptor();
    if (!cryptor) return Fail(error, ProcessingError("Could not encrypt attachment."));
    entropy = cryptor->entropy();
  } else if (operation == kOperationDecrypt) {
    std::optional<Bytes> data = attachment->encryptionData();
    if (data) cryptor = BWCryptographer::decryptorWithData(*data);
  }
  if (!cryptor) return Fail(error, ProcessingError("Could not decrypt attachment."));
  const bool encrypting = operation == kOperationEncrypt;
  const char* const cipher_failure =
      encrypting ? "Could not encrypt attachment." : "Could not decrypt attachment.";

  // Read only: the source is the caller's and stays exactly as it was.
  ScopedFd source(::open(source_url.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source.valid()) {
    ErrorRef cause = PosixError(errno, source_url);
    return Fail(error,
                ProcessingError(encrypting ? "Could not get source file to encrypt attachment."
                                           : "Could not decrypt attachment.",
                                cause));
  }
  // Written from its start, not truncated first: callers hand over a fresh empty file, never
  // a symbolic link (work files sit in a temporary folder others may write to).
  ScopedFd destination(::open(destination_url.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!destination.valid()) {
    ErrorRef cause = PosixError(errno, destination_url);
    return Fail(
        error, ProcessingError(encrypting ? "Could not open destination file to encrypt attachment."
                                          : "Could not decrypt attachment.",
                               cause));
  }

  Sha1 input_digest;
  Sha1 output_digest;
  // The digests run beside the cipher on a second core when one can be had; without a
  // thread they run inline.
  std::optional<BackgroundHasher> hasher;
  try {
    hasher.emplace();
  } catch (const std::system_error&) {
  }
  auto hash = [&hasher](Sha1& digest, const std::uint8_t* bytes, std::size_t length) {
    if (hasher) {
      hasher->start(&digest, bytes, length);
    } else {
      digest.update(bytes, length);
    }
  };
  auto hashed = [&hasher] {
    if (hasher) hasher->wait();
  };

  std::unique_ptr<std::uint8_t[]> chunk(new std::uint8_t[kProcessChunkSize]);
  // A read or write that fails, or a cipher step that fails, ends the stream: nothing
  // after the point of failure reaches the destination.
  ErrorRef io_error;
  bool cipher_failed = false;
  for (;;) {
    const ssize_t got = ReadSome(source.get(), chunk.get(), kProcessChunkSize);
    if (got < 0) {
      io_error = PosixError(errno, source_url);
      break;
    }
    const auto read_length = static_cast<std::size_t>(got);
    hash(input_digest, chunk.get(), read_length);
    std::size_t length = read_length;
    CryptBuffer output = read_length > 0 ? cryptor->cryptChunk(chunk.get(), &length)
                                         : cryptor->cryptFinalChunkWithLength(&length);
    hashed();
    if (!output) {
      cipher_failed = true;
      break;
    }
    hash(output_digest, output.get(), length);
    const bool written = WriteAll(destination.get(), output.get(), length);
    const int write_errno = errno;
    hashed();
    if (!written) {
      io_error = PosixError(write_errno, destination_url);
      break;
    }
    if (read_length == 0) break;
  }
  hasher.reset();
  const Bytes input_hash = input_digest.finish();
  const Bytes output_hash = output_digest.finish();

  if (io_error) return Fail(error, ProcessingError(cipher_failure, io_error));
  if (entropy) {
    if (cipher_failed) return Fail(error, ProcessingError(cipher_failure));
    attachment->setEncryptionData(std::move(entropy));
    attachment->setObject(input_hash, kHXFileAttachmentSourceHash);
    attachment->setObject(output_hash, kHXFileAttachmentCryptedHash);
    return true;
  }

  const Bytes stored_source = attachment->bytesForKeyedSubscript(kHXFileAttachmentSourceHash);
  const Bytes stored_crypted = attachment->bytesForKeyedSubscript(kHXFileAttachmentCryptedHash);
  Error::Numbers problems;
  problems.reserve(2);
  if (stored_source.empty() && stored_crypted.empty()) {
    logger().error("Attachment does not have hashes stored: {}", attachment->description());
    problems.push_back(kHashProblemMissing);
  } else {
    // The log lines name the other hash than the one compared; callers match on them.
    if (!DigestMatches(input_hash, stored_crypted)) {
      logger().error("Source hash did not match stored hash");
      problems.push_back(kHashProblemCrypted);
    }
    if (!DigestMatches(output_hash, stored_source)) {
      logger().error("Crypted hash did not match stored hash");
      problems.push_back(kHashProblemSource);
    }
  }
  if (!problems.empty() && error != nullptr) {
    *error = Error::Make(kVMFileAttachmentDomain, kProcessingErrorCode,
                         {{std::string(kVMAttachmentHashesErrorKey), problems}});
    return false;
  }
  // Hash problems pass when the caller asked for no error; a tag that did not verify
  // never does.
  if (cipher_failed) return Fail(error, ProcessingError(cipher_failure));
  return true;
}

bool VMCAttachment::saveDownloadedAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                             const fs::path& downloaded_url,
                                             const fs::path& to_cache_url, ErrorRef* error) {
  if (!attachment) return Fail(error, ProcessingError("Must provide an attachment object."));
  std::optional<std::int64_t> storage_type = StorageType(*attachment);
  if (!storage_type) {
    logger().notice(
        "Attachment format type not found - assuming plain file (but may produce incorrect "
        "result)");
    storage_type = kStorageTypePlainFile;
  }

  // The work folder is named after the attachment UUID in the temporary folder; a UUID
  // that could leave it is refused like a failed decryption.
  const std::string uuid = attachment->attachmentUUID().value_or("");
  if (ErrorRef refused = CheckFileName(uuid, "attachment UUID")) {
    return Fail(error, ProcessingError("Failed to extract attachment to cache folder", refused));
  }
  std::error_code ignored;
  const fs::path work_folder = fs::temp_directory_path(ignored) / uuid;
  std::error_code create_error;
  // Held while the decryption runs, so that no host reclaims the folder as abandoned, and
  // two saves of one attachment take turns at its work file.
  OwnerLock work_lock = OwnerLock::HoldFolder(work_folder, nullptr);
  if (!work_lock.held()) create_error = std::make_error_code(std::errc::permission_denied);
  // The temporary folder may be shared with other users: a work folder that is not a
  // directory of our own (a file, a link, someone else's folder) is never written into.
  // Such a folder, like one that cannot be made, fails the save as a failed decryption.
  struct stat info {};
  if (!create_error && (::lstat(work_folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
                        info.st_uid != ::geteuid())) {
    create_error = std::make_error_code(std::errc::permission_denied);
  }
  if (create_error) {
    return Fail(error, ProcessingError("Failed to extract attachment to cache folder",
                                       PosixError(create_error, work_folder)));
  }
  // Decrypted bytes pass through here: only the owner may look.
  fs::permissions(work_folder, fs::perms::owner_all, ignored);
  const fs::path work_url = work_folder / "crypt";
  // The work file is the one made here from start to end: a symbolic link in its place is
  // refused when it is made, when it is written, and before it is moved or unpacked, so
  // that nothing decrypted goes elsewhere and nothing from elsewhere reaches the cache.
  ScopedFd created(
      ::open(work_url.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!created.valid()) {
    return Fail(error, ProcessingError("Failed to extract attachment to cache folder",
                                       PosixError(errno, work_url)));
  }
  auto not_ours = [&created, &work_url]() -> ErrorRef {
    if (IsSameRegularFile(created.get(), work_url)) return nullptr;
    return ProcessingError("Failed to extract attachment to cache folder",
                           PosixError(ELOOP, work_url));
  };

  ErrorRef decrypt_error;
  bool decrypted = false;
  try {
    decrypted =
        processAttachment(attachment, downloaded_url, work_url, kOperationDecrypt, &decrypt_error);
  } catch (const std::exception& exception) {
    decrypt_error = ProcessingError(exception.what());
    decrypted = false;
  }

  bool saved = false;
  ErrorRef save_error;
  if (!decrypted) {
    save_error = ProcessingError("Failed to extract attachment to cache folder", decrypt_error);
  } else if (*storage_type != kStorageTypePlainFile && *storage_type != kStorageTypeArchive) {
    // Decrypted bytes are not left behind in the shared temporary folder, even here.
    fs::remove(work_url, ignored);
    throw InternalInconsistencyException("Invalid format type for attachment");
  } else if (ErrorRef replaced = not_ours()) {
    save_error = std::move(replaced);
  } else if (*storage_type == kStorageTypePlainFile) {
    ErrorRef move_error;
    if (!bwMoveItemAtURL(work_url, to_cache_url, &move_error)) {
      save_error = ProcessingError("Could not write data into regular file", move_error);
    } else {
      std::string name = attachment->name();
      std::replace(name.begin(), name.end(), '/', ':');
      saved = ApplyCachedFileValues(to_cache_url, name, attachment->attachmentModifyDate(),
                                    &save_error);
      if (!saved) {
        logger().notice("Failed to modify file attributes for attachment {} - {}",
                        attachment->description(), save_error->summary());
      }
    }
  } else {
    std::error_code folder_error;
    const bool made = fs::create_directories(to_cache_url, folder_error);
    // Closed to others before anything is unpacked into it.
    if (!folder_error) fs::permissions(to_cache_url, fs::perms::owner_all, folder_error);
    if (folder_error) {
      save_error = Error::WithDescription(
          kVMFileAttachmentDomain, kCacheFolderErrorCode,
          "Unable to create destination directory for cache file for attachment",
          PosixError(folder_error, to_cache_url));
    } else {
      ErrorRef unpack_error;
      if (VMArchiver::unpackFilesFromArchive(work_url, to_cache_url, &unpack_error) == 0) {
        save_error = ProcessingError("Failed to extract attachment to cache folder", unpack_error);
        // What was unpacked before the failure is not left in the cache either.
        if (made) fs::remove_all(to_cache_url, ignored);
      } else if (std::error_code mode_error = MakeTreeOwnerOnly(to_cache_url)) {
        save_error = ProcessingError("Failed to extract attachment to cache folder",
                                     PosixError(mode_error, to_cache_url));
        if (made) fs::remove_all(to_cache_url, ignored);
      } else {
        saved = true;
      }
    }
  }

  // Only the work file goes; the per-UUID folder stays, as other passes expect.
  fs::remove(work_url, ignored);
  if (!saved) return Fail(error, save_error);
  return true;
}

// ---- Registration ---------------------------------------------------------------------------

void RegisterCloudSchemeClasses() {
  HXSchemeHandlerRegistry::shared().registerClass(
      {std::string(VMCAttachment::kClassName), HXFileAttachmentSchemeHandler::schemeName(),
       HXFileAttachmentSchemeHandler::shouldDisplay(),
       [](std::shared_ptr<HXFileAttachmentScheme> scheme) {
         return std::make_shared<VMCAttachment>(std::move(scheme));
       }});
}

}  // namespace vm
