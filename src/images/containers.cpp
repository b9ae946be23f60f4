#include "images/containers.h"

#include "images/adler32.h"
#include "images/image_error.h"
#include "platform/raw_file.h"

#include <libewf.h>
#include <libqcow.h>
#include <libsmraw.h>
#include <libvhdi.h>
#include <libvmdk.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <utility>

namespace qvx {

const char* ContainerName(TContainerFormat AFormat) {
  switch (AFormat) {
  case TContainerFormat::cfRaw: return "raw";
  case TContainerFormat::cfSplitRaw: return "split raw";
  case TContainerFormat::cfEwf: return "EWF (E01)";
  case TContainerFormat::cfVhd: return "VHD";
  case TContainerFormat::cfVhdx: return "VHDX";
  case TContainerFormat::cfVmdk: return "VMDK";
  case TContainerFormat::cfQcow: return "QCOW";
  }
  return "?";
}

TContainerFormat DetectContainer(const std::string& APath) {
  const TRawFile file = TRawFile::Open(APath);
  uint8_t head[32] = {};
  const size_t got = file.ReadAt(0, head, sizeof head);
  auto starts = [&](const char* AMagic, size_t ALength) { return got >= ALength && std::memcmp(head, AMagic, ALength) == 0; };
  if (starts("EVF\x09\x0D\x0A\xFF\x00", 8) || starts("EVF2\x0D\x0A\x81\x00", 8)) return TContainerFormat::cfEwf;
  if (starts("vhdxfile", 8)) return TContainerFormat::cfVhdx;
  if (starts("conectix", 8)) return TContainerFormat::cfVhd; // dynamic and differencing VHD
  if (starts("KDMV", 4) || starts("COWD", 4) || starts("# Disk DescriptorFile", 21)) return TContainerFormat::cfVmdk;
  if (starts("QFI\xFB", 4)) return TContainerFormat::cfQcow;
  // A fixed VHD is raw data with its footer in the last 512 bytes.
  if (file.Size() >= 512 && !file.IsDevice()) {
    uint8_t footer[8] = {};
    if (file.ReadAt(file.Size() - 512, footer, 8) == 8 && std::memcmp(footer, "conectix", 8) == 0)
      return TContainerFormat::cfVhd;
  }
  // image.001 with image.002 beside it: a raw image cut into pieces (with image.003 it
  // is one too, whose second piece is lost: opening it says so).
  if (APath.size() > 4 && APath.ends_with(".001")) {
    std::error_code error;
    const std::string stem = APath.substr(0, APath.size() - 3);
    if (std::filesystem::exists(stem + "002", error) || std::filesystem::exists(stem + "003", error))
      return TContainerFormat::cfSplitRaw;
  }
  return TContainerFormat::cfRaw;
}

namespace {

// Owns one libyal handle: closes and frees it when the container goes, and also when
// the container's constructor raises after the handle was made (a differencing disk
// whose parent is missing, a truncated E01), which a destructor would not see.
template <class THandle, class TError, int (*Close)(THandle*, TError**), int (*Free)(THandle**, TError**),
          void (*FreeError)(TError**)>
struct TLibyalHandle {
  THandle* Handle = nullptr;
  TLibyalHandle() = default;
  TLibyalHandle(const TLibyalHandle&) = delete;
  TLibyalHandle& operator=(const TLibyalHandle&) = delete;
  ~TLibyalHandle() {
    if (!Handle) return;
    TError* error = nullptr;
    Close(Handle, &error); // fails harmlessly on a handle that was never opened
    FreeError(&error);
    Free(&Handle, &error);
    FreeError(&error);
  }
};

// A raw image: the file itself, read without a library.
class TRawContainer : public TContainer {
public:
  explicit TRawContainer(const std::string& APath) : TContainer(APath, TContainerFormat::cfRaw), FFile(TRawFile::Open(APath)) {
    FMediaSize = FFile.Size();
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override { return FFile.ReadAt(AOffset, ABuffer, ALength); }
  bool ParallelReads() const override { return true; }

private:
  TRawFile FFile;
};

// The name of the segment file after AName in its set: "disk.E04" gives "disk.E05",
// "disk.E99" gives "disk.EAA" (the names EnCase goes on with), "disk.EAZ" gives
// "disk.EBA", "image.009" gives "image.010"; "" when the name has no step left.
std::string NextSegmentName(const std::string& AName) {
  const size_t dot = AName.rfind('.');
  if (dot == std::string::npos || dot + 1 >= AName.size()) return {};
  std::string next = AName;
  const size_t first = dot + 1, last = next.size() - 1;
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  auto isLetter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
  // E99: the digits are used up and two letters follow the first.
  if (last - first == 2 && isLetter(next[first]) && next[first + 1] == '9' && next[last] == '9') {
    const char a = next[first] >= 'a' ? 'a' : 'A';
    next[first + 1] = a;
    next[last] = a;
    return next;
  }
  for (size_t i = last + 1; i-- > first;) {
    char& c = next[i];
    if (isDigit(c)) {
      if (c != '9') {
        ++c;
        return next;
      }
      c = '0';
    } else if (isLetter(c)) {
      if (c != 'Z' && c != 'z') {
        ++c;
        return next;
      }
      c = c == 'Z' ? 'A' : 'a';
    } else {
      return {};
    }
  }
  return {};
}

std::string Hex(uint64_t AValue) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(AValue));
  return text;
}

std::string FileNameOf(const std::string& APath) { return std::filesystem::path(APath).filename().string(); }

bool FileExists(const std::string& APath) {
  std::error_code error;
  return std::filesystem::exists(APath, error);
}

// A set of segment files or split raw pieces found by name stops at the first one
// missing: a piece beyond it means the one in between is lost. What to say of it, or "".
std::string GapNote(const std::string& ALast, const char* APiece) {
  const std::string missing = NextSegmentName(ALast);
  if (missing.empty() || FileExists(missing)) return {};
  const std::string after = NextSegmentName(missing);
  if (after.empty() || !FileExists(after)) return {};
  return std::string(APiece) + " " + FileNameOf(missing) + " is missing (" + FileNameOf(after) + " follows it)";
}

// --- EWF (libewf) -------------------------------------------------------------------
//
// The last section descriptor of an EWF-E01 segment file (its final 76 bytes) says
// whether more segment files follow:
//   offset  size  field
//   0x00    16    section type: "next" (more follow) or "done" (the last one)
//   0x10    8     offset of the next section (this one again)
//   0x18    8     section size (76)
//   0x48    4     Adler-32 of the bytes before it
inline constexpr size_t kEwfSectionDescriptorSize = 76;

// Why a set of segment files whose last is ALast does not hold all of the media: a segment file missing after ALast, or ALast cut short.
std::string EwfMissingSegment(const std::string& ALast) {
  const std::string next = NextSegmentName(ALast);
  std::string type;
  try {
    const TRawFile file = TRawFile::Open(ALast);
    char last[kEwfSectionDescriptorSize] = {};
    if (file.Size() >= sizeof last && file.ReadAt(file.Size() - sizeof last, last, sizeof last) == sizeof last)
      type.assign(last, strnlen(last, 16));
  } catch (const std::exception&) {
    // told apart below as a file that ends in neither section
  }
  if (type == "next" && !next.empty())
    return "segment file " + FileNameOf(next) + " is missing (" + FileNameOf(ALast) + " says more follow)";
  if (type == "done") return "the segment files do not hold all of the media";
  return FileNameOf(ALast) + " is cut short, or the segment file after it is missing";
}

} // namespace

} // namespace qvx

