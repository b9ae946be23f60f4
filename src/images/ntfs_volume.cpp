#include "images/ntfs_volume.h"

#include "images/bfio_stream.h"
#include "images/image_error.h"
#include "platform/file_names.h"

#include <libfsntfs.h>

#include <algorithm>
#include <utility>

namespace qvx {

namespace {

libfsntfs_volume_t* Vol(void* AVolume) { return static_cast<libfsntfs_volume_t*>(AVolume); }

[[noreturn]] void Fail(libfsntfs_error_t*& AError, const std::string& AWhere, uint64_t AOffset, const std::string& AProblem) {
  RaiseLibyal(AError, libfsntfs_error_backtrace_sprint, libfsntfs_error_free, AWhere, AOffset, AProblem);
}

// Owns one libfsntfs file entry.
struct TEntryHandle {
  libfsntfs_file_entry_t* Entry = nullptr;
  TEntryHandle() = default;
  explicit TEntryHandle(libfsntfs_file_entry_t* AEntry) : Entry(AEntry) {}
  TEntryHandle(TEntryHandle&& AOther) noexcept : Entry(std::exchange(AOther.Entry, nullptr)) {}
  TEntryHandle& operator=(TEntryHandle&& AOther) noexcept {
    std::swap(Entry, AOther.Entry);
    return *this;
  }
  ~TEntryHandle() {
    if (!Entry) return;
    libfsntfs_error_t* error = nullptr;
    libfsntfs_file_entry_free(&Entry, &error);
    libfsntfs_error_free(&error);
  }
};

std::string NameOf(libfsntfs_file_entry_t* AEntry) {
  libfsntfs_error_t* error = nullptr;
  size_t size = 0;
  if (libfsntfs_file_entry_get_utf8_name_size(AEntry, &size, &error) != 1 || size == 0 || size > 4096) {
    libfsntfs_error_free(&error);
    return {};
  }
  std::string name(size, '\0');
  if (libfsntfs_file_entry_get_utf8_name(AEntry, reinterpret_cast<uint8_t*>(name.data()), size, &error) != 1) {
    libfsntfs_error_free(&error);
    return {};
  }
  name.resize(size - 1);
  return name;
}

TNtfsEntry InfoOf(libfsntfs_file_entry_t* AEntry) {
  TNtfsEntry info;
  info.Name = NameOf(AEntry);
  libfsntfs_error_t* error = nullptr;
  info.Folder = libfsntfs_file_entry_has_directory_entries_index(AEntry, &error) == 1;
  size64_t size = 0;
  if (!info.Folder && libfsntfs_file_entry_get_size(AEntry, &size, &error) == 1) info.Size = size;
  libfsntfs_error_free(&error);
  return info;
}

std::vector<std::string> Parts(const std::string& APath) {
  std::vector<std::string> parts;
  std::string part;
  for (const char c : APath) {
    if (c == '/' || c == '\\') {
      if (!part.empty() && part != ".") parts.push_back(part);
      part.clear();
    } else {
      part.push_back(c);
    }
  }
  if (!part.empty() && part != ".") parts.push_back(part);
  return parts;
}

} // namespace

// A file's default data stream, read through the volume's lock.
class TNtfsVolume::TFile : public TReadStream {
public:
  TFile(std::shared_ptr<TNtfsVolume> AVolume, TEntryHandle AEntry, std::string AName)
      : FVolume(std::move(AVolume)), FEntry(std::move(AEntry)), FName(std::move(AName)) {
    libfsntfs_error_t* error = nullptr;
    size64_t size = 0;
    if (libfsntfs_file_entry_get_size(FEntry.Entry, &size, &error) != 1) Fail(error, FName, kNoOffset, "no file size");
    FSize = size;
  }
  ~TFile() override {
    std::lock_guard<std::recursive_mutex> lock(FVolume->FLock);
    FEntry = TEntryHandle();
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FSize) return 0;
    ALength = static_cast<size_t>(std::min<uint64_t>(ALength, FSize - AOffset));
    std::lock_guard<std::recursive_mutex> lock(FVolume->FLock);
    libfsntfs_error_t* error = nullptr;
    const ssize_t got = libfsntfs_file_entry_read_buffer_at_offset(FEntry.Entry, ABuffer, ALength,
                                                                   static_cast<off64_t>(AOffset), &error);
    if (got < 0)
      Fail(error, FName, AOffset,
           FVolume->FMissingPart.empty() ? "cannot read the file's data" : "cannot read the file's data; " + FVolume->FMissingPart);
    return static_cast<size_t>(got);
  }
  uint64_t Size() const override { return FSize; }
  bool ParallelReads() const override { return false; } // the volume's lock
  const std::string& Path() const override { return FName; }

private:
  std::shared_ptr<TNtfsVolume> FVolume;
  TEntryHandle FEntry;
  std::string FName;
  uint64_t FSize = 0;
};

