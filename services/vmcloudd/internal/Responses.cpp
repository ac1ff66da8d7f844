#include "services/vmcloudd/internal/Responses.h"

#include <nlohmann/json.hpp>

namespace vm::internal {

void SendError(httplib::Response& response, int status, std::string_view code,
               std::string_view message) {
  response.status = status;
  nlohmann::json body = {{"error", code}, {"message", message}};
  response.set_content(body.dump(), "application/json");
}

void SendErrorAndClose(httplib::Response& response, int status, std::string_view code,
                       std::string_view message) {
  SendError(response, status, code, message);
  response.set_header("Connection", "close");
}

}  // namespace vm::internal
