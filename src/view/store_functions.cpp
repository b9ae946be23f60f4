#include "view/store_functions.h"

#include "filter/event_filter.h"
#include "filter/pcre2_pattern.h"
#include "platform/utf16.h"

#include <pugixml.hpp>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace qvx {

namespace {

std::atomic<uint64_t> GCompileCount{0};

// --- UTF-8 and case -----------------------------------------------------------------

// Decodes the code point at AText[AAt]; ALength is its byte count. A byte that does not
// start a valid, shortest-form sequence is returned as itself with length 1 and AValid false.
uint32_t DecodeAt(std::string_view AText, size_t AAt, size_t& ALength, bool& AValid) {
  const int32_t cp = DecodeUtf8At(AText, AAt, ALength);
  AValid = cp >= 0;
  return AValid ? static_cast<uint32_t>(cp) : static_cast<unsigned char>(AText[AAt]);
}

// The upper case of a code point by the built-in table (see the header); always a code
// point of the same UTF-16 length.
uint32_t UpperCp(uint32_t ACp) {
  if (ACp < 0x80) return ACp >= 'a' && ACp <= 'z' ? ACp - 32 : ACp;
  if (ACp < 0x100) {
    if (ACp >= 0xE0 && ACp <= 0xFE && ACp != 0xF7) return ACp - 32;
    if (ACp == 0xFF) return 0x178;
    if (ACp == 0xB5) return 0x39C;
    return ACp;
  }
  if (ACp < 0x180) {
    if (ACp == 0x131) return 'I';
    if (ACp == 0x17F) return 'S';
    if ((ACp >= 0x100 && ACp <= 0x137) || (ACp >= 0x14A && ACp <= 0x177)) return ACp & ~1u;
    if ((ACp >= 0x139 && ACp <= 0x148) || (ACp >= 0x179 && ACp <= 0x17E)) return (ACp & 1u) ? ACp : ACp - 1;
    return ACp;
  }
  if (ACp >= 0x3AC && ACp <= 0x3CE) {
    if (ACp == 0x3AC) return 0x386;
    if (ACp >= 0x3AD && ACp <= 0x3AF) return ACp - 37;
    if (ACp == 0x3C2) return 0x3A3;
    if (ACp >= 0x3B1 && ACp <= 0x3CB) return ACp - 32;
    if (ACp == 0x3CC) return 0x38C;
    if (ACp >= 0x3CD) return ACp - 63;
    return ACp;
  }
  if (ACp >= 0x430 && ACp <= 0x44F) return ACp - 32;
  if (ACp >= 0x450 && ACp <= 0x45F) return ACp - 80;
  return ACp;
}

// AText upper-cased into AOut; bytes that are not valid UTF-8 are copied as they are.
void UpperInto(std::string_view AText, std::string& AOut) {
  AOut.clear();
  AOut.reserve(AText.size());
  size_t at = 0;
  while (at < AText.size()) {
    const unsigned char c = static_cast<unsigned char>(AText[at]);
    if (c < 0x80) {
      AOut.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : static_cast<char>(c));
      ++at;
      continue;
    }
    size_t length = 1;
    bool valid = true;
    const uint32_t cp = DecodeAt(AText, at, length, valid);
    if (valid)
      AppendUtf8(AOut, UpperCp(cp));
    else
      AOut.push_back(static_cast<char>(c));
    at += length;
  }
}

// UTF-16 code units of AText (an invalid byte counts 1).
bool IsBlank(char c) {
  return static_cast<unsigned char>(c) <= 0x20;
}

std::string_view Trimmed(std::string_view AText) {
  while (!AText.empty() && IsBlank(AText.front()))
    AText.remove_prefix(1);
  while (!AText.empty() && IsBlank(AText.back()))
    AText.remove_suffix(1);
  return AText;
}

// Working buffers for upper-cased texts, kept per thread so a statement over many rows
// does not allocate for each one.
struct TFoldBuffers {
  std::string A, B;
};
TFoldBuffers& FoldBuffers() {
  thread_local TFoldBuffers buffers;
  return buffers;
}

