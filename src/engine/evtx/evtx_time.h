// Text forms of Windows times as event XML writes them.
#pragma once

#include <cstdint>
#include <string>

namespace qvx {

// FILETIME as "YYYY-MM-DDTHH:MM:SS.fffffffZ", as Windows renders it: seven digits of
// 100-nanosecond units, zero-padded. Any 64-bit value gives a text (years may have more
// than four digits or a sign).
void AppendFiletimeText(std::string& AOut, uint64_t AFiletime);
std::string FiletimeToText(uint64_t AFiletime);

// SYSTEMTIME fields as "YYYY-MM-DDTHH:MM:SS.mmmZ" (ISO 8601, three digits of milliseconds).
void AppendSystemtimeText(std::string& AOut, uint16_t AYear, uint16_t AMonth, uint16_t ADay, uint16_t AHour,
                          uint16_t AMinute, uint16_t ASecond, uint16_t AMilliseconds);

// Civil date of a day count since 1970-01-01 (proleptic Gregorian, any int64).
void CivilFromDays(int64_t ADays, int64_t& AYear, unsigned& AMonth, unsigned& ADay);

} // namespace qvx
