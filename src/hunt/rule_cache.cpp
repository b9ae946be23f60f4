#include "hunt/rule_cache.h"

#include "platform/byte_reader.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <system_error>
#include <thread>

namespace qvx::hunt {

namespace fs = std::filesystem;

uint64_t HashBytes(std::string_view AText) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (const char c : AText) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3ull;
  }
  return hash;
}

uint64_t HashWords(std::string_view AText) {
  uint64_t hash = 0x9E3779B97F4A7C15ull ^ AText.size();
  size_t at = 0;
  auto mix = [&](uint64_t AWord) {
    hash = (hash ^ AWord) * 0xFF51AFD7ED558CCDull;
    hash ^= hash >> 32;
  };
  for (; at + 8 <= AText.size(); at += 8) {
    uint64_t word;
    std::memcpy(&word, AText.data() + at, 8);
    mix(word);
  }
  uint64_t tail = 0;
  std::memcpy(&tail, AText.data() + at, AText.size() - at);
  mix(tail);
  hash ^= hash >> 29;
  hash *= 0xC4CEB9FE1A85EC53ull;
  return hash ^ hash >> 32;
}

namespace {

constexpr char kMagic[8] = {'Q', 'V', 'X', 'R', 'U', 'L', 'E', 'C'};
constexpr size_t kHeaderBytes = 28;
constexpr int kMaxDepth = 200; // as deep as the YAML reader copies a tree
constexpr size_t kMaxNodes = 200'000; // per rule file, as TYamlLimits::MaxNodes
constexpr uint32_t kMaxEntries = 1'000'000;

void PutU8(std::string& AOut, uint8_t AValue) { AOut.push_back(static_cast<char>(AValue)); }
void PutU32(std::string& AOut, uint32_t AValue) {
  char bytes[4];
  std::memcpy(bytes, &AValue, 4);
  AOut.append(bytes, 4);
}
void PutU64(std::string& AOut, uint64_t AValue) {
  char bytes[8];
  std::memcpy(bytes, &AValue, 8);
  AOut.append(bytes, 8);
}
void PutText(std::string& AOut, std::string_view AText) {
  PutU32(AOut, static_cast<uint32_t>(AText.size()));
  AOut.append(AText);
}

void PutNode(std::string& AOut, const TYamlNode& ANode) {
  PutU8(AOut, static_cast<uint8_t>(ANode.Kind));
  PutU32(AOut, static_cast<uint32_t>(ANode.Line));
  switch (ANode.Kind) {
  case TYamlNode::ykScalar:
    PutText(AOut, ANode.Text);
    break;
  case TYamlNode::ykList:
    PutU32(AOut, static_cast<uint32_t>(ANode.Items.size()));
    for (const TYamlNode& item : ANode.Items) PutNode(AOut, item);
    break;
  case TYamlNode::ykMap:
    PutU32(AOut, static_cast<uint32_t>(ANode.Entries.size()));
    for (const TYamlEntry& entry : ANode.Entries) {
      PutText(AOut, entry.first);
      PutNode(AOut, entry.second);
    }
    break;
  case TYamlNode::ykNull:
    break;
  }
}

// A cursor over untrusted bytes: every read checks what is left and a failed read
// leaves the cursor failed for good.
class TCursor {
public:
  explicit TCursor(std::string_view ABytes)
      : FReader(reinterpret_cast<const uint8_t*>(ABytes.data()), ABytes.size()) {}

