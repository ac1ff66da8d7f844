#ifndef VM_CLOUDCLIENT_AUTHTOKEN_H_
#define VM_CLOUDCLIENT_AUTHTOKEN_H_

#include <string>

namespace vm {

// The credential a client shows the product's web services: an opaque token text that the
// client sends after its scheme word in the "Authorization" header.
//
// A value type; immutable, so safe to share between threads.
class AuthToken {
 public:
  explicit AuthToken(std::string token);

  // The text to send; the caller adds the scheme word.
  const std::string& bearer() const { return token_; }

 private:
  std::string token_;
};

}  // namespace vm

#endif  // VM_CLOUDCLIENT_AUTHTOKEN_H_
