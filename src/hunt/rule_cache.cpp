#include "hunt/rule_cache.h"

#include "platform/byte_reader.h"

#include <algorithm>
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
  FIndex.reset();
  FRaw.Close();
  FParsedBase = FParsedSize = 0;
  auto ignore = [&](std::string ANote) {
    FNote = FFile + ": " + std::move(ANote);
    FIndex.reset();
    FRaw.Close();
  };
  std::error_code error;
  if (!fs::is_regular_file(FFile, error)) return; // no cache yet
  try {
    FRaw = TRawFile::Open(FFile);
  } catch (const std::exception&) {
    return ignore("cannot be read, ignored");
  }
  // The file stays open: one written anew meanwhile is renamed over this one, which
  // stays as it was read.
  const uint64_t size = FRaw.Size();
  if (size > kMaxFileBytes || size < kHeaderBytes) return ignore("not a rule cache of a sensible size, ignored");
  char header[kHeaderBytes];
  try {
    if (FRaw.ReadAt(0, header, kHeaderBytes) != kHeaderBytes) return ignore("cannot be read, ignored");
  } catch (const std::exception&) {
    return ignore("cannot be read, ignored");
  }
  if (std::string_view(header, 8) != std::string_view(kMagic, 8)) return ignore("offset 0: not a rule cache, ignored");
  TCursor fields(std::string_view(header + 8, kHeaderBytes - 8));
  if (fields.U32() != kVersion) { // another version: rebuilt without a word
    FRaw.Close();
    return;
  }
  const uint64_t indexSize = fields.U64();
  const uint64_t indexHash = fields.U64();
  if (indexSize > size - kHeaderBytes) return ignore("offset 12: damaged (size or hash does not match), ignored");
  // The entries point into the index, which stays as it is while the cache lives.
  // (Not zeroed first: the read fills it.)
  FIndex = std::make_unique_for_overwrite<char[]>(indexSize);
  try {
    if (FRaw.ReadAt(kHeaderBytes, FIndex.get(), indexSize) != indexSize) return ignore("cannot be read, ignored");
  } catch (const std::exception&) {
    return ignore("cannot be read, ignored");
  }
  const std::string_view index(FIndex.get(), indexSize);
  if (HashWords(index) != indexHash) return ignore("offset 12: damaged (size or hash does not match), ignored");
  FParsedBase = kHeaderBytes + indexSize;
  FParsedSize = size - FParsedBase;
  TCursor cursor(index);
  const uint32_t count = cursor.U32();
  if (count > kMaxEntries || count > cursor.Left() / 69) return ignore("offset 28: too many entries, ignored");
  std::vector<TEntry> loaded(count);
  bool sorted = true;
  for (uint32_t i = 0; i < count && cursor.Ok(); ++i) {
    TEntry& entry = loaded[i];
    entry.Path = cursor.Text();
    entry.Size = cursor.U64();
    entry.ChangeTime = static_cast<int64_t>(cursor.U64());
    entry.Hash = cursor.U64();
    entry.StatusTime = static_cast<int64_t>(cursor.U64());
    entry.Identity = cursor.U64();
    const uint8_t state = cursor.U8();
    entry.Found.ParsedAt = cursor.U64();
    entry.Found.ParsedLength = cursor.U32();
    entry.Found.ParsedHash = cursor.U64();
    entry.Found.Verdicts = cursor.Text();
    entry.Found.Failed = state == 1;
    entry.Found.Entry = i;
    // A parsed form outside the file, or a state not known, spoils the entry only.
    if (state > 1 || entry.Found.ParsedAt > FParsedSize || entry.Found.ParsedLength > FParsedSize - entry.Found.ParsedAt)
      entry.Path = {};
    if (i > 0 && !(loaded[i - 1].Path < entry.Path)) sorted = false;
  }
  if (!cursor.AtEnd())
    return ignore("offset " + std::to_string(kHeaderBytes + index.size() - cursor.Left()) +
                  ": entries do not fill the index, ignored");
  // The parsed forms fill the rest of the file, as Save writes them: a file cut short or
  // grown is damaged (its parsed forms' hashes are checked only when they are read).
  uint64_t end = 0;
  for (const TEntry& entry : loaded)
    if (!entry.Path.empty()) end = std::max(end, entry.Found.ParsedAt + entry.Found.ParsedLength);
  if (end != FParsedSize) return ignore("offset 12: damaged (size or hash does not match), ignored");
  if (!sorted) {
    // Not as this program writes them: sorted, and of a path given twice the last kept.
    std::stable_sort(loaded.begin(), loaded.end(), [](const TEntry& A, const TEntry& B) { return A.Path < B.Path; });
    std::vector<TEntry> unique;
    for (size_t i = 0; i < loaded.size(); ++i)
      if (i + 1 == loaded.size() || loaded[i + 1].Path != loaded[i].Path) unique.push_back(loaded[i]);
    loaded = std::move(unique);
  }
  std::erase_if(loaded, [](const TEntry& A) { return A.Path.empty(); });
  for (size_t i = 0; i < loaded.size(); ++i) loaded[i].Found.Entry = i;
  FLoaded = std::move(loaded);
}