std::shared_ptr<TNtfsVolume> TNtfsVolume::Open(std::shared_ptr<const TReadStream> AStream, const std::string& AName) {
  std::shared_ptr<TNtfsVolume> volume(new TNtfsVolume());
  volume->FName = AName;
  volume->FStream = AStream;
  volume->FBfio = std::make_unique<TBfioHandle>(AStream);
  libfsntfs_error_t* error = nullptr;
  libfsntfs_volume_t* handle = nullptr;
  if (libfsntfs_volume_initialize(&handle, &error) != 1) Fail(error, AName, kNoOffset, "cannot set up the NTFS reader");
  volume->FVolume = handle;
  if (libfsntfs_volume_open_file_io_handle(handle, volume->FBfio->Get(), LIBFSNTFS_OPEN_READ, &error) != 1) {
    const std::string detail = detail::LibyalText(error, libfsntfs_error_backtrace_sprint, libfsntfs_error_free);
    uint8_t boot[11] = {};
    if (AStream->ReadAt(0, boot, sizeof boot) == sizeof boot && std::string_view(reinterpret_cast<char*>(boot) + 3, 8) == "-FVE-FS-")
      RaiseImageError(AName, kNoOffset, "BitLocker-encrypted volume; reading it needs libbde, not supported yet");
    RaiseImageError(AName, kNoOffset, "NTFS volume whose boot sector or MFT cannot be read", detail);
  }
  if (libfsntfs_volume_has_bitlocker_drive_encryption(handle, &error) == 1)
    RaiseImageError(AName, kNoOffset, "BitLocker-encrypted volume; reading it needs libbde, not supported yet");
  size32_t cluster = 0;
  if (libfsntfs_volume_get_cluster_block_size(handle, &cluster, &error) == 1) volume->FClusterSize = cluster;
  libfsntfs_error_free(&error);
  return volume;
}

TNtfsVolume::~TNtfsVolume() {
  CloseFolders();
  libfsntfs_error_t* error = nullptr;
  if (FVolume) {
    libfsntfs_volume_t* handle = Vol(FVolume);
    libfsntfs_volume_close(handle, &error);
    libfsntfs_volume_free(&handle, &error);
  }
  libfsntfs_error_free(&error);
}

std::string TNtfsVolume::Label() {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  libfsntfs_error_t* error = nullptr;
  uint8_t name[256] = {};
  if (libfsntfs_volume_get_utf8_name(Vol(FVolume), name, sizeof name, &error) != 1) libfsntfs_error_free(&error);
  return reinterpret_cast<const char*>(name);
}

void* TNtfsVolume::SubEntry(void* AFolder, const std::string& AName) {
  auto* folder = static_cast<libfsntfs_file_entry_t*>(AFolder);
  libfsntfs_error_t* error = nullptr;
  libfsntfs_file_entry_t* sub = nullptr;
  const int found = libfsntfs_file_entry_get_sub_file_entry_by_utf8_name(
      folder, reinterpret_cast<const uint8_t*>(AName.data()), AName.size(), &sub, &error);
  libfsntfs_error_free(&error);
  if (found == 1) return sub;
  // Windows ignores case in names; the registry and users write them as they like.
  const std::vector<TFolderName>& names = FolderNames(folder);
  const std::string folded = FoldCase(AName);
  const auto at = std::lower_bound(names.begin(), names.end(), folded,
                                   [](const TFolderName& AEntry, const std::string& AFolded) { return AEntry.Folded < AFolded; });
  if (at == names.end() || at->Folded != folded) return nullptr;
  sub = nullptr;
  if (libfsntfs_file_entry_get_sub_file_entry_by_index(folder, at->Index, &sub, &error) != 1) {
    libfsntfs_error_free(&error);
    return nullptr;
  }
  return sub;
}

