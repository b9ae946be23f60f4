// A small offline Windows installation written from code: SOFTWARE and SYSTEM hives, message
// modules (classic message tables, MUI satellites, manifest providers with WEVT_TEMPLATE) and
// an Application log whose events need all of them for their descriptions. The description
// tests and the descriptions benchmark read it like a mounted disk image.
//
// Tree written by BuildImagedWindows (names keep the case given; some differ on purpose from
// the case the registry uses):
//   Windows/System32/config/SOFTWARE, SYSTEM
//   Windows/System32/ClassicA.dll, classicb.DLL, Params.dll, KernelGen.dll, MuiOnly.dll,
//     ProvA.dll, Broken.dll, en-US/MuiOnly.dll.mui, de-DE/MuiOnly.dll.mui
//   Windows/System32/winevt/Logs/Application.evtx
//   Program Files/Vendor/ProvB.dll
// See imaged_fixture.cpp for every key, value, message and event.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace qvx::test {

inline constexpr const char* kGuidProviderA = "{A0A0A0A0-1111-2222-3333-444455556666}";
inline constexpr const char* kGuidProviderB = "{B0B0B0B0-1111-2222-3333-444455556666}";
inline constexpr const char* kUserAliceSid = "S-1-5-21-1111-2222-3333-1001";
inline constexpr const char* kUserBobSid = "S-1-5-21-1111-2222-3333-1002";

struct TImagedTree {
  std::filesystem::path Root;    // the folder that holds "Windows"
  std::filesystem::path WinDir;  // Root / "Windows"
  std::filesystem::path LogFile; // the Application.evtx below
};

// Builds the standard installation below ADir (created; existing content replaced). Raises
// std::runtime_error when a file cannot be written.
TImagedTree BuildImagedWindows(const std::filesystem::path& ADir);

// Writes one message-table DLL (PE32+, message table name 1, language ALanguage) at APath,
// parents created. Consecutive identifiers share a block. Raises std::runtime_error.
void WriteMessageDll(const std::filesystem::path& APath,
                     const std::vector<std::pair<uint32_t, std::u16string>>& AMessages,
                     uint16_t ALanguage = 0x0409);

// Writes a manifest provider's module at APath: a message table (en-US) and a WEVT_TEMPLATE
// for provider AGuid with AEvents (id, version, message id) and ATasks (value, message id).
void WriteProviderDll(const std::filesystem::path& APath, const char* AGuid,
                      const std::vector<std::pair<uint32_t, std::u16string>>& AMessages,
                      const std::vector<std::tuple<uint16_t, uint8_t, uint32_t>>& AEvents,
                      const std::vector<std::pair<uint32_t, uint32_t>>& ATasks);

} // namespace qvx::test
