// Benchmarks of the connection, the stream and the message codecs, each
// next to a plain baseline measured in the same run (ratios as counters):
//   RoundTrip      SendMessage(NDMP_CONFIG_GET_HOST_INFO) vs a raw ping-pong
//   TapeWrite      NDMP_TAPE_WRITE payload vs raw TCP and a writev sender
//   FhAddFile      decoding/encoding 10,000 file-history entries vs a hand
//                  decoder and (when built with rpcgen) an rpcgen decoder
//   FhDecodeResident resident bytes of a decoded post of minimal entries
//   IdleConnection resident bytes and threads per idle connection
// Run with scripts/bench.sh; results in bench/RESULTS.md.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <malloc.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchmark/benchmark.h"
#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/notify_log_fh_messages.h"
#include "bench/quiet_log.h"
#include "ndmpc/ndmp/messages/scsi_tape_messages.h"
#ifdef NDMPC_BENCH_RPCGEN
#include "fh_records.h"
#endif

namespace ndmpc = com::vx::korvane::ndmpc;
namespace enums = ndmpc::enums;
using Bytes = std::vector<unsigned char>;

namespace {

using ndmpc::bench::QuietLog;

// A connected loopback TCP pair of raw descriptors, both with TCP_NODELAY.
struct TcpPair {
  int client = -1;
  int server = -1;
  TcpPair() {
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    ::listen(listener, 1);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
    client = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(client, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    server = ::accept(listener, nullptr, nullptr);
    ::close(listener);
    int one = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  }
  ~TcpPair() {
    if (client >= 0) ::close(client);
    if (server >= 0) ::close(server);
  }
};

bool ReadAll(int fd, void* buffer, std::size_t n) {
  auto* p = static_cast<unsigned char*>(buffer);
  while (n > 0) {
    ssize_t r = ::recv(fd, p, n, 0);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<std::size_t>(r);
  }
  return true;
}

bool WriteAll(int fd, const void* buffer, std::size_t n) {
  const auto* p = static_cast<const unsigned char*>(buffer);
  while (n > 0) {
    ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<std::size_t>(r);
  }
  return true;
}

// Reads and drops everything on `fd` until the peer closes.
std::thread Drain(int fd) {
  return std::thread([fd] {
    std::vector<unsigned char> sink(1 << 20);
    while (::recv(fd, sink.data(), sink.size(), 0) > 0) {
    }
  });
}

using Clock = std::chrono::steady_clock;
double Seconds(Clock::time_point start) {
  return std::max(1e-9, std::chrono::duration<double>(Clock::now() - start).count());
}

// Rates of the baselines, measured in the same run (they are registered
// first) for the ratio counters of the library benchmarks. The decoders keep
// their best repetition: all repetitions of a baseline run before the
// library's, and one slowed by a busy machine would flatter the ratio.
double writevBytesPerSecond = 0;
// Decoding rates of the baselines: by wall time, and by CPU time of the
// decoding thread, which a loaded machine disturbs far less.
struct Rates {
  double wall = 0;
  double cpu = 0;
  void KeepBest(const Rates& other) {
    wall = std::max(wall, other.wall);
    cpu = std::max(cpu, other.cpu);
  }
};
Rates handRates;
Rates rpcgenRates;

// ---- (1) round trips -------------------------------------------------------

double rawRoundTripsPerSecond = 0;

void BM_RoundTripRawPingPong(benchmark::State& state) {
  TcpPair pair;
  std::thread echo([fd = pair.server] {
    unsigned char request[28];
    unsigned char reply[28] = {0x80, 0, 0, 24};
    while (ReadAll(fd, request, sizeof(request))) {
      if (!WriteAll(fd, reply, sizeof(reply))) break;
    }
  });
  unsigned char request[28] = {0x80, 0, 0, 24};
  unsigned char reply[28];
  auto start = Clock::now();
  for (auto _ : state) {
    WriteAll(pair.client, request, sizeof(request));
    ReadAll(pair.client, reply, sizeof(reply));
  }
  ::shutdown(pair.client, SHUT_RDWR);
  echo.join();
  state.counters["round_trips/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  rawRoundTripsPerSecond = static_cast<double>(state.iterations()) / Seconds(start);
}

// Answers NDMP_CONNECT_OPEN and NDMP_CONFIG_GET_HOST_INFO right in the callback.
class CAnswering : public ndmpc::CINDMPCallback {
 public:
  explicit CAnswering(ndmpc::CNDMPConnection*& serving) : serving_(serving) {}
  unsigned int HandleMessagePacket(ndmpc::CNDMPMessagePacket& packet) override {
    const auto& h = packet.GetHeader();
    if (h.MessageType.getInt32() != 0) return 0;
    unsigned int seq = h.Sequence.getInt32();
    if (h.MessageCode.getInt32() == enums::CNDMPMessageCode::NDMP_CONNECT_OPEN) {
      ndmpc::CNDMPConnectOpenReply reply;
      serving_->SendMessage(reply, seq);
    } else if (h.MessageCode.getInt32() == enums::CNDMPMessageCode::NDMP_CONFIG_GET_HOST_INFO) {
      ndmpc::CNDMPConfigGetHostInfoReply reply;
      serving_->SendMessage(reply, seq);
    }
    return 0;
  }

 private:
  ndmpc::CNDMPConnection*& serving_;
};

// An in-process serving side on 127.0.0.1 made of CNDMPConnections over
// the accepted sockets.
class CServer {
 public:
  explicit CServer(int connections = 1) {
    listener_.listen("127.0.0.1", 0);
    servings_.resize(static_cast<std::size_t>(connections), nullptr);
    thread_ = std::thread([this] {
      for (auto& serving : servings_) {
        ndmpc::VxTcpSocket accepted;
        if (listener_.accept(accepted, 10000) != 0) return;
        handlers_.emplace_back(new CAnswering(serving));
        serving = new ndmpc::CNDMPConnection(accepted, QuietLog());
        serving->RegisterCallback(handlers_.back().get());
      }
    });
  }
  ~CServer() {
    thread_.join();
    for (auto* s : servings_) delete s;
  }
  unsigned int port() const { return listener_.port(); }

 private:
  ndmpc::VxTcpListener listener_;
  std::vector<ndmpc::CNDMPConnection*> servings_;
  std::vector<std::unique_ptr<CAnswering>> handlers_;
  std::thread thread_;
};

void BM_RoundTripSendMessage(benchmark::State& state) {
  CServer server;
  ndmpc::CNDMPConnection client("127.0.0.1", "127.0.0.1", QuietLog(), server.port());
  if (client.Connect(ndmpc::CXDREnumBase<enums::CNDMPProtocolVersion>(4u)) !=
      enums::CNDMPError::NDMP_NO_ERR) {
    state.SkipWithError("connect failed");
    return;
  }
  ndmpc::CNDMPConfigGetHostInfoRequest request;
  auto start = Clock::now();
  for (auto _ : state) {
    ndmpc::CNDMPMessage* reply = nullptr;
    if (client.SendMessage(request, &reply, 10) != enums::CNDMPError::NDMP_NO_ERR) {
      state.SkipWithError("request failed");
      break;
    }
    client.FreeMessage(reply);
  }
  double rate = static_cast<double>(state.iterations()) / Seconds(start);
  client.Disconnect();
  state.counters["round_trips/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  if (rawRoundTripsPerSecond > 0) state.counters["vs_raw"] = rate / rawRoundTripsPerSecond;
}

// ---- (2) tape write throughput ----------------------------------------------

void BM_TapeWriteSendMessage(benchmark::State& state) {
  const std::size_t size = static_cast<std::size_t>(state.range(0));
  TcpPair pair;
  std::thread drain = Drain(pair.server);
  {
    ndmpc::VxTcpSocket socket;
    socket.adopt(pair.client);
    pair.client = -1;
    ndmpc::CNDMPConnection client(socket, QuietLog());
    ndmpc::CNDMPTapeWriteRequest write;
    std::vector<unsigned char> payload(size, 0xA5);
    write.DataOut.SetData(payload.data(), payload.size());
    auto start = Clock::now();
    for (auto _ : state) {
      if (client.SendMessage(write, 0u) != enums::CNDMPError::NDMP_NO_ERR) {
        state.SkipWithError("send failed");
        break;
      }
    }
    double rate = static_cast<double>(state.iterations() * size) / Seconds(start);
    if (writevBytesPerSecond > 0) state.counters["vs_writev"] = rate / writevBytesPerSecond;
    client.Disconnect();
  }
  drain.join();
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

void BM_TapeWriteRawTcp64K(benchmark::State& state) {
  TcpPair pair;
  std::thread drain = Drain(pair.server);
  std::vector<unsigned char> block(65536, 0xA5);
  for (auto _ : state) WriteAll(pair.client, block.data(), block.size());
  ::shutdown(pair.client, SHUT_RDWR);
  drain.join();
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * block.size()));
}

// One writev (header + 4096 data bytes) per fragment, 64 KiB per iteration.
void BM_TapeWriteWritevFragments(benchmark::State& state) {
  TcpPair pair;
  std::thread drain = Drain(pair.server);
  std::vector<unsigned char> block(65536, 0xA5);
  auto start = Clock::now();
  for (auto _ : state) {
    for (std::size_t offset = 0; offset < block.size(); offset += 4096) {
      std::uint32_t header = htonl(4096u | (offset + 4096 == block.size() ? 0x80000000u : 0u));
      iovec parts[2] = {{&header, 4}, {block.data() + offset, 4096}};
      std::size_t left = 4100;
      ssize_t n = ::writev(pair.client, parts, 2);
      if (n > 0 && static_cast<std::size_t>(n) < left) {
        // Rare short write: finish the rest plainly.
        std::vector<unsigned char> rest;
        rest.insert(rest.end(), reinterpret_cast<unsigned char*>(&header),
                    reinterpret_cast<unsigned char*>(&header) + 4);
        rest.insert(rest.end(), block.data() + offset, block.data() + offset + 4096);
        WriteAll(pair.client, rest.data() + n, left - static_cast<std::size_t>(n));
      }
    }
  }
  writevBytesPerSecond = static_cast<double>(state.iterations() * block.size()) / Seconds(start);
  ::shutdown(pair.client, SHUT_RDWR);
  drain.join();
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * block.size()));
}

// ---- (3) file-history decoding and encoding ---------------------------------

constexpr int kEntries = 10000;

ndmpc::CNDMPFhAddFilePost MakeFhPost() {
  ndmpc::CNDMPFhAddFilePost post;
  post.Files.Reserve(kEntries);
  for (int i = 0; i < kEntries; ++i) {
    ndmpc::CNDMPFile& file = post.Files.AppendNew();
    char name[32];
    std::snprintf(name, sizeof(name), "/vol/vol0/f%010d", i);  // 21 characters
    file.FileNameList.AppendNew().UnixFileName.SetString(name);
    ndmpc::CNDMPFileStat& stat = file.FileStatList.AppendNew();
    stat.FileType = 1u;
    stat.MTime = stat.ATime = stat.CTime = 1700000000u + static_cast<unsigned>(i);
    stat.Owner = 1000u;
    stat.Group = 100u;
    stat.FSAttributes = 0644u;
    stat.Size = ndmpc::CNDMPUQuad(static_cast<std::uint64_t>(i) * 4096);
    stat.Links = 1u;
    file.Node = ndmpc::CNDMPUQuad(static_cast<std::uint64_t>(i) + 64);
    file.FileHistInfo = ndmpc::CNDMPUQuad(static_cast<std::uint64_t>(i) * 512);
  }
  return post;
}

// `post` as it travels in a version-4 request: one record with fragment headers.
Bytes RecordBytes(const ndmpc::CNDMPMessage& post, std::uint32_t code) {
  Bytes raw;
  int fds[2];
  socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
  std::thread reader([&raw, fd = fds[0]] {
    unsigned char buffer[65536];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof(buffer))) > 0) raw.insert(raw.end(), buffer, buffer + n);
    ::close(fd);
  });
  {
    ndmpc::VxTcpSocket socket;
    socket.adopt(fds[1]);
    ndmpc::CXDRStream stream(socket, QuietLog());
    ndmpc::CNDMPMessagePacket packet(ndmpc::CXDREnumBase<enums::CNDMPMessageCode>(code),
                                     enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST,
                                     enums::CNDMPProtocolVersion::PROTOCOL_VERSION_4);
    packet.SetMessage(post);
    packet.Serialize(stream);
    stream.flushRecord();
    socket.close();
  }
  reader.join();
  return raw;
}

