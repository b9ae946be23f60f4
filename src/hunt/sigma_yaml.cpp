#include "hunt/sigma_yaml.h"

#include <cstdio>

#include <yaml-cpp/yaml.h>

#include <algorithm>

namespace qvx::hunt {

void RaiseSigmaError(const std::string& AFile, int ALine, const std::string& AText) {
  std::string message = AFile;
  if (ALine > 0) message.append(":").append(std::to_string(ALine));
  message.append(": ").append(AText);
  throw ESigmaError(message);
}

const TYamlNode* TYamlNode::Find(const std::string& AKey) const {
  if (Kind != ykMap) return nullptr;
  for (const auto& [key, value] : Entries)
    if (key == AKey) return &value;
  return nullptr;
}

std::string TYamlNode::TextOf(const std::string& AKey) const {
  const TYamlNode* node = Find(AKey);
  return node && node->IsScalar() ? node->Text : std::string();
}

namespace {

// yaml-cpp recurses once per nesting level while parsing; a hostile text nested
// thousands deep would use the stack up. The levels are counted here first, roughly
// (flow brackets outside quotes, block indentation steps and "- " runs), and the text
// is refused above the limit. Returns the line of the first level too deep, or 0.
int FindDeepNesting(const std::string& AText, int ALimit) {
  int line = 1;
  int flow = 0;
  std::vector<size_t> indents;
  size_t pos = 0;
  while (pos < AText.size()) {
    size_t end = AText.find('\n', pos);
    if (end == std::string::npos) end = AText.size();
    const std::string_view text(AText.data() + pos, end - pos);
    size_t indent = 0;
    while (indent < text.size() && (text[indent] == ' ' || text[indent] == '\t')) ++indent;
    // "- - - x" nests one level per dash
    size_t dashes = 0;
    size_t at = indent;
    while (at + 1 < text.size() && text[at] == '-' && text[at + 1] == ' ') {
      ++dashes;
      at += 2;
      while (at < text.size() && text[at] == ' ') ++at;
    }
    if (indent < text.size() && text[indent] != '#' && flow == 0) {
      while (!indents.empty() && indents.back() > indent) indents.pop_back();
      if (indents.empty() || indents.back() < indent) indents.push_back(indent);
      if (static_cast<int>(indents.size() + dashes) > ALimit) return line;
    }
    char quote = 0;
    for (size_t i = indent; i < text.size(); ++i) {
      const char c = text[i];
      if (quote) {
        if (c == quote) quote = 0;
        continue;
      }
      if (c == '#' && (i == 0 || text[i - 1] == ' ')) break;
      if ((c == '\'' || c == '"') && (i == 0 || std::string_view(" [{,:").find(text[i - 1]) != std::string_view::npos))
        quote = c;
      else if (c == '[' || c == '{') {
        if (++flow > ALimit) return line;
      } else if ((c == ']' || c == '}') && flow > 0)
        --flow;
    }
    pos = end + 1;
    ++line;
  }
  return 0;
}

class TYamlCopier {
public:
  TYamlCopier(const std::string& AFile, size_t ABudget) : FFile(AFile), FBudget(ABudget) {}

