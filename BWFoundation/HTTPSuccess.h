#ifndef VM_BWFOUNDATION_HTTPSUCCESS_H_
#define VM_BWFOUNDATION_HTTPSUCCESS_H_

#include "platform/URLSession.h"

namespace vm {

// Whether the response's status says the request succeeded: any 2xx status.
bool isSuccess(const HTTPURLResponse& response);

}  // namespace vm

#endif  // VM_BWFOUNDATION_HTTPSUCCESS_H_
