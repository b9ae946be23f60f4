#include "app/demo_log.h"

#include "engine/evtx/evtx_writer.h"

#include <array>
#include <cstdio>
#include <deque>
#include <memory>
#include <string_view>

namespace qvx {
namespace {

// splitmix64: small, fast and the same on every platform.
class TDemoRandom {
public:
  explicit TDemoRandom(uint64_t ASeed) : FState(ASeed) {}

  uint64_t Next() {
    uint64_t z = (FState += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  uint32_t Below(uint32_t AUpper) { return static_cast<uint32_t>(Next() % AUpper); }
  uint32_t Between(uint32_t ALow, uint32_t AHigh) { return ALow + Below(AHigh - ALow + 1); }
  bool Percent(uint32_t AChance) { return Below(100) < AChance; }
  template <typename T, size_t N> const T& Pick(const std::array<T, N>& AItems) { return AItems[Below(N)]; }

private:
  uint64_t FState;
};

constexpr uint64_t kSeed = 0x51756F7276657844ull;
constexpr uint64_t kSecond = 10000000ull; // FILETIME units

struct TDemoHost {
  std::string_view FName;
  std::string_view FShort;
  uint32_t FLsassPid;
  uint32_t FServicesPid;
  uint32_t FSysmonPid;
};

constexpr std::array<TDemoHost, 3> kHosts = {{
    {"WS-FIN-042.corp.contoso.com", "WS-FIN-042", 812, 744, 3120},
    {"WS-HR-017.corp.contoso.com", "WS-HR-017", 796, 728, 2956},
    {"SRV-DC01.corp.contoso.com", "SRV-DC01", 668, 652, 2484},
}};

struct TDemoUser {
  std::string_view FName;
  uint32_t FRid;
  bool FAdmin;
};

constexpr std::array<TDemoUser, 6> kUsers = {{
    {"alice.martin", 1104, false},
    {"bob.smith", 1105, false},
    {"carol.nguyen", 1117, false},
    {"dave.admin", 1108, true},
    {"erin.lopez", 1121, false},
    {"svc_backup", 1310, true},
}};

constexpr std::string_view kDomain = "CONTOSO";
constexpr std::string_view kDomainSid = "S-1-5-21-3623811015-3361044348-30300820";

struct TDemoProgram {
  std::string_view FImage;
  std::string_view FDescription;
  std::string_view FProduct;
  std::string_view FCompany;
  std::string_view FOriginalName;
  std::string_view FVersion;
  std::string_view FCommandLine;
};

constexpr std::string_view kWindowsProduct = "Microsoft\u00AE Windows\u00AE Operating System";
constexpr std::string_view kWindowsVersion = "10.0.19041.3636 (WinBuild.160101.0800)";

constexpr std::array<TDemoProgram, 10> kPrograms = {{
    {"C:\\Windows\\System32\\cmd.exe", "Windows Command Processor", kWindowsProduct, "Microsoft Corporation",
     "Cmd.Exe", kWindowsVersion, "\"C:\\Windows\\system32\\cmd.exe\" /c whoami /all"},
    {"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe", "Windows PowerShell", kWindowsProduct,
     "Microsoft Corporation", "PowerShell.EXE", kWindowsVersion,
     "powershell.exe -NoProfile -ExecutionPolicy Bypass -File C:\\Scripts\\inventory.ps1"},
    {"C:\\Windows\\System32\\notepad.exe", "Notepad", kWindowsProduct, "Microsoft Corporation", "NOTEPAD.EXE",
     kWindowsVersion, "\"C:\\Windows\\system32\\notepad.exe\" C:\\Users\\Public\\Documents\\notes.txt"},
    {"C:\\Program Files\\Microsoft Office\\root\\Office16\\EXCEL.EXE", "Microsoft Excel", "Microsoft Office",
     "Microsoft Corporation", "Excel.exe", "16.0.17328.20162",
     "\"C:\\Program Files\\Microsoft Office\\root\\Office16\\EXCEL.EXE\" \"\\\\fs01\\finance\\Q1 "
     "budget.xlsx\""},
    {"C:\\Program Files\\Google\\Chrome\\Application\\chrome.exe", "Google Chrome", "Google Chrome",
     "Google LLC", "chrome.exe", "122.0.6261.112",
     "\"C:\\Program Files\\Google\\Chrome\\Application\\chrome.exe\" --type=renderer --lang=en-US"},
    {"C:\\Windows\\System32\\svchost.exe", "Host Process for Windows Services", kWindowsProduct,
     "Microsoft Corporation", "svchost.exe", kWindowsVersion,
     "C:\\Windows\\system32\\svchost.exe -k netsvcs -p -s Schedule"},
    {"C:\\Windows\\System32\\taskhostw.exe", "Host Process for Windows Tasks", kWindowsProduct,
     "Microsoft Corporation", "taskhostw.exe", kWindowsVersion,
     "taskhostw.exe -RegisterDevice -ProtectionStateChanged"},
    {"C:\\Windows\\System32\\whoami.exe", "whoami - displays logged on user information", kWindowsProduct,
     "Microsoft Corporation", "whoami.exe", kWindowsVersion, "whoami  /priv"},
    {"C:\\Windows\\System32\\net.exe", "Net Command", kWindowsProduct, "Microsoft Corporation", "net.exe",
     kWindowsVersion, "net  user /domain"},
    {"C:\\Windows\\System32\\rundll32.exe", "Windows host process (Rundll32)", kWindowsProduct,
     "Microsoft Corporation", "RUNDLL32.EXE", kWindowsVersion,
     "\"C:\\Windows\\system32\\rundll32.exe\" C:\\Windows\\system32\\shell32.dll,Control_RunDLL"},
}};

struct TDemoParent {
  std::string_view FImage;
  std::string_view FCommandLine;
};

constexpr std::array<TDemoParent, 4> kParents = {{
    {"C:\\Windows\\explorer.exe", "C:\\Windows\\Explorer.EXE"},
    {"C:\\Windows\\System32\\services.exe", "C:\\Windows\\system32\\services.exe"},
    {"C:\\Windows\\System32\\svchost.exe", "C:\\Windows\\system32\\svchost.exe -k netsvcs -p"},
    {"C:\\Windows\\System32\\cmd.exe", "\"C:\\Windows\\system32\\cmd.exe\""},
}};

struct TDemoService {
  std::string_view FDisplay;
  std::string_view FKey;
};

constexpr std::array<TDemoService, 8> kServices = {{
    {"Windows Update", "wuauserv"},
    {"Background Intelligent Transfer Service", "BITS"},
    {"Windows Modules Installer", "TrustedInstaller"},
    {"Print Spooler", "Spooler"},
    {"Windows Defender Antivirus Service", "WinDefend"},
    {"Network List Service", "netprofm"},
    {"Windows Error Reporting Service", "WerSvc"},
    {"Software Protection", "sppsvc"},
}};

struct TDemoInstall {
  std::string_view FName;
  std::string_view FImagePath;
  std::string_view FStartType;
  std::string_view FAccount;
};

constexpr std::array<TDemoInstall, 3> kInstalls = {{
    {"Contoso Update Service", "\"C:\\Program Files\\Contoso\\Updater\\ContosoUpdate.exe\" /svc",
     "auto start", "LocalSystem"},
    {"PSEXESVC", "%SystemRoot%\\PSEXESVC.exe", "demand start", "LocalSystem"},
    {"Backup Agent", "C:\\Program Files\\Contoso\\Backup\\agent.exe", "auto start", "CONTOSO\\svc_backup"},
}};

constexpr std::string_view kAuditingProvider = "Microsoft-Windows-Security-Auditing";
constexpr std::string_view kAuditingGuid = "{54849625-5478-4994-A5BA-3E3B0328C30D}";

std::string Hex(uint64_t AValue, int ADigits) {
  char buffer[24];
  std::snprintf(buffer, sizeof buffer, "%0*llx", ADigits, static_cast<unsigned long long>(AValue));
  return buffer;
}

struct TCivilTime {
  int64_t FYear, FMonth, FDay, FHour, FMinute, FSecond, FMillisecond, FDayOfWeek;
};

// UTC calendar fields of a FILETIME.
TCivilTime Civil(uint64_t AFileTime) {
  int64_t seconds = static_cast<int64_t>(AFileTime / kSecond) - 11644473600ll;
  int64_t days = seconds / 86400;
  int64_t rest = seconds % 86400;
  int64_t z = days + 719468;
  int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  TCivilTime t{};
  t.FDay = doy - (153 * mp + 2) / 5 + 1;
  t.FMonth = mp < 10 ? mp + 3 : mp - 9;
  t.FYear = yoe + era * 400 + (t.FMonth <= 2);
  t.FHour = rest / 3600;
  t.FMinute = rest / 60 % 60;
  t.FSecond = rest % 60;
  t.FMillisecond = static_cast<int64_t>(AFileTime / 10000 % 1000);
  t.FDayOfWeek = (days % 7 + 11) % 7; // 1970-01-01 was a Thursday (4)
  return t;
}

// "YYYY-MM-DD hh:mm:ss.mmm" of a FILETIME.
std::string UtcText(uint64_t AFileTime) {
  TCivilTime t = Civil(AFileTime);
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld.%03lld",
                static_cast<long long>(t.FYear), static_cast<long long>(t.FMonth),
                static_cast<long long>(t.FDay), static_cast<long long>(t.FHour),
                static_cast<long long>(t.FMinute), static_cast<long long>(t.FSecond),
                static_cast<long long>(t.FMillisecond));
  return buffer;
}

// Builds the events in order; scripted sequences (boot, logon + privileges) wait in a queue.
class TDemoLog {
public:
  TDemoLog() : FRandom(kSeed), FTime(EvtxFileTime(2024, 3, 11, 7, 58, 12, 4410000)) {
    FCleared = std::make_shared<TEvtxTemplate>("qvx.demo.LogFileCleared", [](TBinXmlWriter& w) {
      w.OpenElement("LogFileCleared");
      w.Attribute("xmlns");
      w.Text("http://manifests.microsoft.com/win/2004/08/windows/eventlog");
      w.CloseStartElement();
      w.SubstitutionElement("SubjectUserSid", 0, EvtxType::Sid);
      w.SubstitutionElement("SubjectUserName", 1, EvtxType::String);
      w.SubstitutionElement("SubjectDomainName", 2, EvtxType::String);
      w.SubstitutionElement("SubjectLogonId", 3, EvtxType::Hex64);
      w.EndElement();
    });
  }

