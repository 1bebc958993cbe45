// Writes the seed corpora of the fuzz targets: every factory row as request
// and reply under versions 3 and 4 (default bodies), a few filled messages,
// the union arms and some fragment sequences for the stream.
//
//   ndmpc_fuzz_seeds fuzz/corpus     # writes fuzz/corpus/<target>/<name>
#include <sys/stat.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <thread>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/data_mover_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"

namespace ndmpc = com::vx::korvane::ndmpc;
namespace enums = ndmpc::enums;
using Bytes = std::vector<std::uint8_t>;

namespace {

std::string root;

void Write(const std::string& target, const std::string& name, const Bytes& bytes) {
  std::string dir = root + "/" + target;
  ::mkdir(root.c_str(), 0755);
  ::mkdir(dir.c_str(), 0755);
  std::FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
  if (f == nullptr) return;
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

// The payload the value writes (fragment headers removed).
Bytes Encode(const std::function<void(ndmpc::CXDRStream&)>& write) {
  Bytes raw;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return raw;
  std::thread reader([&raw, fd = fds[0]] {
    std::uint8_t buffer[65536];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof(buffer))) > 0) raw.insert(raw.end(), buffer, buffer + n);
    ::close(fd);
  });
  {
    ndmpc::VxTcpSocket socket;
    socket.adopt(fds[1]);
    ndmpc::CXDRStream stream(socket, ndmpc::fuzz::QuietLog());
    write(stream);
    stream.flushRecord();
    socket.close();
  }
  reader.join();
  Bytes payload;
  std::size_t i = 0;
  while (i + 4 <= raw.size()) {
    std::uint32_t length = (std::uint32_t{raw[i]} << 24 | std::uint32_t{raw[i + 1]} << 16 |
                            std::uint32_t{raw[i + 2]} << 8 | raw[i + 3]) & 0x7FFFFFFFu;
    i += 4;
    payload.insert(payload.end(), raw.begin() + i, raw.begin() + i + length);
    i += length;
  }
  return payload;
}

