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
  if (chunk == 0) chunk = data.size() == 0 ? 1 : data.size();
  for (size_t pos = 0; pos < data.size(); pos += chunk) {
    const size_t n = std::min(chunk, data.size() - pos);
    MD5Update(&ctx, data.data() + pos, static_cast<unsigned int>(n));
  }
  unsigned char digest[16];
  MD5Final(digest, &ctx);
  return ToHex(digest);
}

std::vector<unsigned char> Bytes(const std::string& text) {
  return std::vector<unsigned char>(text.begin(), text.end());
}

std::vector<unsigned char> RandomBytes(std::mt19937& rng, size_t n) {
  std::vector<unsigned char> data(n);
  for (auto& b : data) b = static_cast<unsigned char>(rng() & 0xff);
  return data;
}

// --- Known answers ---------------------------------------------------------

TEST(Md5, MatchesRfc1321TestSuite) {
  struct Case {
    const char* input;
    const char* digest;
  };
  const Case kCases[] = {
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
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(Md5Hex(Bytes(c.input)), c.digest)
        << "input \"" << c.input << "\"";
  }
}

// Runs of 'a' whose lengths sit at the padding boundaries: 55 bytes leave
// room for the length in the last block, 56 and more need an extra block.
TEST(Md5, MatchesKnownDigestsAtPaddingBoundaries) {
  struct Case {
    size_t length;
    const char* digest;
  };
  const Case kCases[] = {
      {55, "ef1772b6dff9a122358552954ad0df65"},
      {56, "3b0c8ac703f828b04c6c197006d17218"},
      {57, "652b906d60af96844ebd21b674f35e93"},
      {63, "b06521f39153d618550606be297466d5"},
      {64, "014842d480b571495a4a0363793f7367"},
      {65, "c743a45e0d2e6a95cb859adae0248435"},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(Md5Hex(Bytes(std::string(c.length, 'a'))), c.digest)
        << c.length << " bytes of 'a'";
  }
}

TEST(Md5, ZeroLengthUpdateWithNullInputChangesNothing) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, nullptr, 0);
  MD5Update(&ctx, reinterpret_cast<const unsigned char*>("abc"), 3);
  MD5Update(&ctx, nullptr, 0);
  unsigned char digest[16];
  MD5Final(digest, &ctx);
  EXPECT_EQ(ToHex(digest), "900150983cd24fb0d6963f7d28e17f72");
}

// --- Splitting the input ---------------------------------------------------

TEST(Md5, DigestDoesNotDependOnHowInputIsSplit) {
  std::mt19937 rng(1321);
  // Lengths around the block and padding boundaries, plus a few blocks more.
  for (size_t length : {55u, 56u, 63u, 64u, 65u, 119u, 120u, 128u, 1000u}) {
    const std::vector<unsigned char> data = RandomBytes(rng, length);
    const std::string whole = Md5Hex(data);
    for (size_t chunk : {1u, 3u, 63u, 64u, 65u, 127u}) {
      EXPECT_EQ(Md5Hex(data, chunk), whole)
          << "length " << length << ", pieces of " << chunk;
    }
  }
}

TEST(Md5, TwoUpdatesSplitAtEveryPointAgreeWithOne) {
  std::mt19937 rng(64);
  const std::vector<unsigned char> data = RandomBytes(rng, 200);
  const std::string whole = Md5Hex(data);
  for (unsigned split = 0; split <= data.size(); ++split) {
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, data.data(), split);
    MD5Update(&ctx, data.data() + split,
              static_cast<unsigned int>(data.size() - split));
    unsigned char digest[16];
    MD5Final(digest, &ctx);
    EXPECT_EQ(ToHex(digest), whole) << "split at " << split;
  }
}

// --- Context life cycle ----------------------------------------------------

