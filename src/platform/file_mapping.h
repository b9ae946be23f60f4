// TFileMapping: a regular file mapped read-only, for a pass that reads it from start to end
// without copying it (a deep scan of an image file).
//
// The whole file is mapped once; the reader makes a window's pages present in one call
// before it reads them (Prepare) and gives them back once it has passed them (Release), so
// the process holds no more than a window of the file however large the file is.
#pragma once

#include "platform/raw_file.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

namespace qvx {

class TFileMapping {
public:
  // Maps AFile when it is a regular file and the system can; otherwise Data() is null and
  // the caller reads the file instead. Never raises.
  explicit TFileMapping(const TRawFile& AFile);
  ~TFileMapping();
  TFileMapping(const TFileMapping&) = delete;
  TFileMapping& operator=(const TFileMapping&) = delete;

  const uint8_t* Data() const { return FData; }
  uint64_t Size() const { return FSize; }

  // Makes the pages of [AOffset, AOffset + ALength) present. False when the range is not
  // mapped or the file has become shorter than its end since it was mapped (touching those
  // pages would kill the process): the caller reads that range instead.
  bool Prepare(uint64_t AOffset, size_t ALength) const;
  // Has a helper thread make the pages of [AOffset, AOffset + ALength) present, and
  // returns at once; a request that finds the helper busy is dropped (Prepare still
  // works, only slower).
  void PrepareLater(uint64_t AOffset, size_t ALength);
  // Gives back the pages of [AOffset, AOffset + ALength) (they stay in the page cache);
  // waits for the helper when it is making some of them present.
  void Release(uint64_t AOffset, size_t ALength);

private:
  bool Present(uint64_t AOffset, size_t ALength) const;
  void Populate(uint64_t AOffset, size_t ALength) const;
  void Helper();

  const TRawFile& FFile;
  uint8_t* FData = nullptr;
  uint64_t FSize = 0;
  // The helper thread: one request at a time; FReadyFrom..FReadyTo is the last range it made present.
  std::thread FThread;
  std::mutex FLock;
  std::condition_variable FWake;
  std::condition_variable FIdle;
  bool FStop = false;
  bool FPending = false;
  bool FInFlight = false;   // the helper is populating FAskFrom..FAskTo
  uint64_t FReleasedTo = 0; // the reader has given back the pages below this
  uint64_t FAskFrom = 0;
  uint64_t FAskTo = 0;
  std::atomic<uint64_t> FReadyFrom{0};
  std::atomic<uint64_t> FReadyTo{0};
};

} // namespace qvx