  TEvtxEventDraft Next() {
    if (FPending.empty()) Plan();
    TEvtxEventDraft event = std::move(FPending.front());
    FPending.pop_front();
    return event;
  }

private:
  void Plan() {
    ++FPlans;
    if (FPlans == 1) {
      FHost = &kHosts[0];
      Push(LogCleared());
      Boot();
      return;
    }
    Advance(200, 45000);
    if (FRandom.Percent(8)) FHost = &kHosts[FRandom.Below(kHosts.size())];
    if (FPlans % 97 == 0) {
      Boot();
      return;
    }
    uint32_t roll = FRandom.Below(100);
    if (roll < 22)
      Logon();
    else if (roll < 28)
      FailedLogon();
    else if (roll < 46)
      Push(ProcessCreated());
    else if (roll < 66)
      Push(SysmonProcess());
    else if (roll < 80)
      Push(ServiceState(kServices[FRandom.Below(kServices.size())], FRandom.Percent(50)));
    else if (roll < 82)
      Push(ServiceInstalled());
    else if (roll < 86)
      Push(ApplicationError());
    else
      Logon();
  }

  void Advance(uint32_t AMinMs, uint32_t AMaxMs) {
    FTime += static_cast<uint64_t>(FRandom.Between(AMinMs, AMaxMs)) * 10000 + FRandom.Below(10000);
  }

