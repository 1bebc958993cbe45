#include "tools/cli/options.h"

#include <cstdlib>
#include <cstring>
#include <functional>

#include "tools/cli/message_builder.h"

namespace com::vx::korvane::ndmpc::tools {
namespace {

struct COptionDef {
  const char* longName;  // without "--"
  char shortName;        // 0: none
  bool takesValue;
  std::function<bool(COptions&, const std::string&, std::string*)> apply;
};

bool SetUnsigned(const std::string& name, const std::string& text, std::uint64_t min,
                 std::uint64_t max, unsigned int* out, std::string* error) {
  std::uint64_t value = 0;
  if (!ParseNumber(text, max, &value) || value < min) {
    *error = "--" + name + " needs a number from " + std::to_string(min) + " to " +
             std::to_string(max) + ", not '" + text + "'";
    return false;
  }
  *out = static_cast<unsigned int>(value);
  return true;
}

// --tape-capacity (and its older name --capacity).
bool SetTapeCapacity(COptions& o, const std::string& v, std::string* e) {
  if (!ParseSize(v, ~std::uint64_t{0}, &o.capacity) || o.capacity == 0) {
    *e = "--tape-capacity needs a size in bytes (1G, 500M, ...), not '" + v + "'";
    return false;
  }
  return true;
}

const std::vector<COptionDef>& Definitions() {
  static const std::vector<COptionDef> definitions = {
      {"host", 'H', true,
       [](COptions& o, const std::string& v, std::string* e) {
         if (v.empty()) {
           *e = "--host needs a host name or address";
           return false;
         }
         o.host = v;
         return true;
       }},
      {"port", 'p', true,
       [](COptions& o, const std::string& v, std::string* e) {
         return SetUnsigned("port", v, 0, 65535, &o.port, e);
       }},
      {"user", 'u', true,
       [](COptions& o, const std::string& v, std::string*) {
         o.user = v;
         return true;
       }},
      {"password", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.password = v;
         return true;
       }},
      {"protocol", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         if (v != "3" && v != "4") {
           *e = "--protocol must be 3 or 4, not '" + v + "'";
           return false;
         }
         o.protocol = v == "3" ? 3 : 4;
         return true;
       }},
      {"timeout", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         return SetUnsigned("timeout", v, 1, 86400, &o.timeout, e);
       }},
      {"verbose", 'v', false,
       [](COptions& o, const std::string&, std::string*) {
         ++o.verbosity;
         return true;
       }},
      {"trace", 0, false,
       [](COptions& o, const std::string&, std::string*) {
         o.trace = true;
         return true;
       }},
      {"log-file", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.logFile = v;
         return true;
       }},
      {"json", 0, false,
       [](COptions& o, const std::string&, std::string*) {
         o.json = true;
         return true;
       }},
      {"help", 'h', false,
       [](COptions& o, const std::string&, std::string*) {
         o.help = true;
         return true;
       }},
      {"version", 0, false,
       [](COptions& o, const std::string&, std::string*) {
         o.version = true;
         return true;
       }},
      {"record-size", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         std::uint64_t size = 0;
         if (!ParseSize(v, 0xFFFFFFFFu, &size) || size == 0) {
           *e = "--record-size needs a size in bytes (64K, 1M, ...), not '" + v + "'";
           return false;
         }
         o.recordSize = static_cast<std::uint32_t>(size);
         o.recordSizeGiven = true;
         return true;
       }},
      {"file", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         return SetUnsigned("file", v, 0, 0xFFFFFFFFu, &o.skipFiles, e);
       }},
      {"no-rewind", 0, false,
       [](COptions& o, const std::string&, std::string*) {
         o.noRewind = true;
         return true;
       }},
      {"tape", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.tapeDevice = v;
         return true;
       }},
      {"type", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         if (v.empty()) *e = "--type needs a backup type (tar, dump)";
         o.backupType = v;
         return !v.empty();
       }},
      {"env", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         if (v.find('=') == std::string::npos || v[0] == '=') {
           *e = "--env needs NAME=VALUE, not '" + v + "'";
           return false;
         }
         o.env.push_back(v);
         return true;
       }},
      {"tape-host", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         if (v.empty()) *e = "--tape-host needs HOST or HOST:PORT";
         o.tapeHost = v;
         return !v.empty();
       }},
      {"tape-user", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.tapeUser = v;
         o.tapeCredentialsGiven = true;
         return true;
       }},
      {"tape-password", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.tapePassword = v;
         o.tapeCredentialsGiven = true;
         return true;
       }},
      {"to", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.restoreTo = v;
         return true;
       }},
      {"listen", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.listen = v;
         return true;
       }},
      {"tape-dir", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.tapeDir = v;
         return true;
       }},
      {"auth", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.auth = v;
         return true;
       }},
      {"versions", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.versions = v;
         return true;
       }},
      {"max-record", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         std::uint64_t size = 0;
         if (!ParseSize(v, 0x7FFFFFFFu, &size) || size == 0) {
           *e = "--max-record needs a size in bytes (1M, 256K, ...), not '" + v + "'";
           return false;
         }
         o.maxRecord = static_cast<std::uint32_t>(size);
         return true;
       }},
      {"capacity", 0, true, SetTapeCapacity},
      {"tape-capacity", 0, true, SetTapeCapacity},
      {"data-root", 0, true,
       [](COptions& o, const std::string& v, std::string*) {
         o.dataRoot = v;
         return true;
       }},
      {"index", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         if (v.empty()) *e = "--index needs the file of a backup index";
         o.indexFile = v;
         return !v.empty();
       }},
      {"backup", 0, true,
       [](COptions& o, const std::string& v, std::string* e) {
         return SetUnsigned("backup", v, 1, 0xFFFFFFFFu, &o.backupId, e);
       }},
  };
  return definitions;
}

