// MD5 message digest (RFC 1321): the context and the three functions that
// feed it. Used by the MD5 challenge authentication and exported for
// applications. Byte order is handled explicitly, so it runs on any host.
//
//   MD5_CTX ctx;  unsigned char digest[16];
//   MD5Init(&ctx);  MD5Update(&ctx, data, length);
//   MD5Final(digest, &ctx);   // ctx is cleared; MD5Init before reuse
#pragma once

#include <cstdint>

namespace com::vx::korvane::ndmpc {

struct MD5_CTX {
  std::uint32_t state[4];    // A, B, C, D
  std::uint32_t count[2];    // message length in bits, low word first
  unsigned char buffer[64];  // input not yet consumed by a full block
};

// Starts a new digest in *context.
void MD5Init(MD5_CTX* context);

// Adds length bytes at input (may be null when length is 0). Can be called
// any number of times; the split of the data does not change the digest.
void MD5Update(MD5_CTX* context, const unsigned char* input,
               unsigned int length);

// Pads, writes the 16-byte digest and clears *context.
void MD5Final(unsigned char digest[16], MD5_CTX* context);

}  // namespace com::vx::korvane::ndmpc
