#include "tools/vmattach/VerifyCommand.h"

#include <fmt/format.h>

#include <atomic>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "platform/SafeNames.h"
#include "platform/URLSession.h"
#include "tools/vmattach/AttachmentVerifier.h"
#include "tools/vmattach/Host.h"

namespace vm::vmattach {
namespace {

constexpr int kUsageError = 2;

struct VerifyOptions {
  std::vector<std::string> ids;
  bool deep = false;
  int jobs = 4;
};

// One attachment to check: what the report names, and the check itself, which touches no
// record and so runs on any worker thread.
struct Job {
  std::uint64_t id = 0;
  std::string scheme;
  std::function<VerifyOutcome()> check;
  VerifyOutcome outcome;
};

VerifyOutcome Settled(VerifyStatus status, std::string detail) {
  return VerifyOutcome{status, std::move(detail)};
}

std::function<VerifyOutcome()> Answer(VerifyStatus status, std::string detail) {
  return [outcome = Settled(status, std::move(detail))] { return outcome; };
}

// Shares are mounted (or found reachable) once per scheme, on the host's thread, as a
// retrieval would; the outcome is kept for the scheme's other attachments.
class ShareAccess {
 public:
  // Null when the share can be read, else why not.
  ErrorRef reach(VMAFPAttachment& handler, bool* reached) {
    auto found = outcomes_.find(&handler);
    if (found == outcomes_.end()) {
      Entry entry;
      auto* archiver = dynamic_cast<VMArchiverAttachment*>(&handler);
      if (archiver && archiver->isShareAlreadyAvailable()) {
        entry.reached = true;
      } else {
        entry.reached = handler.mountShareReturningError(&entry.error);
      }
      found = outcomes_.emplace(&handler, std::move(entry)).first;
    }
    *reached = found->second.reached;
    return found->second.error;
  }

 private:
  struct Entry {
    bool reached = false;
    ErrorRef error;
  };
  std::map<const VMAFPAttachment*, Entry> outcomes_;
};

std::function<VerifyOutcome()> PlanShare(HXFileAttachment& attachment, VMAFPAttachment& handler,
                                         const std::shared_ptr<HXFileAttachment>& shared,
                                         ShareAccess& access, bool deep) {
  auto* archiver = dynamic_cast<VMArchiverAttachment*>(&handler);
  // A row that would lead outside the storage folder is refused before anything is read.
  ErrorRef refused;
  std::string relative;
  if (archiver) {
    refused = CheckRelativePath(attachment.attachmentPath(), "attachment path");
  } else {
    if (auto cache = HXAttachmentCache::sharedCache()) {
      relative = cache->relativeFilePathForObject(attachment);
    }
    refused = CheckFileName(attachment.name(), "attachment name");
    if (!refused && !relative.empty()) refused = CheckRelativePath(relative, "attachment folder");
  }
  if (refused) {
    return Answer(VerifyStatus::kCorrupt,
                  fmt::format("refused: {}", refused->localizedDescription()));
  }
  bool reached = false;
  if (ErrorRef error = access.reach(handler, &reached); !reached) {
    return Answer(VerifyStatus::kUnreachable,
                  fmt::format("the share could not be reached{}",
                              error ? ": " + error->localizedDescription() : std::string()));
  }
  std::optional<std::filesystem::path> path;
  if (archiver) {
    path = archiver->attachmentURL(shared);
    if (!path) {
      return Answer(VerifyStatus::kMissing,
                    fmt::format("{} is not in the storage folder", attachment.attachmentPath()));
    }
  } else {
    std::optional<std::filesystem::path> share = handler.sharePath();
    if (!share) return Answer(VerifyStatus::kUnreachable, "the share is not mounted");
    path = AppendPathComponent(AppendPathComponent(*share, relative), attachment.name());
  }
  return [path = *path, deep] { return VerifyStoredPath(path, deep); };
}

std::function<VerifyOutcome()> PlanCloud(const HXFileAttachment& attachment,
                                         const VMCAttachment& handler, bool deep) {
  CloudVerifyTarget target = CloudVerifyTargetOf(attachment, handler);
  if (target.uploaded && (target.crypted_hash.empty() || target.source_hash.empty())) {
    return Answer(VerifyStatus::kCorrupt, "the row has no hashes to compare with");
  }
  return [target = std::move(target), deep] {
    return VerifyCloudAttachment(target, deep, URLSession::sharedSession());
  };
}

// Decides, on the host's thread, how the attachment is checked.
std::function<VerifyOutcome()> Plan(const std::shared_ptr<HXFileAttachment>& attachment,
                                    ShareAccess& access, bool deep) {
  auto scheme = attachment->fileAttachmentScheme();
  auto handler = scheme ? scheme->schemeHandler() : nullptr;
  if (!handler) return Answer(VerifyStatus::kCorrupt, "the row names no usable scheme");
  if (auto* cloud = dynamic_cast<VMCAttachment*>(handler.get())) {
    return PlanCloud(*attachment, *cloud, deep);
  }
  if (auto* share = dynamic_cast<VMAFPAttachment*>(handler.get())) {
    return PlanShare(*attachment, *share, attachment, access, deep);
  }
  // A file reference: the user's own file, wherever it is; only its presence counts.
  std::optional<std::filesystem::path> path = handler->attachmentURL(attachment);
  if (!path || path->empty()) {
    return Answer(VerifyStatus::kMissing, "the reference names no file");
  }
  return [path = *path] { return VerifyStoredPath(path, false); };
}

// Runs the checks on `jobs` threads, drawing progress as they end.
void RunJobs(std::vector<Job>& work, int jobs) {
  ProgressBar bar("verify", ProgressBar::Unit::kItems);
  std::atomic<std::size_t> next{0};
  std::atomic<std::int64_t> done{0};
  const auto total = static_cast<std::int64_t>(work.size());
  auto worker = [&] {
    for (std::size_t i = next++; i < work.size(); i = next++) {
      work[i].outcome = work[i].check();
      bar.update(++done, total);
    }
  };
  std::vector<std::thread> threads;
  const std::size_t count = std::min<std::size_t>(static_cast<std::size_t>(jobs), work.size());
  for (std::size_t i = 1; i < count; ++i) threads.emplace_back(worker);
  worker();
  for (std::thread& thread : threads) thread.join();
  bar.finish();
}

int RunVerify(const GlobalOptions& options, const VerifyOptions& verify) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  std::vector<std::shared_ptr<HXFileAttachment>> attachments;
  if (verify.ids.empty()) {
    attachments = context->allAttachments(&error);
    if (error) return ReportFailure(error);
  } else {
    for (const std::string& text : verify.ids) {
      std::uint64_t id = ParseRecordID(text).value_or(0);
      auto attachment = context->attachmentWithPrimaryKey(id);
      if (!attachment) {
        ReportFailure(fmt::format("no attachment with id {}", text));
        return kUsageError;
      }
      attachments.push_back(std::move(attachment));
    }
  }

