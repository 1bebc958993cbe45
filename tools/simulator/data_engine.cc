// Path resolution under the data root, and the backup: a depth-first walk
// (each directory before its contents, names sorted) written as a tar image
// through a buffer, with file history batched as it goes.
#include "tools/simulator/data_engine.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_set>

#include "tools/simulator/tar_image.h"

namespace com::vx::korvane::ndmpc::tools {

namespace {

bool Inside(const std::string& root, const std::string& path) {
  return path == root || (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                          (root == "/" || path[root.size()] == '/'));
}

std::string Join(const std::string& dir, const std::string& name) {
  return dir == "/" ? "/" + name : dir + "/" + name;
}

bool RealPath(const std::string& path, std::string* out) {
  char buffer[PATH_MAX];
  if (realpath(path.c_str(), buffer) == nullptr) return false;
  *out = buffer;
  return true;
}

}  // namespace

bool ResolveUnderRoot(const std::string& dataRoot, const std::string& ndmpPath, bool mustExist,
                      std::string* hostPath, std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error != nullptr) *error = why;
    return false;
  };
  if (ndmpPath.empty() || ndmpPath[0] != '/')
    return fail("path \"" + ndmpPath + "\" is not absolute");
  if (ndmpPath.find('\0') != std::string::npos) return fail("path contains a NUL character");
  std::string root;
  if (!RealPath(dataRoot, &root)) {
    return fail("data root " + dataRoot + ": " + std::strerror(errno));
  }
  std::vector<std::string> parts;
  for (std::size_t at = 0; at <= ndmpPath.size();) {
    std::size_t slash = ndmpPath.find('/', at);
    if (slash == std::string::npos) slash = ndmpPath.size();
    std::string part = ndmpPath.substr(at, slash - at);
    if (part == "..") return fail("path \"" + ndmpPath + "\" leaves the data root (\"..\")");
    if (!part.empty() && part != ".") parts.push_back(part);
    at = slash + 1;
  }
  std::string current = root;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    std::string candidate = Join(current, parts[i]);
    struct stat st;
    if (lstat(candidate.c_str(), &st) != 0) {
      if (errno != ENOENT || mustExist) {
        return fail(ndmpPath + ": " + std::strerror(errno));
      }
      // The rest does not exist yet: its existing parent is inside the root.
      for (std::size_t j = i; j < parts.size(); ++j) current = Join(current, parts[j]);
      break;
    }
    if (S_ISLNK(st.st_mode)) {
      std::string target;
      if (!RealPath(candidate, &target)) {
        return fail(ndmpPath + ": symbolic link " + parts[i] + " leads nowhere");
      }
      if (!Inside(root, target)) {
        return fail("path \"" + ndmpPath + "\" leaves the data root (symbolic link " + parts[i] +
                    ")");
      }
      current = target;
      if (stat(current.c_str(), &st) != 0) return fail(ndmpPath + ": " + std::strerror(errno));
    } else {
      current = candidate;
    }
    if (!S_ISDIR(st.st_mode) && i + 1 < parts.size()) {
      return fail(ndmpPath + ": " + parts[i] + " is not a directory");
    }
  }
  *hostPath = current;
  return true;
}

namespace {

constexpr std::size_t kWriteBuffer = 256 * 1024;

CSimFileEntry::Type EntryType(mode_t mode) {
  if (S_ISDIR(mode)) return CSimFileEntry::Type::kDir;
  if (S_ISREG(mode)) return CSimFileEntry::Type::kFile;
  if (S_ISLNK(mode)) return CSimFileEntry::Type::kSymlink;
  return CSimFileEntry::Type::kOther;
}

class CBackup {
 public:
  explicit CBackup(CSimBackupJob& job) : job_(job) { buffer_.resize(kWriteBuffer); }

  CSimHaltReason Run() {
    struct stat st;
    if (stat(job_.hostRoot.c_str(), &st) != 0) {
      Log(2, "cannot back up " + job_.hostRoot + ": " + std::strerror(errno));
      return CSimHaltReason::kInternalError;
    }
    Log(0, "backup of " + job_.hostRoot + " started");
    if (S_ISDIR(st.st_mode)) {
      Entry(job_.hostRoot, "/", st, st.st_ino, true);
    } else {
      std::string base = job_.hostRoot.substr(job_.hostRoot.find_last_of('/') + 1);
      Entry(job_.hostRoot, "/" + base, st, st.st_ino, true);
    }
    if (halt_ == CSimHaltReason::kSuccessful) {
      std::string end(2 * kTarBlockSize, '\0');
      if (Put(end.data(), end.size())) Flush();
    }
    if (halt_ == CSimHaltReason::kSuccessful) {
      SendHistory(true);
      Log(0, "backup of " + job_.hostRoot + " finished: " + std::to_string(offset_) + " bytes, " +
                 std::to_string(entries_) + " entries, " + std::to_string(skipped_) + " skipped");
    } else if (halt_ == CSimHaltReason::kAborted) {
      Log(1, "backup aborted after " + std::to_string(offset_) + " bytes");
    }
    return halt_;
  }

