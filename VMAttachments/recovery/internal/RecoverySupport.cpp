#include "VMAttachments/recovery/internal/RecoverySupport.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "BWFoundation/BWTelemetry.h"
#include "VMAttachments/telemetry/AttachmentTelemetry.h"
#include "host/HXFileAttachment.h"

namespace vm::recovery_internal {
namespace {

// Recovery events bypass the telemetry cache: a pass may be the last thing a process does.
void LogTo(const std::shared_ptr<const BWTelemetry>& facility, std::string_view message) {
  telemetry_log(facility->logLevel(), message, facility, {}, true);
}

}  // namespace

void Log(std::string_view message) { LogTo(AttachmentRecoveryTelemetry::logFacility(), message); }

void LogError(std::string_view message) {
  LogTo(AttachmentRecoveryTelemetry::errorFacility(), message);
}

std::string Describe(const ErrorRef& error) { return error ? error->summary() : "(null)"; }

std::string UUIDListCondition(std::size_t count) {
  std::string condition = "attachmentUUID IN (";
  for (std::size_t i = 0; i < count; ++i) condition += i == 0 ? "?" : ",?";
  return condition + ")";
}

void FetchAttachmentsWithUUIDs(HXObjectContext& context, const std::set<std::string>& uuids,
                               std::vector<std::string> initial_attribute_names,
                               BWPAsyncFetchRequest::Callback callback) {
  std::vector<std::vector<KeyValue>> chunks;
  for (const std::string& uuid : uuids) {
    if (chunks.empty() || chunks.back().size() == kMaxBoundUUIDs) chunks.emplace_back();
    chunks.back().emplace_back(uuid);
  }
  if (chunks.empty()) chunks.emplace_back();  // one request that finds nothing

  // The chunks' answers arrive on threads of the host's choosing, in any order.
  struct Gather {
    std::mutex mu;
    std::vector<FetchResults> results;
    ErrorRef error;
    std::size_t outstanding;
    BWPAsyncFetchRequest::Callback callback;
  };
  auto gather = std::make_shared<Gather>();
  gather->results.resize(chunks.size());
  gather->outstanding = chunks.size();
  gather->callback = std::move(callback);

  for (std::size_t i = 0; i < chunks.size(); ++i) {
    BWPFetchSpecification specification{std::string(HXFileAttachment::kEntityName), nullptr,
                                        initial_attribute_names};
    auto request = std::make_shared<BWPAsyncFetchRequest>(
        std::move(specification), [gather, i](FetchResults results, ErrorRef error) {
          std::unique_lock lock(gather->mu);
          gather->results[i] = std::move(results);
          if (error && !gather->error) gather->error = std::move(error);
          if (--gather->outstanding != 0) return;
          // A failed chunk fails the whole fetch: a partial list would pass off the
          // failed chunk's records as recovered.
          FetchResults all;
          for (FetchResults& part : gather->results) {
            if (gather->error) break;
            all.insert(all.end(), std::make_move_iterator(part.begin()),
                       std::make_move_iterator(part.end()));
          }
          ErrorRef first_error = gather->error;
          BWPAsyncFetchRequest::Callback done = std::move(gather->callback);
          lock.unlock();
          if (done) done(std::move(all), std::move(first_error));
        });
    // An empty chunk binds nothing: "IN ()" is not SQL, so it asks for no row at all.
    if (chunks[i].empty()) {
      request->setRawSQLWhere("0");
    } else {
      std::size_t count = chunks[i].size();
      request->setRawSQLWhere(UUIDListCondition(count), std::move(chunks[i]));
    }
    request->setOverridePermissionsSystem(true);
    request->setOverrideTrashSystem(true);
    context.asyncResultsForFetchRequest(std::move(request));
  }
}

void SleepWith(const SleepFunction& sleep, std::chrono::microseconds duration) {
  if (sleep) {
    sleep(duration);
  } else {
    std::this_thread::sleep_for(duration);
  }
}

}  // namespace vm::recovery_internal
