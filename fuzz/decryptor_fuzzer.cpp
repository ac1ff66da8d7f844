// Feeds arbitrary entropy and ciphertext to the decryptor. It must refuse bad entropy,
// never release more than the input minus the held-back tag, never verify a stream it
// did not see whole and intact, and give nothing once it failed.
//
// Input layout: byte 0 chooses the chunk size; then either raw entropy and ciphertext
// (byte 1 even), or a plaintext that is encrypted here, spoiled at one place chosen by
// byte 2 unless it is 0, and decrypted again (byte 1 odd).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "BWCryptographer/BWCryptographer.h"

namespace {

using vm::BWCryptographer;
using vm::CryptBuffer;
using Bytes = std::vector<std::uint8_t>;

struct Result {
  Bytes output;
  bool verified = false;
};

Result Decrypt(BWCryptographer& decryptor, const Bytes& input, std::size_t chunk) {
  Result result;
  for (std::size_t at = 0; at < input.size(); at += chunk) {
    std::size_t length = input.size() - at < chunk ? input.size() - at : chunk;
    const bool failed_before = decryptor.failed();
    CryptBuffer out = decryptor.cryptChunk(input.data() + at, &length);
    if (!out) {
      if (length != 0) std::abort();
      continue;
    }
    if (failed_before) std::abort();  // output after a failure
    result.output.insert(result.output.end(), out.get(), out.get() + length);
  }
  const std::size_t limit =
      input.size() > BWCryptographer::kTagLength ? input.size() - BWCryptographer::kTagLength : 0;
  if (result.output.size() > limit) std::abort();  // released held-back tag bytes
  std::size_t length = 0;
  CryptBuffer final_chunk = decryptor.cryptFinalChunkWithLength(&length);
  result.verified = final_chunk != nullptr;
  if (length != 0) std::abort();  // a decryptor has no final output
  if (result.verified == decryptor.failed()) std::abort();
  std::size_t more = 1;
  const std::uint8_t byte = 0;
  if (decryptor.cryptChunk(&byte, &more) || more != 0) std::abort();
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const std::size_t chunk = static_cast<std::size_t>(data[0]) + 1;
  const bool round_trip = (data[1] & 1) != 0;
  const std::uint8_t spoil = data[2];
  const Bytes rest(data + 3, data + size);

  if (!round_trip) {
    const std::size_t entropy_length = rest.size() < BWCryptographer::kEntropyLength
                                           ? rest.size()
                                           : BWCryptographer::kEntropyLength;
    const Bytes entropy(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(entropy_length));
    const Bytes ciphertext(rest.begin() + static_cast<std::ptrdiff_t>(entropy_length), rest.end());
    auto decryptor = BWCryptographer::decryptorWithData(entropy);
    const bool acceptable = entropy.size() == BWCryptographer::kEntropyLength &&
                            entropy[0] == BWCryptographer::kVersion;
    if (static_cast<bool>(decryptor) != acceptable) std::abort();
    if (decryptor) Decrypt(*decryptor, ciphertext, chunk);
    return 0;
  }

  // A fixed key and nonce keep runs reproducible; the decryptor does not know them apart
  // from the entropy.
  auto encryptor = BWCryptographer::encryptorWithKeyAndNonceForTesting(
      Bytes(BWCryptographer::kKeyLength, 0x5a), Bytes(BWCryptographer::kNonceLength, 0xa5));
  if (!encryptor) std::abort();
  Bytes crypted;
  std::size_t length = rest.size();
  CryptBuffer body = encryptor->cryptChunk(rest.data(), &length);
  if (!body && !rest.empty()) std::abort();
  if (body) crypted.insert(crypted.end(), body.get(), body.get() + length);
  length = 0;
  CryptBuffer tag = encryptor->cryptFinalChunkWithLength(&length);
  if (!tag || length != BWCryptographer::kTagLength) std::abort();
  crypted.insert(crypted.end(), tag.get(), tag.get() + length);

  if (spoil != 0) crypted[spoil % crypted.size()] ^= static_cast<std::uint8_t>(1u << (spoil % 8));
  auto decryptor = BWCryptographer::decryptorWithData(encryptor->entropy());
  if (!decryptor) std::abort();
  Result result = Decrypt(*decryptor, crypted, chunk);
  if (result.verified != (spoil == 0)) std::abort();
  if (result.verified && result.output != rest) std::abort();
  return 0;
}