  std::vector<Job> work;
  work.reserve(attachments.size());
  ShareAccess access;
  for (const auto& attachment : attachments) {
    Job job;
    job.id = attachment->primaryKeyValue();
    auto scheme = attachment->fileAttachmentScheme();
    job.scheme = scheme ? scheme->name() : "";
    job.check = Plan(attachment, access, verify.deep);
    work.push_back(std::move(job));
  }
  RunJobs(work, verify.jobs);

  bool all_ok = true;
  nlohmann::json out = nlohmann::json::array();
  for (const Job& job : work) {
    all_ok = all_ok && job.outcome.status == VerifyStatus::kOK;
    std::string_view status = VerifyStatusName(job.outcome.status);
    if (options.json) {
      out.push_back({{"id", job.id},
                     {"scheme", job.scheme},
                     {"status", status},
                     {"detail", job.outcome.detail}});
    } else {
      fmt::print("{}\t{}\t{}\t{}\n", job.id, EscapeControlCharacters(job.scheme), status,
                 EscapeControlCharacters(job.outcome.detail));
    }
  }
  if (options.json) std::cout << out.dump(2) << "\n";
  return all_ok ? 0 : 1;
}

}  // namespace

void AddVerifyCommand(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  auto verify_options = std::make_shared<VerifyOptions>();
  CLI::App* verify =
      app.add_subcommand("verify", "Check that attachments are stored intact, writing nothing");
  verify->add_option("id", verify_options->ids, "Attachment ids (default: all)")
      ->transform(RecordIDValidator());
  verify->add_flag("--deep", verify_options->deep,
                   "Read the stored bytes whole (the cloud's are also decrypted and hashed)");
  verify->add_option("--jobs", verify_options->jobs, "Attachments checked at once (default 4)")
      ->check(CLI::Range(1, 64));
  SetCommandBody(verify, exit_code,
                 [&options, verify_options] { return RunVerify(options, *verify_options); });
}

}  // namespace vm::vmattach
