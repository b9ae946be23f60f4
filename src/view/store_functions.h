// The SQL functions the event store registers on its SQLite connection. The log view's
// filter (TEventFilter::CreateSQLWhere) and the store's custom-column update call them:
//
//   X REGEXP Y                 (SQLite calls RegExp(Y, X): pattern, then text) 1 when the
//                              text matches the PCRE2 pattern, else 0. UTF-8 mode; invalid
//                              UTF-8 in the text never errors, it just does not match
//                              there. Case-sensitive unless the pattern says (?i). A NULL
//                              text or pattern gives 0. A match that runs into the match
//                              or depth limit gives 0. A pattern that does not compile is
//                              an SQL error: invalid regular expression "PATTERN": reason.
//                              Compiled patterns are kept: on the constant argument for
//                              the life of the statement, and in a small per-connection
//                              cache (the last 16 patterns) for patterns that vary by row.
//   MyInStr(text, part, case)  1-based position of part in text, 0 when absent; an empty
//                              part gives 0.
//   MySameStr(text, v, case)   1 when both, trimmed, are equal.
//   MyInList(text, list, case) 1 when the trimmed text is an item of the comma-separated
//                              list. The apostrophe quotes: 'a,b',c is "a,b" and "c"; ''
//                              inside quotes is one apostrophe; an unclosed quote runs to
//                              the end. Items are trimmed after unquoting (quotes protect
//                              commas, not blanks).
//   MyCompareStr(text, v, case) -1, 0 or 1 comparing the trimmed texts code point by code
//                              point.
//   CompareDescrWithCond(descr, name, oper, value, case)   see below.
//   CalculateCustomField(id, xml, kind, descr, expr, ids, format)   see below.
// NULL arguments are read as "" (numbers as 0), blobs as their bytes. "Trimmed" always
// means without leading and trailing characters up to U+0020 (blanks, tabs, line ends).
//
// Case: a case flag of 0 compares without regard to case, anything else exactly.
// Without regard to case, both texts are upper-cased one code point at a time by a
// built-in table covering ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic (the
// scripts event texts meet); other characters compare as they are. The table maps
// one character to one character of the same UTF-16 length (no "ß" to "SS"), so
// positions in an upper-cased text are positions in the original.
//
// Positions (MyInStr) count UTF-16 code units, as the rest of the system counts
// characters: a character above U+FFFF counts 2, a byte that is not valid UTF-8 counts 1.
//
// Description parameters (FindDescrParam): event descriptions carry "Label: value" lines,
// often indented and grouped under section headings:
//     Subject:
//         Security ID:    S-1-5-18
//         Account Name:   PC$
//     New Logon:
//         Account Name:   alice
// A name matches a line whose text before its first ':', trimmed, equals the name
// without regard to case (the built-in table above); the value is the rest of the line
// after that ':', trimmed (it may be empty). "Section\Label" (or "Section/Label") picks
// the first Label line after the heading line "Section:" (a line with nothing after its
// ':'); when the description has no such heading or no such label after it, the whole
// name is tried as a plain label. The first match wins. When no line has the ':' form,
// "Label=value" lines are tried the same way. Lines end at \r\n, \n or \r.
//
// CompareDescrWithCond(descr, name, oper, value, case): 1 when the named parameter of
// the description satisfies the condition; oper is a TConditionOper code:
//   1 equals, 2 not equal          MySameStr rules
//   3 contains, 4 not contains     MyInStr rules (an empty value is never contained)
//   5 matches, 6 not matches       PCRE2 pattern, caseless when the case flag is 0; a
//                                  pattern that does not compile is an SQL error
//   7 in list, 8 not in list       MyInList rules
//   9 greater, 10 less             numerically when both trimmed texts are numbers
//                                  (decimal, with fraction or exponent, or 0x hex), else
//                                  MyCompareStr rules
// A description without the parameter gives 0 for every operator, the negative ones
// included: "not equal to 5" keeps only events that have the parameter. An unknown
// operator gives 0.
// CompareDescrWithCond(xml, descr, name, oper, value, case): the same, for the event's
// parameter of that name: its event data value (the EventData "Data" element whose Name
// attribute is name, else the first UserData element of that local name, as
// CalculateCustomField's kind 0 finds it), else the description parameter.
//
// CalculateCustomField(id, xml, kind, descr, expr, ids, format): the value of a custom
// column for one row:
//   id      the row's event ID ([EventID]).
//   xml     the event XML ([EvtXML]).
//   kind    how expr finds the value:
//           0  a named value of the event's EventData or UserData: the EventData "Data"
//              element whose Name attribute is expr, else the first element under
//              UserData whose local name is expr (names without regard to ASCII case);
//           1  the description parameter named expr (FindDescrParam);
//           2  a PCRE2 pattern over the description: its first capturing group, or the
//              whole match when it has none (NULL when the group took no part); a
//              pattern that does not compile is an SQL error;
//           3  a path of element names below the event element, by local name, each
//              with an optional 1-based [N], ending in an element (its text) or in
//              "@attribute": "System/Execution/@ProcessID", "EventData/Data[2]". A
//              leading "Event/" is allowed.
//   descr   the description ([Descr]).
//   expr    the name, pattern or path.
//   ids     the event IDs the column applies to, in the event ID expression grammar
//           ("4624,4625-4630!4627"); empty means every ID. Other rows get NULL.
//   format  0 text; 1 integer (the trimmed text as a decimal or 0x hex integer, hex
//           above 2^63 wrapping to negative; anything else NULL); 2 real (the trimmed
//           text as a decimal number or 0x hex integer; anything else NULL).
// A value that is not found is NULL. Entity references in XML values are decoded.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct sqlite3;

namespace qvx {

// Registers the store's SQL functions on ADb (UTF-8, deterministic). Returns SQLITE_OK
// or the SQLite error code of the first registration that failed.
int RegisterStoreFunctions(sqlite3* ADb);

// The pure functions behind them, for callers and tests.
int64_t MyInStr(std::string_view AText, std::string_view APart, bool ACaseSensitive);
bool MySameStr(std::string_view AText, std::string_view AValue, bool ACaseSensitive);
bool MyInList(std::string_view AText, std::string_view AList, bool ACaseSensitive);
int MyCompareStr(std::string_view AText, std::string_view AValue, bool ACaseSensitive);
// The value of the named parameter of a description; false when it has none.
bool FindDescrParam(std::string_view ADescr, std::string_view AName, std::string& AValue);
// As the SQL function; a pattern that does not compile gives false here.
bool CompareDescrWithCond(std::string_view ADescr, std::string_view AName, int32_t AOper,
                          std::string_view AValue, bool ACaseSensitive);

// How many times a regular expression has been compiled for the store's functions since
// the program started (every connection together); tests use it to see the caches work.
uint64_t RegExpCompileCount();

} // namespace qvx
