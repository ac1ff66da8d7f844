#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "BWCryptographer/BWCryptographer.h"

namespace vm {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes FromHex(const std::string& hex) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Bytes RandomBytes(std::size_t length, unsigned seed) {
  std::mt19937 random(seed);
  Bytes bytes(length);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
  return bytes;
}

struct Streamed {
  Bytes output;  // everything cryptChunk released, then the final chunk's output
  bool finalOk;  // the final chunk returned a buffer
};

// Feeds `input` in chunks of `chunk` bytes (the last one shorter), then the final chunk.
Streamed Stream(BWCryptographer& cryptor, const Bytes& input, std::size_t chunk) {
  Streamed result{{}, false};
  for (std::size_t at = 0; at < input.size(); at += chunk) {
    std::size_t length = std::min(chunk, input.size() - at);
    CryptBuffer out = cryptor.cryptChunk(input.data() + at, &length);
    if (!out) return result;
    result.output.insert(result.output.end(), out.get(), out.get() + length);
  }
  std::size_t length = 0;
  CryptBuffer out = cryptor.cryptFinalChunkWithLength(&length);
  result.finalOk = out != nullptr;
  if (out) result.output.insert(result.output.end(), out.get(), out.get() + length);
  return result;
}

Bytes Encrypt(const Bytes& plain, Bytes* entropy, std::size_t chunk = 4096) {
  auto encryptor = BWCryptographer::encryptor();
  EXPECT_TRUE(encryptor);
  *entropy = encryptor->entropy();
  Streamed s = Stream(*encryptor, plain, chunk);
  EXPECT_TRUE(s.finalOk);
  return s.output;
}

// Published AES-256-GCM vectors (no additional data): output = ciphertext || tag.
TEST(BWCryptographerTest, KnownAnswersWhateverTheChunkSizes) {
  struct Vector {
    const char* name;
    const char* key;
    const char* nonce;
    const char* plain;
    const char* expected;
  };
  const Vector kVectors[] = {
      {"zero key, empty", "0000000000000000000000000000000000000000000000000000000000000000",
       "000000000000000000000000", "", "530f8afbc74536b9a963b4f1c4cb738b"},
      {"zero key, one block", "0000000000000000000000000000000000000000000000000000000000000000",
       "000000000000000000000000", "00000000000000000000000000000000",
       "cea7403d4d606b6e074ec5d3baf39d18d0d1c8a799996bf0265b98b5d48ab919"},
      {"four blocks", "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308",
       "cafebabefacedbaddecaf888",
       "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
       "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255",
       "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
       "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad"
       "b094dac5d93471bdec1a502270e3cc6c"},
  };
  for (const Vector& v : kVectors) {
    for (std::size_t chunk :
         {std::size_t{1}, std::size_t{7}, std::size_t{16}, std::size_t{17}, std::size_t{1} << 20}) {
      SCOPED_TRACE(std::string(v.name) + ", chunk " + std::to_string(chunk));
      auto encryptor =
          BWCryptographer::encryptorWithKeyAndNonceForTesting(FromHex(v.key), FromHex(v.nonce));
      ASSERT_TRUE(encryptor);
      Streamed s = Stream(*encryptor, FromHex(v.plain), chunk);
      EXPECT_TRUE(s.finalOk);
      EXPECT_EQ(s.output, FromHex(v.expected));

      Bytes entropy = encryptor->entropy();
      auto decryptor = BWCryptographer::decryptorWithData(entropy);
      ASSERT_TRUE(decryptor);
      Streamed back = Stream(*decryptor, FromHex(v.expected), chunk);
      EXPECT_TRUE(back.finalOk);
      EXPECT_FALSE(decryptor->failed());
      EXPECT_EQ(back.output, FromHex(v.plain));
    }
  }
}

TEST(BWCryptographerTest, RoundTripsEverySizeAndChunking) {
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{15}, std::size_t{16},
                           std::size_t{17}, std::size_t{33}, (std::size_t{1} << 20) + 3}) {
    const Bytes plain = RandomBytes(size, static_cast<unsigned>(size));
    Bytes entropy;
    const Bytes crypted = Encrypt(plain, &entropy, 1 << 20);
    ASSERT_EQ(crypted.size(), size + BWCryptographer::kTagLength);
    for (std::size_t chunk : {std::size_t{1}, std::size_t{5}, std::size_t{16}, std::size_t{4099},
                              std::size_t{1} << 20}) {
      if (chunk == 1 && size > 4096) continue;  // byte-by-byte over a MiB says nothing new
      SCOPED_TRACE("size " + std::to_string(size) + ", chunk " + std::to_string(chunk));
      auto decryptor = BWCryptographer::decryptorWithData(entropy);
      ASSERT_TRUE(decryptor);
      Streamed back = Stream(*decryptor, crypted, chunk);
      EXPECT_TRUE(back.finalOk);
      EXPECT_EQ(back.output, plain);
    }
  }
}

