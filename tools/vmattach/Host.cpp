#include "tools/vmattach/Host.h"

#include <fmt/chrono.h>

#include "BWFoundation/ServerEnvironment.h"
#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/schemes/VMAttachmentSchemes.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "platform/DispatchQueue.h"
#include "platform/Progress.h"
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

// A keyed value for JSON: bytes (the hashes) as lower-case hex, numbers as numbers.
nlohmann::json KeyedValueToJSON(const std::optional<KeyedValue>& value) {
  if (!value) return nullptr;
  if (const auto* number = std::get_if<std::int64_t>(&*value)) return *number;
  if (const auto* text = std::get_if<std::string>(&*value)) return *text;
  std::string hex;
  for (std::uint8_t byte : std::get<Bytes>(*value)) hex += fmt::format("{:02x}", byte);
  return hex;
}

}  // namespace

std::string MissingTokenProblem(HXFileAttachmentScheme& scheme) {
  if (scheme.handlerClassName() != VMCAttachment::kClassName) return {};
  auto handler = std::dynamic_pointer_cast<VMCAttachment>(scheme.schemeHandler());
  if (!handler || handler->authToken()) return {};
  const std::string name = EscapeControlCharacters(scheme.name());
  return fmt::format(
      "no token set for scheme {0}: set one with `vmattach scheme add {0} --type cloud --api URL "
      "--token-file FILE` (or --token TOKEN, or VELMORA_TOKEN in the environment)",
      name);
}

std::string MissingTokenProblem(SqliteObjectContext& context) {
  for (const auto& scheme : context.allSchemes()) {
    if (std::string problem = MissingTokenProblem(*scheme); !problem.empty()) return problem;
  }
  return {};
}

std::unique_ptr<SqliteObjectContext> OpenHost(const GlobalOptions& options, ErrorRef* error) {
  RegisterVMAttachmentsSchemeClasses();
  auto context = SqliteObjectContext::open(DataDirectory(options), error);
  if (!context) return nullptr;
  for (const std::string& notice : context->openNotices()) {
    fmt::print(stderr, "vmattach: {}\n", EscapeControlCharacters(notice));
  }
  context->installAsProcessHost();
  // The cloud scheme reaches the service the data folder names (scheme add --api).
  if (auto api = context->setting("velmoraAPI")) {
    if (auto url = URL::URLWithString(*api); url && url->isHTTP()) {
      ServerEnvironment::setCurrent(ServerEnvironment(*url));
    }
  }
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

void CommandDelegate::willReceiveAttachment(HXFileAttachmentSchemeHandler*,
                                            const std::shared_ptr<HXFileAttachment>&,
                                            const std::shared_ptr<Progress>& progress) {
  std::lock_guard lock(mu_);
  progress_ = progress;
  started_.store(true);
}

void CommandDelegate::willSendAttachment(HXFileAttachmentSchemeHandler*,
                                         const std::shared_ptr<HXFileAttachment>&) {
  started_.store(true);
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
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // In slices, so that a progress object handed over by the scheme is drawn as it moves.
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    MainQueue::shared().runUntilCondition(
        [this] { return done(); },
        std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(100)));
    std::shared_ptr<Progress> progress;
    {
      std::lock_guard lock(mu_);
      progress = progress_;
    }
    if (progress && progress->totalUnitCount() > 0 && !done()) {
      bar_.update(progress->completedUnitCount(), progress->totalUnitCount());
    }
  }
  return done();
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
  out["storageType"] =
      KeyedValueToJSON(attachment.objectForKeyedSubscript(kHXFileAttachmentStorageTypeKey));
  out["sourceHash"] =
      KeyedValueToJSON(attachment.objectForKeyedSubscript(kHXFileAttachmentSourceHash));
  out["cryptedHash"] =
      KeyedValueToJSON(attachment.objectForKeyedSubscript(kHXFileAttachmentCryptedHash));
  return out;
}

}  // namespace vm::vmattach
