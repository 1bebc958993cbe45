// CVirtualTape: a tape cartridge kept in one ordinary file, for the
// simulated NDMP server. The file holds a small header and then one entry
// per tape record or filemark, each behind an 8-byte header, so the tape
// (records of any size, filemarks, their order) survives a server restart.
//
//   std::string error;
//   auto tape = CVirtualTape::Open("/srv/tapes/tape0", true, 1 << 30, &error);
//   tape->WriteRecord(data, size);       // at the current position
//   tape->WriteFilemarks(1, &done);
//   tape->Rewind();
//   tape->ReadRecord(65536, &bytes);     // kFilemark once it passes the mark
//
// The position is an entry index: reading or spacing moves it, writing at a
// position discards everything after it, as on a real drive. Not thread-safe:
// one client has a tape at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace com::vx::korvane::ndmpc::tools {

class CVirtualTape {
 public:
  enum class Status {
    kOk,
    kFilemark,        // a filemark was crossed (read, fsr/bsr stopped at it)
    kEndOfData,       // nothing recorded beyond the position
    kBeginning,       // spacing backwards reached the beginning of the tape
    kEndOfMedium,     // the write does not fit into the capacity
    kWriteProtected,  // the tape file cannot be written
    kIoError,
  };

  // Opens (with `create`, creates) the tape file at `path`. Null with
  // `*error` set when the file cannot be opened or is not a tape.
  static std::unique_ptr<CVirtualTape> Open(const std::string& path, bool create,
                                            std::uint64_t capacity, std::string* error);
  // True when `path` names a file that starts like a tape file.
  static bool LooksLikeTape(const std::string& path);

  CVirtualTape(const CVirtualTape&) = delete;
  CVirtualTape& operator=(const CVirtualTape&) = delete;
  ~CVirtualTape();

  // Writes one record of `length` bytes at the position, discarding the
  // rest of the tape.
  Status WriteRecord(const void* data, std::uint32_t length);
  // Writes `count` filemarks at the position; `*written` says how many.
  Status WriteFilemarks(std::uint32_t count, std::uint32_t* written);
  // Reads the record at the position: at most `count` bytes of it (the rest
  // of a longer record is lost, as on a drive). At a filemark: kFilemark,
  // positioned after it. At the end: kEndOfData.
  Status ReadRecord(std::uint32_t count, std::vector<unsigned char>* data);
  // Spaces over `count` filemarks; forward ends after the last one crossed,
  // backward before it. `*resid` = the count not done.
  Status SpaceFilemarks(bool forward, std::uint32_t count, std::uint32_t* resid);
  // Spaces over `count` records, stopping (kFilemark) in front of a filemark.
  Status SpaceRecords(bool forward, std::uint32_t count, std::uint32_t* resid);
  void Rewind() { position_ = 0; }

  // Filemarks before the position, and records since the last of them.
  std::uint32_t FileNumber() const;
  std::uint32_t BlockNumber() const;
  std::uint64_t Capacity() const { return capacity_; }
  std::uint64_t DataBytes() const { return dataBytes_; }
  std::uint64_t Remaining() const { return dataBytes_ >= capacity_ ? 0 : capacity_ - dataBytes_; }
  bool IsWritable() const { return writable_; }
  std::size_t EntryCount() const { return entries_.size(); }

 private:
  struct CEntry {
    bool filemark;
    std::uint64_t offset;  // of the entry's header in the file
    std::uint32_t length;  // data bytes (0 for a filemark)
  };

  CVirtualTape(int fd, bool writable, std::uint64_t capacity);
  bool Load(std::string* error);
  // Drops the entries from the position on, in memory and in the file.
  bool TruncateAtPosition();
  bool AppendEntry(bool filemark, const void* data, std::uint32_t length);
  std::uint64_t EndOffset() const;

  int fd_;
  bool writable_;
  std::uint64_t capacity_;
  std::vector<CEntry> entries_;
  std::size_t position_ = 0;
  std::uint64_t dataBytes_ = 0;
  bool tailDirty_ = false;  // the file holds bytes after the last whole entry
};

}  // namespace com::vx::korvane::ndmpc::tools
