// quorvex imaged IMAGE and the image parts of scan: what a disk image holds, and the
// data of one of its volumes.
#include "app/commands.h"

#include "images/evidence_image.h"
#include "images/image_error.h"

#include <algorithm>
#include <sys/stat.h>

namespace qvx::app {

namespace {

std::string SizeText(uint64_t ABytes) {
  char text[48];
  if (ABytes >= (1ull << 30))
    std::snprintf(text, sizeof text, "%.1f GB", static_cast<double>(ABytes) / (1ull << 30));
  else
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(ABytes) / (1ull << 20));
  return text;
}

// "IMAGE" or "IMAGE@VOLUME" split into its parts.
void SplitVolume(const std::string& APath, std::string& AImage, std::string& AVolume) {
  AImage = APath;
  AVolume.clear();
  struct stat st;
  if (::stat(APath.c_str(), &st) == 0) return;
  const size_t at = APath.rfind('@');
  if (at == std::string::npos) return;
  AImage = APath.substr(0, at);
  AVolume = APath.substr(at + 1);
}

} // namespace

bool IsImageInput(const std::string& APath) {
  std::string image, volume;
  SplitVolume(APath, image, volume);
  struct stat st;
  return ::stat(image.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISBLK(st.st_mode));
}

std::unique_ptr<TReadStream> OpenVolumeForScan(const std::string& APath, int64_t AOffset, bool AUnallocated) {
  std::string imagePath, volumeName;
  SplitVolume(APath, imagePath, volumeName);
  const std::shared_ptr<TEvidenceImage> image = TEvidenceImage::Open(imagePath);
  if (AOffset >= 0) {
    volumeName = std::to_string(AOffset);
    volumeName.insert(volumeName.begin(), '+');
  }
  const TImageVolume& volume = image->Volume(volumeName);
  std::shared_ptr<const TReadStream> data = image->VolumeStream(volume);
  if (!AUnallocated) return std::make_unique<TSubStream>(data, 0, data->Size(), image->VolumeName(volume));
  const std::shared_ptr<TNtfsVolume> ntfs = image->Ntfs(volume);
  std::vector<TExtentStream::TExtent> extents;
  for (const auto& [offset, length] : ntfs->UnallocatedRanges()) extents.push_back({offset, length});
  return std::make_unique<TExtentStream>(data, std::move(extents), image->VolumeName(volume) + " (unallocated clusters)");
}

std::vector<std::string> ImageLogsOf(const std::string& APath) {
  std::string imagePath, volumeName;
  SplitVolume(APath, imagePath, volumeName);
  const std::shared_ptr<TEvidenceImage> image = TEvidenceImage::Open(imagePath);
  const TImageVolume& volume = image->Volume(volumeName);
  const std::shared_ptr<TNtfsVolume> ntfs = image->Ntfs(volume);
  const std::string prefix = imagePath + "@" + std::to_string(volume.Number) + "::";
  std::vector<std::string> logs;
  for (const char* folder : {"/Windows/System32/winevt/Logs", "/Windows/System32/config"}) {
    std::vector<TNtfsEntry> entries = ntfs->List(folder);
    std::sort(entries.begin(), entries.end(), [](const TNtfsEntry& a, const TNtfsEntry& b) { return a.Name < b.Name; });
    for (const TNtfsEntry& e : entries) {
      std::string lower = e.Name;
      std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
      // Empty logs (a channel that never logged) hold only a header; nothing to load.
      if (e.Folder || e.Size == 0 || !(lower.ends_with(".evtx") || lower.ends_with(".evt"))) continue;
      logs.push_back(prefix + folder + "/" + e.Name);
    }
  }
  if (logs.empty()) RaiseImageError(image->VolumeName(volume), kNoOffset, "no .evtx or .evt logs in the Windows folder");
  return logs;
}

