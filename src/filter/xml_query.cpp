// Building and reading XML queries; see xml_query.h for what each side promises.
//
// Reading a filter goes in three steps. The recognised conditions (the ones the builder
// writes, with any spacing) are found with PCRE2 patterns and masked out of the text, in
// an order that keeps one shape from being read as part of another. What is left must be
// the masks joined by "and", "or" and parentheses; a small descent parser checks that it
// is, and that the combination is one the criteria can express.
#include "filter/xml_query.h"

#include "filter/pcre2_pattern.h"

#include <pugixml.hpp>

#include <algorithm>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>

namespace qvx {

namespace {

constexpr std::string_view FileUrlTemplate = "file://{FILENAME}";
constexpr std::string_view FileUrlPrefix = "file://";
constexpr uint64_t MilisecondsPerMinute = 60'000;

constexpr TEventKeyword AllKeywords[] = {kwdAuditFailure,    kwdAuditSuccess, kwdCorrelationHint,
                                         kwdEventLogClassic, kwdResponseTime, kwdSqm,
                                         kwdWdiContext,      kwdWdiDiagnostic};

bool IsBlank(char AChar) {
  return AChar == ' ' || AChar == '\t' || AChar == '\r' || AChar == '\n';
}

std::string_view Trim(std::string_view AText) {
  while (!AText.empty() && IsBlank(AText.front()))
    AText.remove_prefix(1);
  while (!AText.empty() && IsBlank(AText.back()))
    AText.remove_suffix(1);
  return AText;
}

bool StartsWithNoCase(std::string_view AText, std::string_view APrefix) {
  if (AText.size() < APrefix.size()) return false;
  for (size_t I = 0; I < APrefix.size(); ++I) {
    char C = AText[I];
    if (C >= 'A' && C <= 'Z') C = static_cast<char>(C - 'A' + 'a');
    if (C != APrefix[I]) return false;
  }
  return true;
}

// Decimal digits only, no sign; false when empty, not a number or above AMax.
bool ReadDecimal(std::string_view AText, uint64_t AMax, uint64_t& AValue) {
  if (AText.empty()) return false;
  uint64_t Value = 0;
  for (char C : AText) {
    if (C < '0' || C > '9') return false;
    const uint64_t Digit = static_cast<uint64_t>(C - '0');
    if (Value > AMax / 10 || Digit > AMax - Value * 10) return false;
    Value = Value * 10 + Digit;
  }
  AValue = Value;
  return true;
}

uint32_t ReadIdNumber(std::string_view AText) {
  uint64_t Value = 0;
  return ReadDecimal(Trim(AText), std::numeric_limits<uint32_t>::max(), Value) ? static_cast<uint32_t>(Value)
                                                                               : 0;
}

void JoinTo(std::string& AOut, const std::vector<std::string>& AParts, std::string_view ASeparator) {
  for (size_t I = 0; I < AParts.size(); ++I) {
    if (I > 0) AOut.append(ASeparator);
    AOut.append(AParts[I]);
  }
}

// A disjunction at the condition's own level is wrapped so that "and" cannot bind into it.
std::string OrGroup(const std::vector<std::string>& AParts, bool AWrap) {
  std::string Result;
  if (AWrap) Result.append("(");
  JoinTo(Result, AParts, " or ");
  if (AWrap) Result.append(")");
  return Result;
}

// A provider name as an XPath string literal. XPath has no escapes inside a literal: a
// name with an apostrophe goes in double quotes, and one with both kinds of quote
// cannot be written at all.
std::string XPathLiteral(const std::string& AText) {
  const char quote = AText.find('\'') == std::string::npos ? '\'' : '"';
  if (quote == '"' && AText.find('"') != std::string::npos)
    throw std::invalid_argument("the source name " + AText +
                                " holds both kinds of quote, which an event log query cannot hold");
  return quote + AText + quote;
}

std::string BuildFilter(const TXMLQueryBuilder& ABuilder) {
  std::vector<std::string> Conditions;

  std::vector<std::string> Levels;
  if (ABuilder.LevelCritical) Levels.emplace_back("Level = 1");
  if (ABuilder.LevelError) Levels.emplace_back("Level = 2");
  if (ABuilder.LevelWarning) Levels.emplace_back("Level = 3");
  if (ABuilder.LevelInformation)
    Levels.emplace_back("Level = 4 or Level = 0"); // events of classic providers carry level 0
  if (ABuilder.LevelVerbose) Levels.emplace_back("Level = 5");
  if (!Levels.empty()) Conditions.push_back(OrGroup(Levels, Levels.size() > 1 || ABuilder.LevelInformation));

  const TEventIdExpression Ids = ParseEventIdExpression(ABuilder.Events);
  if (!Ids.Included.empty()) {
    std::vector<std::string> Parts;
    for (const TEventIdItem& Item : Ids.Included) {
      std::string Part;
      if (Item.IsRange)
        Part.append("(EventID >= ")
            .append(std::to_string(Item.First))
            .append(" and EventID <= ")
            .append(std::to_string(Item.Last))
            .append(")");
      else
        Part.append("EventID = ").append(std::to_string(Item.First));
      Parts.push_back(std::move(Part));
    }
    Conditions.push_back(OrGroup(Parts, Parts.size() > 1));
  }
  if (!Ids.Excluded.empty()) {
    std::string Group;
    for (const TEventIdItem& Item : Ids.Excluded) {
      if (!Group.empty()) Group.append(" and ");
      if (Item.IsRange)
        Group.append("(EventID < ")
            .append(std::to_string(Item.First))
            .append(" or EventID > ")
            .append(std::to_string(Item.Last))
            .append(")");
      else
        Group.append("EventID != ").append(std::to_string(Item.First));
    }
    Conditions.push_back(std::move(Group));
  }

  if (!ABuilder.Sources.empty()) {
    std::string Group("Provider[");
    for (size_t I = 0; I < ABuilder.Sources.size(); ++I)
      Group.append(I > 0 ? " or " : "").append("@Name=").append(XPathLiteral(ABuilder.Sources[I]));
    Conditions.push_back(Group.append("]"));
  }
  if (!ABuilder.SourcesExcl.empty()) {
    std::string Group("Provider[");
    for (size_t I = 0; I < ABuilder.SourcesExcl.size(); ++I)
      Group.append(I > 0 ? " and " : "").append("@Name!=").append(XPathLiteral(ABuilder.SourcesExcl[I]));
    Conditions.push_back(Group.append("]"));
  }

  uint64_t Mask = 0;
  const std::pair<bool, TEventKeyword> Flags[] = {{ABuilder.KeywordsAuditFailure, kwdAuditFailure},
                                                  {ABuilder.KeywordsAuditSuccess, kwdAuditSuccess},
                                                  {ABuilder.KeywordsCorrelationHint2, kwdCorrelationHint},
                                                  {ABuilder.KeywordsEventLogClassic, kwdEventLogClassic},
                                                  {ABuilder.KeywordsResponseTime, kwdResponseTime},
                                                  {ABuilder.KeywordsSqm, kwdSqm},
                                                  {ABuilder.KeywordsWdiContext, kwdWdiContext},
                                                  {ABuilder.KeywordsWdiDiagnostic, kwdWdiDiagnostic}};
  for (const auto& [Set, Keyword] : Flags)
    if (Set) Mask |= EventKeywordValue(Keyword);
  if (Mask != 0) {
    std::string Condition("band(Keywords,");
    Conditions.push_back(Condition.append(std::to_string(Mask)).append(")"));
  }

  if (ABuilder.LastMiliseconds > 0) {
    std::string Condition("TimeCreated[timediff(@SystemTime) <= ");
    Conditions.push_back(Condition.append(std::to_string(ABuilder.LastMiliseconds)).append("]"));
  }

  if (Conditions.empty()) return "*";
  std::string Filter("*[System[");
  JoinTo(Filter, Conditions, " and ");
  return Filter.append("]]");
}

struct TStringWriter : pugi::xml_writer {
  std::string Text;
  void write(const void* AData, size_t ASize) override {
    Text.append(static_cast<const char*>(AData), ASize);
  }
};

// ---- Reading ------------------------------------------------------------------------

// The criteria of one Select, compared between Selects.
struct TSelectCriteria {
  TEventLevelSet Levels;
  TEventKeywordSet Keywords;
  std::vector<std::string> Providers;
  std::vector<std::string> ProvidersExcl;
  std::string EventIds;
  int32_t LastMinutes = 0;
  bool operator==(const TSelectCriteria&) const = default;
};

enum TFilterResult { frParsed, frInvalid, frInaccurate };

// Shapes in the order they are looked for: quoted names first, so that nothing inside a
// provider name is read as a condition; an excluded range before a range and ranges
// before single IDs, so their pieces are not read as single comparisons.
enum TShapeKind {
  skProviders,
  skProvidersExcl,
  skPeriod,
  skKeywords,
  skExcludedRange,
  skRange,
  skExcludedId,
  skId,
  skLevel,
  skShapeCount
};

struct TShapePatterns {
  TPcre2Pattern Form{R"(^\s*\*\s*\[\s*System\s*\[(.*)\]\s*\]\s*$)", PCRE2_DOTALL};
  TPcre2Pattern Shapes[skShapeCount] = {
      TPcre2Pattern(R"(\bProvider\s*\[\s*@Name\s*=\s*'[^']*'(?:\s*or\s*@Name\s*=\s*'[^']*')*\s*\])"),
      TPcre2Pattern(R"(\bProvider\s*\[\s*@Name\s*!=\s*'[^']*'(?:\s*and\s*@Name\s*!=\s*'[^']*')*\s*\])"),
      TPcre2Pattern(R"(\bTimeCreated\s*\[\s*timediff\s*\(\s*@SystemTime\s*\)\s*<=?\s*(\d*)\s*\])"),
      TPcre2Pattern(R"(\bband\s*\(\s*Keywords\s*\,\s*(\d+)\s*\))"),
      TPcre2Pattern(R"(\bEventID\s*<\s*(\d+)\s+or\s+EventID\s*>\s*(\d+))"),
      TPcre2Pattern(R"(\bEventID\s*(>=?)\s*(\d+)\s+and\s+EventID\s*(<=?)\s*(\d+))"),
      TPcre2Pattern(R"(\bEventID\s*!=\s*(\d+))"),
      TPcre2Pattern(R"(\bEventID\s*=\s*(\d+))"),
      TPcre2Pattern(R"(\bLevel\s*=\s*(\d+))"),
  };
  TPcre2Pattern IncludedName{R"(@Name\s*=\s*'([^']*)')"};
  TPcre2Pattern ExcludedName{R"(@Name\s*!=\s*'([^']*)')"};
};

const TShapePatterns& Patterns() {
  static const TShapePatterns Instance;
  return Instance;
}

// Marks in the masked text: a shape's first character becomes ShapeMark, the rest ShapeFill.
constexpr char ShapeMark = '\x01';
constexpr char ShapeFill = '\x02';
constexpr int MaxNesting = 64;

enum TTokenKind { tkShape, tkOpen, tkClose, tkAnd, tkOr };
struct TToken {
  TTokenKind Kind;
  TShapeKind Shape = skShapeCount;
};

struct TNode {
  enum TNodeKind { nkShape, nkAnd, nkOr } Kind = nkShape;
  TShapeKind Shape = skShapeCount;
  std::vector<TNode> Children;
};

class TStructureParser {
public:
  explicit TStructureParser(const std::vector<TToken>& ATokens) : FTokens(ATokens) {}

