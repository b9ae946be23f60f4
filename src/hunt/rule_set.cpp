#include "hunt/rule_set.h"

#include "hunt/rule_cache.h"
#include "platform/file_stamp.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qvx::hunt {

namespace fs = std::filesystem;

TRuleSet::TRuleSet(const TLogMapping& AMapping, TRuleFilter AFilter)
    : FMapping(AMapping), FFilter(std::move(AFilter)) {}

void TRuleSet::LoadPath(const std::string& APath) {
  std::error_code error;
  const fs::file_status status = fs::status(APath, error);
  if (error || !fs::exists(status)) RaiseSigmaError(APath, 0, "no such rule file or folder");
  std::vector<std::string> files;
  if (!fs::is_directory(status)) {
    if (!std::ifstream(APath, std::ios::binary)) RaiseSigmaError(APath, 0, "cannot be read");
    files.push_back(APath);
  } else {
    fs::recursive_directory_iterator it(APath, fs::directory_options::skip_permission_denied, error);
    if (error) RaiseSigmaError(APath, 0, "cannot be read: " + error.message());
    for (; it != fs::recursive_directory_iterator(); it.increment(error)) {
      if (error) break;
      const std::string extension = FoldText(it->path().extension().string());
      if ((extension == ".yml" || extension == ".yaml") && it->is_regular_file(error))
        files.push_back(it->path().string());
    }
    std::sort(files.begin(), files.end());
  }
  std::unique_ptr<TRuleCache> cache;
  if (!FCacheFolder.empty()) {
    cache = std::make_unique<TRuleCache>(TRuleCache::FileFor(FCacheFolder, APath));
    cache->Load();
    if (!cache->Note().empty()) FCacheNotes.push_back(cache->Note());
  }
  // Reading YAML is most of the time a rule set takes to load: files are parsed (or
  // found in the cache) and their rules compiled on a few threads, a batch at a time (so
  // memory stays bounded), and added in file order.
  const size_t threads = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 4);
  constexpr size_t kBatch = 256;
  constexpr int64_t kSettleNs = 2'000'000'000;
  const int64_t loadTime = std::chrono::duration_cast<std::chrono::nanoseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
  for (size_t first = 0; first < files.size(); first += kBatch) {
    const size_t count = std::min(kBatch, files.size() - first);
    std::vector<TParsedFile> parsed(count);
    std::atomic<size_t> next{0};
    auto work = [&] {
      for (size_t i; (i = next++) < count;) {
        const std::string& file = files[first + i];
        TParsedFile& out = parsed[i];
        TFileStamp stamp;
        const bool stamped = cache && ReadFileStamp(file, stamp);
        if (stamped) {
          TParsedRuleFile yaml;
          if (cache->FindUnread(file, stamp, out.Key, yaml)) {
            out.Cached = true;
            CompileDocuments(yaml, file, out);
            continue;
          }
        }
        std::ifstream in(file, std::ios::binary);
        if (!in) {
          out.Error = file + ": cannot be read";
          continue;
        }
        std::ostringstream stream;
        stream << in.rdbuf();
        const std::string text = std::move(stream).str();
        if (!cache) {
          Read(text, file, out);
          continue;
        }
        out.Key = {file, text.size(), 0, HashBytes(text)};
        if (stamped) {
          out.Key.ChangeTime = stamp.ChangeTime;
          // A file changed in the last seconds may change again within the clock's
          // granularity without its stamp showing it: it is read again until it is older.
          if (stamp.Size == text.size() && stamp.StatusTime < loadTime - kSettleNs) {
            out.Key.StatusTime = stamp.StatusTime;
            out.Key.Identity = stamp.Identity;
          }
        } else {
          std::error_code timeError;
          const fs::file_time_type changed = fs::last_write_time(file, timeError);
          out.Key.ChangeTime = timeError ? 0 : static_cast<int64_t>(changed.time_since_epoch().count());
        }
        TParsedRuleFile yaml;
        out.Cached = cache->Find(out.Key, yaml);
        if (!out.Cached) {
          yaml = ParseFile(text, file);
          TRuleCache::Encode(yaml, out.Encoded);
        }
        CompileDocuments(yaml, file, out);
      }
    };
    std::vector<std::thread> pool;
    for (size_t t = 1; t < threads && t < count; ++t) pool.emplace_back(work);
    work();
    for (std::thread& thread : pool) thread.join();
    for (size_t i = 0; i < count; ++i) {
      Compile(parsed[i], files[first + i]);
      if (!cache || parsed[i].Key.Path.empty()) continue;
      if (parsed[i].Cached)
        cache->Keep(parsed[i].Key);
      else
        cache->Put(parsed[i].Key, std::move(parsed[i].Encoded));
    }
  }
  if (cache) {
    FCacheHits += cache->Hits();
    FCacheMisses += cache->Misses();
    if (!cache->Save()) FCacheNotes.push_back(cache->File() + ": the rule cache could not be written");
  }
}

