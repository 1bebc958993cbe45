#include "ndmpc/md5/md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace com::vx::korvane::ndmpc {
namespace {

std::string ToHex(const unsigned char digest[16]) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (int i = 0; i < 16; ++i) {
    hex += kDigits[digest[i] >> 4];
    hex += kDigits[digest[i] & 0x0f];
  }
  return hex;
}

// Hashes `data` fed as an empty update, a first piece of `first` bytes, then
// pieces of at most `chunk` bytes (0: the rest in one update).
std::string Md5Hex(const std::vector<unsigned char>& data, size_t chunk = 0, size_t first = 0) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, nullptr, 0);
  MD5Update(&ctx, data.data(), static_cast<unsigned int>(first));
  if (chunk == 0) chunk = std::max<size_t>(data.size(), 1);
  for (size_t pos = first; pos < data.size(); pos += chunk) {
    const size_t n = std::min(chunk, data.size() - pos);
    MD5Update(&ctx, data.data() + pos, static_cast<unsigned int>(n));
  }
  unsigned char digest[16];
  MD5Final(digest, &ctx);
  return ToHex(digest);
}

// `length` bytes of (i * step) % modulus.
std::string Pattern(std::size_t length, std::size_t step, std::size_t modulus) {
  std::string data(length, '\0');
  for (std::size_t i = 0; i < length; ++i) data[i] = static_cast<char>(i * step % modulus);
  return data;
}

// RFC 1321 suite, runs of 'a' at the padding boundaries (55 bytes leave
// room for the length in the last block, 56 and more need an extra block),
// bytes above 0x7F, and a length past a megabyte. The digests were taken
// from an independent MD5 implementation.
TEST(Md5, MatchesKnownDigests) {
  const struct {
    std::string input;
    const char* digest;
  } kCases[] = {
      {Pattern(256, 1, 256), "e2c865db4162bed963bfaa9ef6ac18f0"},
      {Pattern((1u << 20) + 3u, 31, 251), "1be4e23c315ed33390146f9c663c0312"},
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"1234567890123456789012345678901234567890"
       "1234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
      {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
      {std::string(57, 'a'), "652b906d60af96844ebd21b674f35e93"},
      {std::string(63, 'a'), "b06521f39153d618550606be297466d5"},
      {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
      {std::string(65, 'a'), "c743a45e0d2e6a95cb859adae0248435"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(Md5Hex({c.input.begin(), c.input.end()}), c.digest)
        << "input \"" << c.input.substr(0, 80) << "\" of " << c.input.size() << " bytes";
  }
}

TEST(Md5, DigestDoesNotDependOnHowInputIsSplit) {
  for (size_t length : {55u, 56u, 63u, 64u, 65u, 119u, 120u, 128u, 1000u}) {
    const std::string text = Pattern(length, 31, 251);
    const std::vector<unsigned char> data(text.begin(), text.end());
    const std::string whole = Md5Hex(data);
    for (size_t chunk : {1u, 3u, 63u, 64u, 65u, 127u}) {
      EXPECT_EQ(Md5Hex(data, chunk), whole)
          << "length " << length << ", pieces of " << chunk;
    }
  }
  const std::string text = Pattern(200, 7, 253);
  const std::vector<unsigned char> data(text.begin(), text.end());
  for (size_t split = 0; split <= data.size(); ++split) {
    EXPECT_EQ(Md5Hex(data, 0, split), Md5Hex(data)) << "split at " << split;
  }
}

TEST(Md5, FinalClearsContext) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char*>("secret"), 6);
  unsigned char digest[16];
  MD5Final(digest, &ctx);
  const unsigned char* raw = reinterpret_cast<const unsigned char*>(&ctx);
  for (size_t i = 0; i < sizeof(ctx); ++i) {
    ASSERT_EQ(raw[i], 0) << "byte " << i << " of the context";
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
