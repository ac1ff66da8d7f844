#include "CloudClient/AuthToken.h"

namespace vm {

AuthToken::AuthToken(std::string token) : token_(std::move(token)) {}

}  // namespace vm
