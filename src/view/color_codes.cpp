#include "view/color_codes.h"

#include "descriptions/description_caches.h"

#include <pugixml.hpp>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace qvx {

namespace {

constexpr const char* kRoot = "QVEX_Colors";
constexpr double kFileVersion = 2;

std::string Folded(std::string_view AText) {
  std::string folded(AText);
  for (char& c : folded)
    c = detail::LowerAscii(c);
  return folded;
}

} // namespace

void TColorCodes::AddCode(const TColorCode& ACode) {
  FCodes.push_back(ACode);
  FPatterns.clear();
}

void TColorCodes::ChangeCodeIndex(size_t AFrom, size_t AIndex) {
  if (AFrom >= FCodes.size() || AIndex >= FCodes.size())
    throw std::out_of_range("color code index out of range");
  TColorCode code = FCodes[AFrom];
  FCodes.erase(FCodes.begin() + static_cast<std::ptrdiff_t>(AFrom));
  FCodes.insert(FCodes.begin() + static_cast<std::ptrdiff_t>(AIndex), std::move(code));
  FPatterns.clear();
}

void TColorCodes::RemoveCodeIndex(size_t AIndex) {
  if (AIndex >= FCodes.size()) throw std::out_of_range("color code index out of range");
  FCodes.erase(FCodes.begin() + static_cast<std::ptrdiff_t>(AIndex));
  FPatterns.clear();
}

void TColorCodes::ClearAll() {
  FCodes.clear();
  FPatterns.clear();
}

const TPcre2Pattern* TColorCodes::Pattern(size_t AIndex) const {
  if (FPatterns.size() != FCodes.size()) FPatterns.resize(FCodes.size());
  if (!FPatterns[AIndex])
    FPatterns[AIndex] = std::make_unique<TPcre2Pattern>(FCodes[AIndex].DescrText, PCRE2_UTF);
  return FPatterns[AIndex].get();
}

const TColorCode* TColorCodes::FindColorCode(int32_t AType, const std::string& ASource, int64_t AEventId,
                                             const std::string& ADescription, bool ADescrOnly) const {
  bool folded = false;
  for (size_t i = 0; i < FCodes.size(); ++i) {
    const TColorCode& code = FCodes[i];
    if (ADescrOnly && code.DescrText.empty()) continue;
    if (code.EventTypes != 0 && (AType < 0 || AType > 31 || ((code.EventTypes >> AType) & 1) == 0)) continue;
    if (!code.EventSource.empty() && !detail::EqualsNoCase(code.EventSource, ASource)) continue;
    if (code.EventID >= 0 && code.EventID != AEventId) continue;
    if (code.DescrText.empty()) return &code;
    if (code.DescrRegExp) {
      const TPcre2Pattern* pattern = Pattern(i);
      if (pattern->IsValid() && pattern->Match(ADescription, 0, FMatch) == prMatch) return &code;
      continue;
    }
    if (!folded) {
      FFolded = Folded(ADescription);
      folded = true;
    }
    if (FFolded.find(Folded(code.DescrText)) != std::string::npos) return &code;
  }
  return nullptr;
}

std::string TColorCodes::SaveToString() const {
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  pugi::xml_node root = document.append_child(kRoot);
  root.append_attribute("version") = "2";
  pugi::xml_node codes = root.append_child("ColorCodes");
  for (const TColorCode& code : FCodes) {
    pugi::xml_node node = codes.append_child("ColorCode");
    auto put = [&](const char* AName, const std::string& AText) {
      node.append_child(AName).text().set(AText.c_str());
    };
    put("Value", std::to_string(code.Value));
    put("EventTypes", std::to_string(code.EventTypes));
    put("EventID", std::to_string(code.EventID));
    put("EventSource", code.EventSource);
    put("DescrText", code.DescrText);
    put("DescrRegExp", code.DescrRegExp ? "1" : "0");
    put("Bold", (code.FontStyles & fsBold) ? "1" : "0");
    put("Italic", (code.FontStyles & fsItalic) ? "1" : "0");
  }
  std::ostringstream out;
  document.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
  return out.str();
}