const Bytes& FhRecordBytes() {
  static const Bytes bytes = RecordBytes(MakeFhPost(), ndmpc::CNDMPFhAddFilePost::kMessageCode);
  return bytes;
}

// Reads one record off `fd` and returns its fragments joined (message header
// included), as a plain decoder would before parsing it.
Bytes ReadRecord(int fd) {
  Bytes payload;
  for (;;) {
    std::uint32_t header;
    if (!ReadAll(fd, &header, 4)) break;
    header = ntohl(header);
    std::size_t at = payload.size();
    payload.resize(at + (header & 0x7FFFFFFFu));
    ReadAll(fd, payload.data() + at, header & 0x7FFFFFFFu);
    if (header & 0x80000000u) break;
  }
  ::close(fd);
  return payload;
}

// The message header in front of the body of a record read by ReadRecord.
constexpr std::size_t kMessageHeaderBytes = 24;

// Sets the entries/s counter; returns the number of entries processed.
double CountEntries(benchmark::State& state) {
  double entries = static_cast<double>(state.iterations()) * kEntries;
  state.counters["entries/s"] = benchmark::Counter(entries, benchmark::Counter::kIsRate);
  return entries;
}

// Runs `decode` on the reading end of a socket pair the NDMP_FH_ADD_FILE
// record is sent over, once per iteration; returns the entries/s.
double ThreadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

