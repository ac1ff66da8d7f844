#include "BWFoundation/HTTPSuccess.h"

namespace vm {

bool isSuccess(const HTTPURLResponse& response) {
  return response.statusCode() >= 200 && response.statusCode() < 300;
}

}  // namespace vm