bool SameIgnoringCase(std::string_view AText, std::string_view AValue) {
  // ASCII texts (labels, names, most values) are compared in place.
  bool ascii = true;
  if (AText.size() == AValue.size()) {
    for (size_t i = 0; i < AText.size(); ++i) {
      unsigned char a = static_cast<unsigned char>(AText[i]), b = static_cast<unsigned char>(AValue[i]);
      if (a >= 0x80 || b >= 0x80) {
        ascii = false;
        break;
      }
      if (a >= 'a' && a <= 'z') a = static_cast<unsigned char>(a - 32);
      if (b >= 'a' && b <= 'z') b = static_cast<unsigned char>(b - 32);
      if (a != b) return false;
    }
    if (ascii) return true;
  } else {
    // Only upper-casing beyond ASCII can change a byte length.
    const auto isAscii = [](std::string_view AText2) {
      for (const char c : AText2)
        if (static_cast<unsigned char>(c) >= 0x80) return false;
      return true;
    };
    if (isAscii(AText) && isAscii(AValue)) return false;
  }
  TFoldBuffers& buffers = FoldBuffers();
  UpperInto(AText, buffers.A);
  UpperInto(AValue, buffers.B);
  return buffers.A == buffers.B;
}

int Sign(int AValue) {
  return AValue < 0 ? -1 : AValue > 0 ? 1 : 0;
}

// --- numbers ------------------------------------------------------------------------

// A trimmed decimal or 0x hex integer; hex above INT64_MAX wraps.
bool ParseInteger(std::string_view AText, int64_t& AValue) {
  std::string_view text = Trimmed(AText);
  if (text.empty()) return false;
  bool negative = false;
  std::string_view digits = text;
  if (digits.front() == '+' || digits.front() == '-') {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    digits.remove_prefix(2);
    uint64_t value = 0;
    const auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (ec != std::errc() || ptr != digits.data() + digits.size()) return false;
    AValue = static_cast<int64_t>(negative ? 0 - value : value);
    return true;
  }
  if (digits.empty() || digits.front() == '+' || digits.front() == '-') return false;
  std::string_view signedText = negative ? text.substr(text.size() - digits.size() - 1) : digits;
  int64_t value = 0;
  const auto [ptr, ec] = std::from_chars(signedText.data(), signedText.data() + signedText.size(), value);
  if (ec != std::errc() || ptr != signedText.data() + signedText.size()) return false;
  AValue = value;
  return true;
}

// A trimmed decimal number (fraction and exponent allowed) or 0x hex integer; finite.
bool ParseNumber(std::string_view AText, double& AValue) {
  std::string_view text = Trimmed(AText);
  if (text.empty()) return false;
  int64_t integer = 0;
  std::string_view digits = text;
  if (digits.front() == '+' || digits.front() == '-') digits.remove_prefix(1);
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    if (!ParseInteger(text, integer)) return false;
    AValue = static_cast<double>(integer);
    return true;
  }
  if (digits.empty() || !(std::isdigit(static_cast<unsigned char>(digits.front())) || digits.front() == '.'))
    return false;
  std::string_view number = text.front() == '+' ? text.substr(1) : text;
  double value = 0;
  const auto [ptr, ec] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (ec != std::errc() || ptr != number.data() + number.size() || !std::isfinite(value)) return false;
  AValue = value;
  return true;
}

// --- regular expressions ------------------------------------------------------------

struct TStoreRegex {
  std::string Pattern;
  uint32_t Options = 0;
  pcre2_code* Code = nullptr;
  bool Jit = false;
  std::string Error; // the SQL error text when Code is null

  TStoreRegex(std::string_view APattern, uint32_t AOptions) : Pattern(APattern), Options(AOptions) {
    GCompileCount.fetch_add(1, std::memory_order_relaxed);
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    Code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(Pattern.data()), Pattern.size(), Options, &errorCode,
                         &errorOffset, nullptr);
    if (!Code) {
      PCRE2_UCHAR buffer[256];
      pcre2_get_error_message(errorCode, buffer, sizeof(buffer));
      Error = "invalid regular expression \"";
      Error.append(Pattern);
      Error.append("\": ");
      Error.append(reinterpret_cast<const char*>(buffer));
      Error.append(" at offset ");
      Error.append(std::to_string(errorOffset));
      return;
    }
    Jit = pcre2_jit_compile(Code, PCRE2_JIT_COMPLETE) == 0;
  }
  ~TStoreRegex() {
    if (Code) pcre2_code_free(Code);
  }
  TStoreRegex(const TStoreRegex&) = delete;
  TStoreRegex& operator=(const TStoreRegex&) = delete;
};
using TStoreRegexPtr = std::shared_ptr<TStoreRegex>;

constexpr uint32_t kRegexOptions = PCRE2_UTF
#ifdef PCRE2_MATCH_INVALID_UTF
                                   | PCRE2_MATCH_INVALID_UTF
#endif
    ;

constexpr size_t kCacheSize = 16;
constexpr uint32_t kOvectorPairs = 32;

