// A host application of VMAttachments: it keeps its records in the reference host on SQLite,
// stores a file and a folder through the cloud scheme against an attachment service,
// retrieves both and compares them with the originals. It also packs the folder with the
// archiver and runs the cipher once, as a host that handles those formats itself would.
//
//   vm_example_host WORK_DIR SERVICE_URL TOKEN
//
// WORK_DIR must not exist yet. Exits 0 when every copy came back identical.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BWCryptographer/BWCryptographer.h"
#include "BWFoundation/ServerEnvironment.h"
#include "VMAttachments/archive/VMArchiver.h"
#include "VMAttachments/schemes/VMAttachmentSchemes.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/VMAttachmentTransferManager.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "host/sqlite/SqliteTransferManager.h"
#include "platform/DispatchQueue.h"
#include "platform/URL.h"
#include "platform/UniqueID.h"

namespace fs = std::filesystem;

namespace {

constexpr auto kTimeout = std::chrono::seconds(120);

int Fail(const std::string& what, const vm::ErrorRef& error = nullptr) {
  std::fprintf(stderr, "vm_example_host: %s%s%s\n", what.c_str(), error ? ": " : "",
               error ? error->localizedDescription().c_str() : "");
  return 1;
}

// The schemes report on any thread; the host waits on its main thread, which runs the
// main queue so that the messages the schemes post there are delivered.
class Delegate : public vm::HXFileAttachmentTransferDelegate,
                 public vm::HXFileAttachmentErrorReceiver {
 public:
  void willReceiveAttachment(vm::HXFileAttachmentSchemeHandler*,
                             const std::shared_ptr<vm::HXFileAttachment>&,
                             const std::shared_ptr<vm::Progress>&) override {}
  void willSendAttachment(vm::HXFileAttachmentSchemeHandler*,
                          const std::shared_ptr<vm::HXFileAttachment>&) override {}
  void transferProgressUpdate(double, std::int64_t, std::int64_t) override {}
  void finishedTransferForAttachment(vm::HXFileAttachmentSchemeHandler*,
                                     const std::shared_ptr<vm::HXFileAttachment>&) override {
    std::lock_guard lock(mu_);
    finished_ = true;
  }
  void gotCriticalError(vm::HXFileAttachmentSchemeHandler* handler,
                        const vm::ErrorRef& error) override {
    gotError(handler, error);
  }
  void gotError(vm::HXFileAttachmentSchemeHandler*, const vm::ErrorRef& error) override {
    std::lock_guard lock(mu_);
    if (!error_) error_ = error;
  }

  // Runs the main queue until the transfer finished or failed; its error, or null.
  vm::ErrorRef wait() {
    vm::MainQueue::shared().runUntilCondition(
        [this] {
          std::lock_guard lock(mu_);
          return finished_ || error_;
        },
        std::chrono::steady_clock::now() + kTimeout);
    std::lock_guard lock(mu_);
    if (error_) return error_;
    if (!finished_) return vm::Error::WithDescription("example", 1, "the transfer timed out");
    return nullptr;
  }

 private:
  std::mutex mu_;
  bool finished_ = false;
  vm::ErrorRef error_;
};

// Stores `source` (a file or a folder) as a new attachment of `scheme`. The cloud scheme
// encrypts the file (a folder is packed into one archive first) and registers an upload
// with the host's transfer manager; the host saves the record with its transfer, then
// resumes the upload and waits for its outcome.
std::shared_ptr<vm::HXFileAttachment> Store(
    vm::SqliteObjectContext& context, const std::shared_ptr<vm::HXFileAttachmentScheme>& scheme,
    const fs::path& source, vm::ErrorRef* error) {
  auto attachment = context.insertAttachment(error);
  if (!attachment) return nullptr;
  attachment->setAttachmentPath(source.string());
  attachment->setName(source.filename().string());
  attachment->setAttachmentUUID(vm::ToLower(vm::MakeUniqueID()));
  attachment->setFileAttachmentScheme(scheme);
  attachment->updateMissingDetailsFromURL(source);
  auto delegate = std::make_shared<Delegate>();
  attachment->setDelegate(delegate);

  auto handler = scheme->schemeHandler();
  auto& manager = static_cast<vm::SqliteTransferManager&>(*context.attachmentTransferManager());
  const std::string relative =
      vm::HXAttachmentCache::sharedCache()->relativeFilePathForObject(*attachment);
  const std::string uuid = *attachment->attachmentUUID();
  const bool stored = handler->storeFile(source, relative, attachment, delegate, error);
  manager.removeStoreWorkFolder(uuid);  // the scheme's work folder is done with
  if (!stored || !context.saveChanges(error)) return nullptr;

  std::vector<std::shared_ptr<vm::VMAttachmentTransferObject>> uploads;
  for (const auto& transfer : manager.transferObjects()) {
    if (transfer->attachment() == attachment) uploads.push_back(transfer);
  }
  auto outcome = std::make_shared<Delegate>();
  manager.resumeTransfers(uploads, [outcome](const auto&, const vm::ErrorRef& failed) {
    if (failed) {
      outcome->gotError(nullptr, failed);
    } else {
      outcome->finishedTransferForAttachment(nullptr, nullptr);
    }
  });
  if (vm::ErrorRef failed = outcome->wait()) {
    *error = failed;
    return nullptr;
  }
  return context.saveChanges(error) ? attachment : nullptr;
}

// Retrieves an attachment: the cloud scheme downloads, checks and decrypts it into the
// attachment's cache folder, a file under its name, a folder unpacked into a folder of its
// own. The host then copies the result out to `destination`/name. Returns that copy.
fs::path Retrieve(vm::SqliteObjectContext& context,
                  const std::shared_ptr<vm::HXFileAttachment>& attachment,
                  const fs::path& destination, vm::ErrorRef* error) {
  auto handler = attachment->fileAttachmentScheme()->schemeHandler();
  auto delegate = std::make_shared<Delegate>();
  attachment->setDelegate(delegate);
  if (!handler->retrieveAttachment(attachment, destination, delegate, error)) return {};
  if (vm::ErrorRef failed = delegate->wait()) {
    *error = failed;
    return {};
  }
  if (!context.saveChanges(error)) return {};
  const fs::path cached =
      vm::HXAttachmentCache::sharedCache()->absoluteFilePathForObject(*attachment);
  fs::path result = cached / attachment->name();
  if (!fs::exists(result)) {
    for (const auto& entry : fs::directory_iterator(cached)) result = entry.path();
  }
  const fs::path copy = destination / attachment->name();
  fs::copy(result, copy, fs::copy_options::recursive);
  return copy;
}

std::string Contents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Relative path -> contents of every regular file below `folder`.
std::map<std::string, std::string> Tree(const fs::path& folder) {
  std::map<std::string, std::string> tree;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      tree[fs::relative(entry.path(), folder).string()] = Contents(entry.path());
    }
  }
  return tree;
}