template <class Decode>
Rates TimeFhDecodes(benchmark::State& state, Decode decode) {
  const Bytes& bytes = FhRecordBytes();
  auto start = Clock::now();
  double cpuStart = ThreadCpuSeconds();
  for (auto _ : state) OverSocketPair(bytes, decode);
  double cpu = ThreadCpuSeconds() - cpuStart;
  double entries = CountEntries(state);
  return Rates{entries / Seconds(start), cpu > 0 ? entries / cpu : 0};
}

// Sends the record bytes over a socket pair from a thread while `read` runs
// on the other end.
template <class Read>
void OverSocketPair(const Bytes& bytes, Read read) {
  int fds[2];
  socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
  std::thread writer([&bytes, fd = fds[0]] {
    WriteAll(fd, bytes.data(), bytes.size());
    ::close(fd);
  });
  read(fds[1]);
  writer.join();
}

void BM_FhAddFileDecode(benchmark::State& state) {
  Rates rate = TimeFhDecodes(state, [&](int fd) {
    ndmpc::VxTcpSocket socket;
    socket.adopt(fd);
    ndmpc::CXDRStream stream(socket, QuietLog());
    ndmpc::CNDMPMessagePacket packet;
    if (packet.DeSerialize(stream) != 0) state.SkipWithError("decode failed");
    auto* post = dynamic_cast<ndmpc::CNDMPFhAddFilePost*>(packet.GetMessage());
    if (post == nullptr || post->Files.size() != kEntries) state.SkipWithError("wrong post");
    socket.close();
  });
  auto ratio = [&](const char* name, const Rates& baseline) {
    if (baseline.wall <= 0 || baseline.cpu <= 0) return;
    state.counters[name] = rate.wall / baseline.wall;
    state.counters[std::string(name) + "_cpu"] = rate.cpu / baseline.cpu;
  };
  ratio("vs_hand", handRates);
  ratio("vs_rpcgen", rpcgenRates);
}

