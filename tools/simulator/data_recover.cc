// The recover side of the data engine: reads a tar image through the data
// agent's read requests and restores chosen parts of it, or reports its
// contents as file history. Files are written through directory descriptors
// opened without following symbolic links, so nothing in the image (names
// with "..", absolute names, links planted on the way) can reach outside an
// item's destination.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "tools/simulator/data_engine.h"
#include "tools/simulator/tar_image.h"

namespace com::vx::korvane::ndmpc::tools {

namespace {

constexpr std::uint64_t kToEnd = ~0ull;
constexpr std::size_t kChunk = 64 * 1024;

// "./a//b/" -> "/a/b"; false for names with a ".." component.
bool ImagePath(const std::string& name, std::string* path, bool* wasAbsolute) {
  path->clear();
  *wasAbsolute = !name.empty() && name[0] == '/';
  for (std::size_t at = 0; at <= name.size();) {
    std::size_t slash = std::min(name.find('/', at), name.size());
    std::string part = name.substr(at, slash - at);
    if (part == "..") return false;
    if (!part.empty() && part != ".") *path += "/" + part;
    at = slash + 1;
  }
  if (path->empty()) *path = "/";
  return true;
}

bool Under(const std::string& path, const std::string& item) {
  return item == "/" || path == item ||
         (path.size() > item.size() && path.compare(0, item.size(), item) == 0 &&
          path[item.size()] == '/');
}

CSimFileEntry::Type TypeOf(char type) {
  switch (type) {
    case '5':
      return CSimFileEntry::Type::kDir;
    case '0':
    case '1':
      return CSimFileEntry::Type::kFile;
    case '2':
      return CSimFileEntry::Type::kSymlink;
    default:
      return CSimFileEntry::Type::kOther;
  }
}

std::string Dirname(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// The image as the data agent delivers it. In direct mode every read that
// finds no outstanding bytes asks for what it needs; within a directory
// (HeaderAhead) also for the header block that follows, which is read next
// anyway, so that each entry costs one request instead of two. After
// ToEnd() (or in a sequential pass) it reads on from one open-ended
// request. Bytes asked for are always read, also when a seek leaves them
// behind: the data connection carries nothing else.
class CSource {
 public:
  explicit CSource(CSimRecoverJob& job) : job_(job) {}

  bool Request(std::uint64_t offset, std::uint64_t length) {
    if (Stopped()) return false;
    offset_ = offset;
    left_ = length;
    if (!job_.request || !job_.request(offset, length)) {
      Fail(CSimHaltReason::kConnectError,
           "the request for image bytes at " + std::to_string(offset) + " failed");
      return false;
    }
    return true;
  }
  // Moves to `offset`: forward through the outstanding bytes, or after
  // draining them.
  bool Seek(std::uint64_t offset) {
    if (left_ != 0 && offset >= offset_ && (left_ == kToEnd || offset - offset_ <= left_)) {
      return Skip(offset - offset_);
    }
    if (left_ == kToEnd) {
      Fail(CSimHaltReason::kInternalError, "cannot seek back while reading to the end");
      return false;
    }
    if (left_ != 0 && !Skip(left_)) return false;
    offset_ = offset;
    return true;
  }
  // From the outstanding bytes on, reads to the end of the image.
  bool ToEnd() {
    toEnd_ = true;
    return left_ != 0 || Request(offset_, kToEnd);
  }
  void HeaderAhead(bool on) { headerAhead_ = on; }
  // Asks for the next `length` bytes (or more) when nothing is outstanding.
  bool Want(std::uint64_t length) {
    if (left_ != 0 || length == 0) return true;
    return Request(offset_, toEnd_ ? kToEnd : length + (headerAhead_ ? kTarBlockSize : 0));
  }
  bool ReadExact(void* buffer, std::size_t length) {
    char* out = static_cast<char*>(buffer);
    while (length > 0) {
      if (Stopped() || !Want(length)) return false;
      const std::size_t part = left_ == kToEnd ? length
                                               : static_cast<std::size_t>(
                                                     std::min<std::uint64_t>(length, left_));
      long got = job_.read ? job_.read(out, part) : -1;
      if (got <= 0) {
        Fail(CSimHaltReason::kConnectError, std::string("the image ") +
                                                (got == 0 ? "ended" : "could not be read") +
                                                " at byte " + std::to_string(offset_));
        return false;
      }
      std::size_t n = std::min(static_cast<std::size_t>(got), part);
      out += n;
      length -= n;
      offset_ += n;
      if (left_ != kToEnd) left_ -= n;
      if (job_.bytes != nullptr) job_.bytes->fetch_add(n);
    }
    return true;
  }
  bool Skip(std::uint64_t length) {
    if (!Want(length)) return false;
    char scratch[kChunk];
    while (length > 0) {
      std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(length, sizeof scratch));
      if (!ReadExact(scratch, n)) return false;
      length -= n;
    }
    return true;
  }
  bool Stopped() {
    if (halt_ == CSimHaltReason::kSuccessful && job_.abort != nullptr && job_.abort->load()) {
      halt_ = CSimHaltReason::kAborted;
    }
    return halt_ != CSimHaltReason::kSuccessful;
  }
  void Fail(CSimHaltReason why, const std::string& text) {
    if (halt_ != CSimHaltReason::kSuccessful) return;
    halt_ = why;
    if (job_.log) job_.log(2, text);
  }
  std::uint64_t offset() const { return offset_; }
  CSimHaltReason halt() const { return halt_; }

 private:
  CSimRecoverJob& job_;
  std::uint64_t offset_ = 0, left_ = 0;
  bool toEnd_ = false, headerAhead_ = false;
  CSimHaltReason halt_ = CSimHaltReason::kSuccessful;
};

class CRecover {
 public:
  explicit CRecover(CSimRecoverJob& job) : job_(job), source_(job) {}
  ~CRecover() {
    for (auto& [path, fd] : bases_) close(fd);
    if (parentFd_ >= 0) close(parentFd_);
  }