// What the functions of one connection share: the recent patterns and the match data
// every match reuses.
class TStoreState {
public:
  TStoreState() {
    FMatchData = pcre2_match_data_create(kOvectorPairs, nullptr);
    FMatchContext = pcre2_match_context_create(nullptr);
    if (FMatchContext) {
      pcre2_set_match_limit(FMatchContext, TPcre2Pattern::DefaultMatchLimit);
      pcre2_set_depth_limit(FMatchContext, TPcre2Pattern::DefaultDepthLimit);
    }
  }
  ~TStoreState() {
    pcre2_match_data_free(FMatchData);
    pcre2_match_context_free(FMatchContext);
  }
  TStoreState(const TStoreState&) = delete;
  TStoreState& operator=(const TStoreState&) = delete;

  TStoreRegexPtr Pattern(std::string_view APattern, uint32_t AOptions) {
    for (size_t i = 0; i < FCache.size(); ++i) {
      if (FCache[i]->Options == AOptions && FCache[i]->Pattern == APattern) {
        TStoreRegexPtr found = FCache[i];
        if (i > 0)
          std::rotate(FCache.begin(), FCache.begin() + static_cast<std::ptrdiff_t>(i),
                      FCache.begin() + static_cast<std::ptrdiff_t>(i) + 1);
        return found;
      }
    }
    auto compiled = std::make_shared<TStoreRegex>(APattern, AOptions);
    FCache.insert(FCache.begin(), compiled);
    if (FCache.size() > kCacheSize) FCache.pop_back();
    return compiled;
  }

  // PCRE2's result: > 0 (or 0, a match with more groups than kept) for a match, a
  // negative code otherwise. Group offsets are in Ovector() after a match.
  int Match(const TStoreRegex& ARegex, std::string_view ASubject) {
    if (!ARegex.Code || !FMatchData) return PCRE2_ERROR_NOMEMORY;
    const auto subject = reinterpret_cast<PCRE2_SPTR>(ASubject.data());
    int rc = ARegex.Jit
                 ? pcre2_jit_match(ARegex.Code, subject, ASubject.size(), 0, 0, FMatchData, FMatchContext)
                 : pcre2_match(ARegex.Code, subject, ASubject.size(), 0, 0, FMatchData, FMatchContext);
    // The interpreter keeps its backtracking on the heap and copes where the JIT stack
    // runs out.
    if (ARegex.Jit && rc == PCRE2_ERROR_JIT_STACKLIMIT)
      rc = pcre2_match(ARegex.Code, subject, ASubject.size(), 0, PCRE2_NO_JIT, FMatchData, FMatchContext);
    return rc;
  }
  bool Matches(const TStoreRegex& ARegex, std::string_view ASubject) { return Match(ARegex, ASubject) >= 0; }
  const PCRE2_SIZE* Ovector() const { return pcre2_get_ovector_pointer(FMatchData); }

private:
  std::vector<TStoreRegexPtr> FCache;
  pcre2_match_data* FMatchData = nullptr;
  pcre2_match_context* FMatchContext = nullptr;
};
using TStoreStatePtr = std::shared_ptr<TStoreState>;

// --- descriptions -------------------------------------------------------------------

// Calls AVisit(line) for each line until it returns true; true when one did.
template <typename TVisit> bool ForEachLine(std::string_view AText, TVisit&& AVisit) {
  size_t at = 0;
  while (at <= AText.size()) {
    size_t end = AText.find_first_of("\r\n", at);
    if (end == std::string_view::npos) end = AText.size();
    if (AVisit(AText.substr(at, end - at))) return true;
    if (end >= AText.size()) break;
    at = end + (AText[end] == '\r' && end + 1 < AText.size() && AText[end + 1] == '\n' ? 2 : 1);
  }
  return false;
}

// Looks for ALabel (after the heading ASection when it is not empty) among the lines of
// the form "label<ASeparator>value".
bool FindParamWith(std::string_view ADescr, std::string_view ASection, std::string_view ALabel,
                   char ASeparator, std::string& AValue) {
  bool inSection = ASection.empty();
  return ForEachLine(ADescr, [&](std::string_view ALine) {
    const size_t separator = ALine.find(ASeparator);
    if (separator == std::string_view::npos) return false;
    const std::string_view key = Trimmed(ALine.substr(0, separator));
    const std::string_view value = Trimmed(ALine.substr(separator + 1));
    if (!inSection) {
      if (value.empty() && SameIgnoringCase(key, ASection)) inSection = true;
      return false;
    }
    if (key.size() > 0 && SameIgnoringCase(key, ALabel)) {
      AValue.assign(value);
      return true;
    }
    return false;
  });
}

