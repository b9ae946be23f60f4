// Literals and names written into SQL: a literal read back by SQLite is exactly its text,
// whatever bytes that holds; only plain names pass, and a refusal is one line naming them.
#include "filter/sql_text.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

namespace qvx {
namespace {

using namespace std::string_literals;

TEST(SQLText, LiteralsReadBackAsExactlyTheirText) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  const std::string texts[] = {"",
                               "'",
                               "''",
                               "O'Brien",
                               "x') OR ('1'='1",
                               "a'; DROP TABLE t; --",
                               "/* not a comment */ -- nor this",
                               "50%_[x]^\\",
                               "back\\slash\\",
                               "line\r\nbreak\ttab",
                               "\"double\" `tick` [bracket]",
                               "nul\0inside"s,
                               "\0"s,
                               "'\0'"s,
                               "\xC3\xBC\xE2\x82\xAC \xFF\xFE not UTF-8",
                               "? ?1 :name @p $x"};
  for (const std::string& text : texts) {
    const std::string sql = "SELECT " + SQLLiteral(text) + " = ?1, hex(" + SQLLiteral(text) + ") = hex(?1)";
    sqlite3_stmt* statement = nullptr;
    const char* tail = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, &tail), SQLITE_OK)
        << sqlite3_errmsg(db) << sql;
    EXPECT_EQ(*tail, '\0') << sql;
    sqlite3_bind_text(statement, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(statement, 0), 1) << sql;
    EXPECT_EQ(sqlite3_column_int(statement, 1), 1) << sql;
    EXPECT_EQ(sqlite3_bind_parameter_count(statement), 1) << sql; // "?" in the text stayed text
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  // SQL Server has no server here to read it back; its splice is the same with its own names.
  EXPECT_EQ(SQLLiteral("a'b\0c"s, tfwMSSQL), "('a''b' + CHAR(0) + 'c')");
}

TEST(SQLText, OnlyPlainNamesPassAndRefusalsAreOneLine) {
  for (const char* name : {"Events", "_ID", "CustomField12", "x", "Events_TimeStamp"})
    EXPECT_TRUE(IsSQLName(name)) << name;
  const std::string refused[] = {"",
                                 "Date; DROP TABLE x",
                                 "]",
                                 "Source]--",
                                 "[Source]",
                                 "\"Source\"",
                                 "Source ",
                                 "1Source",
                                 "Type\nDROP",
                                 "Date\0x"s,
                                 "So\xC3\xBCrce",
                                 std::string(65, 'a')};
  for (const std::string& name : refused) {
    EXPECT_FALSE(IsSQLName(name)) << name;
    try {
      CheckSQLName(name, "table");
      ADD_FAILURE() << "passed: " << name;
    } catch (const ESQLNameError& e) {
      const std::string message = e.what();
      EXPECT_EQ(message.rfind("table \"", 0), 0u) << message;
      EXPECT_EQ(message.find_first_of("\r\n"s + '\0'), std::string::npos) << message;
      EXPECT_NE(message.find(SQLNameForMessage(name)), std::string::npos) << message;
    }
  }
  EXPECT_EQ(SQLNameForMessage("Type\nDROP \"x\" \\"), "\"Type\\x0ADROP \\\"x\\\" \\\\\"");
  EXPECT_EQ(SQLNameForMessage(std::string(100, 'a')), "\"" + std::string(80, 'a') + "...\"");
  // Cut between characters, never inside one.
  std::string wide;
  for (int i = 0; i < 90; ++i)
    wide.append("\xC3\xBC");
  std::string shown = "\"";
  for (int i = 0; i < 80; ++i)
    shown.append("\xC3\xBC");
  EXPECT_EQ(SQLNameForMessage(wide), shown + "...\"");
}

} // namespace
} // namespace qvx
