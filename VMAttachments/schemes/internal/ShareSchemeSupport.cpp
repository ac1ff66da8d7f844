#include "VMAttachments/schemes/internal/ShareSchemeSupport.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "host/HXRecord.h"
#include "platform/Log.h"
#include "platform/SafeNames.h"

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

ErrorRef CreateMissingFolders(const std::filesystem::path& folder, unsigned mode,
                              std::vector<std::filesystem::path>* created) {
  std::filesystem::path built;
  for (const std::filesystem::path& part : folder) {
    built /= part;
    if (part == "/" || part.empty()) continue;
    struct stat st;
    if (stat(built.c_str(), &st) == 0) {
      if (!S_ISDIR(st.st_mode)) return PosixError(ENOTDIR, built);
      continue;
    }
    if (mkdir(built.c_str(), static_cast<mode_t>(mode)) == 0) {
      created->push_back(built);
    } else if (errno != EEXIST) {
      return PosixError(errno, built);
    }
  }
  return nullptr;
}

void RemoveCreatedFolders(const std::vector<std::filesystem::path>& created) {
  // rmdir removes nothing but an empty folder, so what arrived meanwhile stays.
  for (auto it = created.rbegin(); it != created.rend(); ++it) rmdir(it->c_str());
}

ErrorRef CheckAttachmentLocation(std::string_view name, std::string_view relative_folder) {
  if (ErrorRef error = CheckFileName(name, "attachment name")) return error;
  return CheckRelativePath(relative_folder, "attachment folder");
}

}  // namespace vm