// A parameter's value against the condition, ARegexMatch applying the pattern operators.
template <typename TRegexMatch>
int CompareFound(const std::string& param, int32_t AOper, std::string_view AValue, bool ACaseSensitive,
                 TRegexMatch&& ARegexMatch) {
  auto compare = [&]() {
    double left = 0, right = 0;
    if (ParseNumber(param, left) && ParseNumber(AValue, right))
      return left < right ? -1 : left > right ? 1 : 0;
    return MyCompareStr(param, AValue, ACaseSensitive);
  };
  switch (AOper) {
  case coEquals:
    return MySameStr(param, AValue, ACaseSensitive);
  case coNotEqual:
    return !MySameStr(param, AValue, ACaseSensitive);
  case coContains:
    return MyInStr(param, AValue, ACaseSensitive) > 0;
  case coNotContains:
    return MyInStr(param, AValue, ACaseSensitive) == 0;
  case coMatches:
    return ARegexMatch(std::string_view(param)) == 1;
  case coNotMatches:
    return ARegexMatch(std::string_view(param)) == 0;
  case coInList:
    return MyInList(param, AValue, ACaseSensitive);
  case coNotInList:
    return !MyInList(param, AValue, ACaseSensitive);
  case coGreater:
    return compare() > 0;
  case coLess:
    return compare() < 0;
  default:
    return 0;
  }
}

// The value of a description parameter against the condition; 0 when it has none.
template <typename TRegexMatch>
int CompareParam(std::string_view ADescr, std::string_view AName, int32_t AOper, std::string_view AValue,
                 bool ACaseSensitive, TRegexMatch&& ARegexMatch) {
  std::string param;
  if (!FindDescrParam(ADescr, AName, param)) return 0;
  return CompareFound(param, AOper, AValue, ACaseSensitive, ARegexMatch);
}

// --- event XML ----------------------------------------------------------------------

std::string_view LocalName(const char* AName) {
  std::string_view name(AName);
  const size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

bool SameAscii(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t i = 0; i < A.size(); ++i) {
    char a = A[i], b = B[i];
    if (a >= 'a' && a <= 'z') a = static_cast<char>(a - 32);
    if (b >= 'a' && b <= 'z') b = static_cast<char>(b - 32);
    if (a != b) return false;
  }
  return true;
}

pugi::xml_node ChildByLocalName(pugi::xml_node ANode, std::string_view AName) {
  for (pugi::xml_node child = ANode.first_child(); child; child = child.next_sibling())
    if (child.type() == pugi::node_element && LocalName(child.name()) == AName) return child;
  return {};
}

// The text of an element: its character data, CDATA included, in order.
std::string ElementText(pugi::xml_node ANode) {
  std::string text;
  for (pugi::xml_node child = ANode.first_child(); child; child = child.next_sibling())
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) text.append(child.value());
  return text;
}

bool FindXmlNamedValue(pugi::xml_node ARoot, std::string_view AName, std::string& AValue) {
  if (pugi::xml_node data = ChildByLocalName(ARoot, "EventData")) {
    for (pugi::xml_node item = data.first_child(); item; item = item.next_sibling()) {
      if (item.type() != pugi::node_element || LocalName(item.name()) != "Data") continue;
      for (pugi::xml_attribute attribute = item.first_attribute(); attribute;
           attribute = attribute.next_attribute())
        if (LocalName(attribute.name()) == "Name" && SameAscii(attribute.value(), AName)) {
          AValue = ElementText(item);
          return true;
        }
    }
  }
  if (pugi::xml_node user = ChildByLocalName(ARoot, "UserData")) {
    // Depth-first, document order, without recursion.
    pugi::xml_node node = user.first_child();
    while (node) {
      if (node.type() == pugi::node_element && SameAscii(LocalName(node.name()), AName)) {
        AValue = ElementText(node);
        return true;
      }
      if (node.first_child()) {
        node = node.first_child();
        continue;
      }
      while (node && node != user && !node.next_sibling())
        node = node.parent();
      if (!node || node == user) break;
      node = node.next_sibling();
    }
  }
  return false;
}

