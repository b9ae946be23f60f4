// quorvex imaged IMAGE and the image parts of scan: what a disk image holds, and the
// data of one of its volumes.
#include "app/commands.h"

#include "engine/evtx/evtx_time.h"
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

// A FILETIME as ISO 8601 UTC to the second: "2024-03-01T10:20:30Z".
std::string UtcText(uint64_t AFiletime) {
  if (AFiletime == 0) return "(no time)";
  std::string text = FiletimeToText(AFiletime);
  if (const size_t dot = text.find('.'); dot != std::string::npos) {
    text.resize(dot);
    text.push_back('Z');
  }
  return text;
}

// Lists the shadow copies of an NTFS volume; false when their catalog cannot be read
// (the reason goes to AErr).
bool ListShadows(TEvidenceImage& AImage, const TImageVolume& AVolume, std::FILE* AOut, std::FILE* AErr) {
  try {
    const std::shared_ptr<TShadowCopies> copies = AImage.Shadows(AVolume);
    if (copies->Count() == 0) {
      std::fprintf(AOut, "  Shadow copies    none\n");
      return true;
    }
    std::fprintf(AOut, "  Shadow copies (%u)\n", copies->Count());
    bool readable = true;
    for (const TShadowCopyInfo& c : copies->Copies()) {
      // The first sector read through the store shows whether the copy can be read at all.
      std::string damage;
      try {
        uint8_t sector[512];
        AImage.ShadowStream(AVolume, c.Number)->ReadAt(0, sector, sizeof sector);
      } catch (const EImageError& e) {
        damage = e.what();
      }
      std::fprintf(AOut, "    vss%-3u %-20s  %s@%s::/%s\n", c.Number, UtcText(c.CreationTime).c_str(),
                   AImage.Path().c_str(), TEvidenceImage::VolumeRef(AVolume, c.Number).c_str(),
                   damage.empty() ? "" : "  (cannot be read)");
      if (!damage.empty()) {
        std::fprintf(AErr, "quorvex: %s\n", damage.c_str());
        readable = false;
      }
    }
    return readable;
  } catch (const EImageError& e) {
    std::fprintf(AOut, "  Shadow copies    (cannot be read)\n");
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return false;
  }
}

} // namespace

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
                   !v.Unreadable.empty() ? "unreadable" : v.FileSystem.empty() ? "-" : v.FileSystem.c_str(), v.Type.c_str());
    // A volume named on the command line raises why below instead.
    for (const TImageVolume& v : image->Volumes())
      if (!v.Unreadable.empty() && volumeName.empty()) std::fprintf(AErr, "quorvex: warning: %s: %s\n", image->VolumeName(v).c_str(), v.Unreadable.c_str());
    int status = 0;
    // IMAGE@VOLUME (or --offset) details that volume only, IMAGE@VOLUME:vssN its copy.
    const uint32_t copy = TEvidenceImage::TakeShadow(volumeName, imagePath);
    std::vector<TImageVolume> detailed = image->Volumes();
    if (!volumeName.empty() || copy) detailed = {image->Volume(volumeName)};
    for (const TImageVolume& v : detailed) {
      if (v.FileSystem != "NTFS" && v.FileSystem != "BitLocker") {
        if (detailed.size() == 1) image->Ntfs(v); // raises why the named volume is not readable
        continue;
      }
      const std::string ref = TEvidenceImage::VolumeRef(v, copy);
      if (v.Number)
        std::fprintf(AOut, "\nVolume %u (%s)%s\n", v.Number, v.FileSystem.c_str(),
                     copy ? (", shadow copy " + std::to_string(copy)).c_str() : "");
      else
        std::fprintf(AOut, "\nVolume at offset %llu (%s)%s\n", static_cast<unsigned long long>(v.Offset),
                     v.FileSystem.c_str(), copy ? (", shadow copy " + std::to_string(copy)).c_str() : "");
      try {
        const std::shared_ptr<TNtfsVolume> ntfs = copy ? image->ShadowNtfs(v, copy) : image->Ntfs(v);
        const std::string label = ntfs->Label();
        if (!label.empty()) std::fprintf(AOut, "  Label            %s\n", label.c_str());
        TNtfsEntry windows;
        if (!ntfs->Find("/Windows", windows) || !windows.Folder) {
          std::fprintf(AOut, "  Windows folder   (none)\n");
          if (!copy && !ListShadows(*image, v, AOut, AErr)) status = 1;
          continue;
        }
        std::fprintf(AOut, "  Windows folder   %s@%s::/%s\n", image->Path().c_str(), ref.c_str(),
                     windows.Name.c_str());
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
        if (!copy && !ListShadows(*image, v, AOut, AErr)) status = 1;
      } catch (const EImageError& e) {
        std::fprintf(AErr, "quorvex: %s\n", e.what());
        status = 1;
        // The copies of a damaged volume may still hold it as it was.
        if (!copy && v.FileSystem == "NTFS" && !ListShadows(*image, v, AOut, AErr)) status = 1;
      }
    }
    for (const std::string& warning : TEvidenceImage::TakeWarnings()) std::fprintf(AErr, "quorvex: warning: %s\n", warning.c_str());
    return status;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