// libewf checks the Adler-32 of every chunk it reads that is stored uncompressed, through
// zlib's adler32, one byte at a time: on an image acquired without compression that was
// two thirds of what reading a log from the image costs over reading it from a folder. The images library links with
// --wrap=adler32 (src/images/CMakeLists.txt), which sends the calls of the libyal code
// linked into the program here: the same checksum, computed 32 bytes at a time. zlib's
// own calls (inflate) are not affected. Defined in this file because it is the one that
// links libewf in, so it is always linked into a program that calls adler32 through libewf.
extern "C" unsigned long __wrap_adler32(unsigned long AAdler, const unsigned char* AData, unsigned int ALength) {
  if (!AData) return 1; // zlib: the initial value
  return qvx::Adler32(static_cast<uint32_t>(AAdler), AData, ALength);
}

namespace qvx {

namespace {

class TEwfImage : public TContainer {
public:
  explicit TEwfImage(const std::string& APath) : TContainer(APath, TContainerFormat::cfEwf) {
    libewf_error_t* error = nullptr;
    char** names = nullptr;
    int count = 0;
    if (libewf_glob(APath.c_str(), APath.size(), LIBEWF_FORMAT_UNKNOWN, &names, &count, &error) != 1)
      Fail(error, kNoOffset, "cannot find the segment files");
    struct TNames {
      char** Names;
      int Count;
      ~TNames() {
        libewf_error_t* e = nullptr;
        libewf_glob_free(Names, Count, &e);
        libewf_error_free(&e);
      }
    } globbed{names, count};
    FSegments = count > 1 ? count : 0;
    if (libewf_handle_initialize(&FHandle.Handle, &error) != 1) Fail(error, kNoOffset, "cannot set up the EWF reader");
    if (libewf_handle_open(FHandle.Handle, names, count, LIBEWF_OPEN_READ, &error) != 1)
      Fail(error, kNoOffset, "not a readable EWF image");
    size64_t size = 0;
    if (libewf_handle_get_media_size(FHandle.Handle, &size, &error) != 1) Fail(error, kNoOffset, "no media size");
    FMediaSize = size;
    // libewf opens a set whose later segment files are missing and reads their chunks
    // as checksum errors: what the others hold is read, and the loss is told.
    if (count > 0 && libewf_handle_segment_files_corrupted(FHandle.Handle, &error) == 1)
      FMissingPart = EwfMissingSegment(names[count - 1]);
    libewf_error_free(&error);
    if (count > 0 && FMissingPart.empty()) FMissingPart = GapNote(names[count - 1], "segment file");
    uint32_t sectorSize = 0;
    if (libewf_handle_get_bytes_per_sector(FHandle.Handle, &sectorSize, &error) == 1 && sectorSize > 0) FSectorSize = sectorSize;
    libewf_error_free(&error);
    uint8_t md5[64] = {};
    if (libewf_handle_get_utf8_hash_value_md5(FHandle.Handle, md5, sizeof md5, &error) == 1)
      FStoredHash = "MD5 " + std::string(reinterpret_cast<const char*>(md5));
    libewf_error_free(&error);
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FMediaSize) return 0;
    std::lock_guard<std::mutex> lock(FLock);
    libewf_error_t* error = nullptr;
    const ssize_t got = libewf_handle_read_random(FHandle.Handle, ABuffer, ALength, static_cast<off64_t>(AOffset), &error);
    if (got < 0) Fail(error, AOffset, "cannot read the media data");
    return static_cast<size_t>(got);
  }