  bool Ok() const { return FOk; }
  bool AtEnd() const { return FOk && FAt == FReader.Size(); }
  size_t Left() const { return FOk ? FReader.Size() - FAt : 0; }
  uint8_t U8() { return Take(1) ? FReader.ReadU8(FAt - 1) : 0; }
  uint32_t U32() { return Take(4) ? FReader.ReadU32(FAt - 4) : 0; }
  uint64_t U64() { return Take(8) ? FReader.ReadU64(FAt - 8) : 0; }
  std::string_view Text() {
    const uint32_t length = U32();
    if (!Take(length)) return {};
    return {reinterpret_cast<const char*>(FReader.Data()) + FAt - length, length};
  }
  void Fail() { FOk = false; }

private:
  bool Take(uint64_t ALength) {
    if (!FOk || !FReader.Fits(FAt, ALength)) {
      FOk = false;
      return false;
    }
    FAt += ALength;
    return true;
  }
  TByteReader FReader;
  size_t FAt = 0;
  bool FOk = true;
};

// The smallest node takes 5 bytes (kind and line): a count above what is left cannot be
// honest, and is refused before anything is reserved for it.
constexpr size_t kMinNodeBytes = 5;

bool ReadNode(TCursor& ACursor, TYamlNode& ANode, int ADepth, size_t& ANodes) {
  if (ADepth > kMaxDepth || ++ANodes > kMaxNodes) return false;
  const uint8_t kind = ACursor.U8();
  ANode.Line = static_cast<int>(ACursor.U32() & 0x7FFFFFFF);
  switch (kind) {
  case TYamlNode::ykNull:
    ANode.Kind = TYamlNode::ykNull;
    return ACursor.Ok();
  case TYamlNode::ykScalar:
    ANode.Kind = TYamlNode::ykScalar;
    ANode.Text = ACursor.Text();
    return ACursor.Ok();
  case TYamlNode::ykList: {
    ANode.Kind = TYamlNode::ykList;
    const uint32_t count = ACursor.U32();
    if (!ACursor.Ok() || count > ACursor.Left() / kMinNodeBytes) return false;
    ANode.Items.resize(count);
    for (TYamlNode& item : ANode.Items)
      if (!ReadNode(ACursor, item, ADepth + 1, ANodes)) return false;
    return true;
  }
  case TYamlNode::ykMap: {
    ANode.Kind = TYamlNode::ykMap;
    const uint32_t count = ACursor.U32();
    if (!ACursor.Ok() || count > ACursor.Left() / (kMinNodeBytes + 4)) return false;
    ANode.Entries.resize(count);
    for (TYamlEntry& entry : ANode.Entries) {
      entry.first = ACursor.Text();
      if (!ACursor.Ok() || !ReadNode(ACursor, entry.second, ADepth + 1, ANodes)) return false;
    }
    return true;
  }
  default:
    return false;
  }
}

} // namespace

std::string TRuleCache::DefaultFolder() {
  if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg) return (fs::path(xdg) / "quorvex").string();
  if (const char* home = std::getenv("HOME"); home && *home) return (fs::path(home) / ".cache" / "quorvex").string();
  return {};
}

std::string TRuleCache::FileFor(const std::string& AFolder, const std::string& ARulePath) {
  std::error_code error;
  fs::path absolute = fs::absolute(ARulePath, error);
  if (error) absolute = ARulePath;
  char name[40];
  std::snprintf(name, sizeof name, "rules-%016llx.bin",
                static_cast<unsigned long long>(HashBytes(absolute.lexically_normal().string())));
  return (fs::path(AFolder) / name).string();
}

void TRuleCache::Encode(const TParsedRuleFile& AParsed, std::string& AOut) {
  AOut.clear();
  PutU8(AOut, AParsed.Failed ? 1 : 0);
  if (AParsed.Failed) {
    PutText(AOut, AParsed.Error);
    return;
  }
  PutU32(AOut, static_cast<uint32_t>(AParsed.Documents.size()));
  for (const TYamlNode& document : AParsed.Documents) PutNode(AOut, document);
}

bool TRuleCache::Decode(std::string_view ABytes, TParsedRuleFile& AParsed) {
  AParsed = {};
  TCursor cursor(ABytes);
  const uint8_t state = cursor.U8();
  if (state == 1) {
    AParsed.Failed = true;
    AParsed.Error = cursor.Text();
    return cursor.AtEnd() && !AParsed.Error.empty();
  }
  if (state != 0) return false;
  const uint32_t count = cursor.U32();
  if (!cursor.Ok() || count > cursor.Left() / kMinNodeBytes) return false;
  AParsed.Documents.resize(count);
  size_t nodes = 0;
  for (TYamlNode& document : AParsed.Documents)
    if (!ReadNode(cursor, document, 0, nodes)) return false;
  return cursor.AtEnd();
}

void TRuleCache::EncodeVerdicts(const std::vector<TRuleVerdict>& AVerdicts, std::string& AOut) {
  AOut.clear();
  PutU32(AOut, static_cast<uint32_t>(AVerdicts.size()));
  auto texts = [&](const std::vector<std::string>& ATexts) {
    PutU32(AOut, static_cast<uint32_t>(ATexts.size()));
    for (const std::string& text : ATexts) PutText(AOut, text);
  };
  for (const TRuleVerdict& verdict : AVerdicts) {
    PutU32(AOut, verdict.Document);
    PutU8(AOut, verdict.Header ? 1 : 0);
    if (!verdict.Header) {
      PutText(AOut, verdict.Title);
      PutText(AOut, verdict.Error);
      continue;
    }
    const TSigmaRule& rule = *verdict.Header;
    for (const std::string* text : {&rule.Title, &rule.Id, &rule.Author, &rule.Status, &rule.Description, &rule.Date})
      PutText(AOut, *text);
    PutU8(AOut, rule.Level);
    texts(rule.Tags);
    texts(rule.SlotNames);
    for (const std::string* text : {&rule.Product, &rule.Category, &rule.Service}) PutText(AOut, *text);
    PutU32(AOut, static_cast<uint32_t>(rule.EventIds.size()));
    for (const uint32_t id : rule.EventIds) PutU32(AOut, id);
  }
}

