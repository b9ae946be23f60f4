// YAML documents as a plain tree of our own, read through yaml-cpp.
//
// Nothing outside sigma_yaml.cpp sees yaml-cpp: a text is parsed there, its documents are
// copied into TYamlNode trees (with the line of each node), and every error of the
// library becomes an ESigmaError naming the file and line. The copy walks aliases as
// often as they are used, so it runs under a budget of nodes: a document whose aliases
// would expand beyond it ("YAML bomb") is refused instead of filling memory.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qvx::hunt {

// A rule, a mapping file or a value in them that cannot be used. The message names the
// file and, where known, the line.
class ESigmaError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// The one place that builds these errors: "FILE:LINE: TEXT" (no line when ALine is 0).
[[noreturn]] void RaiseSigmaError(const std::string& AFile, int ALine, const std::string& AText);

struct TYamlEntry;

struct TYamlNode {
  enum TKind { ykNull, ykScalar, ykList, ykMap };
  TKind Kind = ykNull;
  int Line = 0;                 // 1-based line of the node in its file
  std::string Text;             // a scalar's text
  std::vector<TYamlNode> Items; // a list's items
  // A map's entries in file order. A named entry type, not std::pair: a pair of an
  // incomplete type cannot be a vector's element with every standard library.
  std::vector<TYamlEntry> Entries;

  bool IsNull() const { return Kind == ykNull; }
  bool IsScalar() const { return Kind == ykScalar; }
  bool IsList() const { return Kind == ykList; }
  bool IsMap() const { return Kind == ykMap; }
  // The entry of a map with this key; null when there is none or this is not a map.
  const TYamlNode* Find(const std::string& AKey) const;
  // A scalar entry's text; "" when absent or not a scalar.
  std::string TextOf(const std::string& AKey) const;
};

struct TYamlEntry {
  std::string first; // the key
  TYamlNode second;  // the value
};

struct TYamlLimits {
  size_t MaxNodes = 200'000;    // nodes after alias expansion, per text
  size_t MaxTextBytes = 16u << 20;
  int MaxNesting = 64;          // flow brackets and block indentation levels
};

// The documents of AText. Raises ESigmaError naming AFile (and the line) for a syntax
// error, nesting deeper than the limit, a text over the size limit or aliases that
// expand past the node budget.
std::vector<TYamlNode> ParseYamlDocuments(const std::string& AText, const std::string& AFile,
                                          const TYamlLimits& ALimits = {});

} // namespace qvx::hunt