void TNtfsVolume::CloseFolders() {
  for (auto& [path, entry] : FFolders) TEntryHandle closed(static_cast<libfsntfs_file_entry_t*>(entry));
  FFolders.clear();
}

void* TNtfsVolume::Entry(const std::string& APath) {
  // libfsntfs reads a folder's whole index when it opens the folder: the folders on the
  // paths looked up stay open (by their path in one case), or a System32 of thousands of
  // files would be read again for every message file opened in it.
  if (FFolders.size() > kMaxOpenFolders) CloseFolders();
  libfsntfs_error_t* error = nullptr;
  const std::vector<std::string> parts = Parts(APath);
  std::string key;
  auto it = FFolders.find(key);
  if (it == FFolders.end()) {
    libfsntfs_file_entry_t* root = nullptr;
    if (libfsntfs_volume_get_root_directory(Vol(FVolume), &root, &error) != 1) Fail(error, FName, kNoOffset, "no root folder");
    it = FFolders.emplace(key, root).first;
  }
  void* folder = it->second;
  if (parts.empty()) {
    libfsntfs_file_entry_t* root = nullptr;
    if (libfsntfs_volume_get_root_directory(Vol(FVolume), &root, &error) != 1) Fail(error, FName, kNoOffset, "no root folder");
    return root;
  }
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    key.append(1, '/').append(FoldCase(parts[i]));
    if (auto open = FFolders.find(key); open != FFolders.end()) {
      folder = open->second;
      continue;
    }
    void* sub = SubEntry(folder, parts[i]);
    if (!sub) return nullptr;
    FFolders.emplace(key, sub);
    folder = sub;
  }
  return SubEntry(folder, parts.back());
}

const std::vector<TNtfsVolume::TFolderName>& TNtfsVolume::FolderNames(void* AFolder) {
  auto* folder = static_cast<libfsntfs_file_entry_t*>(AFolder);
  libfsntfs_error_t* error = nullptr;
  uint64_t reference = 0;
  if (libfsntfs_file_entry_get_file_reference(folder, &reference, &error) != 1) {
    libfsntfs_error_free(&error);
    reference = ~uint64_t{0}; // not kept: built for this lookup only
  }
  if (auto it = FFolderNames.find(reference); it != FFolderNames.end() && reference != ~uint64_t{0}) return it->second;
  std::vector<TFolderName> names;
  int count = 0;
  if (libfsntfs_file_entry_get_number_of_sub_file_entries(folder, &count, &error) != 1) libfsntfs_error_free(&error);
  names.reserve(static_cast<size_t>(std::max(count, 0)));
  for (int i = 0; i < count; ++i) {
    libfsntfs_file_entry_t* sub = nullptr;
    if (libfsntfs_file_entry_get_sub_file_entry_by_index(folder, i, &sub, &error) != 1) {
      libfsntfs_error_free(&error);
      continue;
    }
    TEntryHandle child(sub);
    names.push_back({FoldCase(NameOf(sub)), i});
  }
  // The first of names that differ only in case, as a lookup in index order found it.
  std::stable_sort(names.begin(), names.end(), [](const TFolderName& a, const TFolderName& b) { return a.Folded < b.Folded; });
  // The names of a few large folders are kept (System32 holds thousands); past the bound
  // the index starts again.
  if (FIndexedNames + names.size() > kMaxIndexedNames) {
    FFolderNames.clear();
    FIndexedNames = 0;
  }
  FIndexedNames += names.size();
  std::vector<TFolderName>& kept = FFolderNames[reference];
  kept = std::move(names);
  return kept;
}

bool TNtfsVolume::Find(const std::string& APath, TNtfsEntry& AEntry) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  TEntryHandle entry(static_cast<libfsntfs_file_entry_t*>(Entry(APath)));
  if (!entry.Entry) return false;
  AEntry = InfoOf(entry.Entry);
  return true;
}

