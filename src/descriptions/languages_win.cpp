#include "descriptions/languages.h"

#include "platform/utf16.h"

#include <windows.h>

namespace qvx {

uint16_t LanguageNameToId(std::string_view AName) {
  if (AName.empty() || AName.size() > 84) return 0;
  const std::u16string name = Utf8ToUtf16(AName);
  const LCID lcid = LocaleNameToLCID(reinterpret_cast<const wchar_t*>(name.c_str()), 0);
  return static_cast<uint16_t>(lcid & 0xFFFF);
}

} // namespace qvx
