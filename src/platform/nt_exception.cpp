#include "platform/nt_exception.h"

#include <cerrno>
#include <cstring>

#ifdef _WIN32
#include <windows.h>
#endif

namespace qvx {

std::string SystemErrorText(uint32_t ACode) {
#ifdef _WIN32
  wchar_t buffer[1025] = {};
  DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, ACode, 0, buffer,
                           1024, nullptr);
  std::string text;
  for (DWORD i = 0; i < n; ++i) {
    wchar_t c = buffer[i];
    if (c < 0x80) text.push_back(static_cast<char>(c));
    else text.push_back('?');
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
  return text;
#else
  char buffer[256];
  // GNU strerror_r may return a static string instead of filling the buffer.
  auto result = strerror_r(static_cast<int>(ACode), buffer, sizeof buffer);
  if constexpr (std::is_same_v<decltype(result), char*>) return result;
  else return result == 0 ? std::string(buffer) : "Unknown error " + std::to_string(ACode);
#endif
}

ENTException::ENTException(uint32_t ACode)
    : std::runtime_error(std::to_string(ACode) + ": " + SystemErrorText(ACode)), FCode(ACode),
      FSystemText(SystemErrorText(ACode)) {}

ENTException::ENTException(uint32_t ACode, const std::string& AContext)
    : std::runtime_error(AContext + ": " + std::to_string(ACode) + ": " + SystemErrorText(ACode)), FCode(ACode),
      FSystemText(SystemErrorText(ACode)) {}

ENTException::ENTException(uint32_t ACode, const std::string& AContext, const std::string& AText)
    : std::runtime_error(AContext + ": " + std::to_string(ACode) + ": " + AText), FCode(ACode), FSystemText(AText) {}

void RaiseWindowsError(uint32_t ACode, const std::string& AContext) {
#ifdef _WIN32
  throw ENTException(ACode, AContext);
#else
  switch (ACode) {
  case kWinErrorHandleEof: throw ENTException(ACode, AContext, "Reached the end of the file.");
  case kWinErrorInsufficientBuffer:
    throw ENTException(ACode, AContext, "The data area passed to a system call is too small.");
  case kWinErrorEventlogFileCorrupt: throw ENTException(ACode, AContext, "The event log file is corrupted.");
  default: throw ENTException(ACode, AContext, "Windows error " + std::to_string(ACode));
  }
#endif
}

uint32_t LastErrorCode() {
#ifdef _WIN32
  return GetLastError();
#else
  return static_cast<uint32_t>(errno);
#endif
}

void RaiseLastOSError(const std::string& AContext) {
  uint32_t code = LastErrorCode();
  if (AContext.empty()) throw ENTException(code);
  throw ENTException(code, AContext);
}

} // namespace qvx
