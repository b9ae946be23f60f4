// ENTException: an operating-system failure with its error code and the system's text.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace qvx {

// Windows error codes that readers of Windows formats report on every platform.
inline constexpr uint32_t kWinErrorHandleEof = 38;
inline constexpr uint32_t kWinErrorInsufficientBuffer = 122;
inline constexpr uint32_t kWinErrorEventlogFileCorrupt = 1500;
// The exception for one of those codes, with Windows' own text on every platform.
[[noreturn]] void RaiseWindowsError(uint32_t ACode, const std::string& AContext);

class ENTException : public std::runtime_error {
public:
  // Message: the code in decimal, ": " and the system's text for the code.
  explicit ENTException(uint32_t ACode);
  // As above, with a context (usually a path) in front: "<context>: <code>: <text>".
  ENTException(uint32_t ACode, const std::string& AContext);
  // A Windows error code met where the system's texts are not Windows' (a reader of a
  // Windows file format on another platform): the text is given.
  ENTException(uint32_t ACode, const std::string& AContext, const std::string& AText);

  uint32_t Code() const { return FCode; }
  // The system's text for the code alone.
  const std::string& SystemText() const { return FSystemText; }

private:
  uint32_t FCode;
  std::string FSystemText;
};

// The system's text for an error code (errno on POSIX, a Windows error code on Windows).
std::string SystemErrorText(uint32_t ACode);

// The calling thread's last error code (errno, or GetLastError on Windows).
uint32_t LastErrorCode();

// Raises ENTException for the calling thread's last error.
[[noreturn]] void RaiseLastOSError(const std::string& AContext = {});

} // namespace qvx