  void Push(TEvtxEventDraft AEvent) { FPending.push_back(std::move(AEvent)); }

  TEvtxEventDraft Base(std::string_view AProvider, std::string_view AGuid, uint16_t AEventId,
                       std::string_view AChannel) {
    TEvtxEventDraft e;
    e.FProviderName = AProvider;
    e.FProviderGuid = AGuid;
    e.FEventId = AEventId;
    e.FChannel = AChannel;
    e.FComputer = FHost->FName;
    e.FTimeCreated = FTime;
    return e;
  }

  TEvtxEventDraft Security(uint16_t AEventId, uint16_t ATask, uint8_t AVersion, bool ASuccess) {
    TEvtxEventDraft e = Base(kAuditingProvider, kAuditingGuid, AEventId, "Security");
    e.FVersion = AVersion;
    e.FLevel = 0;
    e.FTask = ATask;
    e.FKeywords = ASuccess ? 0x8020000000000000ull : 0x8010000000000000ull;
    e.FProcessId = FHost->FLsassPid;
    e.FThreadId = FRandom.Between(800, 9000) & ~3u;
    return e;
  }

  std::string UserSid(const TDemoUser& AUser) const {
    return std::string(kDomainSid) + "-" + std::to_string(AUser.FRid);
  }

  std::string RandomGuid() {
    uint64_t a = FRandom.Next();
    uint64_t b = FRandom.Next();
    return "{" + Hex(a >> 32, 8) + "-" + Hex((a >> 16) & 0xFFFF, 4) + "-" + Hex(a & 0xFFFF, 4) + "-" +
           Hex(b >> 48, 4) + "-" + Hex(b & 0xFFFFFFFFFFFFull, 12) + "}";
  }

