// ENTException: an operating-system failure with its error code and the system's text.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace qvx {

class ENTException : public std::runtime_error {
public:
  // Message: the code in decimal, ": " and the system's text for the code.
  explicit ENTException(uint32_t ACode);
  // As above, with a context (usually a path) in front: "<context>: <code>: <text>".
  ENTException(uint32_t ACode, const std::string& AContext);

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