bool TRuleCache::DecodeVerdicts(std::string_view ABytes, const std::string& AFile,
                                std::vector<TRuleVerdict>& AVerdicts) {
  AVerdicts.clear();
  TCursor cursor(ABytes);
  // Each count is checked against the bytes left (a text takes 4 bytes at least).
  auto texts = [&](std::vector<std::string>& ATexts) {
    const uint32_t count = cursor.U32();
    if (!cursor.Ok() || count > cursor.Left() / 4) return cursor.Fail();
    ATexts.reserve(count);
    for (uint32_t i = 0; i < count && cursor.Ok(); ++i) ATexts.emplace_back(cursor.Text());
  };
  const uint32_t count = cursor.U32();
  if (!cursor.Ok() || count > cursor.Left() / 5) return false;
  AVerdicts.resize(count);
  for (TRuleVerdict& verdict : AVerdicts) {
    verdict.Document = cursor.U32();
    const uint8_t state = cursor.U8();
    if (state == 0) {
      verdict.Title = cursor.Text();
      verdict.Error = cursor.Text();
      continue;
    }
    if (state != 1) return false;
    auto rule = std::make_unique<TSigmaRule>();
    rule->File = AFile;
    rule->Condition.Kind = TCondNode::cnOr; // no detection yet: never matches
    for (std::string* text : {&rule->Title, &rule->Id, &rule->Author, &rule->Status, &rule->Description, &rule->Date})
      *text = cursor.Text();
    const uint8_t level = cursor.U8();
    if (level > slCritical) return false;
    rule->Level = static_cast<TSigmaLevel>(level);
    texts(rule->Tags);
    texts(rule->SlotNames);
    for (std::string* text : {&rule->Product, &rule->Category, &rule->Service}) *text = cursor.Text();
    const uint32_t ids = cursor.U32();
    if (!cursor.Ok() || ids > cursor.Left() / 4) return false;
    for (uint32_t i = 0; i < ids; ++i) rule->EventIds.insert(cursor.U32());
    if (!cursor.Ok()) return false;
    verdict.Header = std::move(rule);
  }
  return cursor.AtEnd();
}

void TRuleCache::Load() {
  FLoaded.clear();
  FBuffer.reset();
  FBufferSize = 0;
  auto ignore = [&](std::string ANote) {
    FNote = FFile + ": " + std::move(ANote);
    FBuffer.reset();
    FBufferSize = 0;
  };
  std::error_code error;
  const uintmax_t size = fs::file_size(FFile, error);
  if (error) return; // no cache yet
  if (size > kMaxFileBytes || size < kHeaderBytes) return ignore("not a rule cache of a sensible size, ignored");
  // The entries point into the buffer, which stays as it is while the cache lives.
  // (Not zeroed first: the read fills it.)
  FBufferSize = static_cast<size_t>(size);
  FBuffer = std::make_unique_for_overwrite<char[]>(FBufferSize);
  {
    std::ifstream in(FFile, std::ios::binary);
    if (!in.read(FBuffer.get(), static_cast<std::streamsize>(FBufferSize))) return ignore("cannot be read, ignored");
  }
  const std::string_view bytes(FBuffer.get(), FBufferSize);
  if (bytes.substr(0, 8) != std::string_view(kMagic, 8)) return ignore("offset 0: not a rule cache, ignored");
  TCursor header(bytes.substr(8, kHeaderBytes - 8));
  if (header.U32() != kVersion) { // another version: rebuilt without a word
    FBuffer.reset();
    FBufferSize = 0;
    return;
  }
  const uint64_t payloadSize = header.U64();
  const uint64_t payloadHash = header.U64();
  const std::string_view payload = bytes.substr(kHeaderBytes);
  if (payloadSize != payload.size() || HashWords(payload) != payloadHash)
    return ignore("offset 12: damaged (size or hash does not match), ignored");
  TCursor cursor(payload);
  const uint32_t count = cursor.U32();
  if (count > kMaxEntries) return ignore("offset 28: too many entries, ignored");
  std::unordered_map<std::string, TEntry> loaded;
  loaded.reserve(std::min<size_t>(count, payload.size() / 40));
  for (uint32_t i = 0; i < count && cursor.Ok(); ++i) {
    TEntry entry;
    entry.Key.Path = cursor.Text();
    entry.Key.Size = cursor.U64();
    entry.Key.ChangeTime = static_cast<int64_t>(cursor.U64());
    entry.Key.Hash = cursor.U64();
    entry.Key.StatusTime = static_cast<int64_t>(cursor.U64());
    entry.Key.Identity = cursor.U64();
    entry.Bytes = cursor.Text();
    entry.Verdicts = cursor.Text();
    if (cursor.Ok()) {
      std::string path = entry.Key.Path;
      loaded.insert_or_assign(std::move(path), std::move(entry));
    }
  }
  if (!cursor.AtEnd())
    return ignore("offset " + std::to_string(kHeaderBytes + payload.size() - cursor.Left()) +
                  ": entries do not fill the payload, ignored");
  FLoaded = std::move(loaded);
}

