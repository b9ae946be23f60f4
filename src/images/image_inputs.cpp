#include "images/image_inputs.h"

#include "images/evidence_image.h"
#include "images/image_error.h"
#include "platform/file_names.h"
#include "platform/raw_file.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

namespace qvx {

void SplitVolume(const std::string& APath, std::string& AImage, std::string& AVolume) {
  AImage = APath;
  AVolume.clear();
  struct stat st;
  if (::stat(APath.c_str(), &st) == 0) return;
  std::string image, volume, path;
  if (TEvidenceImage::SplitName(APath + "::/", image, volume, path)) {
    AImage = image;
    AVolume = volume;
    return;
  }
  const size_t at = APath.rfind('@');
  if (at == std::string::npos) return;
  AImage = APath.substr(0, at);
  AVolume = APath.substr(at + 1);
}

bool IsImageInput(const std::string& APath) {
  std::string image, volume;
  SplitVolume(APath, image, volume);
  struct stat st;
  return ::stat(image.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISBLK(st.st_mode));
}

namespace {

std::string Hex(uint64_t AValue) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(AValue));
  return text;
}

} // namespace

std::unique_ptr<TReadStream> OpenVolumeForScan(const std::string& APath, int64_t AOffset, bool AUnallocated,
                                               std::function<std::string(uint64_t)>* APositionText) {
  std::string imagePath, volumeName;
  SplitVolume(APath, imagePath, volumeName);
  const std::shared_ptr<TEvidenceImage> image = TEvidenceImage::Open(imagePath);
  const uint32_t copy = TEvidenceImage::TakeShadow(volumeName, imagePath);
  if (AOffset >= 0) {
    if (!volumeName.empty())
      RaiseImageError(imagePath, kNoOffset, "give the volume either as @" + volumeName + " or by --offset");
    volumeName = std::to_string(AOffset);
    volumeName.insert(volumeName.begin(), '+');
  }
  const TImageVolume& volume = image->Volume(volumeName);
  const std::string name = image->VolumeName(volume, copy);
  std::shared_ptr<const TReadStream> data =
      copy ? image->ShadowStream(volume, copy) : image->VolumeStream(volume);
  // A shadow copy's data lies nowhere in the image as such: its offsets are the copy's.
  const uint64_t start = volume.Offset;
  auto where = [copy, start](uint64_t AVolumeOffset) {
    return copy ? "copy offset " + Hex(AVolumeOffset)
                : "volume offset " + Hex(AVolumeOffset) + ", image offset " + Hex(start + AVolumeOffset);
  };
  if (!AUnallocated) {
    if (APositionText) *APositionText = where;
    return std::make_unique<TSubStream>(data, 0, data->Size(), name);
  }
  const std::shared_ptr<TNtfsVolume> ntfs = copy ? image->ShadowNtfs(volume, copy) : image->Ntfs(volume);
  std::vector<TExtentStream::TExtent> extents;
  for (const auto& [offset, length] : ntfs->UnallocatedRanges()) extents.push_back({offset, length});
  auto joined = std::make_shared<TExtentStream>(data, std::move(extents), name + " (unallocated clusters)");
  // The free clusters are read as one stream: its positions are mapped back to where
  // they lie, so that what is carved can be found.
  if (APositionText) *APositionText = [joined, where](uint64_t APosition) { return where(joined->BaseOffset(APosition)); };
  return std::make_unique<TSubStream>(joined, 0, joined->Size(), joined->Path());
}

std::vector<std::string> ImageLogsOf(const std::string& APath) {
  std::string imagePath, volumeName;
  SplitVolume(APath, imagePath, volumeName);
  const std::shared_ptr<TEvidenceImage> image = TEvidenceImage::Open(imagePath);
  const uint32_t copy = TEvidenceImage::TakeShadow(volumeName, imagePath);
  const TImageVolume& volume = image->Volume(volumeName);
  const std::shared_ptr<TNtfsVolume> ntfs = copy ? image->ShadowNtfs(volume, copy) : image->Ntfs(volume);
  const std::string prefix = imagePath + "@" + TEvidenceImage::VolumeRef(volume, copy) + "::";
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
  if (logs.empty()) {
    TNtfsEntry windows;
    RaiseImageError(image->VolumeName(volume, copy), kNoOffset,
                    ntfs->Find("/Windows", windows) && windows.Folder
                        ? "no .evtx or .evt logs in the Windows folder"
                        : "no Windows folder on this volume (name a folder of logs on it as " + prefix + "/FOLDER)");
  }
  return logs;
}