  bool Parse(TNode& ARoot) { return Expression(ARoot, 0) && FPosition == FTokens.size(); }

private:
  const std::vector<TToken>& FTokens;
  size_t FPosition = 0;

  bool Peek(TTokenKind AKind) const { return FPosition < FTokens.size() && FTokens[FPosition].Kind == AKind; }

  bool Expression(TNode& ANode, int ADepth) {
    TNode First;
    if (!Term(First, ADepth)) return false;
    if (!Peek(tkAnd)) {
      ANode = std::move(First);
      return true;
    }
    ANode = TNode{TNode::nkAnd, skShapeCount, {}};
    ANode.Children.push_back(std::move(First));
    while (Peek(tkAnd)) {
      ++FPosition;
      TNode Next;
      if (!Term(Next, ADepth)) return false;
      ANode.Children.push_back(std::move(Next));
    }
    return true;
  }

  bool Term(TNode& ANode, int ADepth) {
    TNode First;
    if (!Factor(First, ADepth)) return false;
    if (!Peek(tkOr)) {
      ANode = std::move(First);
      return true;
    }
    ANode = TNode{TNode::nkOr, skShapeCount, {}};
    ANode.Children.push_back(std::move(First));
    while (Peek(tkOr)) {
      ++FPosition;
      TNode Next;
      if (!Factor(Next, ADepth)) return false;
      ANode.Children.push_back(std::move(Next));
    }
    return true;
  }

