#include "tests/services/vmcloudd/HttpTestClient.h"

#include <httplib.h>

namespace vm::testing {

HttpReply Send(std::string_view method, const std::string& url, const std::string& body,
               const HttpHeaders& headers) {
  auto path_start = url.find('/', url.find("://") + 3);
  std::string origin = url.substr(0, path_start);
  std::string target = path_start == std::string::npos ? "/" : url.substr(path_start);
  httplib::Client client(origin);
  client.set_url_encode(false);
  client.set_connection_timeout(10);
  client.set_read_timeout(30);
  // Tests serve HTTPS with throw-away self-signed certificates.
  client.enable_server_certificate_verification(false);
  httplib::Headers sent;
  for (const auto& [name, value] : headers) sent.emplace(name, value);

  httplib::Result result{nullptr, httplib::Error::Unknown};
  if (method == "GET") {
    result = client.Get(target, sent);
  } else if (method == "PUT") {
    result = client.Put(target, sent, body, "application/octet-stream");
  } else if (method == "POST") {
    result = client.Post(target, sent, body, "application/json");
  } else if (method == "DELETE") {
    result = client.Delete(target, sent);
  } else if (method == "HEAD") {
    result = client.Head(target, sent);
  }
  if (!result) return {};
  return HttpReply{result->status, result->body};
}

std::string WithQueryParameter(const std::string& url, std::string_view name,
                               std::string_view value) {
  const std::string key = std::string(name) + "=";
  auto query = url.find('?');
  if (query == std::string::npos) return url + "?" + key + std::string(value);
  std::string out = url.substr(0, query + 1);
  std::string rest = url.substr(query + 1);
  bool replaced = false;
  std::size_t start = 0;
  while (start <= rest.size()) {
    auto end = rest.find('&', start);
    if (end == std::string::npos) end = rest.size();
    std::string part = rest.substr(start, end - start);
    if (part.rfind(key, 0) == 0) {
      part = key + std::string(value);
      replaced = true;
    }
    if (start != 0) out += "&";
    out += part;
    start = end + 1;
  }
  if (!replaced) out += "&" + key + std::string(value);
  return out;
}

std::string ApiClient::url(std::string_view uuid) const {
  std::string out = base_url + "/v1/_internal/attachment";
  if (!uuid.empty()) out += "/" + std::string(uuid);
  return out;
}

HttpReply ApiClient::call(std::string_view method, std::string_view uuid,
                          const std::string& body) const {
  return Send(method, url(uuid), body,
              {{"Content-Type", "application/json"}, {"Authorization", "Velmora " + token}});
}

HttpReply ApiClient::start(std::uint64_t size) const {
  return call("POST", {}, nlohmann::json{{"size", size}}.dump());
}

HttpReply ApiClient::confirm(const std::string& uuid, std::uint64_t size) const {
  return call("PUT", uuid,
              nlohmann::json{{"uuid", uuid}, {"size", size}, {"state", "uploaded"}}.dump());
}

std::string TestBytes(std::size_t size, unsigned seed) {
  std::string out(size, '\0');
  std::uint64_t state = 0x9E3779B97F4A7C15ull * (seed + 1);
  for (char& c : out) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    c = static_cast<char>(state);
  }
  return out;
}

}  // namespace vm::testing
