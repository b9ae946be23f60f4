// Color codes: rules that paint the rows of a log view. The first rule in the list that
// an event satisfies decides its colour and font style; the order is the priority.
//
// A rule tests the event type (a bit mask of the store's type codes: bit 1 Verbose,
// 2 Information, 3 Warning, 4 Error, 5 Critical, 12 Audit Success, 13 Audit Failure;
// 0 = any), the source (compared without regard to case), the event ID (negative = any)
// and the description (a text it contains, without regard to case, or a PCRE2 regular
// expression). Colours are Windows colour values, 0x00BBGGRR.
//
// Files (UTF-8 XML):
//   <QVEX_Colors version="2"><ColorCodes><ColorCode>
//     <Value/> <EventTypes/> <EventID/> <EventSource/> <DescrText/> <DescrRegExp/>
//     <Bold/> <Italic/>
//   </ColorCode>...</ColorCodes></QVEX_Colors>
// Value is written as the decimal colour value; "#RRGGBB" is read as well.
#pragma once

#include "filter/pcre2_pattern.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvx {

enum TFontStyle : uint8_t { fsBold = 1, fsItalic = 2 };

struct TColorCode {
  int32_t EventTypes = 0;
  std::string EventSource;
  int32_t EventID = -1;
  std::string DescrText;
  bool DescrRegExp = false;
  int32_t Value = 0;      // 0x00BBGGRR
  uint8_t FontStyles = 0; // TFontStyle bits
};

// A color code file that cannot be loaded: the message as the user sees it, under the
// title "Load Color Codes".
class EColorCodesError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class TColorCodes {
public:
  size_t Count() const { return FCodes.size(); }
  const TColorCode& GetColorCode(size_t AIndex) const { return FCodes.at(AIndex); }
  void AddCode(const TColorCode& ACode);
  // Moves the code at AFrom to AIndex (its priority).
  void ChangeCodeIndex(size_t AFrom, size_t AIndex);
  void RemoveCodeIndex(size_t AIndex);
  void ClearAll();

  // The first code the event satisfies, or null. With ADescrOnly codes without a
  // description text are skipped. A regular expression that does not compile never
  // matches (LoadFromFile refuses such files).
  const TColorCode* FindColorCode(int32_t AType, const std::string& ASource, int64_t AEventId,
                                  const std::string& ADescription, bool ADescrOnly = false) const;

  // Raises EColorCodesError ("Invalid version attribute", "This file was saved with a
  // newer version of this program", or the file's own fault with its name); the codes
  // are then unchanged.
  void LoadFromFile(const std::string& AFileName);
  void SaveToFile(const std::string& AFileName) const;
  std::string SaveToString() const;
  void LoadFromString(const std::string& AXml, const std::string& AWhere = "color codes");

private:
  const TPcre2Pattern* Pattern(size_t AIndex) const;
  std::vector<TColorCode> FCodes;
  mutable std::vector<std::unique_ptr<TPcre2Pattern>> FPatterns; // compiled on first use
  mutable TPcre2Match FMatch;
  mutable std::string FFolded;
};

} // namespace qvx
