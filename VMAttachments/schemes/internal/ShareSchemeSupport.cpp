#include "VMAttachments/schemes/internal/ShareSchemeSupport.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "host/HXRecord.h"
#include "platform/Log.h"

namespace vm {

void PlainLog(std::string_view line) { Log::Plain().notice("{}", line); }

std::string DescribeError(const ErrorRef& error) { return error ? error->summary() : "(null)"; }

std::string DescribeRecord(const HXRecord* record) {
  return record ? record->description() : "(null)";
}

std::string DescribePath(const std::filesystem::path& path) {
  return path.empty() ? "(null)" : path.string();
}

std::optional<Date> FileModificationDate(const std::filesystem::path& path, ErrorRef* error) {
  struct stat st;
  if (path.empty() || stat(path.c_str(), &st) != 0) {
    Fail(error, PosixError(path.empty() ? ENOENT : errno, path));
    return std::nullopt;
  }
  auto since_epoch =
      std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
  return Date(std::chrono::duration_cast<Date::duration>(since_epoch));
}

std::string StandardizePath(std::string_view path) {
  std::string text(path);
  if (!text.empty() && text[0] == '~' && (text.size() == 1 || text[1] == '/')) {
    if (const char* home = std::getenv("HOME")) text = std::string(home) + text.substr(1);
  }
  if (text.empty()) return text;
  std::string normal = std::filesystem::path(text).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

}  // namespace vm