bool FindXmlPath(pugi::xml_node ARoot, std::string_view APath, std::string& AValue) {
  pugi::xml_node node = ARoot;
  bool first = true;
  size_t at = 0;
  while (at <= APath.size()) {
    size_t end = APath.find('/', at);
    if (end == std::string_view::npos) end = APath.size();
    std::string_view step = Trimmed(APath.substr(at, end - at));
    const bool last = end >= APath.size();
    at = end + 1;
    if (step.empty()) {
      if (last) break;
      continue;
    }
    if (step.front() == '@') {
      if (!last) return false;
      step.remove_prefix(1);
      for (pugi::xml_attribute attribute = node.first_attribute(); attribute;
           attribute = attribute.next_attribute())
        if (LocalName(attribute.name()) == step) {
          AValue = attribute.value();
          return true;
        }
      return false;
    }
    size_t index = 1;
    const size_t bracket = step.find('[');
    if (bracket != std::string_view::npos) {
      std::string_view number = step.substr(bracket + 1);
      if (number.empty() || number.back() != ']') return false;
      number.remove_suffix(1);
      number = Trimmed(number);
      const auto [ptr, ec] = std::from_chars(number.data(), number.data() + number.size(), index);
      if (ec != std::errc() || ptr != number.data() + number.size() || index == 0) return false;
      step = Trimmed(step.substr(0, bracket));
    }
    if (first && index == 1 && LocalName(node.name()) == step && !ChildByLocalName(node, step)) {
      first = false;
      if (last) break;
      continue;
    }
    first = false;
    pugi::xml_node found;
    size_t seen = 0;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling())
      if (child.type() == pugi::node_element && LocalName(child.name()) == step && ++seen == index) {
        found = child;
        break;
      }
    if (!found) return false;
    node = found;
    if (last) break;
  }
  if (node == ARoot && APath.find_first_not_of("/ ") == std::string_view::npos) return false;
  AValue = ElementText(node);
  return true;
}

// --- SQL glue -----------------------------------------------------------------------

std::string_view ArgText(sqlite3_value* AValue) {
  const unsigned char* text = sqlite3_value_text(AValue);
  if (!text) return {};
  const int bytes = sqlite3_value_bytes(AValue);
  return std::string_view(reinterpret_cast<const char*>(text), bytes > 0 ? static_cast<size_t>(bytes) : 0);
}

bool ArgCase(sqlite3_value* AValue) {
  return sqlite3_value_int64(AValue) != 0;
}

TStoreState& State(sqlite3_context* AContext) {
  return **static_cast<TStoreStatePtr*>(sqlite3_user_data(AContext));
}

void DeleteRegex(void* APointer) {
  delete static_cast<TStoreRegexPtr*>(APointer);
}

// The compiled pattern of argument AArg: from the statement's auxiliary data when the
// argument is constant, else from the connection's cache. Null (with the SQL error set)
// when it does not compile.
const TStoreRegex* ArgPattern(sqlite3_context* AContext, int AArg, std::string_view APattern,
                              uint32_t AOptions) {
  auto* aux = static_cast<TStoreRegexPtr*>(sqlite3_get_auxdata(AContext, AArg));
  TStoreRegexPtr regex;
  if (aux && (*aux)->Options == AOptions && (*aux)->Pattern == APattern) {
    regex = *aux;
  } else {
    regex = State(AContext).Pattern(APattern, AOptions);
    sqlite3_set_auxdata(AContext, AArg, new TStoreRegexPtr(regex), DeleteRegex);
    // sqlite3_set_auxdata may free what it was given at once; the cache still holds it.
    aux = static_cast<TStoreRegexPtr*>(sqlite3_get_auxdata(AContext, AArg));
    if (aux) regex = *aux;
  }
  if (!regex->Code) {
    sqlite3_result_error(AContext, regex->Error.c_str(), static_cast<int>(regex->Error.size()));
    return nullptr;
  }
  // The cache or the auxiliary data keeps the pattern alive for the rest of this call.
  return regex.get();
}

void SqlRegExp(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  if (sqlite3_value_type(AArgs[0]) == SQLITE_NULL || sqlite3_value_type(AArgs[1]) == SQLITE_NULL) {
    sqlite3_result_int(AContext, 0);
    return;
  }
  const TStoreRegex* regex = ArgPattern(AContext, 0, ArgText(AArgs[0]), kRegexOptions);
  if (!regex) return;
  sqlite3_result_int(AContext, State(AContext).Matches(*regex, ArgText(AArgs[1])) ? 1 : 0);
}

void SqlMyInStr(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  sqlite3_result_int64(AContext, MyInStr(ArgText(AArgs[0]), ArgText(AArgs[1]), ArgCase(AArgs[2])));
}

