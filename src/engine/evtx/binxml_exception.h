// EBinXMLLogReadingException: a fault inside one record's binary XML.
#pragma once

#include <stdexcept>
#include <string>

namespace qvx {

class EBinXMLLogReadingException : public std::runtime_error {
public:
  // An empty message becomes "BinXML read error".
  explicit EBinXMLLogReadingException(const std::string& AMessage)
      : std::runtime_error(AMessage.empty() ? "BinXML read error" : AMessage) {}
  EBinXMLLogReadingException(const std::string& AMessage, const std::string& ADetail)
      : std::runtime_error(AMessage.empty() ? "BinXML read error" : AMessage), FDetail(ADetail) {}

  // The inner fault when this one wraps another ("Root exception" wraps the fault
  // met while rendering); empty otherwise.
  const std::string& Detail() const { return FDetail; }

private:
  std::string FDetail;
};

// Every binary XML fault is raised here: one place to break on.
[[noreturn]] void RaiseBinXml(const std::string& AMessage);
// The same, kept out of line so that every Check stays small enough to inline.
[[noreturn, gnu::cold]] void RaiseBinXmlText(const char* AMessage);

// Raises EBinXMLLogReadingException with AMessage when ACondition is false.
inline void Check(bool ACondition, const char* AMessage) {
  if (!ACondition) [[unlikely]]
    RaiseBinXmlText(AMessage);
}

} // namespace qvx
