#include "filter/sql_text.h"

#include <cstdio>

namespace qvx {

std::string SQLLiteral(std::string_view AText, TFilterWhereKind AKind) {
  std::string out;
  out.reserve(AText.size() + 2);
  const bool spliced = AText.find('\0') != std::string_view::npos;
  if (spliced) out.push_back('(');
  out.push_back('\'');
  for (const char c : AText) {
    if (c == '\0') {
      out.append(AKind == tfwSQLite ? "' || char(0) || '" : "' + CHAR(0) + '");
      continue;
    }
    if (c == '\'') out.push_back('\'');
    out.push_back(c);
  }
  out.push_back('\'');
  if (spliced) out.push_back(')');
  return out;
}

bool IsSQLName(std::string_view AName) {
  if (AName.empty() || AName.size() > 64) return false;
  auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; };
  if (!letter(AName.front())) return false;
  for (const char c : AName)
    if (!letter(c) && !(c >= '0' && c <= '9')) return false;
  return true;
}

const std::string& CheckSQLName(const std::string& AName, const char* AWhat) {
  if (!IsSQLName(AName))
    throw ESQLNameError(std::string(AWhat) + " " + SQLNameForMessage(AName) +
                        " is not a valid name (letters, digits and _ only)");
  return AName;
}

std::string SQLNameForMessage(std::string_view AName) {
  constexpr size_t kShown = 80;
  std::string out = "\"";
  size_t shown = 0;
  for (size_t i = 0; i < AName.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(AName[i]);
    // Stop before a character, not inside one: UTF-8 continuation bytes go with their lead.
    if (shown >= kShown && (c & 0xC0) != 0x80) {
      out.append("...");
      break;
    }
    if ((c & 0xC0) != 0x80) ++shown;
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c < 0x20 || c == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      out.append(escaped);
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  out.push_back('"');
  return out;
}

} // namespace qvx
