// Disk images as inputs of every command: what an image name stands for (the media
// data of a volume for scanning, the logs of its installation and of its shadow
// copies), so that 'open', 'hunt' and 'serve' expand an image the same way.
#pragma once

#include "platform/read_stream.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qvx {

// "IMAGE", "IMAGE@VOLUME" or either with ":vssN" split into its parts (AVolume keeps
// the ":vssN"). A name that is an existing file is an image without a volume.
void SplitVolume(const std::string& APath, std::string& AImage, std::string& AVolume);

// True when APath (or APath without an "@VOLUME" suffix) is a file or block device: a
// disk image rather than a Windows folder.
bool IsImageInput(const std::string& APath);

// The data of a volume of an image for scanning ("IMAGE" or "IMAGE@VOLUME"; AOffset >= 0
// gives the volume by its byte offset), or only its unallocated clusters. APositionText,
// when given, is set to how a position of that data is named in messages: its offset in
// the volume and in the image ("volume offset 0x2000, image offset 0x102000"), the
// unallocated clusters being joined into one stream. Raises EImageError naming the
// image and the problem.
std::unique_ptr<TReadStream> OpenVolumeForScan(const std::string& APath, int64_t AOffset, bool AUnallocated,
                                               std::function<std::string(uint64_t)>* APositionText = nullptr);

// Every .evtx and .evt log of the installation in an image ("IMAGE", "IMAGE@VOLUME" or
// either with ":vssN" for a shadow copy), as IMAGE@N[:vssN]::PATH names. Raises
// EImageError when there is no installation or no log.
std::vector<std::string> ImageLogsOf(const std::string& APath);

// The shadow copies of the installation volume of an image ("IMAGE" or "IMAGE@VOLUME"),
// as "IMAGE@N:vssM" names in the order `imaged` lists them. Raises EImageError when the
// volume cannot be chosen or its shadow copy catalog cannot be read.
std::vector<std::string> ImageShadowsOf(const std::string& APath);

// The name APath ("IMAGE" or "IMAGE::PATH") with the volume at byte offset AOffset of
// the image: "IMAGE@+AOffset[::PATH]" (--offset). Raises std::runtime_error when APath
// names no image file or already names a volume.
std::string WithVolumeOffset(const std::string& APath, int64_t AOffset);

// What a disk image given as an input stands for.
struct TImageLogs {
  std::vector<std::string> Logs;     // the installation's logs, then each shadow copy's
  std::set<std::string> FromCopies;  // logs of shadow copies: damage there skips that log only
  std::string Imaged;                // where descriptions come from: the image, or the last
                                     // readable copy when the volume itself cannot be read
  std::vector<std::string> Problems; // what could not be read while the rest was (one line each)
};

// The logs of the installation in APath when it names a disk image ("IMAGE" or
// "IMAGE@VOLUME"), with AShadows also those of each shadow copy; nothing when APath is
// a log (an .evtx, .evt or store file by its signature), a folder, a path inside an
// image ("::"), or a damaged file named .evtx or .evt that is no image either (its
// reader then reports the damage). Raises EImageError (or std::runtime_error) when the
// image gives no log at all.
std::optional<TImageLogs> ExpandImageInput(const std::string& APath, bool AShadows);

// The .evtx and .evt logs in a folder and its subfolders (a copied winevt\Logs, a
// mounted volume), sorted by path. Subfolders that cannot be read are passed over.
// Raises std::runtime_error naming the folder when it cannot be listed or holds no log.
std::vector<std::string> FolderLogsOf(const std::string& AFolder);
// The same for a folder inside an image ("IMAGE@2::/Logs"): its non-empty logs and those
// below it, as names inside the image, sorted.
std::vector<std::string> ImageFolderLogsOf(const std::string& AFolder);

// What an input of 'open', 'serve' and 'hunt' stands for: a folder its logs
// (FolderLogsOf), a disk image as ExpandImageInput says, nothing for a log.
std::optional<TImageLogs> ExpandInput(const std::string& APath, bool AShadows);

} // namespace qvx