TEST(Md5, FinalClearsContextAndInitStartsAfresh) {
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char*>("secret password"),
            15);
  unsigned char digest[16];
  MD5Final(digest, &ctx);

  const unsigned char* raw = reinterpret_cast<const unsigned char*>(&ctx);
  for (size_t i = 0; i < sizeof(ctx); ++i) {
    ASSERT_EQ(raw[i], 0) << "byte " << i << " of the context";
  }

  MD5Init(&ctx);
  MD5Update(&ctx, reinterpret_cast<const unsigned char*>("abc"), 3);
  MD5Final(digest, &ctx);
  EXPECT_EQ(ToHex(digest), "900150983cd24fb0d6963f7d28e17f72");
}

// --- Agreement with openssl ------------------------------------------------

// Runs a shell command and returns the leading 32 hex digits it prints, or
// "" when the command fails or prints something else.
std::string RunDigestCommand(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string out;
  char buf[256];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
  const int status = pclose(pipe);
  if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return "";
  if (out.size() < 32) return "";
  out.resize(32);
  for (char& ch : out) {
    if (ch >= 'A' && ch <= 'F') ch = static_cast<char>(ch - 'A' + 'a');
    if (!((ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f'))) return "";
  }
  return out;
}

// Writes data to a fresh file under /tmp, has openssl hash it, removes it.
std::string OpensslMd5(const std::vector<unsigned char>& data) {
  char path[] = "/tmp/ndmpc_md5_test_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "";
  size_t written = 0;
  while (written < data.size()) {
    const ssize_t n = write(fd, data.data() + written, data.size() - written);
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  close(fd);
  std::string digest;
  if (written == data.size()) {
    digest = RunDigestCommand(std::string("openssl md5 -r ") + path +
                              " 2>/dev/null");
    if (digest.empty()) {
      digest = RunDigestCommand(std::string("openssl dgst -md5 -r ") + path +
                                " 2>/dev/null");
    }
  }
  unlink(path);
  return digest;
}

bool OpensslUsable() {
  return OpensslMd5({}) == "d41d8cd98f00b204e9800998ecf8427e";
}

TEST(Md5, AgreesWithOpensslOnRandomData) {
  if (!OpensslUsable()) GTEST_SKIP() << "openssl with MD5 is not available";
  std::mt19937 rng(20240521);
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 300; ++n) lengths.push_back(n);
  for (size_t n : {4095u, 4096u, 65537u, (1u << 20) + 3u}) lengths.push_back(n);

  for (size_t length : lengths) {
    const std::vector<unsigned char> data = RandomBytes(rng, length);
    const std::string expected = OpensslMd5(data);
    ASSERT_EQ(expected.size(), 32u) << "openssl failed on length " << length;
    EXPECT_EQ(Md5Hex(data), expected) << "length " << length;
    EXPECT_EQ(Md5Hex(data, 61), expected)
        << "length " << length << " in pieces of 61";
  }
}

// Past 2^32 bits the low word of the bit count wraps; the carry must reach
// the high word or the encoded length (and so the digest) is wrong.
TEST(Md5, AgreesWithOpensslPastFourGigabits) {
  if (!OpensslUsable()) GTEST_SKIP() << "openssl with MD5 is not available";
  const size_t kChunk = size_t{1} << 24;        // 16 MiB of zeros
  const size_t kTotal = (size_t{1} << 29) + 5;  // 512 MiB + 5 bytes
  const std::string expected = RunDigestCommand(
      "head -c " + std::to_string(kTotal) + " /dev/zero | openssl md5 -r");
  if (expected.empty()) GTEST_SKIP() << "could not pipe zeros into openssl";

  const std::vector<unsigned char> zeros(kChunk, 0);
  MD5_CTX ctx;
  MD5Init(&ctx);
  size_t left = kTotal;
  while (left > 0) {
    const size_t n = std::min(left, kChunk);
    MD5Update(&ctx, zeros.data(), static_cast<unsigned int>(n));
    left -= n;
  }
  unsigned char digest[16];
  MD5Final(digest, &ctx);
  EXPECT_EQ(ToHex(digest), expected);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc
