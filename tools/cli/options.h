// Command-line options of `ndmpc`: the options every command shares, the
// options of single commands, and the exit codes.
//
//   COptions options;
//   std::string error;
//   if (!ParseOptions(argc, argv, &options, &error)) { print error; return kExitUsage; }
//
// Options may come before or after the command; "--" ends them. Values are
// "--port 10000", "--port=10000" or "-p10000"; "-vv" counts twice. The
// environment (NDMP_HOST, NDMP_PORT, NDMP_USER, NDMP_PASSWORD) gives the
// defaults that the command line overrides.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace com::vx::korvane::ndmpc::tools {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitConnect = 3;
constexpr int kExitAuth = 4;
constexpr int kExitNdmpError = 5;

struct COptions {
  // Connection.
  std::string host = "localhost";
  unsigned int port = 10000;
  std::string user;
  std::string password;
  unsigned int protocol = 0;  // 0: negotiate 4, then 3
  unsigned int timeout = 30;  // seconds per request
  // Output.
  int verbosity = 0;
  bool trace = false;
  std::string logFile;
  bool json = false;
  bool help = false;
  bool version = false;
  // The command and its arguments.
  std::vector<std::string> args;
  // tape write/read.
  std::uint32_t recordSize = 65536;
  bool recordSizeGiven = false;
  unsigned int skipFiles = 0;
  bool noRewind = false;
  // backup and restore.
  std::string tapeDevice;
  std::string backupType = "tar";
  std::vector<std::string> env;  // NAME=VALUE, in order
  std::string tapeHost;          // HOST[:PORT] of the tape agent (three-way)
  std::string tapeUser;
  std::string tapePassword;
  bool tapeCredentialsGiven = false;
  std::string restoreTo;
  // backup index.
  std::string indexFile;
  unsigned int backupId = 0;  // 0: not given
  // serve.
  std::string listen = "127.0.0.1";
  std::string tapeDir;
  std::string auth;  // "md5,text,none"; empty: md5,text with --user, else none
  std::string versions = "3,4";
  std::uint32_t maxRecord = 1024 * 1024;
  std::uint64_t capacity = 1ull << 30;
  std::string dataRoot;
};

// Parses argv (argv[0] is skipped); false with `*error` on bad usage.
bool ParseOptions(int argc, const char* const* argv, COptions* options, std::string* error);
// Parses a size with an optional K, M or G suffix (powers of 1024).
bool ParseSize(const std::string& text, std::uint64_t max, std::uint64_t* value);

// Help texts: the tool's, and one per command (null for an unknown one).
const char* ToolHelp();
const char* CommandHelp(const std::string& command);

}  // namespace com::vx::korvane::ndmpc::tools
