// The event store's SQL functions, run through real SQL on an in-memory connection.
#include "view/store_functions.h"
#include "view/rendering_info.h"

#include "filter/event_filter.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

namespace qvx {
namespace {

class StoreFunctions : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_EQ(sqlite3_open(":memory:", &FDb), SQLITE_OK);
    ASSERT_EQ(RegisterStoreFunctions(FDb), SQLITE_OK);
  }
  void TearDown() override { sqlite3_close(FDb); }

  void Exec(const std::string& ASql) {
    char* error = nullptr;
    const int rc = sqlite3_exec(FDb, ASql.c_str(), nullptr, nullptr, &error);
    EXPECT_EQ(rc, SQLITE_OK) << (error ? error : "") << "\n" << ASql;
    sqlite3_free(error);
  }

  // The first column of the first row as text, "NULL" for NULL, "<int>"/"<real>" kept as
  // SQLite prints them; "error: message" when the statement fails.
  std::string Query(const std::string& ASql, int* AType = nullptr) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(FDb, ASql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      std::string message = "error: ";
      message.append(sqlite3_errmsg(FDb));
      return message;
    }
    std::string result = "NULL";
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) {
      const int type = sqlite3_column_type(statement, 0);
      if (AType) *AType = type;
      if (type != SQLITE_NULL) result = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    } else if (rc != SQLITE_DONE) {
      result = "error: ";
      result.append(sqlite3_errmsg(FDb));
    }
    sqlite3_finalize(statement);
    return result;
  }

  sqlite3* FDb = nullptr;
};

// --- text functions -----------------------------------------------------------------

TEST_F(StoreFunctions, InStrFindsOneBasedPositionsWithAndWithoutCase) {
  EXPECT_EQ(Query("SELECT MyInStr('An account was logged on', 'account', 1)"), "4");
  EXPECT_EQ(Query("SELECT MyInStr('An account was logged on', 'ACCOUNT', 1)"), "0");
  EXPECT_EQ(Query("SELECT MyInStr('An account was logged on', 'ACCOUNT', 0)"), "4");
  EXPECT_EQ(Query("SELECT MyInStr('abc', 'x', 0)"), "0");
  EXPECT_EQ(Query("SELECT MyInStr('abc', '', 0)"), "0");
  EXPECT_EQ(Query("SELECT MyInStr(NULL, 'a', 0)"), "0");
  EXPECT_EQ(Query("SELECT MyInStr('abc', NULL, 1)"), "0");
  EXPECT_EQ(MyInStr("Hello", "LL", false), 3);
  EXPECT_EQ(MyInStr("Hello", "LL", true), 0);
}

TEST_F(StoreFunctions, InStrCountsUtf16CodeUnits) {
  // "é" is one unit, the emoji two: "x" follows four units.
  EXPECT_EQ(Query("SELECT MyInStr('é\xF0\x9F\x98\x80"
                  "ax', 'x', 1)"),
            "5");
  EXPECT_EQ(Query("SELECT MyInStr('é\xF0\x9F\x98\x80"
                  "ax', 'X', 0)"),
            "5");
  // Upper-casing beyond ASCII: Latin-1, Greek, Cyrillic.
  EXPECT_EQ(Query("SELECT MyInStr('Café Ωμέγα Привет', 'CAFÉ', 0)"), "1");
  EXPECT_EQ(Query("SELECT MyInStr('Café Ωμέγα Привет', 'ΩΜΈΓΑ', 0)"), "6");
  EXPECT_EQ(Query("SELECT MyInStr('Café Ωμέγα Привет', 'привет', 0)"), "12");
  EXPECT_EQ(Query("SELECT MyInStr('Café Ωμέγα Привет', 'привет', 1)"), "0");
  // Invalid UTF-8 counts one unit a byte and never fails.
  EXPECT_EQ(MyInStr(std::string_view("\xFF\xC3z", 3), "z", true), 3);
  EXPECT_EQ(MyInStr(std::string_view("\xFF\xC3z", 3), "Z", false), 3);
}