  bool Factor(TNode& ANode, int ADepth) {
    if (Peek(tkShape)) {
      ANode = TNode{TNode::nkShape, FTokens[FPosition].Shape, {}};
      ++FPosition;
      return true;
    }
    if (!Peek(tkOpen) || ADepth >= MaxNesting) return false;
    ++FPosition;
    if (!Expression(ANode, ADepth + 1) || !Peek(tkClose)) return false;
    ++FPosition;
    return true;
  }
};

void CollectLeaves(const TNode& ANode, TNode::TNodeKind AKind, std::vector<const TNode*>& AOut) {
  if (ANode.Kind == AKind)
    for (const TNode& Child : ANode.Children)
      CollectLeaves(Child, AKind, AOut);
  else
    AOut.push_back(&ANode);
}

bool IsIncludedId(TShapeKind AShape) {
  return AShape == skId || AShape == skRange;
}

// The criteria say: one level group (levels or-ed), one group of included IDs (or-ed),
// any number of exclusions, one test each of providers, keywords and period, all and-ed.
bool StructureFitsCriteria(const TNode& ARoot) {
  std::vector<const TNode*> Conjuncts;
  CollectLeaves(ARoot, TNode::nkAnd, Conjuncts);
  int Count[skShapeCount] = {};
  for (const TNode* Conjunct : Conjuncts) {
    if (Conjunct->Kind == TNode::nkShape) {
      ++Count[IsIncludedId(Conjunct->Shape) ? skId : Conjunct->Shape];
      continue;
    }
    std::vector<const TNode*> Alternatives;
    CollectLeaves(*Conjunct, TNode::nkOr, Alternatives);
    bool AllLevels = true;
    bool AllIds = true;
    for (const TNode* Alternative : Alternatives) {
      if (Alternative->Kind != TNode::nkShape) return false;
      AllLevels = AllLevels && Alternative->Shape == skLevel;
      AllIds = AllIds && IsIncludedId(Alternative->Shape);
    }
    if (!AllLevels && !AllIds) return false;
    ++Count[AllLevels ? skLevel : skId];
  }
  for (TShapeKind Shape : {skProviders, skProvidersExcl, skPeriod, skKeywords, skId, skLevel})
    if (Count[Shape] > 1) return false;
  return true;
}

class TFilterReader {
public:
  TFilterReader(TSelectCriteria& ACriteria, std::string& AProblem)
      : FCriteria(ACriteria), FProblem(AProblem) {}