int RunImagedImage(const TImagedOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    std::string imagePath, volumeName;
    SplitVolume(AOptions.Path, imagePath, volumeName);
    const std::shared_ptr<TEvidenceImage> image = TEvidenceImage::Open(imagePath);
    const TContainer& container = image->Container();
    std::fprintf(AOut, "Image            %s\n", image->Path().c_str());
    std::fprintf(AOut, "Container        %s%s\n", ContainerName(container.Format()),
                 container.SegmentFiles() ? (", " + std::to_string(container.SegmentFiles()) + " segment files").c_str() : "");
    std::fprintf(AOut, "Media size       %llu bytes (%s)\n", static_cast<unsigned long long>(container.Size()),
                 SizeText(container.Size()).c_str());
    if (!container.StoredHash().empty()) std::fprintf(AOut, "Stored hash      %s\n", container.StoredHash().c_str());
    const TPartitionTable& table = image->Table();
    std::fprintf(AOut, "Partition table  %s\n", TPartitionTable::SchemeName(table.Scheme()));
    for (const std::string& issue : table.Issues()) std::fprintf(AErr, "%s: %s\n", image->Path().c_str(), issue.c_str());
    if (image->Volumes().empty()) {
      image->Volume(""); // raises the reason
    }
    std::fprintf(AOut, "\nVolumes (%zu)\n", image->Volumes().size());
    std::fprintf(AOut, "  %-3s %-10s %14s %10s  %-10s %s\n", "#", "Partition", "Offset", "Size", "File system", "Type");
    for (const TImageVolume& v : image->Volumes())
      std::fprintf(AOut, "  %-3u %-10s %14llu %10s  %-10s %s\n", v.Number, v.Partition.c_str(),
                   static_cast<unsigned long long>(v.Offset), SizeText(v.Length).c_str(),
                   v.FileSystem.empty() ? "-" : v.FileSystem.c_str(), v.Type.c_str());
    int status = 0;
    for (const TImageVolume& v : image->Volumes()) {
      if (v.FileSystem != "NTFS" && v.FileSystem != "BitLocker") continue;
      std::fprintf(AOut, "\nVolume %u (%s)\n", v.Number, v.FileSystem.c_str());
      try {
        const std::shared_ptr<TNtfsVolume> ntfs = image->Ntfs(v);
        const std::string label = ntfs->Label();
        if (!label.empty()) std::fprintf(AOut, "  Label            %s\n", label.c_str());
        TNtfsEntry windows;
        if (!ntfs->Find("/Windows", windows) || !windows.Folder) {
          std::fprintf(AOut, "  Windows folder   (none)\n");
          continue;
        }
        std::fprintf(AOut, "  Windows folder   %s@%u::/%s\n", image->Path().c_str(), v.Number, windows.Name.c_str());
        TNtfsEntry hive;
        std::fprintf(AOut, "  Registry         %s\n",
                     ntfs->Find("/Windows/System32/config/SOFTWARE", hive) ? "SOFTWARE and SYSTEM hives" : "(no SOFTWARE hive)");
        std::vector<TNtfsEntry> logs = ntfs->List("/Windows/System32/winevt/Logs");
        std::vector<TNtfsEntry> classic = ntfs->List("/Windows/System32/config");
        for (const TNtfsEntry& e : classic) {
          std::string lower = e.Name;
          std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
          if (lower.ends_with(".evt")) logs.push_back(e);
        }
        std::erase_if(logs, [](const TNtfsEntry& e) {
          std::string lower = e.Name;
          std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
          return e.Folder || (!lower.ends_with(".evtx") && !lower.ends_with(".evt"));
        });
        std::sort(logs.begin(), logs.end(), [](const TNtfsEntry& a, const TNtfsEntry& b) { return a.Name < b.Name; });
        std::fprintf(AOut, "  Logs (%zu)\n", logs.size());
        for (const TNtfsEntry& e : logs) std::fprintf(AOut, "    %12llu  %s\n", static_cast<unsigned long long>(e.Size), e.Name.c_str());
        std::fprintf(AOut, "  Shadow copies    %s\n", ntfs->HasShadowCopies() ? "present" : "none");
      } catch (const EImageError& e) {
        std::fprintf(AErr, "quorvex: %s\n", e.what());
        status = 1;
      }
    }
    return status;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