  std::string Sha256() {
    return Hex(FRandom.Next(), 16) + Hex(FRandom.Next(), 16) + Hex(FRandom.Next(), 16) +
           Hex(FRandom.Next(), 16);
  }

  uint64_t NewLogonId() { return 0x100000ull + (FRandom.Next() & 0xFFFFFF); }

  static void Add(TEvtxEventDraft& AEvent, std::string_view AName, TEvtxValue AValue) {
    AEvent.FData.push_back({std::string(AName), std::move(AValue)});
  }

  void AddSubject(TEvtxEventDraft& AEvent, std::string_view ASid, std::string_view AName, uint64_t ALogonId) {
    Add(AEvent, "SubjectUserSid", TEvtxValue::Sid(ASid));
    Add(AEvent, "SubjectUserName", TEvtxValue::String(AName));
    Add(AEvent, "SubjectDomainName", TEvtxValue::String(ALogonId == 0 ? std::string_view("-") : kDomain));
    Add(AEvent, "SubjectLogonId", TEvtxValue::Hex64(ALogonId));
  }

  std::string MachineAccount() const { return std::string(FHost->FShort) + "$"; }

  TEvtxEventDraft LogCleared() {
    TEvtxEventDraft e =
        Base("Microsoft-Windows-Eventlog", "{fc65ddd8-d6ef-4962-83d5-6e5cfe9ce148}", 1102, "Security");
    e.FTask = 104;
    e.FKeywords = 0x4020000000000000ull;
    e.FProcessId = 1288;
    e.FThreadId = 6612;
    e.FUserData =
        TEvtxValue::BinXml(FCleared, {TEvtxValue::Sid(UserSid(kUsers[3])), TEvtxValue::String("dave.admin"),
                                      TEvtxValue::String(kDomain), TEvtxValue::Hex64(0x2A41C7)});
    return e;
  }

  void Boot() {
    // shutdown, a gap, then start-up with the processor and service events that follow it
    Advance(30000, 240000);
    TEvtxEventDraft stop =
        Base("Microsoft-Windows-Kernel-General", "{A68CA8B7-004F-D7B6-A698-07E2DE0F1F5D}", 13, "System");
    stop.FTask = 0;
    stop.FKeywords = 0x8000000000000010ull;
    stop.FProcessId = 4;
    stop.FThreadId = 8;
    stop.FUserId = "S-1-5-18";
    TCivilTime t = Civil(FTime + 2 * kSecond + 1250000);
    auto u16 = [](int64_t AValue) { return static_cast<uint16_t>(AValue); };
    Add(stop, "StopTime",
        TEvtxValue::SystemTime(u16(t.FYear), u16(t.FMonth), u16(t.FDayOfWeek), u16(t.FDay), u16(t.FHour),
                               u16(t.FMinute), u16(t.FSecond), u16(t.FMillisecond)));
    Push(std::move(stop));

    FTime += 38 * kSecond + FRandom.Below(20) * kSecond;
    TEvtxEventDraft start =
        Base("Microsoft-Windows-Kernel-General", "{A68CA8B7-004F-D7B6-A698-07E2DE0F1F5D}", 12, "System");
    start.FVersion = 2;
    start.FTask = 1;
    start.FKeywords = 0x8000000000000080ull;
    start.FProcessId = 4;
    start.FThreadId = 8;
    start.FUserId = "S-1-5-18";
    Add(start, "MajorVersion", TEvtxValue::UInt32(10));
    Add(start, "MinorVersion", TEvtxValue::UInt32(0));
    Add(start, "BuildVersion", TEvtxValue::UInt32(19045));
    Add(start, "QfeVersion", TEvtxValue::UInt32(3803));
    Add(start, "ServiceVersion", TEvtxValue::UInt32(0));
    Add(start, "BootMode", TEvtxValue::UInt32(0));
    Add(start, "StartTime", TEvtxValue::FileTime(FTime - 3 * kSecond + 5000000));
    Push(std::move(start));

    for (uint32_t cpu = 0; cpu < 2; ++cpu) {
      FTime += FRandom.Between(1, 40) * 10000;
      TEvtxEventDraft power = Base("Microsoft-Windows-Kernel-Processor-Power",
                                   "{0F67E49F-FE51-4E9F-B490-6F2948CC6027}", 55, "System");
      power.FVersion = 4;
      power.FTask = 47;
      power.FKeywords = 0x8000000000000000ull;
      power.FProcessId = 4;
      power.FThreadId = 196;
      power.FUserId = "S-1-5-18";
      Add(power, "Group", TEvtxValue::UInt16(0));
      Add(power, "Number", TEvtxValue::UInt32(cpu));
      Add(power, "IdleStateCount", TEvtxValue::UInt32(3));
      Add(power, "PerfStateCount", TEvtxValue::UInt32(0));
      Add(power, "ThrottleStateCount", TEvtxValue::UInt32(0));
      Add(power, "NominalFrequency", TEvtxValue::UInt32(2904));
      const uint16_t latencies[3] = {1, 80, 150};
      Add(power, "IdleStateLatencies", TEvtxValue::UInt16Array(latencies));
      Add(power, "PlatformIdle", TEvtxValue::Bool(false));
      Push(std::move(power));
    }
    for (uint32_t i = 0; i < 3; ++i) {
      FTime += FRandom.Between(300, 4000) * 10000;
      Push(ServiceState(kServices[(FPlans + i) % kServices.size()], true));
    }
  }

