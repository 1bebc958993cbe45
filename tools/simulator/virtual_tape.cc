#include "tools/simulator/virtual_tape.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace com::vx::korvane::ndmpc::tools {
namespace {

// File layout: "NDMPC VTAPE\0" and a version word, then entries of
// [kind word][length word][length data bytes], all words big-endian.
constexpr char kMagic[12] = {'N', 'D', 'M', 'P', 'C', ' ', 'V', 'T', 'A', 'P', 'E', '\0'};
constexpr std::uint32_t kVersion = 1;
constexpr std::uint64_t kFileHeaderSize = 16;
constexpr std::uint32_t kEntryHeaderSize = 8;
constexpr std::uint32_t kRecordKind = 0x52454344;    // "RECD"
constexpr std::uint32_t kFilemarkKind = 0x464D524B;  // "FMRK"

void PutWord(unsigned char* p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

std::uint32_t GetWord(const unsigned char* p) {
  return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
         (static_cast<std::uint32_t>(p[2]) << 8) | p[3];
}

bool ReadAt(int fd, void* buffer, std::size_t length, std::uint64_t offset) {
  auto* out = static_cast<unsigned char*>(buffer);
  std::size_t done = 0;
  while (done < length) {
    ssize_t n = ::pread(fd, out + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool WriteAt(int fd, const void* buffer, std::size_t length, std::uint64_t offset) {
  const auto* in = static_cast<const unsigned char*>(buffer);
  std::size_t done = 0;
  while (done < length) {
    ssize_t n = ::pwrite(fd, in + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool HasMagic(int fd) {
  unsigned char header[kFileHeaderSize];
  return ReadAt(fd, header, sizeof(header), 0) && std::memcmp(header, kMagic, sizeof(kMagic)) == 0;
}

}  // namespace

bool CVirtualTape::LooksLikeTape(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool tape = HasMagic(fd);
  ::close(fd);
  return tape;
}

std::unique_ptr<CVirtualTape> CVirtualTape::Open(const std::string& path, bool create,
                                                 std::uint64_t capacity, std::string* error) {
  bool writable = true;
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0644);
  if (fd < 0 && (errno == EACCES || errno == EROFS)) {
    // A tape file we may not write is a write-protected cartridge.
    writable = false;
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  }
  if (fd < 0) {
    *error = path + ": " + std::strerror(errno);
    return nullptr;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    *error = path + ": not a regular file";
    return nullptr;
  }
  std::unique_ptr<CVirtualTape> tape(new CVirtualTape(fd, writable, capacity));
  if (info.st_size == 0) {
    unsigned char header[kFileHeaderSize] = {0};
    std::memcpy(header, kMagic, sizeof(kMagic));
    PutWord(header + sizeof(kMagic), kVersion);
    if (!writable || !WriteAt(fd, header, sizeof(header), 0)) {
      *error = path + ": cannot initialise the tape file";
      return nullptr;
    }
    return tape;
  }
  if (!tape->Load(error)) return nullptr;
  return tape;
}

CVirtualTape::CVirtualTape(int fd, bool writable, std::uint64_t capacity)
    : fd_(fd), writable_(writable), capacity_(capacity) {}

CVirtualTape::~CVirtualTape() {
  if (fd_ >= 0) ::close(fd_);
}

bool CVirtualTape::Load(std::string* error) {
  if (!HasMagic(fd_)) {
    *error = "not a tape file (bad header)";
    return false;
  }
  struct stat info {};
  ::fstat(fd_, &info);
  const auto size = static_cast<std::uint64_t>(info.st_size);
  std::uint64_t offset = kFileHeaderSize;
  while (offset + kEntryHeaderSize <= size) {
    unsigned char header[kEntryHeaderSize];
    if (!ReadAt(fd_, header, sizeof(header), offset)) break;
    const std::uint32_t kind = GetWord(header);
    const std::uint32_t length = GetWord(header + 4);
    if (kind == kFilemarkKind && length == 0) {
      entries_.push_back(CEntry{true, offset, 0});
    } else if (kind == kRecordKind && offset + kEntryHeaderSize + length <= size) {
      entries_.push_back(CEntry{false, offset, length});
      dataBytes_ += length;
    } else {
      // A torn last write: the tape ends with the last whole entry, and the
      // next write at the end replaces the remains.
      break;
    }
    offset += kEntryHeaderSize + length;
  }
  tailDirty_ = offset != size;
  return true;
}

std::uint64_t CVirtualTape::EndOffset() const {
  if (entries_.empty()) return kFileHeaderSize;
  const CEntry& last = entries_.back();
  return last.offset + kEntryHeaderSize + last.length;
}

bool CVirtualTape::TruncateAtPosition() {
  if (position_ == entries_.size() && !tailDirty_) return true;
  tailDirty_ = false;
  for (std::size_t i = position_; i < entries_.size(); ++i) dataBytes_ -= entries_[i].length;
  entries_.resize(position_);
  return ::ftruncate(fd_, static_cast<off_t>(EndOffset())) == 0;
}

bool CVirtualTape::AppendEntry(bool filemark, const void* data, std::uint32_t length) {
  const std::uint64_t offset = EndOffset();
  unsigned char header[kEntryHeaderSize];
  PutWord(header, filemark ? kFilemarkKind : kRecordKind);
  PutWord(header + 4, length);
  if (!WriteAt(fd_, header, sizeof(header), offset)) return false;
  if (length != 0 && !WriteAt(fd_, data, length, offset + kEntryHeaderSize)) return false;
  entries_.push_back(CEntry{filemark, offset, length});
  dataBytes_ += length;
  position_ = entries_.size();
  return true;
}

CVirtualTape::Status CVirtualTape::WriteRecord(const void* data, std::uint32_t length) {
  if (!writable_) return Status::kWriteProtected;
  if (!TruncateAtPosition()) return Status::kIoError;
  if (dataBytes_ + length > capacity_) return Status::kEndOfMedium;
  return AppendEntry(false, data, length) ? Status::kOk : Status::kIoError;
}

CVirtualTape::Status CVirtualTape::WriteFilemarks(std::uint32_t count, std::uint32_t* written) {
  *written = 0;
  if (!writable_) return Status::kWriteProtected;
  if (!TruncateAtPosition()) return Status::kIoError;
  for (; *written < count; ++*written) {
    if (!AppendEntry(true, nullptr, 0)) return Status::kIoError;
  }
  return Status::kOk;
}

CVirtualTape::Status CVirtualTape::ReadRecord(std::uint32_t count,
                                              std::vector<unsigned char>* data) {
  data->clear();
  if (position_ >= entries_.size()) return Status::kEndOfData;
  const CEntry& entry = entries_[position_++];
  if (entry.filemark) return Status::kFilemark;
  const std::uint32_t n = entry.length < count ? entry.length : count;
  data->resize(n);
  if (n != 0 && !ReadAt(fd_, data->data(), n, entry.offset + kEntryHeaderSize)) {
    data->clear();
    return Status::kIoError;
  }
  return Status::kOk;
}

CVirtualTape::Status CVirtualTape::SpaceFilemarks(bool forward, std::uint32_t count,
                                                  std::uint32_t* resid) {
  *resid = count;
  while (*resid != 0) {
    if (forward) {
      while (position_ < entries_.size() && !entries_[position_].filemark) ++position_;
      if (position_ >= entries_.size()) return Status::kEndOfData;
      ++position_;  // past the mark
    } else {
      while (position_ > 0 && !entries_[position_ - 1].filemark) --position_;
      if (position_ == 0) return Status::kBeginning;
      --position_;  // in front of the mark
    }
    --*resid;
  }
  return Status::kOk;
}

CVirtualTape::Status CVirtualTape::SpaceRecords(bool forward, std::uint32_t count,
                                                std::uint32_t* resid) {
  *resid = count;
  while (*resid != 0) {
    if (forward) {
      if (position_ >= entries_.size()) return Status::kEndOfData;
      if (entries_[position_].filemark) return Status::kFilemark;
      ++position_;
    } else {
      if (position_ == 0) return Status::kBeginning;
      if (entries_[position_ - 1].filemark) return Status::kFilemark;
      --position_;
    }
    --*resid;
  }
  return Status::kOk;
}

std::uint32_t CVirtualTape::FileNumber() const {
  std::uint32_t marks = 0;
  for (std::size_t i = 0; i < position_; ++i) marks += entries_[i].filemark ? 1 : 0;
  return marks;
}

std::uint32_t CVirtualTape::BlockNumber() const {
  std::uint32_t blocks = 0;
  for (std::size_t i = position_; i > 0 && !entries_[i - 1].filemark; --i) ++blocks;
  return blocks;
}

}  // namespace com::vx::korvane::ndmpc::tools
