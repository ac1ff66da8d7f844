#ifndef VM_SERVICES_VMCLOUDD_STORAGEPROVIDER_H_
#define VM_SERVICES_VMCLOUDD_STORAGEPROVIDER_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace vm {

// Where the service reads the time; tests replace it to expire URLs without waiting.
using ServiceClock = std::function<std::chrono::system_clock::time_point()>;

// What a storage provider knows of one object.
struct StoredObject {
  bool exists = false;
  std::uint64_t size = 0;
};

// The place that holds the bytes of attachments. Clients move the bytes themselves,
// through URLs the provider signs; the service only asks whether an object is there and
// removes it. Objects are named by keys the service chooses (an attachment UUID).
//
// Implementations are safe for concurrent use from the service's request threads.
class StorageProvider {
 public:
  virtual ~StorageProvider() = default;

  // A short name for logs: "embedded" or "s3".
  virtual std::string_view kind() const = 0;

  // URLs through which anyone holding them may PUT or GET the object's bytes until
  // `lifetime` has passed. Signing cannot fail once the provider is made.
  virtual std::string uploadURL(std::string_view key, std::chrono::seconds lifetime) const = 0;
  virtual std::string downloadURL(std::string_view key, std::chrono::seconds lifetime) const = 0;

  // Fills `*object` and returns true when the provider answered, whether or not the
  // object exists; returns false with `*error` when it could not tell.
  virtual bool statObject(std::string_view key, StoredObject* object, ErrorRef* error) const = 0;

  // Checks that the provider can be used now (a probe write, or a look at the bucket);
  // false with `*error` saying why not.
  virtual bool probe(ErrorRef* error) const = 0;

  // Removes the object. An object that is already absent counts as removed.
  virtual bool removeObject(std::string_view key, ErrorRef* error) const = 0;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_STORAGEPROVIDER_H_
