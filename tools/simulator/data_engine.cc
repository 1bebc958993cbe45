// Path resolution under the data root and the backup/recover entry points.
#include "tools/simulator/data_engine.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

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
  if (ndmpPath.empty() || ndmpPath[0] != '/') return fail("path \"" + ndmpPath + "\" is not absolute");
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

CSimHaltReason RunBackup(CSimBackupJob& job) {
  if (job.log) job.log(2, "backup engine unavailable in this build");
  return CSimHaltReason::kInternalError;
}

CSimHaltReason RunRecover(CSimRecoverJob& job) {
  if (job.log) job.log(2, "recover engine unavailable in this build");
  return CSimHaltReason::kInternalError;
}

}  // namespace com::vx::korvane::ndmpc::tools