size_t TRuleCache::Locate(std::string_view APath, size_t AHint) const {
  if (AHint < FLoaded.size() && FLoaded[AHint].Path == APath) return AHint;
  const auto found = std::lower_bound(FLoaded.begin(), FLoaded.end(), APath,
                                      [](const TEntry& A, std::string_view B) { return A.Path < B; });
  return found != FLoaded.end() && found->Path == APath ? static_cast<size_t>(found - FLoaded.begin())
                                                         : FLoaded.size();
}

TRuleFileKey TRuleCache::KeyOf(const TEntry& AEntry) const {
  return {std::string(AEntry.Path), AEntry.Size, AEntry.ChangeTime, AEntry.Hash, AEntry.StatusTime, AEntry.Identity};
}

bool TRuleCache::Find(const TRuleFileKey& AKey, TCachedRuleFile& AFound) const {
  const size_t at = Locate(AKey.Path, 0);
  if (at == FLoaded.size() || !FLoaded[at].Matches(AKey)) return false;
  AFound = FLoaded[at].Found;
  return true;
}

bool TRuleCache::ReadParsed(const TCachedRuleFile& AFound, std::string& ABytes) const {
  ABytes.clear();
  // Checked at load against the file's size, which does not change while it is open
  // unless something cuts it in place: a short read then refuses the entry.
  if (!FRaw.IsOpen() || AFound.ParsedAt > FParsedSize || AFound.ParsedLength > FParsedSize - AFound.ParsedAt)
    return false;
  ABytes.resize(AFound.ParsedLength);
  try {
    if (FRaw.ReadAt(FParsedBase + AFound.ParsedAt, ABytes.data(), ABytes.size()) != ABytes.size()) return false;
  } catch (const std::exception&) {
    return false;
  }
  return HashWords(ABytes) == AFound.ParsedHash;
}

bool TRuleCache::Find(const TRuleFileKey& AKey, TParsedRuleFile& AParsed) const {
  TCachedRuleFile found;
  std::string bytes;
  return Find(AKey, found) && ReadParsed(found, bytes) && Decode(bytes, AParsed);
}

bool TRuleCache::FindUnread(const std::string& APath, const TFileStamp& AStamp, TRuleFileKey& AKey,
                            TCachedRuleFile& AFound, size_t AHint) const {
  const size_t at = Locate(APath, AHint);
  if (at == FLoaded.size()) return false;
  const TEntry& entry = FLoaded[at];
  if ((entry.StatusTime == 0 && entry.Identity == 0) || entry.Size != AStamp.Size ||
      entry.ChangeTime != AStamp.ChangeTime || entry.StatusTime != AStamp.StatusTime || entry.Identity != AStamp.Identity)
    return false;
  AFound = entry.Found;
  AKey = KeyOf(entry);
  return true;
}

bool TRuleCache::FindUnread(const std::string& APath, const TFileStamp& AStamp, TRuleFileKey& AKey,
                            TParsedRuleFile& AParsed) const {
  TCachedRuleFile found;
  TRuleFileKey key;
  std::string bytes;
  if (!FindUnread(APath, AStamp, key, found) || !ReadParsed(found, bytes) || !Decode(bytes, AParsed)) return false;
  AKey = key;
  return true;
}