  void Logon() {
    const TDemoUser& user = kUsers[FRandom.Below(kUsers.size())];
    uint64_t logonId = NewLogonId();
    uint32_t logonType = FRandom.Pick(std::array<uint32_t, 5>{2, 3, 3, 10, 11});
    TEvtxEventDraft e = Security(4624, 12544, 2, true);
    AddSubject(e, "S-1-5-18", MachineAccount(), 0x3E7);
    Add(e, "TargetUserSid", TEvtxValue::Sid(UserSid(user)));
    Add(e, "TargetUserName", TEvtxValue::String(user.FName));
    Add(e, "TargetDomainName", TEvtxValue::String(kDomain));
    Add(e, "TargetLogonId", TEvtxValue::Hex64(logonId));
    Add(e, "LogonType", TEvtxValue::UInt32(logonType));
    Add(e, "LogonProcessName", TEvtxValue::String(logonType == 3 ? "NtLmSsp " : "User32 "));
    Add(e, "AuthenticationPackageName", TEvtxValue::String(logonType == 3 ? "NTLM" : "Negotiate"));
    Add(e, "WorkstationName", TEvtxValue::String(FHost->FShort));
    Add(e, "LogonGuid", TEvtxValue::Guid(RandomGuid()));
    Add(e, "TransmittedServices", TEvtxValue::String("-"));
    Add(e, "LmPackageName", TEvtxValue::String(logonType == 3 ? "NTLM V2" : "-"));
    Add(e, "KeyLength", TEvtxValue::UInt32(logonType == 3 ? 128 : 0));
    Add(e, "ProcessId", TEvtxValue::Hex64(logonType == 3 ? 0 : FHost->FLsassPid + 200));
    Add(e, "ProcessName", TEvtxValue::String(logonType == 3 ? "-" : "C:\\Windows\\System32\\svchost.exe"));
    std::string ip = logonType == 3 || logonType == 10 ? "10.20." + std::to_string(FRandom.Between(1, 40)) +
                                                             "." + std::to_string(FRandom.Between(2, 250))
                                                       : "127.0.0.1";
    Add(e, "IpAddress", TEvtxValue::String(ip));
    Add(e, "IpPort",
        TEvtxValue::String(logonType == 3 ? std::to_string(FRandom.Between(49152, 65535)) : "0"));
    Add(e, "ImpersonationLevel", TEvtxValue::String("%%1833"));
    Add(e, "RestrictedAdminMode", TEvtxValue::String("-"));
    Add(e, "TargetOutboundUserName", TEvtxValue::String("-"));
    Add(e, "TargetOutboundDomainName", TEvtxValue::String("-"));
    Add(e, "VirtualAccount", TEvtxValue::String("%%1843"));
    Add(e, "TargetLinkedLogonId", TEvtxValue::Hex64(0));
    Add(e, "ElevatedToken", TEvtxValue::String(user.FAdmin ? "%%1842" : "%%1843"));
    Push(std::move(e));

    if (user.FAdmin) {
      TEvtxEventDraft p = Security(4672, 12548, 0, true);
      p.FTimeCreated = FTime + 1;
      AddSubject(p, UserSid(user), user.FName, logonId);
      Add(p, "PrivilegeList",
          TEvtxValue::String(
              "SeSecurityPrivilege\r\n\t\t\tSeBackupPrivilege\r\n\t\t\tSeRestorePrivilege\r\n\t\t\t"
              "SeTakeOwnershipPrivilege\r\n\t\t\tSeDebugPrivilege\r\n\t\t\tSeSystemEnvironmentPrivilege"
              "\r\n\t\t\tSeLoadDriverPrivilege\r\n\t\t\tSeImpersonatePrivilege"));
      Push(std::move(p));
    }
  }

