// TReadStream: bytes read at an offset, from whatever holds them.
//
// Every reader of logs, message files and raw data takes this interface, so that the
// same code reads a plain file, a block device, a window of another stream (a partition)
// or a file that lies inside a disk image, where it lies and without a copy.
//
// Opening by name goes through OpenReadStream: names that an installed opener claims
// (such as "disk.E01::/Windows/...") are opened by it, every other name as a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

class TReadStream {
public:
  TReadStream() = default;
  virtual ~TReadStream() = default;
  TReadStream(const TReadStream&) = delete;
  TReadStream& operator=(const TReadStream&) = delete;

  // Reads up to ALength bytes at AOffset; returns the bytes read (short only at the end
  // of the data). Raises (ENTException or the stream's own std::runtime_error naming the
  // stream and the offset) when the data cannot be read. Safe to call from several
  // threads at once.
  virtual size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const = 0;
  // Size in bytes; 0 when it cannot be told.
  virtual uint64_t Size() const = 0;
  // False when reads from several threads run one at a time (behind the lock of a
  // library that keeps one state per handle): reading with more threads does not pay.
  virtual bool ParallelReads() const { return true; }
  // The name that messages give for the stream.
  virtual const std::string& Path() const = 0;
  // The same data through a handle of its own, for a thread that reads much of it; null
  // when there is no other handle to be had (the thread then shares this one). Threads
  // that read through one file handle share its reference count, which every read
  // changes: with two of them reading, it moves between processors at every read.
  virtual std::unique_ptr<TReadStream> OpenAgain() const { return nullptr; }

protected:
  TReadStream(TReadStream&&) = default;
  TReadStream& operator=(TReadStream&&) = default;
};

// The bytes [AOffset, AOffset + ALength) of another stream (a partition of a disk, a
// volume given by offset). Reads past the window's end are cut at it.
class TSubStream : public TReadStream {
public:
  TSubStream(std::shared_ptr<const TReadStream> ABase, uint64_t AOffset, uint64_t ALength, std::string AName);
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override;
  uint64_t Size() const override { return FLength; }
  bool ParallelReads() const override { return FBase->ParallelReads(); }
  const std::string& Path() const override { return FName; }
  uint64_t Offset() const { return FOffset; }

private:
  std::shared_ptr<const TReadStream> FBase;
  uint64_t FOffset;
  uint64_t FLength;
  std::string FName;
};

// Pieces of another stream read one after the other as one stream (the unallocated
// clusters of a volume). Position() maps an offset back to the base stream.
class TExtentStream : public TReadStream {
public:
  struct TExtent {
    uint64_t BaseOffset = 0;
    uint64_t Length = 0;
  };
  TExtentStream(std::shared_ptr<const TReadStream> ABase, std::vector<TExtent> AExtents, std::string AName);
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override;
  uint64_t Size() const override { return FSize; }
  bool ParallelReads() const override { return FBase->ParallelReads(); }
  const std::string& Path() const override { return FName; }
  // The base stream's offset of AOffset; AOffset itself past the end.
  uint64_t BaseOffset(uint64_t AOffset) const;

private:
  std::shared_ptr<const TReadStream> FBase;
  std::vector<TExtent> FExtents;
  std::vector<uint64_t> FStarts; // stream offset of each extent
  uint64_t FSize = 0;
  std::string FName;
};

// Opens APath for reading: by the installed opener when it claims the name, otherwise
// as a file or device (TRawFile). Raises as they do.
std::unique_ptr<TReadStream> OpenReadStream(const std::string& APath);

// An opener gives the stream of a name it knows, or null to leave the name to the file
// system. Installed once at start-up (the disk image support installs one); not
// thread-safe against concurrent OpenReadStream calls.
using TStreamOpener = std::function<std::unique_ptr<TReadStream>(const std::string& APath)>;
void SetStreamOpener(TStreamOpener AOpener);

} // namespace qvx
