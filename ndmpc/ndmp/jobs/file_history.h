// File history of a backup, as the data agent posts it: the entries of
// NDMP_FH_ADD_FILE (path-based), NDMP_FH_ADD_DIR and NDMP_FH_ADD_NODE
// (node-based), decoded one by one and handed to an application sink.
//
//   class CCatalog : public CINDMPFileHistorySink {
//     void AddFile(const CNDMPHistoryFile& f) override { db.Insert(f.path,
//     f.fhInfo); }
//   };
//
// Nothing is kept: each entry reaches the sink while its post is decoded, on
// the dispatch thread of the data agent's connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "ndmpc/ndmp/connection/callbacks.h"

namespace com::vx::korvane::ndmpc {

// The stat fields NDMP carries for one file (times in seconds since 1970).
struct CNDMPHistoryStat {
  unsigned int fileType = 0;  // an enums::CNDMPEnumFileType value (NDMP_FILE_DIR ...)
  unsigned int mtime = 0, atime = 0, ctime = 0;
  unsigned int owner = 0, group = 0;
  unsigned int fsAttributes = 0;
  std::uint64_t size = 0;
  unsigned int links = 0;
};

// Path-based entry (NDMP_FH_ADD_FILE): the UNIX name, or the first name.
struct CNDMPHistoryFile {
  std::string path;
  CNDMPHistoryStat stat;
  std::uint64_t node = 0;
  std::uint64_t fhInfo = 0;  // where the file starts in the image, as the agent reports it
};

// Node-based directory entry (NDMP_FH_ADD_DIR): `name` inside directory
// `parent`.
struct CNDMPHistoryDir {
  std::string name;
  std::uint64_t node = 0;
  std::uint64_t parent = 0;
};

// Node-based node entry (NDMP_FH_ADD_NODE).
struct CNDMPHistoryNode {
  CNDMPHistoryStat stat;
  std::uint64_t node = 0;
  std::uint64_t fhInfo = 0;
};

// Receives the entries; each operation defaults to ignoring its entry.
class CINDMPFileHistorySink {
 public:
  virtual ~CINDMPFileHistorySink() = default;
  virtual void AddFile(const CNDMPHistoryFile& /*entry*/) {}
  virtual void AddDir(const CNDMPHistoryDir& /*entry*/) {}
  virtual void AddNode(const CNDMPHistoryNode& /*entry*/) {}
};

// The callback that decodes the three file-history posts into a sink;
// register it (without a code filter) on the data agent's connection.
class CNDMPFileHistoryHandler : public CINDMPCallback {
 public:
  explicit CNDMPFileHistoryHandler(CINDMPFileHistorySink& sink) : sink_(sink) {}
  // Always 0; packets other than the three posts are ignored.
  unsigned int HandleMessagePacket(CNDMPMessagePacket& packet) override;
  // Entries delivered so far (files + nodes); read from any thread.
  std::uint64_t Entries() const { return entries_.load(); }

 private:
  CINDMPFileHistorySink& sink_;
  std::atomic<std::uint64_t> entries_{0};
};

}  // namespace com::vx::korvane::ndmpc