  void FailedLogon() {
    static constexpr std::array<std::string_view, 4> names = {"administrator", "admin", "alice.martin",
                                                              "backup"};
    uint32_t attempts = FRandom.Between(1, 4);
    for (uint32_t i = 0; i < attempts; ++i) {
      if (i) FTime += FRandom.Between(200, 2500) * 10000;
      TEvtxEventDraft e = Security(4625, 12544, 0, false);
      e.FTimeCreated = FTime;
      AddSubject(e, "S-1-0-0", "-", 0);
      Add(e, "TargetUserSid", TEvtxValue::Sid("S-1-0-0"));
      Add(e, "TargetUserName", TEvtxValue::String(names[FRandom.Below(names.size())]));
      Add(e, "TargetDomainName", TEvtxValue::String(kDomain));
      Add(e, "Status", TEvtxValue::Hex32(0xC000006D));
      Add(e, "FailureReason", TEvtxValue::String("%%2313"));
      Add(e, "SubStatus", TEvtxValue::Hex32(FRandom.Percent(70) ? 0xC000006A : 0xC0000064));
      Add(e, "LogonType", TEvtxValue::UInt32(3));
      Add(e, "LogonProcessName", TEvtxValue::String("NtLmSsp "));
      Add(e, "AuthenticationPackageName", TEvtxValue::String("NTLM"));
      Add(e, "WorkstationName", TEvtxValue::String("KALI"));
      Add(e, "TransmittedServices", TEvtxValue::String("-"));
      Add(e, "LmPackageName", TEvtxValue::String("-"));
      Add(e, "KeyLength", TEvtxValue::UInt32(0));
      Add(e, "ProcessId", TEvtxValue::Hex64(0));
      Add(e, "ProcessName", TEvtxValue::String("-"));
      Add(e, "IpAddress", TEvtxValue::String("185.220.101." + std::to_string(FRandom.Between(2, 250))));
      Add(e, "IpPort", TEvtxValue::String(std::to_string(FRandom.Between(1024, 65535))));
      Push(std::move(e));
    }
  }

  TEvtxEventDraft ProcessCreated() {
    const TDemoUser& user = kUsers[FRandom.Below(kUsers.size())];
    const TDemoProgram& program = kPrograms[FRandom.Below(kPrograms.size())];
    const TDemoParent& parent = kParents[FRandom.Below(kParents.size())];
    TEvtxEventDraft e = Security(4688, 13312, 2, true);
    AddSubject(e, UserSid(user), user.FName, NewLogonId());
    Add(e, "NewProcessId", TEvtxValue::Hex64(FRandom.Between(0x400, 0x4000) & ~3u));
    Add(e, "NewProcessName", TEvtxValue::String(program.FImage));
    Add(e, "TokenElevationType", TEvtxValue::String(user.FAdmin ? "%%1937" : "%%1938"));
    Add(e, "ProcessId", TEvtxValue::Hex64(FRandom.Between(0x400, 0x4000) & ~3u));
    Add(e, "CommandLine", TEvtxValue::String(program.FCommandLine));
    Add(e, "TargetUserSid", TEvtxValue::Sid("S-1-0-0"));
    Add(e, "TargetUserName", TEvtxValue::String("-"));
    Add(e, "TargetDomainName", TEvtxValue::String("-"));
    Add(e, "TargetLogonId", TEvtxValue::Hex64(0));
    Add(e, "ParentProcessName", TEvtxValue::String(parent.FImage));
    Add(e, "MandatoryLabel", TEvtxValue::Sid(user.FAdmin ? "S-1-16-12288" : "S-1-16-8192"));
    return e;
  }