struct HandEntry {
  std::uint32_t fsType = 0;
  std::string name;
  std::uint32_t stat[9] = {};
  std::uint64_t size = 0;
  std::uint32_t links = 0;
  std::uint64_t node = 0;
  std::uint64_t info = 0;
};

// Reads the record off the socket, then decodes it in one pass.
void BM_FhAddFileHandDecode(benchmark::State& state) {
  Rates rate = TimeFhDecodes(state, [&](int fd) {
    Bytes payload = ReadRecord(fd);
    const unsigned char* p = payload.data() + kMessageHeaderBytes;
    auto word = [&p] {
      std::uint32_t v;
      std::memcpy(&v, p, 4);
      p += 4;
      return ntohl(v);
    };
    auto quad = [&] {
      std::uint64_t high = word();
      return (high << 32) | word();
    };
    std::uint32_t count = word();
    std::vector<HandEntry> entries;
    entries.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      HandEntry e;
      std::uint32_t names = word();
      for (std::uint32_t n = 0; n < names; ++n) {
        e.fsType = word();
        std::uint32_t len = word();
        e.name.assign(reinterpret_cast<const char*>(p), len);
        p += (len + 3) & ~3u;
      }
      std::uint32_t stats = word();
      for (std::uint32_t s = 0; s < stats; ++s) {
        for (auto& f : e.stat) f = word();
        e.size = quad();
        e.links = word();
      }
      e.node = quad();
      e.info = quad();
      entries.push_back(std::move(e));
    }
    benchmark::DoNotOptimize(entries.data());
    if (entries.size() != kEntries) state.SkipWithError("wrong count");
  });
  handRates.KeepBest(rate);
}

