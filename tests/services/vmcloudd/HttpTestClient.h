#ifndef VM_TESTS_SERVICES_VMCLOUDD_HTTPTESTCLIENT_H_
#define VM_TESTS_SERVICES_VMCLOUDD_HTTPTESTCLIENT_H_

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vm::testing {

struct HttpReply {
  int status = 0;  // 0: no answer at all
  std::string body;
  nlohmann::json json() const { return nlohmann::json::parse(body, nullptr, false); }
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// One request to an absolute http or https URL (certificates are not verified), sent as
// given (no re-encoding), on its own connection. A body is sent for PUT and POST only.
HttpReply Send(std::string_view method, const std::string& url, const std::string& body = {},
               const HttpHeaders& headers = {});

// `url` with its query parameter `name` set to `value`.
std::string WithQueryParameter(const std::string& url, std::string_view name,
                               std::string_view value);

// The attachment API of a service at `base_url`, called with one token.
struct ApiClient {
  std::string base_url;
  std::string token = "alpha";

  std::string url(std::string_view uuid = {}) const;
  HttpReply call(std::string_view method, std::string_view uuid = {},
                 const std::string& body = {}) const;
  HttpReply start(std::uint64_t size) const;
  // The confirmation the upload operation sends: {"uuid", "size", "state": "uploaded"}.
  HttpReply confirm(const std::string& uuid, std::uint64_t size) const;
  HttpReply info(const std::string& uuid) const { return call("GET", uuid); }
  HttpReply remove(const std::string& uuid) const { return call("DELETE", uuid); }
};

// Distinct, non-repeating bytes for attachment `seed`.
std::string TestBytes(std::size_t size, unsigned seed);

}  // namespace vm::testing

#endif  // VM_TESTS_SERVICES_VMCLOUDD_HTTPTESTCLIENT_H_