Bytes PacketSeed(ndmpc::CNDMPMessage& body, std::uint32_t type, std::uint32_t version) {
  ndmpc::CNDMPMessagePacket packet(ndmpc::CNDMPMessageAccess::Code(body),
                                   ndmpc::CXDREnumBase<enums::CNDMPMessageType>(type),
                                   ndmpc::CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  packet.GetHeader().Sequence = 7u;
  packet.SetMessage(body);
  Bytes out{static_cast<std::uint8_t>(version == 4 ? 1 : 0)};
  Bytes payload = Encode([&](ndmpc::CXDRStream& s) { packet.Serialize(s); });
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

char Hex(unsigned v) { return "0123456789abcdef"[v & 15]; }

std::string Name(std::uint32_t code, std::uint32_t type, std::uint32_t version) {
  std::string s;
  for (int shift = 28; shift >= 0; shift -= 4) s += Hex(code >> shift);
  return s + "_t" + std::to_string(type) + "_v" + std::to_string(version);
}

void PacketSeeds() {
  for (const auto& row : ndmpc::NDMPFactoryTable()) {
    for (std::uint32_t type : {0u, 1u}) {
      for (std::uint32_t version : {3u, 4u}) {
        ndmpc::CNDMPMessage* body = ndmpc::CNDMPMessageAccess::Make(row.code, type);
        if (body == nullptr) continue;
        Write("packet", Name(row.code, type, version), PacketSeed(*body, type, version));
        delete body;
      }
    }
  }
  ndmpc::CNDMPLogMessagePost log;
  log.Entry.SetString("backup of /vol/vol0 started");
  Write("packet", "log_message_v4", PacketSeed(log, 0, 4));
  ndmpc::CNDMPFhAddFilePost fh;
  for (int i = 0; i < 3; ++i) {
    ndmpc::CNDMPFile& file = fh.Files.AppendNew();
    ndmpc::CNDMPFileName& name = file.FileNameList.AppendNew();
    name.UnixFileName.SetString("/vol/vol0/home/file" + std::to_string(i));
    file.FileStatList.AppendNew().Size = ndmpc::CNDMPUQuad(4096u * i);
  }
  Write("packet", "fh_add_file_v4", PacketSeed(fh, 0, 4));
  Write("packet", "fh_add_file_v3", PacketSeed(fh, 0, 3));
}

void UnionSeeds() {
  auto put = [](const std::string& name, std::uint8_t selector, ndmpc::CXDRContainer& record) {
    Bytes out{selector};
    Bytes payload = Encode([&](ndmpc::CXDRStream& s) { record.Serialize(s); });
    out.insert(out.end(), payload.begin(), payload.end());
    Write("union", name, out);
  };
  for (unsigned type : {0u, 1u, 2u}) {
    ndmpc::CNDMPAuthData data{ndmpc::CXDREnumBase<enums::CNDMPEnumAuthType>(type)};
    data.TextAuthenticationData.AuthenticationID.SetString("ndmp");
    put("auth_data_" + std::to_string(type), 0, data);
    ndmpc::CNDMPAuthAttr attr{ndmpc::CXDREnumBase<enums::CNDMPEnumAuthType>(type)};
    put("auth_attr_" + std::to_string(type), 1, attr);
  }
  for (unsigned version : {3u, 4u}) {
    for (unsigned type : {0u, 1u, 3u, 4u}) {
      ndmpc::CNDMPAddr addr;
      addr.SetProtocolVersion(ndmpc::CXDREnumBase<enums::CNDMPProtocolVersion>(version));
      addr.AddressType = type;
      if (version >= 4 && type == 1) addr.TcpAddressList.AppendNew().Port = 10000;
      put("addr_v" + std::to_string(version) + "_" + std::to_string(type),
          static_cast<std::uint8_t>(version == 3 ? 2 : 3), addr);
    }
  }
  for (unsigned type : {0u, 1u, 2u}) {
    ndmpc::CNDMPFileName name;
    name.FileSystemType = type;
    name.UnixFileName.SetString("/etc/passwd");
    name.OtherFileName.SetString("other");
    put("file_name_" + std::to_string(type), 4, name);
  }
}

void StreamSeeds() {
  auto record = [](const Bytes& payload, std::size_t fragment) {
    return ndmpc::fuzz::Frame(payload.data(), payload.size(), fragment);
  };
  Bytes words;
  for (int i = 0; i < 40; ++i) words.push_back(static_cast<std::uint8_t>(i));
  // getBytes 4 x3, skipRecord, getBytes 8, DiscardRecord, IsAvailable
  Bytes ops{7, 12, 12, 12, 1, 28, 2, 3};
  Bytes a = ops;
  for (const Bytes& r : {record(words, 40), record(words, 7), record(Bytes{}, 1)}) {
    a.insert(a.end(), r.begin(), r.end());
  }
  Write("stream", "three_records", a);
  Bytes overLimit = a;
  overLimit[0] |= 0x40;  // the same under a maximum record size of 24 bytes
  Write("stream", "over_limit", overLimit);
  Bytes big(9000, 0x5A);
  Bytes b{4, 252, 1, 2, 3};  // a long read, skip, discard, available
  Bytes r = record(big, 9000);
  b.insert(b.end(), r.begin(), r.end());
  r = record(words, 3);
  b.insert(b.end(), r.begin(), r.end());
  Write("stream", "long_fragment", b);
  Bytes c{3, 0, 2, 0, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x01, 0x41};  // empty fragment first
  Write("stream", "empty_fragment", c);
  Bytes d{2, 0, 2, 0x7F, 0xFF, 0xFF, 0xF0, 1, 2, 3, 4};  // a huge declared fragment
  Write("stream", "huge_fragment", d);
}

// One client record: `body` under `version` with sequence `sequence`,
// framed in fragments of 1000 bytes.
Bytes ClientRecord(ndmpc::CNDMPMessage& body, std::uint32_t version, std::uint32_t sequence) {
  ndmpc::CNDMPMessagePacket packet(
      ndmpc::CNDMPMessageAccess::Code(body), ndmpc::CNDMPMessageAccess::Type(body),
      ndmpc::CXDREnumBase<enums::CNDMPProtocolVersion>(version));
  packet.GetHeader().Sequence = sequence;
  packet.SetMessage(body);
  Bytes payload = Encode([&](ndmpc::CXDRStream& s) { packet.Serialize(s); });
  return ndmpc::fuzz::Frame(payload.data(), payload.size(), 1000);
}

// Sessions: open under the version, sixteen default requests of the codes
// that have request classes, then close (which ends the session at once),
// with the server offering no authentication and then MD5 and text.
void ServerSeeds() {
  constexpr std::size_t kPerSeed = 16;
  for (std::uint32_t version : {3u, 4u}) {
    ndmpc::CNDMPConnectOpenRequest open;
    open.ProtocolVersion = version;
    ndmpc::CNDMPConnectCloseRequest close;
    std::vector<Bytes> requests;
    for (const auto& row : ndmpc::NDMPFactoryTable()) {
      ndmpc::CNDMPMessage* body = ndmpc::CNDMPMessageAccess::Make(row.code, 0);
      if (body == nullptr) continue;
      body->SetProtocolVersion(ndmpc::CXDREnumBase<enums::CNDMPProtocolVersion>(version));
      requests.push_back(ClientRecord(*body, version, static_cast<std::uint32_t>(requests.size() % kPerSeed) + 2));
      delete body;
    }
    for (std::uint8_t config : {0, 4}) {
      for (std::size_t first = 0; first < requests.size(); first += kPerSeed) {
        Bytes seed{static_cast<std::uint8_t>(config | (version == 3 ? 1 : 2))};
        Bytes r = ClientRecord(open, version, 1);
        seed.insert(seed.end(), r.begin(), r.end());
        for (std::size_t k = first; k < std::min(first + kPerSeed, requests.size()); ++k) {
          seed.insert(seed.end(), requests[k].begin(), requests[k].end());
        }
        r = ClientRecord(close, version, 99);
        seed.insert(seed.end(), r.begin(), r.end());
        Write("server", "session_v" + std::to_string(version) + "_a" + std::to_string(config) + "_" +
                            std::to_string(first / kPerSeed),
              seed);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
    return 2;
  }
  root = argv[1];
  PacketSeeds();
  UnionSeeds();
  StreamSeeds();
  ServerSeeds();
  return 0;
}
