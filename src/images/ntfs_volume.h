// TNtfsVolume: an NTFS volume read through libfsntfs from a stream (a partition of an
// image), and its files as streams read where they lie.
//
// All calls into libfsntfs for one volume take the volume's lock; file streams share
// the volume and keep it open.
#pragma once

#include "platform/read_stream.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>


namespace qvx {

class TBfioHandle;

struct TNtfsEntry {
  std::string Name;
  bool Folder = false;
  uint64_t Size = 0;
};

class TNtfsVolume : public std::enable_shared_from_this<TNtfsVolume> {
public:
  // Opens the volume in AStream; AName names it in messages ("disk.E01 volume 2").
  // Raises EImageError for a BitLocker volume (naming libbde) and for a volume whose
  // boot sector or MFT libfsntfs cannot read.
  static std::shared_ptr<TNtfsVolume> Open(std::shared_ptr<const TReadStream> AStream, const std::string& AName);
  ~TNtfsVolume();
  TNtfsVolume(const TNtfsVolume&) = delete;
  TNtfsVolume& operator=(const TNtfsVolume&) = delete;

  const std::string& Name() const { return FName; }
  // Why part of the volume's data is missing ("the volume runs past the end of the
  // image ..."): said when a file cannot be found or read, which may be why.
  void SetMissingPart(const std::string& AWhy) { FMissingPart = AWhy; }
  const std::shared_ptr<const TReadStream>& Stream() const { return FStream; }
  uint32_t ClusterSize() const { return FClusterSize; }
  std::string Label();

  // The entry at APath ("/" or "\" separators; each part first as written, then
  // without regard to case). False when there is none.
  bool Find(const std::string& APath, TNtfsEntry& AEntry);
  // The entries of the folder APath (not "." or ".."); empty when it is no folder.
  std::vector<TNtfsEntry> List(const std::string& APath);
  // The file's default data stream. Raises EImageError naming the path when there is
  // no such file.
  std::unique_ptr<TReadStream> OpenFile(const std::string& APath);
  // The unallocated clusters of the volume (from $Bitmap), as (offset, length) in bytes
  // from the volume's start. Raises EImageError when $Bitmap cannot be read.
  std::vector<std::pair<uint64_t, uint64_t>> UnallocatedRanges();

private:
  class TFile;
  TNtfsVolume() = default;
  // The file entry of APath with the case of each part resolved, or null.
  void* Entry(const std::string& APath);
  // A folder's entry names folded to one case, sorted, each with its index in the folder.
  struct TFolderName {
    std::string Folded;
    int Index = 0;
  };
  // The names of the folder entry AFolder (a libfsntfs_file_entry_t), read once per folder.
  const std::vector<TFolderName>& FolderNames(void* AFolder);
  // The entry named AName in the folder entry AFolder (as written, else in any case), or null.
  void* SubEntry(void* AFolder, const std::string& AName);
  void CloseFolders();
  static constexpr size_t kMaxIndexedNames = 200000;
  static constexpr size_t kMaxOpenFolders = 64;

  std::string FName;
  std::string FMissingPart;
  std::shared_ptr<const TReadStream> FStream;
  std::unique_ptr<TBfioHandle> FBfio;
  void* FVolume = nullptr; // libfsntfs_volume_t
  uint32_t FClusterSize = 0;
  std::unordered_map<uint64_t, std::vector<TFolderName>> FFolderNames; // by the folder's file reference
  std::unordered_map<std::string, void*> FFolders; // folder entries kept open, by folded path ("" the root)
  size_t FIndexedNames = 0;
  std::recursive_mutex FLock;
};

} // namespace qvx
