#ifndef VM_HOST_HXFILEATTACHMENTSCHEMEHANDLER_H_
#define VM_HOST_HXFILEATTACHMENTSCHEMEHANDLER_H_

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/HXFileAttachment.h"
#include "platform/Error.h"

namespace vm {

class HXFileAttachmentScheme;
class HXFileAttachmentTransferDelegate;
class VMAttachmentTransferObject;

// What every scheme handler answers. Called on the host's thread; each scheme says where
// its delegate messages arrive.
class HXFileAttachmentSchemeHandlerProtocol {
 public:
  virtual ~HXFileAttachmentSchemeHandlerProtocol() = default;

  // Brings the stored bytes to `to_path` (a folder) under the attachment's name.
  virtual bool retrieveAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                  const std::filesystem::path& to_path,
                                  const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                                  ErrorRef* error) = 0;
  // Stores `file` at the relative folder `at_path` of the storage.
  virtual bool storeFile(const std::filesystem::path& file, const std::string& at_path,
                         const std::shared_ptr<HXFileAttachment>& attachment,
                         const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                         ErrorRef* error) = 0;
  virtual std::optional<Date> attachmentModifyDate(
      const std::shared_ptr<HXFileAttachment>& attachment) = 0;
  // A path at which the stored bytes can be opened in place; nullopt when there is none.
  virtual std::optional<std::filesystem::path> attachmentURL(
      const std::shared_ptr<HXFileAttachment>& attachment) = 0;

  // Optional operations; a handler that does not offer them keeps these answers.
  virtual bool canResume() { return false; }
  virtual bool cancelAttachmentTransferWithReason(std::int64_t /*reason*/, ErrorRef* /*error*/) {
    return false;
  }
  virtual bool resumeAttachmentTransferFromOffset(std::int64_t /*offset*/, ErrorRef* /*error*/) {
    return false;
  }
};

// What the data identifier of a deletion is: an archivable value that names the stored
// bytes once the record is gone.
using DataIdentifier = std::string;

class HXFileAttachmentSchemeDeletionProtocol {
 public:
  virtual ~HXFileAttachmentSchemeDeletionProtocol() = default;
  virtual DataIdentifier dataIdentifierForDeletionForAttachment(
      const std::shared_ptr<HXFileAttachment>& attachment) = 0;
  virtual bool deleteAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                const DataIdentifier& data_identifier,
                                const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                                ErrorRef* error) = 0;
};

class VMAttachmentTransferHandlerProtocol {
 public:
  virtual ~VMAttachmentTransferHandlerProtocol() = default;
  virtual bool suspendTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) = 0;
  virtual bool resumeTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) = 0;
  virtual bool cancelTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) = 0;
};

// The base class of every scheme handler. The host makes one handler per scheme record
// (through HXSchemeHandlerRegistry) and owns it; a handler that runs work after a call
// returns keeps itself alive with shared_from_this().
//
// The base class's class-level answers: schemeName() "Attachment Scheme", shouldDisplay()
// true. A subclass that overrides them registers its own with the registry.
class HXFileAttachmentSchemeHandler
    : public HXFileAttachmentSchemeHandlerProtocol,
      public std::enable_shared_from_this<HXFileAttachmentSchemeHandler> {
 public:
  explicit HXFileAttachmentSchemeHandler(std::shared_ptr<HXFileAttachmentScheme> scheme);
  ~HXFileAttachmentSchemeHandler() override = default;

  static std::string schemeName() { return "Attachment Scheme"; }
  static bool shouldDisplay() { return true; }

  // The registered class name of the most derived class.
  virtual std::string className() const = 0;
  // "<ClassName: 0x...>", the prefix of the share schemes' log lines.
  virtual std::string description() const;

  const std::shared_ptr<HXFileAttachmentScheme>& fileAttachmentScheme() const { return scheme_; }

  // Finishes a retrieval once the bytes are in place. The base form does nothing more and
  // succeeds.
  virtual bool completeAttachmentDownloadForObject(
      const std::shared_ptr<HXFileAttachment>& attachment, ErrorRef* error);

 private:
  const std::shared_ptr<HXFileAttachmentScheme> scheme_;
};

// The handler classes a host can instantiate, by class name. Thread-safe; one registry per
// process. Registration is explicit (no static initialisers): a library offers a function
// that registers its classes.
class HXSchemeHandlerRegistry {
 public:
  using Factory = std::function<std::shared_ptr<HXFileAttachmentSchemeHandler>(
      std::shared_ptr<HXFileAttachmentScheme>)>;
  struct ClassInfo {
    std::string className;
    std::string schemeName;
    bool shouldDisplay = true;
    Factory factory;
  };

  static HXSchemeHandlerRegistry& shared();

  void registerClass(ClassInfo info);
  std::optional<ClassInfo> classNamed(const std::string& class_name) const;
  std::vector<ClassInfo> classes() const;
  // Null when the class is unknown or its factory yields nothing.
  std::shared_ptr<HXFileAttachmentSchemeHandler> makeHandler(
      std::shared_ptr<HXFileAttachmentScheme> scheme) const;

 private:
  mutable std::mutex mu_;
  std::map<std::string, ClassInfo> classes_;
};

}  // namespace vm

#endif  // VM_HOST_HXFILEATTACHMENTSCHEMEHANDLER_H_
