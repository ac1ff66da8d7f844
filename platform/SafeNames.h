#ifndef VM_PLATFORM_SAFENAMES_H_
#define VM_PLATFORM_SAFENAMES_H_

#include <string>
#include <string_view>

#include "platform/Error.h"

namespace vm {

// Checks for names and relative paths that come from a database row or from a person, made
// before they are joined to a folder that everything must stay inside. A refusal is a
// POSIX EINVAL error whose description says which value (`what`, e.g. "attachment name")
// was refused and why. Thread-safe: pure functions.

// The longest file name most Linux file systems accept, in bytes.
inline constexpr std::size_t kMaxFileNameBytes = 255;

// Null when `name` can be one entry of a folder: not empty, not "." or "..", no "/" and no
// NUL, at most kMaxFileNameBytes bytes.
ErrorRef CheckFileName(std::string_view name, std::string_view what);

// Null when `path`, appended to a folder, stays inside it: relative (no leading "/"), no
// ".." component and no NUL. Empty means the folder itself and is accepted.
ErrorRef CheckRelativePath(std::string_view path, std::string_view what);

// `text` for output a person reads: control characters (C0, DEL and the C1 range encoded
// in UTF-8) become C-style escapes ("\n", "\t", "\x1b", "\u009b"), so a name cannot forge
// rows, lines or terminal commands. Everything else is kept byte for byte.
std::string EscapeControlCharacters(std::string_view text);

}  // namespace vm

#endif  // VM_PLATFORM_SAFENAMES_H_
