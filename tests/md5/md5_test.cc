#include "ndmpc/md5/md5.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
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

// Hashes data, feeding it in pieces of at most chunk bytes (0: one update).
std::string Md5Hex(const std::vector<unsigned char>& data, size_t chunk = 0) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  if (chunk == 0) chunk = std::max<size_t>(data.size(), 1);
  for (size_t pos = 0; pos < data.size(); pos += chunk) {
    const size_t n = std::min(chunk, data.size() - pos);
    MD5Update(&ctx, data.data() + pos, static_cast<unsigned int>(n));
  }
  unsigned char digest[16];
  MD5Final(digest, &ctx);
  return ToHex(digest);
}

std::vector<unsigned char> RandomBytes(std::mt19937& rng, size_t n) {
  std::vector<unsigned char> data(n);
  for (auto& b : data) b = static_cast<unsigned char>(rng() & 0xff);
  return data;
}

// RFC 1321 suite plus runs of 'a' at the padding boundaries (55 bytes leave
// room for the length in the last block, 56 and more need an extra block).
TEST(Md5, MatchesKnownDigests) {
  const struct {
    std::string input;
    const char* digest;
  } kCases[] = {
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
        << "input \"" << c.input << "\"";
  }
}

TEST(Md5, DigestDoesNotDependOnHowInputIsSplit) {
  std::mt19937 rng(1321);
  for (size_t length : {55u, 56u, 63u, 64u, 65u, 119u, 120u, 128u, 1000u}) {
    const std::vector<unsigned char> data = RandomBytes(rng, length);
    const std::string whole = Md5Hex(data);
    for (size_t chunk : {1u, 3u, 63u, 64u, 65u, 127u}) {
      EXPECT_EQ(Md5Hex(data, chunk), whole)
          << "length " << length << ", pieces of " << chunk;
    }
  }
  const std::vector<unsigned char> data = RandomBytes(rng, 200);
  const std::string whole = Md5Hex(data);
  for (unsigned split = 0; split <= data.size(); ++split) {
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, nullptr, 0);
    MD5Update(&ctx, data.data(), split);
    MD5Update(&ctx, data.data() + split,
              static_cast<unsigned int>(data.size() - split));
    unsigned char digest[16];
    MD5Final(digest, &ctx);
    EXPECT_EQ(ToHex(digest), whole) << "split at " << split;
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

// Writes data to a fresh file under /tmp and returns what `openssl md5`
// prints for it ("" when openssl fails).
std::string OpensslMd5(const std::vector<unsigned char>& data) {
  char path[] = "/tmp/ndmpc_md5_test_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "";
  const bool written =
      write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
  close(fd);
  std::string out;
  if (written) {
    FILE* pipe =
        popen(("openssl md5 -r " + std::string(path) + " 2>/dev/null").c_str(), "r");
    if (pipe != nullptr) {
      char buf[256];
      size_t n;
      while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
      const int status = pclose(pipe);
      if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) out.clear();
    }
  }
  unlink(path);
  return out.substr(0, 32);
}

TEST(Md5, AgreesWithOpensslOnRandomData) {
  if (OpensslMd5({}) != "d41d8cd98f00b204e9800998ecf8427e") {
    GTEST_SKIP() << "openssl with MD5 is not available";
  }
  std::mt19937 rng(20240521);
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);
  for (size_t n : {4095u, 65537u, (1u << 20) + 3u}) lengths.push_back(n);

  for (size_t length : lengths) {
    const std::vector<unsigned char> data = RandomBytes(rng, length);
    const std::string expected = OpensslMd5(data);
    ASSERT_EQ(expected.size(), 32u) << "openssl failed on length " << length;
    EXPECT_EQ(Md5Hex(data), expected) << "length " << length;
    EXPECT_EQ(Md5Hex(data, 61), expected) << "length " << length << " in pieces of 61";
  }
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
