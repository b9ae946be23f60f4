#include "platform/file_stamp.h"

#include "platform/worker_thread.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
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
                      std::vector<TStampedFile>& AFiles, std::string& AError, unsigned AThreads) {
  AFiles.clear();
#ifdef _WIN32
  (void)AThreads;
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
  // Folders still to read, shared by the threads (each has one folder open at a time,
  // so a deep tree cannot run out of handles).
  std::mutex lock;
  std::condition_variable more;
  std::deque<fs::path> folders;
  size_t busy = 0; // threads reading a folder (which may add more)
  bool failed = false;
  auto readFolder = [&](const fs::path& AFolderPath, bool ATop, std::vector<TStampedFile>& AOut,
                        std::vector<fs::path>& ASubfolders) {
    DIR* dir = ::opendir(AFolderPath.c_str());
    if (!dir) {
      if (ATop && errno != EACCES) { // (a folder one may not read gives no files)
        AError = std::strerror(errno);
        failed = true;
      }
      return; // a folder that cannot be read is passed over
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
        ASubfolders.push_back(AFolderPath / name);
        continue;
      }
      if ((type != DT_REG && type != DT_LNK) || !HasExtension(name, AExtensions)) continue;
      // Followed: a link to a regular file is one.
      if (::fstatat(fd, entry->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
      TStampedFile& file = AOut.emplace_back();
      file.Path = (AFolderPath / name).string();
      StampOf(st, file.Stamp);
      file.Stamped = true;
    }
    ::closedir(dir);
  };
  auto work = [&](std::vector<TStampedFile>& AOut) {
    std::vector<fs::path> subfolders;
    std::unique_lock<std::mutex> held(lock);
    for (;;) {
      more.wait(held, [&] { return !folders.empty() || busy == 0; });
      if (folders.empty()) return; // none left, and none being read
      const fs::path folder = std::move(folders.front());
      folders.pop_front();
      ++busy;
      held.unlock();
      subfolders.clear();
      readFolder(folder, false, AOut, subfolders);
      held.lock();
      --busy;
      for (fs::path& sub : subfolders) folders.push_back(std::move(sub));
      more.notify_all();
    }
  };
  // The top folder first (it alone gives an error), then its subfolders on AThreads.
  std::vector<fs::path> subfolders;
  readFolder(fs::path(AFolder), true, AFiles, subfolders);
  if (failed) return false;
  folders.assign(std::make_move_iterator(subfolders.begin()), std::make_move_iterator(subfolders.end()));
  std::vector<std::vector<TStampedFile>> found(std::clamp(AThreads, 1u, 16u));
  {
    std::vector<TWorkerThread> pool;
    if (folders.size() > 1)
      for (size_t t = 1; t < found.size(); ++t) pool.emplace_back([&work, &part = found[t]] { work(part); });
    work(found[0]);
    for (TWorkerThread& thread : pool) thread.Join();
  }
  for (std::vector<TStampedFile>& part : found)
    AFiles.insert(AFiles.end(), std::make_move_iterator(part.begin()), std::make_move_iterator(part.end()));
#endif
  std::sort(AFiles.begin(), AFiles.end(), [](const TStampedFile& A, const TStampedFile& B) { return A.Path < B.Path; });
  return true;
}

} // namespace qvx
