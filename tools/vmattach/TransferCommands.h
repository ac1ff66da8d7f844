#ifndef VM_TOOLS_VMATTACH_TRANSFERCOMMANDS_H_
#define VM_TOOLS_VMATTACH_TRANSFERCOMMANDS_H_

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/vmattach/Command.h"

namespace vm {
class HXFileAttachment;
class HXFileAttachmentScheme;
class HXFileAttachmentSchemeHandler;
class SqliteObjectContext;
}  // namespace vm

namespace vm::vmattach {

// `delete ID` and `transfers [resume [ID] | suspend ID | cancel ID]`.
void AddTransferCommands(CLI::App& app, const GlobalOptions& options, int* exit_code);

// Removes what killed processes left behind, as far as no live process owns it: the
// schemes' work files (through the library) and vmattach's own partial copies in the
// attachment cache. Commands that store, retrieve, resume or recover call it first.
void ReclaimAbandonedFiles(SqliteObjectContext& context);

// Deletes `attachment`: its stored bytes through its scheme's deletion protocol (a scheme
// without one has nothing deleted), then its row, transfers and cached copy. False with the
// failure reported on stderr; a deletion that did not finish keeps its transfer.
bool DeleteAttachment(SqliteObjectContext& context,
                      const std::shared_ptr<HXFileAttachment>& attachment);

// Resumes the registered transfers of attachment `id` and waits for them; true when there
// were none or all finished, else false with the failures reported on stderr.
bool ResumeTransfersOf(SqliteObjectContext& context, std::uint64_t id);

// Whether `handler` queues its transfers with the host's transfer manager and leaves
// starting them to the host (the cloud scheme does).
bool QueuesTransfers(const HXFileAttachmentSchemeHandler& handler);

// `store` through such a scheme, as a desktop host does it: storeFile prepares and
// registers the upload; the record and its transfer are saved; a copy of `source` goes
// into the attachment's cache folder; the upload is resumed at once and waited for.
// False with the failure reported on stderr; prints nothing else. A failed upload keeps
// its transfer and says how to resume it.
bool StoreThroughTransfer(SqliteObjectContext& context,
                          const std::shared_ptr<HXFileAttachment>& attachment,
                          HXFileAttachmentSchemeHandler& handler,
                          const std::filesystem::path& source, const std::string& relative_path,
                          bool quiet = false);

// `retrieve` through such a scheme: the scheme downloads into the attachment's cache
// folder; the result (a file or an unpacked folder) is then copied into `destination`
// under the attachment's name; an existing item there is refused (EEXIST) unless
// `replace`. The copy made, or nullopt with the failure reported on stderr.
std::optional<std::filesystem::path> RetrieveThroughCache(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachment>& attachment,
    HXFileAttachmentSchemeHandler& handler, const std::filesystem::path& destination, bool replace,
    bool quiet = false);

// One file of StoreManyThroughTransfer.
struct BatchStoreItem {
  std::string file;                              // as given
  std::shared_ptr<HXFileAttachment> attachment;  // set when stored, uploaded and saved
};

// StoreThroughTransfer of new attachments for many files through `scheme`, whose handler
// `handler` queues transfers, under `path` (empty: the cache's folder), with at most
// `jobs` uploads in flight: while some upload, the next files are prepared. The records
// and uploads prepared together are saved in one transaction before any of their bytes
// leave the machine. Each failure is reported naming its file; the others go on. Draws
// one bar for the batch.
void StoreManyThroughTransfer(SqliteObjectContext& context,
                              const std::shared_ptr<HXFileAttachmentScheme>& scheme,
                              HXFileAttachmentSchemeHandler& handler, const std::string& path,
                              std::vector<BatchStoreItem>& items, int jobs);

// One attachment of RetrieveManyThroughCache.
struct BatchRetrieveItem {
  std::shared_ptr<HXFileAttachment> attachment;
  std::shared_ptr<HXFileAttachmentSchemeHandler> handler;  // one that queues transfers
  std::optional<std::filesystem::path> copy;               // set when retrieved
};

// RetrieveThroughCache for many attachments (distinct ones), with at most `jobs`
// downloads in flight. Each failure is reported naming its id; the others go on. Draws
// one bar for the batch.
void RetrieveManyThroughCache(SqliteObjectContext& context, std::vector<BatchRetrieveItem>& items,
                              const std::filesystem::path& destination, bool replace, int jobs);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_TRANSFERCOMMANDS_H_