  CSimHaltReason Run() {
    std::vector<CSimRecoverItem> items = job_.items;
    for (CSimRecoverItem& item : items) {
      while (item.hostDestination.size() > 1 && item.hostDestination.back() == '/') {
        item.hostDestination.pop_back();
      }
      bool absolute = false;
      std::string given = item.original;
      if (!ImagePath(given, &item.original, &absolute)) {
        source_.Fail(CSimHaltReason::kInternalError, "recover item " + given + " has \"..\"");
        return source_.halt();
      }
      if (!job_.historyOnly && item.hostDestination.empty()) {
        source_.Fail(CSimHaltReason::kInternalError,
                     "recover item " + given + " has no destination");
        return source_.halt();
      }
    }
    if (job_.historyOnly && items.empty()) items.push_back(CSimRecoverItem{"/", "", kToEnd});
    if (items.empty()) {
      source_.Fail(CSimHaltReason::kInternalError, "nothing to recover");
      return source_.halt();
    }
    Log(0, std::string(job_.historyOnly ? "reading file history of " : "recovering ") +
               std::to_string(items.size()) + " item(s)");
    const std::vector<CSimRecoverItem> wanted = items;
    bool direct = !job_.historyOnly && std::all_of(items.begin(), items.end(), [](auto& item) {
      return item.fhInfo != kToEnd;
    });
    if (direct) {
      std::stable_sort(items.begin(), items.end(),
                       [](auto& a, auto& b) { return a.fhInfo < b.fhInfo; });
      std::vector<CSimRecoverItem> missed;
      for (std::size_t i = 0; i < items.size() && !source_.Stopped(); ++i) {
        if (!Direct(items[i], i + 1 == items.size() && missed.empty())) missed.push_back(items[i]);
      }
      items = missed;
    }
    if (!items.empty() && !source_.Stopped()) Sequential(items);
    FinishDirectories();
    SendHistory(true);
    // A name that matched nothing is worth a warning each: the restore
    // itself went well, but not everything asked for was there.
    for (const CSimRecoverItem& item : wanted) {
      if (!job_.historyOnly && !source_.Stopped() && seen_.count(item.original) == 0) {
        Log(1, "\"" + item.original + "\": not found in the image");
      }
    }
    if (source_.halt() == CSimHaltReason::kSuccessful && failures_ > 0) {
      source_.Fail(CSimHaltReason::kInternalError,
                   std::to_string(failures_) + " entries could not be restored");
    }
    if (source_.halt() == CSimHaltReason::kSuccessful) {
      Log(0, "recover finished: " + std::to_string(restored_) + " entries");
    }
    return source_.halt();
  }