void TRuleSet::LoadText(const std::string& AText, const std::string& AFile) {
  TParsedFile parsed;
  Read(AText, AFile, parsed);
  Compile(parsed, AFile);
}

TParsedRuleFile TRuleSet::ParseFile(const std::string& AText, const std::string& AFile) {
  TParsedRuleFile parsed;
  try {
    parsed.Documents = ParseYamlDocuments(AText, AFile);
  } catch (const ESigmaError& e) {
    parsed.Failed = true;
    parsed.Error = e.what();
    parsed.Documents.clear();
  }
  return parsed;
}

void TRuleSet::Read(const std::string& AText, const std::string& AFile, TParsedFile& AParsed) {
  CompileDocuments(ParseFile(AText, AFile), AFile, AParsed);
}

void TRuleSet::CompileDocuments(const TParsedRuleFile& AYaml, const std::string& AFile, TParsedFile& AParsed) {
  if (AYaml.Failed) {
    AParsed.Error = AYaml.Error;
    return;
  }
  for (const TYamlNode& document : AYaml.Documents) {
    if (document.IsNull()) continue;
    TCompiledRule& compiled = AParsed.Rules.emplace_back();
    try {
      compiled.Rule = CompileSigmaRule(document, AFile);
    } catch (const ESigmaError& e) {
      compiled.Title = document.TextOf("title");
      compiled.Error = e.what();
    }
  }
}

void TRuleSet::Compile(TParsedFile& AParsed, const std::string& AFile) {
  if (!AParsed.Error.empty()) {
    FUnusable.push_back({AFile, {}, AParsed.Error});
    return;
  }
  for (TCompiledRule& compiled : AParsed.Rules) {
    if (!compiled.Rule) {
      FUnusable.push_back({AFile, compiled.Title, compiled.Error});
      continue;
    }
    std::unique_ptr<TSigmaRule> rule = std::move(compiled.Rule);
    if (rule->Level < FFilter.MinLevel ||
        (!FFilter.Statuses.empty() &&
         std::find(FFilter.Statuses.begin(), FFilter.Statuses.end(), rule->Status) == FFilter.Statuses.end())) {
      ++FFilteredOut;
      continue;
    }
    std::string reason;
    const std::vector<TLogSourceVariant> variants = FMapping.Resolve(rule->Product, rule->Category, rule->Service, reason);
    if (variants.empty()) {
      FUnusable.push_back({AFile, rule->Title, AFile + ": " + reason});
      continue;
    }
    const size_t before = FBindings.size();
    Bind(*rule, variants);
    if (FBindings.size() == before) {
      FUnusable.push_back({AFile, rule->Title, AFile + ": the event IDs its condition needs are not those of its log source"});
      continue;
    }
    FRules.push_back(std::move(rule));
  }
}

void TRuleSet::Bind(const TSigmaRule& ARule, const std::vector<TLogSourceVariant>& AVariants) {
  for (const TLogSourceVariant& variant : AVariants) {
    // The event IDs both the log source and the condition allow.
    std::set<uint32_t> ids;
    if (variant.EventIds.empty())
      ids = ARule.EventIds;
    else if (ARule.EventIds.empty())
      ids = variant.EventIds;
    else
      std::set_intersection(variant.EventIds.begin(), variant.EventIds.end(), ARule.EventIds.begin(),
                            ARule.EventIds.end(), std::inserter(ids, ids.begin()));
    if (ids.empty() && !(variant.EventIds.empty() && ARule.EventIds.empty())) continue;

    auto binding = std::make_unique<TRuleBinding>();
    binding->Rule = &ARule;
    for (const std::string& slot : ARule.SlotNames) {
      std::string name = slot;
      for (const auto& [from, to] : variant.Fields)
        if (EqualFolded(from, slot)) name = to;
      binding->SlotFields.push_back(FNames.Intern(name));
    }
    for (const auto& [field, values] : variant.Where) {
      std::vector<std::string> folded;
      for (const std::string& value : values) folded.push_back(FoldText(value));
      binding->Where.emplace_back(FNames.Intern(field), std::move(folded));
    }
    TChannelIndex& index = variant.Channel == "*" ? FAnyChannel : FByChannel[FoldText(variant.Channel)];
    if (ids.empty())
      index.AnyId.Bindings.push_back(binding.get());
    else
      for (const uint32_t id : ids) index.ById[id].Bindings.push_back(binding.get());
    FPrepared = false;
    FBindings.push_back(std::move(binding));
  }
}