// A stream that does not authenticate: the final chunk gives nothing and fails, nothing
// is released after it, and what was released before never includes the held-back tag.
TEST(BWCryptographerTest, FailsOnAnyTamperingAndReleasesNoTagBytes) {
  const Bytes plain = RandomBytes(1000, 7);
  Bytes entropy;
  const Bytes crypted = Encrypt(plain, &entropy);
  Bytes wrong_key = entropy;
  wrong_key[1] ^= 0x01;
  Bytes wrong_nonce = entropy;
  wrong_nonce.back() ^= 0x80;

  struct Case {
    const char* name;
    Bytes entropy;
    Bytes input;
  };
  auto flipped = [&](std::size_t at) {
    Bytes b = crypted;
    b[at] ^= 0x04;
    return b;
  };
  auto truncated = [&](std::size_t drop) {
    return Bytes(crypted.begin(), crypted.end() - static_cast<std::ptrdiff_t>(drop));
  };
  const Case kCases[] = {
      {"first ciphertext bit", entropy, flipped(0)},
      {"middle ciphertext bit", entropy, flipped(500)},
      {"last ciphertext bit", entropy, flipped(999)},
      {"first tag bit", entropy, flipped(1000)},
      {"last tag bit", entropy, flipped(1015)},
      {"one byte short", entropy, truncated(1)},
      {"tag missing", entropy, truncated(16)},
      {"shorter than a tag", entropy, Bytes(crypted.begin(), crypted.begin() + 5)},
      {"empty", entropy, {}},
      {"extra byte", entropy,
       [&] {
         Bytes b = crypted;
         b.push_back(0);
         return b;
       }()},
      {"wrong key", wrong_key, crypted},
      {"wrong nonce", wrong_nonce, crypted},
  };
  for (const Case& c : kCases) {
    for (std::size_t chunk : {std::size_t{1}, std::size_t{100}, std::size_t{1} << 20}) {
      SCOPED_TRACE(std::string(c.name) + ", chunk " + std::to_string(chunk));
      auto decryptor = BWCryptographer::decryptorWithData(c.entropy);
      ASSERT_TRUE(decryptor);
      Streamed back = Stream(*decryptor, c.input, chunk);
      EXPECT_FALSE(back.finalOk);
      EXPECT_TRUE(decryptor->failed());
      EXPECT_LE(back.output.size(), c.input.size() > BWCryptographer::kTagLength
                                        ? c.input.size() - BWCryptographer::kTagLength
                                        : 0);
      std::size_t length = 3;
      const std::uint8_t byte = 0;
      EXPECT_FALSE(decryptor->cryptChunk(&byte, &length));
      EXPECT_EQ(length, 0u);
    }
  }
}

TEST(BWCryptographerTest, EntropyIsFreshAndStrictlyChecked) {
  auto a = BWCryptographer::encryptor();
  auto b = BWCryptographer::encryptor();
  ASSERT_TRUE(a && b);
  const Bytes entropy = a->entropy();
  ASSERT_EQ(entropy.size(), BWCryptographer::kEntropyLength);
  EXPECT_EQ(entropy[0], BWCryptographer::kVersion);
  EXPECT_NE(entropy, b->entropy());

  Bytes other_version = entropy;
  other_version[0] = 2;
  const Bytes kRefused[] = {{},
                            Bytes(entropy.begin(), entropy.end() - 1),
                            [&] {
                              Bytes longer = entropy;
                              longer.push_back(0);
                              return longer;
                            }(),
                            other_version};
  for (const Bytes& data : kRefused) {
    SCOPED_TRACE(data.size());
    EXPECT_FALSE(BWCryptographer::decryptorWithData(data));
  }
  EXPECT_FALSE(BWCryptographer::encryptorWithKeyAndNonceForTesting(Bytes(31), Bytes(12)));
  EXPECT_FALSE(BWCryptographer::encryptorWithKeyAndNonceForTesting(Bytes(32), Bytes(16)));

  // A finished cryptor takes no more input.
  std::size_t length = 0;
  ASSERT_TRUE(a->cryptFinalChunkWithLength(&length));
  EXPECT_EQ(length, BWCryptographer::kTagLength);
  length = 0;
  EXPECT_FALSE(a->cryptFinalChunkWithLength(&length));
}

}  // namespace
}  // namespace vm