 private:
  struct CHeader {
    CTarEntry tar;
    std::string path;  // "/a/b", or empty when the name is refused
    std::uint64_t offset = 0;
  };

  void Log(int level, const std::string& text) {
    if (job_.log) job_.log(level, text);
  }
  // The next header; `quiet` leaves a corrupt one to the caller.
  CTarRead Next(CHeader* header, bool quiet = false) {
    header->offset = source_.offset();
    std::string error;
    CTarRead got = ReadTarHeader([this](void* p, std::size_t n) { return source_.ReadExact(p, n); },
                                 &header->tar, &error);
    if (got == CTarRead::kBad && !quiet) {
      source_.Fail(CSimHaltReason::kInternalError,
                   "corrupt image at byte " + std::to_string(header->offset) + ": " + error);
    }
    if (got != CTarRead::kEntry) return got;
    bool absolute = false;
    if (!ImagePath(header->tar.name, &header->path, &absolute)) {
      Log(1, "\"" + header->tar.name + "\": refused, the name leaves the destination");
      header->path.clear();
    } else if (absolute) {
      Log(1, "\"" + header->tar.name + "\": leading '/' removed");
    }
    return got;
  }

  // One item at its known offset; false when the header there is not the item.
  bool Direct(const CSimRecoverItem& item, bool last) {
    if (!source_.Seek(item.fhInfo)) return true;
    CHeader header;
    if (Next(&header, true) != CTarRead::kEntry || header.path != item.original) {
      if (source_.Stopped()) return true;
      Log(1, item.original + " is not at image offset " + std::to_string(item.fhInfo) +
                 "; it is searched for in the whole image");
      return false;
    }
    if (header.tar.type != '5') {
      Take(header, item);
      return true;
    }
    if (last && !source_.ToEnd()) return true;
    // The directory's entries follow its header, each one's data followed by
    // the next header (at worst the end-of-archive block).
    source_.HeaderAhead(true);
    for (;;) {
      if (!Take(header, item) || Next(&header) != CTarRead::kEntry || header.path.empty() ||
          !Under(header.path, item.original)) {
        source_.HeaderAhead(false);
        return true;
      }
    }
  }

  void Sequential(const std::vector<CSimRecoverItem>& items) {
    if (!source_.Seek(0) || !source_.Request(0, kToEnd)) return;
    CHeader header;
    while (Next(&header) == CTarRead::kEntry) {
      for (const CSimRecoverItem& item : items) {  // nested items are found too
        if (!header.path.empty() && Under(header.path, item.original)) seen_.insert(item.original);
      }
      auto match = std::find_if(items.begin(), items.end(), [&](const CSimRecoverItem& item) {
        return !header.path.empty() && Under(header.path, item.original);
      });
      if (match == items.end()) {
        if (!source_.Skip(TarPadded(header.tar.size))) return;
      } else if (!Take(header, *match)) {
        return;
      }
    }
  }

  // Restores (or reports) one entry and consumes its data.
  bool Take(const CHeader& header, const CSimRecoverItem& item) {
    seen_.insert(item.original);
    std::uint64_t padded = TarPadded(header.tar.size);
    if (job_.historyOnly) {
      Report(header);
      return source_.Skip(padded);
    }
    const std::string& path = header.path;
    std::string base, rel;
    if (path == item.original && header.tar.type != '5') {
      base = Dirname(item.hostDestination);
      rel = item.hostDestination.substr(item.hostDestination.find_last_of('/') + 1);
    } else {
      base = item.hostDestination;
      rel = path.substr(item.original == "/" ? 1 : std::min(path.size(), item.original.size() + 1));
    }
    int parent = -1;
    std::string name;
    if (!OpenParent(base, rel, &parent, &name)) {
      ++failures_;
      return source_.Skip(padded);
    }
    ++restored_;
    switch (header.tar.type) {
      case '5':
        if (!name.empty() && !MakeDirectory(parent, name, base + "/" + rel)) ++failures_;
        directories_.push_back({base, rel, header.tar});
        return source_.Skip(padded);
      case '0':
        return WriteFile(parent, name, base + "/" + rel, header.tar);
      case '2':
        MakeSymlink(parent, name, base + "/" + rel, header.tar);
        return source_.Skip(padded);
      default:
        --restored_;
        Log(1, header.tar.name + ": entry type '" + std::string(1, header.tar.type) +
                   "' is not restored");
        return source_.Skip(padded);
    }
  }

