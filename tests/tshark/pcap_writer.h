// A minimal classic-libpcap writer for hand-made TCP conversations, so that
// bytes our encoder produced can be shown to an independent decoder.
//
//   CPcapWriter pcap;
//   CTcpConversation conv(pcap, kClient, 40004, kServer, 10000, 1700000000);
//   conv.Open();                                  // SYN, SYN-ACK, ACK
//   std::size_t frame = conv.Send(true, bytes);   // client -> server
//   conv.Close();                                 // FIN, FIN, ACK
//   pcap.WriteFile("/tmp/x.pcap");
//
// Frames are raw IPv4 / TCP with correct lengths and no checksums; each
// direction keeps its own sequence number and acknowledges everything the
// other side sent so far.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace com::vx::korvane::ndmpc::testing {

class CPcapWriter {
 public:
  CPcapWriter();

  // Appends one frame with the given capture time; returns its number
  // (1-based, as decoders count frames).
  std::size_t AddFrame(std::uint32_t seconds, std::uint32_t micros,
                       const std::vector<unsigned char>& frame);
  std::size_t FrameCount() const { return frames_; }
  // The whole file: global header (LINKTYPE_RAW) and every record.
  const std::vector<unsigned char>& Bytes() const { return bytes_; }
  // Writes the file; false on failure.
  bool WriteFile(const std::string& path) const;

 private:
  std::vector<unsigned char> bytes_;
  std::size_t frames_ = 0;
};

// One TCP connection between a client and a server, written into a pcap.
// Every frame is stamped one millisecond after the previous one, starting at
// `startSeconds`.
class CTcpConversation {
 public:
  CTcpConversation(CPcapWriter& pcap, std::uint32_t clientIp, std::uint16_t clientPort,
                   std::uint32_t serverIp, std::uint16_t serverPort, std::uint32_t startSeconds);

  // Three-way handshake.
  void Open();
  // One segment carrying `payload` (PSH|ACK) from the client (true) or the
  // server (false); returns the frame number.
  std::size_t Send(bool fromClient, const std::vector<unsigned char>& payload);
  // FIN from the client, FIN from the server, last ACK.
  void Close();

 private:
  struct Side {
    std::uint32_t ip;
    std::uint16_t port;
    std::uint32_t nextSeq;  // sequence number of the next byte this side sends
  };
  std::size_t Segment(bool fromClient, std::uint8_t flags,
                      const std::vector<unsigned char>& payload);

  CPcapWriter& pcap_;
  Side client_;
  Side server_;
  std::uint64_t micros_;  // capture time of the next frame
};

// A dotted IPv4 address as a host-order number: Ipv4(127, 0, 0, 1).
constexpr std::uint32_t Ipv4(unsigned a, unsigned b, unsigned c, unsigned d) {
  return (a << 24) | (b << 16) | (c << 8) | d;
}

}  // namespace com::vx::korvane::ndmpc::testing
