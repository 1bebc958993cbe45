// The simulated server's data engine: writes a directory tree as a POSIX
// ustar archive (with pax extended headers where ustar's fields fall short),
// reports file history while it does, and restores a whole image or chosen
// files and directory subtrees from one. Plain C++ with callbacks for the
// image bytes, history and log, so the NDMP data agent drives it from its
// worker thread and tests drive it alone.
//
//   CSimBackupJob job;
//   job.hostRoot = "/srv/data/home";
//   job.write = [&](const void* p, std::size_t n) { return Send(p, n); };
//   CSimHaltReason how = RunBackup(job);
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace com::vx::korvane::ndmpc::tools {

// One file or directory the backup wrote, for file history.
struct CSimFileEntry {
  enum class Type { kDir, kFile, kSymlink, kOther };
  std::string path;          // "/a/b.txt" relative to the backed-up root; the root is "/"
  std::string name;          // last component of path; "." for the root
  std::uint64_t node = 0;    // inode number on the data agent's file system
  std::uint64_t parent = 0;  // parent's node; the root's parent is its own node
  Type type = Type::kFile;
  std::uint32_t mode = 0;    // permission bits (07777)
  std::uint32_t uid = 0, gid = 0;
  std::uint64_t size = 0;
  std::int64_t mtime = 0, atime = 0, ctime = 0;
  std::uint32_t links = 1;
  std::uint64_t fhInfo = 0;  // byte offset of this entry's first header (pax or ustar) in the image
};

enum class CSimHaltReason { kSuccessful, kAborted, kConnectError, kInternalError };

// Maps an NDMP path ("/x/y", absolute, as in FILESYSTEM or a restore destination) to a
// host path under `dataRoot`. False (and *error) when it leaves the root: "..", or a symbolic
// link on the way that points outside the root. `mustExist` for backup roots.
bool ResolveUnderRoot(const std::string& dataRoot, const std::string& ndmpPath, bool mustExist,
                      std::string* hostPath, std::string* error);

struct CSimBackupJob {
  std::string hostRoot;       // resolved host directory (or file) to back up
  bool history = false;       // HIST=y
  bool nodeHistory = false;   // "dump" type: dir entries + nodes; "tar" type: path-based files
  std::size_t historyBatch = 1000;  // entries per history callback
  // Image bytes for the data connection; false = the connection failed.
  std::function<bool(const void* data, std::size_t length)> write;
  // History batches (only when history): files (tar), or dirs + nodes (dump). A directory's
  // entries may be reported before or after the directory's own node.
  std::function<void(const std::vector<CSimFileEntry>&)> files, dirs, nodes;
  // level 0 normal, 1 warning (e.g. an unreadable file skipped), 2 error.
  std::function<void(int level, const std::string& text)> log;
  const std::atomic<bool>* abort = nullptr;  // another thread sets it to stop (kAborted)
  std::atomic<std::uint64_t>* bytes = nullptr;  // live count of image bytes written
};
// Writes the tree as a POSIX ustar archive (pax extended headers for long names, large sizes,
// non-ASCII names, mtimes), regular files, directories, symbolic links; unreadable files are
// logged and skipped. Returns how it ended. Runs on the caller's thread (the data agent's
// worker thread).
CSimHaltReason RunBackup(CSimBackupJob& job);

struct CSimRecoverItem {
  std::string original;     // path in the image: "/" = everything, "/a" a directory subtree, "/a/b" a file
  std::string hostDestination;  // resolved host path it is restored to (the item itself, not its parent)
  std::uint64_t fhInfo = ~0ull; // image offset of the item's header, or ~0 when unknown
};
struct CSimRecoverJob {
  std::vector<CSimRecoverItem> items;
  bool historyOnly = false;  // NDMP_DATA_START_RECOVER_FILEHIST: read and report, write nothing
  bool nodeHistory = false;  // shape of history for historyOnly
  std::size_t historyBatch = 1000;
  // Asks for image bytes [offset, offset+length) (length ~0 = to the end). The agent turns
  // this into NDMP_NOTIFY_DATA_READ. The engine reads ALL bytes of a bounded request before
  // it makes the next request; a to-the-end request is the last one it makes.
  std::function<bool(std::uint64_t offset, std::uint64_t length)> request;
  // Reads up to `length` bytes of the requested data: >0 bytes read, 0 the connection closed,
  // <0 an error.
  std::function<long(void* buffer, std::size_t length)> read;
  std::function<void(const std::vector<CSimFileEntry>&)> files, dirs, nodes;
  std::function<void(int level, const std::string& text)> log;
  const std::atomic<bool>* abort = nullptr;
  std::atomic<std::uint64_t>* bytes = nullptr;
};
// Restores the items: when every item has a known fhInfo it requests only the parts it needs
// (direct access, in offset order); otherwise one request (0, ~0) and a pass over the image
// until its end-of-archive blocks. Existing files are overwritten; modes and modification
// times restored (directories' times after their contents). A whole restore of "/" recreates
// the tree under the item's destination.
CSimHaltReason RunRecover(CSimRecoverJob& job);

// File history waiting to be handed on in batches (used by both directions).
struct CSimHistoryBuffer {
  using Sink = std::function<void(const std::vector<CSimFileEntry>&)>;
  std::vector<CSimFileEntry> files, dirs, nodes;
  // Hands each list holding `batch` entries or more (any entries when `all`) to its sink, then
  // empties it.
  void Send(std::size_t batch, bool all, const Sink& filesSink, const Sink& dirsSink,
            const Sink& nodesSink);
};

}  // namespace com::vx::korvane::ndmpc::tools