const COptionDef* FindLong(const std::string& name) {
  for (const COptionDef& def : Definitions()) {
    if (name == def.longName) return &def;
  }
  return nullptr;
}

const COptionDef* FindShort(char name) {
  for (const COptionDef& def : Definitions()) {
    if (def.shortName == name) return &def;
  }
  return nullptr;
}

}  // namespace

bool ParseSize(const std::string& text, std::uint64_t max, std::uint64_t* value) {
  if (text.empty()) return false;
  std::string digits = text;
  std::uint64_t unit = 1;
  const char last = digits.back();
  if (last == 'k' || last == 'K') unit = 1024;
  if (last == 'm' || last == 'M') unit = 1024 * 1024;
  if (last == 'g' || last == 'G') unit = 1024ull * 1024 * 1024;
  if (unit != 1) digits.pop_back();
  std::uint64_t number = 0;
  if (!ParseNumber(digits, max / unit, &number)) return false;
  *value = number * unit;
  return true;
}

bool ParseOptions(int argc, const char* const* argv, COptions* options, std::string* error) {
  if (const char* host = std::getenv("NDMP_HOST"); host != nullptr && *host != '\0') {
    options->host = host;
  }
  if (const char* port = std::getenv("NDMP_PORT"); port != nullptr && *port != '\0') {
    std::uint64_t value = 0;
    if (!ParseNumber(port, 65535, &value)) {
      *error = std::string("NDMP_PORT is not a port number: '") + port + "'";
      return false;
    }
    options->port = static_cast<unsigned int>(value);
  }
  if (const char* user = std::getenv("NDMP_USER")) options->user = user;
  if (const char* password = std::getenv("NDMP_PASSWORD")) options->password = password;

  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      options->args.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (arg[1] == '-') {
      std::string name = arg.substr(2);
      std::string value;
      bool hasValue = false;
      const std::size_t equals = name.find('=');
      if (equals != std::string::npos) {
        value = name.substr(equals + 1);
        name = name.substr(0, equals);
        hasValue = true;
      }
      const COptionDef* def = FindLong(name);
      if (def == nullptr) {
        *error = "unknown option --" + name + " (see ndmpc --help)";
        return false;
      }
      if (def->takesValue && !hasValue) {
        if (i + 1 >= argc) {
          *error = "--" + name + " needs a value";
          return false;
        }
        value = argv[++i];
      } else if (!def->takesValue && hasValue) {
        *error = "--" + name + " takes no value";
        return false;
      }
      if (!def->apply(*options, value, error)) return false;
      continue;
    }
    // Short options, possibly clustered ("-vv") or with an attached value ("-p10000").
    for (std::size_t k = 1; k < arg.size(); ++k) {
      const COptionDef* def = FindShort(arg[k]);
      if (def == nullptr) {
        *error = std::string("unknown option -") + arg[k] + " (see ndmpc --help)";
        return false;
      }
      if (!def->takesValue) {
        if (!def->apply(*options, "", error)) return false;
        continue;
      }
      std::string value = arg.substr(k + 1);
      if (value.empty()) {
        if (i + 1 >= argc) {
          *error = std::string("-") + arg[k] + " needs a value";
          return false;
        }
        value = argv[++i];
      }
      if (!def->apply(*options, value, error)) return false;
      break;
    }
  }
  return true;
}