#ifdef NDMPC_BENCH_RPCGEN
// The same record read the same way, its body decoded by the routines rpcgen
// generates from bench/fh_records.x, then freed.
void BM_FhAddFileRpcgenDecode(benchmark::State& state) {
  Rates rate = TimeFhDecodes(state, [&](int fd) {
    Bytes payload = ReadRecord(fd);
    if (payload.size() < kMessageHeaderBytes) {
      state.SkipWithError("short record");
      return;
    }
    XDR xdrs;
    xdrmem_create(&xdrs, reinterpret_cast<char*>(payload.data()) + kMessageHeaderBytes,
                  static_cast<u_int>(payload.size() - kMessageHeaderBytes), XDR_DECODE);
    fhb_fh_add_file_post post{};
    // The whole body must be consumed, into the expected number of entries.
    bool ok = xdr_fhb_fh_add_file_post(&xdrs, &post) &&
              xdr_getpos(&xdrs) == payload.size() - kMessageHeaderBytes &&
              post.files.files_len == static_cast<u_int>(kEntries);
    // xdrproc_t takes a third argument the generated routines do not have.
    xdr_free(reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_fhb_fh_add_file_post)),
             reinterpret_cast<char*>(&post));
    if (!ok) state.SkipWithError("rpcgen decode failed");
  });
  rpcgenRates.KeepBest(rate);
}
#endif

void BM_FhAddFileEncode(benchmark::State& state) {
  ndmpc::CNDMPFhAddFilePost post = MakeFhPost();
  int fds[2];
  socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
  std::thread drain = Drain(fds[0]);
  {
    ndmpc::VxTcpSocket socket;
    socket.adopt(fds[1]);
    ndmpc::CXDRStream stream(socket, QuietLog());
    ndmpc::CNDMPMessagePacket packet(enums::CNDMPMessageCode::NDMP_FH_ADD_FILE,
                                     enums::CNDMPMessageType::NDMP_MESSAGE_REQUEST,
                                     enums::CNDMPProtocolVersion::PROTOCOL_VERSION_4);
    packet.SetMessage(post);
    for (auto _ : state) {
      packet.Serialize(stream);
      stream.flushRecord();
    }
    socket.close();
  }
  drain.join();
  ::close(fds[0]);
  CountEntries(state);
}