  TEvtxEventDraft SysmonProcess() {
    const TDemoUser& user = kUsers[FRandom.Below(kUsers.size())];
    const TDemoProgram& program = kPrograms[FRandom.Below(kPrograms.size())];
    const TDemoParent& parent = kParents[FRandom.Below(kParents.size())];
    TEvtxEventDraft e = Base("Microsoft-Windows-Sysmon", "{5770385F-C22A-43E0-BF4C-06F5698FFBD9}", 1,
                             "Microsoft-Windows-Sysmon/Operational");
    e.FVersion = 5;
    e.FTask = 1;
    e.FKeywords = 0x8000000000000000ull;
    e.FProcessId = FHost->FSysmonPid;
    e.FThreadId = FRandom.Between(3000, 9000) & ~3u;
    e.FUserId = "S-1-5-18";
    std::string account = std::string(kDomain) + "\\" + std::string(user.FName);
    Add(e, "RuleName", TEvtxValue::String("-"));
    Add(e, "UtcTime", TEvtxValue::String(UtcText(FTime - 12000)));
    Add(e, "ProcessGuid", TEvtxValue::Guid(RandomGuid()));
    Add(e, "ProcessId", TEvtxValue::UInt32(FRandom.Between(0x400, 0x4000) & ~3u));
    Add(e, "Image", TEvtxValue::String(program.FImage));
    Add(e, "FileVersion", TEvtxValue::String(program.FVersion));
    Add(e, "Description", TEvtxValue::String(program.FDescription));
    Add(e, "Product", TEvtxValue::String(program.FProduct));
    Add(e, "Company", TEvtxValue::String(program.FCompany));
    Add(e, "OriginalFileName", TEvtxValue::String(program.FOriginalName));
    Add(e, "CommandLine", TEvtxValue::String(program.FCommandLine));
    Add(e, "CurrentDirectory", TEvtxValue::String("C:\\Users\\" + std::string(user.FName) + "\\"));
    Add(e, "User", TEvtxValue::String(account));
    Add(e, "LogonGuid", TEvtxValue::Guid(RandomGuid()));
    Add(e, "LogonId", TEvtxValue::Hex64(NewLogonId()));
    Add(e, "TerminalSessionId", TEvtxValue::UInt32(FRandom.Between(1, 3)));
    Add(e, "IntegrityLevel", TEvtxValue::String(user.FAdmin ? "High" : "Medium"));
    Add(e, "Hashes", TEvtxValue::String("SHA256=" + Sha256()));
    Add(e, "ParentProcessGuid", TEvtxValue::Guid(RandomGuid()));
    Add(e, "ParentProcessId", TEvtxValue::UInt32(FRandom.Between(0x200, 0x2000) & ~3u));
    Add(e, "ParentImage", TEvtxValue::String(parent.FImage));
    Add(e, "ParentCommandLine", TEvtxValue::String(parent.FCommandLine));
    Add(e, "ParentUser", TEvtxValue::String(account));
    return e;
  }

  TEvtxEventDraft ServiceBase(uint16_t AEventId) {
    TEvtxEventDraft e =
        Base("Service Control Manager", "{555908d1-a6d7-4695-8e1e-26931d2012f4}", AEventId, "System");
    e.FEventSourceName = "Service Control Manager";
    e.FQualifiers = 16384;
    e.FKeywords = 0x8080000000000000ull;
    e.FProcessId = FHost->FServicesPid;
    e.FThreadId = FRandom.Between(700, 9000) & ~3u;
    return e;
  }

  TEvtxEventDraft ServiceState(const TDemoService& AService, bool ARunning) {
    TEvtxEventDraft e = ServiceBase(7036);
    e.FTimeCreated = FTime;
    Add(e, "param1", TEvtxValue::String(AService.FDisplay));
    Add(e, "param2", TEvtxValue::String(ARunning ? "running" : "stopped"));
    std::string key = std::string(AService.FKey) + (ARunning ? "/4" : "/1");
    std::vector<uint8_t> binary;
    for (char c : key) {
      binary.push_back(static_cast<uint8_t>(c));
      binary.push_back(0);
    }
    binary.push_back(0);
    binary.push_back(0);
    e.FBinary = std::move(binary);
    return e;
  }

