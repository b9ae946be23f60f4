// TEvidenceImage: a disk image (or a block device) opened read-only: its container,
// partition table and volumes, and the NTFS file systems on them.
//
// Names of files inside an image take the form IMAGE[@VOLUME]::PATH, for example
// "disk.E01::/Windows/System32/winevt/Logs/System.evtx" or "disk.vhdx@2::/Windows".
// VOLUME is a volume's number as `quorvex imaged` lists it, or "+BYTES" for a volume
// that starts at that offset of the media; without it the volume holding the Windows
// installation is taken (or the only NTFS volume). A Volume Shadow Copy of a volume is
// named by ":vssN" after the volume: "disk.E01@2:vss1::/Windows" (copy 1 of volume 2),
// "disk.E01:vss1::/Windows" (copy 1 of the default volume); copies are numbered as
// `quorvex imaged` lists them.
#pragma once

#include "images/containers.h"
#include "images/ntfs_volume.h"
#include "images/partition_table.h"
#include "images/shadow_copies.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qvx {

struct TImageVolume {
  uint32_t Number = 0;    // 1-based, in the order listed
  uint64_t Offset = 0;    // bytes from the start of the media
  uint64_t Length = 0;
  std::string Partition;  // "MBR 1", "GPT 2", "whole disk", "offset"
  std::string Type;       // the partition type's meaning, or ""
  std::string FileSystem; // "NTFS", "BitLocker", "FAT", ... or "" when unknown
  std::string Unreadable; // why its first sector cannot be read ("" when it can)
  bool CutShort = false;  // its partition runs past the end of the media (a truncated image)
};

class TEvidenceImage {
public:
  // Opens the image APath (with AShared, a second Open of the same name gives the same
  // object, kept for the run). Raises EImageError (or ENTException) naming the image and
  // the problem. A volume whose first sector cannot be read is listed with the reason in
  // Unreadable; only using it raises.
  static std::shared_ptr<TEvidenceImage> Open(const std::string& APath, bool AShared = true);

  const std::string& Path() const { return FPath; }
  const TContainer& Container() const { return *FContainer; }
  std::shared_ptr<const TReadStream> Media() const { return FContainer; }
  const TPartitionTable& Table() const { return FTable; }
  const std::vector<TImageVolume>& Volumes() const { return FVolumes; }

  // The volume a volume name picks ("2", "+1048576", or "" for the default); an offset
  // where a listed volume starts picks that volume. Raises EImageError when there is no
  // such volume, or no default.
  const TImageVolume& Volume(const std::string& AName);
  // The data of a volume.
  std::shared_ptr<const TReadStream> VolumeStream(const TImageVolume& AVolume);
  // The NTFS file system of a volume (opened once). Raises EImageError when it is not
  // NTFS or cannot be read (also when its first sector could not be read at open).
  std::shared_ptr<TNtfsVolume> Ntfs(const TImageVolume& AVolume);
  // The name of a volume in messages: "disk.E01 volume 2", and with a shadow copy
  // (ACopy > 0) "disk.E01 volume 2 shadow copy 1".
  std::string VolumeName(const TImageVolume& AVolume, uint32_t ACopy = 0) const;
  // The volume's part of a name: "2", "+1048576", and with a shadow copy "2:vss1".
  static std::string VolumeRef(const TImageVolume& AVolume, uint32_t ACopy = 0);
  // The shadow copies of a volume (read once). A volume that is not NTFS, or has no
  // shadow copy header, has none. Raises EImageError when the catalog is damaged.
  std::shared_ptr<TShadowCopies> Shadows(const TImageVolume& AVolume);
  // The data of shadow copy ACopy (1-based) of a volume, and its NTFS file system
  // (opened once). Raise EImageError naming the copy and the problem.
  std::shared_ptr<const TReadStream> ShadowStream(const TImageVolume& AVolume, uint32_t ACopy);
  std::shared_ptr<TNtfsVolume> ShadowNtfs(const TImageVolume& AVolume, uint32_t ACopy);
  // Takes a ":vssN" suffix off a volume name ("2:vss1" becomes "2") and returns N; 0
  // when there is none. Raises EImageError (naming AImage) for ":vss" without a number.
  static uint32_t TakeShadow(std::string& AVolume, const std::string& AImage);
  // Numbers of the NTFS volumes that hold \Windows\System32\config\SOFTWARE.
  std::vector<uint32_t> Installations();

  // What reads of every image opened so far met in the media data and read through
  // anyway (TContainer::TakeWarnings), each once.
  static std::vector<std::string> TakeWarnings();

  // Splits "IMAGE[@VOLUME][:vssN]::PATH" when IMAGE names an existing file or device;
  // false otherwise (also for "file::$DATA" stream names). AVolume keeps the ":vssN".
  static bool SplitName(const std::string& AName, std::string& AImage, std::string& AVolume, std::string& APath);
  // True when APath is a file whose container format is one of the image formats (not raw).
  static bool IsContainerFile(const std::string& APath);

private:
  TEvidenceImage() = default;
  std::string FPath;
  std::shared_ptr<TContainer> FContainer;
  TPartitionTable FTable;
  std::vector<TImageVolume> FVolumes;
  std::vector<TImageVolume> FExtraVolumes; // volumes given by offset
  std::map<uint64_t, std::shared_ptr<TNtfsVolume>> FNtfs; // by volume offset
  std::map<uint64_t, std::shared_ptr<TShadowCopies>> FShadows;                       // by volume offset
  std::map<std::pair<uint64_t, uint32_t>, std::shared_ptr<TNtfsVolume>> FShadowNtfs; // by offset, copy
  std::optional<std::vector<uint32_t>> FInstallations;
  std::recursive_mutex FLock;
};

} // namespace qvx