 private:
  void Log(int level, const std::string& text) {
    if (job_.log) job_.log(level, text);
  }
  bool Stopped() {
    if (halt_ == CSimHaltReason::kSuccessful && job_.abort != nullptr && job_.abort->load()) {
      halt_ = CSimHaltReason::kAborted;
    }
    return halt_ != CSimHaltReason::kSuccessful;
  }
  bool Flush() {
    if (used_ == 0 || Stopped()) return !Stopped();
    if (!job_.write || !job_.write(buffer_.data(), used_)) {
      Log(2, "writing the image failed at byte " + std::to_string(written_));
      halt_ = CSimHaltReason::kConnectError;
      return false;
    }
    written_ += used_;
    if (job_.bytes != nullptr) job_.bytes->store(written_);
    used_ = 0;
    return true;
  }
  bool Put(const void* data, std::size_t length) {
    const char* in = static_cast<const char*>(data);
    while (length > 0) {
      if (used_ == buffer_.size() && !Flush()) return false;
      std::size_t n = std::min(length, buffer_.size() - used_);
      std::memcpy(&buffer_[used_], in, n);
      used_ += n;
      offset_ += n;
      in += n;
      length -= n;
    }
    return !Stopped();
  }
  // Streams `size` bytes of `fd` into the image in buffer-sized pieces; a file
  // that shrinks or fails to read is padded with zeros to keep the header true.
  bool PutFileData(int fd, const std::string& hostPath, std::uint64_t size) {
    std::uint64_t left = size;
    bool failed = false;
    while (left > 0) {
      if ((used_ == buffer_.size() && !Flush()) || Stopped()) return false;
      std::size_t n =
          static_cast<std::size_t>(std::min<std::uint64_t>(left, buffer_.size() - used_));
      ssize_t got = failed ? 0 : read(fd, &buffer_[used_], n);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        if (!failed) {
          Log(1, hostPath +
                     (got < 0 ? ": read failed (" + std::string(std::strerror(errno)) + ")"
                              : ": file shrank while it was read") +
                     "; the rest is written as zeros");
        }
        failed = true;
        std::memset(&buffer_[used_], 0, n);
        got = static_cast<ssize_t>(n);
      }
      used_ += static_cast<std::size_t>(got);
      offset_ += static_cast<std::uint64_t>(got);
      left -= static_cast<std::uint64_t>(got);
    }
    std::size_t pad = static_cast<std::size_t>(TarPadded(size) - size);
    return pad == 0 || Put(std::string(pad, '\0').data(), pad);
  }

