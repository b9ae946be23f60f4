// qvx_bench_fixtures DIR [EVENTS=100000] [PROVIDERS=50]: the offline installation the
// descriptions benchmark reads. PROVIDERS classic sources BenchSrc00, BenchSrc01, … are
// registered under the Application log of the SYSTEM hive, each with its own message module
// DIR/Windows/System32/BenchMsgNN.dll holding messages 1000..1009; the SOFTWARE hive holds
// what path expansion needs (SystemRoot, ProgramFilesDir, three user profiles). DIR/bench.evtx
// gets EVENTS events cycling over the sources and message identifiers, three data strings
// each. The log is streamed chunk by chunk, so memory stays flat whatever EVENTS is.
// DIR/Windows is replaced; the rest of DIR is left alone.
#include "engine/evtx/evtx_writer.h"
#include "support/hive_writer.h"
#include "support/imaged_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace qvx;
using namespace qvx::test;
namespace fs = std::filesystem;

constexpr uint16_t kFirstMessageId = 1000;
constexpr uint16_t kMessagesPerSource = 10;

const char* const kUsers[] = {"S-1-5-21-1111-2222-3333-1001", "S-1-5-21-1111-2222-3333-1002",
                              "S-1-5-21-1111-2222-3333-1003"};
const char* const kUserNames[] = {"alice", "Bob", "carol"};

std::string Format(const char* AFormat, unsigned A, unsigned B = 0, unsigned C = 0) {
  char buffer[128];
  std::snprintf(buffer, sizeof(buffer), AFormat, A, B, C);
  return buffer;
}

std::u16string Ascii16(const std::string& AText) { return {AText.begin(), AText.end()}; }

std::string SourceName(unsigned ASource) { return Format("BenchSrc%02u", ASource); }

bool ParseCount(const char* AText, unsigned long long& AValue) {
  char* end = nullptr;
  AValue = std::strtoull(AText, &end, 10);
  return end && *end == 0 && *AText != 0;
}

void WriteRegistry(const fs::path& AConfig, unsigned AProviders) {
  fs::create_directories(AConfig);
  THiveKey software;
  THiveKey microsoft{"Microsoft", {}, {}};
  THiveKey profileList{"ProfileList", {}, {}};
  profileList.Keys.push_back(
      {"S-1-5-18", {THiveValue::ExpandSz("ProfileImagePath", "%systemroot%\\system32\\config\\systemprofile")}, {}});
  for (size_t i = 0; i < std::size(kUsers); ++i) {
    std::string profile = "C:\\Users\\";
    profile.append(kUserNames[i]);
    profileList.Keys.push_back({kUsers[i], {THiveValue::ExpandSz("ProfileImagePath", profile)}, {}});
  }
  microsoft.Keys.push_back(
      {"Windows NT", {}, {{"CurrentVersion", {THiveValue::Sz("SystemRoot", "C:\\WINDOWS")}, {profileList}}}});
  microsoft.Keys.push_back({"Windows",
                            {},
                            {{"CurrentVersion",
                              {THiveValue::Sz("ProgramFilesDir", "C:\\Program Files"),
                               THiveValue::Sz("ProgramFilesDir (x86)", "C:\\Program Files (x86)")},
                              {}}}});
  software.Keys.push_back(microsoft);
  if (!WriteHive(AConfig / "SOFTWARE", software)) throw std::runtime_error("cannot write the SOFTWARE hive");

  THiveKey application{"Application", {}, {}};
  for (unsigned source = 0; source < AProviders; ++source) {
    std::string module = "%SystemRoot%\\System32\\";
    module.append(Format("BenchMsg%02u.dll", source));
    application.Keys.push_back({SourceName(source),
                                {THiveValue::ExpandSz("EventMessageFile", module),
                                 THiveValue::Dword("TypesSupported", 7)},
                                {}});
  }
  THiveKey system;
  system.Keys.push_back({"Select", {THiveValue::Dword("Current", 1)}, {}});
  system.Keys.push_back({"ControlSet001", {}, {{"Services", {}, {{"EventLog", {}, {application}}}}}});
  if (!WriteHive(AConfig / "SYSTEM", system)) throw std::runtime_error("cannot write the SYSTEM hive");
}