void TRuleCache::Put(const TRuleFileKey& AKey, std::string AEncoded, std::string AVerdicts) {
  if (const size_t at = Locate(AKey.Path, 0); at < FLoaded.size()) FLoaded[at].Kept = true; // replaced
  TEntry& entry = FNext.emplace_back();
  entry.Path = FOwned.emplace_back(AKey.Path);
  entry.Size = AKey.Size;
  entry.ChangeTime = AKey.ChangeTime;
  entry.Hash = AKey.Hash;
  entry.StatusTime = AKey.StatusTime;
  entry.Identity = AKey.Identity;
  entry.Found.Failed = !AEncoded.empty() && AEncoded[0] == 1;
  entry.Owned = FOwned.emplace_back(std::move(AEncoded));
  if (!AVerdicts.empty()) entry.Found.Verdicts = FOwned.emplace_back(std::move(AVerdicts));
  FChanged = true;
  ++FMisses;
}

void TRuleCache::Keep(const TRuleFileKey& AKey, size_t AHint) {
  const size_t at = Locate(AKey.Path, AHint);
  if (at == FLoaded.size() || FLoaded[at].Kept) return;
  TEntry& entry = FLoaded[at];
  entry.Kept = true;
  ++FKept;
  TEntry& next = FNext.emplace_back(entry);
  if (next.StatusTime != AKey.StatusTime || next.Identity != AKey.Identity) {
    next.StatusTime = AKey.StatusTime;
    next.Identity = AKey.Identity;
    FChanged = true;
  }
  ++FHits;
}

bool TRuleCache::Save() {
  // Entries not used this time are dropped (files removed, or outside this load).
  if (!FChanged && FKept == FLoaded.size()) return true;
  // In path order, as Load looks them up.
  std::vector<const TEntry*> entries;
  entries.reserve(FNext.size());
  for (const TEntry& entry : FNext) entries.push_back(&entry);
  std::stable_sort(entries.begin(), entries.end(), [](const TEntry* A, const TEntry* B) { return A->Path < B->Path; });
  std::string index, parsed, bytes;
  PutU32(index, 0); // the count, once known
  uint32_t count = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    const TEntry& entry = *entries[i];
    if (i + 1 < entries.size() && entries[i + 1]->Path == entry.Path) continue; // the last put wins
    std::string_view form = entry.Owned;
    if (form.empty()) { // kept: its parsed form is still in the file
      if (!ReadParsed(entry.Found, bytes)) continue;
      form = bytes;
    }
    PutText(index, entry.Path);
    PutU64(index, entry.Size);
    PutU64(index, static_cast<uint64_t>(entry.ChangeTime));
    PutU64(index, entry.Hash);
    PutU64(index, static_cast<uint64_t>(entry.StatusTime));
    PutU64(index, entry.Identity);
    PutU8(index, !form.empty() && form[0] == 1 ? 1 : 0);
    PutU64(index, parsed.size());
    PutU32(index, static_cast<uint32_t>(form.size()));
    PutU64(index, HashWords(form));
    PutText(index, entry.Found.Verdicts);
    parsed.append(form);
    ++count;
  }
  std::memcpy(index.data(), &count, 4);
  if (index.size() + parsed.size() > kMaxFileBytes - kHeaderBytes) return false;
  std::string out(kMagic, 8);
  PutU32(out, kVersion);
  PutU64(out, index.size());
  PutU64(out, HashWords(index));
  out += index;
  out += parsed;

  std::error_code error;
  fs::create_directories(fs::path(FFile).parent_path(), error);
  // A name of this process and moment: two runs saving at once write apart, and the
  // last rename wins whole.
  const uint64_t unique = std::hash<std::thread::id>{}(std::this_thread::get_id()) ^
                          static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                          reinterpret_cast<uintptr_t>(this);
  const std::string temporary = FFile + ".tmp" + std::to_string(unique);
  {
    std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
    if (!stream.write(out.data(), static_cast<std::streamsize>(out.size())) || !stream.flush()) {
      stream.close();
      fs::remove(temporary, error);
      return false;
    }
  }
  fs::rename(temporary, FFile, error);
  if (error && FRaw.IsOpen()) {
    // Where an open file cannot be replaced (Windows), the old one is let go: rules
    // compiled later read their rule files instead of its parsed forms.
    FRaw.Close();
    error.clear();
    fs::rename(temporary, FFile, error);
  }
  if (error) {
    fs::remove(temporary, error);
    return false;
  }
  FChanged = false;
  return true;
}

} // namespace qvx::hunt
