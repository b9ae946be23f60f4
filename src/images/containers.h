// Disk image containers: the media data of E01/Ex01 (split too), VHD/VHDX, VMDK,
// QCOW2 and split raw images, each read through its libyal library.
//
// Each container keeps its library handle in one class that opens it read-only, reads
// the media data at an offset and frees the handle; nothing above these classes sees
// the C libraries. Reads take the container's own lock: the libraries keep a cache
// and a current position per handle.
#pragma once

#include "platform/read_stream.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

enum class TContainerFormat { cfRaw, cfSplitRaw, cfEwf, cfVhd, cfVhdx, cfVmdk, cfQcow };

// The container's name as listed ("E01", "VHDX", ...).
const char* ContainerName(TContainerFormat AFormat);

// The format of the file APath by its first bytes (and, for split raw, its name); cfRaw
// when it is none of the containers. Raises ENTException when it cannot be read.
TContainerFormat DetectContainer(const std::string& APath);

// A container's media data as a stream.
class TContainer : public TReadStream {
public:
  TContainerFormat Format() const { return FFormat; }
  uint64_t Size() const override { return FMediaSize; }
  // Reads take the container's lock, but for a raw image's (a file read by position).
  bool ParallelReads() const override { return false; }
  const std::string& Path() const override { return FPath; }
  // The acquisition hash the container stores ("MD5 ..."), or "".
  const std::string& StoredHash() const { return FStoredHash; }
  // Segment or extent files read with the first one (E02..., .002...), 0 when one.
  int SegmentFiles() const { return FSegments; }

  // What reads since the last call met in the media data and read through anyway
  // (ranges of an E01 whose chunks fail their checksum), one line each, each range once;
  // a segment file or piece missing from the set is told first.
  virtual std::vector<std::string> TakeWarnings() { return {}; }
  // The segment file or piece missing from the set ("segment file disk.E05 is missing
  // (disk.E04 says more follow)"), or "": what the others hold is read, and a file that
  // cannot be found or read may lie in it.
  const std::string& MissingPart() const { return FMissingPart; }

  // Opens APath as AFormat. Raises EImageError naming the file and the problem.
  static std::unique_ptr<TContainer> Open(const std::string& APath, TContainerFormat AFormat);

protected:
  TContainer(std::string APath, TContainerFormat AFormat) : FPath(std::move(APath)), FFormat(AFormat) {}
  std::string FPath;
  TContainerFormat FFormat;
  uint64_t FMediaSize = 0;
  std::string FStoredHash;
  int FSegments = 0;
  std::string FMissingPart;
  bool FMissingTold = false;
};

} // namespace qvx