TEST_F(StoreFunctions, SameStrTrimsAndFollowsTheCaseFlag) {
  EXPECT_EQ(Query("SELECT MySameStr('  Alice\t', 'alice ', 0)"), "1");
  EXPECT_EQ(Query("SELECT MySameStr('  Alice\t', 'alice ', 1)"), "0");
  EXPECT_EQ(Query("SELECT MySameStr('  Alice\t', ' Alice', 1)"), "1");
  EXPECT_EQ(Query("SELECT MySameStr('Ärger', 'ärger', 0)"), "1");
  EXPECT_EQ(Query("SELECT MySameStr(NULL, '', 1)"), "1");
  EXPECT_EQ(Query("SELECT MySameStr('a', 'b', 0)"), "0");
}

TEST_F(StoreFunctions, InListSplitsAtCommasOutsideApostrophes) {
  EXPECT_EQ(Query("SELECT MyInList('beta', 'alpha, beta ,gamma', 1)"), "1");
  EXPECT_EQ(Query("SELECT MyInList('BETA', 'alpha, beta ,gamma', 1)"), "0");
  EXPECT_EQ(Query("SELECT MyInList('BETA', 'alpha, beta ,gamma', 0)"), "1");
  EXPECT_EQ(Query("SELECT MyInList(' a,b ', '''a,b'',c', 1)"), "1");
  EXPECT_EQ(Query("SELECT MyInList('a', '''a,b'',c', 1)"), "0");
  EXPECT_EQ(Query("SELECT MyInList('c', '''a,b'',c', 1)"), "1");
  EXPECT_EQ(MyInList("it's", "'it''s', other", true), true);
  EXPECT_EQ(MyInList("x", "' x '", true), true); // quotes protect commas, not blanks
  EXPECT_EQ(MyInList("", "a,,b", true), true);
  EXPECT_EQ(MyInList("a", "'a", true), true); // an unclosed quote runs to the end
  EXPECT_EQ(Query("SELECT MyInList(5, '5,25', 0)"), "1");
  EXPECT_EQ(Query("SELECT MyInList(NULL, 'a', 0)"), "0");
}

TEST_F(StoreFunctions, CompareStrOrdersTrimmedTexts) {
  EXPECT_EQ(Query("SELECT MyCompareStr(' beta', 'ALPHA', 0) > 0"), "1");
  EXPECT_EQ(Query("SELECT MyCompareStr('beta', 'ALPHA', 1) > 0"), "1"); // 'b' > 'A'
  EXPECT_EQ(Query("SELECT MyCompareStr('Alpha', 'beta', 1) < 0"), "1");
  EXPECT_EQ(Query("SELECT MyCompareStr('alpha ', 'ALPHA', 0)"), "0");
  EXPECT_EQ(Query("SELECT MyCompareStr('alpha', 'ALPHA', 1) <> 0"), "1");
  EXPECT_EQ(Query("SELECT MyCompareStr(NULL, NULL, 1)"), "0");
}

// --- regular expressions ------------------------------------------------------------

TEST_F(StoreFunctions, RegExpMatchesTextAgainstPattern) {
  EXPECT_EQ(Query("SELECT 'failed to log on' REGEXP 'fail(ed)? to'"), "1");
  EXPECT_EQ(Query("SELECT 'logged on' REGEXP 'fail(ed)? to'"), "0");
  EXPECT_EQ(Query("SELECT 'Logged' REGEXP 'logged'"), "0");
  EXPECT_EQ(Query("SELECT 'Logged' REGEXP '(?i)logged'"), "1");
  EXPECT_EQ(Query("SELECT NULL REGEXP 'x'"), "0");
  EXPECT_EQ(Query("SELECT 'é' REGEXP '^.$'"), "1");                 // UTF mode: one character
  EXPECT_EQ(Query("SELECT CAST(X'FF61' AS TEXT) REGEXP 'a'"), "1"); // invalid UTF-8 is no error
  EXPECT_EQ(Query("SELECT regexp('b+', 'abbc')"), "1");
}

TEST_F(StoreFunctions, RegExpReportsAPatternThatDoesNotCompile) {
  const std::string result = Query("SELECT 'x' REGEXP 'a(b'");
  EXPECT_EQ(result.rfind("error: invalid regular expression \"a(b\": ", 0), 0u) << result;
  EXPECT_NE(result.find("missing closing parenthesis"), std::string::npos) << result;
}