const char* ToolHelp() {
  return R"(ndmpc - talk to an NDMP server (filer or tape server) from the command line

Usage: ndmpc [OPTIONS] COMMAND [ARGS...]

Commands:
  info                          server, host, backup types, file systems, devices
  tape state DEVICE             position and capacity of a tape drive
  tape write DEVICE FILE        write FILE (- for stdin) to tape, then a filemark
  tape read DEVICE FILE         read one tape file into FILE (- for stdout)
  tape mtio DEVICE OP [COUNT]   fsf, bsf, fsr, bsr, rewind, eof, offline, tur
  scsi DEVICE                   open a SCSI device (changer), show its state, close
  mover state | data state      state of the mover or of the data agent
  send MESSAGE [FIELD=VALUE...] send any request of the catalogue, show the reply
  messages [MESSAGE]            list the messages ndmpc can send, or one's fields
  watch [SECONDS]               print notifications and log posts as they arrive
  backup FILESYSTEM --tape DEV  back FILESYSTEM up to a tape (two- or three-way)
  restore --tape DEV --to DIR [PATH...]  restore an image, or some paths of it
  index FILE list|ls|find       browse and search the backups of an index
  serve                         run the simulated NDMP server
  demo                          start a simulated server and try ndmpc against it

Options for every command:
  -H, --host HOST        server to talk to (default localhost; env NDMP_HOST)
  -p, --port PORT        NDMP port (default 10000; env NDMP_PORT)
  -u, --user USER        user to authenticate as (env NDMP_USER)
      --password PASS    password (env NDMP_PASSWORD, which keeps it out of `ps`)
      --protocol 3|4     use this NDMP version only (default: offer 4, then 3)
      --timeout SECONDS  wait this long for each reply (default 30)
  -v, --verbose          more log output on stderr; repeat for more (-vvv: debug)
      --trace            log every packet in full (log level 7)
      --log-file FILE    write the log to FILE instead of stderr
      --json             machine-readable output on stdout
  -h, --help             help; `ndmpc COMMAND --help` for a command's own
      --version          the tool's version

Without --user, ndmpc tries to log in without credentials and goes on with a
warning when the server refuses.

Exit status:
  0  success
  1  other failure (a local file, a reply that never came, ...)
  2  bad usage
  3  cannot connect, or the connection was lost
  4  authentication failed
  5  the server answered with an NDMP error (its name is printed)

Examples:
  ndmpc -H filer1 -u ndmp --password secret info
  NDMP_HOST=filer1 NDMP_USER=ndmp NDMP_PASSWORD=secret ndmpc --json info
  ndmpc -H filer1 -u ndmp tape write nrst0a backup.img --record-size 256K
  ndmpc -H filer1 -u ndmp send NDMP_TAPE_OPEN Device=nrst0a Mode=NDMP_TAPE_READ_MODE
  ndmpc -H filer1 -u ndmp backup /vol0 --tape nrst0a --type dump
  ndmpc demo
)";
}

