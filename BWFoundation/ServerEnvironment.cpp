#include "BWFoundation/ServerEnvironment.h"

#include <cstdlib>
#include <mutex>

namespace vm {
namespace {

constexpr const char* kUnconfiguredAPI = "https://velmora-api.invalid/";

std::mutex environment_mu;
std::optional<ServerEnvironment>& Chosen() {
  static auto* chosen = new std::optional<ServerEnvironment>;
  return *chosen;
}

ServerEnvironment FromProcessEnvironment() {
  if (const char* text = std::getenv("VELMORA_API"); text && *text) {
    if (auto url = URL::URLWithString(text)) return ServerEnvironment(*url);
  }
  return ServerEnvironment(*URL::URLWithString(kUnconfiguredAPI));
}

}  // namespace

ServerEnvironment ServerEnvironment::current() {
  std::lock_guard lock(environment_mu);
  if (!Chosen()) Chosen() = FromProcessEnvironment();
  return *Chosen();
}

void ServerEnvironment::setCurrent(ServerEnvironment environment) {
  std::lock_guard lock(environment_mu);
  Chosen() = std::move(environment);
}

}  // namespace vm