void TRuleSet::Prepare() const {
  const std::lock_guard<std::mutex> lock(FPrepareMutex);
  if (FPrepared.load(std::memory_order_relaxed)) return;
  auto* self = const_cast<TRuleSet*>(this);
  std::vector<TRuleBinding*> bindings;
  bindings.reserve(FBindings.size());
  for (const std::unique_ptr<TRuleBinding>& binding : FBindings) bindings.push_back(binding.get());
  self->FLiterals = std::make_unique<TLiteralIndex>(bindings);
  auto fields = [&](TBindingList& AList) {
    AList.Scans = self->FLiterals->ScansOf(AList.Bindings);
    AList.Numbers.clear();
    AList.AlwaysAt.clear();
    AList.PlaceOf.clear();
    for (const TRuleBinding* binding : AList.Bindings)
      AList.Numbers.push_back(binding->Number | (binding->Always ? TBindingList::kAlways : 0));
    if (AList.Bindings.size() < TBindingList::kLongList) return;
    for (uint32_t i = 0; i < AList.Bindings.size(); ++i) {
      if (AList.Bindings[i]->Always)
        AList.AlwaysAt.push_back(i);
      else
        AList.PlaceOf.emplace_back(AList.Bindings[i]->Number, i);
    }
    std::sort(AList.PlaceOf.begin(), AList.PlaceOf.end());
  };
  for (auto& [channel, index] : self->FByChannel) {
    for (auto& [id, list] : index.ById) fields(list);
    fields(index.AnyId);
  }
  for (auto& [id, list] : self->FAnyChannel.ById) fields(list);
  fields(self->FAnyChannel.AnyId);
  FPrepared.store(true, std::memory_order_release);
}

TRuleSet::TCandidates TRuleSet::Candidates(std::string_view AChannel, uint32_t AEventId, std::string& AKey) const {
  if (!FPrepared.load(std::memory_order_acquire)) [[unlikely]]
    Prepare();
  TCandidates out;
  AKey.assign(AChannel);
  for (char& c : AKey) c = FoldChar(c);
  if (const auto channel = FByChannel.find(AKey); channel != FByChannel.end()) {
    if (const auto id = channel->second.ById.find(AEventId); id != channel->second.ById.end())
      out.Lists[0] = &id->second;
    if (!channel->second.AnyId.Bindings.empty()) out.Lists[1] = &channel->second.AnyId;
  }
  if (const auto id = FAnyChannel.ById.find(AEventId); id != FAnyChannel.ById.end()) out.Lists[2] = &id->second;
  if (!FAnyChannel.AnyId.Bindings.empty()) out.Lists[3] = &FAnyChannel.AnyId;
  return out;
}

namespace {

bool WhereHolds(const TRuleBinding& ABinding, const TEventFields& AFields) {
  for (const auto& [field, values] : ABinding.Where) {
    bool found = false;
    for (int v = AFields.First(field); v != TEventFields::kNoValue && !found; v = AFields.Value(v).Next)
      found = std::find(values.begin(), values.end(), AFields.Lower(v)) != values.end();
    if (!found) return false;
  }
  return true;
}

} // namespace

