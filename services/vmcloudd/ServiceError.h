#ifndef VM_SERVICES_VMCLOUDD_SERVICEERROR_H_
#define VM_SERVICES_VMCLOUDD_SERVICEERROR_H_

#include <cstdint>
#include <string_view>

#include "platform/Error.h"

namespace vm {

// The service's own failures. SQLite, libcurl and errno failures are wrapped as the
// underlying error of one of these, with the file or URL in the description.
inline constexpr std::string_view kVMCloudServiceErrorDomain = "vmcloudd";

enum VMCloudServiceErrorCode : std::int64_t {
  kVMCloudServiceBadSetting = 1,     // a command-line or option value that cannot work
  kVMCloudServiceRecordsFailed = 2,  // the SQLite record store failed
  kVMCloudServiceStorageFailed = 3,  // the storage provider failed or answered oddly
  kVMCloudServiceListenFailed = 4,   // the listening socket could not be made
};

ErrorRef CloudServiceError(VMCloudServiceErrorCode code, std::string_view description,
                           ErrorRef underlying = nullptr);

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_SERVICEERROR_H_