  TFilterResult Read(std::string_view AFilter) {
    const std::string_view Text = Trim(AFilter);
    if (Text == "*") return frParsed;
    TPcre2Match Form;
    const TPcre2Result FormRc = Patterns().Form.Match(Text, 0, Form);
    if (FormRc == prError) return Inaccurate("Filter too complex");
    if (FormRc != prMatch || Trim(Form.Text(Text, 1)).empty()) return frInvalid;
    FMasked.assign(Form.Text(Text, 1));
    const std::string Inner = FMasked;

    for (int Shape = 0; Shape < skShapeCount; ++Shape) {
      const TPcre2Result Rc = Patterns().Shapes[Shape].MatchAll(FMasked, [&](const TPcre2Match& AMatch) {
        ReadShape(static_cast<TShapeKind>(Shape), Inner, AMatch);
        FShapes.emplace(AMatch.Start(), static_cast<TShapeKind>(Shape));
        FMasked[AMatch.Start()] = ShapeMark;
        std::fill(FMasked.begin() + static_cast<std::ptrdiff_t>(AMatch.Start()) + 1,
                  FMasked.begin() + static_cast<std::ptrdiff_t>(AMatch.End()), ShapeFill);
      });
      if (Rc == prError) Inaccurate("Filter too complex");
    }
    StoreEventIds();

    std::vector<TToken> Tokens;
    if (!Tokenize(Tokens)) return frInaccurate;
    for (size_t I = 0; I < Tokens.size(); ++I)
      // "EventID < a or EventID > b" only means an excluded range inside its own parentheses.
      if (Tokens[I].Kind == tkShape && Tokens[I].Shape == skExcludedRange && Tokens.size() > 1 &&
          !(I > 0 && Tokens[I - 1].Kind == tkOpen && I + 1 < Tokens.size() && Tokens[I + 1].Kind == tkClose))
        return Inaccurate("Excluded event ID range without parentheses");
    TNode Root;
    if (!TStructureParser(Tokens).Parse(Root)) return Inaccurate("Unsupported filter structure");
    if (!StructureFitsCriteria(Root)) return Inaccurate("Conditions combined in an unsupported way");
    return FInaccurate ? frInaccurate : frParsed;
  }

private:
  TSelectCriteria& FCriteria;
  std::string& FProblem;
  bool FInaccurate = false;
  std::string FMasked;
  std::map<size_t, TShapeKind> FShapes; // masked shapes by offset
  std::vector<std::pair<size_t, TEventIdItem>> FIncluded;
  std::vector<std::pair<size_t, TEventIdItem>> FExcluded;

  TFilterResult Inaccurate(std::string_view AWhy) {
    if (!FInaccurate) FProblem.assign(AWhy);
    FInaccurate = true;
    return frInaccurate;
  }

  bool ReadId(std::string_view ADigits, uint32_t& AValue) {
    uint64_t Value = 0;
    if (!ReadDecimal(ADigits, std::numeric_limits<uint32_t>::max(), Value)) {
      Inaccurate("Event ID out of range");
      return false;
    }
    AValue = static_cast<uint32_t>(Value);
    return true;
  }

