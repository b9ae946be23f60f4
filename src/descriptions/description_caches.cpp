#include "descriptions/description_caches.h"

#include "descriptions/sid_store.h"

#include <charconv>

namespace qvx {

namespace detail {

bool EqualsNoCase(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t i = 0; i < A.size(); ++i)
    if (LowerAscii(A[i]) != LowerAscii(B[i])) return false;
  return true;
}

} // namespace detail

namespace {

// Writes ASource, ASeparator (unless NUL) and AValue in decimal into AKey.
template <typename T>
const std::string& BuildKey(std::string& AKey, std::string_view ASource, char ASeparator, T AValue) {
  char digits[16];
  AKey.assign(ASource);
  if (ASeparator) AKey.push_back(ASeparator);
  AKey.append(digits, std::to_chars(digits, digits + sizeof digits, AValue).ptr);
  return AKey;
}

template <typename TMap> auto* FindValue(const TMap& AMap, std::string_view AKey) {
  auto it = AMap.find(AKey);
  return it == AMap.end() ? nullptr : &it->second;
}

const std::string kEmpty;
const std::string kNotAvailable = "N/A";

} // namespace

// TCategoryCache

const std::string* TCategoryCache::Find(std::string_view ASource, int ACategory) const {
  return FindValue(FItems, BuildKey(FKey, ASource, '\0', ACategory));
}

void TCategoryCache::Add(std::string_view ASource, int ACategory, std::string_view AName) {
  FItems.try_emplace(BuildKey(FKey, ASource, '\0', ACategory), AName);
}

bool TCategoryCache::CategoryInCache(std::string_view ASource, int ACategory) const {
  return Find(ASource, ACategory) != nullptr;
}

std::string_view TCategoryCache::GetCategoryName(std::string_view ASource, int ACategory,
                                                 bool& AFound) const {
  const std::string* name = Find(ASource, ACategory);
  AFound = name != nullptr;
  return name ? std::string_view(*name) : std::string_view();
}

// TEventDescriptionCache

const std::string* TEventDescriptionCache::Find(std::string_view ASource, uint32_t AEventId) const {
  return FindValue(FItems, BuildKey(FKey, ASource, '#', AEventId));
}

void TEventDescriptionCache::AddDescription(std::string_view ASource, uint32_t AEventId,
                                            std::string_view AText) {
  FItems.try_emplace(BuildKey(FKey, ASource, '#', AEventId), AText);
}

bool TEventDescriptionCache::GetDescription(std::string_view ASource, uint32_t AEventId,
                                            std::string_view& AText) const {
  const std::string* text = Find(ASource, AEventId);
  AText = text ? std::string_view(*text) : std::string_view();
  return text != nullptr;
}

bool TEventDescriptionCache::DescriptionInCache(std::string_view ASource, uint32_t AEventId) const {
  return Find(ASource, AEventId) != nullptr;
}

// TSourcePropertiesCache

std::string PropertyValue(const TSourceProperties& AProperties, std::string_view AName) {
  for (std::string_view line : AProperties) {
    size_t equals = line.find('=');
    if (equals != std::string_view::npos && detail::EqualsNoCase(line.substr(0, equals), AName))
      return std::string(line.substr(equals + 1));
  }
  return {};
}

bool TSourcePropertiesCache::AddProperties(std::string_view ASource,
                                           std::optional<TSourceProperties> AProperties) {
  if (FItems.find(ASource) != FItems.end()) return false;
  FItems.emplace(std::string(ASource), std::move(AProperties));
  return true;
}

bool TSourcePropertiesCache::GetProperties(std::string_view ASource,
                                           const TSourceProperties*& AProperties) const {
  const std::optional<TSourceProperties>* entry = FindValue(FItems, ASource);
  AProperties = entry && *entry ? &**entry : nullptr;
  return entry != nullptr;
}

// TUserNameCache

void TUserNameCache::AssignTo(TUserNameCache& ATarget) const {
  if (&ATarget == this) return;
  ATarget.FComputer = FComputer;
  ATarget.FLines = FLines;
  ATarget.FIndex = FIndex;
}

const std::string& TUserNameCache::AddUserName(const uint8_t* ASid, size_t ALength) {
  if (!SidToText(ASid, ALength, FKey)) return kEmpty;
  if (const size_t* position = FindValue(FIndex, FKey)) return FLines[*position].Account;
  std::string name, domain, account;
  if (LookupAccountBySid(FComputer, ASid, ALength, name, domain)) account = domain + '\\' + name;
  FIndex.emplace(FKey, FLines.size());
  FLines.push_back({FKey, std::move(account)});
  return FLines.back().Account;
}

const std::string& TUserNameCache::AddUserName(std::string_view ASidText) {
  if (ASidText.empty()) return kNotAvailable;
  // Events write SIDs in the canonical form the index keeps: most need no conversion.
  if (const size_t* position = FindValue(FIndex, ASidText)) return FLines[*position].Account;
  if (!TextToSid(ASidText, FSid)) return kEmpty;
  return AddUserName(FSid.data(), FSid.size());
}

void TUserNameCache::AddUserName(std::string_view ASidText, std::string_view AAccount) {
  if (FIndex.find(ASidText) != FIndex.end()) return;
  FIndex.emplace(std::string(ASidText), FLines.size());
  FLines.push_back({std::string(ASidText), std::string(AAccount)});
}

bool TUserNameCache::GetUserName(const uint8_t* ASid, size_t ALength, std::string& AAccount) const {
  return SidToText(ASid, ALength, FKey) && GetUserNameFromStrSID(FKey, AAccount);
}

bool TUserNameCache::GetUserNameFromStrSID(std::string_view ASidText, std::string& AAccount) const {
  const size_t* position = FindValue(FIndex, ASidText);
  if (!position || FLines[*position].Account.empty()) return false;
  AAccount = FLines[*position].Account;
  return true;
}

bool TUserNameCache::GetSidFromUserName(std::string_view AAccount, std::vector<uint8_t>& ASid) const {
  if (AAccount == kNotAvailable) return false;
  for (const TLine& line : FLines)
    if (detail::EqualsNoCase(line.Account, AAccount)) return TextToSid(line.Sid, ASid);
  return false;
}

void TUserNameCache::Clear() {
  FLines.clear();
  FIndex.clear();
}

} // namespace qvx
