#include "host/sqlite/JsonFileUserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>

#include "platform/Log.h"

namespace vm {

std::shared_ptr<JsonFileUserDefaults> JsonFileUserDefaults::open(std::filesystem::path path) {
  auto defaults = std::make_shared<JsonFileUserDefaults>(path);
  std::ifstream in(path);
  if (!in) return defaults;
  nlohmann::json document = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) {
    Log::Get("com.brenwick.velmora", "UserDefaults")
        .error("ignoring unreadable defaults file {}", path.string());
    return defaults;
  }
  std::lock_guard lock(defaults->mu_);
  for (const auto& [key, value] : document.items()) {
    if (value.is_boolean()) {
      defaults->values_.emplace(key, value.get<bool>());
    } else if (value.is_number_integer()) {
      defaults->values_.emplace(key, value.get<std::int64_t>());
    } else if (value.is_string()) {
      defaults->values_.emplace(key, value.get<std::string>());
    }
  }
  return defaults;
}

void JsonFileUserDefaults::didChange(const std::map<std::string, Value, std::less<>>& values) {
  nlohmann::json document = nlohmann::json::object();
  for (const auto& [key, value] : values) {
    std::visit([&document, &key](const auto& v) { document[key] = v; }, value);
  }
  std::filesystem::path temporary = path_;
  temporary += ".tmp";
  std::string text = document.dump(2) + "\n";
  // The defaults may hold secrets: written 0600, whatever the umask allows.
  ::unlink(temporary.c_str());
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  bool written = fd >= 0;
  for (std::size_t done = 0; written && done < text.size();) {
    ssize_t put = ::write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR) continue;
    written = put > 0;
    if (written) done += static_cast<std::size_t>(put);
  }
  if (fd >= 0 && ::close(fd) != 0) written = false;
  if (!written) {
    Log::Get("com.brenwick.velmora", "UserDefaults")
        .error("could not write defaults file {}", temporary.string());
    ::unlink(temporary.c_str());
    return;
  }
  std::error_code ignored;
  std::filesystem::rename(temporary, path_, ignored);
}

}  // namespace vm
