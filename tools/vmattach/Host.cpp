#include "tools/vmattach/Host.h"

#include <fmt/chrono.h>

#include "VMAttachments/schemes/VMAttachmentSchemes.h"
#include "host/HXFileAttachmentScheme.h"
#include "platform/DispatchQueue.h"
#include "platform/SafeNames.h"

namespace vm::vmattach {
namespace {

struct TypeName {
  const char* type;
  const char* class_name;
};

constexpr TypeName kTypes[] = {
    {"reference", "VMFileReferenceAttachment"},
    {"afp", "VMAFPAttachment"},
    {"archiver", "VMArchiverAttachment"},
    {"cloud", "VMCAttachment"},
};

std::string FormatDate(const std::optional<Date>& date) {
  if (!date) return {};
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}Z",
                     std::chrono::time_point_cast<std::chrono::seconds>(*date));
}

}  // namespace

std::unique_ptr<SqliteObjectContext> OpenHost(const GlobalOptions& options, ErrorRef* error) {
  RegisterVMAttachmentsSchemeClasses();
  auto context = SqliteObjectContext::open(DataDirectory(options), error);
  if (!context) return nullptr;
  for (const std::string& notice : context->openNotices()) {
    fmt::print(stderr, "vmattach: {}\n", EscapeControlCharacters(notice));
  }
  context->installAsProcessHost();
  return context;
}

std::string HandlerClassForType(const std::string& type) {
  for (const TypeName& t : kTypes) {
    if (type == t.type) return t.class_name;
  }
  return {};
}

std::string TypeForHandlerClass(const std::string& class_name) {
  for (const TypeName& t : kTypes) {
    if (class_name == t.class_name) return t.type;
  }
  if (class_name == "VMLocalFileReferenceScheme") return "reference";
  return class_name;
}

void CommandDelegate::transferProgressUpdate(double, std::int64_t transfered, std::int64_t total) {
  bar_.update(transfered, total);
}

void CommandDelegate::finishedTransferForAttachment(HXFileAttachmentSchemeHandler*,
                                                    const std::shared_ptr<HXFileAttachment>&) {
  bar_.finish();
  finished_.store(true);
}

void CommandDelegate::gotCriticalError(HXFileAttachmentSchemeHandler* handler,
                                       const ErrorRef& error) {
  gotError(handler, error);
}

void CommandDelegate::gotError(HXFileAttachmentSchemeHandler*, const ErrorRef& error) {
  bar_.finish();
  std::lock_guard lock(mu_);
  if (!error_) error_ = error;  // the first failure is the one reported
  failed_.store(true);
}

ErrorRef CommandDelegate::error() const {
  std::lock_guard lock(mu_);
  return error_;
}

bool CommandDelegate::waitForOutcome(std::chrono::seconds timeout) {
  return MainQueue::shared().runUntilCondition([this] { return done(); },
                                               std::chrono::steady_clock::now() + timeout);
}

nlohmann::json AttachmentToJSON(const HXFileAttachment& attachment) {
  nlohmann::json out;
  out["id"] = attachment.primaryKeyValue();
  out["name"] = attachment.name();
  out["attachmentPath"] = attachment.attachmentPath();
  out["isRelativePath"] = attachment.isRelativePath();
  out["uuid"] = attachment.attachmentUUID() ? nlohmann::json(*attachment.attachmentUUID())
                                            : nlohmann::json(nullptr);
  out["uploaded"] =
      attachment.uploaded() ? nlohmann::json(*attachment.uploaded()) : nlohmann::json(nullptr);
  auto scheme = attachment.fileAttachmentScheme();
  out["scheme"] = scheme ? nlohmann::json(scheme->name()) : nlohmann::json(nullptr);
  out["modified"] = FormatDate(attachment.attachmentModifyDate());
  out["created"] = FormatDate(attachment.attachmentCreateDate());
  return out;
}

}  // namespace vm::vmattach