  void Entry(const std::string& hostPath, const std::string& path, const struct stat& st,
             std::uint64_t parent, bool isRoot) {
    if (Stopped()) return;
    std::string rel = path.substr(1);
    CTarEntry tar;
    tar.name = isRoot && S_ISDIR(st.st_mode) ? "./" : "./" + rel;
    tar.mode = st.st_mode & 07777;
    tar.uid = st.st_uid;
    tar.gid = st.st_gid;
    tar.mtime = st.st_mtim.tv_sec;
    tar.mtimeNsec = static_cast<std::uint32_t>(st.st_mtim.tv_nsec);
    struct stat fileStat = st;
    int fd = -1;
    DIR* dir = nullptr;
    if (S_ISDIR(st.st_mode)) {
      dir = opendir(hostPath.c_str());
      if (dir == nullptr) return Skip(hostPath, std::strerror(errno), isRoot);
      tar.type = '5';
      if (!isRoot) tar.name += '/';
    } else if (S_ISREG(st.st_mode)) {
      fd = open(hostPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0) return Skip(hostPath, std::strerror(errno), isRoot);
      if (fstat(fd, &fileStat) != 0 || !S_ISREG(fileStat.st_mode)) {
        close(fd);
        return Skip(hostPath, "changed while it was opened", isRoot);
      }
      tar.type = '0';
      tar.size = static_cast<std::uint64_t>(fileStat.st_size);
      tar.mtime = fileStat.st_mtim.tv_sec;
      tar.mtimeNsec = static_cast<std::uint32_t>(fileStat.st_mtim.tv_nsec);
    } else if (S_ISLNK(st.st_mode)) {
      std::vector<char> target(PATH_MAX + 1);
      ssize_t n = readlink(hostPath.c_str(), target.data(), target.size());
      if (n < 0 || static_cast<std::size_t>(n) >= target.size()) {
        return Skip(hostPath, n < 0 ? std::strerror(errno) : "link target too long", isRoot);
      }
      tar.type = '2';
      tar.linkName.assign(target.data(), static_cast<std::size_t>(n));
    } else {
      return Skip(hostPath, "not a regular file, directory or symbolic link", isRoot);
    }
    std::uint64_t fhInfo = offset_;
    std::string header = EncodeTarHeader(tar);
    bool ok = Put(header.data(), header.size());
    if (ok && fd >= 0) ok = PutFileData(fd, hostPath, tar.size);
    if (fd >= 0) close(fd);
    ++entries_;
    if (ok) Record(path, isRoot, fileStat, parent, fhInfo);
    if (dir == nullptr) return;
    std::vector<std::string> names;
    for (errno = 0; struct dirent* d = readdir(dir); errno = 0) {
      if (std::strcmp(d->d_name, ".") != 0 && std::strcmp(d->d_name, "..") != 0) {
        names.emplace_back(d->d_name);
      }
    }
    if (errno != 0) Log(1, hostPath + ": listing the directory failed: " + std::strerror(errno));
    int dirFd = dirfd(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      if (Stopped()) break;
      struct stat child;
      std::string childHost = hostPath == "/" ? "/" + name : hostPath + "/" + name;
      if (fstatat(dirFd, name.c_str(), &child, AT_SYMLINK_NOFOLLOW) != 0) {
        Skip(childHost, std::strerror(errno), false);
        continue;
      }
      Entry(childHost, path == "/" ? "/" + name : path + "/" + name, child, st.st_ino, false);
    }
    closedir(dir);
  }

  void Skip(const std::string& hostPath, const std::string& why, bool isRoot) {
    if (isRoot) {
      Log(2, "cannot back up " + hostPath + ": " + why);
      halt_ = CSimHaltReason::kInternalError;
      return;
    }
    ++skipped_;
    Log(1, hostPath + ": " + why + "; skipped");
  }

  void Record(const std::string& path, bool isRoot, const struct stat& st, std::uint64_t parent,
              std::uint64_t fhInfo) {
    if (!job_.history) return;
    CSimFileEntry entry;
    entry.path = path;
    entry.name = isRoot && S_ISDIR(st.st_mode) ? "." : path.substr(path.find_last_of('/') + 1);
    entry.node = st.st_ino;
    entry.parent = isRoot ? st.st_ino : parent;
    entry.type = EntryType(st.st_mode);
    entry.mode = st.st_mode & 07777;
    entry.uid = st.st_uid;
    entry.gid = st.st_gid;
    entry.size =
        entry.type == CSimFileEntry::Type::kFile ? static_cast<std::uint64_t>(st.st_size) : 0;
    entry.mtime = st.st_mtime;
    entry.atime = st.st_atime;
    entry.ctime = st.st_ctime;
    entry.links = static_cast<std::uint32_t>(st.st_nlink);
    entry.fhInfo = fhInfo;
    if (!job_.nodeHistory) {
      history_.files.push_back(entry);
    } else {
      history_.dirs.push_back(entry);
      // A file with several names is one node: reported once, at its first name.
      if (nodesSeen_.insert(st.st_ino).second) history_.nodes.push_back(entry);
    }
    SendHistory(false);
  }

  void SendHistory(bool all) {
    history_.Send(job_.historyBatch, all, job_.files, job_.dirs, job_.nodes);
  }

  CSimBackupJob& job_;
  std::vector<char> buffer_;
  std::size_t used_ = 0;
  std::uint64_t offset_ = 0, written_ = 0, entries_ = 0, skipped_ = 0;
  CSimHaltReason halt_ = CSimHaltReason::kSuccessful;
  CSimHistoryBuffer history_;
  std::unordered_set<std::uint64_t> nodesSeen_;
};

}  // namespace

CSimHaltReason RunBackup(CSimBackupJob& job) { return CBackup(job).Run(); }

void CSimHistoryBuffer::Send(std::size_t batch, bool all, const Sink& filesSink,
                             const Sink& dirsSink, const Sink& nodesSink) {
  batch = std::max<std::size_t>(batch, 1);
  for (auto [list, sink] : {std::make_pair(&files, &filesSink), std::make_pair(&dirs, &dirsSink),
                            std::make_pair(&nodes, &nodesSink)}) {
    if (list->empty() || (!all && list->size() < batch)) continue;
    if (*sink) (*sink)(*list);
    list->clear();
  }
}

}  // namespace com::vx::korvane::ndmpc::tools
