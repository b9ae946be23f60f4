#include "platform/file_stamp.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace qvx {

bool ReadFileStamp(const std::string& APath, TFileStamp& AStamp) {
#ifdef _WIN32
  (void)APath;
  (void)AStamp;
  return false;
#else
  struct stat st;
  if (::stat(APath.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  AStamp.Size = static_cast<uint64_t>(st.st_size);
  AStamp.ChangeTime = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  AStamp.StatusTime = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  AStamp.Identity = static_cast<uint64_t>(st.st_ino);
  return true;
#endif
}

} // namespace qvx
