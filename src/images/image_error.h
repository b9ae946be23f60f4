// EImageError: a disk image, a volume inside it or a file on that volume could not be
// read. The message names the image (or the path inside it), the offset when there is
// one, and the problem; the libyal libraries' own text follows when they give one.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace qvx {

class EImageError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// No offset to name (opening, a whole-image property).
inline constexpr uint64_t kNoOffset = ~uint64_t{0};

// The one place that builds image errors: "<image>: <problem>[ at offset 0x..][: <detail>]".
[[noreturn]] void RaiseImageError(std::string_view AImage, uint64_t AOffset, std::string_view AProblem,
                                  std::string_view ADetail = {});

namespace detail {

// The most specific message of a libyal error backtrace (its first line, without the
// function name in front), then the error freed. Every libyal library has its own error
// type with the same two functions, so this takes them as arguments.
template <class TError>
std::string LibyalText(TError*& AError, int (*ABacktrace)(TError*, char*, size_t), void (*AFree)(TError**)) {
  if (!AError) return {};
  char text[2048] = {};
  const bool printed = ABacktrace(AError, text, sizeof text) > 0;
  AFree(&AError);
  if (!printed) return {};
  std::string_view line(text);
  line = line.substr(0, line.find('\n'));
  if (const size_t colon = line.find(": "); colon != std::string_view::npos && line.substr(0, colon).find(' ') == std::string_view::npos)
    line.remove_prefix(colon + 2);
  while (!line.empty() && (line.back() == '.' || line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
  return std::string(line);
}

} // namespace detail

// Raises for a failed libyal call: the problem with the library's text.
template <class TError>
[[noreturn]] void RaiseLibyal(TError*& AError, int (*ABacktrace)(TError*, char*, size_t), void (*AFree)(TError**),
                              std::string_view AImage, uint64_t AOffset, std::string_view AProblem) {
  const std::string detail = detail::LibyalText(AError, ABacktrace, AFree);
  RaiseImageError(AImage, AOffset, AProblem, detail);
}

} // namespace qvx