const char* CommandHelp(const std::string& command) {
  if (command == "info") {
    return R"(Usage: ndmpc [OPTIONS] info

Connects, authenticates and asks the server everything its config interface
tells: server (vendor, product, revision, authentication types), host (name,
OS, version, id), connection types, backup types with their default
environment, file systems with sizes, tape and SCSI devices with their
capabilities, and extension classes. A query the server refuses is shown with
its NDMP error; that is not a failure of the command. A server that ignores
NDMP_CONFIG_GET_EXT_LIST costs a few seconds, not the whole --timeout.

Examples:
  ndmpc -H filer1 -u ndmp --password secret info
  ndmpc -H filer1 -u ndmp --json info | jq .server
)";
  }
  if (command == "tape") {
    return R"(Usage: ndmpc [OPTIONS] tape state DEVICE
       ndmpc [OPTIONS] tape write DEVICE FILE [--record-size N] [--file N] [--no-rewind]
       ndmpc [OPTIONS] tape read DEVICE FILE [--record-size N] [--file N] [--no-rewind]
       ndmpc [OPTIONS] tape mtio DEVICE OP [COUNT]

state   opens DEVICE read-only and shows file and block number, block size,
        total and remaining space.
write   writes FILE (- for standard input) as records of --record-size bytes
        (default 64K; the last one may be shorter), then one filemark.
read    reads records into FILE (- for standard output) until a filemark or
        the end of the recorded data. Each read asks for --record-size bytes
        (default 64K): a longer record is cut short, as on a real drive, so
        use at least the writer's record size.
        Both rewind first, unless --no-rewind; --file N then skips N filemarks.
mtio    one tape motion: fsf, bsf, fsr, bsr (COUNT files or records), rewind,
        eof (write COUNT filemarks), offline, tur (test unit ready). Prints
        the residual count when the motion stopped early.

On a terminal, write and read show a progress bar on stderr; a one-line
summary is printed either way.

Examples:
  ndmpc -H filer1 -u ndmp tape write nrst0a /backups/home.dump --record-size 256K
  ndmpc -H filer1 -u ndmp tape read nrst0a restored.dump --record-size 256K
  ndmpc -H filer1 -u ndmp tape mtio nrst0a fsf 2
  ndmpc -H filer1 -u ndmp --json tape state nrst0a
)";
  }
  if (command == "scsi") {
    return R"(Usage: ndmpc [OPTIONS] scsi DEVICE

Opens the SCSI device (typically a media changer), shows its target
(controller, id, lun) and closes it.

Example:
  ndmpc -H filer1 -u ndmp scsi mc0
)";
  }
  if (command == "mover" || command == "data") {
    return R"(Usage: ndmpc [OPTIONS] mover state
       ndmpc [OPTIONS] data state

Shows the state of the server's mover or data agent (state, mode, halt and
pause reasons, byte counts, connection address).

Example:
  ndmpc -H filer1 -u ndmp --json mover state
)";
  }
  if (command == "send") {
    return R"(Usage: ndmpc [OPTIONS] send MESSAGE [FIELD=VALUE ...]

Builds any request of the catalogue (extensions included) by its NDMP name,
sends it and prints the reply (its dump, or JSON with --json). MESSAGE is
the name (any case, NDMP_ may be left out) or the code. `ndmpc messages
MESSAGE` lists a request's fields.

Fields are named as the dump shows them:
  Device=tape0                          strings as they are
  Count=65536   Count=0x10000           numbers, decimal or hex
  Mode=NDMP_TAPE_RDWR_MODE  Mode=rdwr   enumerations by name, unique part, or number
  DataOut=0x0a0b0c  DataOut=hex:0a0b0c  opaque bytes (or text:abc)
  Offset=1099511627776                  64-bit numbers
  Address.AddressType=NDMP_ADDR_TCP     fields of nested records (a union's
                                        fields follow its type: set that first)
  Address.TcpAddress[0].IPAddress=10.0.0.5  IPv4 addresses in dotted form
  Environments=HIST=y                   name/value lists: repeat to add pairs
  Env[0].Name=HIST Env[0].Value=y       elements by index; Field[] appends
  AuthenticationTypes=md5               lists of plain values: repeat to add

A reply whose error field is not NDMP_NO_ERR, or an error in place of a
reply, ends with exit status 5 and the error's name. A notification (no
reply expected) is only sent.

