#ifndef VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPER_H_
#define VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPER_H_

// The file-wrapper archive: a magic followed by self-describing entries, read strictly
// front to back. No table of contents, no count, no checksum, no compression.
//
//   archive := "BWFILEWRAPPER1" entry*
//   entry   := u64le N, N bytes of UTF-8 JSON (the info dictionary),
//              and for a regular file only: u64le M, M bytes of contents
//
// The info dictionary holds "path" (relative to the archived directory, "/"-joined),
// "type" (one of the NSFileType strings below) and "permission" (the POSIX mode bits).

#include <cstdint>
#include <string_view>

namespace vm {

inline constexpr std::string_view BWFileWrapperErrorDomain = "com.brenwick.FileWrapper";

// Codes in BWFileWrapperErrorDomain.
enum BWFileWrapperErrorCode : std::int64_t {
  // createArchiveForWriting(): the archive file already exists. No user info.
  kBWFileWrapperArchiveExistsError = 0,
  // checkHeader(): the first bytes are not the magic. An empty user info.
  kBWFileWrapperBadMagicError = 1,
  // unarchiveFilesTo(): an entry's "path" is absolute or leads out of the destination.
  // Such an entry is refused rather than written wherever it points.
  kBWFileWrapperUnsafePathError = 2,
};

inline constexpr std::string_view kBWFileWrapperMagic = "BWFILEWRAPPER1";

// Keys of the info dictionary.
inline constexpr std::string_view kBWFileWrapperPathKey = "path";
inline constexpr std::string_view kBWFileWrapperTypeKey = "type";
inline constexpr std::string_view kBWFileWrapperPermissionKey = "permission";

// File types as the file-attribute layer names them. Only a regular file carries data;
// every other type is an info block alone.
inline constexpr std::string_view NSFileTypeRegular = "NSFileTypeRegular";
inline constexpr std::string_view NSFileTypeDirectory = "NSFileTypeDirectory";
inline constexpr std::string_view NSFileTypeSymbolicLink = "NSFileTypeSymbolicLink";
inline constexpr std::string_view NSFileTypeSocket = "NSFileTypeSocket";
inline constexpr std::string_view NSFileTypeCharacterSpecial = "NSFileTypeCharacterSpecial";
inline constexpr std::string_view NSFileTypeBlockSpecial = "NSFileTypeBlockSpecial";
inline constexpr std::string_view NSFileTypeUnknown = "NSFileTypeUnknown";

// Errors of the JSON layer, in NSCocoaErrorDomain: an info block that does not parse
// (or is not an info dictionary), and an info dictionary that cannot be serialised
// (a file name that is not valid UTF-8).
inline constexpr std::int64_t kBWFileWrapperJSONReadError = 3840;
inline constexpr std::int64_t kBWFileWrapperJSONWriteError = 3852;

}  // namespace vm

#endif  // VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPER_H_
