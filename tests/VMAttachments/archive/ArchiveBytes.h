#ifndef VM_TESTS_VMATTACHMENTS_ARCHIVE_ARCHIVEBYTES_H_
#define VM_TESTS_VMATTACHMENTS_ARCHIVE_ARCHIVEBYTES_H_

// An archive writer and parser written from the format description alone, so that the
// tests do not check the library against itself:
//   "BWFILEWRAPPER1", then per entry: u64le N, N bytes of JSON info, and for a regular
//   file u64le M and M bytes of data.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vm::testing {

class ArchiveBytes {
 public:
  ArchiveBytes& magic() { return raw("BWFILEWRAPPER1"); }
  ArchiveBytes& raw(const std::string& bytes) {
    bytes_ += bytes;
    return *this;
  }
  ArchiveBytes& u64(std::uint64_t value) {
    for (int i = 0; i < 8; ++i) bytes_ += static_cast<char>((value >> (8 * i)) & 0xff);
    return *this;
  }
  ArchiveBytes& info(const std::string& json) { return u64(json.size()).raw(json); }
  ArchiveBytes& data(const std::string& contents) { return u64(contents.size()).raw(contents); }
  // Offsets at which a complete archive may end: after the magic and after each entry.
  ArchiveBytes& boundary() {
    boundaries_.push_back(bytes_.size());
    return *this;
  }

  const std::string& bytes() const { return bytes_; }
  const std::vector<std::size_t>& boundaries() const { return boundaries_; }

 private:
  std::string bytes_;
  std::vector<std::size_t> boundaries_;
};

struct ParsedEntry {
  std::string info;
  std::optional<std::string> data;
};

// Splits a well-formed archive into entries; an entry has data when its info text names
// the regular-file type. Returns nothing for malformed input.
std::optional<std::vector<ParsedEntry>> ParseArchive(const std::string& bytes);

}  // namespace vm::testing

#endif  // VM_TESTS_VMATTACHMENTS_ARCHIVE_ARCHIVEBYTES_H_
