#include "tests/VMAttachments/cloud/CloudTestService.h"

#include <nlohmann/json.hpp>

#include "BWFoundation/ServerEnvironment.h"

namespace vm::testing {
namespace {

std::string LastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

CloudTestService& CloudTestService::shared() {
  static CloudTestService* service = new CloudTestService;
  return *service;
}

CloudTestService::CloudTestService() {
  ServerEnvironment::setCurrent(ServerEnvironment(*URL::URLWithString(server_.url("/api"))));
  reset();
}

std::string CloudTestService::blob(const std::string& uuid) {
  std::lock_guard lock(mu_);
  return blobs_[uuid];
}

void CloudTestService::setBlob(const std::string& uuid, std::string bytes) {
  std::lock_guard lock(mu_);
  blobs_[uuid] = std::move(bytes);
}

void CloudTestService::reset() {
  server_.clearRoutes();
  server_.clearRequests();
  {
    std::lock_guard lock(mu_);
    blobs_.clear();
  }
  server_.on("POST", kCollectionPath, [this](const ServerRequest& request) {
    auto body = nlohmann::json::parse(request.body);
    nlohmann::json reply = {{"uuid", "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"},
                            {"size", body.at("size").get<std::uint64_t>() + kSizeSkew},
                            {"state", "new"},
                            {"upload_url", server_.url(std::string("/storage/") + kUUID)}};
    return ServerReply{201, reply.dump()};
  });
  server_.on("PUT", "/storage/.*", [this](const ServerRequest& request) {
    setBlob(LastComponent(request.path), request.body);
    return ServerReply{200, ""};
  });
  server_.on("PUT", kResourcePattern, [](const ServerRequest& request) {
    return ServerReply{200, request.body};
  });
  server_.on("GET", kResourcePattern, [this](const ServerRequest& request) {
    std::string uuid = LastComponent(request.path);
    nlohmann::json reply = {{"uuid", uuid},
                            {"size", blob(uuid).size()},
                            {"state", "uploaded"},
                            {"download_url", server_.url("/storage/" + uuid)}};
    return ServerReply{200, reply.dump()};
  });
  server_.on("GET", "/storage/.*", [this](const ServerRequest& request) {
    return ServerReply{200, blob(LastComponent(request.path)), "application/octet-stream"};
  });
  server_.on("DELETE", kResourcePattern, [](const ServerRequest&) { return ServerReply{204, ""}; });
}

CannedSession::CannedSession(Outcome outcome)
    : URLSession(URLSessionConfiguration::defaultSessionConfiguration(), {}, MakeSerialQueue()),
      outcome_(std::move(outcome)) {}

void CannedSession::resumeTask(const std::shared_ptr<URLSessionTask>& task) {
  complete(task, outcome_);
}

}  // namespace vm::testing
