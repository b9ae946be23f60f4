// TEvidenceImage: a disk image (or a block device) opened read-only: its container,
// partition table and volumes, and the NTFS file systems on them.
//
// Names of files inside an image take the form IMAGE[@VOLUME]::PATH, for example
// "disk.E01::/Windows/System32/winevt/Logs/System.evtx" or "disk.vhdx@2::/Windows".
// VOLUME is a volume's number as `quorvex imaged` lists it, or "+BYTES" for a volume
// that starts at that offset of the media; without it the volume holding the Windows
// installation is taken (or the only NTFS volume).
#pragma once

#include "images/containers.h"
#include "images/ntfs_volume.h"
#include "images/partition_table.h"

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
};

class TEvidenceImage {
public:
  // Opens the image APath (shared: a second Open of the same name gives the same
  // object). Raises EImageError (or ENTException) naming the image and the problem.
  static std::shared_ptr<TEvidenceImage> Open(const std::string& APath);

  const std::string& Path() const { return FPath; }
  const TContainer& Container() const { return *FContainer; }
  std::shared_ptr<const TReadStream> Media() const { return FContainer; }
  const TPartitionTable& Table() const { return FTable; }
  const std::vector<TImageVolume>& Volumes() const { return FVolumes; }

  // The volume a volume name picks ("2", "+1048576", or "" for the default). Raises
  // EImageError when there is no such volume, or no default.
  const TImageVolume& Volume(const std::string& AName);
  // The data of a volume.
  std::shared_ptr<const TReadStream> VolumeStream(const TImageVolume& AVolume);
  // The NTFS file system of a volume (opened once). Raises EImageError when it is not
  // NTFS or cannot be read.
  std::shared_ptr<TNtfsVolume> Ntfs(const TImageVolume& AVolume);
  // The name of a volume in messages: "disk.E01 volume 2".
  std::string VolumeName(const TImageVolume& AVolume) const;
  // Numbers of the NTFS volumes that hold \Windows\System32\config\SOFTWARE.
  std::vector<uint32_t> Installations();

  // Splits "IMAGE[@VOLUME]::PATH" when IMAGE names an existing file or device; false
  // otherwise (also for "file::$DATA" stream names).
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
  std::optional<std::vector<uint32_t>> FInstallations;
  std::recursive_mutex FLock;
};

} // namespace qvx