Examples:
  ndmpc send NDMP_CONFIG_GET_HOST_INFO
  ndmpc -u ndmp send NDMP_TAPE_OPEN Device=tape0 Mode=NDMP_TAPE_RDWR_MODE
  ndmpc -u ndmp --json send config_get_fs_info
)";
  }
  if (command == "messages") {
    return R"(Usage: ndmpc messages [MESSAGE]

Without an argument, lists every message ndmpc can build, with its code.
With one, lists the fields of that request (for `ndmpc send`), as encoded
under --protocol (default 4). Needs no server.

Examples:
  ndmpc messages
  ndmpc messages NDMP_DATA_START_BACKUP
  ndmpc --protocol 3 messages NDMP_MOVER_CONNECT
)";
  }
  if (command == "watch") {
    return R"(Usage: ndmpc [OPTIONS] watch [SECONDS]

Stays connected and prints every notification and log message the server
sends (NDMP_NOTIFY_*, NDMP_LOG_*, file history, extension posts) as it
arrives, until Ctrl-C or for SECONDS. With --json, one JSON object per line.

Example:
  ndmpc -H filer1 -u ndmp watch 600
)";
  }
  if (command == "backup") {
    return R"(Usage: ndmpc [OPTIONS] backup FILESYSTEM --tape DEVICE [--type tar|dump]
                   [--env NAME=VALUE]... [--record-size N] [--file N] [--no-rewind]
                   [--tape-host HOST[:PORT] [--tape-user U --tape-password P]]

Backs FILESYSTEM of the -H server's data agent up to tape DEVICE. Without
--tape-host the server's own mover writes the tape (two-way); with it, the
mover of the tape server HOST does (three-way), logged in with the same
credentials unless --tape-user/--tape-password are given. The environment
holds FILESYSTEM and HIST=y (file history is counted as files) unless --env
sets them. On a terminal a progress bar shows bytes, rate and files; then one
summary line, or with --json the outcome, bytes, files, duration, halt
reasons and the data agent's environment (keep it for the restore).
With --index FILE the backup and its file history are recorded in the index
FILE (created when missing; see ndmpc index --help), for browsing and for
restoring single files from it.
The tape is rewound first unless --no-rewind; --file N writes after N
filemarks. Ctrl-C aborts the job (both agents are aborted, the tape is closed).

Examples:
  ndmpc -H filer1 -u ndmp backup /vol0 --tape nrst0a
  ndmpc -H filer1 -u ndmp backup /vol0 --tape nrst0a --tape-host tapesrv --type dump
  ndmpc -H filer1 -u ndmp backup /vol0 --tape nrst0a --index backups.db
)";
  }
  if (command == "restore") {
    return R"(Usage: ndmpc [OPTIONS] restore --tape DEVICE --to DIR [PATH...] [--type tar|dump]
                   [--env NAME=VALUE]... [--record-size N] [--file N] [--no-rewind]
                   [--tape-host HOST[:PORT] [--tape-user U --tape-password P]]

Restores the image on tape DEVICE into DIR on the -H server's data agent:
all of it, or only the files and directories PATH (named relative to the
backed-up FILESYSTEM: /alice/a.txt of a backup of /home), each to DIR/PATH. Give the --type and --env
of the backup. The tape is rewound first unless --no-rewind; --file N reads
the image after N filemarks. The tape agent is chosen as for backup.

Examples:
  ndmpc -H filer1 -u ndmp restore --tape nrst0a --to /restored
  ndmpc -H filer1 -u ndmp restore --tape nrst0a --to /restored /alice/a.txt /bob
  ndmpc -H filer1 -u ndmp restore --index backups.db --backup 3 /alice/a.txt (see index --help)
)";
  }
  if (command == "index") {
    return R"(Usage: ndmpc index FILE list
       ndmpc index FILE ls BACKUP [PATH]
       ndmpc index FILE find PATTERN
       ndmpc [OPTIONS] backup FILESYSTEM --tape DEVICE --index FILE ...
       ndmpc [OPTIONS] restore --index FILE --backup ID PATH... [--to DIR] [--tape DEVICE]

A backup index is an SQLite file that `ndmpc backup --index FILE` fills: one
record per backup (start time, server, file system, type, environment, tape
and position, outcome, bytes, files) and every entry of its file history
(path, type, size, mode, owner, modification time, position in the image).
A backup is "incomplete" until it ends; one whose ndmpc was killed stays so.

list          the backups, oldest first
ls            the entries of directory PATH (default /) of backup BACKUP, or
              the entry of file PATH, as `ls -l` shows them (times in UTC)
find          the entries of every backup that match the glob PATTERN: the
              name when PATTERN has no '/' ('*.odt'), else the whole path
              ('/home/*/report.odt')

restore --index restores the files and directories PATH of backup ID, each
read directly at its position in the image: tape, backup type, tape file and
environment come from the index (--tape and --env override them). They are
restored to where they were (the backup's FILESYSTEM), or under --to DIR.
Only a backup that succeeded can be restored from.

All take --json. A missing or damaged index, an unknown backup or path end
with exit status 1 and nothing restored.

Examples:
  ndmpc -H filer1 -u ndmp backup /home --tape nrst0a --index backups.db
  ndmpc index backups.db find 'report*.odt'
  ndmpc index backups.db ls 3 /ann
  ndmpc -H filer1 -u ndmp restore --index backups.db --backup 3 /ann/report.odt --to /tmp/r
)";
  }
  if (command == "serve") {
    return R"(Usage: ndmpc serve [--listen ADDR] [-p PORT] [--tape-dir DIR]
                   [--user USER --password PASS] [--auth md5,text,none]
                   [--versions 3,4] [--max-record BYTES] [--tape-capacity BYTES]
                   [--data-root DIR]

Runs the simulated NDMP server until Ctrl-C (or SIGTERM). It negotiates
NDMP versions 3 and 4, authenticates, answers the config queries, keeps
virtual tapes as files in the tape directory (a device name is a file name
there; opening a new name for writing creates a blank tape), simulates one
SCSI changer ("changer0"), and runs a mover that streams a data connection
to and from the open tape. With --data-root its data agent backs up ("tar",
"dump") and restores the directories under DIR. Everything else is answered
with NDMP_NOT_SUPPORTED_ERR.

  --listen ADDR       address to listen on (default 127.0.0.1; 0.0.0.0 for all)
  -p, --port PORT     port (default 10000; 0 picks a free one)
  --tape-dir DIR      directory of the virtual tapes (default ./ndmp-tapes)
  --user, --password  the credentials clients must give
  --auth LIST         accepted methods (default md5,text with --user, else none)
  --versions LIST     NDMP versions offered (default 3,4)
  --max-record BYTES  largest tape record (default 1M)
  --tape-capacity BYTES  capacity of tapes created from now on (default 1G;
                      --capacity is the same)
  --data-root DIR     the data agent's file system: FILESYSTEM /x/y is DIR/x/y

Example:
  ndmpc serve -p 10000 --tape-dir /tmp/tapes --user ndmp --password secret
)";
  }
  if (command == "demo") {
    return R"(Usage: ndmpc demo

Starts the simulated server on a free loopback port with a temporary tape
directory, runs `info` against it, writes a file to a virtual tape, reads it
back and compares the bytes, then backs up a small tree of the server's data
directory to another tape, restores it elsewhere and compares the two trees,
printing each step. Needs nothing else.
)";
  }
  return nullptr;
}

}  // namespace com::vx::korvane::ndmpc::tools