  // libewf keeps the sectors of every chunk that failed its checksum as it read them
  // (and gives their data as stored); ranges it widens later are told for their new part.
  std::vector<std::string> TakeWarnings() override {
    std::lock_guard<std::mutex> lock(FLock);
    std::vector<std::string> warnings;
    if (!FMissingPart.empty() && !std::exchange(FMissingTold, true))
      warnings.push_back(FPath + ": " + FMissingPart + "; reading what the others hold");
    libewf_error_t* error = nullptr;
    uint32_t count = 0;
    if (libewf_handle_get_number_of_checksum_errors(FHandle.Handle, &count, &error) != 1) {
      libewf_error_free(&error);
      return warnings;
    }
    for (uint32_t i = 0; i < count && FTold.size() < kMaxToldRanges; ++i) {
      uint64_t first = 0, sectors = 0;
      if (libewf_handle_get_checksum_error(FHandle.Handle, i, &first, &sectors, &error) != 1) {
        libewf_error_free(&error);
        continue;
      }
      if (first >= FMediaSize / FSectorSize) continue;
      const uint64_t start = first * FSectorSize;
      const uint64_t end = sectors > (FMediaSize - start) / FSectorSize ? FMediaSize : start + sectors * FSectorSize;
      uint64_t at = start;
      if (auto it = FTold.upper_bound(at); it != FTold.begin() && std::prev(it)->second > at) at = std::prev(it)->second;
      while (at < end && FTold.size() < kMaxToldRanges) {
        const auto next = FTold.lower_bound(at);
        const uint64_t stop = next == FTold.end() ? end : std::min(end, next->first);
        if (stop > at) {
          FTold.emplace(at, stop);
          warnings.push_back(FPath + ": media bytes " + Hex(at) + " to " + Hex(stop - 1) +
                             " fail the checksum of their chunk; read as stored");
        }
        if (next == FTold.end() || next->first >= end) break;
        at = std::max(at, next->second);
      }
    }
    if (FTold.size() >= kMaxToldRanges && !FToldLimit) {
      FToldLimit = true;
      warnings.push_back(FPath + ": more chunks fail their checksum; not listed");
    }
    return warnings;
  }

private:
  static constexpr size_t kMaxToldRanges = 1000;
  [[noreturn]] void Fail(libewf_error_t*& AError, uint64_t AOffset, const char* AProblem) const {
    RaiseLibyal(AError, libewf_error_backtrace_sprint, libewf_error_free, FPath, AOffset, AProblem);
  }
  TLibyalHandle<libewf_handle_t, libewf_error_t, libewf_handle_close, libewf_handle_free, libewf_error_free> FHandle;
  mutable std::mutex FLock;
  uint64_t FSectorSize = 512;
  std::map<uint64_t, uint64_t> FTold; // media ranges told as failing their checksum: start, end
  bool FToldLimit = false;
};

// --- VHD and VHDX (libvhdi) ---------------------------------------------------------

class TVhdiImage : public TContainer {
public:
  TVhdiImage(const std::string& APath, int ADepth) : TContainer(APath, TContainerFormat::cfVhd) {
    libvhdi_error_t* error = nullptr;
    if (libvhdi_file_initialize(&FFile.Handle, &error) != 1) Fail(error, "cannot set up the VHD reader");
    if (libvhdi_file_open(FFile.Handle, APath.c_str(), LIBVHDI_OPEN_READ, &error) != 1) Fail(error, "not a readable VHD or VHDX image");
    int type = 0;
    if (libvhdi_file_get_file_type(FFile.Handle, &type, &error) == 1 && type == LIBVHDI_FILE_TYPE_VHDX) FFormat = TContainerFormat::cfVhdx;
    libvhdi_error_free(&error);
    uint32_t disk = 0;
    if (libvhdi_file_get_disk_type(FFile.Handle, &disk, &error) == 1 && disk == LIBVHDI_DISK_TYPE_DIFFERENTIAL) OpenParent(ADepth);
    libvhdi_error_free(&error);
    size64_t size = 0;
    if (libvhdi_file_get_media_size(FFile.Handle, &size, &error) != 1) Fail(error, "no media size");
    FMediaSize = size;
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FMediaSize) return 0;
    std::lock_guard<std::mutex> lock(FLock);
    libvhdi_error_t* error = nullptr;
    const ssize_t got = libvhdi_file_read_buffer_at_offset(FFile.Handle, ABuffer, ALength, static_cast<off64_t>(AOffset), &error);
    if (got < 0) RaiseLibyal(error, libvhdi_error_backtrace_sprint, libvhdi_error_free, FPath, AOffset, "cannot read the media data");
    return static_cast<size_t>(got);
  }

private:
  // A differencing disk reads unchanged blocks from its parent, found beside it by the
  // name the child records.
  void OpenParent(int ADepth) {
    libvhdi_error_t* error = nullptr;
    uint8_t name[1024] = {};
    if (libvhdi_file_get_utf8_parent_filename(FFile.Handle, name, sizeof name, &error) != 1)
      Fail(error, "differencing disk without a parent name");
    std::string parent(reinterpret_cast<const char*>(name));
    const size_t slash = parent.find_last_of("/\\");
    if (slash != std::string::npos) parent.erase(0, slash + 1);
    const std::filesystem::path beside = std::filesystem::path(FPath).parent_path() / parent;
    std::error_code exists;
    if (ADepth > 16) RaiseImageError(FPath, kNoOffset, "differencing disks nested too deep");
    if (!std::filesystem::exists(beside, exists))
      RaiseImageError(FPath, kNoOffset, "differencing disk whose parent " + parent + " is missing (looked beside it)");
    FParent = std::make_unique<TVhdiImage>(beside.string(), ADepth + 1);
    if (libvhdi_file_set_parent_file(FFile.Handle, FParent->FFile.Handle, &error) != 1) Fail(error, "cannot use the parent disk " + parent);
  }
  [[noreturn]] void Fail(libvhdi_error_t*& AError, const std::string& AProblem) const {
    RaiseLibyal(AError, libvhdi_error_backtrace_sprint, libvhdi_error_free, FPath, kNoOffset, AProblem);
  }
  // The parent first: members go in reverse order, so the child's handle is freed
  // before the parent it reads from.
  std::unique_ptr<TVhdiImage> FParent;
  TLibyalHandle<libvhdi_file_t, libvhdi_error_t, libvhdi_file_close, libvhdi_file_free, libvhdi_error_free> FFile;
  mutable std::mutex FLock;
};

