#include "hunt/sigma_rule.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>

namespace qvx::hunt {

const char* LevelName(TSigmaLevel ALevel) {
  switch (ALevel) {
  case slInformational: return "informational";
  case slLow: return "low";
  case slMedium: return "medium";
  case slHigh: return "high";
  case slCritical: return "critical";
  }
  return "medium";
}

bool ParseLevel(std::string_view AText, TSigmaLevel& ALevel) {
  const std::string text = FoldText(AText);
  for (TSigmaLevel level : {slInformational, slLow, slMedium, slHigh, slCritical})
    if (text == LevelName(level)) {
      ALevel = level;
      return true;
    }
  return false;
}

// ---- Networks ----------------------------------------------------------------------

bool ParseIpAddress(std::string_view AText, std::array<uint8_t, 16>& AAddress) {
  AAddress.fill(0);
  if (AText.empty() || AText.size() > 45) return false;
  if (AText.find(':') == std::string_view::npos) {
    // IPv4, kept as ::ffff:a.b.c.d
    int parts = 0;
    size_t pos = 0;
    for (;;) {
      size_t end = AText.find('.', pos);
      if (end == std::string_view::npos) end = AText.size();
      if (end == pos || end - pos > 3 || parts == 4) return false;
      int value = 0;
      for (size_t i = pos; i < end; ++i) {
        if (AText[i] < '0' || AText[i] > '9') return false;
        value = value * 10 + (AText[i] - '0');
      }
      if (value > 255) return false;
      AAddress[12 + parts++] = static_cast<uint8_t>(value);
      if (end == AText.size()) break;
      pos = end + 1;
    }
    if (parts != 4) return false;
    AAddress[10] = AAddress[11] = 0xFF;
    return true;
  }
  // IPv6 with at most one "::" (an IPv4 tail is not needed for event text).
  std::vector<uint16_t> head, tail;
  bool gap = false;
  size_t pos = 0;
  if (AText.starts_with("::")) {
    gap = true;
    pos = 2;
  }
  while (pos < AText.size()) {
    size_t end = AText.find(':', pos);
    if (end == std::string_view::npos) end = AText.size();
    if (end == pos || end - pos > 4) return false;
    unsigned value = 0;
    for (size_t i = pos; i < end; ++i) {
      const char c = FoldChar(AText[i]);
      if (c >= '0' && c <= '9')
        value = value * 16 + static_cast<unsigned>(c - '0');
      else if (c >= 'a' && c <= 'f')
        value = value * 16 + static_cast<unsigned>(c - 'a' + 10);
      else
        return false;
    }
    (gap ? tail : head).push_back(static_cast<uint16_t>(value));
    pos = end + 1;
    if (end + 1 < AText.size() && AText[end + 1] == ':') {
      if (gap) return false;
      gap = true;
      pos = end + 2;
    }
  }
  if (head.size() + tail.size() > 8 || (!gap && head.size() != 8)) return false;
  for (size_t i = 0; i < head.size(); ++i) {
    AAddress[2 * i] = static_cast<uint8_t>(head[i] >> 8);
    AAddress[2 * i + 1] = static_cast<uint8_t>(head[i]);
  }
  for (size_t i = 0; i < tail.size(); ++i) {
    const size_t at = 8 - tail.size() + i;
    AAddress[2 * at] = static_cast<uint8_t>(tail[i] >> 8);
    AAddress[2 * at + 1] = static_cast<uint8_t>(tail[i]);
  }
  return true;
}

bool ParseNetwork(std::string_view AText, TNetwork& ANetwork) {
  const size_t slash = AText.find('/');
  if (!ParseIpAddress(AText.substr(0, slash), ANetwork.Address)) return false;
  const bool v4 = AText.substr(0, slash).find(':') == std::string_view::npos;
  if (slash == std::string_view::npos) {
    ANetwork.Prefix = 128;
    return true;
  }
  const std::string_view bits = AText.substr(slash + 1);
  if (bits.empty() || bits.size() > 3) return false;
  int prefix = 0;
  for (const char c : bits) {
    if (c < '0' || c > '9') return false;
    prefix = prefix * 10 + (c - '0');
  }
  if (prefix > (v4 ? 32 : 128)) return false;
  ANetwork.Prefix = v4 ? prefix + 96 : prefix;
  return true;
}

namespace {

// Bytes AAt..AAt+7 of an address as one number, the first byte the highest.
uint64_t AddressWord(const std::array<uint8_t, 16>& AAddress, size_t AAt) {
  uint64_t word = 0;
  for (size_t i = 0; i < 8; ++i) word = word << 8 | AAddress[AAt + i];
  return word;
}

// The first ABits bits of a word (ABits may be out of 0..64: none or all of them).
uint64_t PrefixMask(int ABits) {
  if (ABits <= 0) return 0;
  if (ABits >= 64) return ~uint64_t{0};
  return ~uint64_t{0} << (64 - ABits);
}

} // namespace

bool TNetwork::Contains(const std::array<uint8_t, 16>& AAddress) const {
  // (A whole word at a time: an IPv4 network's prefix is 96 bits and more.)
  return ((AddressWord(Address, 0) ^ AddressWord(AAddress, 0)) & PrefixMask(Prefix)) == 0 &&
         ((AddressWord(Address, 8) ^ AddressWord(AAddress, 8)) & PrefixMask(Prefix - 64)) == 0;
}

namespace {

// ---- Value transformations -------------------------------------------------------------

std::string Base64(std::string_view AData) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((AData.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < AData.size(); i += 3) {
    const uint32_t n = static_cast<uint8_t>(AData[i]) << 16 | static_cast<uint8_t>(AData[i + 1]) << 8 |
                       static_cast<uint8_t>(AData[i + 2]);
    out.push_back(kAlphabet[n >> 18]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(kAlphabet[(n >> 6) & 63]);
    out.push_back(kAlphabet[n & 63]);
  }
  if (i + 1 == AData.size()) {
    const uint32_t n = static_cast<uint8_t>(AData[i]) << 16;
    out.push_back(kAlphabet[n >> 18]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.append("==");
  } else if (i + 2 == AData.size()) {
    const uint32_t n = static_cast<uint8_t>(AData[i]) << 16 | static_cast<uint8_t>(AData[i + 1]) << 8;
    out.push_back(kAlphabet[n >> 18]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(kAlphabet[(n >> 6) & 63]);
    out.push_back('=');
  }
  return out;
}

// The three forms the value takes inside a longer base64 text, by its offset modulo 3:
// only the characters that depend on the value alone are kept.
std::vector<std::string> Base64Offsets(std::string_view AData) {
  static const size_t kStart[3] = {0, 2, 3};
  static const size_t kEndCut[3] = {0, 3, 2};
  std::vector<std::string> out;
  for (size_t i = 0; i < 3; ++i) {
    std::string padded(i, ' ');
    padded.append(AData);
    const std::string encoded = Base64(padded);
    const size_t cut = kEndCut[(AData.size() + i) % 3];
    if (encoded.size() < kStart[i] + cut) continue;
    out.push_back(encoded.substr(kStart[i], encoded.size() - kStart[i] - cut));
  }
  return out;
}

// UTF-8 to UTF-16 code units (a byte that does not decode stands for itself).
std::vector<uint16_t> Utf16Units(std::string_view AText) {
  std::vector<uint16_t> units;
  for (size_t i = 0; i < AText.size();) {
    const auto c = static_cast<uint8_t>(AText[i]);
    uint32_t cp = c;
    size_t len = 1;
    if (c >= 0xF0 && i + 3 < AText.size()) {
      cp = (c & 7u) << 18 | (AText[i + 1] & 63u) << 12 | (AText[i + 2] & 63u) << 6 | (AText[i + 3] & 63u);
      len = 4;
    } else if (c >= 0xE0 && i + 2 < AText.size()) {
      cp = (c & 15u) << 12 | (AText[i + 1] & 63u) << 6 | (AText[i + 2] & 63u);
      len = 3;
    } else if (c >= 0xC0 && i + 1 < AText.size()) {
      cp = (c & 31u) << 6 | (AText[i + 1] & 63u);
      len = 2;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      units.push_back(static_cast<uint16_t>(0xD800 + (cp >> 10)));
      units.push_back(static_cast<uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      units.push_back(static_cast<uint16_t>(cp));
    }
    i += len;
  }
  return units;
}

std::string Utf16Bytes(std::string_view AText, bool ABigEndian, bool ABom) {
  std::string out;
  if (ABom) out.append(ABigEndian ? "\xFE\xFF" : "\xFF\xFE");
  for (const uint16_t unit : Utf16Units(AText)) {
    const char lo = static_cast<char>(unit & 0xFF), hi = static_cast<char>(unit >> 8);
    out.push_back(ABigEndian ? hi : lo);
    out.push_back(ABigEndian ? lo : hi);
  }
  return out;
}

bool IsWordChar(unsigned char AChar) {
  return std::isalnum(AChar) || AChar == '_' || AChar >= 0x80;
}

// Command line switches written with each dash Windows programs accept: every '-' or '/'
// that begins a word becomes each of them, independently of the others (a command line
// may mix "-s" and "/i"), so N such dashes give 5^N forms. Empty when that is more than
// AMax forms.
constexpr size_t kMaxValueForms = 4096;
std::vector<std::string> WindashVariants(const std::string& AValue, size_t AMax) {
  static constexpr std::string_view kDashes[] = {"-", "/", "\xE2\x80\x93", "\xE2\x80\x94", "\xE2\x80\x95"};
  constexpr size_t kDashCount = std::size(kDashes);
  std::vector<size_t> at;
  size_t forms = 1;
  for (size_t i = 0; i < AValue.size(); ++i)
    if ((AValue[i] == '-' || AValue[i] == '/') && (i == 0 || !IsWordChar(AValue[i - 1])) && i + 1 < AValue.size() &&
        IsWordChar(AValue[i + 1])) {
      at.push_back(i);
      forms *= kDashCount;
      if (forms > AMax) return {};
    }
  std::vector<std::string> out;
  out.reserve(forms);
  // Each form's dashes are the digits of its number in base 5, the first dash the lowest.
  for (size_t form = 0; form < forms; ++form) {
    std::string variant;
    variant.reserve(AValue.size() + 2 * at.size());
    size_t from = 0, digits = form;
    for (const size_t i : at) {
      variant.append(AValue, from, i - from).append(kDashes[digits % kDashCount]);
      digits /= kDashCount;
      from = i + 1;
    }
    variant.append(AValue, from);
    out.push_back(std::move(variant));
  }
  return out;
}

// ---- Wildcard patterns -------------------------------------------------------------------

struct TPatternChar {
  char Char = 0;
  enum : uint8_t { pcLiteral, pcStar, pcAny } Kind = pcLiteral;
};

// Sigma's escaping: '\' before '*', '?' or '\' makes that character literal; any other
// '\' is itself. With AWildcards false every character is literal.
std::vector<TPatternChar> ParsePattern(std::string_view AValue, bool AWildcards) {
  std::vector<TPatternChar> out;
  out.reserve(AValue.size());
  for (size_t i = 0; i < AValue.size(); ++i) {
    const char c = AValue[i];
    if (AWildcards && c == '\\' && i + 1 < AValue.size() &&
        (AValue[i + 1] == '*' || AValue[i + 1] == '?' || AValue[i + 1] == '\\')) {
      out.push_back({AValue[++i], TPatternChar::pcLiteral});
    } else if (AWildcards && c == '*') {
      if (out.empty() || out.back().Kind != TPatternChar::pcStar) out.push_back({c, TPatternChar::pcStar});
    } else if (AWildcards && c == '?') {
      out.push_back({c, TPatternChar::pcAny});
    } else {
      out.push_back({c, TPatternChar::pcLiteral});
    }
  }
  return out;
}

// The cheapest test for a pattern: equals, contains, starts or ends with, or a general
// wildcard pattern split into segments.
TValueTest TestForPattern(const std::vector<TPatternChar>& APattern, bool ACased, const std::string& AShown) {
  TValueTest test;
  test.Cased = ACased;
  // Most values are plain text with a star at one end or both: their test is made
  // without building segments.
  const bool leading = !APattern.empty() && APattern.front().Kind == TPatternChar::pcStar;
  const bool trailing = APattern.size() > size_t{leading} && APattern.back().Kind == TPatternChar::pcStar;
  const size_t from = leading ? 1 : 0, to = APattern.size() - (trailing ? 1 : 0);
  if (std::none_of(APattern.begin() + static_cast<ptrdiff_t>(from), APattern.begin() + static_cast<ptrdiff_t>(to),
                   [](const TPatternChar& p) { return p.Kind != TPatternChar::pcLiteral; })) {
    test.Kind = leading && trailing ? TValueTest::vkContains
                : leading           ? TValueTest::vkEndsWith
                : trailing          ? TValueTest::vkStartsWith
                                    : TValueTest::vkEquals;
    test.Needle.resize(to - from);
    for (size_t i = from; i < to; ++i) test.Needle[i - from] = ACased ? APattern[i].Char : FoldChar(APattern[i].Char);
    return test;
  }
  std::vector<TGlobSegment> segments(1);
  for (const TPatternChar& p : APattern) {
    if (p.Kind == TPatternChar::pcStar) {
      segments.emplace_back();
      continue;
    }
    TGlobSegment& s = segments.back();
    s.Text.push_back(ACased ? p.Char : FoldChar(p.Char));
    s.AnyAt.push_back(p.Kind == TPatternChar::pcAny);
    s.HasAny |= p.Kind == TPatternChar::pcAny;
  }
  const bool anyWildcard =
      std::any_of(segments.begin(), segments.end(), [](const TGlobSegment& s) { return s.HasAny; });
  if (!anyWildcard) {
    if (segments.size() == 1) {
      test.Kind = TValueTest::vkEquals;
      test.Needle = segments[0].Text;
      return test;
    }
    if (segments.size() == 2 && segments[0].Text.empty()) {
      test.Kind = TValueTest::vkEndsWith;
      test.Needle = segments[1].Text;
      return test;
    }
    if (segments.size() == 2 && segments[1].Text.empty()) {
      test.Kind = TValueTest::vkStartsWith;
      test.Needle = segments[0].Text;
      return test;
    }
    if (segments.size() == 3 && segments[0].Text.empty() && segments[2].Text.empty()) {
      test.Kind = TValueTest::vkContains;
      test.Needle = segments[1].Text;
      return test;
    }
  }
  test.Kind = TValueTest::vkGlob;
  test.Segments = std::move(segments);
  test.Needle = AShown;
  return test;
}

// ---- Rule compilation ----------------------------------------------------------------------

struct TModifiers {
  bool Contains = false, StartsWith = false, EndsWith = false, All = false, Cased = false;
  bool Re = false, ReI = false, ReM = false, ReS = false;
  bool Cidr = false, Exists = false, FieldRef = false;
  int Compare = -1; // TValueTest::vkLess.. or -1
  std::vector<std::string> Transforms; // wide, utf16le, utf16be, utf16, base64, base64offset, windash in order
};

class TRuleCompiler {
public:
  TRuleCompiler(const std::string& AFile, const TCompileLimits& ALimits, TSigmaRule& ARule)
      : FFile(AFile), FLimits(ALimits), FRule(ARule) {}

  void CompileDetection(const TYamlNode& ADetection);

private:
  [[noreturn]] void Fail(int ALine, const std::string& AText) const { RaiseSigmaError(FFile, ALine, AText); }

  uint32_t SlotOf(const std::string& AName) {
    for (size_t i = 0; i < FRule.SlotNames.size(); ++i)
      if (EqualFolded(FRule.SlotNames[i], AName)) return static_cast<uint32_t>(i);
    FRule.SlotNames.push_back(AName);
    return static_cast<uint32_t>(FRule.SlotNames.size() - 1);
  }

  TModifiers ParseModifiers(const std::vector<std::string>& ANames, int ALine) const;
  void AddValueTests(const TModifiers& AMods, const TYamlNode& AValue, bool AKeyword, std::vector<TValueTest>& AOut);
  void AddValueTest(const TModifiers& AMods, const TYamlNode& AValue, bool AKeyword, std::vector<TValueTest>& AOut);
  // The test of one text value (after its transformations), AWildcards: '*', '?' and
  // '\' escapes are read.
  void AddTextTest(const TModifiers& AMods, const std::string& AValue, bool AWildcards, bool AKeyword,
                   std::vector<TValueTest>& AOut);
  // The tests of one key of a map (one, or with all over values of several forms, one per
  // value), all of which must hold.
  std::vector<TFieldTest> CompileField(const std::string& AKey, const TYamlNode& AValue, int ALine,
                                       bool& AKeyword);
  TSearch CompileSearch(const std::string& AName, const TYamlNode& AValue);

  // Condition parsing.
  struct TToken {
    std::string Text;
  };
  std::vector<TToken> Tokenize(const std::string& AText, int ALine) const;
  TCondNode ParseOr(int ADepth);
  TCondNode ParseAnd(int ADepth);
  TCondNode ParseNot(int ADepth);
  TCondNode ParsePrimary(int ADepth);
  TCondNode SearchesMatching(const std::string& APattern, bool AAll);
  bool AtWord(const char* AWord) const {
    return FPos < FTokens.size() && EqualFolded(FTokens[FPos].Text, AWord);
  }

  const std::string& FFile;
  const TCompileLimits& FLimits;
  TSigmaRule& FRule;
  std::vector<TToken> FTokens;
  size_t FPos = 0;
  int FConditionLine = 0;
};

TModifiers TRuleCompiler::ParseModifiers(const std::vector<std::string>& ANames, int ALine) const {
  TModifiers mods;
  for (const std::string& raw : ANames) {
    const std::string name = FoldText(raw);
    if (name == "contains") mods.Contains = true;
    else if (name == "startswith") mods.StartsWith = true;
    else if (name == "endswith") mods.EndsWith = true;
    else if (name == "all") mods.All = true;
    else if (name == "cased") mods.Cased = true;
    else if (name == "re") mods.Re = true;
    else if (name == "i") mods.ReI = true;
    else if (name == "m") mods.ReM = true;
    else if (name == "s") mods.ReS = true;
    else if (name == "cidr") mods.Cidr = true;
    else if (name == "exists") mods.Exists = true;
    else if (name == "fieldref") mods.FieldRef = true;
    else if (name == "lt") mods.Compare = TValueTest::vkLess;
    else if (name == "lte") mods.Compare = TValueTest::vkLessEqual;
    else if (name == "gt") mods.Compare = TValueTest::vkGreater;
    else if (name == "gte") mods.Compare = TValueTest::vkGreaterEqual;
    else if (name == "wide" || name == "utf16le" || name == "utf16be" || name == "utf16" || name == "base64" ||
             name == "base64offset" || name == "windash")
      mods.Transforms.push_back(name);
    else if (name == "expand")
      Fail(ALine, "the modifier 'expand' needs placeholder values, which are not supported");
    else
      Fail(ALine, "unknown modifier '" + raw + "'");
  }
  if ((mods.ReI || mods.ReM || mods.ReS) && !mods.Re) Fail(ALine, "the modifiers i, m and s go with re");
  const int kinds = mods.Re + mods.Cidr + mods.Exists + (mods.Compare >= 0) +
                    (mods.Contains || mods.StartsWith || mods.EndsWith);
  if (kinds > 1 || (mods.Contains + mods.StartsWith + mods.EndsWith) > 1)
    Fail(ALine, "modifiers that cannot go together");
  return mods;
}

void TRuleCompiler::AddValueTests(const TModifiers& AMods, const TYamlNode& AValue, bool AKeyword,
                                  std::vector<TValueTest>& AOut) {
  if (AValue.IsList()) {
    AOut.reserve(AOut.size() + AValue.Items.size());
    for (const TYamlNode& item : AValue.Items) {
      if (item.IsList() || item.IsMap()) Fail(item.Line, "a value list may hold only plain values");
      AddValueTest(AMods, item, AKeyword, AOut);
    }
    return;
  }
  if (AValue.IsMap()) Fail(AValue.Line, "a field's value is a map");
  AddValueTest(AMods, AValue, AKeyword, AOut);
}

void TRuleCompiler::AddValueTest(const TModifiers& AMods, const TYamlNode& AValue, bool AKeyword,
                                 std::vector<TValueTest>& AOut) {
  const int line = AValue.Line;
  if (AValue.Text.size() > FLimits.MaxValueBytes)
    Fail(line, "a value of " + std::to_string(AValue.Text.size()) + " bytes (the limit is " +
                   std::to_string(FLimits.MaxValueBytes) + ")");
  if (AMods.Exists) {
    const std::string text = FoldText(AValue.Text);
    if (text != "true" && text != "false") Fail(line, "exists takes true or false");
    TValueTest test;
    test.Kind = TValueTest::vkExists;
    test.ExistsWanted = text == "true";
    test.Needle = text;
    AOut.push_back(std::move(test));
    return;
  }
  if (AValue.IsNull()) {
    if (AKeyword) Fail(line, "a keyword that is null");
    TValueTest test;
    test.Kind = TValueTest::vkNull;
    test.Needle = "null";
    AOut.push_back(std::move(test));
    return;
  }
  if (AMods.Re) {
    TValueTest test;
    test.Kind = TValueTest::vkRegex;
    test.Needle = AValue.Text;
    try {
      test.Regex = std::make_shared<TSigmaRegex>(AValue.Text, AMods.ReI, AMods.ReM, AMods.ReS);
    } catch (const std::invalid_argument& e) {
      Fail(line, e.what());
    }
    AOut.push_back(std::move(test));
    return;
  }
  if (AMods.Cidr) {
    TValueTest test;
    test.Kind = TValueTest::vkNetwork;
    test.Needle = AValue.Text;
    if (!ParseNetwork(AValue.Text, test.Network)) Fail(line, "not a network: " + AValue.Text.substr(0, 80));
    AOut.push_back(std::move(test));
    return;
  }
  if (AMods.Compare >= 0) {
    TValueTest test;
    test.Kind = static_cast<TValueTest::TKind>(AMods.Compare);
    test.Needle = AValue.Text;
    char* end = nullptr;
    test.Number = std::strtod(AValue.Text.c_str(), &end);
    if (AValue.Text.empty() || !end || *end) Fail(line, "not a number: " + AValue.Text.substr(0, 80));
    AOut.push_back(std::move(test));
    return;
  }
  if (AMods.FieldRef) {
    if (AKeyword) Fail(line, "fieldref needs a field");
    TValueTest test;
    test.Kind = TValueTest::vkFieldRef;
    test.Needle = AValue.Text;
    test.RefSlot = SlotOf(AValue.Text);
    test.RefKind = AMods.Contains     ? TValueTest::vkContains
                   : AMods.StartsWith ? TValueTest::vkStartsWith
                   : AMods.EndsWith   ? TValueTest::vkEndsWith
                                      : TValueTest::vkEquals;
    test.Cased = AMods.Cased;
    AOut.push_back(std::move(test));
    return;
  }

  // Text: the transformations in the order written, then the comparison.
  if (AMods.Transforms.empty()) {
    AddTextTest(AMods, AValue.Text, true, AKeyword, AOut);
    return;
  }
  std::vector<std::string> variants{AValue.Text};
  bool encoded = false;
  for (const std::string& transform : AMods.Transforms) {
    std::vector<std::string> next;
    for (const std::string& value : variants) {
      if (transform == "windash") {
        std::vector<std::string> forms =
            WindashVariants(value, kMaxValueForms - std::min(next.size(), kMaxValueForms));
        if (forms.empty())
          Fail(line, "windash makes too many forms of a value (5 for each of its dashes, the limit is " +
                         std::to_string(kMaxValueForms) + " in all)");
        for (std::string& v : forms) next.push_back(std::move(v));
        continue;
      }
      // An encoded value is literal: its wildcards and escapes are read first.
      std::string plain;
      if (!encoded)
        for (const TPatternChar& c : ParsePattern(value, true)) plain.push_back(c.Char);
      else
        plain = value;
      if (transform == "base64") next.push_back(Base64(plain));
      else if (transform == "base64offset") {
        for (std::string& v : Base64Offsets(plain)) next.push_back(std::move(v));
      } else if (transform == "utf16be") next.push_back(Utf16Bytes(plain, true, false));
      else if (transform == "utf16") next.push_back(Utf16Bytes(plain, false, true));
      else next.push_back(Utf16Bytes(plain, false, false)); // wide, utf16le
    }
    encoded = encoded || transform != "windash";
    variants = std::move(next);
    if (variants.size() > kMaxValueForms)
      Fail(line,
           "the modifiers make too many forms of a value (the limit is " + std::to_string(kMaxValueForms) + ")");
  }
  for (const std::string& value : variants) AddTextTest(AMods, value, !encoded, AKeyword, AOut);
}

void TRuleCompiler::AddTextTest(const TModifiers& AMods, const std::string& AValue, bool AWildcards, bool AKeyword,
                                std::vector<TValueTest>& AOut) {
  const bool contains = AMods.Contains || AKeyword;
  TValueTest test;
  const bool plain = !AWildcards || std::none_of(AValue.begin(), AValue.end(), [](char c) {
                      return c == '*' || c == '?' || c == '\\';
                    });
  if (!AValue.empty() && plain) {
    // No wildcard and no escape (most values): the text is the needle as it stands, as
    // TestForPattern would make it.
    test.Kind = contains           ? TValueTest::vkContains
                : AMods.EndsWith   ? TValueTest::vkEndsWith
                : AMods.StartsWith ? TValueTest::vkStartsWith
                                   : TValueTest::vkEquals;
    test.Cased = AMods.Cased;
    test.Needle = AMods.Cased ? AValue : FoldText(AValue);
  } else {
    // (Folding first: it keeps '*', '?' and '\\' where they are, and folds every letter.)
    std::vector<TPatternChar> pattern = ParsePattern(AMods.Cased ? AValue : FoldText(AValue), AWildcards);
    if (contains || AMods.EndsWith)
      if (pattern.empty() || pattern.front().Kind != TPatternChar::pcStar)
        pattern.insert(pattern.begin(), {'*', TPatternChar::pcStar});
    if (contains || AMods.StartsWith)
      if (pattern.empty() || pattern.back().Kind != TPatternChar::pcStar)
        pattern.push_back({'*', TPatternChar::pcStar});
    test = TestForPattern(pattern, AMods.Cased, AValue);
  }
  if (test.Kind == TValueTest::vkContains && test.Needle.size() >= 4) {
    // Two 4-grams of the folded needle, looked up in the value's 4-gram table before searching.
    char head[4], tail[4];
    for (size_t i = 0; i < 4; ++i) {
      head[i] = FoldChar(test.Needle[i]);
      tail[i] = FoldChar(test.Needle[test.Needle.size() - 4 + i]);
    }
    uint32_t headGram, tailGram;
    std::memcpy(&headGram, head, 4);
    std::memcpy(&tailGram, tail, 4);
    test.Grams[0] = static_cast<uint16_t>(GramHash(headGram));
    test.Grams[1] = static_cast<uint16_t>(GramHash(tailGram));
    test.HasGrams = true;
  }
  AOut.push_back(std::move(test));
}

std::vector<TFieldTest> TRuleCompiler::CompileField(const std::string& AKey, const TYamlNode& AValue, int ALine,
                                                    bool& AKeyword) {
  std::vector<std::string> parts;
  size_t pos = 0;
  for (;;) {
    const size_t bar = AKey.find('|', pos);
    parts.push_back(AKey.substr(pos, bar == std::string::npos ? std::string::npos : bar - pos));
    if (bar == std::string::npos) break;
    pos = bar + 1;
  }
  const std::string field = parts[0];
  parts.erase(parts.begin());
  const TModifiers mods = ParseModifiers(parts, ALine);
  AKeyword = field.empty();
  TFieldTest test;
  test.All = mods.All;
  if (!AKeyword) test.Slot = SlotOf(field);
  const bool expands = std::any_of(mods.Transforms.begin(), mods.Transforms.end(),
                                   [](const std::string& A) { return A == "windash" || A == "base64offset"; });
  if (mods.All && expands && AValue.IsList()) {
    // Every listed value must match, in any of its forms: a test of its forms (any) per
    // value, all of which the map needs. A value of one form joins the others' single test.
    std::vector<TFieldTest> tests;
    for (const TYamlNode& item : AValue.Items) {
      if (item.IsList() || item.IsMap()) Fail(item.Line, "a value list may hold only plain values");
      TFieldTest forms;
      forms.Slot = test.Slot;
      AddValueTest(mods, item, AKeyword, forms.Values);
      if (forms.Values.size() == 1)
        test.Values.push_back(std::move(forms.Values[0]));
      else
        tests.push_back(std::move(forms));
    }
    if (!test.Values.empty() || tests.empty()) tests.insert(tests.begin(), std::move(test));
    if (tests[0].Values.empty()) Fail(ALine, "'" + AKey + "' has an empty list of values");
    return tests;
  }
  AddValueTests(mods, AValue, AKeyword, test.Values);
  if (test.Values.empty()) Fail(ALine, "'" + AKey + "' has an empty list of values");
  return {std::move(test)};
}

TSearch TRuleCompiler::CompileSearch(const std::string& AName, const TYamlNode& AValue) {
  TSearch search;
  search.Name = AName;
  auto addMap = [&](const TYamlNode& AMap) {
    TSearchAlt alt;
    std::vector<TFieldTest> keywords;
    for (const auto& [key, value] : AMap.Entries) {
      bool keyword = false;
      std::vector<TFieldTest> tests = CompileField(key, value, value.Line ? value.Line : AMap.Line, keyword);
      if (keyword) {
        TSearchAlt kw;
        kw.Keywords = true;
        kw.Fields = std::move(tests);
        // A field-less entry in a map is one more condition of the map: it becomes a
        // keyword alternative only when it stands alone.
        if (AMap.Entries.size() == 1) {
          search.Alts.push_back(std::move(kw));
          return;
        }
        Fail(value.Line, "a keyword list mixed with fields in one map");
      }
      for (TFieldTest& test : tests) alt.Fields.push_back(std::move(test));
    }
    if (alt.Fields.empty()) Fail(AMap.Line, "search '" + AName + "' is an empty map");
    search.Alts.push_back(std::move(alt));
  };
  if (AValue.IsMap()) {
    addMap(AValue);
  } else if (AValue.IsList()) {
    TFieldTest keywords;
    for (const TYamlNode& item : AValue.Items) {
      if (item.IsMap())
        addMap(item);
      else if (item.IsList())
        Fail(item.Line, "search '" + AName + "' holds a list inside a list");
      else
        AddValueTest(TModifiers{}, item, true, keywords.Values);
    }
    if (!keywords.Values.empty()) {
      TSearchAlt alt;
      alt.Keywords = true;
      alt.Fields.push_back(std::move(keywords));
      search.Alts.push_back(std::move(alt));
    }
  } else if (AValue.IsScalar()) {
    TSearchAlt alt;
    alt.Keywords = true;
    alt.Fields.emplace_back();
    AddValueTest(TModifiers{}, AValue, true, alt.Fields[0].Values);
    search.Alts.push_back(std::move(alt));
  } else {
    Fail(AValue.Line, "search '" + AName + "' is empty");
  }
  return search;
}

std::vector<TRuleCompiler::TToken> TRuleCompiler::Tokenize(const std::string& AText, int ALine) const {
  std::vector<TToken> tokens;
  size_t i = 0;
  while (i < AText.size()) {
    const char c = AText[i];
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      ++i;
      continue;
    }
    if (c == '|') Fail(ALine, "aggregations in the condition (correlations) are not supported");
    if (c == '(' || c == ')') {
      tokens.push_back({std::string(1, c)});
      ++i;
      continue;
    }
    const size_t start = i;
    // (string_view: strchr would find a NUL byte of the text as the set's terminator)
    while (i < AText.size() && std::string_view(" \t\r\n()|").find(AText[i]) == std::string_view::npos) ++i;
    tokens.push_back({AText.substr(start, i - start)});
  }
  return tokens;
}

// A search identifier pattern ('*' only) against a name, without recursion.
bool NameMatches(std::string_view APattern, std::string_view AName) {
  size_t p = 0, n = 0, starP = std::string_view::npos, starN = 0;
  while (n < AName.size()) {
    if (p < APattern.size() && APattern[p] == '*') {
      starP = p++;
      starN = n;
    } else if (p < APattern.size() && APattern[p] == AName[n]) {
      ++p;
      ++n;
    } else if (starP != std::string_view::npos) {
      p = starP + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (p < APattern.size() && APattern[p] == '*') ++p;
  return p == APattern.size();
}

TCondNode TRuleCompiler::SearchesMatching(const std::string& APattern, bool AAll) {
  TCondNode node;
  node.Kind = AAll ? TCondNode::cnAnd : TCondNode::cnOr;
  const bool them = FoldText(APattern) == "them";
  for (size_t i = 0; i < FRule.Searches.size(); ++i) {
    const std::string& name = FRule.Searches[i].Name;
    if (them ? !name.starts_with("_") : NameMatches(APattern, name)) {
      TCondNode leaf;
      leaf.Search = static_cast<uint32_t>(i);
      node.Children.push_back(std::move(leaf));
    }
  }
  if (node.Children.empty()) Fail(FConditionLine, "the condition's '" + APattern + "' names no search");
  return node;
}

TCondNode TRuleCompiler::ParseOr(int ADepth) {
  TCondNode left = ParseAnd(ADepth);
  if (!AtWord("or")) return left;
  TCondNode node;
  node.Kind = TCondNode::cnOr;
  node.Children.push_back(std::move(left));
  while (AtWord("or")) {
    ++FPos;
    node.Children.push_back(ParseAnd(ADepth));
  }
  return node;
}

TCondNode TRuleCompiler::ParseAnd(int ADepth) {
  TCondNode left = ParseNot(ADepth);
  if (!AtWord("and")) return left;
  TCondNode node;
  node.Kind = TCondNode::cnAnd;
  node.Children.push_back(std::move(left));
  while (AtWord("and")) {
    ++FPos;
    node.Children.push_back(ParseNot(ADepth));
  }
  return node;
}

TCondNode TRuleCompiler::ParseNot(int ADepth) {
  if (ADepth > FLimits.MaxConditionDepth)
    Fail(FConditionLine, "the condition nests deeper than " + std::to_string(FLimits.MaxConditionDepth) + " levels");
  if (AtWord("not")) {
    ++FPos;
    TCondNode node;
    node.Kind = TCondNode::cnNot;
    node.Children.push_back(ParseNot(ADepth + 1));
    return node;
  }
  return ParsePrimary(ADepth);
}

TCondNode TRuleCompiler::ParsePrimary(int ADepth) {
  if (FPos >= FTokens.size()) Fail(FConditionLine, "the condition ends too early");
  const std::string token = FTokens[FPos].Text;
  if (token == "(") {
    ++FPos;
    TCondNode inner = ParseOr(ADepth + 1);
    if (FPos >= FTokens.size() || FTokens[FPos].Text != ")") Fail(FConditionLine, "a '(' in the condition is not closed");
    ++FPos;
    return inner;
  }
  if (token == ")") Fail(FConditionLine, "a ')' in the condition without its '('");
  const std::string word = FoldText(token);
  if ((word == "1" || word == "all" || word == "any") && FPos + 1 < FTokens.size() &&
      EqualFolded(FTokens[FPos + 1].Text, "of")) {
    if (FPos + 2 >= FTokens.size()) Fail(FConditionLine, "'" + token + " of' needs a search or 'them'");
    const std::string pattern = FTokens[FPos + 2].Text;
    if (pattern == "(" || pattern == ")") Fail(FConditionLine, "'" + token + " of' needs a search or 'them'");
    FPos += 3;
    return SearchesMatching(pattern, word == "all");
  }
  if (FPos + 1 < FTokens.size() && EqualFolded(FTokens[FPos + 1].Text, "of"))
    Fail(FConditionLine, "'" + token + " of' is not supported (only '1 of' and 'all of')");
  if (word == "and" || word == "or" || word == "of")
    Fail(FConditionLine, "'" + token + "' where a search was expected in the condition");
  for (size_t i = 0; i < FRule.Searches.size(); ++i)
    if (FRule.Searches[i].Name == token) {
      ++FPos;
      TCondNode leaf;
      leaf.Search = static_cast<uint32_t>(i);
      return leaf;
    }
  Fail(FConditionLine, "the condition names '" + token + "', which is not a search of the rule");
}

// The event IDs a search always needs one of: every alternative has an EventID test of
// plain numbers. Empty optional when it does not.
std::optional<std::set<uint32_t>> SearchEventIds(const TSearch& ASearch, const TSigmaRule& ARule) {
  std::set<uint32_t> ids;
  if (ASearch.Alts.empty()) return std::nullopt;
  for (const TSearchAlt& alt : ASearch.Alts) {
    if (alt.Keywords) return std::nullopt;
    bool found = false;
    for (const TFieldTest& field : alt.Fields) {
      if (!EqualFolded(ARule.SlotNames[field.Slot], "eventid") || (field.All && field.Values.size() > 1)) continue;
      std::set<uint32_t> these;
      bool plain = true;
      for (const TValueTest& value : field.Values) {
        if (value.Kind != TValueTest::vkEquals || value.Needle.empty() || value.Needle.size() > 9 ||
            value.Needle.find_first_not_of("0123456789") != std::string::npos) {
          plain = false;
          break;
        }
        these.insert(static_cast<uint32_t>(std::stoul(value.Needle)));
      }
      if (plain) {
        ids.insert(these.begin(), these.end());
        found = true;
        break;
      }
    }
    if (!found) return std::nullopt;
  }
  return ids;
}

std::optional<std::set<uint32_t>> NodeEventIds(const TCondNode& ANode, const TSigmaRule& ARule) {
  switch (ANode.Kind) {
  case TCondNode::cnSearch: return SearchEventIds(ARule.Searches[ANode.Search], ARule);
  case TCondNode::cnNot: return std::nullopt;
  case TCondNode::cnOr: {
    std::set<uint32_t> all;
    for (const TCondNode& child : ANode.Children) {
      auto ids = NodeEventIds(child, ARule);
      if (!ids) return std::nullopt;
      all.insert(ids->begin(), ids->end());
    }
    return all;
  }
  case TCondNode::cnAnd: {
    std::optional<std::set<uint32_t>> result;
    for (const TCondNode& child : ANode.Children) {
      auto ids = NodeEventIds(child, ARule);
      if (!ids) continue;
      if (!result) {
        result = std::move(ids);
      } else {
        std::set<uint32_t> both;
        std::set_intersection(result->begin(), result->end(), ids->begin(), ids->end(),
                              std::inserter(both, both.begin()));
        result = std::move(both);
      }
    }
    return result;
  }
  }
  return std::nullopt;
}

void TRuleCompiler::CompileDetection(const TYamlNode& ADetection) {
  if (!ADetection.IsMap()) Fail(ADetection.Line, "'detection' is not a map");
  const TYamlNode* condition = nullptr;
  for (const auto& [name, value] : ADetection.Entries) {
    if (name == "condition") {
      condition = &value;
      continue;
    }
    if (name == "timeframe") continue;
    FRule.Searches.push_back(CompileSearch(name, value));
  }
  if (!condition) Fail(ADetection.Line, "the detection has no condition");
  std::vector<const TYamlNode*> texts;
  if (condition->IsList())
    for (const TYamlNode& item : condition->Items) texts.push_back(&item);
  else
    texts.push_back(condition);
  TCondNode root;
  root.Kind = TCondNode::cnOr;
  for (const TYamlNode* text : texts) {
    FConditionLine = text->Line;
    if (!text->IsScalar() || text->Text.empty()) Fail(text->Line, "the condition is not a text");
    if (text->Text.size() > FLimits.MaxConditionLength) Fail(text->Line, "the condition is too long");
    FTokens = Tokenize(text->Text, text->Line);
    FPos = 0;
    TCondNode node = ParseOr(0);
    if (FPos != FTokens.size()) Fail(text->Line, "unexpected '" + FTokens[FPos].Text + "' in the condition");
    root.Children.push_back(std::move(node));
  }
  FRule.Condition = root.Children.size() == 1 ? std::move(root.Children[0]) : std::move(root);
  // The tests of a map all have to hold: the cheapest go first, so most events are turned
  // away before a long list of substrings or a regular expression is tried.
  auto cost = [](const TFieldTest& AField) {
    size_t total = 0;
    for (const TValueTest& value : AField.Values)
      total += value.Kind == TValueTest::vkRegex ? 50
               : value.Kind == TValueTest::vkGlob || value.Kind == TValueTest::vkFieldRef ? 4
               : value.Kind == TValueTest::vkContains ? 2
                                                      : 1;
    return total;
  };
  for (TSearch& search : FRule.Searches)
    for (TSearchAlt& alt : search.Alts)
      if (!alt.Keywords)
        std::stable_sort(alt.Fields.begin(), alt.Fields.end(),
                         [&](const TFieldTest& A, const TFieldTest& B) { return cost(A) < cost(B); });
  if (auto ids = NodeEventIds(FRule.Condition, FRule)) FRule.EventIds = std::move(*ids);
  for (TSearch& search : FRule.Searches)
    for (TSearchAlt& alt : search.Alts)
      for (TFieldTest& field : alt.Fields) {
        field.Index = FRule.FieldTestCount++;
        for (TValueTest& value : field.Values) value.Index = FRule.TestCount++;
      }
}

std::string JoinText(const TYamlNode* ANode) {
  if (!ANode) return {};
  if (ANode->IsScalar()) return ANode->Text;
  std::string out;
  if (ANode->IsList())
    for (const TYamlNode& item : ANode->Items)
      if (item.IsScalar()) out.append(out.empty() ? "" : ", ").append(item.Text);
  return out;
}

} // namespace

std::unique_ptr<TSigmaRule> CompileSigmaRule(const TYamlNode& ADocument, const std::string& AFile,
                                             const TCompileLimits& ALimits) {
  if (!ADocument.IsMap()) RaiseSigmaError(AFile, ADocument.Line, "not a rule (the document is not a map)");
  if (ADocument.Find("correlation"))
    RaiseSigmaError(AFile, ADocument.Find("correlation")->Line, "correlation rules are not supported");
  if (ADocument.Find("action"))
    RaiseSigmaError(AFile, ADocument.Find("action")->Line, "rule collections ('action') are not supported");
  auto rule = std::make_unique<TSigmaRule>();
  rule->File = AFile;
  rule->Title = ADocument.TextOf("title");
  rule->Id = ADocument.TextOf("id");
  rule->Author = JoinText(ADocument.Find("author"));
  rule->Status = FoldText(ADocument.TextOf("status"));
  rule->Description = ADocument.TextOf("description");
  rule->Date = ADocument.TextOf("date");
  if (rule->Title.empty()) RaiseSigmaError(AFile, ADocument.Line, "the rule has no title");
  if (const TYamlNode* level = ADocument.Find("level")) {
    if (!level->IsScalar() || !ParseLevel(level->Text, rule->Level))
      RaiseSigmaError(AFile, level->Line, "unknown level '" + level->Text + "'");
  }
  if (const TYamlNode* tags = ADocument.Find("tags"); tags && tags->IsList())
    for (const TYamlNode& tag : tags->Items)
      if (tag.IsScalar()) rule->Tags.push_back(tag.Text);
  const TYamlNode* logsource = ADocument.Find("logsource");
  if (!logsource || !logsource->IsMap()) RaiseSigmaError(AFile, ADocument.Line, "the rule has no logsource");
  rule->Product = FoldText(logsource->TextOf("product"));
  rule->Category = FoldText(logsource->TextOf("category"));
  rule->Service = FoldText(logsource->TextOf("service"));
  const TYamlNode* detection = ADocument.Find("detection");
  if (!detection) RaiseSigmaError(AFile, ADocument.Line, "the rule has no detection");
  TRuleCompiler(AFile, ALimits, *rule).CompileDetection(*detection);
  return rule;
}

} // namespace qvx::hunt
