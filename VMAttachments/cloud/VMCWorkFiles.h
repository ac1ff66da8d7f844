#ifndef VM_VMATTACHMENTS_CLOUD_VMCWORKFILES_H_
#define VM_VMATTACHMENTS_CLOUD_VMCWORKFILES_H_

#include <string>

namespace vm {

// The work file a recovery's trial decryption writes, alone in a folder of the temporary
// folder named by a fresh UUID and owned (OwnerLock) while it is written.
inline constexpr char kTrialDecryptionFileName[] = "testDecrypt";

// The cloud scheme writes its work files in the temporary folder: a store encrypts in
// <databaseUUID>/<attachmentUUID>/, a save decrypts in <attachmentUUID>/, a recovery
// proves a work file in <UUID>/testDecrypt, and a download arrives as a hidden partial
// file. Each carries its writer's OwnerLock while it is written, so a process killed at
// work leaves them unowned.
//
// Removes those work files of the database `database_uuid` that no live process owns,
// and the emptied decryption folders the scheme leaves. A host calls it before it stores,
// retrieves, resumes or recovers, and may call it after. Never touches anything owned,
// anything another user owns, or a folder below the temporary folder that holds more than
// a decryption leaves. Thread-safe; safe beside other processes doing the same.
void ReclaimAbandonedWorkFiles(const std::string& database_uuid);

}  // namespace vm

#endif  // VM_VMATTACHMENTS_CLOUD_VMCWORKFILES_H_
