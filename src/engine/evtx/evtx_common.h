// TEvtxCommon and TEvtxClass: a block of bytes at a position in an open file,
// recognised by a magic text and read lazily on the first question that needs it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvx {

class TReadStream;

class TEvtxCommon {
public:
  // Records the handle (not owned) and takes the file's size once.
  explicit TEvtxCommon(const TReadStream* AFileHandle);
  virtual ~TEvtxCommon() = default;
  TEvtxCommon(const TEvtxCommon&) = delete;
  TEvtxCommon& operator=(const TEvtxCommon&) = delete;

  // Performs the lazy read on first use. A short read, a wrong magic or a failed
  // parse leaves the block not valid; nothing here raises for bad data.
  bool Valid();

  uint32_t Length = 0; // bytes to read
  uint32_t Start = 0;  // position of the block in the file
  const TReadStream* FileHandle() const { return FFileHandle; }
  uint64_t FileSize() const { return FFileSize; }

protected:
  // Reads Length bytes at Start into FBuffer (cut at the end of the file) and, when all
  // came back with the magic in front, calls Parse. A read error counts as a short read.
  void Load();
  // Interprets FBuffer (Length bytes, magic checked); gives the block's validity.
  virtual bool Parse() = 0;

  const char* FMagic = ""; // compared over its own length; empty: no check
  const TReadStream* FFileHandle = nullptr;
  uint64_t FFileSize = 0;
  std::vector<uint8_t> FBuffer;
  bool FLoaded = false;
  bool FValid = false;
};

class TEvtxClass : public TEvtxCommon {
public:
  using TEvtxCommon::TEvtxCommon;
  // The XML text of the object (the base gives empty text).
  virtual std::string asXML() { return {}; }
  // Adds the object's XML to AList (the base adds nothing).
  virtual void Export(std::vector<std::string>& AList) { (void)AList; }
};

} // namespace qvx
