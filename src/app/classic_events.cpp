// quorvex events on classic .evt logs: the classic source's records in the shape the
// writers take (the fields of a modern event that a classic record has).
#include "app/classic_events.h"

#include "app/listing.h"

#include "app/progress.h"
#include "descriptions/sid_store.h"
#include "engine/classic_log.h"
#include "catalog/message_catalog.h"
#include "imaged/imaged_pc.h"
#include "platform/nt_exception.h"
#include "platform/read_stream.h"
#include "platform/utf16.h"

#include <cstring>

namespace qvx::app {

namespace {

} // namespace

std::string LogNameOf(const std::string& APath) {
  std::string name = APath.substr(APath.find_last_of("/\\") + 1);
  if (const size_t dot = name.find_last_of('.'); dot != std::string::npos) name.resize(dot);
  std::string lower = name;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "appevent") return "Application";
  if (lower == "secevent") return "Security";
  if (lower == "sysevent") return "System";
  return name;
}

namespace {

uint8_t LevelOf(TEventType AType) {
  switch (AType) {
  case EVT_ERROR: return 2;
  case EVT_WARNING: return 3;
  case EVT_INFORMATION: return 4;
  default: return 0;
  }
}

void AppendSystemTime(std::string& AOut, double ADays) {
  AppendDayCountText(AOut, ADays, 'T');
  AOut.append("0000Z"); // whole seconds: the 3 digits of milliseconds, then 7 in all
}

} // namespace

bool IsClassicLog(const std::string& APath) {
  try {
    const std::unique_ptr<TReadStream> file = OpenReadStream(APath);
    uint8_t header[8] = {};
    return file->ReadAt(0, header, 8) == 8 && header[0] == 0x30 && header[1] == 0 && header[2] == 0 &&
           header[3] == 0 && std::memcmp(header + 4, "LfLe", 4) == 0;
  } catch (const std::exception&) {
    return false;
  }
}

void ClassicToX(TEventItem& AItem, const std::string& AChannel, TEventItemX& AOut) {
  AOut.Clear();
  AOut.TEventItemBase::Assign(AItem);
  AOut.FUserName = AItem.GetUserName();
  AOut.FCategoryName = AItem.GetCategoryName();
  AOut.FChannel = AChannel;
  AOut.FEventRecordID = static_cast<uint32_t>(AItem.FRecordNumber);
  AOut.FEventIDQual = AItem.FQualifiers;
  AOut.FLevel = LevelOf(AItem.FEventType);
  AOut.FTask = AItem.FEventCategory;
  AOut.FKeywords = AItem.FEventType == EVT_AUDIT_SUCCESS   ? "0x80200000000000"
                   : AItem.FEventType == EVT_AUDIT_FAILURE ? "0x80100000000000"
                                                           : "0x80000000000000";
  AOut.FUserSid.clear();
  if (AItem.FSidLength) SidToText(AItem.FSID.data(), AItem.FSidLength, AOut.FUserSid);
  AOut.FSystemTime.clear();
  AppendSystemTime(AOut.FSystemTime, AItem.FTimeGenerated);
  AOut.FDescriptionFound = AItem.FDescriptionFound;
  AOut.FEvtMessage = AItem.FEvtMessage;

  // The event as XML, in the form the system renders classic events.
  std::string& xml = AOut.FEvtXML;
  xml.clear();
  xml.append("<Event xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\"><System><Provider Name=\"");
  AppendEscaped(xml, AItem.FSourceName);
  xml.append("\" /><EventID Qualifiers=\"");
  xml.append(std::to_string(AItem.FQualifiers));
  xml.append("\">");
  xml.append(std::to_string(AItem.FEventID));
  xml.append("</EventID><Level>");
  xml.append(std::to_string(AOut.FLevel));
  xml.append("</Level><Task>");
  xml.append(std::to_string(AItem.FEventCategory));
  xml.append("</Task><Keywords>");
  xml.append(AOut.FKeywords);
  xml.append("</Keywords><TimeCreated SystemTime=\"");
  xml.append(AOut.FSystemTime);
  xml.append("\" /><EventRecordID>");
  xml.append(std::to_string(AOut.FEventRecordID));
  xml.append("</EventRecordID><Channel>");
  AppendEscaped(xml, AChannel);
  xml.append("</Channel><Computer>");
  AppendEscaped(xml, AItem.FComputername);
  xml.append("</Computer><Security");
  if (!AOut.FUserSid.empty()) {
    xml.append(" UserID=\"");
    xml.append(AOut.FUserSid);
    xml.append("\"");
  }
  xml.append(" /></System><EventData>");
  for (const std::string& value : AItem.FStrings) {
    xml.append("<Data>");
    AppendEscaped(xml, value);
    xml.append("</Data>");
  }
  if (!AItem.FData.empty()) {
    static const char kHex[] = "0123456789ABCDEF";
    xml.append("<Binary>");
    for (uint8_t b : AItem.FData) {
      xml.push_back(kHex[b >> 4]);
      xml.push_back(kHex[b & 15]);
    }
    xml.append("</Binary>");
  }
  xml.append("</EventData></Event>");
}

int ReadClassicEvents(const TEventsOptions& AOptions, const TClassicHooks& AHooks, std::FILE* AOut, std::FILE* AErr) {
  TNTEventLog log;
  const std::unique_ptr<TCatalogSet> catalogs = OpenCatalogs(AOptions.Catalogs);
  const std::unique_ptr<TImagedPC> imaged = OpenImaged(AOptions.Imaged);
  log.SetImagedDescrServer(imaged.get());
  log.SetCatalogs(catalogs.get());
  AHooks.ApplyTimeZone(log);
  const std::string channel = LogNameOf(AOptions.Path);
  log.SetSourceName(channel);
  log.SetBackupFileName(AOptions.Path);
  log.SetActive(true);

  TListing listing(AOptions, log.UsesOfflineDescriptions(), AOut, AErr);
  const int64_t total = log.GetLastCount();
  TEventItemX item(&log);
  int status = 0;
  try {
    while (TEventItemBase* next = log.EventNext()) {
      const bool passes = listing.Passes(*next);
      if ((listing.Read & 255) == 0)
        listing.Progress().Update(listing.Read, static_cast<uint64_t>(total), listing.Events);
      if (!passes) continue;
      ClassicToX(static_cast<TEventItem&>(*next), channel, item);
      if (listing.Write(item)) break;
    }
  } catch (const ENTException& e) {
    // Damage that could not be stepped over ends reading; what was read stands.
    log.IssueList().AddIssue(std::string("reading stopped: ") + e.what());
    if (e.Code() != kWinErrorEventlogFileCorrupt) status = 1;
  }
  if (const TLogFileData* raw = log.RawLog()) {
    for (const std::string& damage : raw->Damage()) log.IssueList().AddIssue("damaged data stepped over: " + damage);
    if (listing.Read < static_cast<uint64_t>(total) && !AOptions.Limit) {
      std::string text = std::to_string(total - static_cast<int64_t>(listing.Read));
      text.append(" of the ");
      text.append(std::to_string(total));
      text.append(" records the log counts could not be read");
      log.IssueList().AddIssue(text);
    }
  }
  if (!listing.Finish()) status = 1;
  if (!AOptions.Quiet) AHooks.PrintSummary(AErr, AOptions.Path, listing.Events, log.IssueList(), AOptions.AllIssues);
  return status;
}

} // namespace qvx::app
