// What tells, without reading a file, that it has not changed since it was last seen.
//
// The stamp holds the size, the change time of the data and, where the platform keeps
// them, the file's identity and the time its entry last changed in any way (POSIX
// st_ino and st_ctime). That last time cannot be set back by a program, so a file
// written again and given its old change time still gets a new stamp. Where the platform
// does not give these (Windows here), ReadFileStamp says so and callers read the file.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

struct TFileStamp {
  uint64_t Size = 0;
  int64_t ChangeTime = 0; // of the data (st_mtime), nanoseconds
  int64_t StatusTime = 0; // of the entry (st_ctime), nanoseconds
  uint64_t Identity = 0;  // st_ino
  friend bool operator==(const TFileStamp&, const TFileStamp&) = default;
};

// The stamp of the regular file APath; false when there is no such file or the
// platform cannot give a stamp that would show every change.
bool ReadFileStamp(const std::string& APath, TFileStamp& AStamp);

// A file ListStampedFiles found, with its stamp when the platform gives one.
struct TStampedFile {
  std::string Path;
  TFileStamp Stamp;
  bool Stamped = false;
};

// The regular files under AFolder, searched recursively, whose extension (case ignored,
// as ".yml") is one of AExtensions, sorted by path; paths are AFolder joined with the
// names below it. Symbolic links to files count as files, links to folders are not
// followed, and folders that cannot be read are passed over. Each file's stamp is read
// relative to its folder (POSIX: fstatat), so its path is not walked again per file
// (cheaper than stamping the paths on several threads); with AThreads above 1, the
// folders below AFolder are read by that many threads (the caller's among them). False,
// with AError, when AFolder itself cannot be read.
bool ListStampedFiles(const std::string& AFolder, const std::vector<std::string_view>& AExtensions,
                      std::vector<TStampedFile>& AFiles, std::string& AError, unsigned AThreads = 1);

} // namespace qvx