std::vector<TNtfsEntry> TNtfsVolume::List(const std::string& APath) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  std::vector<TNtfsEntry> entries;
  TEntryHandle folder(static_cast<libfsntfs_file_entry_t*>(Entry(APath)));
  if (!folder.Entry) return entries;
  libfsntfs_error_t* error = nullptr;
  int count = 0;
  if (libfsntfs_file_entry_get_number_of_sub_file_entries(folder.Entry, &count, &error) != 1) libfsntfs_error_free(&error);
  for (int i = 0; i < count; ++i) {
    libfsntfs_file_entry_t* sub = nullptr;
    if (libfsntfs_file_entry_get_sub_file_entry_by_index(folder.Entry, i, &sub, &error) != 1) {
      libfsntfs_error_free(&error);
      continue;
    }
    TEntryHandle child(sub);
    TNtfsEntry info = InfoOf(sub);
    if (!info.Name.empty() && info.Name != "." && info.Name != "..") entries.push_back(std::move(info));
  }
  return entries;
}

std::unique_ptr<TReadStream> TNtfsVolume::OpenFile(const std::string& APath) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  const std::string name = FName + "::" + APath;
  TEntryHandle entry(static_cast<libfsntfs_file_entry_t*>(Entry(APath)));
  if (!entry.Entry)
    RaiseImageError(name, kNoOffset,
                    FMissingPart.empty() ? "no such file on the volume"
                                         : "no such file on the volume; " + FMissingPart + " and the file may lie in the part that is missing");
  libfsntfs_error_t* error = nullptr;
  if (libfsntfs_file_entry_has_directory_entries_index(entry.Entry, &error) == 1)
    RaiseImageError(name, kNoOffset, "is a folder");
  libfsntfs_error_free(&error);
  return std::make_unique<TFile>(shared_from_this(), std::move(entry), name);
}

std::vector<std::pair<uint64_t, uint64_t>> TNtfsVolume::UnallocatedRanges() {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  constexpr uint64_t kBitmapEntry = 6; // $Bitmap: one bit per cluster, set when in use
  libfsntfs_error_t* error = nullptr;
  libfsntfs_file_entry_t* raw = nullptr;
  if (libfsntfs_volume_get_file_entry_by_index(Vol(FVolume), kBitmapEntry, &raw, &error) != 1)
    Fail(error, FName, kNoOffset, "cannot read the cluster bitmap ($Bitmap)");
  TEntryHandle bitmap(raw);
  size64_t size = 0;
  if (libfsntfs_file_entry_get_size(raw, &size, &error) != 1) Fail(error, FName, kNoOffset, "no size of $Bitmap");
  const uint64_t clusters = FClusterSize ? FStream->Size() / FClusterSize : 0;
  // The bitmap is rounded up to 8 bytes; bits past the last cluster are not clusters.
  const uint64_t bytes = std::min<uint64_t>(size, (clusters + 7) / 8);
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  std::vector<uint8_t> block(1 << 20);
  uint64_t runStart = 0;
  bool inRun = false;
  for (uint64_t at = 0; at < bytes; at += block.size()) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(block.size(), bytes - at));
    const ssize_t got = libfsntfs_file_entry_read_buffer_at_offset(raw, block.data(), want, static_cast<off64_t>(at), &error);
    if (got != static_cast<ssize_t>(want)) Fail(error, FName, at, "cannot read the cluster bitmap ($Bitmap)");
    for (size_t i = 0; i < want; ++i) {
      for (unsigned bit = 0; bit < 8; ++bit) {
        const uint64_t cluster = (at + i) * 8 + bit;
        if (cluster >= clusters) break;
        const bool used = (block[i] >> bit) & 1;
        if (!used && !inRun) {
          runStart = cluster;
          inRun = true;
        } else if (used && inRun) {
          ranges.emplace_back(runStart * FClusterSize, (cluster - runStart) * FClusterSize);
          inRun = false;
        }
      }
    }
  }
  if (inRun) ranges.emplace_back(runStart * FClusterSize, (clusters - runStart) * FClusterSize);
  return ranges;
}

} // namespace qvx
