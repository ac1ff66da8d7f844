#ifndef VM_BWCRYPTOGRAPHER_BWCRYPTOGRAPHER_H_
#define VM_BWCRYPTOGRAPHER_BWCRYPTOGRAPHER_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace vm {

// Releases a cipher output buffer with free(), as its owner must.
struct FreeDeleter {
  void operator()(std::uint8_t* bytes) const { std::free(bytes); }
};
// A cipher output buffer. The caller owns it; it was allocated with malloc().
using CryptBuffer = std::unique_ptr<std::uint8_t, FreeDeleter>;

// A streaming authenticated cipher: AES-256-GCM with a fresh random key and nonce per
// encryptor. Everything needed to decrypt travels in entropy() (a version byte, the key
// and the nonce); the ciphertext carries no header. The encryptor's final chunk is the
// 16-byte tag. The decryptor holds back the last 16 bytes it was given until the final
// chunk, where it checks them as the tag; when they do not verify, the final chunk gives
// no output and the cryptor reports failure.
//
// Plaintext released by cryptChunk() before the final chunk is not yet authenticated: a
// reader must not trust it until cryptFinalChunkWithLength() succeeded.
//
// Not thread-safe: one cryptor is fed by one thread at a time. Key material is wiped when
// the cryptor is destroyed.
class BWCryptographer {
 public:
  static constexpr std::uint8_t kVersion = 1;
  static constexpr std::size_t kKeyLength = 32;
  static constexpr std::size_t kNonceLength = 12;
  static constexpr std::size_t kTagLength = 16;
  static constexpr std::size_t kEntropyLength = 1 + kKeyLength + kNonceLength;

  // A new encryptor with a random key and nonce; null when the system's random source or
  // the cipher cannot be set up.
  static std::unique_ptr<BWCryptographer> encryptor();
  // The decryptor matching an encryptor's entropy(); null for data of the wrong length or
  // an unknown version.
  static std::unique_ptr<BWCryptographer> decryptorWithData(const std::vector<std::uint8_t>& data);
  // An encryptor with the given key and nonce, for known-answer tests only: reusing a
  // nonce with a key destroys the cipher's secrecy. Null for wrong lengths.
  static std::unique_ptr<BWCryptographer> encryptorWithKeyAndNonceForTesting(
      const std::vector<std::uint8_t>& key, const std::vector<std::uint8_t>& nonce);

  ~BWCryptographer();
  BWCryptographer(const BWCryptographer&) = delete;
  BWCryptographer& operator=(const BWCryptographer&) = delete;

  bool isEncryptor() const { return encrypting_; }

  // The data that rebuilds the matching decryptor (kEntropyLength bytes). A secret: it
  // holds the key.
  std::vector<std::uint8_t> entropy() const;

  // Processes `*length` bytes at `bytes` (which may be null when `*length` is 0). Returns
  // the output and sets `*length` to its size. Returns null with `*length` 0 once the
  // cryptor has failed, or when called after the final chunk.
  CryptBuffer cryptChunk(const std::uint8_t* bytes, std::size_t* length);
  // Ends the stream; `*length` is 0 on entry. The encryptor returns the tag. The decryptor
  // returns an empty (non-null) buffer when the tag verified, and null when it did not.
  // On any failure returns null with `*length` 0.
  CryptBuffer cryptFinalChunkWithLength(std::size_t* length);

  // True once any step failed (including a tag that did not verify).
  bool failed() const { return failed_; }

 private:
  struct Context;
  BWCryptographer(bool encrypting, const std::uint8_t* key, const std::uint8_t* nonce);

  const bool encrypting_;
  bool failed_ = false;
  bool finished_ = false;
  std::unique_ptr<Context> context_;
};

}  // namespace vm

#endif  // VM_BWCRYPTOGRAPHER_BWCRYPTOGRAPHER_H_
