// Sigma log sources mapped to Windows logs, read from a mapping file.
//
// The mapping is data (windows_mapping.yml, built into the program): services name
// channels; categories name channels with their event IDs, field renames and extra
// field conditions. See that file for its layout.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qvx::hunt {

// One place a log source's events are found.
struct TLogSourceVariant {
  std::string Channel;                 // "*" for any channel
  std::set<uint32_t> EventIds;         // empty: any event ID
  std::vector<std::pair<std::string, std::string>> Fields; // rule field -> event field
  std::vector<std::pair<std::string, std::vector<std::string>>> Where; // event field -> values (any)
};

class TLogMapping {
public:
  // Reads a mapping file's text. Raises ESigmaError naming AFile and the line.
  static TLogMapping Parse(const std::string& AText, const std::string& AFile);
  // The mapping built into the program.
  static const TLogMapping& Windows();

  // Where the events of a rule's log source (folded names; empty when not given) are.
  // Empty, with AReason set, when no Windows log has them.
  std::vector<TLogSourceVariant> Resolve(const std::string& AProduct, const std::string& ACategory,
                                         const std::string& AService, std::string& AReason) const;

private:
  std::string FProduct;
  std::vector<std::pair<std::string, std::vector<std::string>>> FServices;
  std::vector<std::pair<std::string, std::vector<TLogSourceVariant>>> FCategories;
};

} // namespace qvx::hunt
