#include "ndmpc/md5/md5.h"

#include <cstddef>
#include <cstring>

namespace com::vx::korvane::ndmpc {
namespace {

// Per-step shift amounts, four per round.
constexpr unsigned kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// T[i] = floor(2^32 * |sin(i + 1)|), i = 0..63.
constexpr std::uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a,
    0xa8304613, 0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be,
    0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340,
    0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8,
    0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c,
    0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
    0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92,
    0xffeff47d, 0x85845dd1, 0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1,
    0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr unsigned char kPadding[64] = {0x80};

inline std::uint32_t RotateLeft(std::uint32_t x, unsigned n) {
  return static_cast<std::uint32_t>((x << n) | (x >> (32 - n)));
}

// Little-endian bytes to words and back, whatever the host's byte order.
void Decode(std::uint32_t* out, const unsigned char* in, unsigned words) {
  for (unsigned i = 0; i < words; ++i, in += 4) {
    out[i] = static_cast<std::uint32_t>(in[0]) |
             (static_cast<std::uint32_t>(in[1]) << 8) |
             (static_cast<std::uint32_t>(in[2]) << 16) |
             (static_cast<std::uint32_t>(in[3]) << 24);
  }
}

void Encode(unsigned char* out, const std::uint32_t* in, unsigned words) {
  for (unsigned i = 0; i < words; ++i, out += 4) {
    out[0] = static_cast<unsigned char>(in[i] & 0xff);
    out[1] = static_cast<unsigned char>((in[i] >> 8) & 0xff);
    out[2] = static_cast<unsigned char>((in[i] >> 16) & 0xff);
    out[3] = static_cast<unsigned char>((in[i] >> 24) & 0xff);
  }
}

// Zeroes memory through a volatile pointer so that clearing a context that
// is never read again is not optimised away.
void Wipe(void* p, std::size_t n) {
  volatile unsigned char* bytes = static_cast<volatile unsigned char*>(p);
  while (n-- > 0) *bytes++ = 0;
}

// Runs the 64 steps over one 64-byte block.
void Transform(std::uint32_t state[4], const unsigned char block[64]) {
  std::uint32_t x[16];
  Decode(x, block, 16);

  std::uint32_t a = state[0];
  std::uint32_t b = state[1];
  std::uint32_t c = state[2];
  std::uint32_t d = state[3];

  for (unsigned i = 0; i < 64; ++i) {
    const unsigned round = i / 16;
    std::uint32_t f;
    unsigned k;
    switch (round) {
      case 0:
        f = (b & c) | (~b & d);
        k = i;
        break;
      case 1:
        f = (b & d) | (c & ~d);
        k = (5 * i + 1) % 16;
        break;
      case 2:
        f = b ^ c ^ d;
        k = (3 * i + 5) % 16;
        break;
      default:
        f = c ^ (b | ~d);
        k = (7 * i) % 16;
        break;
    }
    const std::uint32_t sum = a + f + kSine[i] + x[k];
    a = d;
    d = c;
    c = b;
    b = b + RotateLeft(sum, kShift[round][i % 4]);
  }

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;

  // The block's words may be key material (the authentication password).
  Wipe(x, sizeof(x));
}

}  // namespace

void MD5Init(MD5_CTX* context) {
  context->count[0] = 0;
  context->count[1] = 0;
  context->state[0] = 0x67452301;
  context->state[1] = 0xefcdab89;
  context->state[2] = 0x98badcfe;
  context->state[3] = 0x10325476;
  std::memset(context->buffer, 0, sizeof(context->buffer));
}

void MD5Update(MD5_CTX* context, const unsigned char* input,
               unsigned int length) {
  if (length == 0) return;

  // Bytes already waiting in the buffer.
  unsigned index = (context->count[0] >> 3) & 0x3f;

  // Add length * 8 to the 64-bit bit count, carrying into the high word.
  const std::uint32_t low_bits = static_cast<std::uint32_t>(length) << 3;
  context->count[0] += low_bits;
  if (context->count[0] < low_bits) ++context->count[1];
  context->count[1] += static_cast<std::uint32_t>(length) >> 29;

  const unsigned room = 64 - index;
  unsigned i = 0;
  if (length >= room) {
    std::memcpy(&context->buffer[index], input, room);
    Transform(context->state, context->buffer);
    for (i = room; i + 63 < length; i += 64) {
      Transform(context->state, &input[i]);
    }
    index = 0;
  }
  if (i < length) std::memcpy(&context->buffer[index], &input[i], length - i);
}

void MD5Final(unsigned char digest[16], MD5_CTX* context) {
  // Capture the length before padding changes the count.
  unsigned char bits[8];
  Encode(bits, context->count, 2);

  // Pad to 56 bytes mod 64, then append the 8-byte length.
  const unsigned index = (context->count[0] >> 3) & 0x3f;
  const unsigned pad_length = (index < 56) ? (56 - index) : (120 - index);
  MD5Update(context, kPadding, pad_length);
  MD5Update(context, bits, 8);

  Encode(digest, context->state, 4);
  Wipe(context, sizeof(*context));
}

}  // namespace com::vx::korvane::ndmpc
