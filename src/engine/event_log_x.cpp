#include "engine/event_log_x.h"

#include "descriptions/message_files.h"
#include "descriptions/sid_store.h"
#include "imaged/imaged_pc.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>

// g++ 12 warns about std::function members inside <regex> with sanitizers on (a
// false positive in the library's own code).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>

namespace qvx {

void TEventItemX::Assign(const TEventItemBase& ASource) {
  TEventItemBase::Assign(ASource);
  FCategoryName = ASource.FCategoryName;
  FUserName = ASource.FUserName;
  FChannel = ASource.FChannel;
  FEvtMessage = ASource.FEvtMessage;
  FEvtXML = ASource.FEvtXML;
  if (const auto* x = dynamic_cast<const TEventItemX*>(&ASource)) {
    FUserSid = x->FUserSid;
    FSystemTime = x->FSystemTime;
    FKeywords = x->FKeywords;
    FOpcodeName = x->FOpcodeName;
    FKeywordNames = x->FKeywordNames;
    FEventIDQual = x->FEventIDQual;
    FVersion = x->FVersion;
    FLevel = x->FLevel;
    FOpCode = x->FOpCode;
    FTask = x->FTask;
    FEventRecordID = x->FEventRecordID;
    FDescriptionFound = x->FDescriptionFound;
  }
}

struct TEventLogInfoFilterX::TCompiled {
  std::regex Expression;
};

bool TEventLogInfoFilterX::MatchMask(const std::string& AName) const {
  return !FCompiled || std::regex_search(AName, FCompiled->Expression);
}

void TEventLogInfoFilterX::SetRegEx(const std::string& AExpression) {
  FCompiled = AExpression.empty() ? nullptr
                                  : std::make_shared<const TCompiled>(TCompiled{std::regex(AExpression, std::regex::icase)});
  FRegEx = AExpression;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

void TEventLogX::ResolveTaskAndUser(TEventXmlFields& AFields) {
  const uint32_t task = AFields.TaskNumber;
  if (task == 0) {
    AFields.Task = "None";
  } else {
    bool found = false;
    const std::string_view cached = FCategoryCache->GetCategoryName(AFields.ProviderName, static_cast<int>(task), found);
    if (found) {
      AFields.Task.assign(cached);
    } else {
      // Catalogs alone leave what they lack to the system's own metadata, as without them.
      if (!UsesOfflineDescriptions() || !FOfflineServers.GetEventTask(AFields.ProviderName, task, AFields.Task))
        AFields.Task = UsesImagedDescriptions() ? std::string() : EVTXGetTaskName(AFields.ProviderName, task);
      if (AFields.Task.empty()) {
        char number[16];
        std::snprintf(number, sizeof number, "(%u)", task);
        AFields.Task = number;
      }
      FCategoryCache->Add(AFields.ProviderName, static_cast<int>(task), AFields.Task);
    }
  }
  AFields.UserName = FUserNameCache->AddUserName(AFields.UserID);
  AFields.OpcodeName.clear();
  AFields.KeywordNames.clear();
  if (!UsesOfflineDescriptions() || AFields.ProviderName.empty()) return;
  // Names come from the publisher's metadata, looked up once per provider, task, opcode
  // and keywords; an event costs one hash lookup and a short scan, no allocation.
  const auto opcode = static_cast<uint8_t>(TextToInt(AFields.OpCode));
  // "0x8020000000000000" as written in the XML (strtoull and its locale cost more than the
  // rest of the lookup); digits past 16 are ignored as overflow would be.
  uint64_t keywords = 0;
  {
    std::string_view hex = AFields.Keywords;
    if (hex.size() >= 2 && hex[0] == '0' && (hex[1] == 'x' || hex[1] == 'X')) hex.remove_prefix(2);
    for (size_t i = 0; i < hex.size() && i < 16; ++i) {
      const char c = hex[i];
      const int digit = c >= '0' && c <= '9'   ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
      if (digit < 0) break;
      keywords = keywords << 4 | static_cast<uint64_t>(digit);
    }
  }
  auto provider = FNameCache.find(std::string_view(AFields.ProviderName));
  if (provider == FNameCache.end()) provider = FNameCache.emplace(AFields.ProviderName, std::vector<TNameEntry>()).first;
  std::vector<TNameEntry>& entries = provider->second;
  auto entry = std::find_if(entries.begin(), entries.end(), [&](const TNameEntry& AEntry) {
    return AEntry.Task == task && AEntry.Opcode == opcode && AEntry.Keywords == keywords;
  });
  if (entry == entries.end()) {
    TNameEntry added{task, opcode, keywords, {}, {}};
    if (!FOfflineServers.GetOpcodeName(AFields.ProviderName, static_cast<uint16_t>(task), opcode, added.OpcodeName))
      added.OpcodeName.clear();
    if (keywords == 0 || !FOfflineServers.GetKeywordNames(AFields.ProviderName, keywords, added.KeywordNames))
      added.KeywordNames.clear();
    entries.push_back(std::move(added));
    entry = entries.end() - 1;
  }
  AFields.OpcodeName = entry->OpcodeName;
  AFields.KeywordNames = entry->KeywordNames;
}

bool TEventLogX::DescribeFromImaged(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                                    uint16_t AEventIdQual, uint8_t AVersion, const TStringList& AStrings) {
  if (!UsesOfflineDescriptions()) return false;
  TEventMessageServer& computer = FOfflineServers;
  // A classic source's message id holds the qualifiers in its upper 16 bits; a
  // publisher's depends on the event's version, which joins the cache key.
  const uint32_t id = (static_cast<uint32_t>(AEventIdQual) << 16) | (AEventId & 0xFFFF);
  // Catalog texts alone are kept apart from the system's, which fill what they lack.
  FCacheSource.assign(UsesImagedDescriptions() ? "" : "\x01" "catalog\x01");
  FCacheSource.append(ASourceName);
  if (AVersion != 0) {
    char digits[4];
    FCacheSource.append("/v").append(digits, std::to_chars(digits, digits + sizeof digits, AVersion).ptr);
  }
  std::string_view cached;
  // The template: the cached text itself (the cache never drops an entry), or FTemplate.
  std::string_view text;
  if (FEventDescriptionCache->GetDescription(FCacheSource, id, cached)) {
    if (cached == kDescriptionNotFound) {
      // Without the imaged computer, what the catalogs lack is looked up as without them.
      if (!UsesImagedDescriptions()) return false;
      AText.assign(1, kNoDescriptionMark);
      return true;
    }
    text = cached;
  } else {
    const uint32_t first = detail::EqualsNoCase(ASourceName, kKernelGeneralSource) ? id + kKernelGeneralIdOffset : id;
    bool found = !ASourceName.empty() && computer.GetEventMessage(ASourceName, first, AVersion, FTemplate);
    if (!found && !ASourceName.empty() && (id >> 16) == 0)
      found = computer.GetEventMessage(ASourceName, id | kSeverityRetryBits, AVersion, FTemplate);
    if (!found) {
      FEventDescriptionCache->AddDescription(FCacheSource, id, kDescriptionNotFound);
      if (!UsesImagedDescriptions()) return false;
      AText.assign(1, kNoDescriptionMark);
      return true;
    }
    for (size_t pos = FTemplate.find("\r\n\r\n"); pos != std::string::npos; pos = FTemplate.find("\r\n\r\n", pos + 2))
      FTemplate.erase(pos, 2);
    FEventDescriptionCache->AddDescription(FCacheSource, id, FTemplate);
    text = FTemplate;
  }
  const auto parameter = [&](uint32_t AId, std::string& AValue) { return computer.GetParam(ASourceName, AId, AValue); };
  if (!FInsertFiles.ApplyInserts(text, {}, AStrings, AText, parameter))
    AText.assign(1, kNoDescriptionMark);
  return true;
}

void TEventLogX::MarkNoDescription(TEventXmlFields& AFields) {
  AFields.EvtMessage.assign(1, kNoDescriptionMark);
  for (const std::string& value : AFields.Strings) {
    AFields.EvtMessage += "\r\n";
    AFields.EvtMessage += value;
  }
}

TEventItemBase* TEventLogX::UndeliverableMarker() {
  // A fixed object stands for the all-ones value: callers compare, never read it.
  static TEventItemX marker{nullptr};
  return &marker;
}

int64_t TEventLogX::GetLastCount() {
  if (FLastCount < 0) FLastCount = GetCount();
  return FLastCount;
}

TEventItemBase* TEventLogX::EventNext() {
  do {
    FEventWithoutXml = false;
    EventNextXML(FXml, FFields);
  } while (FXml.size() == 1 && FXml[0] == '*');
  if (FXml.empty() && !FEventWithoutXml) return nullptr;
  if (FXml.size() == 1 && FXml[0] == '+') return UndeliverableMarker();
  BuildItem(FXml, FFields);
  return &FItem;
}

void TEventLogX::BuildItem(std::string& AXml, TEventXmlFields& AFields, bool ATakeFields) {
  TEventItemX& item = FItem;
  item.FRecordIndex = FRecordCounter++;
  item.FEventType = EventTypeFromXml(AFields.Channel, AFields.Keywords, AFields.Level);
  item.FTimeGenerated = SystemTimeTextToDays(AFields.TimeCreated);
  item.FTimeWritten = item.FTimeGenerated;
  auto take = [ATakeFields](std::string& ATo, std::string& AFrom) {
    if (ATakeFields) ATo.swap(AFrom);
    else ATo = AFrom;
  };
  take(item.FSourceName, AFields.ProviderName);
  item.FEventID = static_cast<uint32_t>(TextToInt(AFields.EventID));
  take(item.FCategoryName, AFields.Task);
  take(item.FUserName, AFields.UserName);
  take(item.FComputername, AFields.Computer);
  take(item.FChannel, AFields.Channel);
  item.FEvtMessage.swap(AFields.EvtMessage); // the fields are cleared before the next event
  item.FEvtXML.swap(AXml); // the next event reuses the old buffer
  const int64_t recordId = TextToInt(AFields.EventRecordID);
  item.FRecordNumber = static_cast<int32_t>(recordId);
  item.FEventRecordID = static_cast<uint64_t>(recordId);
  item.FTask = static_cast<uint16_t>(AFields.TaskNumber);
  item.FEventCategory = static_cast<uint16_t>(AFields.TaskNumber);
  item.FStrings.swap(AFields.Strings);
  item.SetData(AFields.BinaryData.data(), static_cast<uint32_t>(AFields.BinaryData.size()));
  take(item.FUserSid, AFields.UserID);
  // Most events of a log carry one of a few SIDs: the last one's bytes are kept.
  if (item.FUserSid != FSidText) {
    FSidText = item.FUserSid;
    FSidValid = !FSidText.empty() && TextToSid(FSidText, FSidBuffer);
  }
  if (FSidValid)
    item.SetSID(FSidBuffer.data(), static_cast<uint32_t>(FSidBuffer.size()));
  else
    item.SetSID(nullptr, 0);
  take(item.FSystemTime, AFields.TimeCreated);
  take(item.FKeywords, AFields.Keywords);
  take(item.FOpcodeName, AFields.OpcodeName);
  take(item.FKeywordNames, AFields.KeywordNames);
  item.FEventIDQual = static_cast<uint16_t>(TextToInt(AFields.EventIDQual));
  item.FVersion = static_cast<uint8_t>(TextToInt(AFields.Version));
  item.FLevel = static_cast<uint8_t>(TextToInt(AFields.Level));
  item.FOpCode = static_cast<uint8_t>(TextToInt(AFields.OpCode));
  item.FDescriptionFound = item.FEvtMessage.empty() || item.FEvtMessage[0] != kNoDescriptionMark;
}

} // namespace qvx