// --- VMDK (libvmdk) -----------------------------------------------------------------

class TVmdkImage : public TContainer {
public:
  explicit TVmdkImage(const std::string& APath) : TContainer(APath, TContainerFormat::cfVmdk) {
    libvmdk_error_t* error = nullptr;
    if (libvmdk_handle_initialize(&FHandle.Handle, &error) != 1) Fail(error, "cannot set up the VMDK reader");
    if (libvmdk_handle_open(FHandle.Handle, APath.c_str(), LIBVMDK_OPEN_READ, &error) != 1) Fail(error, "not a readable VMDK image");
    if (libvmdk_handle_open_extent_data_files(FHandle.Handle, &error) != 1) Fail(error, "cannot open the extent files");
    size64_t size = 0;
    if (libvmdk_handle_get_media_size(FHandle.Handle, &size, &error) != 1) Fail(error, "no media size");
    FMediaSize = size;
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FMediaSize) return 0;
    std::lock_guard<std::mutex> lock(FLock);
    libvmdk_error_t* error = nullptr;
    const ssize_t got = libvmdk_handle_read_buffer_at_offset(FHandle.Handle, ABuffer, ALength, static_cast<off64_t>(AOffset), &error);
    if (got < 0) RaiseLibyal(error, libvmdk_error_backtrace_sprint, libvmdk_error_free, FPath, AOffset, "cannot read the media data");
    return static_cast<size_t>(got);
  }

