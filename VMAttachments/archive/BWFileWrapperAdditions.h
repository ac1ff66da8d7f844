#ifndef VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERADDITIONS_H_
#define VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERADDITIONS_H_

#include <filesystem>
#include <string>

namespace vm {

// The path of `url` relative to the directory `parent`, components joined with "/", no
// leading or trailing "/": /x/y/z.txt against /x gives "y/z.txt". The item may lie at any
// depth below the parent.
//
// Containment is decided on resolved paths (symbolic links in the parent and in the
// item's folders are followed; the item itself is not, so a link is an item of its own):
// `parent` must be an existing directory and `url` must lie below it. Otherwise this
// throws InternalInconsistencyException with the reason
//   "Base path components do not match - '<url>' is not a direct subpath of the passed in
//    parent path ('<parent>') <error or nothing>"
// The returned text itself is lexical: both paths are made absolute and normalised, and
// as many leading components as the parent has are dropped from the item's.
std::string subPathFromURL(const std::filesystem::path& url, const std::filesystem::path& parent);

// "file://" and the percent-encoded absolute path: how paths appear in messages that
// name a location as a URL.
std::string FileURLString(const std::filesystem::path& path);

}  // namespace vm

#endif  // VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERADDITIONS_H_
