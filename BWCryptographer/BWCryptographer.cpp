#include "BWCryptographer/BWCryptographer.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace vm {

struct BWCryptographer::Context {
  EVP_CIPHER_CTX* cipher = nullptr;
  std::uint8_t key[kKeyLength] = {};
  std::uint8_t nonce[kNonceLength] = {};
  // Decryptor only: the last bytes seen, which may turn out to be the tag.
  std::uint8_t held[kTagLength] = {};
  std::size_t held_length = 0;

  ~Context() {
    EVP_CIPHER_CTX_free(cipher);
    OPENSSL_cleanse(key, sizeof(key));
    OPENSSL_cleanse(nonce, sizeof(nonce));
  }
};

namespace {

// malloc(0) may give null, which would read as failure: every buffer has at least a byte.
CryptBuffer Allocate(std::size_t length) {
  return CryptBuffer(static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(length, 1))));
}

// EVP takes int lengths; feed larger inputs in slices.
bool Update(EVP_CIPHER_CTX* cipher, bool encrypting, std::uint8_t* out, const std::uint8_t* in,
            std::size_t length) {
  constexpr std::size_t kSlice = 1 << 30;
  while (length > 0) {
    const int slice = static_cast<int>(std::min(length, kSlice));
    int written = 0;
    const int ok = encrypting ? EVP_EncryptUpdate(cipher, out, &written, in, slice)
                              : EVP_DecryptUpdate(cipher, out, &written, in, slice);
    // GCM is a stream mode: output keeps pace with input, which the buffer sizes rely on.
    if (ok != 1 || written != slice) return false;
    out += slice;
    in += slice;
    length -= static_cast<std::size_t>(slice);
  }
  return true;
}

}  // namespace

BWCryptographer::BWCryptographer(bool encrypting, const std::uint8_t* key,
                                 const std::uint8_t* nonce)
    : encrypting_(encrypting), context_(std::make_unique<Context>()) {
  std::memcpy(context_->key, key, kKeyLength);
  std::memcpy(context_->nonce, nonce, kNonceLength);
  context_->cipher = EVP_CIPHER_CTX_new();
  EVP_CIPHER_CTX* c = context_->cipher;
  const bool ok =
      c != nullptr &&
      (encrypting ? EVP_EncryptInit_ex(c, EVP_aes_256_gcm(), nullptr, nullptr, nullptr)
                  : EVP_DecryptInit_ex(c, EVP_aes_256_gcm(), nullptr, nullptr, nullptr)) == 1 &&
      EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(kNonceLength), nullptr) ==
          1 &&
      (encrypting ? EVP_EncryptInit_ex(c, nullptr, nullptr, context_->key, context_->nonce)
                  : EVP_DecryptInit_ex(c, nullptr, nullptr, context_->key, context_->nonce)) == 1;
  failed_ = !ok;
}

BWCryptographer::~BWCryptographer() = default;

std::unique_ptr<BWCryptographer> BWCryptographer::encryptor() {
  std::uint8_t material[kKeyLength + kNonceLength];
  if (RAND_bytes(material, sizeof(material)) != 1) return nullptr;
  std::unique_ptr<BWCryptographer> cryptor(
      new BWCryptographer(true, material, material + kKeyLength));
  OPENSSL_cleanse(material, sizeof(material));
  if (cryptor->failed()) return nullptr;
  return cryptor;
}

std::unique_ptr<BWCryptographer> BWCryptographer::decryptorWithData(
    const std::vector<std::uint8_t>& data) {
  if (data.size() != kEntropyLength || data[0] != kVersion) return nullptr;
  std::unique_ptr<BWCryptographer> cryptor(
      new BWCryptographer(false, data.data() + 1, data.data() + 1 + kKeyLength));
  if (cryptor->failed()) return nullptr;
  return cryptor;
}

std::unique_ptr<BWCryptographer> BWCryptographer::encryptorWithKeyAndNonceForTesting(
    const std::vector<std::uint8_t>& key, const std::vector<std::uint8_t>& nonce) {
  if (key.size() != kKeyLength || nonce.size() != kNonceLength) return nullptr;
  std::unique_ptr<BWCryptographer> cryptor(new BWCryptographer(true, key.data(), nonce.data()));
  if (cryptor->failed()) return nullptr;
  return cryptor;
}

std::vector<std::uint8_t> BWCryptographer::entropy() const {
  std::vector<std::uint8_t> data;
  data.reserve(kEntropyLength);
  data.push_back(kVersion);
  data.insert(data.end(), context_->key, context_->key + kKeyLength);
  data.insert(data.end(), context_->nonce, context_->nonce + kNonceLength);
  return data;
}

CryptBuffer BWCryptographer::cryptChunk(const std::uint8_t* bytes, std::size_t* length) {
  const std::size_t in_length = *length;
  *length = 0;
  if (failed_ || finished_) return nullptr;
  if (encrypting_) {
    CryptBuffer out = Allocate(in_length);
    if (!out || !Update(context_->cipher, true, out.get(), bytes, in_length)) {
      failed_ = true;
      return nullptr;
    }
    *length = in_length;
    return out;
  }

  // Decryptor: release everything but the last kTagLength bytes seen so far.
  Context& c = *context_;
  const std::size_t total = c.held_length + in_length;
  const std::size_t release = total > kTagLength ? total - kTagLength : 0;
  CryptBuffer out = Allocate(release);
  if (!out) {
    failed_ = true;
    return nullptr;
  }
  // The released bytes come first from the held ones, then from the input.
  const std::size_t from_held = std::min(release, c.held_length);
  const std::size_t from_input = release - from_held;
  if (!Update(c.cipher, false, out.get(), c.held, from_held) ||
      !Update(c.cipher, false, out.get() + from_held, bytes, from_input)) {
    failed_ = true;
    return nullptr;
  }
  // What is held next: the unreleased rest of the held bytes, then the unreleased input.
  std::uint8_t next[kTagLength];
  std::size_t next_length = c.held_length - from_held;
  std::memcpy(next, c.held + from_held, next_length);
  std::memcpy(next + next_length, bytes + from_input, in_length - from_input);
  next_length += in_length - from_input;
  std::memcpy(c.held, next, next_length);
  c.held_length = next_length;
  *length = release;
  return out;
}

CryptBuffer BWCryptographer::cryptFinalChunkWithLength(std::size_t* length) {
  *length = 0;
  if (failed_ || finished_) return nullptr;
  finished_ = true;
  Context& c = *context_;
  if (encrypting_) {
    CryptBuffer tag = Allocate(kTagLength);
    int written = 0;
    std::uint8_t scratch[16];
    if (!tag || EVP_EncryptFinal_ex(c.cipher, scratch, &written) != 1 || written != 0 ||
        EVP_CIPHER_CTX_ctrl(c.cipher, EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagLength),
                            tag.get()) != 1) {
      failed_ = true;
      return nullptr;
    }
    *length = kTagLength;
    return tag;
  }
  // Fewer than kTagLength bytes in all: a truncated stream, never a valid one.
  int written = 0;
  std::uint8_t scratch[16];
  if (c.held_length != kTagLength ||
      EVP_CIPHER_CTX_ctrl(c.cipher, EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagLength), c.held) !=
          1 ||
      EVP_DecryptFinal_ex(c.cipher, scratch, &written) != 1 || written != 0) {
    failed_ = true;
    return nullptr;
  }
  return Allocate(0);
}

}  // namespace vm