private:
  [[noreturn]] void Fail(libvmdk_error_t*& AError, const char* AProblem) const {
    RaiseLibyal(AError, libvmdk_error_backtrace_sprint, libvmdk_error_free, FPath, kNoOffset, AProblem);
  }
  TLibyalHandle<libvmdk_handle_t, libvmdk_error_t, libvmdk_handle_close, libvmdk_handle_free, libvmdk_error_free> FHandle;
  mutable std::mutex FLock;
};

// --- QCOW (libqcow) -----------------------------------------------------------------

class TQcowImage : public TContainer {
public:
  explicit TQcowImage(const std::string& APath) : TContainer(APath, TContainerFormat::cfQcow) {
    libqcow_error_t* error = nullptr;
    if (libqcow_file_initialize(&FFile.Handle, &error) != 1) Fail(error, "cannot set up the QCOW reader");
    if (libqcow_file_open(FFile.Handle, APath.c_str(), LIBQCOW_OPEN_READ, &error) != 1) Fail(error, "not a readable QCOW image");
    size64_t size = 0;
    if (libqcow_file_get_media_size(FFile.Handle, &size, &error) != 1) Fail(error, "no media size");
    FMediaSize = size;
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FMediaSize) return 0;
    std::lock_guard<std::mutex> lock(FLock);
    libqcow_error_t* error = nullptr;
    const ssize_t got = libqcow_file_read_buffer_at_offset(FFile.Handle, ABuffer, ALength, static_cast<off64_t>(AOffset), &error);
    if (got < 0) RaiseLibyal(error, libqcow_error_backtrace_sprint, libqcow_error_free, FPath, AOffset, "cannot read the media data");
    return static_cast<size_t>(got);
  }

