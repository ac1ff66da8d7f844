#include "services/vmcloudd/internal/Responses.h"

#include <nlohmann/json.hpp>

namespace vm::internal {

void SendError(HttpResponse& response, int status, std::string_view code,
               std::string_view message) {
  response.status = status;
  response.content_type = "application/json";
  response.body = nlohmann::json{{"error", code}, {"message", message}}.dump();
}

}  // namespace vm::internal
