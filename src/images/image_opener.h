// Makes disk images readable by name everywhere: after InstallImageOpener,
// OpenReadStream("disk.E01::/Windows/System32/winevt/Logs/System.evtx") reads that
// file inside the image, and OpenReadStream("disk.E01") the image's media data.
#pragma once

#include "platform/read_stream.h"

#include <memory>
#include <string>

namespace qvx {

// Installs the opener and the file system of image names (once, at start-up).
void InstallImageOpener();

// The stream of an image name: a file inside an image (IMAGE[@VOLUME]::PATH), a
// volume (IMAGE@VOLUME::, without a path), or the media data of a container file;
// null for any other name. Raises EImageError naming the image and the problem.
std::unique_ptr<TReadStream> OpenImageStream(const std::string& AName);

// The root of the installation volume of an image ("IMAGE" or "IMAGE@VOLUME"), as a
// name the path resolver and the opener take: "disk.E01@2::/". Raises EImageError
// naming the image and the problem.
std::string ImageRootOf(const std::string& AImage);

} // namespace qvx