private:
  [[noreturn]] void Fail(libqcow_error_t*& AError, const char* AProblem) const {
    RaiseLibyal(AError, libqcow_error_backtrace_sprint, libqcow_error_free, FPath, kNoOffset, AProblem);
  }
  TLibyalHandle<libqcow_file_t, libqcow_error_t, libqcow_file_close, libqcow_file_free, libqcow_error_free> FFile;
  mutable std::mutex FLock;
};

// --- split raw (libsmraw) -----------------------------------------------------------

class TSmrawImage : public TContainer {
public:
  explicit TSmrawImage(const std::string& APath) : TContainer(APath, TContainerFormat::cfSplitRaw) {
    libsmraw_error_t* error = nullptr;
    char** names = nullptr;
    int count = 0;
    if (libsmraw_glob(APath.c_str(), APath.size(), &names, &count, &error) != 1) Fail(error, "cannot find the pieces");
    struct TNames {
      char** Names;
      int Count;
      ~TNames() {
        libsmraw_error_t* e = nullptr;
        libsmraw_glob_free(Names, Count, &e);
        libsmraw_error_free(&e);
      }
    } globbed{names, count};
    FSegments = count > 1 ? count : 0;
    if (libsmraw_handle_initialize(&FHandle.Handle, &error) != 1) Fail(error, "cannot set up the split raw reader");
    if (libsmraw_handle_open(FHandle.Handle, names, count, LIBSMRAW_OPEN_READ, &error) != 1) Fail(error, "cannot open the pieces");
    size64_t size = 0;
    if (libsmraw_handle_get_media_size(FHandle.Handle, &size, &error) != 1) Fail(error, "no media size");
    FMediaSize = size;
    // The pieces before a missing one are read; those after it cannot be placed.
    if (count > 0) FMissingPart = GapNote(names[count - 1], "piece");
  }
  std::vector<std::string> TakeWarnings() override {
    std::lock_guard<std::mutex> lock(FLock);
    if (FMissingPart.empty() || std::exchange(FMissingTold, true)) return {};
    return {FPath + ": " + FMissingPart + "; reading the " + std::to_string(FMediaSize) + " bytes before it"};
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FMediaSize) return 0;
    std::lock_guard<std::mutex> lock(FLock);
    libsmraw_error_t* error = nullptr;
    const ssize_t got = libsmraw_handle_read_buffer_at_offset(FHandle.Handle, ABuffer, ALength, static_cast<off64_t>(AOffset), &error);
    if (got < 0) RaiseLibyal(error, libsmraw_error_backtrace_sprint, libsmraw_error_free, FPath, AOffset, "cannot read the media data");
    return static_cast<size_t>(got);
  }

private:
  [[noreturn]] void Fail(libsmraw_error_t*& AError, const char* AProblem) const {
    RaiseLibyal(AError, libsmraw_error_backtrace_sprint, libsmraw_error_free, FPath, kNoOffset, AProblem);
  }
  TLibyalHandle<libsmraw_handle_t, libsmraw_error_t, libsmraw_handle_close, libsmraw_handle_free, libsmraw_error_free> FHandle;
  mutable std::mutex FLock;
};

} // namespace

std::unique_ptr<TContainer> TContainer::Open(const std::string& APath, TContainerFormat AFormat) {
  switch (AFormat) {
  case TContainerFormat::cfRaw: return std::make_unique<TRawContainer>(APath);
  case TContainerFormat::cfSplitRaw: return std::make_unique<TSmrawImage>(APath);
  case TContainerFormat::cfEwf: return std::make_unique<TEwfImage>(APath);
  case TContainerFormat::cfVhd:
  case TContainerFormat::cfVhdx: return std::make_unique<TVhdiImage>(APath, 0);
  case TContainerFormat::cfVmdk: return std::make_unique<TVmdkImage>(APath);
  case TContainerFormat::cfQcow: return std::make_unique<TQcowImage>(APath);
  }
  return nullptr;
}

} // namespace qvx
