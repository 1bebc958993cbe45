// A tape session as data: each step is one tape-helper call made by one of
// several connections, with the error and count it must give. The same
// script form drives the simulated server's tape agent and the ndmjob one.
//
//   RunTapeSteps({&a, &b}, dir + "/", {
//       {0, "open", "t", 0, NDMP_NO_ERR, 0},
//       {1, "open", "t", 0, NDMP_DEVICE_BUSY_ERR, 0},
//       {0, "write", "", 100, NDMP_NO_ERR, 100}});
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"

namespace com::vx::korvane::ndmpc::testing {

struct CTapeStep {
  static constexpr unsigned int kAny = ~0u;  // `out` not checked

  int who;  // index of the connection
  // open, open-retry (read-write), read-only; write, read, close; an MTIO
  // operation (eof, rew, fsf, bsf, fsr, bsr); state (`count` the expected
  // file number, `out` the block number); used (`out` the bytes written,
  // total space less space remaining).
  const char* op;
  std::string device;  // for opens, after the script's prefix
  unsigned int count;  // bytes to write or read, or the operation's count
  unsigned int error;
  unsigned int out;    // bytes moved or residual count
};

// A record of n bytes is the first n bytes of one pattern that `seed`
// shifts, so that a read of any length can be checked and scripts running
// side by side write different bytes.
inline void RunTapeSteps(const std::vector<CNDMPConnection*>& clients, const std::string& prefix,
                         const std::vector<CTapeStep>& steps, unsigned int seed = 0) {
  using Op = enums::CNDMPEnumMtioOp;
  using Mode = enums::CNDMPEnumTapeOpenMode;
  const std::map<std::string, unsigned int> mtio = {
      {"eof", Op::NDMP_MTIO_EOF}, {"rew", Op::NDMP_MTIO_REW}, {"fsf", Op::NDMP_MTIO_FSF},
      {"bsf", Op::NDMP_MTIO_BSF}, {"fsr", Op::NDMP_MTIO_FSR}, {"bsr", Op::NDMP_MTIO_BSR}};
  std::size_t longest = 1;
  for (const CTapeStep& s : steps) longest = std::max<std::size_t>(longest, s.count);
  std::vector<unsigned char> record(longest), buffer(longest);
  for (std::size_t i = 0; i < longest; ++i) record[i] = static_cast<unsigned char>(i * 31 + i / 251 + seed);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const CTapeStep& s = steps[i];
    CNDMPConnection* c = clients[static_cast<std::size_t>(s.who)];
    const std::string op = s.op, device = prefix + s.device;
    unsigned int out = 99, error = 0;
    if (op == "open" || op == "open-retry" || op == "read-only") {
      out = 0;
      error = CNDMPTapeHelper::TapeOpen(
          c, device.c_str(), op == "read-only" ? Mode::NDMP_TAPE_READ_MODE : Mode::NDMP_TAPE_RDWR_MODE,
          op == "open-retry");
    } else if (op == "write") {
      error = CNDMPTapeHelper::TapeWrite(c, record.data(), s.count, &out);
    } else if (op == "read") {
      error = CNDMPTapeHelper::TapeRead(c, buffer.data(), s.count, &out);
      EXPECT_EQ(std::memcmp(buffer.data(), record.data(), std::min(out, s.count)), 0) << "step " << i;
    } else if (op == "close") {
      out = 0;
      error = CNDMPTapeHelper::TapeClose(c);
    } else if (op == "state" || op == "used") {
      CNDMPTapeGetStateRequest request;
      CNDMPMessage* reply = nullptr;
      error = c->SendMessage(request, &reply, 30).getInt32();
      if (auto* state = dynamic_cast<CNDMPTapeGetStateReply*>(reply)) {
        EXPECT_EQ(op == "state" ? state->FileNum.getInt32() : s.count, s.count) << "step " << i;
        out = op == "state" ? state->BlockNo.getInt32()
                            : static_cast<unsigned int>(state->TotalSpace.getUint64() -
                                                        state->SpaceRemaining.getUint64());
      }
      c->FreeMessage(reply);
    } else {
      error = CNDMPTapeHelper::TapeMTIO(c, CXDREnumBase<Op>(mtio.at(op)), s.count, &out);
    }
    EXPECT_EQ(error, s.error) << "step " << i << ": " << s.who << " " << op << " " << s.device
                              << s.count;
    EXPECT_EQ(s.out == CTapeStep::kAny ? out : s.out, out) << "step " << i << ": " << op;
  }
}

}  // namespace com::vx::korvane::ndmpc::testing
