#include "tests/tshark/pcap_writer.h"

#include <fstream>

namespace com::vx::korvane::ndmpc::testing {
namespace {

constexpr std::uint32_t kLinkTypeRawIp = 101;
constexpr std::size_t kIpHeader = 20;
constexpr std::size_t kTcpHeader = 20;
constexpr std::uint8_t kFin = 0x01;
constexpr std::uint8_t kSyn = 0x02;
constexpr std::uint8_t kPsh = 0x08;
constexpr std::uint8_t kAck = 0x10;

// Appends the low `bytes` bytes of `v`, big-endian (network order) or
// little-endian (the capture file's own headers).
void Put(std::vector<unsigned char>& out, int bytes, bool bigEndian, std::uint32_t v) {
  for (int i = 0; i < bytes; ++i) {
    out.push_back(static_cast<unsigned char>(v >> (8 * (bigEndian ? bytes - 1 - i : i))));
  }
}

}  // namespace

CPcapWriter::CPcapWriter() {
  Put(bytes_, 4, false, 0xA1B2C3D4u);  // microsecond resolution, little-endian file
  Put(bytes_, 2, false, 2);
  Put(bytes_, 2, false, 4);
  Put(bytes_, 4, false, 0);       // time zone
  Put(bytes_, 4, false, 0);       // accuracy
  Put(bytes_, 4, false, 262144);  // snap length
  Put(bytes_, 4, false, kLinkTypeRawIp);
}

std::size_t CPcapWriter::AddFrame(std::uint32_t seconds, std::uint32_t micros,
                                  const std::vector<unsigned char>& frame) {
  Put(bytes_, 4, false, seconds);
  Put(bytes_, 4, false, micros);
  Put(bytes_, 4, false, static_cast<std::uint32_t>(frame.size()));
  Put(bytes_, 4, false, static_cast<std::uint32_t>(frame.size()));
  bytes_.insert(bytes_.end(), frame.begin(), frame.end());
  return ++frames_;
}

bool CPcapWriter::WriteFile(const std::string& path) const {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  out.write(reinterpret_cast<const char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
  out.close();
  return static_cast<bool>(out);
}

CTcpConversation::CTcpConversation(CPcapWriter& pcap, std::uint32_t clientIp,
                                   std::uint16_t clientPort, std::uint32_t serverIp,
                                   std::uint16_t serverPort, std::uint32_t startSeconds)
    : pcap_(pcap),
      client_{clientIp, clientPort, 0x10000000u + clientPort},
      server_{serverIp, serverPort, 0x70000000u + clientPort},
      micros_(static_cast<std::uint64_t>(startSeconds) * 1000000u) {}

void CTcpConversation::Open() {
  Segment(true, kSyn, {});
  Segment(false, kSyn | kAck, {});
  Segment(true, kAck, {});
}

std::size_t CTcpConversation::Send(bool fromClient, const std::vector<unsigned char>& payload) {
  return Segment(fromClient, kPsh | kAck, payload);
}

void CTcpConversation::Close() {
  Segment(true, kFin | kAck, {});
  Segment(false, kFin | kAck, {});
  Segment(true, kAck, {});
}

std::size_t CTcpConversation::Segment(bool fromClient, std::uint8_t flags,
                                      const std::vector<unsigned char>& payload) {
  Side& from = fromClient ? client_ : server_;
  Side& to = fromClient ? server_ : client_;
  const bool ack = (flags & kAck) != 0;
  // The first segment of the server is the SYN-ACK; before it the client's
  // view of the server sequence is meaningless, so a bare SYN acknowledges 0.
  const std::uint32_t ackNumber = ack ? to.nextSeq : 0;

  // IPv4 and TCP headers without checksums (the decoder does not check them
  // by default).
  std::vector<unsigned char> frame;
  frame.reserve(kIpHeader + kTcpHeader + payload.size());
  frame.push_back(0x45);
  frame.push_back(0);
  Put(frame, 2, true, static_cast<std::uint16_t>(kIpHeader + kTcpHeader + payload.size()));
  Put(frame, 2, true, static_cast<std::uint16_t>(pcap_.FrameCount() + 1));  // identification
  Put(frame, 2, true, 0x4000);                                              // don't fragment
  frame.push_back(64);                                                      // TTL
  frame.push_back(6);                                                       // TCP
  Put(frame, 2, true, 0);  // header checksum
  Put(frame, 4, true, from.ip);
  Put(frame, 4, true, to.ip);
  Put(frame, 2, true, from.port);
  Put(frame, 2, true, to.port);
  Put(frame, 4, true, from.nextSeq);
  Put(frame, 4, true, ackNumber);
  frame.push_back(static_cast<unsigned char>((kTcpHeader / 4) << 4));
  frame.push_back(flags);
  Put(frame, 2, true, 65535);  // window
  Put(frame, 4, true, 0);      // checksum and urgent pointer
  frame.insert(frame.end(), payload.begin(), payload.end());

  from.nextSeq += static_cast<std::uint32_t>(payload.size());
  if ((flags & (kSyn | kFin)) != 0) from.nextSeq += 1;  // SYN and FIN take one number each

  const std::uint64_t at = micros_;
  micros_ += 1000;
  return pcap_.AddFrame(static_cast<std::uint32_t>(at / 1000000u),
                        static_cast<std::uint32_t>(at % 1000000u), frame);
}

}  // namespace com::vx::korvane::ndmpc::testing
