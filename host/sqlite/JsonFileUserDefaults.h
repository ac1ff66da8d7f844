#ifndef VM_HOST_SQLITE_JSONFILEUSERDEFAULTS_H_
#define VM_HOST_SQLITE_JSONFILEUSERDEFAULTS_H_

#include <filesystem>
#include <memory>

#include "platform/UserDefaults.h"

namespace vm {

// User defaults kept in a JSON object in one file of the data folder, rewritten (through a
// temporary file and a rename) after every change. A missing or unreadable file reads as
// empty. Thread-safe.
class JsonFileUserDefaults : public InMemoryUserDefaults {
 public:
  static std::shared_ptr<JsonFileUserDefaults> open(std::filesystem::path path);

  explicit JsonFileUserDefaults(std::filesystem::path path) : path_(std::move(path)) {}

 protected:
  void didChange(const std::map<std::string, Value, std::less<>>& values) override;

 private:
  std::filesystem::path path_;
};

}  // namespace vm

#endif  // VM_HOST_SQLITE_JSONFILEUSERDEFAULTS_H_
