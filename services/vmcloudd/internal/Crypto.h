#ifndef VM_SERVICES_VMCLOUDD_INTERNAL_CRYPTO_H_
#define VM_SERVICES_VMCLOUDD_INTERNAL_CRYPTO_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Small wrappers over OpenSSL for the URL signers. Strings hold raw bytes unless the name
// says hex. All functions are thread-safe.
namespace vm::internal {

std::string Sha256(std::string_view data);
std::string HmacSha256(std::string_view key, std::string_view data);
std::string HexEncode(std::string_view bytes);

// Compares in time that depends only on the lengths, so that a forged signature cannot
// be found byte by byte through response timing.
bool ConstantTimeEquals(std::string_view a, std::string_view b);

// `count` bytes from the system's cryptographic generator; nullopt when it fails.
std::optional<std::string> RandomBytes(std::size_t count);

}  // namespace vm::internal

#endif  // VM_SERVICES_VMCLOUDD_INTERNAL_CRYPTO_H_
