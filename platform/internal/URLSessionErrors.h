#ifndef VM_PLATFORM_INTERNAL_URLSESSIONERRORS_H_
#define VM_PLATFORM_INTERNAL_URLSESSIONERRORS_H_

// The NSURLErrorDomain errors the session's units make (URLSessionError() is the public
// one, for libcurl failures). Not for use outside this folder.

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace vm::url_internal {

// NSURLErrorDomain `code` with `description`, the URL under NSURLErrorKey (when not
// empty) and `underlying` under NSUnderlyingErrorKey (when set).
ErrorRef URLError(std::int64_t code, std::string_view description, const std::string& url,
                  ErrorRef underlying = nullptr);

// What a cancelled task completes with.
ErrorRef CancelledError(const std::string& url);

}  // namespace vm::url_internal

#endif  // VM_PLATFORM_INTERNAL_URLSESSIONERRORS_H_
