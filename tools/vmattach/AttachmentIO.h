#ifndef VM_TOOLS_VMATTACH_ATTACHMENTIO_H_
#define VM_TOOLS_VMATTACH_ATTACHMENTIO_H_

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vm {
class HXFileAttachment;
class HXFileAttachmentScheme;
class HXFileAttachmentSchemeHandler;
class SqliteObjectContext;
}  // namespace vm

namespace vm::vmattach {

// The per-attachment steps of `store` and `retrieve`, for the commands that move bytes.
// Each reports its failure on stderr (ReportFailure's form) and prints nothing on stdout;
// the caller prints the result. Main thread only: they drain the main queue while waiting.

// Handlers that answer within the call and send no outcome for a store (file references).
bool IsSynchronousScheme(const std::string& class_name);

// Why FILE cannot be stored through a scheme that copies bytes (`reference` false), or
// empty when it can.
std::string CheckStoreSource(const std::string& file, bool reference);

// A new attachment record for `file` (a leading ~ kept as typed) through `scheme`: path,
// name, UUID and file details set, not saved. Null with the failure reported.
std::shared_ptr<HXFileAttachment> NewAttachmentForFile(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachmentScheme>& scheme,
    const std::string& file, std::filesystem::path* source);

// The folder on the storage `attachment` goes to: `path` when given, else the cache's.
std::string RelativeStoragePath(const HXFileAttachment& attachment, const std::string& path);

// Stores `file` as a new attachment through `scheme`, whose handler is `handler` (the
// caller checked the token), under `path` (empty: the cache's folder). The saved record,
// or null with the failure reported; a failed store leaves no row (a failed upload keeps
// its row and transfer, and says how to resume it). `quiet`: no progress bar of its own.
std::shared_ptr<HXFileAttachment> StoreNewAttachment(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachmentScheme>& scheme,
    const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler, const std::string& file,
    const std::string& path, bool quiet = false);

// The store step of StoreNewAttachment: `source` through `handler` as the bytes of
// `attachment` (a record from NewAttachmentForFile, saved or not), under `relative` (see
// RelativeStoragePath; `chosen_folder` when the user named it). Saves the record; false
// with the failure reported, as StoreNewAttachment.
bool StoreAttachmentBytes(SqliteObjectContext& context,
                          const std::shared_ptr<HXFileAttachment>& attachment,
                          const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler,
                          const std::filesystem::path& source, const std::string& relative,
                          bool chosen_folder, bool quiet = false);

// Brings `attachment`'s bytes into `destination` (created when missing) through `handler`
// (the caller checked the token); a same-named item there is refused unless `force`.
// The path a --json result names (the destination folder, or the copy made there for
// schemes that go through the cache), or nullopt with the failure reported.
std::optional<std::filesystem::path> RetrieveAttachment(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachment>& attachment,
    const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler,
    const std::filesystem::path& destination, bool force, bool quiet = false);

// StoreNewAttachment for each of `files` (`quiet`), in one process with one bar: through
// a scheme that queues transfers with up to `jobs` uploads at once; through the others
// one file after another. Each failure is reported naming its file, and the others go
// on. The records in the order of `files`, null for a file that failed.
std::vector<std::shared_ptr<HXFileAttachment>> StoreNewAttachments(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachmentScheme>& scheme,
    const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler,
    const std::vector<std::string>& files, const std::string& path, int jobs);

// RetrieveAttachment for each of `ids` (distinct) into `destination`, in one process with
// one bar: those whose scheme queues transfers with up to `jobs` downloads at once, the
// others one after another. Each failure (an unknown id among them) is reported naming
// its id, and the others go on. The paths in the order of `ids`, nullopt for a failure.
std::vector<std::optional<std::filesystem::path>> RetrieveAttachments(
    SqliteObjectContext& context, const std::vector<std::uint64_t>& ids,
    const std::filesystem::path& destination, bool force, int jobs);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_ATTACHMENTIO_H_