  void Copy(const YAML::Node& ASource, TYamlNode& ATarget, int ADepth) {
    // Nodes are copied in the order the text holds them; an alias gives its anchor's
    // node again, met after text further on.
    const YAML::Mark mark = ASource.Mark();
    if (!mark.is_null()) {
      if (mark.pos < FLastPos) FAliased = true;
      FLastPos = std::max(FLastPos, mark.pos);
    }
    if (++FNodes > FBudget)
      RaiseSigmaError(FFile, mark.line + 1,
                      FAliased ? "the document expands to more than " + std::to_string(FBudget) +
                                     " nodes (aliases used over and over)"
                               : "the document holds more than " + std::to_string(FBudget) +
                                     " nodes (values, lists and maps; a list that long is not supported)");
    if (ADepth > 200) RaiseSigmaError(FFile, ASource.Mark().line + 1, "nesting too deep");
    ATarget.Line = ASource.Mark().is_null() ? 0 : ASource.Mark().line + 1;
    switch (ASource.Type()) {
    case YAML::NodeType::Scalar:
      ATarget.Kind = TYamlNode::ykScalar;
      ATarget.Text = ASource.Scalar();
      FBytes += ATarget.Text.size();
      if (FBytes > FMaxBytes)
        RaiseSigmaError(FFile, ATarget.Line, "the document expands to more than 64 MB of text");
      break;
    case YAML::NodeType::Sequence:
      ATarget.Kind = TYamlNode::ykList;
      ATarget.Items.reserve(std::min<size_t>(ASource.size(), 4096));
      for (const YAML::Node& item : ASource) Copy(item, ATarget.Items.emplace_back(), ADepth + 1);
      break;
    case YAML::NodeType::Map:
      ATarget.Kind = TYamlNode::ykMap;
      for (const auto& entry : ASource) {
        std::string key = entry.first.IsScalar() ? entry.first.Scalar() : std::string();
        if (!entry.first.IsScalar() && !entry.first.IsNull())
          RaiseSigmaError(FFile, entry.first.Mark().line + 1, "a map key that is not a plain value");
        auto& slot = ATarget.Entries.emplace_back(TYamlEntry{std::move(key), TYamlNode()});
        Copy(entry.second, slot.second, ADepth + 1);
      }
      break;
    default:
      ATarget.Kind = TYamlNode::ykNull;
      break;
    }
  }

private:
  const std::string& FFile;
  size_t FBudget;
  size_t FNodes = 0;
  int FLastPos = 0;      // the furthest place in the text a node was copied from
  bool FAliased = false; // a node was met again through an alias
  size_t FBytes = 0;
  size_t FMaxBytes = 64u << 20;
};

// yaml-cpp loops for ever on a ',' where a document expects its root node ("," alone,
// "'a',", "- a\n,", "--- ,"). A rule is a mapping, so every document is required to open
// with a plain key at the start of a line; a mapping at column 0 then holds every later
// line of its document, and a stray ',' inside it is an ordinary YAML error. Gives the
// line of the first document that opens otherwise, or 0.
int FindBadDocumentStart(const std::string& AText, std::string& AReason) {
  bool opening = true; // no content line yet in this document
  int line = 0;
  size_t start = 0;
  while (start < AText.size()) {
    size_t end = AText.find('\n', start);
    if (end == std::string::npos) end = AText.size();
    std::string_view text(AText.data() + start, end - start);
    start = end + 1;
    ++line;
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    const bool marker = text.size() >= 3 && (text.substr(0, 3) == "---" || text.substr(0, 3) == "...") &&
                        (text.size() == 3 || text[3] == ' ' || text[3] == '\t');
    // yaml-cpp also loops for ever on some runs of directives between documents. Rules
    // use none; a '%' at the start of a line can be nothing else.
    if (!text.empty() && text[0] == '%') {
      AReason = "YAML directives ('%' at the start of a line) are not used in rules";
      return line;
    }
    if (marker) {
      const size_t rest = text.find_first_not_of(" \t", 3);
      if (rest != std::string_view::npos && text[rest] != '#') {
        AReason = "content after '" + std::string(text.substr(0, 3)) + "' on the same line";
        return line;
      }
      opening = true;
      continue;
    }
    if (!opening) continue;
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos || text[first] == '#') continue;
    static constexpr std::string_view kIndicators = ",[]{}#&*!|>'\"%@`?:-";
    const size_t colon = text.find(':');
    const bool keyed = colon != std::string_view::npos && colon > 0 &&
                       (colon + 1 == text.size() || text[colon + 1] == ' ' || text[colon + 1] == '\t');
    if (first != 0 || kIndicators.find(text[0]) != std::string_view::npos || !keyed ||
        text.substr(0, colon).find('#') != std::string_view::npos) {
      AReason = "a rule document must open with a key such as 'title:' at the start of a line";
      return line;
    }
    opening = false;
  }
  return 0;
}

} // namespace

std::vector<TYamlNode> ParseYamlDocuments(const std::string& AText, const std::string& AFile,
                                          const TYamlLimits& ALimits) {
  if (AText.size() > ALimits.MaxTextBytes)
    RaiseSigmaError(AFile, 0,
                    "the file is " + std::to_string(AText.size()) + " bytes, more than the " +
                        std::to_string(ALimits.MaxTextBytes >> 20) + " MB a rule may have");
  // YAML allows no C0 control characters but tab and line breaks.
  int line = 1;
  for (const char c : AText) {
    const auto u = static_cast<unsigned char>(c);
    if (u == '\n') ++line;
    else if ((u < 0x20 && u != '\t' && u != '\r') || u == 0x7F) {
      char code[8];
      std::snprintf(code, sizeof code, "%02X", u);
      RaiseSigmaError(AFile, line, std::string("control character 0x") + code + " is not allowed in YAML");
    }
  }
  std::string reason;
  if (const int bad = FindBadDocumentStart(AText, reason)) RaiseSigmaError(AFile, bad, reason);
  if (const int deep = FindDeepNesting(AText, ALimits.MaxNesting))
    RaiseSigmaError(AFile, deep, "nesting deeper than " + std::to_string(ALimits.MaxNesting) + " levels");
  std::vector<YAML::Node> documents;
  try {
    documents = YAML::LoadAll(AText);
  } catch (const YAML::Exception& e) {
    RaiseSigmaError(AFile, e.mark.is_null() ? 0 : e.mark.line + 1, "YAML error: " + e.msg);
  }
  std::vector<TYamlNode> result;
  TYamlCopier copier(AFile, ALimits.MaxNodes);
  try {
    for (const YAML::Node& document : documents) copier.Copy(document, result.emplace_back(), 0);
  } catch (const YAML::Exception& e) {
    RaiseSigmaError(AFile, e.mark.is_null() ? 0 : e.mark.line + 1, "YAML error: " + e.msg);
  }
  return result;
}

} // namespace qvx::hunt