std::vector<std::string> ImageShadowsOf(const std::string& APath) {
  std::string imagePath, volumeName;
  SplitVolume(APath, imagePath, volumeName);
  const std::shared_ptr<TEvidenceImage> image = TEvidenceImage::Open(imagePath);
  if (TEvidenceImage::TakeShadow(volumeName, imagePath)) return {};
  const TImageVolume& volume = image->Volume(volumeName);
  std::vector<std::string> copies;
  for (const TShadowCopyInfo& c : image->Shadows(volume)->Copies())
    copies.push_back(imagePath + "@" + TEvidenceImage::VolumeRef(volume, c.Number));
  return copies;
}

std::string WithVolumeOffset(const std::string& APath, int64_t AOffset) {
  const std::string at = "@+" + std::to_string(AOffset);
  const size_t sep = APath.find("::");
  const std::string image = APath.substr(0, sep);
  struct stat st;
  if (::stat(image.c_str(), &st) != 0 || !(S_ISREG(st.st_mode) || S_ISBLK(st.st_mode))) {
    std::string split, volume, path;
    if (TEvidenceImage::SplitName(image + "::/", split, volume, path))
      throw std::runtime_error(APath + ": give the volume either as @" + volume + " or by --offset");
    throw std::runtime_error("--offset " + std::to_string(AOffset) + ": " + image +
                             " is no disk image file or device");
  }
  if (sep == std::string::npos) return APath + at;
  return image + at + APath.substr(sep);
}


namespace {

// True when the file begins as an event log or a store does, whatever its name.
bool HasLogSignature(const std::string& APath) {
  try {
    const TRawFile file = TRawFile::Open(APath);
    uint8_t head[16] = {};
    const size_t got = file.ReadAt(0, head, sizeof head);
    if (got >= 8 && std::memcmp(head, "ElfFile", 8) == 0) return true;
    if (got >= 8 && head[0] == 0x30 && head[1] == 0 && head[2] == 0 && head[3] == 0 && std::memcmp(head + 4, "LfLe", 4) == 0)
      return true;
    return got == 16 && std::memcmp(head, "SQLite format 3", 16) == 0;
  } catch (const std::exception&) {
    return false; // the log reader names the problem
  }
}

bool NamedAsLog(const std::string& APath) {
  std::string lower = APath.size() > 5 ? APath.substr(APath.size() - 5) : APath;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower.ends_with(".evtx") || lower.ends_with(".evt");
}

} // namespace

std::optional<TImageLogs> ExpandImageInput(const std::string& APath, bool AShadows) {
  if (APath.find("::") != std::string::npos || !IsImageInput(APath)) return std::nullopt;
  std::string imagePath, volumeName;
  SplitVolume(APath, imagePath, volumeName);
  if (volumeName.empty() && HasLogSignature(imagePath)) return std::nullopt;
  TImageLogs result;
  if (!AShadows) {
    try {
      result.Logs = ImageLogsOf(APath);
    } catch (const EImageError&) {
      // A log whose header is damaged is no image either: its reader says what is wrong.
      if (volumeName.empty() && NamedAsLog(imagePath)) return std::nullopt;
      throw;
    }
    result.Imaged = APath;
    return result;
  }
  // With shadow copies a damaged volume is reported and its copies still read: they may
  // hold the logs (and the MFT) as they were before the damage.
  std::string current; // why the volume itself cannot be read
  try {
    result.Logs = ImageLogsOf(APath);
    result.Imaged = APath;
  } catch (const EImageError& e) {
    if (volumeName.empty() && NamedAsLog(imagePath)) return std::nullopt;
    current = e.what();
  }
  std::vector<std::string> copies;
  try {
    copies = ImageShadowsOf(APath);
  } catch (const std::exception& e) {
    if (!current.empty()) throw std::runtime_error(current);
    result.Problems.push_back(e.what());
  }
  bool fromCopies = false;
  for (const std::string& copy : copies) {
    try {
      for (std::string& log : ImageLogsOf(copy)) {
        result.FromCopies.insert(log);
        result.Logs.push_back(std::move(log));
        fromCopies = true;
      }
      if (!current.empty()) result.Imaged = copy;
    } catch (const std::exception& e) {
      result.Problems.push_back(e.what());
    }
  }
  if (!current.empty()) {
    if (!fromCopies) throw std::runtime_error(current);
    result.Problems.push_back(current);
  }
  return result;
}