  // Opens the directory that holds `rel` below `base` (creating missing
  // directories, following no symbolic link below `base`). An empty `rel`
  // is `base` itself: *name is empty then.
  bool OpenParent(const std::string& base, const std::string& rel, int* parent, std::string* name) {
    std::string dir =
        rel.find('/') == std::string::npos ? "" : rel.substr(0, rel.find_last_of('/'));
    *name = rel.substr(rel.find_last_of('/') == std::string::npos ? 0 : rel.find_last_of('/') + 1);
    std::string key = base + '\0' + dir;
    if (parentFd_ >= 0 && key == parentKey_) {
      *parent = parentFd_;
      return true;
    }
    int fd = OpenBase(base);
    if (fd < 0) return false;
    fd = dup(fd);
    for (std::size_t at = 0; fd >= 0 && at < dir.size();) {
      std::size_t slash = std::min(dir.find('/', at), dir.size());
      std::string part = dir.substr(at, slash - at);
      at = slash + 1;
      if (mkdirat(fd, part.c_str(), 0755) != 0 && errno != EEXIST) {
        Log(1,
            base + "/" + rel + ": cannot create directory " + part + ": " + std::strerror(errno));
        close(fd);
        return false;
      }
      int next = openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (next < 0) {
        Log(1, base + "/" + rel + ": refused, " + part + " is not a directory (" +
                   std::strerror(errno) + ")");
      }
      close(fd);
      fd = next;
    }
    if (fd < 0) return false;
    if (parentFd_ >= 0) close(parentFd_);
    parentFd_ = fd;
    parentKey_ = key;
    *parent = fd;
    return true;
  }

  int OpenBase(const std::string& base) {
    auto found = bases_.find(base);
    if (found != bases_.end()) return found->second;
    for (std::size_t at = 1; at <= base.size(); ++at) {
      if (at == base.size() || base[at] == '/') {
        if (mkdir(base.substr(0, at).c_str(), 0755) != 0 && errno != EEXIST) break;
      }
    }
    int fd = open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      Log(2, "cannot open destination " + base + ": " + std::strerror(errno));
      return -1;
    }
    bases_[base] = fd;
    return fd;
  }

  // Clears the way for a new entry: anything but a directory is unlinked,
  // an empty directory removed when a non-directory replaces it.
  void Clear(int parent, const std::string& name, bool keepDirectory) {
    struct stat st;
    if (fstatat(parent, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
      unlinkat(parent, name.c_str(), 0);
    } else if (!keepDirectory) {
      unlinkat(parent, name.c_str(), AT_REMOVEDIR);
    }
  }

  bool MakeDirectory(int parent, const std::string& name, const std::string& shown) {
    Clear(parent, name, true);
    if (mkdirat(parent, name.c_str(), 0700) != 0 && errno != EEXIST) {
      Log(1, shown + ": cannot create directory: " + std::strerror(errno));
      return false;
    }
    return true;
  }

  bool WriteFile(int parent, const std::string& name, const std::string& shown,
                 const CTarEntry& tar) {
    Clear(parent, name, false);
    int fd =
        openat(parent, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
      Log(1, shown + ": cannot create: " + std::strerror(errno));
      ++failures_;
      return source_.Skip(TarPadded(tar.size));
    }
    if (!source_.Want(TarPadded(tar.size))) {
      close(fd);
      return false;
    }
    std::vector<char> chunk(kChunk);
    bool ok = true;
    for (std::uint64_t left = TarPadded(tar.size), data = tar.size; left > 0;) {
      std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(left, chunk.size()));
      if (!source_.ReadExact(chunk.data(), n)) {
        close(fd);
        return false;
      }
      std::size_t keep = static_cast<std::size_t>(std::min<std::uint64_t>(n, data));
      for (std::size_t done = 0; ok && done < keep;) {
        ssize_t put = write(fd, chunk.data() + done, keep - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
          source_.Fail(CSimHaltReason::kInternalError,
                       shown + ": write failed: " + std::strerror(errno));
          ok = false;
        } else {
          done += static_cast<std::size_t>(put);
        }
      }
      data -= keep;
      left -= n;
      if (!ok) break;
    }
    if (ok) SetAttributes(fd, tar);
    close(fd);
    return ok;
  }

