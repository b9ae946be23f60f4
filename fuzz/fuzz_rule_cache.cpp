// Fuzz target: one entry of the rule cache (a parsed rule file as hunt/rule_cache.h
// stores it) read back, and the rules of the documents it holds compiled; and the same
// bytes read as an entry's verdicts.
//
// The cache lives in the user's folder and is untrusted: an entry either reads back
// whole, encodes to the very same bytes and compiles (or is named unusable), or is
// refused; nothing may crash, hang or reserve memory its bytes do not pay for.
//
// The same bytes are also a cache file's index and parsed forms (split where the first
// four bytes say), given a header whose hash lets them through: the file is loaded, its
// first entry kept and read back, and the cache saved again.
#include "hunt/rule_cache.h"
#include "hunt/sigma_rule.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

void LoadAsCacheFile(std::string_view ABytes) {
  if (ABytes.size() < 4) return;
  uint32_t split;
  std::memcpy(&split, ABytes.data(), 4);
  const std::string_view rest = ABytes.substr(4);
  split %= static_cast<uint32_t>(rest.size() + 1);
  const std::string_view index = rest.substr(0, split);
  std::string file("QVXRULEC", 8);
  auto put = [&](const void* AValue, size_t ASize) { file.append(static_cast<const char*>(AValue), ASize); };
  const uint32_t version = qvx::hunt::TRuleCache::kVersion;
  const uint64_t size = index.size(), hash = qvx::hunt::HashWords(index);
  put(&version, 4);
  put(&size, 8);
  put(&hash, 8);
  file.append(rest);
  // (One file per process, named after its start: fuzzing jobs run side by side.)
  static const std::string path =
      (std::filesystem::temp_directory_path() /
       ("qvx-fuzz-rule-cache-" +
        std::to_string(std::chrono::steady_clock::now().time_since_epoch().count() ^
                       static_cast<long long>(std::hash<std::thread::id>{}(std::this_thread::get_id()))) +
        ".bin"))
          .string();
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(file.data(), static_cast<std::streamsize>(file.size()));
  }
  qvx::hunt::TRuleCache cache(path);
  cache.Load();
  // The first entry's path, as the index gives it (when it does).
  qvx::hunt::TRuleFileKey key;
  if (index.size() >= 8) {
    uint32_t length;
    std::memcpy(&length, index.data() + 4, 4);
    if (length <= index.size() - 8) key.Path.assign(index.substr(8, length));
  }
  qvx::hunt::TCachedRuleFile found;
  std::string parsed;
  if (cache.Find(key, found)) cache.ReadParsed(found, parsed);
  cache.Keep(key, 0);
  cache.Save();
  std::error_code error;
  std::filesystem::remove(path, error);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::string_view bytes(reinterpret_cast<const char*>(AData), ASize);
  LoadAsCacheFile(bytes);
  std::vector<qvx::hunt::TRuleVerdict> verdicts;
  qvx::hunt::TRuleCache::DecodeVerdicts(bytes, "fuzz.yml", verdicts);
  qvx::hunt::TParsedRuleFile parsed;
  if (!qvx::hunt::TRuleCache::Decode(bytes, parsed)) return 0;
  std::string again;
  qvx::hunt::TRuleCache::Encode(parsed, again);
  // Lines are kept to 31 bits and every length is exact: what reads back writes back.
  if (again.size() != bytes.size()) std::abort();
  for (const qvx::hunt::TYamlNode& document : parsed.Documents) {
    try {
      qvx::hunt::CompileSigmaRule(document, "fuzz.yml");
    } catch (const qvx::hunt::ESigmaError&) {
    }
  }
  return 0;
}