TEST_F(StoreFunctions, RegExpOverManyRowsCompilesOnce) {
  Exec("CREATE TABLE T (Descr TEXT, Pattern TEXT)");
  Exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
       "INSERT INTO T SELECT 'row ' || i, CASE i % 2 WHEN 0 THEN '0$' ELSE '1$' END FROM n");
  uint64_t before = RegExpCompileCount();
  EXPECT_EQ(Query("SELECT count(*) FROM T WHERE Descr REGEXP '[05]$'"), "400");
  EXPECT_EQ(RegExpCompileCount() - before, 1u);
  // Patterns that vary by row come from the connection's cache.
  before = RegExpCompileCount();
  EXPECT_EQ(Query("SELECT count(*) FROM T WHERE Descr REGEXP Pattern"), "400");
  EXPECT_EQ(RegExpCompileCount() - before, 2u);
}

TEST_F(StoreFunctions, RegExpThatHitsTheMatchLimitIsNoMatch) {
  std::string text(40, 'a');
  text.push_back('!');
  EXPECT_EQ(Query("SELECT '" + text + "' REGEXP '^(?:(a|aa)*$|a)'"), "0");
}

// --- description parameters ---------------------------------------------------------

const char* const kLogonDescr = "An account was successfully logged on.\r\n"
                                "\r\n"
                                "Subject:\r\n"
                                "\tSecurity ID:\t\tS-1-5-18\r\n"
                                "\tAccount Name:\t\tPC01$\r\n"
                                "\tAccount Domain:\t\tCORP\r\n"
                                "\tLogon ID:\t\t0x3E7\r\n"
                                "\r\n"
                                "Logon Information:\r\n"
                                "\tLogon Type:\t\t3\r\n"
                                "\tElevated Token:\t\tYes\r\n"
                                "\r\n"
                                "New Logon:\r\n"
                                "\tSecurity ID:\t\tS-1-5-21-1-2-3-1104\r\n"
                                "\tAccount Name:\t\talice\r\n"
                                "\tLogon ID:\t\t0x1A2B3C\r\n"
                                "\tLogon GUID:\t\t{00000000-0000-0000-0000-000000000000}\r\n"
                                "\r\n"
                                "Process Information:\r\n"
                                "\tProcess Name:\t\t-\r\n"
                                "\tCaller Process Name:\t\r\n"
                                "Workstation Name:\tWS7\n"
                                "Time: 12:30:05\r"
                                "Key=Value With = Sign";

TEST_F(StoreFunctions, DescrParamsAreFoundByLabelAndSection) {
  std::string value;
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "Account Name", value));
  EXPECT_EQ(value, "PC01$"); // the first one
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "Subject\\Account Name", value));
  EXPECT_EQ(value, "PC01$");
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "New Logon\\Account Name", value));
  EXPECT_EQ(value, "alice");
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "new logon/logon id", value));
  EXPECT_EQ(value, "0x1A2B3C");
  EXPECT_TRUE(FindDescrParam(kLogonDescr, " logon type ", value));
  EXPECT_EQ(value, "3");
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "Caller Process Name", value));
  EXPECT_EQ(value, "");
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "Workstation Name", value));
  EXPECT_EQ(value, "WS7");
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "Time", value));
  EXPECT_EQ(value, "12:30:05");
  EXPECT_TRUE(FindDescrParam(kLogonDescr, "Key", value));
  EXPECT_EQ(value, "Value With = Sign");
  EXPECT_FALSE(FindDescrParam(kLogonDescr, "Failure Reason", value));
  EXPECT_FALSE(FindDescrParam(kLogonDescr, "Nowhere\\Account Name", value));
  EXPECT_FALSE(FindDescrParam(kLogonDescr, "", value));
  EXPECT_FALSE(FindDescrParam("", "Account Name", value));
}

class StoreFunctionsDescr : public StoreFunctions {
protected:
  void SetUp() override {
    StoreFunctions::SetUp();
    Exec("CREATE TABLE E (Descr TEXT)");
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(FDb, "INSERT INTO E VALUES (?)", -1, &statement, nullptr), SQLITE_OK);
    sqlite3_bind_text(statement, 1, kLogonDescr, -1, SQLITE_STATIC);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_DONE);
    sqlite3_finalize(statement);
  }
  std::string Cond(const std::string& AName, int AOper, const std::string& AValue, int ACase = 0) {
    return Query("SELECT CompareDescrWithCond(Descr, '" + AName + "', " + std::to_string(AOper) + ", '" +
                 AValue + "', " + std::to_string(ACase) + ") FROM E");
  }
};

