#ifndef VM_SERVICES_VMCLOUDD_INTERNAL_RESPONSES_H_
#define VM_SERVICES_VMCLOUDD_INTERNAL_RESPONSES_H_

#include <string_view>

#include "services/vmcloudd/HttpServer.h"

namespace vm::internal {

// Every refusal of the service is JSON: {"error": short code, "message": sentence}.
void SendError(HttpResponse& response, int status, std::string_view code, std::string_view message);

}  // namespace vm::internal

#endif  // VM_SERVICES_VMCLOUDD_INTERNAL_RESPONSES_H_
