#include "tools/simulator/sim_server.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/simulator/sim_session.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

constexpr unsigned int kAcceptWaitMs = 200;

bool MakeDirectories(const std::string& path, std::string* error) {
  std::string partial;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    partial = path.substr(0, slash);
    if (!partial.empty() && ::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
      *error = "cannot create tape directory " + partial + ": " + std::strerror(errno);
      return false;
    }
    start = slash + 1;
  }
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    *error = "tape directory " + path + " is not a directory";
    return false;
  }
  return true;
}

}  // namespace

CNDMPSimServer::CNDMPSimServer(CSimServerConfig config, VxLog& log)
    : config_(std::move(config)), log_(log) {}

CNDMPSimServer::~CNDMPSimServer() { Stop(); }

bool CNDMPSimServer::IsValidTapeName(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.size() > 255) return false;
  if (name[0] == '.') return false;  // hidden files are not tapes
  for (char c : name) {
    if (c == '/' || c == '\\' || c == '\0' || static_cast<unsigned char>(c) < 0x20) return false;
  }
  return true;
}

bool CNDMPSimServer::Start(std::string* error) {
  if (started_) return true;
  if (config_.tapeDir.empty()) {
    *error = "no tape directory configured";
    return false;
  }
  if (!MakeDirectories(config_.tapeDir, error)) return false;
  if (config_.versions.empty()) {
    *error = "no NDMP version configured";
    return false;
  }
  unsigned int status = listener_.listen(config_.listenAddress, config_.port);
  if (status != 0) {
    *error = "cannot listen on " + config_.listenAddress + ":" + std::to_string(config_.port);
    if (status >= VX_SOCKET_ERROR_BASE) {
      *error +=
          std::string(" (") + std::strerror(static_cast<int>(status - VX_SOCKET_ERROR_BASE)) + ")";
    }
    return false;
  }
  port_ = listener_.port();
  stopping_ = false;
  started_ = true;
  acceptThread_ = std::thread([this] { AcceptLoop(); });
  log_.info("sim server listening on %s:%u", config_.listenAddress.c_str(), port_);
  return true;
}

void CNDMPSimServer::Stop() {
  if (!started_) return;
  stopping_ = true;
  if (acceptThread_.joinable()) acceptThread_.join();
  listener_.close();
  {
    std::lock_guard<std::mutex> lock(clientsMutex_);
    for (CClient& client : clients_) client.session->Interrupt();
  }
  Reap(true);
  {
    std::lock_guard<std::mutex> lock(devicesMutex_);
    tapes_.clear();
    tapeOwners_.clear();
    changerOwner_ = nullptr;
  }
  started_ = false;
  log_.info("sim server on port %u stopped", port_);
}

void CNDMPSimServer::AcceptLoop() {
  unsigned int nextId = 1;
  while (!stopping_) {
    auto socket = std::make_unique<VxTcpSocket>();
    unsigned int status = listener_.accept(*socket, kAcceptWaitMs);
    Reap(false);
    if (status == VX_SOCKET_TIMEOUT) continue;
    if (status != 0) {
      if (stopping_) break;
      log_.warning("sim server: accept failed (0x%X)", status);
      VxThread::sleep(kAcceptWaitMs);
      continue;
    }
    std::lock_guard<std::mutex> lock(clientsMutex_);
    if (clients_.size() >= config_.maxClients) {
      log_.warning("sim server: too many clients, connection refused");
      socket->close();
      continue;
    }
    CClient client;
    client.session = std::make_unique<CSimSession>(*this, std::move(socket), nextId++);
    client.done = std::make_shared<std::atomic<bool>>(false);
    CSimSession* session = client.session.get();
    auto done = client.done;
    client.thread = std::thread([session, done] {
      session->Run();
      done->store(true);
    });
    clients_.push_back(std::move(client));
  }
}

void CNDMPSimServer::Reap(bool all) {
  std::vector<CClient> finished;
  {
    std::lock_guard<std::mutex> lock(clientsMutex_);
    for (auto it = clients_.begin(); it != clients_.end();) {
      if (all || it->done->load()) {
        finished.push_back(std::move(*it));
        it = clients_.erase(it);
      } else {
        ++it;
      }
    }
  }
  // Joined outside the lock: a session may still be inside the device calls.
  for (CClient& client : finished) {
    if (client.thread.joinable()) client.thread.join();
  }
}

std::size_t CNDMPSimServer::ActiveClients() {
  std::lock_guard<std::mutex> lock(clientsMutex_);
  std::size_t active = 0;
  for (const CClient& client : clients_) active += client.done->load() ? 0 : 1;
  return active;
}

CNDMPSimServer::DeviceResult CNDMPSimServer::AcquireTape(const std::string& name, bool create,
                                                         const void* owner, CVirtualTape** tape) {
  if (!IsValidTapeName(name)) return DeviceResult::kNoDevice;
  std::lock_guard<std::mutex> lock(devicesMutex_);
  auto owned = tapeOwners_.find(name);
  if (owned != tapeOwners_.end() && owned->second != owner) return DeviceResult::kBusy;
  auto found = tapes_.find(name);
  if (found == tapes_.end()) {
    const std::string path = config_.tapeDir + "/" + name;
    struct stat info {};
    if (!create && ::stat(path.c_str(), &info) != 0) return DeviceResult::kNoDevice;
    std::string error;
    std::unique_ptr<CVirtualTape> opened =
        CVirtualTape::Open(path, create, config_.tapeCapacity, &error);
    if (!opened) {
      log_.error("sim server: tape %s: %s", name.c_str(), error.c_str());
      return DeviceResult::kIoError;
    }
    // The tape stays loaded, at its position, after a close: like a
    // no-rewind device, until the server stops.
    found = tapes_.emplace(name, std::move(opened)).first;
  }
  tapeOwners_[name] = owner;
  *tape = found->second.get();
  return DeviceResult::kOk;
}

void CNDMPSimServer::ReleaseTape(const std::string& name, const void* owner) {
  std::lock_guard<std::mutex> lock(devicesMutex_);
  auto owned = tapeOwners_.find(name);
  if (owned != tapeOwners_.end() && owned->second == owner) tapeOwners_.erase(owned);
}

CNDMPSimServer::DeviceResult CNDMPSimServer::AcquireChanger(const std::string& name,
                                                            const void* owner) {
  if (config_.changerName.empty() || name != config_.changerName) return DeviceResult::kNoDevice;
  std::lock_guard<std::mutex> lock(devicesMutex_);
  if (changerOwner_ != nullptr && changerOwner_ != owner) return DeviceResult::kBusy;
  changerOwner_ = owner;
  return DeviceResult::kOk;
}

void CNDMPSimServer::ReleaseChanger(const void* owner) {
  std::lock_guard<std::mutex> lock(devicesMutex_);
  if (changerOwner_ == owner) changerOwner_ = nullptr;
}

std::vector<std::string> CNDMPSimServer::TapeNames() {
  std::vector<std::string> names;
  DIR* dir = ::opendir(config_.tapeDir.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (!IsValidTapeName(name)) continue;
    const std::string path = config_.tapeDir + "/" + name;
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    if (info.st_size != 0 && !CVirtualTape::LooksLikeTape(path)) continue;
    names.push_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace com::vx::korvane::ndmpc::tools