TEST_F(StoreFunctionsDescr, EveryOperatorOnASecurityEvent) {
  EXPECT_EQ(Cond("Subject\\Account Name", coEquals, "pc01$"), "1");
  EXPECT_EQ(Cond("Subject\\Account Name", coEquals, "pc01$", 1), "0");
  EXPECT_EQ(Cond("New Logon\\Account Name", coEquals, "ALICE"), "1");
  EXPECT_EQ(Cond("New Logon\\Account Name", coEquals, "PC01$"), "0");
  EXPECT_EQ(Cond("New Logon\\Account Name", coNotEqual, "PC01$"), "1");
  EXPECT_EQ(Cond("New Logon\\Account Name", coNotEqual, "alice"), "0");
  EXPECT_EQ(Cond("Subject\\Account Domain", coContains, "or"), "1");
  EXPECT_EQ(Cond("Subject\\Account Domain", coContains, "or", 1), "0");
  EXPECT_EQ(Cond("Subject\\Account Domain", coNotContains, "or", 1), "1");
  EXPECT_EQ(Cond("Subject\\Account Domain", coNotContains, "CO"), "0");
  EXPECT_EQ(Cond("New Logon\\Security ID", coMatches, "^S-1-5-21(-\\d+)+$"), "1");
  EXPECT_EQ(Cond("Subject\\Security ID", coMatches, "^S-1-5-21"), "0");
  EXPECT_EQ(Cond("Subject\\Security ID", coNotMatches, "^S-1-5-21"), "1");
  EXPECT_EQ(Cond("Elevated Token", coMatches, "^yes$"), "1"); // caseless with flag 0
  EXPECT_EQ(Cond("Elevated Token", coMatches, "^yes$", 1), "0");
  EXPECT_EQ(Cond("Logon Type", coInList, "2, 3,10"), "1");
  EXPECT_EQ(Cond("Logon Type", coInList, "2,10"), "0");
  EXPECT_EQ(Cond("Logon Type", coNotInList, "2,10"), "1");
  EXPECT_EQ(Cond("Logon Type", coNotInList, "3"), "0");
  EXPECT_EQ(Cond("Logon Type", coGreater, "10"), "0"); // numerically: 3 < 10
  EXPECT_EQ(Cond("Logon Type", coLess, "10"), "1");
  EXPECT_EQ(Cond("Logon Type", coGreater, "2.5"), "1");
  EXPECT_EQ(Cond("New Logon\\Logon ID", coGreater, "0xFFFF"), "1"); // hex numbers
  EXPECT_EQ(Cond("Subject\\Logon ID", coLess, "1000"), "1");
  EXPECT_EQ(Cond("New Logon\\Account Name", coGreater, "ALEX"), "1"); // text
  EXPECT_EQ(Cond("New Logon\\Account Name", coLess, "ALEX"), "0");
  EXPECT_EQ(Cond("New Logon\\Account Name", 0, "alice"), "0");
  EXPECT_EQ(Cond("New Logon\\Account Name", 11, "alice"), "0");
}

TEST_F(StoreFunctionsDescr, MissingParameterGivesZeroForEveryOperator) {
  for (int oper = coEquals; oper <= coLess; ++oper) {
    EXPECT_EQ(Cond("Failure Reason", oper, "x"), "0") << oper;
    EXPECT_EQ(Cond("Nowhere\\Account Name", oper, "x"), "0") << oper;
    EXPECT_FALSE(CompareDescrWithCond(kLogonDescr, "Failure Reason", oper, "x", false)) << oper;
  }
  EXPECT_EQ(Query("SELECT CompareDescrWithCond(NULL, NULL, NULL, NULL, NULL)"), "0");
  EXPECT_EQ(Query("SELECT CompareDescrWithCond(NULL, 'a', 2, 'b', 0)"), "0");
}

