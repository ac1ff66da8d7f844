#include "services/vmcloudd/ServiceError.h"

namespace vm {

ErrorRef CloudServiceError(VMCloudServiceErrorCode code, std::string_view description,
                           ErrorRef underlying) {
  return Error::WithDescription(kVMCloudServiceErrorDomain, code, description,
                                std::move(underlying));
}

}  // namespace vm
