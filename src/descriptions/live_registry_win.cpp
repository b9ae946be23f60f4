// The live registry of this or a remote computer as the registry of the computer
// whose logs are read.
#include "descriptions/message_files.h"

#include "platform/nt_exception.h"
#include "platform/utf16.h"

#include <windows.h>

namespace qvx {

namespace {

std::wstring Wide(std::string_view AText) {
  const std::u16string text = Utf8ToUtf16(AText);
  return std::wstring(text.begin(), text.end());
}

std::string Narrow(const wchar_t* AText, size_t ALength) {
  return Utf16ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(AText), ALength));
}

class TLiveRegistry : public TComputerRegistry {
public:
  explicit TLiveRegistry(HKEY ARoot, bool AOwned) : FRoot(ARoot), FOwned(AOwned) {}
  ~TLiveRegistry() override {
    if (FOwned) RegCloseKey(FRoot);
  }

  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override {
    ANames.clear();
    HKEY key = Open(AKey);
    if (!key) return false;
    wchar_t name[256];
    for (DWORD index = 0;; ++index) {
      DWORD length = 256;
      if (RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
      ANames.push_back(Narrow(name, length));
    }
    RegCloseKey(key);
    return true;
  }

  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override {
    AValue.clear();
    HKEY key = Open(AKey);
    if (!key) return false;
    DWORD type = 0;
    std::vector<uint8_t> data;
    const bool ok = Query(key, Wide(AName), type, data) && (type == REG_SZ || type == REG_EXPAND_SZ);
    if (ok) AValue = Text(data);
    RegCloseKey(key);
    return ok;
  }

  bool ReadBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t>& AValue) const override {
    AValue.clear();
    HKEY key = Open(AKey);
    if (!key) return false;
    DWORD type = 0;
    const bool ok = Query(key, Wide(AName), type, AValue) && type == REG_BINARY;
    if (!ok) AValue.clear();
    RegCloseKey(key);
    return ok;
  }

  bool ReadStringValues(const std::string& AKey,
                        std::vector<std::pair<std::string, std::string>>& AValues) const override {
    AValues.clear();
    HKEY key = Open(AKey);
    if (!key) return false;
    wchar_t name[16384];
    for (DWORD index = 0;; ++index) {
      DWORD length = 16384;
      DWORD type = 0;
      if (RegEnumValueW(key, index, name, &length, nullptr, &type, nullptr, nullptr) != ERROR_SUCCESS) break;
      if (type != REG_SZ && type != REG_EXPAND_SZ) continue;
      std::vector<uint8_t> data;
      const std::wstring wideName(name, length);
      if (Query(key, wideName, type, data)) AValues.emplace_back(Narrow(name, length), Text(data));
    }
    RegCloseKey(key);
    return true;
  }

private:
  HKEY Open(const std::string& AKey) const {
    std::string_view path = AKey;
    while (path.starts_with('\\')) path.remove_prefix(1);
    HKEY key = nullptr;
    if (RegOpenKeyExW(FRoot, Wide(path).c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return nullptr;
    return key;
  }

  static bool Query(HKEY AKey, const std::wstring& AName, DWORD& AType, std::vector<uint8_t>& AData) {
    DWORD size = 0;
    if (RegQueryValueExW(AKey, AName.c_str(), nullptr, &AType, nullptr, &size) != ERROR_SUCCESS) return false;
    AData.resize(size);
    if (RegQueryValueExW(AKey, AName.c_str(), nullptr, &AType, AData.data(), &size) != ERROR_SUCCESS) return false;
    AData.resize(size);
    return true;
  }

  static std::string Text(const std::vector<uint8_t>& AData) {
    size_t units = AData.size() / 2;
    const auto* text = reinterpret_cast<const char16_t*>(AData.data());
    size_t length = 0;
    while (length < units && text[length] != 0) ++length;
    return Utf16ToUtf8(std::u16string_view(text, length));
  }

  HKEY FRoot;
  bool FOwned;
};

} // namespace

std::unique_ptr<TComputerRegistry> OpenLiveRegistry(const std::string& AComputer) {
  if (AComputer.empty()) return std::make_unique<TLiveRegistry>(HKEY_LOCAL_MACHINE, false);
  std::string name = AComputer;
  if (!name.starts_with("\\\\")) name.insert(0, "\\\\");
  HKEY remote = nullptr;
  const LONG result = RegConnectRegistryW(Wide(name).c_str(), HKEY_LOCAL_MACHINE, &remote);
  if (result != ERROR_SUCCESS) throw ENTException(static_cast<uint32_t>(result), AComputer);
  return std::make_unique<TLiveRegistry>(remote, true);
}

} // namespace qvx
