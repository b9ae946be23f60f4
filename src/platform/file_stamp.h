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

} // namespace qvx