  void ReadShape(TShapeKind AShape, std::string_view AText, const TPcre2Match& AMatch) {
    const size_t At = AMatch.Start();
    switch (AShape) {
    case skProviders:
    case skProvidersExcl: {
      const bool Excluded = AShape == skProvidersExcl;
      const TPcre2Pattern& Name = Excluded ? Patterns().ExcludedName : Patterns().IncludedName;
      std::vector<std::string>& Names = Excluded ? FCriteria.ProvidersExcl : FCriteria.Providers;
      const std::string_view Span = AMatch.Text(AText);
      if (Name.MatchAll(Span, [&](const TPcre2Match& AName) { Names.emplace_back(AName.Text(Span, 1)); }) ==
          prError)
        Inaccurate("Filter too complex");
      break;
    }
    case skPeriod: {
      uint64_t Miliseconds = 0;
      if (!ReadDecimal(AMatch.Text(AText, 1), std::numeric_limits<int64_t>::max(), Miliseconds) ||
          Miliseconds == 0) {
        Inaccurate("Invalid period");
        if (!AMatch.Text(AText, 1).empty()) FCriteria.LastMinutes = std::numeric_limits<int32_t>::max();
        break;
      }
      uint64_t Minutes = Miliseconds / MilisecondsPerMinute;
      if (Miliseconds % MilisecondsPerMinute != 0) {
        ++Minutes; // rounded up, so that no event the query selects is left out
        Inaccurate("Period is not a whole number of minutes");
      }
      if (Minutes > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
        Minutes = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
        Inaccurate("Period too long");
      }
      FCriteria.LastMinutes = static_cast<int32_t>(Minutes);
      break;
    }
    case skKeywords: {
      uint64_t Mask = 0;
      if (!ReadDecimal(AMatch.Text(AText, 1), std::numeric_limits<uint64_t>::max(), Mask)) {
        Inaccurate("Keyword mask out of range");
        break;
      }
      for (TEventKeyword Keyword : AllKeywords)
        if (Mask & EventKeywordValue(Keyword)) {
          FCriteria.Keywords.insert(Keyword);
          Mask &= ~EventKeywordValue(Keyword);
        }
      if (Mask != 0 || FCriteria.Keywords.empty()) Inaccurate("Unknown keywords");
      break;
    }
    case skExcludedRange: {
      TEventIdItem Item{0, 0, true};
      if (ReadId(AMatch.Text(AText, 1), Item.First) && ReadId(AMatch.Text(AText, 2), Item.Last))
        FExcluded.emplace_back(At, Item);
      break;
    }
    case skRange: {
      TEventIdItem Item{0, 0, true};
      if (!ReadId(AMatch.Text(AText, 2), Item.First) || !ReadId(AMatch.Text(AText, 4), Item.Last)) break;
      // Strict bounds: "EventID > 5 and EventID < 9" is the range 6-8.
      if (AMatch.Text(AText, 1) == ">") {
        if (Item.First == std::numeric_limits<uint32_t>::max()) {
          Inaccurate("Event ID out of range");
          break;
        }
        ++Item.First;
      }
      if (AMatch.Text(AText, 3) == "<") {
        if (Item.Last == 0) {
          Inaccurate("Event ID out of range");
          break;
        }
        --Item.Last;
      }
      FIncluded.emplace_back(At, Item);
      break;
    }
    case skExcludedId:
    case skId: {
      TEventIdItem Item;
      if (!ReadId(AMatch.Text(AText, 1), Item.First)) break;
      Item.Last = Item.First;
      (AShape == skId ? FIncluded : FExcluded).emplace_back(At, Item);
      break;
    }
    case skLevel: {
      uint64_t Level = 0;
      if (!ReadDecimal(AMatch.Text(AText, 1), 5, Level)) {
        Inaccurate("Unknown level");
        break;
      }
      static constexpr TEventLevel ByNumber[] = {elInformation, elCritical,    elError,
                                                 elWarning,     elInformation, elVerbose};
      FCriteria.Levels.insert(ByNumber[Level]);
      break;
    }
    case skShapeCount:
      break;
    }
  }

  void StoreEventIds() {
    TEventIdExpression Expression;
    auto Sorted = [](std::vector<std::pair<size_t, TEventIdItem>>& AItems, std::vector<TEventIdItem>& AOut) {
      std::sort(AItems.begin(), AItems.end(), [](const auto& A, const auto& B) { return A.first < B.first; });
      for (const auto& Item : AItems)
        AOut.push_back(Item.second);
    };
    Sorted(FIncluded, Expression.Included);
    Sorted(FExcluded, Expression.Excluded);
    FCriteria.EventIds = FormatEventIdExpression(Expression);
  }

  static bool IsWordChar(char AChar) {
    return (AChar >= 'a' && AChar <= 'z') || (AChar >= 'A' && AChar <= 'Z') ||
           (AChar >= '0' && AChar <= '9') || AChar == '_' || AChar == '@' || AChar == '-' || AChar == '.' ||
           AChar == ':';
  }

  bool IsWordAt(size_t APosition, std::string_view AWord) const {
    return FMasked.compare(APosition, AWord.size(), AWord) == 0 &&
           (APosition + AWord.size() == FMasked.size() || !IsWordChar(FMasked[APosition + AWord.size()]));
  }