void WriteModules(const fs::path& ASystem32, unsigned AProviders) {
  for (unsigned source = 0; source < AProviders; ++source) {
    std::vector<std::pair<uint32_t, std::u16string>> messages;
    for (unsigned k = 0; k < kMessagesPerSource; ++k)
      messages.emplace_back(kFirstMessageId + k,
                            Ascii16(Format("Bench source %02u event %u: %%1 user %%2 value %%3\r\n", source,
                                           kFirstMessageId + k)));
    WriteMessageDll(ASystem32 / Format("BenchMsg%02u.dll", source), messages);
  }
}

// Event AIndex: source and message cycle at different rates so every pair turns up.
TEvtxEventDraft BenchEvent(uint64_t AIndex, unsigned AProviders) {
  const unsigned i = static_cast<unsigned>(AIndex);
  TEvtxEventDraft event;
  event.FProviderName = SourceName(i % AProviders);
  event.FEventId = static_cast<uint16_t>(kFirstMessageId + (i / AProviders + i) % kMessagesPerSource);
  event.FQualifiers = 0;
  event.FLevel = static_cast<uint8_t>(i % 7 == 0 ? 3 : 4);
  event.FTimeCreated = EvtxFileTime(2024, 2, 1, 6, 0, 0) + AIndex * 3'700'000ull;
  event.FProcessId = 1000 + i % 97 * 4;
  event.FThreadId = 2000 + i % 31 * 4;
  event.FChannel = "Application";
  event.FComputer = "BENCH-PC.corp.example";
  event.FUserId = kUsers[i % std::size(kUsers)];
  event.FData.push_back({"", TEvtxValue::String(Format("C:\\Program Files\\App%02u\\bin\\worker%04u.exe", i % 17,
                                                        i % 9973))});
  event.FData.push_back({"", TEvtxValue::String(Format("CORP\\svc-task-%05u (session %u)", i % 40009, i % 5))});
  event.FData.push_back({"", TEvtxValue::String(Format("0x%08X status=%u elapsed=%ums", i * 2654435761u,
                                                        i % 13, i % 100000))});
  return event;
}

} // namespace

int main(int argc, char** argv) {
  unsigned long long events = 100000, providers = 50;
  if (argc < 2 || argc > 4 || (argc > 2 && !ParseCount(argv[2], events)) ||
      (argc > 3 && (!ParseCount(argv[3], providers) || providers == 0 || providers > 5000))) {
    std::fprintf(stderr, "usage: qvx_bench_fixtures DIR [EVENTS=100000] [PROVIDERS=50 (1..5000)]\n");
    return 2;
  }
  try {
    const fs::path dir = argv[1];
    const fs::path windows = dir / "Windows";
    const unsigned count = static_cast<unsigned>(providers);
    fs::remove_all(windows);
    fs::create_directories(windows / "System32");
    WriteRegistry(windows / "System32" / "config", count);
    WriteModules(windows / "System32", count);

    const fs::path log = dir / "bench.evtx";
    TEvtxFileWriter writer(log.string());
    for (uint64_t i = 0; i < events; ++i)
      writer.AddEvent(BenchEvent(i, count));
    writer.Close();

    std::printf("%s\n%s\n", (windows / "System32" / "config" / "SOFTWARE").c_str(),
                (windows / "System32" / "config" / "SYSTEM").c_str());
    std::printf("%s (%u message modules BenchMsg00.dll..BenchMsg%02u.dll)\n", (windows / "System32").c_str(), count,
                count - 1);
    std::printf("%s (%llu events)\n", log.c_str(), events);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qvx_bench_fixtures: %s\n", e.what());
    return 1;
  }
  return 0;
}