  void MakeSymlink(int parent, const std::string& name, const std::string& shown,
                   const CTarEntry& tar) {
    Clear(parent, name, false);
    if (symlinkat(tar.linkName.c_str(), parent, name.c_str()) != 0) {
      Log(1, shown + ": cannot create symbolic link: " + std::strerror(errno));
      ++failures_;
      return;
    }
    struct timespec times[2] = {{0, UTIME_OMIT},
                                {static_cast<time_t>(tar.mtime), static_cast<long>(tar.mtimeNsec)}};
    utimensat(parent, name.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }

  void SetAttributes(int fd, const CTarEntry& tar) {
    // Ownership only when we may give it away; its failure is not an error.
    if (geteuid() == 0 && fchown(fd, tar.uid, tar.gid) != 0) errno = 0;
    fchmod(fd, tar.mode);
    struct timespec times[2] = {{0, UTIME_OMIT},
                                {static_cast<time_t>(tar.mtime), static_cast<long>(tar.mtimeNsec)}};
    futimens(fd, times);
  }

  // Directories get their modes and times last, deepest first, so writing
  // their contents neither fails on a read-only mode nor moves the time.
  void FinishDirectories() {
    if (parentFd_ >= 0) close(parentFd_);
    parentFd_ = -1;
    for (auto it = directories_.rbegin(); it != directories_.rend(); ++it) {
      int parent = -1;
      std::string name;
      if (!OpenParent(it->base, it->rel, &parent, &name)) continue;
      int fd = name.empty()
                   ? dup(parent)
                   : openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (fd < 0) continue;
      SetAttributes(fd, it->tar);
      close(fd);
    }
  }

  void Report(const CHeader& header) {
    if (header.path.empty()) return;
    CSimFileEntry entry;
    entry.path = header.path;
    entry.name = header.path == "/" ? "." : header.path.substr(header.path.find_last_of('/') + 1);
    entry.node = NodeOf(header.path);
    entry.parent = header.path == "/" ? entry.node : NodeOf(Dirname(header.path));
    entry.type = TypeOf(header.tar.type);
    entry.mode = header.tar.mode;
    entry.uid = header.tar.uid;
    entry.gid = header.tar.gid;
    entry.size = header.tar.size;
    entry.mtime = entry.atime = entry.ctime = header.tar.mtime;
    entry.fhInfo = header.offset;
    if (!job_.nodeHistory) {
      history_.files.push_back(entry);
    } else {
      history_.dirs.push_back(entry);
      history_.nodes.push_back(entry);
    }
    SendHistory(false);
  }

  // Images carry no inode numbers: nodes are numbered by path as met.
  std::uint64_t NodeOf(const std::string& path) {
    auto [it, added] = nodeNumbers_.emplace(path, nodeNumbers_.size() + 2);
    return it->second;
  }

  void SendHistory(bool all) {
    history_.Send(job_.historyBatch, all, job_.files, job_.dirs, job_.nodes);
  }

  struct CDirectoryTime {
    std::string base, rel;
    CTarEntry tar;
  };

  CSimRecoverJob& job_;
  CSource source_;
  std::map<std::string, int> bases_;
  int parentFd_ = -1;
  std::string parentKey_;
  std::vector<CDirectoryTime> directories_;
  CSimHistoryBuffer history_;
  std::map<std::string, std::uint64_t> nodeNumbers_;
  std::set<std::string> seen_;  // the items that matched an entry
  std::uint64_t restored_ = 0, failures_ = 0;
};

}  // namespace

CSimHaltReason RunRecover(CSimRecoverJob& job) { return CRecover(job).Run(); }

}  // namespace com::vx::korvane::ndmpc::tools