void TColorCodes::SaveToFile(const std::string& AFileName) const {
  const std::string text = SaveToString();
  std::FILE* file = std::fopen(AFileName.c_str(), "wb");
  if (!file) throw std::runtime_error(AFileName + ": cannot be written: " + std::strerror(errno));
  const bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  if (std::fclose(file) != 0 || !ok)
    throw std::runtime_error(AFileName + ": writing failed: " + std::strerror(errno));
}

void TColorCodes::LoadFromString(const std::string& AXml, const std::string& AWhere) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_buffer(AXml.data(), AXml.size());
  if (!parsed)
    throw EColorCodesError(AWhere + ": not a color code file: " + parsed.description() + " at offset " +
                           std::to_string(parsed.offset));
  const pugi::xml_node root = document.document_element();
  if (std::strcmp(root.name(), kRoot) != 0)
    throw EColorCodesError(AWhere + ": not a color code file: the root element is <" + root.name() +
                           ">, expected <" + kRoot + ">");
  // The version is a number; a later format than ours is refused rather than misread.
  const std::string versionText = root.attribute("version").as_string();
  double version = 0;
  const auto [ptr, ec] =
      std::from_chars(versionText.data(), versionText.data() + versionText.size(), version);
  if (versionText.empty() || ec != std::errc() || ptr != versionText.data() + versionText.size() ||
      !std::isfinite(version))
    throw EColorCodesError("Invalid version attribute");
  if (version > kFileVersion)
    throw EColorCodesError("This file was saved with a newer version of this program");

  TColorCodes loaded;
  for (const pugi::xml_node node : root.child("ColorCodes").children("ColorCode")) {
    auto number = [&](const char* AName, int32_t ADefault) {
      const pugi::xml_node element = node.child(AName);
      if (!element) return ADefault;
      std::string text = element.text().as_string();
      int32_t value = 0;
      int base = 10;
      const char* begin = text.data();
      if (std::strcmp(AName, "Value") == 0 && text.size() == 7 && text[0] == '#') {
        // #RRGGBB as a Windows colour value 0x00BBGGRR.
        uint32_t rgb = 0;
        const auto [end, error] = std::from_chars(text.data() + 1, text.data() + 7, rgb, 16);
        if (error == std::errc() && end == text.data() + 7)
          return static_cast<int32_t>(((rgb & 0xFF) << 16) | (rgb & 0xFF00) | ((rgb >> 16) & 0xFF));
      }
      const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value, base);
      if (text.empty() || error != std::errc() || end != text.data() + text.size())
        throw EColorCodesError(AWhere + ": element " + kRoot + "/ColorCodes/ColorCode/" + AName + ": \"" +
                               text + "\" is not an integer");
      return value;
    };
    TColorCode code;
    code.Value = number("Value", 0);
    code.EventTypes = number("EventTypes", 0);
    code.EventID = number("EventID", -1);
    code.EventSource = node.child("EventSource").text().as_string();
    code.DescrText = node.child("DescrText").text().as_string();
    code.DescrRegExp = number("DescrRegExp", 0) != 0;
    code.FontStyles =
        static_cast<uint8_t>((number("Bold", 0) ? fsBold : 0) | (number("Italic", 0) ? fsItalic : 0));
    if (code.DescrRegExp && !code.DescrText.empty()) {
      const TPcre2Pattern pattern(code.DescrText, PCRE2_UTF);
      if (!pattern.IsValid())
        throw EColorCodesError(AWhere + ": regular expression \"" + code.DescrText +
                               "\": " + pattern.ErrorMessage());
    }
    loaded.AddCode(code);
  }
  FCodes = std::move(loaded.FCodes);
  FPatterns.clear();
}

void TColorCodes::LoadFromFile(const std::string& AFileName) {
  std::FILE* file = std::fopen(AFileName.c_str(), "rb");
  if (!file) throw EColorCodesError(AFileName + ": cannot be read: " + std::strerror(errno));
  std::string text;
  char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0 && text.size() < (64u << 20);)
    text.append(buffer, n);
  std::fclose(file);
  LoadFromString(text, AFileName);
}

} // namespace qvx
