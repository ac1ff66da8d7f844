#ifndef VM_VMATTACHMENTS_RECOVERY_INTERNAL_RECOVERYSUPPORT_H_
#define VM_VMATTACHMENTS_RECOVERY_INTERNAL_RECOVERYSUPPORT_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/Fetch.h"
#include "host/HXObjectContext.h"
#include "platform/Error.h"

namespace vm::recovery_internal {

// One line on the recovery log facility, or on its error facility; both at the
// facility's own level, with no extra values, bypassing the telemetry cache.
void Log(std::string_view message);
void LogError(std::string_view message);

// The description an error or a record gets in a log line ("(null)" for none).
std::string Describe(const ErrorRef& error);

// The UUID lists of the passes are bound one value per "?"; SQLite refuses more than 999
// parameters per statement in older builds, so a list is fetched in chunks of this size.
inline constexpr std::size_t kMaxBoundUUIDs = 500;

// Fetches asynchronously the attachment records whose "attachmentUUID" is in `uuids`,
// permissions and trash overridden, one request per chunk of kMaxBoundUUIDs. `callback`
// runs once, on the thread of the last request's callback, with the results of all chunks
// in chunk order; when a chunk failed, with no results and the first error.
void FetchAttachmentsWithUUIDs(HXObjectContext& context, const std::set<std::string>& uuids,
                               std::vector<std::string> initial_attribute_names,
                               BWPAsyncFetchRequest::Callback callback);

// The raw SQL condition for `count` bound UUIDs: "attachmentUUID IN (?,?,...)".
std::string UUIDListCondition(std::size_t count);

// Sleeps the calling thread unless `sleep` is set.
using SleepFunction = std::function<void(std::chrono::microseconds)>;
void SleepWith(const SleepFunction& sleep, std::chrono::microseconds duration);

}  // namespace vm::recovery_internal

#endif  // VM_VMATTACHMENTS_RECOVERY_INTERNAL_RECOVERYSUPPORT_H_