void SqlMySameStr(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  sqlite3_result_int(AContext, MySameStr(ArgText(AArgs[0]), ArgText(AArgs[1]), ArgCase(AArgs[2])) ? 1 : 0);
}

void SqlMyInList(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  sqlite3_result_int(AContext, MyInList(ArgText(AArgs[0]), ArgText(AArgs[1]), ArgCase(AArgs[2])) ? 1 : 0);
}

void SqlMyCompareStr(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  sqlite3_result_int(AContext, MyCompareStr(ArgText(AArgs[0]), ArgText(AArgs[1]), ArgCase(AArgs[2])));
}

void SqlCompareDescrWithCond(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  const int64_t oper = sqlite3_value_int64(AArgs[2]);
  const bool caseSensitive = ArgCase(AArgs[4]);
  const std::string_view value = ArgText(AArgs[3]);
  bool failed = false;
  auto regexMatch = [&](std::string_view AParam) {
    const TStoreRegex* regex = ArgPattern(
        AContext, 3, value, kRegexOptions | (caseSensitive ? 0u : static_cast<uint32_t>(PCRE2_CASELESS)));
    if (!regex) {
      failed = true;
      return -1;
    }
    return State(AContext).Matches(*regex, AParam) ? 1 : 0;
  };
  const int result = oper < coNone || oper > coLess
                         ? 0
                         : CompareParam(ArgText(AArgs[0]), ArgText(AArgs[1]), static_cast<int32_t>(oper),
                                        value, caseSensitive, regexMatch);
  if (!failed) sqlite3_result_int(AContext, result);
}

// The value of an event's parameter AName: its event data value of that name (EventData
// "Data Name=", or a UserData element), else the description's parameter of that name.
// The XML is parsed only when it holds the name's text at all.
bool FindEventParam(std::string_view AXml, std::string_view ADescr, std::string_view AName, std::string& AValue) {
  const std::string_view name = Trimmed(AName);
  if (!name.empty() && !AXml.empty() &&
      std::search(AXml.begin(), AXml.end(), name.begin(), name.end(), [](char A, char B) {
        return (A >= 'a' && A <= 'z' ? A - 32 : A) == (B >= 'a' && B <= 'z' ? B - 32 : B);
      }) != AXml.end()) {
    pugi::xml_document document;
    const unsigned options = pugi::parse_minimal | pugi::parse_escapes | pugi::parse_cdata;
    if (document.load_buffer(AXml.data(), AXml.size(), options, pugi::encoding_utf8) &&
        FindXmlNamedValue(document.document_element(), name, AValue))
      return true;
  }
  return FindDescrParam(ADescr, AName, AValue);
}

// CompareDescrWithCond(xml, descr, name, oper, value, case): as the five-argument form,
// the parameter found by FindEventParam.
void SqlCompareParamWithCond(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  const int64_t oper = sqlite3_value_int64(AArgs[3]);
  const bool caseSensitive = ArgCase(AArgs[5]);
  const std::string_view value = ArgText(AArgs[4]);
  bool failed = false;
  auto regexMatch = [&](std::string_view AParam) {
    const TStoreRegex* regex = ArgPattern(
        AContext, 4, value, kRegexOptions | (caseSensitive ? 0u : static_cast<uint32_t>(PCRE2_CASELESS)));
    if (!regex) {
      failed = true;
      return -1;
    }
    return State(AContext).Matches(*regex, AParam) ? 1 : 0;
  };
  std::string param;
  int result = 0;
  if (oper >= coNone && oper <= coLess && FindEventParam(ArgText(AArgs[0]), ArgText(AArgs[1]), ArgText(AArgs[2]), param))
    result = CompareFound(param, static_cast<int32_t>(oper), value, caseSensitive, regexMatch);
  if (!failed) sqlite3_result_int(AContext, result);
}

// The parsed event ID list of a column, kept on the constant argument.
struct TIdList {
  std::string Text;
  std::vector<TEventIdSpan> Include, Exclude;
};
void DeleteIdList(void* APointer) {
  delete static_cast<TIdList*>(APointer);
}

bool IdInSpans(int64_t AId, const std::vector<TEventIdSpan>& ASpans) {
  for (const TEventIdSpan& span : ASpans)
    if (AId >= static_cast<int64_t>(span.Low) && AId <= static_cast<int64_t>(span.High)) return true;
  return false;
}

