// The bundled demo log: a small, realistic Windows event log made by the EVTX writer.
//
// A mix of Security (1102, 4624, 4625, 4672, 4688), Service Control Manager (7036, 7045),
// Application Error (1000), Kernel-General (12, 13), Kernel-Processor-Power (55) and a
// Sysmon-like process creation (1) from a few computers, with increasing times, SIDs and
// a few values of rarer types (GUID, hex64, binary, SYSTEMTIME, an array of u16 and, in the
// first record, an embedded binary XML fragment under UserData). The same record count
// gives the same bytes: the content comes from a fixed seed, never from the clock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvx {

inline constexpr uint64_t kDemoLogDefaultRecords = 300;

// Writes the demo log to APath, chunk by chunk (large counts never sit in memory whole).
// Raises std::runtime_error when the file cannot be written.
void WriteDemoLog(const std::string& APath, uint64_t ARecords = kDemoLogDefaultRecords);

// The demo log as bytes.
std::vector<uint8_t> DemoLogBytes(uint64_t ARecords = kDemoLogDefaultRecords);

} // namespace qvx
