// Fuzz target: a Sigma rule file — YAML read, rules compiled and bound to the Windows
// logs — then every rule that loaded tested against two events.
//
// A rule either loads or is listed as unusable with its reason; nothing may crash, hang
// or grow without bound (nesting, alias expansion, value size and regular expression
// match limits hold). Seeds: small rules written by qvx_fuzz_seeds (fuzz/write_seeds.cpp).
#include "hunt/rule_set.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

const char* const kEvents[][3] = {
    {"Microsoft-Windows-Sysmon/Operational", "1",
     "<Event xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\"><System><Provider "
     "Name=\"Microsoft-Windows-Sysmon\" /><EventID>1</EventID><Channel>Microsoft-Windows-Sysmon/Operational</Channel>"
     "<Computer>ws1</Computer></System><EventData><Data Name=\"Image\">C:\\Windows\\System32\\cmd.exe</Data>"
     "<Data Name=\"CommandLine\">cmd /c whoami &amp; echo aaaaaaaaaaaaaaaaaaaaaaaa!</Data><Data Name=\"ParentImage\">"
     "C:\\Windows\\explorer.exe</Data><Data Name=\"DestinationIp\">10.1.2.3</Data></EventData></Event>"},
    {"Security", "4688",
     "<Event><System><EventID>4688</EventID><Channel>Security</Channel></System><EventData>"
     "<Data Name=\"NewProcessName\">C:\\x.exe</Data><Data>unnamed</Data></EventData><UserData><A x=\"1\"><B>v</B>"
     "</A></UserData></Event>"},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::string text(reinterpret_cast<const char*>(AData), ASize);
  qvx::hunt::TRuleSet rules;
  rules.LoadText(text, "fuzz.yml");
  if (rules.Rules().empty()) return 0;
  qvx::hunt::THunter hunter(rules);
  for (const auto& event : kEvents) hunter.Test(event[0], static_cast<uint32_t>(std::stoul(event[1])), event[2]);
  return 0;
}
