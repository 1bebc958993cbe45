// Runs tshark on a capture and reads its PDML output back as packets and
// fields, so that tests can compare what tshark decoded with what was sent.
//
//   std::string tshark = FindTshark();            // empty when not installed
//   std::string error;
//   if (RunTshark(tshark, {"-r", pcap, "-T", "pdml"}, out, &error)) {
//     std::vector<CPdmlPacket> packets = ParsePdml(ReadFile(out));
//     packets[0].Find("ndmp.sequence")[0]->show;  // "7"
//   }
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace com::vx::korvane::ndmpc::testing {

// One <field> of a PDML packet. `proto` is the protocol it sits in.
struct CPdmlField {
  std::string proto;
  std::string name;
  std::string show;
  std::string showname;
  std::string value;
  std::size_t pos = 0;   // offset in the frame
  std::size_t size = 0;  // bytes covered; 0 for generated items
};

struct CPdmlPacket {
  std::size_t number = 0;               // frame number (geninfo "num")
  std::vector<std::string> protocols;  // <proto> names in order
  std::vector<CPdmlField> fields;      // every field, in document order

  bool HasProtocol(const std::string& name) const;
  // The fields called `name`, in order.
  std::vector<const CPdmlField*> Find(const std::string& name) const;
};

// A problem tshark reported in a packet (expert info at warning or error
// severity, or a malformed-packet mark).
struct CTsharkProblem {
  std::string proto;
  std::string text;
};
std::vector<CTsharkProblem> ProblemsOf(const CPdmlPacket& packet);

// Absolute path of tshark found on PATH, or empty.
std::string FindTshark();

// Runs `program` with `args`, stdout into `outPath`, and waits at most
// `timeoutSeconds` (then kills it). True when it exited with status 0;
// otherwise `error` says why and includes its standard error.
bool RunTshark(const std::string& program, const std::vector<std::string>& args,
               const std::string& outPath, std::string* error, int timeoutSeconds = 300);

// Parses tshark's PDML (-T pdml) output.
std::vector<CPdmlPacket> ParsePdml(const std::string& text);

// Whole file as text; empty when it cannot be read.
std::string ReadFile(const std::string& path);

}  // namespace com::vx::korvane::ndmpc::testing
