// TShadowCopies: the Volume Shadow Copies of an NTFS volume, read through libvshadow
// from the volume's stream, each copy exposed as a stream of the volume as it was when
// the copy was taken (the copy-on-write blocks of its store laid over the volume).
//
// All calls into libvshadow for one volume take its lock; the copies' streams share
// the object and keep it open.
#pragma once

#include "platform/read_stream.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qvx {

class TBfioHandle;

struct TShadowCopyInfo {
  uint32_t Number = 0;       // 1-based, in the order libvshadow lists the stores ("vss1")
  uint64_t CreationTime = 0; // FILETIME, UTC
  std::string Identifier;    // the shadow copy's GUID in text form, or ""
  uint64_t VolumeSize = 0;   // bytes of the volume the copy holds
};

class TShadowCopies : public std::enable_shared_from_this<TShadowCopies> {
public:
  // Reads the shadow copy catalog of the volume in AStream; AName names the volume in
  // messages ("disk.E01 volume 2"). A volume without the shadow copy header has no
  // copies (Count() 0). Raises EImageError naming the volume when the header is there
  // but its catalog or a store cannot be read.
  static std::shared_ptr<TShadowCopies> Open(std::shared_ptr<const TReadStream> AStream,
                                             const std::string& AName);
  ~TShadowCopies();
  TShadowCopies(const TShadowCopies&) = delete;
  TShadowCopies& operator=(const TShadowCopies&) = delete;

  uint32_t Count() const { return static_cast<uint32_t>(FInfos.size()); }
  const std::vector<TShadowCopyInfo>& Copies() const { return FInfos; }
  // The volume as copy ANumber (1-based) holds it; ADisplayName names it in messages.
  // Raises EImageError naming the copy when there is no such copy or libvshadow cannot
  // open its store.
  std::shared_ptr<const TReadStream> Store(uint32_t ANumber, const std::string& ADisplayName);

  // True when the volume in AStream starts the shadow copy header (at 0x1E00). Read
  // errors count as false.
  static bool HasHeader(const TReadStream& AStream);

private:
  class TStoreStream;
  TShadowCopies() = default;

  std::string FName;
  std::shared_ptr<const TReadStream> FStream;
  std::unique_ptr<TBfioHandle> FBfio;
  void* FVolume = nullptr; // libvshadow_volume_t
  std::vector<TShadowCopyInfo> FInfos;
  std::recursive_mutex FLock;
};

} // namespace qvx
