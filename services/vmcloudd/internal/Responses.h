#ifndef VM_SERVICES_VMCLOUDD_INTERNAL_RESPONSES_H_
#define VM_SERVICES_VMCLOUDD_INTERNAL_RESPONSES_H_

#include <httplib.h>

#include <string_view>

namespace vm::internal {

// Every refusal of the service is JSON: {"error": short code, "message": sentence}.
void SendError(httplib::Response& response, int status, std::string_view code,
               std::string_view message);

// For a refusal sent before the request body was read: the unread body would otherwise
// be taken for the next request on a kept-alive connection.
void SendErrorAndClose(httplib::Response& response, int status, std::string_view code,
                       std::string_view message);

}  // namespace vm::internal

#endif  // VM_SERVICES_VMCLOUDD_INTERNAL_RESPONSES_H_