TEST_F(StoreFunctionsDescr, BadPatternInConditionIsAnError) {
  const std::string result = Cond("Logon Type", coMatches, "(");
  EXPECT_EQ(result.rfind("error: invalid regular expression \"(\": ", 0), 0u) << result;
  EXPECT_FALSE(CompareDescrWithCond(kLogonDescr, "Logon Type", coMatches, "(", false));
  EXPECT_FALSE(CompareDescrWithCond(kLogonDescr, "Logon Type", coNotMatches, "(", false));
  EXPECT_TRUE(CompareDescrWithCond(kLogonDescr, "Logon Type", coMatches, "^\\d$", false));
}

// A name is first an event data name, then a description label: a condition on
// TargetUserName reads the Data element of that name, one on "Account Name" the text.
TEST_F(StoreFunctionsDescr, ANameIsAnEventDataNameOrADescriptionLabel) {
  const std::string xml = "'<Event xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\"><EventData>"
                          "<Data Name=\"TargetUserName\">carol</Data><Data Name=\"LogonType\">10</Data>"
                          "</EventData></Event>'";
  auto cond = [&](const std::string& AName, int AOper, const std::string& AValue) {
    return Query("SELECT CompareDescrWithCond(" + xml + ", Descr, '" + AName + "', " + std::to_string(AOper) + ", '" +
                 AValue + "', 0) FROM E");
  };
  EXPECT_EQ(cond("TargetUserName", coEquals, "CAROL"), "1");
  EXPECT_EQ(cond("targetusername", coMatches, "^car"), "1");
  EXPECT_EQ(cond("LogonType", coGreater, "9"), "1");
  EXPECT_EQ(cond("TargetUserName", coEquals, "alice"), "0");
  EXPECT_EQ(cond("New Logon\\Account Name", coEquals, "alice"), "1"); // not in the data: the description's
  EXPECT_EQ(cond("Logon Type", coEquals, "3"), "1");
  EXPECT_EQ(cond("SubjectUserName", coNotEqual, "x"), "0"); // neither has it
  EXPECT_EQ(Query("SELECT CompareDescrWithCond(NULL, NULL, NULL, NULL, NULL, NULL)"), "0");
  EXPECT_EQ(Query("SELECT CompareDescrWithCond('<Event><EventData>', Descr, 'EventData', 1, 'x', 0) FROM E"), "0");
}

// --- custom columns -----------------------------------------------------------------

const char* const kEventXml =
    "<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'>"
    "<System><Provider Name='Microsoft-Windows-Security-Auditing'/><EventID>4624</EventID>"
    "<Execution ProcessID='636' ThreadID='712'/><Computer>PC01</Computer></System>"
    "<EventData><Data Name='SubjectUserSid'>S-1-5-18</Data>"
    "<Data Name='TargetUserName'>alice &amp; bob &lt;x&gt; &#65;&#x42;</Data>"
    "<Data Name='LogonType'>3</Data><Data Name='Status'>0xC000006D</Data>"
    "<Data Name='Ratio'>2.5</Data><Data Name='Empty'></Data></EventData></Event>";

const char* const kUserDataXml =
    "<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'>"
    "<System><EventID>1102</EventID></System>"
    "<UserData><LogFileCleared xmlns='http://manifests.microsoft.com/win/2004/08/"
    "windows/eventlog'><SubjectUserSid>S-1-5-21-9</SubjectUserSid>"
    "<SubjectUserName>admin</SubjectUserName></LogFileCleared></UserData></Event>";

class StoreFunctionsCustom : public StoreFunctions {
protected:
  void SetUp() override {
    StoreFunctions::SetUp();
    Exec("CREATE TABLE E ([EventID] INT, [EvtXML] TEXT, [Descr] TEXT)");
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(FDb, "INSERT INTO E VALUES (?, ?, ?)", -1, &statement, nullptr), SQLITE_OK);
    const std::pair<int, const char*> rows[] = {{4624, kEventXml}, {1102, kUserDataXml}};
    for (const auto& [id, xml] : rows) {
      sqlite3_bind_int(statement, 1, id);
      sqlite3_bind_text(statement, 2, xml, -1, SQLITE_STATIC);
      sqlite3_bind_text(statement, 3, kLogonDescr, -1, SQLITE_STATIC);
      EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
      sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
  }
  // The column for the row with AId.
  std::string Field(int AId, int AKind, const std::string& AExpr, const std::string& AIds, int AFormat,
                    int* AType = nullptr) {
    return Query("SELECT CalculateCustomField([EventID], [EvtXML], " + std::to_string(AKind) +
                     ", [Descr], '" + AExpr + "', '" + AIds + "', " + std::to_string(AFormat) +
                     ") FROM E WHERE [EventID] = " + std::to_string(AId),
                 AType);
  }
};