std::vector<std::string> FolderLogsOf(const std::string& AFolder) {
  namespace fs = std::filesystem;
  std::vector<std::string> logs;
  std::error_code error;
  fs::recursive_directory_iterator it(AFolder, fs::directory_options::skip_permission_denied, error), end;
  for (; !error && it != end; it.increment(error)) {
    std::error_code kind;
    if (NamedAsLog(it->path().filename().string()) && it->is_regular_file(kind)) logs.push_back(it->path().string());
  }
  if (error) throw std::runtime_error(AFolder + ": the folder cannot be read: " + error.message());
  if (logs.empty()) throw std::runtime_error(AFolder + ": no .evtx or .evt log in this folder or below it");
  std::sort(logs.begin(), logs.end());
  return logs;
}

std::vector<std::string> ImageFolderLogsOf(const std::string& AFolder) {
  std::vector<std::string> logs;
  std::string prefix, path;
  const std::shared_ptr<TFileSystem> fs = FileSystemOf(AFolder, prefix, path);
  if (!fs) return logs;
  // The depth is bounded as NTFS bounds a path's length, and the folders read by what a
  // volume holds: a damaged index may list a folder inside itself.
  constexpr size_t kMaxDepth = 128, kMaxFolders = 1'000'000;
  size_t read = 0;
  std::vector<std::pair<std::string, size_t>> folders{{path.empty() ? std::string("/") : path, 0}};
  while (!folders.empty()) {
    auto [folder, depth] = std::move(folders.back());
    folders.pop_back();
    if (++read > kMaxFolders)
      throw std::runtime_error(AFolder + ": more than " + std::to_string(kMaxFolders) +
                               " folders below it: the file system looks damaged");
    const std::string base = folder.ends_with('/') || folder.ends_with('\\') ? folder : folder + "/";
    for (const TFileSystem::TEntry& e : fs->List(folder)) {
      if (e.Name == "." || e.Name == "..") continue;
      if (e.Folder) {
        if (depth + 1 < kMaxDepth) folders.emplace_back(base + e.Name, depth + 1);
      } else if (NamedAsLog(e.Name) && e.Size > 0) { // an empty log holds nothing to load
        logs.push_back(prefix + base + e.Name);
      }
    }
  }
  std::sort(logs.begin(), logs.end());
  if (logs.empty()) throw std::runtime_error(AFolder + ": no .evtx or .evt log in this folder or below it");
  return logs;
}

std::optional<TImageLogs> ExpandInput(const std::string& APath, bool AShadows) {
  std::error_code error;
  if (APath.find("::") == std::string::npos && std::filesystem::is_directory(APath, error)) {
    TImageLogs result;
    result.Logs = FolderLogsOf(APath);
    return result;
  }
  if (APath.find("::") != std::string::npos) {
    // A folder inside an image stands for the logs in it and below it, as a folder does.
    std::string prefix, path;
    TFileSystem::TEntry entry;
    if (const std::shared_ptr<TFileSystem> fs = FileSystemOf(APath, prefix, path);
        fs && fs->Stat(path.empty() ? std::string("/") : path, entry) && entry.Folder) {
      TImageLogs result;
      result.Logs = ImageFolderLogsOf(APath);
      return result;
    }
  }
  return ExpandImageInput(APath, AShadows);
}

} // namespace qvx