  TEvtxEventDraft ServiceInstalled() {
    const TDemoInstall& install = kInstalls[FRandom.Below(kInstalls.size())];
    TEvtxEventDraft e = ServiceBase(7045);
    e.FUserId = UserSid(kUsers[3]);
    Add(e, "ServiceName", TEvtxValue::String(install.FName));
    Add(e, "ImagePath", TEvtxValue::String(install.FImagePath));
    Add(e, "ServiceType", TEvtxValue::String("user mode service"));
    Add(e, "StartType", TEvtxValue::String(install.FStartType));
    Add(e, "AccountName", TEvtxValue::String(install.FAccount));
    return e;
  }

  TEvtxEventDraft ApplicationError() {
    static constexpr std::array<std::string_view, 3> apps = {"EXCEL.EXE", "chrome.exe", "ContosoUpdate.exe"};
    static constexpr std::array<std::string_view, 3> paths = {
        "C:\\Program Files\\Microsoft Office\\root\\Office16\\EXCEL.EXE",
        "C:\\Program Files\\Google\\Chrome\\Application\\chrome.exe",
        "C:\\Program Files\\Contoso\\Updater\\ContosoUpdate.exe"};
    static constexpr std::array<std::string_view, 3> versions = {"16.0.17328.20162", "122.0.6261.112",
                                                                 "3.2.0.41"};
    static constexpr std::array<std::string_view, 3> modules = {"mso20win32client.dll", "ntdll.dll",
                                                                "ucrtbase.dll"};
    uint32_t app = FRandom.Below(apps.size());
    uint32_t module = FRandom.Below(modules.size());
    TEvtxEventDraft e =
        Base("Application Error", "{a0e9b465-b939-57d7-b27d-95d8e925ff57}", 1000, "Application");
    e.FQualifiers = 0;
    e.FLevel = 2;
    e.FTask = 100;
    e.FKeywords = 0x0080000000000000ull;
    e.FProcessId = FRandom.Between(0x400, 0x4000) & ~3u;
    e.FThreadId = FRandom.Between(0x400, 0x4000) & ~3u;
    std::string modulePath = module == 0 ? "C:\\Program Files\\Common Files\\Microsoft Shared\\Office16\\" +
                                               std::string(modules[module])
                                         : "C:\\Windows\\System32\\" + std::string(modules[module]);
    Add(e, "", TEvtxValue::String(apps[app]));
    Add(e, "", TEvtxValue::String(versions[app]));
    Add(e, "", TEvtxValue::String(Hex(0x65E1A8F2 + app * 0x1111, 8)));
    Add(e, "", TEvtxValue::String(modules[module]));
    Add(e, "", TEvtxValue::String(module == 0 ? "0.0.0.0" : "10.0.19041.3636"));
    Add(e, "", TEvtxValue::String(Hex(0x65E19F1C - module * 0x2222, 8)));
    Add(e, "", TEvtxValue::String(FRandom.Percent(70) ? "c0000005" : "c0000409"));
    Add(e, "", TEvtxValue::String(Hex(FRandom.Next() & 0x3FFFFF, 16)));
    Add(e, "", TEvtxValue::String("0x" + Hex(e.FProcessId, 0)));
    Add(e, "", TEvtxValue::String("0x" + Hex(FTime - 600 * kSecond, 0)));
    Add(e, "", TEvtxValue::String(paths[app]));
    Add(e, "", TEvtxValue::String(modulePath));
    std::string report = RandomGuid();
    Add(e, "", TEvtxValue::String(report.substr(1, report.size() - 2)));
    Add(e, "", TEvtxValue::String(""));
    Add(e, "", TEvtxValue::String(""));
    return e;
  }

  TDemoRandom FRandom;
  uint64_t FTime;
  uint64_t FPlans = 0;
  const TDemoHost* FHost = &kHosts[0];
  std::deque<TEvtxEventDraft> FPending;
  std::shared_ptr<const TEvtxTemplate> FCleared;
};

} // namespace

void WriteDemoLog(const std::string& APath, uint64_t ARecords) {
  TEvtxFileWriter file(APath);
  TDemoLog log;
  for (uint64_t i = 0; i < ARecords; ++i)
    file.AddEvent(log.Next());
  file.Close();
}

std::vector<uint8_t> DemoLogBytes(uint64_t ARecords) {
  TEvtxFileWriter file;
  TDemoLog log;
  for (uint64_t i = 0; i < ARecords; ++i)
    file.AddEvent(log.Next());
  return file.Bytes();
}

} // namespace qvx
