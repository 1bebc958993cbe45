#include "tools/cli/client_session.h"

#include <netdb.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "ndmpc/ndmp/messages/connect_config_messages.h"
#include "ndmpc/ndmp/messages/message_access.h"
#include "tools/cli/json_writer.h"

namespace com::vx::korvane::ndmpc::tools {

using enums::CNDMPError;

namespace {

// Extra time the set-up may take beyond --timeout: one TCP connect attempt.
constexpr unsigned int kConnectAllowance = 15;

std::string LowerFirst(std::string text) {
  if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

// Why a TCP connection to host:port cannot be made, in a few words.
std::string DiagnoseConnect(const std::string& host, unsigned int port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  int resolved = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (list != nullptr) ::freeaddrinfo(list);
  if (resolved != 0) return "unknown host name";
  VxTcpSocket probe;
  unsigned int status = probe.connect(VxSocketAddress(host, port), 5000);
  if (status == 0) {
    probe.close();
    return "the connection was closed";
  }
  if (status == VX_SOCKET_TIMEOUT) return "timed out";
  if (status >= VX_SOCKET_ERROR_BASE) {
    return LowerFirst(std::strerror(static_cast<int>(status - VX_SOCKET_ERROR_BASE)));
  }
  return "connection failed";
}

std::string ErrorName(unsigned int error) { return enums::CNDMPError::ToString(error); }

}  // namespace

const char* ErrorHint(unsigned int error) {
  switch (error) {
    case CNDMPError::NDMP_NOT_SUPPORTED_ERR:
      return "the server does not implement this request";
    case CNDMPError::NDMP_DEVICE_BUSY_ERR:
      return "the device is in use by another client";
    case CNDMPError::NDMP_DEVICE_OPENED_ERR:
      return "this connection already has a device open";
    case CNDMPError::NDMP_NOT_AUTHORIZED_ERR:
      return "not authenticated: give --user and --password (or NDMP_USER/NDMP_PASSWORD)";
    case CNDMPError::NDMP_PERMISSION_ERR:
      return "not allowed in this mode (a tape opened read-only cannot be written)";
    case CNDMPError::NDMP_DEV_NOT_OPEN_ERR:
      return "no device is open on this connection";
    case CNDMPError::NDMP_IO_ERR:
      return "the device reported an I/O error";
    case CNDMPError::NDMP_ILLEGAL_ARGS_ERR:
      return "the server rejected an argument";
    case CNDMPError::NDMP_NO_TAPE_LOADED_ERR:
      return "no tape is loaded in the drive";
    case CNDMPError::NDMP_WRITE_PROTECT_ERR:
      return "the tape is write-protected";
    case CNDMPError::NDMP_EOF_ERR:
      return "a filemark was reached";
    case CNDMPError::NDMP_EOM_ERR:
      return "the end of the medium or of the recorded data was reached";
    case CNDMPError::NDMP_NO_DEVICE_ERR:
      return "no such device: `ndmpc info` lists the devices";
    case CNDMPError::NDMP_ILLEGAL_STATE_ERR:
      return "the request is not allowed in the current state";
    default:
      return "";
  }
}

CClientSession::CClientSession(CCommandContext& context) : context_(context) {}

CClientSession::~CClientSession() {
  if (connection_) connection_->Disconnect();
}

std::string CClientSession::Where() const {
  const std::string& host = context_.options.host;
  const bool ipv6 = host.find(':') != std::string::npos;
  return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(context_.options.port);
}

int CClientSession::Open(CINDMPCallback* watcher) {
  const COptions& options = context_.options;
  // The address is given as the host name only: a failed connect is then
  // not tried a second time.
  connection_.reset(new CNDMPConnection(options.host.c_str(), "", context_.log, options.port));
  if (watcher != nullptr) connection_->RegisterCallback(watcher);

  // Connecting and authenticating run on a helper thread so that a service
  // that accepts the connection but never answers (not an NDMP port) costs
  // a bounded wait instead of the library's six minutes per exchange.
  struct CSetup {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    unsigned int connect = CNDMPError::NDMP_NO_ERR;
    unsigned int auth = CNDMPError::NDMP_NO_ERR;
    bool transportFailed = false;
  };
  auto setup = std::make_shared<CSetup>();
  CNDMPConnection* connection = connection_.get();
  const std::string user = options.user;
  const std::string password = options.password;
  const unsigned int protocol = options.protocol;
  std::thread worker([setup, connection, user, password, protocol] {
    CXDREnumBase<CNDMPError> result =
        protocol == 0 ? connection->Connect()
                      : connection->Connect(CXDREnumBase<enums::CNDMPProtocolVersion>(protocol));
    unsigned int auth = CNDMPError::NDMP_NO_ERR;
    bool transportFailed = false;
    if (result == CNDMPError::NDMP_NO_ERR) {
      auth = connection->Authenticate(user.c_str(), password.c_str()).getInt32();
    } else {
      // A failed version negotiation disconnects; a failed TCP connect
      // leaves the socket behind.
      transportFailed = connection->getSocket() != nullptr;
    }
    std::lock_guard<std::mutex> lock(setup->mutex);
    setup->connect = result.getInt32();
    setup->auth = auth;
    setup->transportFailed = transportFailed;
    setup->finished = true;
    setup->done.notify_all();
  });
  {
    std::unique_lock<std::mutex> lock(setup->mutex);
    const auto limit = std::chrono::seconds(options.timeout + kConnectAllowance);
    if (!setup->done.wait_for(lock, limit, [&] { return setup->finished; })) {
      lock.unlock();
      Complain(context_, kExitConnect,
               "no NDMP answer from " + Where() + " within " +
                   std::to_string(options.timeout + kConnectAllowance) +
                   " s: check that this is the NDMP port of the server (or give a longer "
                   "--timeout)");
      std::fflush(context_.out);
      std::fflush(context_.err);
      // The library's exchange cannot be abandoned; leave without unwinding.
      ::_exit(kExitConnect);
    }
  }
  worker.join();

  if (setup->connect != CNDMPError::NDMP_NO_ERR) {
    connection_.reset();
    if (setup->transportFailed) {
      return Complain(context_, kExitConnect,
                      "cannot connect to " + Where() + " (" +
                          DiagnoseConnect(options.host, options.port) +
                          "): check the host and port, or that the NDMP service is running");
    }
    std::string offered = options.protocol == 0
                              ? std::string("NDMP version 4 or 3")
                              : "NDMP version " + std::to_string(options.protocol);
    return Complain(
        context_, kExitConnect,
        "connected to " + Where() + ", but the server did not agree on " + offered +
            ": check that this is an NDMP service" +
            (options.protocol == 0 ? std::string() : std::string(", or try another --protocol")));
  }
  version_ = connection_->GetProtocolVersion().getInt32();
  context_.log.info("connected to %s, NDMP version %u", Where().c_str(), version_);

  if (setup->auth == CNDMPError::NDMP_NO_ERR) {
    authenticated_ = true;
    return kExitOk;
  }
  if (!options.user.empty()) {
    std::string offered;
    CNDMPConfigGetServerInfoRequest request;
    std::unique_ptr<CNDMPMessage> reply;
    if (Request(request, &reply, 5, true) == kExitOk) {
      if (auto* info = dynamic_cast<CNDMPConfigGetServerInfoReply*>(reply.get())) {
        for (auto& type : info->AuthenticationTypes) {
          std::string name = type.ToString();
          if (name.rfind("NDMP_AUTH_", 0) == 0) name = name.substr(10);
          offered += (offered.empty() ? "" : ", ") + name;
        }
      }
    }
    return Complain(
        context_, kExitAuth,
        "authentication as '" + options.user + "' at " + Where() + " failed (" +
            ErrorName(setup->auth) + "): check the user name and password" +
            (offered.empty() ? std::string() : " (the server offers: " + offered + ")"));
  }
  std::fprintf(context_.err,
               "ndmpc: warning: not authenticated: no --user given and %s refused a login "
               "without credentials (%s); requests that need a login will be refused. Give "
               "--user and --password (or NDMP_USER/NDMP_PASSWORD).\n",
               Where().c_str(), ErrorName(setup->auth).c_str());
  return kExitOk;
}

int CClientSession::Report(const std::string& what, unsigned int error) {
  std::string text = what + ": " + ErrorName(error);
  const char* hint = ErrorHint(error);
  if (*hint != '\0') text += std::string(" (") + hint + ")";
  if (context_.options.json) {
    CJsonWriter json;
    json.BeginObject()
        .Key("error")
        .BeginObject()
        .Key("value")
        .Number(error)
        .Key("name")
        .String(ErrorName(error))
        .EndObject()
        .Key("message")
        .String(text)
        .EndObject();
    std::fprintf(context_.out, "%s\n", json.Text().c_str());
  }
  return Complain(context_, kExitNdmpError, text);
}

int CClientSession::Request(CNDMPMessage& request, std::unique_ptr<CNDMPMessage>* reply,
                            unsigned int timeout, bool quiet, unsigned int* errorOut) {
  const std::string name = CNDMPMessageAccess::Code(request).ToString();
  if (timeout == 0) timeout = context_.options.timeout;
  CNDMPMessage* received = nullptr;
  const unsigned int error = connection_->SendMessage(request, &received, timeout).getInt32();
  if (errorOut != nullptr) *errorOut = error;
  if (error == CNDMPError::NDMP_NO_ERR) {
    reply->reset(received);
    return kExitOk;
  }
  connection_->FreeMessage(received);
  const bool lost = !connection_->IsConnected();
  if (error == CNDMPError::NDMP_CONNECT_ERR || (error == CNDMPError::NDMP_TIMEOUT_ERR && lost)) {
    if (quiet) return kExitConnect;
    return Complain(context_, kExitConnect, name + ": the connection to " + Where() + " was lost");
  }
  if (error == CNDMPError::NDMP_TIMEOUT_ERR) {
    if (quiet) return kExitFailure;
    return Complain(context_, kExitFailure,
                    name + ": no reply from " + Where() + " within " + std::to_string(timeout) +
                        " s (--timeout)");
  }
  if (quiet) return kExitNdmpError;
  return Report(name, error);
}

}  // namespace com::vx::korvane::ndmpc::tools
