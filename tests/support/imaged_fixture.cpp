#include "support/imaged_fixture.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "descriptions/provider_metadata.h"
#include "engine/evtx/evtx_writer.h"
#include "platform/pe_resources.h"
#include "support/hive_writer.h"
#include "support/pe_writer.h"
#include "support/wevt_writer.h"

namespace qvx::test {

namespace fs = std::filesystem;

namespace {

using TMessages = std::vector<std::pair<uint32_t, std::u16string>>;

constexpr uint16_t kLangDeDe = 0x0407;
constexpr const char* kGuidProviderC = "{C0C0C0C0-1111-2222-3333-444455556666}";
// Select\Current of the SYSTEM hive. ControlSet002 carries a decoy that readers must not take.
constexpr uint32_t kSelectCurrent = 2;

void WriteBytes(const fs::path& APath, const std::vector<uint8_t>& ABytes) {
  fs::create_directories(APath.parent_path());
  std::ofstream out(APath, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(ABytes.data()), static_cast<std::streamsize>(ABytes.size()));
  if (!out) {
    std::string message = "cannot write ";
    message.append(APath.string());
    throw std::runtime_error(message);
  }
}

// The key at APath ('\'-separated) below ARoot, created with its parents when missing.
THiveKey& Key(THiveKey& ARoot, std::string_view APath) {
  THiveKey* key = &ARoot;
  while (!APath.empty()) {
    size_t cut = APath.find('\\');
    std::string_view part = APath.substr(0, cut);
    APath = cut == std::string_view::npos ? std::string_view() : APath.substr(cut + 1);
    if (part.empty()) continue;
    auto found = std::find_if(key->Keys.begin(), key->Keys.end(),
                              [&](const THiveKey& AChild) { return AChild.Name == part; });
    if (found == key->Keys.end()) {
      key->Keys.push_back(THiveKey{std::string(part), {}, {}});
      key = &key->Keys.back();
    } else {
      key = &*found;
    }
  }
  return *key;
}

void Put(THiveKey& ARoot, std::string_view APath, std::vector<THiveValue> AValues) {
  THiveKey& key = Key(ARoot, APath);
  for (THiveValue& value : AValues)
    key.Values.push_back(std::move(value));
}

void WriteHiveOrThrow(const fs::path& APath, const THiveKey& ARoot) {
  fs::create_directories(APath.parent_path());
  if (!WriteHive(APath, ARoot)) {
    std::string message = "cannot write the hive ";
    message.append(APath.string());
    throw std::runtime_error(message);
  }
}

// RT_MESSAGETABLE bytes: the messages sorted, one block per run of consecutive identifiers.
std::vector<uint8_t> MessageTable(TMessages AMessages) {
  std::sort(AMessages.begin(), AMessages.end(),
            [](const auto& A, const auto& B) { return A.first < B.first; });
  std::vector<TMessageBlockFixture> blocks;
  for (const auto& [id, text] : AMessages) {
    if (blocks.empty() || blocks.back().HighId + 1 != id) blocks.push_back({id, id, {}, {}});
    blocks.back().HighId = id;
    blocks.back().Entries.push_back(UnicodeEntry(text));
  }
  return BuildMessageTable(blocks);
}

void AddMessageTable(TPeWriter& APe, const TMessages& AMessages, uint16_t ALanguage) {
  APe.Add(TResourceId(static_cast<uint16_t>(rtMessageTable)), TResourceId(static_cast<uint16_t>(1)), ALanguage,
          MessageTable(AMessages));
}

TProviderGuid Guid(const char* AText) {
  TProviderGuid guid;
  if (!ParseProviderGuid(AText, guid)) throw std::invalid_argument(AText);
  return guid;
}

TWevtEventDraft EventDefinition(uint16_t AId, uint8_t AVersion, uint32_t AMessageId) {
  TWevtEventDraft event;
  event.Id = AId;
  event.Version = AVersion;
  event.MessageId = AMessageId;
  return event;
}

// WEVT_TEMPLATE bytes for one provider with its events and tasks.
std::vector<uint8_t> WevtResource(const char* AGuid, std::vector<TWevtEventDraft> AEvents,
                                  std::vector<TWevtTaskDraft> ATasks) {
  TWevtProviderDraft provider;
  provider.Guid = Guid(AGuid);
  TWevtElementDraft events;
  events.Signature = "EVNT";
  events.Kind = 4;
  events.Events = std::move(AEvents);
  provider.Elements.push_back(std::move(events));
  if (!ATasks.empty()) {
    TWevtElementDraft tasks;
    tasks.Signature = "TASK";
    tasks.Kind = 1;
    tasks.Tasks = std::move(ATasks);
    provider.Elements.push_back(std::move(tasks));
  }
  TWevtResourceDraft draft;
  draft.Providers.push_back(std::move(provider));
  return BuildWevtResource(draft);
}

void AddWevt(TPeWriter& APe, std::vector<uint8_t> AResource) {
  APe.Add(TResourceId("WEVT_TEMPLATE"), TResourceId(static_cast<uint16_t>(1)), kLangEnUs, std::move(AResource));
}

// TIME_ZONE_INFORMATION as the registry's TZI holds it: Bias, StandardBias, DaylightBias,
// then the two SYSTEMTIME transition dates (month, day of week, occurrence, hour).
std::vector<uint8_t> Tzi(int32_t ABias, int32_t AStandardBias, int32_t ADaylightBias, uint16_t AStdMonth,
                         uint16_t AStdHour, uint16_t ADltMonth, uint16_t ADltHour) {
  std::vector<uint8_t> tzi(44, 0);
  PutU32(tzi, 0, static_cast<uint32_t>(ABias));
  PutU32(tzi, 4, static_cast<uint32_t>(AStandardBias));
  PutU32(tzi, 8, static_cast<uint32_t>(ADaylightBias));
  auto date = [&](size_t AOffset, uint16_t AMonth, uint16_t AHour) {
    PutU16(tzi, AOffset + 2, AMonth); // wYear stays 0: a yearly rule
    PutU16(tzi, AOffset + 4, 0);      // Sunday
    PutU16(tzi, AOffset + 6, 5);      // the last one of the month
    PutU16(tzi, AOffset + 8, AHour);
  };
  date(12, AStdMonth, AStdHour);
  date(28, ADltMonth, ADltHour);
  return tzi;
}

THiveKey SoftwareHive() {
  THiveKey root;
  const std::string nt = "Microsoft\\Windows NT\\CurrentVersion";
  Put(root, nt, {THiveValue::Sz("SystemRoot", "C:\\WINDOWS")});
  const std::string profiles = nt + "\\ProfileList\\";
  Put(root, profiles + "S-1-5-18",
      {THiveValue::ExpandSz("ProfileImagePath", "%systemroot%\\system32\\config\\systemprofile")});
  Put(root, profiles + kUserAliceSid, {THiveValue::ExpandSz("ProfileImagePath", "C:\\Users\\alice")});
  Put(root, profiles + kUserBobSid, {THiveValue::ExpandSz("ProfileImagePath", "C:\\Users\\Bob")});
  Put(root, "Microsoft\\Windows\\CurrentVersion",
      {THiveValue::Sz("ProgramFilesDir", "C:\\Program Files"),
       THiveValue::Sz("ProgramFilesDir (x86)", "C:\\Program Files (x86)"),
       THiveValue::Sz("CommonFilesDir", "C:\\Program Files\\Common Files"),
       THiveValue::Sz("ProgramW6432Dir", "C:\\Program Files")});

  const std::string publishers = "Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\\";
  Put(root, publishers + kGuidProviderA,
      {THiveValue::Sz("", "Test-Provider-A"),
       THiveValue::ExpandSz("MessageFileName", "%SystemRoot%\\system32\\ProvA.dll"),
       THiveValue::ExpandSz("ResourceFileName", "%SystemRoot%\\system32\\ProvA.dll")});
  Put(root, publishers + kGuidProviderB,
      {THiveValue::Sz("", "Test-Provider-B"),
       THiveValue::ExpandSz("MessageFileName", "C:\\Program Files\\Vendor\\provb.dll")});
  std::string wow = "Wow6432Node\\";
  wow.append(publishers);
  Put(root, wow + kGuidProviderA,
      {THiveValue::Sz("", "Test-Provider-A"),
       THiveValue::ExpandSz("MessageFileName", "%SystemRoot%\\SysWOW64\\wrong.dll")});
  Put(root, wow + kGuidProviderC,
      {THiveValue::Sz("", "Test-Provider-C32"), THiveValue::ExpandSz("MessageFileName", "provc.dll")});

  const std::string channels = "Microsoft\\Windows\\CurrentVersion\\WINEVT\\Channels\\";
  Put(root, channels + "Application", {THiveValue::Sz("OwningPublisher", kGuidProviderA)});
  Put(root, channels + "Test-Provider-A/Operational", {THiveValue::Sz("OwningPublisher", kGuidProviderA)});

  Put(root, nt + "\\Time Zones\\W. Europe Standard Time",
      {THiveValue::Sz("Display", "(UTC+01:00) Amsterdam, Berlin"), THiveValue::Sz("Std", "W. Europe Standard Time"),
       THiveValue::Sz("Dlt", "W. Europe Daylight Time"), THiveValue::Binary("TZI", Tzi(-60, 0, -60, 10, 3, 3, 2))});
  return root;
}

THiveKey SystemHive() {
  THiveKey root;
  Put(root, "Select", {THiveValue::Dword("Current", kSelectCurrent)});
  const std::string application = "ControlSet001\\Services\\EventLog\\Application\\";
  Put(root, application + "ClassicSrc",
      {THiveValue::ExpandSz("EventMessageFile", "%SystemRoot%\\System32\\ClassicA.dll;ClassicB.dll"),
       THiveValue::ExpandSz("CategoryMessageFile", "%SystemRoot%\\System32\\ClassicB.dll"),
       THiveValue::ExpandSz("ParameterMessageFile", "%SystemRoot%\\System32\\Params.dll"),
       THiveValue::Dword("TypesSupported", 7)});
  Put(root, application + "MuiSrc", {THiveValue::ExpandSz("EventMessageFile", "%SystemRoot%\\System32\\MuiOnly.dll")});
  Put(root, application + "Microsoft-Windows-Kernel-General",
      {THiveValue::ExpandSz("EventMessageFile", "%SystemRoot%\\System32\\KernelGen.dll")});
  Put(root, "ControlSet001\\Services\\EventLog\\System\\ClassicSrc",
      {THiveValue::ExpandSz("EventMessageFile", "other.dll")});
  Put(root, "ControlSet001\\Control\\MUI\\UILanguages\\en-US", {});
  Put(root, "ControlSet001\\Control\\MUI\\UILanguages\\de-DE", {});
  Put(root, "ControlSet002\\Services\\EventLog\\Application\\ClassicSrc",
      {THiveValue::ExpandSz("EventMessageFile", "controlset2.dll")});
  return root;
}

void WriteModules(const fs::path& AWinDir, const fs::path& ARoot) {
  const fs::path system32 = AWinDir / "System32";
  WriteMessageDll(system32 / "ClassicA.dll", {{100, u"ClassicA says %1.\r\n"}});
  WriteMessageDll(system32 / "classicb.DLL", {{200, u"ClassicB event %1 and %2.\r\n"},
                                              {0xB0000065, u"Qualified 101: %1\r\n"},
                                              {3, u"Logon\r\n"},
                                              {300, u"Param ref %%1920 here.\r\n"},
                                              {301, u"Bad ref %%9999 and %1.\r\n"},
                                              {302, u"Wide %1!S! text\r\n"}});
  WriteMessageDll(system32 / "Params.dll", {{1920, u"the parameter text"}});
  WriteMessageDll(system32 / "KernelGen.dll",
                  {{0x100000C, u"Kernel time changed %1\r\n"}, {12, u"WRONG plain 12\r\n"}});

  // A module whose messages live only in its language satellites.
  TPeWriter mui(true);
  mui.Add(TResourceId("MUI"), TResourceId(static_cast<uint16_t>(1)), kLangNeutral,
          {0xCD, 0xFE, 0xCD, 0xFE, 0x08, 0x00, 0x00, 0x00});
  WriteBytes(system32 / "MuiOnly.dll", mui.Build());
  WriteMessageDll(system32 / "en-US" / "MuiOnly.dll.mui", {{500, u"From the satellite %1\r\n"}});
  WriteMessageDll(system32 / "de-DE" / "MuiOnly.dll.mui", {{500, u"Vom Satelliten %1\r\n"}}, kLangDeDe);

  TPeWriter provA(true);
  AddMessageTable(provA,
                  {{0xB0000001, u"Provider A event one: %1\r\n"},
                   {0xB0010001, u"Provider A event one v1: %1 %2\r\n"},
                   {0x90000005, u"Task Five\r\n"}},
                  kLangEnUs);
  TWevtTaskDraft task5;
  task5.Value = 5;
  task5.MessageId = 0x90000005;
  AddWevt(provA, WevtResource(kGuidProviderA, {EventDefinition(1, 0, 0xB0000001), EventDefinition(1, 1, 0xB0010001)},
                              {task5}));
  WriteBytes(system32 / "ProvA.dll", provA.Build());

  TPeWriter provB(true);
  AddMessageTable(provB, {{0xB000000A, u"B ten %1\r\n"}}, kLangEnUs);
  AddWevt(provB, WevtResource(kGuidProviderB, {EventDefinition(10, 0, 0xB000000A)}, {}));
  WriteBytes(ARoot / "Program Files" / "Vendor" / "ProvB.dll", provB.Build());

  // "MZ" and junk: not a PE image.
  std::vector<uint8_t> broken(64);
  broken[0] = 'M';
  broken[1] = 'Z';
  for (size_t i = 2; i < broken.size(); ++i)
    broken[i] = static_cast<uint8_t>(0xA5 ^ (i * 37));
  WriteBytes(system32 / "Broken.dll", broken);
}

TEvtxEventDraft Event(uint64_t AIndex, const char* AProvider, uint16_t AId, std::vector<std::string> AData) {
  TEvtxEventDraft event;
  event.FProviderName = AProvider;
  event.FEventId = AId;
  event.FLevel = 4;
  event.FTimeCreated = EvtxFileTime(2024, 6, 3, 8, 15, 0) + AIndex * 10'000'000ull * 61;
  event.FProcessId = 4000 + static_cast<uint32_t>(AIndex);
  event.FThreadId = 5000 + static_cast<uint32_t>(AIndex);
  event.FChannel = "Application";
  event.FComputer = "IMAGED-PC";
  for (std::string& text : AData)
    event.FData.push_back({"", TEvtxValue::String(text)});
  return event;
}

void WriteLog(const fs::path& APath) {
  std::vector<TEvtxEventDraft> events;
  events.push_back(Event(1, "ClassicSrc", 100, {"alpha"}));
  events.back().FQualifiers = 0;
  events.back().FUserId = kUserAliceSid;
  events.push_back(Event(2, "ClassicSrc", 200, {"one", "two"}));
  events.push_back(Event(3, "ClassicSrc", 101, {"q"}));
  events.back().FQualifiers = 0;
  events.push_back(Event(4, "Test-Provider-A", 1, {"x", "y"}));
  events.back().FProviderGuid = kGuidProviderA;
  events.back().FVersion = 1;
  events.back().FTask = 5;
  events.back().FUserId = kUserBobSid;
  events.push_back(Event(5, "Test-Provider-A", 1, {"z"}));
  events.back().FProviderGuid = kGuidProviderA;
  events.push_back(Event(6, "MuiSrc", 500, {"sat"}));
  events.push_back(Event(7, "Unknown-Source", 4660, {"v1", "v2"}));
  events.back().FUserId = "S-1-5-18";

  fs::create_directories(APath.parent_path());
  TEvtxFileWriter writer;
  for (const TEvtxEventDraft& event : events)
    writer.AddEvent(event);
  writer.WriteFile(APath.string());
}

} // namespace

void WriteMessageDll(const fs::path& APath, const TMessages& AMessages, uint16_t ALanguage) {
  TPeWriter pe(true);
  AddMessageTable(pe, AMessages, ALanguage);
  WriteBytes(APath, pe.Build());
}

void WriteProviderDll(const fs::path& APath, const char* AGuid, const TMessages& AMessages,
                      const std::vector<std::tuple<uint16_t, uint8_t, uint32_t>>& AEvents,
                      const std::vector<std::pair<uint32_t, uint32_t>>& ATasks) {
  TPeWriter pe(true);
  AddMessageTable(pe, AMessages, kLangEnUs);
  std::vector<TWevtEventDraft> events;
  for (const auto& [id, version, message] : AEvents) events.push_back(EventDefinition(id, version, message));
  std::vector<TWevtTaskDraft> tasks;
  for (const auto& [value, message] : ATasks) {
    TWevtTaskDraft task;
    task.Value = value;
    task.MessageId = message;
    tasks.push_back(task);
  }
  AddWevt(pe, WevtResource(AGuid, std::move(events), std::move(tasks)));
  WriteBytes(APath, pe.Build());
}

TImagedTree BuildImagedWindows(const fs::path& ADir) {
  TImagedTree tree;
  tree.Root = ADir;
  tree.WinDir = ADir / "Windows";
  tree.LogFile = tree.WinDir / "System32" / "winevt" / "Logs" / "Application.evtx";
  fs::remove_all(ADir);
  fs::create_directories(tree.WinDir / "System32" / "config");
  fs::create_directories(tree.WinDir / "System32" / "winevt" / "Logs");
  fs::create_directories(ADir / "Program Files" / "Vendor");

  WriteHiveOrThrow(tree.WinDir / "System32" / "config" / "SOFTWARE", SoftwareHive());
  WriteHiveOrThrow(tree.WinDir / "System32" / "config" / "SYSTEM", SystemHive());
  WriteModules(tree.WinDir, tree.Root);
  WriteLog(tree.LogFile);
  return tree;
}

} // namespace qvx::test
