// UTF-16LE to UTF-8 conversion at the format boundary.
//
// Input is raw little-endian bytes (any alignment). Unpaired surrogates become
// U+FFFD. The escaping variant writes the five XML entities and drops NUL code
// units, in one pass, for text that goes into rendered event XML.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qvx {

// Appends ACount UTF-16 code units read from ABytes (2 * ACount bytes) as UTF-8.
void AppendUtf16(std::string& AOut, const uint8_t* ABytes, size_t ACount);

// As AppendUtf16, but "&", "'", '"', "<" and ">" become entities and NULs are removed.
void AppendUtf16Escaped(std::string& AOut, const uint8_t* ABytes, size_t ACount);

// Appends UTF-8 text with the same XML escaping (NULs removed).
void AppendEscaped(std::string& AOut, std::string_view AText);

// Appends bytes of the Windows ANSI code page 1252 as UTF-8 (no escaping).
void AppendCp1252(std::string& AOut, const uint8_t* ABytes, size_t ACount);

std::string Utf16ToUtf8(const uint8_t* ABytes, size_t ACount);
std::string Utf16ToUtf8(std::u16string_view AText);
std::u16string Utf8ToUtf16(std::string_view AText);

// Number of UTF-16 code units the UTF-8 text takes (invalid bytes count as one unit each).
size_t Utf16Length(std::string_view AText);

// The code point of the UTF-8 sequence at AText[AAt], ALength its byte count; -1 with
// ALength 1 when the bytes there are no valid shortest-form sequence (nor a surrogate).
int32_t DecodeUtf8At(std::string_view AText, size_t AAt, size_t& ALength);
// Appends code point ACp (at most U+10FFFF) as UTF-8.
void AppendUtf8(std::string& AOut, uint32_t ACp);

} // namespace qvx
