#ifndef VM_TESTS_SUPPORT_TEMPDIR_H_
#define VM_TESTS_SUPPORT_TEMPDIR_H_

#include <filesystem>
#include <string>
#include <string_view>

namespace vm::testing {

// A fresh folder under the system temporary directory, removed with everything in it
// when the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

void WriteFile(const std::filesystem::path& path, std::string_view contents);
std::string ReadFile(const std::filesystem::path& path);

}  // namespace vm::testing

#endif  // VM_TESTS_SUPPORT_TEMPDIR_H_
