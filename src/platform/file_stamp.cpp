#include "platform/file_stamp.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#ifndef _WIN32
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace qvx {

namespace {

namespace fs = std::filesystem;

bool HasExtension(std::string_view AName, const std::vector<std::string_view>& AExtensions) {
  const size_t dot = AName.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return false; // ".yml" alone has no extension
  const std::string_view extension = AName.substr(dot);
  return std::any_of(AExtensions.begin(), AExtensions.end(), [&](std::string_view AWanted) {
    return AWanted.size() == extension.size() &&
           std::equal(extension.begin(), extension.end(), AWanted.begin(), [](char A, char B) {
             return (A >= 'A' && A <= 'Z' ? static_cast<char>(A + 32) : A) == B;
           });
  });
}

#ifndef _WIN32
void StampOf(const struct stat& AStat, TFileStamp& AStamp) {
  AStamp.Size = static_cast<uint64_t>(AStat.st_size);
  AStamp.ChangeTime = static_cast<int64_t>(AStat.st_mtim.tv_sec) * 1000000000 + AStat.st_mtim.tv_nsec;
  AStamp.StatusTime = static_cast<int64_t>(AStat.st_ctim.tv_sec) * 1000000000 + AStat.st_ctim.tv_nsec;
  AStamp.Identity = static_cast<uint64_t>(AStat.st_ino);
}
#endif

} // namespace

bool ReadFileStamp(const std::string& APath, TFileStamp& AStamp) {
#ifdef _WIN32
  (void)APath;
  (void)AStamp;
  return false;
#else
  struct stat st;
  if (::stat(APath.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  StampOf(st, AStamp);
  return true;
#endif
}

bool ListStampedFiles(const std::string& AFolder, const std::vector<std::string_view>& AExtensions,
                      std::vector<TStampedFile>& AFiles, std::string& AError) {
  AFiles.clear();
#ifdef _WIN32
  std::error_code error;
  fs::recursive_directory_iterator it(AFolder, fs::directory_options::skip_permission_denied, error);
  if (error) {
    AError = error.message();
    return false;
  }
  for (; it != fs::recursive_directory_iterator(); it.increment(error)) {
    if (error) break;
    if (HasExtension(it->path().filename().string(), AExtensions) && it->is_regular_file(error))
      AFiles.push_back({it->path().string(), {}, false});
  }
#else
  // Folders still to read (one open at a time: a deep tree cannot run out of handles).
  std::vector<fs::path> folders{fs::path(AFolder)};
  for (size_t next = 0; next < folders.size(); ++next) {
    const fs::path folder = folders[next];
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) {
      if (next == 0 && errno != EACCES) { // (a folder one may not read gives no files)
        AError = std::strerror(errno);
        return false;
      }
      continue; // a folder that cannot be read is passed over
    }
    const int fd = ::dirfd(dir);
    while (const struct dirent* entry = ::readdir(dir)) {
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      unsigned char type = entry->d_type;
      struct stat st;
      if (type == DT_UNKNOWN) {
        if (::fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
      }
      if (type == DT_DIR) {
        folders.push_back(folder / name);
        continue;
      }
      if ((type != DT_REG && type != DT_LNK) || !HasExtension(name, AExtensions)) continue;
      // Followed: a link to a regular file is one.
      if (::fstatat(fd, entry->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
      TStampedFile& file = AFiles.emplace_back();
      file.Path = (folder / name).string();
      StampOf(st, file.Stamp);
      file.Stamped = true;
    }
    ::closedir(dir);
  }
#endif
  std::sort(AFiles.begin(), AFiles.end(), [](const TStampedFile& A, const TStampedFile& B) { return A.Path < B.Path; });
  return true;
}

} // namespace qvx
