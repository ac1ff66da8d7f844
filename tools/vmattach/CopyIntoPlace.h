#ifndef VM_TOOLS_VMATTACH_COPYINTOPLACE_H_
#define VM_TOOLS_VMATTACH_COPYINTOPLACE_H_

#include <filesystem>

#include "platform/Error.h"

namespace vm::vmattach {

// The one way vmattach copies an item it hands over (the store's cache copy, a retrieved
// copy), after whoever made the source has finished with it.
//
// Copies the file or folder `from` to `to`, keeping modes (so executable bits) and copying
// links as links; other special files are refused. It promises:
//  - Each file is a reflink where the file system shares blocks (FICLONE), else copied by
//    the kernel (copy_file_range), never through a buffer of this process.
//  - Every file's bytes, and every folder made, are flushed to the disk before the copy
//    takes `to`'s name: a crash never leaves a short file under it.
//  - The copy is made under the hidden name PartialPathFor(to), which carries this
//    process's OwnerLock while it is made; one found there from a writer that died is
//    removed first, one whose writer still runs fails the copy (EBUSY). The abandoned
//    partial copies of other targets in `to`'s folder go too (ReclaimAbandonedPartials).
//  - An existing `to` is refused (EEXIST) unless `replace`: then the copy is swapped in in
//    one step and the old item removed after. On failure nothing new is under `to` and
//    the partial copy is gone.
// Thread-safe for different `to`s.
bool CopyIntoPlace(const std::filesystem::path& from, const std::filesystem::path& to, bool replace,
                   ErrorRef* error);

// As CopyIntoPlace without `replace`, into a folder that this process owns alone while the
// copy is made and that it moves the copy out of (a staging folder under its OwnerLock):
// the copy is still whole on the disk before it takes `to`'s name, but that name is not
// flushed (whoever moves the copy on decides where a name must last), and the folder is
// not searched for other writers' abandoned partial copies.
bool CopyIntoOwnFolder(const std::filesystem::path& from, const std::filesystem::path& to,
                       ErrorRef* error);

// The hidden name beside `to` under which CopyIntoPlace makes its copy.
std::filesystem::path PartialPathFor(const std::filesystem::path& to);

// Removes the partial copies in `folder` whose writer is gone: items named as
// PartialPathFor names them, files or folders (never links) of this user's, whose
// OwnerLock no live process holds. Touches nothing else.
void ReclaimAbandonedPartials(const std::filesystem::path& folder);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_COPYINTOPLACE_H_
