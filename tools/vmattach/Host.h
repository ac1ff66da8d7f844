#ifndef VM_TOOLS_VMATTACH_HOST_H_
#define VM_TOOLS_VMATTACH_HOST_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "tools/vmattach/Command.h"

namespace vm::vmattach {

// Opens (creating when needed) the data folder the options name, installs it as the
// process's host and registers every scheme class. Null with `*error` set on failure.
std::unique_ptr<SqliteObjectContext> OpenHost(const GlobalOptions& options, ErrorRef* error);

// The handler class of a --type word ("reference", "afp", "archiver", "cloud"); empty
// when the word is unknown.
std::string HandlerClassForType(const std::string& type);
std::string TypeForHandlerClass(const std::string& class_name);

// Why `scheme` cannot reach its service: a cloud scheme whose handler has no token.
// Empty when the scheme is of another type, or has no handler, or has a token; otherwise
// "no token set for scheme NAME" with how to set one.
std::string MissingTokenProblem(HXFileAttachmentScheme& scheme);

// MissingTokenProblem() of every scheme the data folder holds, the first non-empty one.
std::string MissingTokenProblem(SqliteObjectContext& context);

// The tool's transfer delegate: remembers the outcome and draws progress. Messages may
// arrive on any thread; the tool waits on the main thread, draining the main queue.
class CommandDelegate : public HXFileAttachmentTransferDelegate,
                        public HXFileAttachmentErrorReceiver {
 public:
  explicit CommandDelegate(std::string label) : bar_(std::move(label)) {}

  // Both mark the transfer as started; a retrieval's progress object is drawn while the
  // tool waits.
  void willReceiveAttachment(HXFileAttachmentSchemeHandler*,
                             const std::shared_ptr<HXFileAttachment>&,
                             const std::shared_ptr<Progress>& progress) override;
  void willSendAttachment(HXFileAttachmentSchemeHandler*,
                          const std::shared_ptr<HXFileAttachment>&) override;
  void transferProgressUpdate(double fraction, std::int64_t transfered,
                              std::int64_t total) override;
  void finishedTransferForAttachment(HXFileAttachmentSchemeHandler*,
                                     const std::shared_ptr<HXFileAttachment>&) override;
  void gotCriticalError(HXFileAttachmentSchemeHandler*, const ErrorRef& error) override;
  void gotError(HXFileAttachmentSchemeHandler*, const ErrorRef& error) override;

  bool started() const { return started_.load(); }
  bool done() const { return finished_.load() || failed_.load(); }
  bool finished() const { return finished_.load(); }
  ErrorRef error() const;

  // Drains the main queue until an outcome arrives or `timeout` passes; returns done().
  bool waitForOutcome(std::chrono::seconds timeout);

 private:
  ProgressBar bar_;
  std::atomic<bool> started_{false};
  std::atomic<bool> finished_{false};
  std::atomic<bool> failed_{false};
  mutable std::mutex mu_;
  ErrorRef error_;
  std::shared_ptr<Progress> progress_;
};

// The machine-readable form of an attachment row.
nlohmann::json AttachmentToJSON(const HXFileAttachment& attachment);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_HOST_H_