// ---- (4) idle connections ----------------------------------------------------

long ResidentBytes() {
  long pages = 0, resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return 0;
  if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(f);
  return resident * sysconf(_SC_PAGESIZE);
}

int ThreadCount() {
  int n = 0;
  DIR* d = opendir("/proc/self/task");
  if (d == nullptr) return 0;
  while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
  closedir(d);
  return n;
}

void BM_IdleConnections(benchmark::State& state) {
  constexpr int kConnections = 100;
  for (auto _ : state) {
    // A raw serving side, so that only client connections are counted:
    // it answers each open request and then keeps the socket open.
    ndmpc::VxTcpListener listener;
    listener.listen("127.0.0.1", 0);
    std::vector<int> accepted;
    std::thread server([&] {
      for (int i = 0; i < kConnections; ++i) {
        ndmpc::VxTcpSocket socket;
        if (listener.accept(socket, 10000) != 0) return;
        int fd = socket.release();
        accepted.push_back(fd);
        unsigned char request[4 + 24 + 4];
        if (!ReadAll(fd, request, sizeof(request))) return;
        unsigned char reply[4 + 24 + 4] = {0x80, 0, 0, 28};
        std::memcpy(reply + 4 + 16, request + 4, 4);  // reply sequence
        reply[4 + 11] = 1;                             // type: reply
        std::memcpy(reply + 4 + 12, request + 4 + 12, 4);
        WriteAll(fd, reply, sizeof(reply));
      }
    });
    std::vector<std::unique_ptr<ndmpc::CNDMPConnection>> clients;
    clients.reserve(kConnections);
    long before = ResidentBytes();
    int threadsBefore = ThreadCount();
    for (int i = 0; i < kConnections; ++i) {
      clients.emplace_back(new ndmpc::CNDMPConnection("127.0.0.1", "127.0.0.1", QuietLog(),
                                                      listener.port()));
      if (clients.back()->Connect(ndmpc::CXDREnumBase<enums::CNDMPProtocolVersion>(4u)) !=
          enums::CNDMPError::NDMP_NO_ERR) {
        state.SkipWithError("connect failed");
        break;
      }
    }
    server.join();
    long after = ResidentBytes();
    int threadsAfter = ThreadCount();
    state.counters["rss_bytes_per_connection"] =
        static_cast<double>(after - before) / kConnections;
    state.counters["threads_per_connection"] =
        static_cast<double>(threadsAfter - threadsBefore - 1) / kConnections;  // minus the server thread
    // Each Disconnect of an idle client takes a while (see RESULTS.md), so
    // they are torn down side by side.
    std::vector<std::thread> closers;
    for (auto& c : clients) closers.emplace_back([p = c.release()] { delete p; });
    for (auto& t : closers) t.join();
    clients.clear();
    for (int fd : accepted) ::close(fd);
  }
}

// ---- (5) resident memory of decoded file-history posts -------------------------

// A post of minimal entries (4-byte names, one name and one stat where the
// entry has them) of about 4 MB on the wire, already serialized.
struct MinimalPost {
  const char* name;
  std::size_t entries;
  Bytes bytes;
};

// Fills `array`, the entry list of `post`, with minimal elements made by
// `fill` up to about 4 MB of wire, then serializes `post`.
template <class Post, class Array, class Fill>
MinimalPost SerializeMinimal(const char* name, Post& post, Array& array,
                             std::size_t entryWireBytes, Fill fill) {
  std::size_t entries = (4u << 20) / entryWireBytes;
  array.Reserve(entries);
  for (std::size_t i = 0; i < entries; ++i) fill(array.AppendNew());
  return {name, entries, RecordBytes(post, Post::kMessageCode)};
}

