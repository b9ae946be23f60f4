// Texts escaped for the output formats: JSON string literals and CSV fields.
#pragma once

#include <string>
#include <string_view>

namespace qvx {

// AText as a JSON string literal (quotes included); bytes from 0x80 up pass unchanged.
void AppendJsonString(std::string& AOut, std::string_view AText);
// AText as a CSV field, quoted when it holds a comma, quote, CR or LF.
void AppendCsvField(std::string& AOut, std::string_view AText);

} // namespace qvx