TEST_F(StoreFunctionsCustom, NamedEventDataAndUserDataValues) {
  EXPECT_EQ(Field(4624, 0, "TargetUserName", "", 0), "alice & bob <x> AB");
  EXPECT_EQ(Field(4624, 0, "targetusername", "", 0), "alice & bob <x> AB");
  EXPECT_EQ(Field(4624, 0, "SubjectUserSid", "", 0), "S-1-5-18");
  EXPECT_EQ(Field(4624, 0, "Empty", "", 0), "");
  EXPECT_EQ(Field(4624, 0, "Missing", "", 0), "NULL");
  EXPECT_EQ(Field(1102, 0, "SubjectUserName", "", 0), "admin");
  EXPECT_EQ(Field(1102, 0, "SubjectUserSid", "", 0), "S-1-5-21-9");
  EXPECT_EQ(Field(1102, 0, "TargetUserName", "", 0), "NULL");
}

TEST_F(StoreFunctionsCustom, DescriptionParametersAndPatterns) {
  EXPECT_EQ(Field(4624, 1, "New Logon\\Account Name", "", 0), "alice");
  EXPECT_EQ(Field(4624, 1, "Failure Reason", "", 0), "NULL");
  EXPECT_EQ(Field(4624, 2, "Logon Type:\\s*(\\d+)", "", 0), "3");
  EXPECT_EQ(Field(4624, 2, "S-1-5-21[-\\d]+", "", 0), "S-1-5-21-1-2-3-1104"); // no group: the whole match
  EXPECT_EQ(Field(4624, 2, "Nothing (here)", "", 0), "NULL");
  EXPECT_EQ(Field(4624, 2, "Logon Type|(never)", "", 0), "NULL"); // the group took no part
  const std::string bad = Field(4624, 2, "([a-", "", 0);
  EXPECT_EQ(bad.rfind("error: invalid regular expression \"([a-\": ", 0), 0u) << bad;
}

TEST_F(StoreFunctionsCustom, XmlPaths) {
  EXPECT_EQ(Field(4624, 3, "System/Execution/@ProcessID", "", 0), "636");
  EXPECT_EQ(Field(4624, 3, "Event/System/Computer", "", 0), "PC01");
  EXPECT_EQ(Field(4624, 3, "EventData/Data[3]", "", 0), "3");
  EXPECT_EQ(Field(4624, 3, "EventData/Data[2]", "", 0), "alice & bob <x> AB");
  EXPECT_EQ(Field(4624, 3, "EventData/Data[9]", "", 0), "NULL");
  EXPECT_EQ(Field(4624, 3, "System/Provider/@Missing", "", 0), "NULL");
  EXPECT_EQ(Field(4624, 3, "System/@Name/Bad", "", 0), "NULL");
  EXPECT_EQ(Field(4624, 3, "EventData/Data[x]", "", 0), "NULL");
  EXPECT_EQ(Field(4624, 3, "", "", 0), "NULL");
}

// An event stored with the names of a catalog (RenderingInfo after EventData): its data
// reads as before, and the names by path.
TEST_F(StoreFunctionsCustom, RenderingInfoNamesByPathAndDataAsBefore) {
  std::string xml = kEventXml;
  TRenderingNames names;
  names.Opcode = "Info";
  names.Keywords = "Audit Success, B";
  ASSERT_TRUE(AddRenderingInfo(xml, names));
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(FDb, "INSERT INTO E VALUES (4625, ?, ?)", -1, &statement, nullptr), SQLITE_OK);
  sqlite3_bind_text(statement, 1, xml.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_text(statement, 2, kLogonDescr, -1, SQLITE_STATIC);
  EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
  sqlite3_finalize(statement);
  EXPECT_EQ(Field(4625, 3, "Event/RenderingInfo/Opcode", "", 0), "Info");
  EXPECT_EQ(Field(4625, 3, "RenderingInfo/Keywords/Keyword[2]", "", 0), "B");
  for (const char* path : {"System/Execution/@ProcessID", "EventData/Data[2]", "Event/System/Computer"})
    EXPECT_EQ(Field(4625, 3, path, "", 0), Field(4624, 3, path, "", 0)) << path;
  EXPECT_EQ(Field(4625, 0, "TargetUserName", "", 0), "alice & bob <x> AB");
}