bool IdApplies(sqlite3_context* AContext, sqlite3_value* AIds, sqlite3_value* AId) {
  const std::string_view text = ArgText(AIds);
  if (Trimmed(text).empty()) return true;
  auto* list = static_cast<TIdList*>(sqlite3_get_auxdata(AContext, 5));
  std::unique_ptr<TIdList> local;
  if (!list || list->Text != text) {
    local = std::make_unique<TIdList>();
    local->Text.assign(text);
    SplitEventIdExpression(local->Text, local->Include, local->Exclude);
    list = local.get();
  }
  bool applies = false;
  if (sqlite3_value_type(AId) != SQLITE_NULL) {
    const int64_t id = sqlite3_value_int64(AId);
    applies = (list->Include.empty() || IdInSpans(id, list->Include)) && !IdInSpans(id, list->Exclude);
  }
  if (local) sqlite3_set_auxdata(AContext, 5, local.release(), DeleteIdList);
  return applies;
}

void ResultValue(sqlite3_context* AContext, std::string_view AValue, int64_t AFormat) {
  if (AFormat == 1) {
    int64_t value = 0;
    if (ParseInteger(AValue, value))
      sqlite3_result_int64(AContext, value);
    else
      sqlite3_result_null(AContext);
  } else if (AFormat == 2) {
    double value = 0;
    if (ParseNumber(AValue, value))
      sqlite3_result_double(AContext, value);
    else
      sqlite3_result_null(AContext);
  } else {
    sqlite3_result_text(AContext, AValue.data(),
                        static_cast<int>(std::min<size_t>(AValue.size(), 0x7FFFFFFF)), SQLITE_TRANSIENT);
  }
}

void SqlCalculateCustomField(sqlite3_context* AContext, int, sqlite3_value** AArgs) {
  if (!IdApplies(AContext, AArgs[5], AArgs[0])) {
    sqlite3_result_null(AContext);
    return;
  }
  const int64_t kind = sqlite3_value_int64(AArgs[2]);
  const int64_t format = sqlite3_value_int64(AArgs[6]);
  const std::string_view expr = ArgText(AArgs[4]);
  std::string value;
  bool found = false;
  if (kind == 0 || kind == 3) {
    const std::string_view xml = ArgText(AArgs[1]);
    if (xml.empty() || Trimmed(expr).empty()) {
      sqlite3_result_null(AContext);
      return;
    }
    pugi::xml_document document;
    const unsigned options = pugi::parse_minimal | pugi::parse_escapes | pugi::parse_cdata;
    if (document.load_buffer(xml.data(), xml.size(), options, pugi::encoding_utf8)) {
      const pugi::xml_node root = document.document_element();
      found = kind == 0 ? FindXmlNamedValue(root, Trimmed(expr), value) : FindXmlPath(root, expr, value);
    }
  } else if (kind == 1) {
    found = FindDescrParam(ArgText(AArgs[3]), expr, value);
  } else if (kind == 2) {
    const TStoreRegex* regex = ArgPattern(AContext, 4, expr, kRegexOptions);
    if (!regex) return;
    const std::string_view descr = ArgText(AArgs[3]);
    TStoreState& state = State(AContext);
    const int rc = state.Match(*regex, descr);
    if (rc >= 0) {
      const PCRE2_SIZE* vector = state.Ovector();
      uint32_t groups = 0;
      pcre2_pattern_info(regex->Code, PCRE2_INFO_CAPTURECOUNT, &groups);
      const size_t group = groups > 0 ? 1 : 0;
      // rc == 0: more groups than the match data keeps; groups 0 and 1 are still set.
      if ((rc == 0 || static_cast<size_t>(rc) > group) && vector[2 * group] != PCRE2_UNSET &&
          vector[2 * group] <= vector[2 * group + 1] && vector[2 * group + 1] <= descr.size()) {
        value.assign(descr.substr(vector[2 * group], vector[2 * group + 1] - vector[2 * group]));
        found = true;
      }
    }
  }
  if (!found) {
    sqlite3_result_null(AContext);
    return;
  }
  ResultValue(AContext, value, format);
}

void DeleteState(void* APointer) {
  delete static_cast<TStoreStatePtr*>(APointer);
}

} // namespace

// --- the pure functions -------------------------------------------------------------

int64_t MyInStr(std::string_view AText, std::string_view APart, bool ACaseSensitive) {
  if (APart.empty()) return 0;
  if (ACaseSensitive) {
    const size_t at = AText.find(APart);
    return at == std::string_view::npos ? 0 : static_cast<int64_t>(Utf16Length(AText.substr(0, at))) + 1;
  }
  TFoldBuffers& buffers = FoldBuffers();
  UpperInto(AText, buffers.A);
  UpperInto(APart, buffers.B);
  const size_t at = buffers.A.find(buffers.B);
  // The table keeps UTF-16 lengths, so units of the upper-cased prefix are units of the text.
  return at == std::string::npos ? 0 : static_cast<int64_t>(Utf16Length(std::string_view(buffers.A).substr(0, at))) + 1;
}

