#ifndef VM_HOST_SQLITE_INTERNAL_HOSTERROR_H_
#define VM_HOST_SQLITE_INTERNAL_HOSTERROR_H_

// The error the reference host reports for what SQLite did not refuse itself (an unknown
// entity, a qualifier it cannot turn into SQL). Not for use outside this folder.

#include <string_view>

#include "host/HostConstants.h"
#include "platform/Error.h"

namespace vm::sqlite_internal {

inline ErrorRef HostError(std::string_view description) {
  return Error::WithDescription(kVMFileAttachmentDomain, 1, description);
}

}  // namespace vm::sqlite_internal

#endif  // VM_HOST_SQLITE_INTERNAL_HOSTERROR_H_