  // Splits the masked text into shapes, parentheses, "and" and "or"; false (inaccurate)
  // when anything else is left.
  bool Tokenize(std::vector<TToken>& ATokens) {
    size_t I = 0;
    while (I < FMasked.size()) {
      const char C = FMasked[I];
      if (IsBlank(C)) {
        ++I;
      } else if (C == ShapeMark && FShapes.count(I)) {
        ATokens.push_back({tkShape, FShapes[I]});
        ++I;
        while (I < FMasked.size() && FMasked[I] == ShapeFill)
          ++I;
      } else if (C == '(' || C == ')') {
        ATokens.push_back({C == '(' ? tkOpen : tkClose});
        ++I;
      } else if (IsWordAt(I, "and")) {
        ATokens.push_back({tkAnd});
        I += 3;
      } else if (IsWordAt(I, "or")) {
        ATokens.push_back({tkOr});
        I += 2;
      } else {
        std::string Why("Unsupported condition: ");
        size_t End = I;
        while (End < FMasked.size() && End - I < 60 && FMasked[End] != ShapeMark && FMasked[End] != ShapeFill)
          ++End;
        Inaccurate(Why.append(Trim(std::string_view(FMasked).substr(I, End - I))));
        return false;
      }
    }
    return true;
  }
};

std::string SelectText(const pugi::xml_node& ASelect, bool& AHasElements) {
  std::string Text;
  for (pugi::xml_node Child : ASelect.children()) {
    if (Child.type() == pugi::node_pcdata || Child.type() == pugi::node_cdata)
      Text.append(Child.value());
    else if (Child.type() == pugi::node_element)
      AHasElements = true;
  }
  return Text;
}

} // namespace

uint64_t EventKeywordValue(TEventKeyword AKeyword) {
  switch (AKeyword) {
  case kwdResponseTime:
    return uint64_t(1) << 48;
  case kwdWdiContext:
    return uint64_t(1) << 49;
  case kwdWdiDiagnostic:
    return uint64_t(1) << 50;
  case kwdSqm:
    return uint64_t(1) << 51;
  case kwdAuditFailure:
    return uint64_t(1) << 52;
  case kwdAuditSuccess:
    return uint64_t(1) << 53;
  case kwdCorrelationHint:
    return uint64_t(1) << 54;
  case kwdEventLogClassic:
    return uint64_t(1) << 55;
  }
  return 0;
}

TEventIdExpression ParseEventIdExpression(std::string_view AText) {
  TEventIdExpression Result;
  const size_t Bang = AText.find('!');
  const std::string_view Parts[] = {
      AText.substr(0, Bang), Bang == std::string_view::npos ? std::string_view() : AText.substr(Bang + 1)};
  for (int Part = 0; Part < 2; ++Part) {
    std::string_view Rest = Parts[Part];
    while (!Rest.empty()) {
      const size_t Comma = Rest.find(',');
      const std::string_view Item = Trim(Rest.substr(0, Comma));
      Rest = Comma == std::string_view::npos ? std::string_view() : Rest.substr(Comma + 1);
      if (Item.empty()) continue;
      TEventIdItem Id;
      const size_t Hyphen = Item.find('-');
      if (Hyphen != std::string_view::npos) {
        Id.IsRange = true;
        Id.First = ReadIdNumber(Item.substr(0, Hyphen));
        Id.Last = ReadIdNumber(Item.substr(Hyphen + 1));
      } else {
        Id.First = Id.Last = ReadIdNumber(Item);
      }
      (Part == 0 ? Result.Included : Result.Excluded).push_back(Id);
    }
  }
  return Result;
}

std::string FormatEventIdExpression(const TEventIdExpression& AExpression) {
  std::string Result;
  auto Append = [&Result](const std::vector<TEventIdItem>& AItems) {
    for (size_t I = 0; I < AItems.size(); ++I) {
      if (I > 0) Result.append(",");
      Result.append(std::to_string(AItems[I].First));
      if (AItems[I].IsRange) Result.append("-").append(std::to_string(AItems[I].Last));
    }
  };
  Append(AExpression.Included);
  if (!AExpression.Excluded.empty()) {
    Result.append("!");
    Append(AExpression.Excluded);
  }
  return Result;
}

std::vector<std::string> TXMLQueryBuilder::AssignFilter(const TEventFilter& AFilter) {
  std::vector<std::string> notes;
  const int levels = AFilter.EVT_VERBOSE + AFilter.EVT_INFORMATION + AFilter.EVT_WARNING + AFilter.EVT_ERROR +
                     AFilter.EVT_CRITICAL;
  const int audits = AFilter.EVT_AUDIT_SUCCESS + AFilter.EVT_AUDIT_FAILURE;
  if (levels + audits != 7 && levels + audits != 0) {
    if (levels != 5) {
      LevelVerbose = AFilter.EVT_VERBOSE;
      LevelInformation = AFilter.EVT_INFORMATION;
      LevelWarning = AFilter.EVT_WARNING;
      LevelError = AFilter.EVT_ERROR;
      LevelCritical = AFilter.EVT_CRITICAL;
    }
    if (audits != 2) {
      KeywordsAuditSuccess = AFilter.EVT_AUDIT_SUCCESS;
      KeywordsAuditFailure = AFilter.EVT_AUDIT_FAILURE;
    }
    if (levels > 0 && audits > 0 && (levels != 5 || audits != 2))
      notes.emplace_back("the query requires both the levels and the audit keywords; the filter takes either");
  }
  Events = AFilter.IDsExcept ? "" : AFilter.IDs;
  if (AFilter.IDsExcept && !AFilter.IDs.empty())
    notes.push_back("left out: the event IDs to leave out as a whole (" + AFilter.IDs + ")");
  (AFilter.SourcesExclude ? SourcesExcl : Sources) = AFilter.Sources;
  const int64_t hours = static_cast<int64_t>(AFilter.LastDays) * 24 + AFilter.LastHours;
  if (hours > 0 && !AFilter.LastHoursExclude) LastMiliseconds = hours * 3600 * 1000;
  std::string lost;
  auto add = [&](const char* AWhat) { lost.append(lost.empty() ? "" : ", ").append(AWhat); };
  if (!AFilter.Categories.empty()) add("categories");
  if (!AFilter.Users.empty()) add("users");
  if (!AFilter.Computers.empty()) add("computers");
  if (!AFilter.DescrText.empty()) add("description text");
  if (AFilter.ByDate || AFilter.ByTime) add("date and time range");
  if (AFilter.LastHoursExclude && hours > 0) add("period to leave out");
  if (!AFilter.DescrFilter.empty() || !AFilter.CustomColFilter.empty()) add("conditions on columns");
  if (AFilter.MinDetectionLevel != dlNone) add("detection level");
  if (!lost.empty()) notes.push_back("left out (a query cannot say them): " + lost);
  return notes;
}

std::string TXMLQueryBuilder::BuildXML() const {
  const std::string Filter = BuildFilter(*this);
  std::vector<std::string> Paths(LogNames.begin(), LogNames.end());
  for (const std::string& File : EventLogFiles) {
    std::string Url(FileUrlTemplate);
    Url.replace(Url.find("{FILENAME}"), std::string_view("{FILENAME}").size(), File);
    Paths.push_back(std::move(Url));
  }

  pugi::xml_document Document;
  pugi::xml_node List = Document.append_child("QueryList");
  for (size_t I = 0; I < Paths.size(); ++I) {
    pugi::xml_node Query = List.append_child("Query");
    Query.append_attribute("Id").set_value(std::to_string(I).c_str());
    pugi::xml_node Select = Query.append_child("Select");
    Select.append_attribute("Path").set_value(Paths[I].c_str());
    Select.text().set(Filter.c_str());
  }
  TStringWriter Writer;
  Document.save(Writer, "  ",
                pugi::format_indent | pugi::format_no_declaration | pugi::format_no_empty_element_tags,
                pugi::encoding_utf8);
  return Writer.Text;
}

TQueryParseResult TXMLQueryParser::Parse(const std::string& AXMLQuery) {
  *this = TXMLQueryParser();
  auto Fail = [this](std::string AMessage) {
    *this = TXMLQueryParser();
    ParseErrorMessage = std::move(AMessage);
    return qprFailed;
  };
  if (Trim(AXMLQuery).empty()) return Fail("Empty XML");

  pugi::xml_document Document;
  const pugi::xml_parse_result Loaded =
      Document.load_buffer(AXMLQuery.data(), AXMLQuery.size(), pugi::parse_default, pugi::encoding_utf8);
  if (!Loaded) {
    std::string Message("Invalid XML: ");
    return Fail(
        Message.append(Loaded.description()).append(" at offset ").append(std::to_string(Loaded.offset)));
  }
  const pugi::xml_node List = Document.document_element();
  if (std::string_view(List.name()) != "QueryList") {
    std::string Message("Expected QueryList. Found ");
    return Fail(Message.append(List.name()));
  }

  bool Inaccurate = false;
  auto NoteInaccurate = [&](std::string_view AWhy) {
    if (!Inaccurate) ParseErrorMessage.assign(AWhy);
    Inaccurate = true;
  };
  bool HaveQuery = false;
  bool HaveCriteria = false;
  TSelectCriteria First;
  for (pugi::xml_node Query : List.children()) {
    if (Query.type() != pugi::node_element) continue;
    if (std::string_view(Query.name()) != "Query") {
      std::string Message("Expected Query. Found ");
      return Fail(Message.append(Query.name()));
    }
    HaveQuery = true;
    bool HaveSelect = false;
    for (pugi::xml_node Select : Query.children()) {
      if (Select.type() != pugi::node_element) continue;
      if (std::string_view(Select.name()) != "Select") {
        // Suppress and anything else have no counterpart in the criteria.
        NoteInaccurate(std::string("Unsupported element ").append(Select.name()));
        continue;
      }
      HaveSelect = true;
      pugi::xml_attribute PathAttribute = Select.attribute("Path");
      if (!PathAttribute) PathAttribute = Query.attribute("Path");
      std::string_view Path = Trim(PathAttribute.value());
      const bool IsFile = StartsWithNoCase(Path, FileUrlPrefix);
      if (IsFile) Path = Trim(Path.substr(FileUrlPrefix.size()));
      if (Path.empty()) return Fail("Invalid Path");
      bool Known = false;
      for (size_t I = 0; I < EventLogs.size() && !Known; ++I)
        Known = EventLogs[I] == Path && EventLogIsFile[I] == IsFile;
      if (!Known) {
        EventLogs.emplace_back(Path);
        EventLogIsFile.push_back(IsFile);
      }

      bool HasElements = false;
      const std::string Filter = SelectText(Select, HasElements);
      if (HasElements) NoteInaccurate("Unsupported element in Select");
      TSelectCriteria Criteria;
      std::string Problem;
      const TFilterResult Result = TFilterReader(Criteria, Problem).Read(Filter);
      if (Result == frInvalid) return Fail("Invalid XPath filter");
      if (Result == frInaccurate) NoteInaccurate(Problem);
      if (!HaveCriteria) {
        First = std::move(Criteria);
        HaveCriteria = true;
      } else if (!(Criteria == First)) {
        NoteInaccurate("Selects with different filters");
      }
    }
    if (!HaveSelect) return Fail("Node Select not found");
  }
  if (!HaveQuery) return Fail("Node Query not found");

  EventLevels = std::move(First.Levels);
  Keywords = std::move(First.Keywords);
  Providers = std::move(First.Providers);
  ProvidersExcl = std::move(First.ProvidersExcl);
  EventIds = std::move(First.EventIds);
  LastMinutes = First.LastMinutes;
  return Inaccurate ? qprInaccurate : qprParsed;
}

TXMLQueryBuilder TXMLQueryParser::ToBuilder() const {
  TXMLQueryBuilder Builder;
  for (size_t I = 0; I < EventLogs.size(); ++I)
    (I < EventLogIsFile.size() && EventLogIsFile[I] ? Builder.EventLogFiles : Builder.LogNames)
        .push_back(EventLogs[I]);
  Builder.LevelCritical = EventLevels.count(elCritical) > 0;
  Builder.LevelError = EventLevels.count(elError) > 0;
  Builder.LevelWarning = EventLevels.count(elWarning) > 0;
  Builder.LevelInformation = EventLevels.count(elInformation) > 0;
  Builder.LevelVerbose = EventLevels.count(elVerbose) > 0;
  Builder.KeywordsAuditFailure = Keywords.count(kwdAuditFailure) > 0;
  Builder.KeywordsAuditSuccess = Keywords.count(kwdAuditSuccess) > 0;
  Builder.KeywordsCorrelationHint2 = Keywords.count(kwdCorrelationHint) > 0;
  Builder.KeywordsEventLogClassic = Keywords.count(kwdEventLogClassic) > 0;
  Builder.KeywordsResponseTime = Keywords.count(kwdResponseTime) > 0;
  Builder.KeywordsSqm = Keywords.count(kwdSqm) > 0;
  Builder.KeywordsWdiContext = Keywords.count(kwdWdiContext) > 0;
  Builder.KeywordsWdiDiagnostic = Keywords.count(kwdWdiDiagnostic) > 0;
  Builder.LastMiliseconds = LastMinutes > 0 ? int64_t(LastMinutes) * int64_t(MilisecondsPerMinute) : 0;
  Builder.Events = EventIds;
  Builder.Sources = Providers;
  Builder.SourcesExcl = ProvidersExcl;
  return Builder;
}

bool TXMLQueryParser::SameCriteria(const TXMLQueryParser& AOther) const {
  // The builder writes live logs before files, so the order of the logs does not count.
  auto Logs = [](const TXMLQueryParser& AParser) {
    std::vector<std::pair<bool, std::string>> Result;
    for (size_t I = 0; I < AParser.EventLogs.size(); ++I)
      Result.emplace_back(I < AParser.EventLogIsFile.size() && AParser.EventLogIsFile[I],
                          AParser.EventLogs[I]);
    std::sort(Result.begin(), Result.end());
    return Result;
  };
  return Logs(*this) == Logs(AOther) && EventLevels == AOther.EventLevels && Keywords == AOther.Keywords &&
         Providers == AOther.Providers && ProvidersExcl == AOther.ProvidersExcl &&
         EventIds == AOther.EventIds && Computers == AOther.Computers &&
         ComputersExcl == AOther.ComputersExcl && LastMinutes == AOther.LastMinutes;
}

bool TXMLQueryParser::VerifyImported(std::string* ARebuiltXML) const {
  const std::string Rebuilt = ToBuilder().BuildXML();
  if (ARebuiltXML) *ARebuiltXML = Rebuilt;
  TXMLQueryParser Check;
  return Check.Parse(Rebuilt) == qprParsed && SameCriteria(Check);
}

} // namespace qvx