// The cipher on its own: what the cloud scheme does to every file it uploads.
bool CipherRoundTrip(const std::string& text) {
  auto encryptor = vm::BWCryptographer::encryptor();
  if (!encryptor) return false;
  std::vector<std::uint8_t> sealed;
  std::size_t length = text.size();
  auto chunk = encryptor->cryptChunk(reinterpret_cast<const std::uint8_t*>(text.data()), &length);
  sealed.insert(sealed.end(), chunk.get(), chunk.get() + length);
  length = 0;
  auto tag = encryptor->cryptFinalChunkWithLength(&length);
  sealed.insert(sealed.end(), tag.get(), tag.get() + length);

  auto decryptor = vm::BWCryptographer::decryptorWithData(encryptor->entropy());
  if (!decryptor) return false;
  length = sealed.size();
  auto plain = decryptor->cryptChunk(sealed.data(), &length);
  std::string opened(reinterpret_cast<const char*>(plain.get()), length);
  length = 0;
  return decryptor->cryptFinalChunkWithLength(&length) != nullptr && opened == text;
}

int Run(int argc, char** argv) {
  if (argc != 4) return Fail("usage: vm_example_host WORK_DIR SERVICE_URL TOKEN");
  const fs::path work = fs::absolute(argv[1]);
  if (!fs::create_directory(work)) return Fail(work.string() + " exists already");

  // The host's data folder, the scheme classes, and the service the cloud scheme uses.
  vm::RegisterVMAttachmentsSchemeClasses();
  vm::ErrorRef error;
  auto context = vm::SqliteObjectContext::open(work / "data", &error);
  if (!context) return Fail("cannot open the data folder", error);
  auto api = vm::URL::URLWithString(argv[2]);
  if (!api) return Fail("not a URL: " + std::string(argv[2]));
  vm::ServerEnvironment::setCurrent(vm::ServerEnvironment(*api));
  // The token is read when the context becomes the process's host: it is set first.
  if (!context->setSetting("cloudToken", argv[3], &error)) {
    return Fail("cannot keep the token", error);
  }
  context->installAsProcessHost();
  auto scheme = context->insertScheme("cloud", "VMCAttachment", &error);
  if (!scheme || !context->saveChanges(&error)) return Fail("cannot add the cloud scheme", error);

  // What to store: a file and a folder with a subfolder.
  const fs::path originals = work / "originals";
  fs::create_directories(originals / "Project" / "docs");
  std::ofstream(originals / "report.txt") << "Quarterly figures\n";
  std::ofstream(originals / "Project" / "docs" / "plan.txt") << "Plan\n";
  std::ofstream(originals / "Project" / "notes.txt") << "Notes\n";

  auto file = Store(*context, scheme, originals / "report.txt", &error);
  if (!file) return Fail("storing the file failed", error);
  auto folder = Store(*context, scheme, originals / "Project", &error);
  if (!folder) return Fail("storing the folder failed", error);
  std::printf("stored: file %llu, folder %llu\n",
              static_cast<unsigned long long>(file->primaryKeyValue()),
              static_cast<unsigned long long>(folder->primaryKeyValue()));

  const fs::path retrieved = work / "retrieved";
  fs::create_directories(retrieved);
  fs::path file_copy = Retrieve(*context, file, retrieved, &error);
  if (file_copy.empty()) return Fail("retrieving the file failed", error);
  if (Contents(file_copy) != Contents(originals / "report.txt")) return Fail("the file differs");
  fs::path folder_copy = Retrieve(*context, folder, retrieved, &error);
  if (folder_copy.empty()) return Fail("retrieving the folder failed", error);
  if (Tree(folder_copy) != Tree(originals / "Project")) return Fail("the folder differs");
  std::printf("retrieved: both identical\n");

  // The archive format directly: pack the folder, unpack it elsewhere, compare.
  const fs::path archive = work / "Project.archive";
  const fs::path unpacked = work / "unpacked";
  fs::create_directories(unpacked);
  if (!vm::VMArchiver::archiveFilesInDirectory(originals / "Project", archive, &error) ||
      vm::VMArchiver::unpackFilesFromArchive(archive, unpacked, &error) == 0) {
    return Fail("the archive round trip failed", error);
  }
  if (Tree(unpacked) != Tree(originals / "Project")) return Fail("the unpacked folder differs");
  if (!CipherRoundTrip("Quarterly figures\n")) return Fail("the cipher round trip failed");
  std::printf("archive and cipher: identical\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The file-system calls of this example throw on failure; a host reports them like any other.
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    return Fail(e.what());
  }
}