std::span<const TDetection> THunter::Test(std::string_view AChannel, uint32_t AEventId, std::string_view AXml) {
  ++FEvents;
  FCount = 0;
  const TRuleSet::TCandidates candidates = FRules.Candidates(AChannel, AEventId, FKey);
  if (!candidates.Lists[0] && !candidates.Lists[1] && !candidates.Lists[2] && !candidates.Lists[3]) return {};
  ++FTested;
  FFields.Load(AXml);

  // Every literal of the candidate rules, found in one pass over each value they read.
  const TLiteralIndex& literals = *FRules.Literals();
  if (FHits.Bits.size() != literals.LiteralCount()) {
    FHits.Bits.assign(literals.LiteralCount(), 0);
    FHits.Found.clear();
  }
  if (FSelected.size() != FRules.BindingCount()) FSelected.assign(FRules.BindingCount(), 0);
  if (FScanned.size() != literals.AutomatonCount()) FScanned.assign(literals.AutomatonCount(), 0);
  if (++FStamp == 0) {
    std::fill(FScanned.begin(), FScanned.end(), 0);
    std::fill(FSelected.begin(), FSelected.end(), 0);
    FStamp = 1;
  }
  FHits.Clear();
  for (const auto* list : candidates.Lists) {
    if (!list) continue;
    for (const TLiteralIndex::TScan& scan : list->Scans) {
      if (FScanned[scan.Automaton] == FStamp) continue;
      FScanned[scan.Automaton] = FStamp;
      if (scan.Field == TLiteralIndex::kKeywordField) {
        for (int v = 0; v < FFields.ValueCount(); ++v) literals.Scan(scan.Automaton, FFields.Value(v).Text, FHits);
        continue;
      }
      for (int v = FFields.First(scan.Field); v != TEventFields::kNoValue; v = FFields.Value(v).Next)
        literals.Scan(scan.Automaton, FFields.Value(v).Text, FHits);
    }
  }
  FSelectedList.clear();
  for (const uint32_t literal : FHits.Found)
    for (const uint32_t binding : literals.NeededBy(literal))
      if (FSelected[binding] != FStamp) {
        FSelected[binding] = FStamp;
        FSelectedList.push_back(binding);
      }

  for (const auto* list : candidates.Lists) {
    if (!list) continue;
    // The places to evaluate, in list order.
    FPlaces.clear();
    if (list->Bindings.size() >= TBindingList::kLongList) {
      for (const uint32_t number : FSelectedList) {
        const auto at = std::lower_bound(list->PlaceOf.begin(), list->PlaceOf.end(), std::make_pair(number, uint32_t{0}));
        if (at != list->PlaceOf.end() && at->first == number) FPlaces.push_back(at->second);
      }
      const size_t selected = FPlaces.size();
      FPlaces.insert(FPlaces.end(), list->AlwaysAt.begin(), list->AlwaysAt.end());
      std::sort(FPlaces.begin(), FPlaces.begin() + static_cast<ptrdiff_t>(selected));
      std::inplace_merge(FPlaces.begin(), FPlaces.begin() + static_cast<ptrdiff_t>(selected), FPlaces.end());
    } else {
      for (uint32_t i = 0; i < list->Numbers.size(); ++i)
        if ((list->Numbers[i] & TBindingList::kAlways) || FSelected[list->Numbers[i]] == FStamp) FPlaces.push_back(i);
    }
    for (const uint32_t place : FPlaces) {
      const TRuleBinding* binding = list->Bindings[place];
      if (!binding->Where.empty() && !WhereHolds(*binding, FFields)) continue;
      if (!MatchRule(*binding->Rule, binding->SlotFields.data(), FFields, nullptr, binding->TestLiterals.data(),
                     FHits.Bits.data()))
        continue;
      // Matched: once more, noting the values that satisfied the searches.
      FRecord.clear();
      MatchRule(*binding->Rule, binding->SlotFields.data(), FFields, &FRecord);
      if (FCount == FDetections.size()) FDetections.emplace_back();
      TDetection& detection = FDetections[FCount++];
      detection.Rule = binding->Rule;
      detection.Matched.clear();
      for (const TMatchedValue& value : FRecord) {
        const std::string_view name = value.Slot == TMatchedValue::kKeywordSlot
                                          ? FFields.Value(value.Value).Name
                                          : std::string_view(binding->Rule->SlotNames[value.Slot]);
        const std::pair<std::string_view, std::string_view> item{name, FFields.Value(value.Value).Text};
        if (std::find(detection.Matched.begin(), detection.Matched.end(), item) == detection.Matched.end())
          detection.Matched.push_back(item);
      }
    }
  }
  return {FDetections.data(), FCount};
}

} // namespace qvx::hunt
