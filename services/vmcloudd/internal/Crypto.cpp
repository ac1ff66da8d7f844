#include "services/vmcloudd/internal/Crypto.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <stdexcept>

namespace vm::internal {

std::string Sha256(std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    // Only an allocation failure inside OpenSSL gets here.
    throw std::bad_alloc();
  }
  return std::string(reinterpret_cast<const char*>(digest), length);
}

std::string HmacSha256(std::string_view key, std::string_view data) {
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(data.data()), data.size(), mac,
           &length) == nullptr) {
    throw std::bad_alloc();
  }
  return std::string(reinterpret_cast<const char*>(mac), length);
}

std::string HexEncode(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0xf]);
  }
  return out;
}

bool ConstantTimeEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::string> RandomBytes(std::size_t count) {
  std::string out(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(out.data()), static_cast<int>(count)) != 1) {
    return std::nullopt;
  }
  return out;
}

}  // namespace vm::internal
