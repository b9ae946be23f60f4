// Account lookup by the system (Windows only).
#include "descriptions/sid_store.h"

#include "platform/utf16.h"

#include <windows.h>

namespace qvx {

bool SystemLookupAccountSid(const std::string& AComputer, const uint8_t* ASid, size_t, std::string& AName,
                            std::string& ADomain, int& AError) {
  std::u16string computer16 = Utf8ToUtf16(AComputer);
  std::wstring computer(computer16.begin(), computer16.end());
  wchar_t name[256], domain[256];
  DWORD nameLength = 256, domainLength = 256;
  SID_NAME_USE use;
  // The caller has checked the SID's length: LookupAccountSidW reads it from the bytes.
  if (!LookupAccountSidW(computer.empty() ? nullptr : computer.c_str(), const_cast<uint8_t*>(ASid), name,
                         &nameLength, domain, &domainLength, &use)) {
    AError = static_cast<int>(GetLastError());
    return false;
  }
  AName = Utf16ToUtf8(reinterpret_cast<const uint8_t*>(name), nameLength);
  ADomain = Utf16ToUtf8(reinterpret_cast<const uint8_t*>(domain), domainLength);
  SetLastError(0);
  return true;
}

} // namespace qvx