TEST_F(StoreFunctionsCustom, FormatsTextIntegerAndReal) {
  int type = 0;
  EXPECT_EQ(Field(4624, 0, "LogonType", "", 1, &type), "3");
  EXPECT_EQ(type, SQLITE_INTEGER);
  EXPECT_EQ(Field(4624, 0, "LogonType", "", 0, &type), "3");
  EXPECT_EQ(type, SQLITE_TEXT);
  EXPECT_EQ(Field(4624, 0, "Status", "", 1, &type), "3221225581");
  EXPECT_EQ(type, SQLITE_INTEGER);
  EXPECT_EQ(Field(4624, 0, "Ratio", "", 2, &type), "2.5");
  EXPECT_EQ(type, SQLITE_FLOAT);
  EXPECT_EQ(Field(4624, 0, "Ratio", "", 1), "NULL"); // not an integer
  EXPECT_EQ(Field(4624, 0, "SubjectUserSid", "", 1), "NULL");
  EXPECT_EQ(Field(4624, 0, "SubjectUserSid", "", 2), "NULL");
  EXPECT_EQ(Field(4624, 1, "Subject\\Logon ID", "", 1), "999");
}

TEST_F(StoreFunctionsCustom, EventIdListLimitsTheRows) {
  EXPECT_EQ(Field(4624, 0, "LogonType", "4624", 0), "3");
  EXPECT_EQ(Field(4624, 0, "LogonType", "4600-4700!4625", 0), "3");
  EXPECT_EQ(Field(4624, 0, "LogonType", "4600-4700!4624", 0), "NULL");
  EXPECT_EQ(Field(4624, 0, "LogonType", "4625,1102", 0), "NULL");
  EXPECT_EQ(Field(4624, 0, "LogonType", "!1102", 0), "3");
  EXPECT_EQ(Field(1102, 0, "SubjectUserName", "4625,1102", 0), "admin");
  // The store's update statement over every row.
  Exec("ALTER TABLE E ADD COLUMN CustomField1");
  Exec("UPDATE E SET CustomField1 = CalculateCustomField([EventID], [EvtXML], 0, [Descr], 'LogonType', "
       "'4624-4625', 1)");
  EXPECT_EQ(
      Query("SELECT group_concat(ifnull(CustomField1, 'null')) FROM (SELECT CustomField1 FROM E ORDER BY "
            "EventID)"),
      "null,3");
}

TEST_F(StoreFunctionsCustom, NullsBlobsAndBrokenXmlGiveNull) {
  EXPECT_EQ(Query("SELECT CalculateCustomField(NULL, NULL, NULL, NULL, NULL, NULL, NULL)"), "NULL");
  EXPECT_EQ(Query("SELECT CalculateCustomField(NULL, NULL, 0, NULL, 'x', '4624', 0)"), "NULL");
  EXPECT_EQ(
      Query("SELECT CalculateCustomField(1, '<Event><EventData><Data Name=\"a\">1', 0, '', 'a', '', 0)"),
      "NULL");
  EXPECT_EQ(Query("SELECT CalculateCustomField(1, X'3C00FF', 3, X'FF00', 'a', '', 0)"), "NULL");
  EXPECT_EQ(Query("SELECT CalculateCustomField(1, NULL, 1, X'FF0A613A20620A', 'a', '', 0)"), "b");
  EXPECT_EQ(Query("SELECT CalculateCustomField(1, NULL, 1, 'a: b', 'a', '', 0)"), "b");
  EXPECT_EQ(Query("SELECT CalculateCustomField(1, NULL, 9, 'a: b', 'a', '', 0)"), "NULL");
  EXPECT_EQ(Query("SELECT MyInStr(X'00FF41', 'A', 0)"), "3");
  EXPECT_EQ(Query("SELECT MyInList(X'FF', X'FF2CFF', 0)"), "1");
  EXPECT_EQ(Query("SELECT CompareDescrWithCond(X'FFFE3AFF', X'FFFE', 1, X'FF', 0)"), "1");
}

} // namespace
} // namespace qvx