bool TRuleCache::Find(const TRuleFileKey& AKey, TCachedRuleFile& AFound) const {
  const auto found = FLoaded.find(AKey.Path);
  if (found == FLoaded.end() || !(found->second.Key == AKey)) return false;
  AFound = {found->second.Bytes, found->second.Verdicts};
  return true;
}

bool TRuleCache::Find(const TRuleFileKey& AKey, TParsedRuleFile& AParsed) const {
  TCachedRuleFile found;
  return Find(AKey, found) && Decode(found.Parsed, AParsed);
}

bool TRuleCache::FindUnread(const std::string& APath, const TFileStamp& AStamp, TRuleFileKey& AKey,
                            TCachedRuleFile& AFound) const {
  const auto found = FLoaded.find(APath);
  if (found == FLoaded.end()) return false;
  const TRuleFileKey& key = found->second.Key;
  if ((key.StatusTime == 0 && key.Identity == 0) || key.Size != AStamp.Size || key.ChangeTime != AStamp.ChangeTime ||
      key.StatusTime != AStamp.StatusTime || key.Identity != AStamp.Identity)
    return false;
  AFound = {found->second.Bytes, found->second.Verdicts};
  AKey = key;
  return true;
}

bool TRuleCache::FindUnread(const std::string& APath, const TFileStamp& AStamp, TRuleFileKey& AKey,
                            TParsedRuleFile& AParsed) const {
  TCachedRuleFile found;
  TRuleFileKey key;
  if (!FindUnread(APath, AStamp, key, found) || !Decode(found.Parsed, AParsed)) return false;
  AKey = key;
  return true;
}

void TRuleCache::Put(const TRuleFileKey& AKey, std::string AEncoded, std::string AVerdicts) {
  FLoaded.erase(AKey.Path);
  TEntry& entry = FNext.emplace_back();
  entry.Key = AKey;
  entry.Bytes = FOwned.emplace_back(std::move(AEncoded));
  if (!AVerdicts.empty()) entry.Verdicts = FOwned.emplace_back(std::move(AVerdicts));
  FChanged = true;
  ++FMisses;
}

void TRuleCache::Keep(const TRuleFileKey& AKey) {
  const auto found = FLoaded.find(AKey.Path);
  if (found == FLoaded.end()) return;
  TRuleFileKey& key = found->second.Key;
  if (key.StatusTime != AKey.StatusTime || key.Identity != AKey.Identity) {
    key.StatusTime = AKey.StatusTime;
    key.Identity = AKey.Identity;
    FChanged = true;
  }
  FNext.push_back(std::move(found->second));
  FLoaded.erase(found);
  ++FHits;
}

bool TRuleCache::Save() {
  // Entries not used this time are dropped (files removed, or outside this load).
  if (!FChanged && FLoaded.empty()) return true;
  std::string payload;
  PutU32(payload, static_cast<uint32_t>(FNext.size()));
  for (const TEntry& entry : FNext) {
    PutText(payload, entry.Key.Path);
    PutU64(payload, entry.Key.Size);
    PutU64(payload, static_cast<uint64_t>(entry.Key.ChangeTime));
    PutU64(payload, entry.Key.Hash);
    PutU64(payload, static_cast<uint64_t>(entry.Key.StatusTime));
    PutU64(payload, entry.Key.Identity);
    PutText(payload, entry.Bytes);
    PutText(payload, entry.Verdicts);
  }
  if (payload.size() > kMaxFileBytes - kHeaderBytes) return false;
  std::string bytes(kMagic, 8);
  PutU32(bytes, kVersion);
  PutU64(bytes, payload.size());
  PutU64(bytes, HashWords(payload));
  bytes += payload;

  std::error_code error;
  fs::create_directories(fs::path(FFile).parent_path(), error);
  // A name of this process and moment: two runs saving at once write apart, and the
  // last rename wins whole.
  const uint64_t unique = std::hash<std::thread::id>{}(std::this_thread::get_id()) ^
                          static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                          reinterpret_cast<uintptr_t>(this);
  const std::string temporary = FFile + ".tmp" + std::to_string(unique);
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) || !out.flush()) {
      out.close();
      fs::remove(temporary, error);
      return false;
    }
  }
  fs::rename(temporary, FFile, error);
  if (error) {
    fs::remove(temporary, error);
    return false;
  }
  FChanged = false;
  return true;
}

} // namespace qvx::hunt