bool MySameStr(std::string_view AText, std::string_view AValue, bool ACaseSensitive) {
  const std::string_view text = Trimmed(AText), value = Trimmed(AValue);
  if (ACaseSensitive) return text == value;
  return SameIgnoringCase(text, value);
}

bool MyInList(std::string_view AText, std::string_view AList, bool ACaseSensitive) {
  const std::string_view text = Trimmed(AText);
  std::string item;
  auto check = [&]() {
    const std::string_view view = Trimmed(item);
    return ACaseSensitive ? view == text : SameIgnoringCase(view, text);
  };
  bool quoted = false;
  for (size_t i = 0; i < AList.size(); ++i) {
    const char c = AList[i];
    if (quoted) {
      if (c != '\'')
        item.push_back(c);
      else if (i + 1 < AList.size() && AList[i + 1] == '\'') {
        item.push_back('\'');
        ++i;
      } else
        quoted = false;
    } else if (c == '\'') {
      quoted = true;
    } else if (c == ',') {
      if (check()) return true;
      item.clear();
    } else {
      item.push_back(c);
    }
  }
  return check();
}

int MyCompareStr(std::string_view AText, std::string_view AValue, bool ACaseSensitive) {
  const std::string_view text = Trimmed(AText), value = Trimmed(AValue);
  if (ACaseSensitive) return Sign(text.compare(value));
  TFoldBuffers& buffers = FoldBuffers();
  UpperInto(text, buffers.A);
  UpperInto(value, buffers.B);
  return Sign(buffers.A.compare(buffers.B));
}

bool FindDescrParam(std::string_view ADescr, std::string_view AName, std::string& AValue) {
  const std::string_view name = Trimmed(AName);
  if (name.empty()) return false;
  const size_t separator = name.find_first_of("\\/");
  std::string_view section, label = name;
  if (separator != std::string_view::npos) {
    section = Trimmed(name.substr(0, separator));
    label = Trimmed(name.substr(separator + 1));
  }
  for (const char form : {':', '='}) {
    if (!section.empty() && !label.empty() && FindParamWith(ADescr, section, label, form, AValue))
      return true;
    if (FindParamWith(ADescr, {}, name, form, AValue)) return true;
  }
  return false;
}

bool CompareDescrWithCond(std::string_view ADescr, std::string_view AName, int32_t AOper,
                          std::string_view AValue, bool ACaseSensitive) {
  auto regexMatch = [&](std::string_view AParam) {
    TStoreState state;
    TStoreRegex regex(AValue, kRegexOptions | (ACaseSensitive ? 0u : static_cast<uint32_t>(PCRE2_CASELESS)));
    if (!regex.Code) return -1;
    return state.Matches(regex, AParam) ? 1 : 0;
  };
  return CompareParam(ADescr, AName, AOper, AValue, ACaseSensitive, regexMatch) == 1;
}

uint64_t RegExpCompileCount() {
  return GCompileCount.load(std::memory_order_relaxed);
}

int RegisterStoreFunctions(sqlite3* ADb) {
  struct TFunction {
    const char* Name;
    int Args;
    void (*Call)(sqlite3_context*, int, sqlite3_value**);
  };
  static constexpr TFunction functions[] = {
      {"RegExp", 2, SqlRegExp},
      {"MyInStr", 3, SqlMyInStr},
      {"MySameStr", 3, SqlMySameStr},
      {"MyInList", 3, SqlMyInList},
      {"MyCompareStr", 3, SqlMyCompareStr},
      {"CompareDescrWithCond", 5, SqlCompareDescrWithCond},
      {"CompareDescrWithCond", 6, SqlCompareParamWithCond},
      {"CalculateCustomField", 7, SqlCalculateCustomField},
  };
  const auto state = std::make_shared<TStoreState>();
  for (const TFunction& function : functions) {
    // Every function holds the connection's state; the last one dropped frees it.
    auto* user = new TStoreStatePtr(state);
    const int rc =
        sqlite3_create_function_v2(ADb, function.Name, function.Args, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                   user, function.Call, nullptr, nullptr, DeleteState);
    // sqlite3_create_function_v2 calls the destructor itself when it fails.
    if (rc != SQLITE_OK) return rc;
  }
  return SQLITE_OK;
}

} // namespace qvx
