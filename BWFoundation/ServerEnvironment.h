#ifndef VM_BWFOUNDATION_SERVERENVIRONMENT_H_
#define VM_BWFOUNDATION_SERVERENVIRONMENT_H_

#include <optional>

#include "platform/URL.h"

namespace vm {

// The servers this process talks to. The host chooses one with setCurrent() before the
// first use; later changes are seen by current(), but not by values that were derived from
// it once and kept (the attachment API's base URL is one).
//
// Thread-safe.
class ServerEnvironment {
 public:
  explicit ServerEnvironment(URL velmoraAPI) : velmora_api_(std::move(velmoraAPI)) {}

  // The environment the host set. When none was set: one built from $VELMORA_API, else one
  // whose address never resolves (".invalid"), so that requests fail as transport errors
  // instead of reaching some server by accident.
  static ServerEnvironment current();
  static void setCurrent(ServerEnvironment environment);

  // The product's web service base URL.
  const URL& velmoraAPI() const { return velmora_api_; }

 private:
  URL velmora_api_;
};

}  // namespace vm

#endif  // VM_BWFOUNDATION_SERVERENVIRONMENT_H_
