#ifndef VM_TOOLS_VMATTACH_ATTACHMENTVERIFIER_H_
#define VM_TOOLS_VMATTACH_ATTACHMENTVERIFIER_H_

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "host/HXRecord.h"

namespace vm {
class HXFileAttachment;
class URLSession;
class VMCAttachment;
}  // namespace vm

namespace vm::vmattach {

// Checks that an attachment's bytes are where its row says they are, reading only: no
// file is written anywhere, neither in the temporary folder nor in the attachment cache.
//
// The checks take plain values copied from the row, never the record itself, so that they
// can run on any thread while the host's context stays on its own. Each check blocks its
// calling thread until it has an answer; it must not be the thread that drains the main
// queue (none of the work below needs it).

enum class VerifyStatus {
  kOK,
  kMissing,      // not where the row says, or the service does not know it as uploaded
  kCorrupt,      // there but not the bytes stored, or a row that cannot be followed
  kPending,      // an upload not done yet
  kUnreachable,  // the server or share could not be reached
};

// "ok", "missing", "corrupt", "pending", "unreachable".
std::string_view VerifyStatusName(VerifyStatus status);

struct VerifyOutcome {
  VerifyStatus status = VerifyStatus::kOK;
  std::string detail;  // in words, for a person
};

// A stored file or folder: there and readable (the first byte of each file read, since a
// share's mount may open a file its server no longer has). `deep` reads every byte of
// every file, in pieces of at most 1 MiB. A file that vanishes while read is missing.
VerifyOutcome VerifyStoredPath(const std::filesystem::path& path, bool deep);

// What the cloud check needs of a row.
struct CloudVerifyTarget {
  bool uploaded = false;
  std::string uuid;       // the service's attachment UUID
  std::string token;      // the web API token
  Bytes crypted_hash;     // SHA-1 of the encrypted bytes, as the upload recorded it
  Bytes source_hash;      // SHA-1 of the plain bytes
  Bytes encryption_data;  // rebuilds the decryptor
};

// The target of `attachment`, a row of the cloud scheme whose handler is `handler`.
CloudVerifyTarget CloudVerifyTargetOf(const HXFileAttachment& attachment,
                                      const VMCAttachment& handler);

// Asks the service's info route whether it knows the attachment as uploaded. `deep` then
// streams the stored bytes once from the download address the service gives, through
// SHA-1 (must equal crypted_hash) and through the decryptor (its tag must verify) into
// SHA-1 (must equal source_hash); memory stays within the transfer's small pieces. Both
// requests go through `session`, whose callback queue must not be the caller's thread.
VerifyOutcome VerifyCloudAttachment(const CloudVerifyTarget& target, bool deep,
                                    const std::shared_ptr<URLSession>& session);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_ATTACHMENTVERIFIER_H_
