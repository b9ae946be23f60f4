// Text that goes into SQL. User text reaches a statement only as data: bound to a
// parameter, or, where the statement is built as text (a filter's WHERE expression, an
// ORDER BY, the SQL Server texts), as a string literal made by SQLLiteral. Names (tables,
// columns, indexes) cannot be literals: they must pass CheckSQLName, a strict whitelist,
// and the store checks column names against its own columns on top of that.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace qvx {

// The SQL dialect of a text: the local SQLite store or a SQL Server store.
enum TFilterWhereKind { tfwSQLite, tfwMSSQL };

// A name that is refused: not a valid SQL name, or not one the store has. The message is
// one line and names the name (see SQLNameForMessage).
class ESQLNameError : public std::invalid_argument {
public:
  using std::invalid_argument::invalid_argument;
};

// An SQL expression whose value is exactly AText: 'text' with every apostrophe doubled.
// Nothing else is special inside a literal in either dialect (no backslash escapes). A NUL
// character, which no literal can hold, is spliced in as char(0) (CHAR(0) on SQL Server):
// ('a' || char(0) || 'b'). Bytes that are not valid UTF-8 go in as they are.
std::string SQLLiteral(std::string_view AText, TFilterWhereKind AKind = tfwSQLite);

// True for a name the program may write into SQL unquoted: an ASCII letter or "_", then
// ASCII letters, digits or "_", 64 characters at most.
bool IsSQLName(std::string_view AName);
// AName when IsSQLName; otherwise raises ESQLNameError: AWhat "NAME" is not a valid name.
const std::string& CheckSQLName(const std::string& AName, const char* AWhat);

// AName shown in an error message: in double quotes, on one line, at most 80 characters
// (then "..."); control characters, quotes and backslashes escaped as in C.
std::string SQLNameForMessage(std::string_view AName);

} // namespace qvx
