#include "engine/evtx/evtx_time.h"

#include "engine/evtx/evtx_layout.h"

#include <charconv>
#include <cstring>

namespace qvx {

void CivilFromDays(int64_t ADays, int64_t& AYear, unsigned& AMonth, unsigned& ADay) {
  // Howard Hinnant's days-to-civil algorithm.
  int64_t z = ADays + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t y = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  ADay = doy - (153 * mp + 2) / 5 + 1;
  AMonth = mp < 10 ? mp + 3 : mp - 9;
  AYear = y + (AMonth <= 2);
}

namespace {

// Writes v zero-padded to at least AWidth digits ("%<w>d" with blanks turned into zeros).
void PutPadded(std::string& AOut, int64_t v, int AWidth) {
  char buf[24];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  int len = static_cast<int>(end - buf);
  for (int i = len; i < AWidth; ++i) AOut.push_back('0');
  AOut.append(buf, static_cast<size_t>(end - buf)); // (pointer, count): the iterator pair form goes through replace()
}

// Writes AValue (below 10^AWidth) as exactly AWidth digits at ADest.
inline void PutDigits(char* ADest, unsigned AValue, int AWidth) {
  for (int i = AWidth - 1; i >= 0; --i) {
    ADest[i] = static_cast<char>('0' + AValue % 10);
    AValue /= 10;
  }
}

} // namespace

void AppendFiletimeText(std::string& AOut, uint64_t AFiletime) {
  // Signed as the format's own readers take it: values above 2^63 are before 1601.
  const int64_t t = static_cast<int64_t>(AFiletime);
  int64_t s = t / 10'000'000 - evtx::kEpochDelta100us / 10'000;
  int64_t f = t % 10'000'000;
  if (f < 0) {
    f += 10'000'000;
    --s;
  }
  int64_t days = s / 86400;
  int64_t rem = s % 86400;
  if (rem < 0) {
    rem += 86400;
    --days;
  }
  int64_t year;
  unsigned month, day;
  CivilFromDays(days, year, month, day);
  if (year >= 0 && year <= 9999) {
    // Every time a log holds (one of these is written for every record): the text is made
    // in place in the output, not on the stack, whose byte stores a copy would wait for.
    const size_t at = AOut.size();
    AOut.resize(at + 28);
    char* text = AOut.data() + at;
    std::memcpy(text, "0000-00-00T00:00:00.0000000Z", 28);
    PutDigits(text, static_cast<unsigned>(year), 4);
    PutDigits(text + 5, month, 2);
    PutDigits(text + 8, day, 2);
    PutDigits(text + 11, static_cast<unsigned>(rem / 3600), 2);
    PutDigits(text + 14, static_cast<unsigned>(rem / 60 % 60), 2);
    PutDigits(text + 17, static_cast<unsigned>(rem % 60), 2);
    PutDigits(text + 20, static_cast<unsigned>(f), 7);
    return;
  }
  PutPadded(AOut, year, 4);
  AOut.push_back('-');
  PutPadded(AOut, month, 2);
  AOut.push_back('-');
  PutPadded(AOut, day, 2);
  AOut.push_back('T');
  PutPadded(AOut, rem / 3600, 2);
  AOut.push_back(':');
  PutPadded(AOut, rem / 60 % 60, 2);
  AOut.push_back(':');
  PutPadded(AOut, rem % 60, 2);
  AOut.push_back('.');
  PutPadded(AOut, f, 7);
  AOut.push_back('Z');
}

std::string FiletimeToText(uint64_t AFiletime) {
  std::string s;
  AppendFiletimeText(s, AFiletime);
  return s;
}

void AppendSystemtimeText(std::string& AOut, uint16_t AYear, uint16_t AMonth, uint16_t ADay, uint16_t AHour,
                          uint16_t AMinute, uint16_t ASecond, uint16_t AMilliseconds) {
  PutPadded(AOut, AYear, 4);
  AOut.push_back('-');
  PutPadded(AOut, AMonth, 2);
  AOut.push_back('-');
  PutPadded(AOut, ADay, 2);
  AOut.push_back('T');
  PutPadded(AOut, AHour, 2);
  AOut.push_back(':');
  PutPadded(AOut, AMinute, 2);
  AOut.push_back(':');
  PutPadded(AOut, ASecond, 2);
  AOut.push_back('.');
  PutPadded(AOut, AMilliseconds, 3);
  AOut.push_back('Z');
}

} // namespace qvx