const std::vector<MinimalPost>& MinimalPosts() {
  static const std::vector<MinimalPost> posts = [] {
    // Wire bytes per entry: a name list of one is 16 (count, fs type, length,
    // 4 characters), a stat list of one 52, a node, parent or fh_info 8.
    std::vector<MinimalPost> built;
    ndmpc::CNDMPFhAddFilePost files;
    built.push_back(SerializeMinimal("NDMP_FH_ADD_FILE", files, files.Files, 16 + 52 + 8 + 8,
                                     [](ndmpc::CNDMPFile& f) {
                                       f.FileNameList.AppendNew().UnixFileName.SetString("abcd");
                                       f.FileStatList.AppendNew();
                                     }));
    ndmpc::CNDMPFhAddDirPost dirs;
    built.push_back(SerializeMinimal("NDMP_FH_ADD_DIR", dirs, dirs.Directories, 16 + 8 + 8,
                                     [](ndmpc::CNDMPDir& d) {
                                       d.DirNameList.AppendNew().UnixFileName.SetString("abcd");
                                     }));
    ndmpc::CNDMPFhAddNodePost nodes;
    built.push_back(SerializeMinimal("NDMP_FH_ADD_NODE", nodes, nodes.Nodes, 52 + 8 + 8,
                                     [](ndmpc::CNDMPNode& n) { n.Stats.AppendNew(); }));
    return built;
  }();
  return posts;
}

// Decodes one post through CNDMPMessagePacket from a socket pair and reports
// the resident growth while the decoded post is alive, per wire byte and per
// entry. The record bytes are built (and resident) before the first reading.
// rss_live_per_wire_byte leaves out what the decoding freed again (released
// by a second trim), so the difference is its transient memory.
void BM_FhDecodeResident(benchmark::State& state) {
  const MinimalPost& post = MinimalPosts()[static_cast<std::size_t>(state.range(0))];
  state.SetLabel(post.name);
  long growth = 0;
  long live = 0;
  for (auto _ : state) {
    OverSocketPair(post.bytes, [&](int fd) {
      malloc_trim(0);
      long before = ResidentBytes();
      ndmpc::VxTcpSocket socket;
      socket.adopt(fd);
      ndmpc::CXDRStream stream(socket, QuietLog());
      ndmpc::CNDMPMessagePacket packet;
      if (packet.DeSerialize(stream) != 0 || packet.GetMessage() == nullptr) {
        state.SkipWithError("decode failed");
      }
      growth = ResidentBytes() - before;
      malloc_trim(0);
      live = ResidentBytes() - before;
      socket.close();
    });
  }
  state.counters["rss_per_wire_byte"] =
      static_cast<double>(growth) / static_cast<double>(post.bytes.size());
  state.counters["rss_bytes_per_entry"] =
      static_cast<double>(growth) / static_cast<double>(post.entries);
  state.counters["rss_live_per_wire_byte"] =
      static_cast<double>(live) / static_cast<double>(post.bytes.size());
}

}  // namespace

BENCHMARK(BM_RoundTripRawPingPong)->UseRealTime();
BENCHMARK(BM_RoundTripSendMessage)->UseRealTime();
BENCHMARK(BM_TapeWriteRawTcp64K)->UseRealTime();
BENCHMARK(BM_TapeWriteWritevFragments)->UseRealTime();
BENCHMARK(BM_TapeWriteSendMessage)->Arg(64 << 10)->Arg(1 << 20)->UseRealTime();
BENCHMARK(BM_FhAddFileHandDecode)->UseRealTime()->Unit(benchmark::kMillisecond);
#ifdef NDMPC_BENCH_RPCGEN
BENCHMARK(BM_FhAddFileRpcgenDecode)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(BM_FhAddFileDecode)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FhAddFileEncode)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdleConnections)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FhDecodeResident)->DenseRange(0, 2)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
