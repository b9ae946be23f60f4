#include "automation/alert_patterns.h"

#include "engine/event_model.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <thread>

namespace qvx {
namespace {

namespace fs = std::filesystem;

// A row over a map of field names to texts.
class TMapDataSet : public TAlertDataSet {
public:
  std::map<std::string, std::string> Fields;

  bool FieldText(const std::string& AName, std::string& AValue) const override {
    auto found = Fields.find(AName);
    if (found == Fields.end()) return false;
    AValue = found->second;
    return true;
  }
};

TMapDataSet Event(const std::string& ASource, uint32_t AEventID, int AType) {
  TMapDataSet row;
  row.Fields["Source"] = ASource;
  row.Fields["EventID"] = std::to_string(AEventID);
  row.Fields["Type"] = std::to_string(AType);
  return row;
}

class TTestRequestor : public TAlertRequestor {
public:
  std::string Log = "Application";
  std::string Descr;
  bool Handling = true;
  std::vector<bool> HandlingWhenAsked; // the event handling state at each CurrentEventDescr

  std::string LogName() const override { return Log; }
  std::string CurrentEventDescr() override {
    HandlingWhenAsked.push_back(Handling);
    return Descr;
  }
  bool SetEventHandling(bool AOn) override {
    const bool previous = Handling;
    Handling = AOn;
    return previous;
  }
};

// Records the command lines a rule list starts instead of starting them.
struct TStarted {
  std::vector<std::string> Lines;
  void Attach(TAlertPatterns& APatterns) {
    APatterns.Starter = [this](const std::string& ALine) {
      Lines.push_back(ALine);
      return true;
    };
  }
};

std::string Cat(std::initializer_list<std::string> AParts) {
  std::string text;
  for (const std::string& part : AParts)
    text.append(part);
  return text;
}

std::string ReadText(const fs::path& APath) {
  std::ifstream in(APath, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteText(const fs::path& APath, const std::string& AText) {
  std::ofstream out(APath, std::ios::binary);
  out << AText;
}

// Waits (up to 20 s, polling) for the file a started program writes; its text, or empty.
std::string WaitForFile(const fs::path& APath) {
  for (int i = 0; i < 400 && !fs::exists(APath); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  return ReadText(APath);
}

const uint32_t kError = EventTypeToMask(EVT_ERROR);
const uint32_t kWarning = EventTypeToMask(EVT_WARNING);
const uint32_t kInformation = EventTypeToMask(EVT_INFORMATION);

// A rule's fields as one text: "source|id|type|run|program".
std::string Text(const TAlertPattern& APattern) {
  return APattern.Source + "|" + std::to_string(APattern.EventID) + "|" + std::to_string(APattern.EventType) +
         "|" + (APattern.RunProgram ? "run" : "-") + "|" + APattern.ProgramName;
}

TEST(AlertPatterns, Keys) {
  EXPECT_EQ(TAlertPatterns::MakeKey("Disk", 7), "Disk|7");
  EXPECT_EQ(TAlertPatterns::MakeKey("Disk", kAnyEventID), "Disk|-1");
  EXPECT_EQ(TAlertPatterns::MakeKey("", 0x80000000u), "|-2147483648");
  TAlertPatterns patterns;
  EXPECT_TRUE(static_cast<bool>(patterns.Starter));
  EXPECT_FALSE(patterns.TestEvent(Event("Disk", 7, EVT_ERROR), nullptr)); // an empty list
  patterns.AddPattern("Disk", kAnyEventID, 0, false, "");
  EXPECT_EQ(patterns.Key(0), "Disk|-1");
  EXPECT_THROW(patterns.Key(1), std::out_of_range);
  EXPECT_THROW(patterns.Get(1), std::out_of_range);
}

TEST(AlertPatterns, SameSourceAndIdTwiceKeepsOneRule) {
  TAlertPatterns patterns;
  patterns.AddPattern("Disk", 7, kError, true, "first");
  patterns.AddPattern("Disk", 7, kWarning, false, "second");
  ASSERT_EQ(patterns.Count(), 1u);
  EXPECT_EQ(Text(patterns.Get(0)), "Disk|7|" + std::to_string(kError) + "|run|first");

  auto pattern = std::make_unique<TAlertPattern>();
  pattern->Source = "Disk";
  pattern->EventID = 7;
  EXPECT_FALSE(patterns.AddPattern(std::move(pattern)));
  EXPECT_EQ(patterns.Count(), 1u);

  pattern = std::make_unique<TAlertPattern>();
  pattern->Source = "Disk";
  pattern->EventID = 8;
  pattern->ProgramName = "third";
  EXPECT_TRUE(patterns.AddPattern(std::move(pattern)));
  ASSERT_EQ(patterns.Count(), 2u);
  EXPECT_EQ(patterns.Pattern(1).ProgramName, "third");
  EXPECT_EQ(patterns.Key(1), "Disk|8");
}

TEST(AlertPatterns, KeysIgnoreCaseButTestingDoesNot) {
  TAlertPatterns patterns;
  patterns.AddPattern("Disk", 7, 0, false, "");
  patterns.AddPattern("DISK", 7, 0, false, "");
  ASSERT_EQ(patterns.Count(), 1u);
  EXPECT_EQ(patterns.IndexOf("dIsK", 7), 0);
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 7, EVT_ERROR), nullptr));
  EXPECT_FALSE(patterns.TestEvent(Event("DISK", 7, EVT_ERROR), nullptr));
  EXPECT_FALSE(patterns.TestEvent(Event("disk", 7, EVT_ERROR), nullptr));
}

TEST(AlertPatterns, EmptySourceWithoutTypesNeverFires) {
  TAlertPatterns patterns;
  TStarted started;
  started.Attach(patterns);
  patterns.AddPattern("", 0, 0, true, "never");
  patterns.AddPattern("", kAnyEventID, 0, true, "never");
  for (int type : {0, 1, 2, 3, 4, 5, 12, 13})
    EXPECT_FALSE(patterns.TestEvent(Event("Disk", 0, type), nullptr)) << type;
  EXPECT_FALSE(patterns.TestEvent(Event("", 0, EVT_ERROR), nullptr));
  EXPECT_FALSE(patterns.TestEvent(TMapDataSet(), nullptr));
  EXPECT_TRUE(started.Lines.empty());
}

TEST(AlertPatterns, EmptySourceWithTypesFiresForEveryEventOfThoseTypes) {
  TAlertPatterns patterns;
  patterns.AddPattern("", 5, kError | kWarning, false, "");
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 99, EVT_ERROR), nullptr));
  EXPECT_TRUE(patterns.TestEvent(Event("Other", 5, EVT_WARNING), nullptr));
  EXPECT_TRUE(patterns.TestEvent(Event("", 0, EVT_ERROR), nullptr));
  EXPECT_FALSE(patterns.TestEvent(Event("Disk", 5, EVT_INFORMATION), nullptr));
  EXPECT_FALSE(patterns.TestEvent(Event("Disk", 5, EVT_AUDIT_FAILURE), nullptr));
  EXPECT_FALSE(patterns.TestEvent(Event("Disk", 5, 7), nullptr)); // reserved: no type bit
  EXPECT_FALSE(patterns.TestEvent(Event("Disk", 5, 300), nullptr));
}

TEST(AlertPatterns, AnyIdOfSource) {
  TAlertPatterns patterns;
  patterns.AddPattern("Disk", kAnyEventID, 0, false, "");
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 1, EVT_INFORMATION), nullptr));
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 123456, EVT_AUDIT_SUCCESS), nullptr));
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 0, 7), nullptr)); // mask 0: any type, reserved ones too
  EXPECT_FALSE(patterns.TestEvent(Event("Other", 1, EVT_INFORMATION), nullptr));

  TAlertPatterns typed;
  typed.AddPattern("Disk", kAnyEventID, kInformation, false, "");
  EXPECT_TRUE(typed.TestEvent(Event("Disk", 44, EVT_INFORMATION), nullptr));
  EXPECT_FALSE(typed.TestEvent(Event("Disk", 44, EVT_ERROR), nullptr));
}

TEST(AlertPatterns, SingleEventId) {
  TAlertPatterns patterns;
  patterns.AddPattern("Disk", 7, kError, false, "");
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 7, EVT_ERROR), nullptr));
  EXPECT_FALSE(patterns.TestEvent(Event("Disk", 8, EVT_ERROR), nullptr));
  EXPECT_FALSE(patterns.TestEvent(Event("Disk", 7, EVT_WARNING), nullptr));
  // Event IDs read as signed text reach the same rule.
  TMapDataSet row = Event("Disk", 7, EVT_ERROR);
  row.Fields["EventID"] = "-1";
  EXPECT_FALSE(patterns.TestEvent(row, nullptr));
  patterns.AddPattern("Disk", 0xFFFFFFFEu, 0, false, "");
  row.Fields["EventID"] = "-2";
  EXPECT_TRUE(patterns.TestEvent(row, nullptr));
}

TEST(AlertPatterns, FirstMatchingRuleAloneDecides) {
  TAlertPatterns patterns;
  TStarted started;
  started.Attach(patterns);
  patterns.AddPattern("Disk", kAnyEventID, 0, false, "quiet");
  patterns.AddPattern("Disk", 7, 0, true, "loud");
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 7, EVT_ERROR), nullptr));
  EXPECT_TRUE(started.Lines.empty());

  TAlertPatterns ordered;
  started.Attach(ordered);
  ordered.AddPattern("Disk", 8, 0, true, "not me");
  ordered.AddPattern("", 0, kError, true, "first");
  ordered.AddPattern("Disk", 7, 0, true, "second");
  EXPECT_TRUE(ordered.TestEvent(Event("Disk", 7, EVT_ERROR), nullptr));
  EXPECT_EQ(started.Lines, std::vector<std::string>{"first"});
}

TEST(AlertPatterns, MatchStartsExpandedCommandLine) {
  TAlertPatterns patterns;
  TStarted started;
  started.Attach(patterns);
  patterns.AddPattern("Disk", 7, 0, true, "notify [Source] [EventID] [TypeStr] [LogName]");
  TTestRequestor requestor;
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 7, EVT_ERROR), &requestor));
  EXPECT_TRUE(patterns.TestEvent(Event("Disk", 7, EVT_WARNING), nullptr));
  EXPECT_EQ(started.Lines,
            (std::vector<std::string>{"notify Disk 7 Error Application", "notify Disk 7 Warning [LogName]"}));
  EXPECT_TRUE(requestor.Handling);
}

TEST(AlertPatterns, FixedAndFieldMacros) {
  TMapDataSet row = Event("Disk", 7, EVT_AUDIT_FAILURE);
  row.Fields["Computer"] = "HOST1";
  row.Fields["Empty"] = "";
  row.Fields["Tricky"] = "[Source]";
  row.Fields["X"] = "v";
  TTestRequestor requestor;
  requestor.Log = "Security";
  requestor.Descr = "Something happened.";
  const struct {
    const char* Text;
    bool Requestor;
    const char* Expected;
  } cases[] = {
      {"a[CRLF]b[crlf]", false, "a\r\nb\r\n"},
      {"[LogName]: [TypeStr]", true, "Security: Audit Failure"},
      {"[LogName]", false, "[LogName]"},
      {"<[Description]>", true, "<Something happened.>"},
      {"<[Description]>", false, "<[Description]>"},
      {"no macros", false, "no macros"},
      {"", false, ""},
      {"[Computer]/[Source]/[EventID]/[Empty]/", false, "HOST1/Disk/7//"},
      {"x [NoSuchField] y [Source]", false, "x [NoSuchField] y Disk"},
      {"[]", false, "[]"},
      {"[Tricky]", false, "[Source]"}, // values are not scanned again
      // Nested and unbalanced brackets: the outer "]" pairs with the inner "[".
      {"a]b[c", false, "a]b[c"},
      {"]", false, "]"},
      {"[", false, "["},
      {"[[X]]", false, "[[X]]"},
      {"[X]]", false, "[X]]"},
      {"[[X]", false, "[v"},
      {"[a[X]", false, "[av"},
      {"[X][X]", false, "vv"},
      {"]a[X]", false, "]av"},
      {"[Y] and [X]", false, "[Y] and v"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(TAlertPatterns::ExpandMacros(c.Text, row, c.Requestor ? &requestor : nullptr), c.Expected)
        << c.Text;
}

TEST(AlertPatterns, TypeStrNames) {
  const std::map<int, std::string> names = {
      {0, "0"}, {1, "Verbose"}, {2, "Information"},    {3, "Warning"},        {4, "Error"}, {5, "Critical"},
      {6, ""},  {11, ""},       {12, "Audit Success"}, {13, "Audit Failure"}, {14, ""}};
  for (const auto& [type, name] : names)
    EXPECT_EQ(TAlertPatterns::ExpandMacros("[TypeStr]", Event("S", 1, type), nullptr), name) << type;
  EXPECT_EQ(TAlertPatterns::ExpandMacros("[TypeStr]", TMapDataSet(), nullptr), "[TypeStr]");
}

TEST(AlertPatterns, DescriptionParts) {
  TTestRequestor requestor;
  requestor.Descr = "Line one\r\nUser:   alice \t\r\nDomain: CORP\r\nPath: C:\\x\\y.txt end\nUser: bob";
  TMapDataSet row = Event("S", 1, EVT_ERROR);
  auto expand = [&](const std::string& AText) {
    return TAlertPatterns::ExpandMacros(AText, row, &requestor);
  };
  EXPECT_EQ(expand("[Descr:User:]"), "alice");
  EXPECT_EQ(expand("[Descr:User:\\]"), "alice");
  EXPECT_EQ(expand("[descr:Domain:]"), "CORP");
  EXPECT_EQ(expand("[Descr:Path:\\end]"), "C:\\x\\y.txt");
  // Only blanks and tabs are trimmed; line breaks inside the part stay.
  EXPECT_EQ(expand("[Descr:Domain:\\Path]"), "CORP\r\n");
  EXPECT_EQ(expand("[Descr:Missing:]"), "");
  EXPECT_EQ(expand("<[Descr:User:\\nowhere]>"), "<>");
  EXPECT_EQ(expand("[Descr:]"), "Line one");
  EXPECT_EQ(expand("[Descr:\\one]"), "Line");
  EXPECT_EQ(expand("[Descr:User:][CRLF][Descr:Domain:]"), "alice\r\nCORP");

  // Without a requestor the row's field "Descr" is the description.
  row.Fields["Descr"] = "Code: 42 (bad)";
  EXPECT_EQ(TAlertPatterns::ExpandMacros("[Descr:Code:\\(]", row, nullptr), "42");
  EXPECT_EQ(TAlertPatterns::ExpandMacros("[Descr:(\\)]", row, nullptr), "bad");
  EXPECT_EQ(TAlertPatterns::ExpandMacros("[Descr:Code:]", TMapDataSet(), nullptr), "");
}

TEST(AlertPatterns, EventHandlingOffWhileExpanding) {
  TTestRequestor requestor;
  requestor.Descr = "d";
  TMapDataSet row = Event("S", 1, EVT_ERROR);
  EXPECT_EQ(TAlertPatterns::ExpandMacros("[Description][Descr:]", row, &requestor), "dd");
  EXPECT_EQ(requestor.HandlingWhenAsked, std::vector<bool>{false});
  EXPECT_TRUE(requestor.Handling);

  requestor.Handling = false;
  requestor.HandlingWhenAsked.clear();
  EXPECT_EQ(TAlertPatterns::ExpandMacros("[Description]", row, &requestor), "d");
  EXPECT_EQ(requestor.HandlingWhenAsked, std::vector<bool>{false});
  EXPECT_FALSE(requestor.Handling);
}

TEST(AlertPatterns, ChangeRemoveClearAssign) {
  TAlertPatterns patterns;
  patterns.AddPattern("A", 1, 0, false, "a");
  patterns.AddPattern("B", 2, kError, true, "b");
  patterns.AddPattern("C", 3, 0, false, "c");

  patterns.ChangePatternIndex(-1, "X", 9, 0, false, "x");
  patterns.ChangePatternIndex(3, "X", 9, 0, false, "x");
  EXPECT_EQ(patterns.Key(0), "A|1");

  patterns.ChangePatternIndex(1, "Bee", kAnyEventID, kWarning, false, "bee");
  EXPECT_EQ(patterns.Key(1), "Bee|-1");
  EXPECT_EQ(Text(patterns.Get(1)), "Bee|4294967295|" + std::to_string(kWarning) + "|-|bee");
  EXPECT_EQ(patterns.IndexOf("B", 2), -1);
  EXPECT_EQ(patterns.IndexOf("bee", kAnyEventID), 1);

  TAlertPatterns copy;
  copy.AddPattern("Old", 1, 0, false, "");
  patterns.AssignTo(copy);
  ASSERT_EQ(copy.Count(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(copy.Key(i), patterns.Key(i));
    EXPECT_EQ(Text(copy.Get(i)), Text(patterns.Get(i)));
    EXPECT_NE(&copy.Get(i), &patterns.Get(i));
  }

  patterns.RemovePattern("a", 1);
  ASSERT_EQ(patterns.Count(), 2u);
  EXPECT_EQ(patterns.Key(0), "Bee|-1");
  patterns.RemovePattern("Nope", 1);
  patterns.RemovePatternIndex(-1);
  patterns.RemovePatternIndex(2);
  EXPECT_EQ(patterns.Count(), 2u);
  patterns.RemovePatternIndex(1);
  ASSERT_EQ(patterns.Count(), 1u);
  EXPECT_EQ(patterns.Key(0), "Bee|-1");
  patterns.ClearAll();
  EXPECT_EQ(patterns.Count(), 0u);
  EXPECT_EQ(copy.Count(), 3u);

  TAlertPattern dest;
  copy.Get(1).AssignTo(dest);
  EXPECT_EQ(Text(dest), "Bee|4294967295|" + std::to_string(kWarning) + "|-|bee");
}

TEST(AlertPatterns, FileRoundTrip) {
  const fs::path dir = test::ScratchDir();
  const std::string file = (dir / "alerts.xml").string();
  TAlertPatterns patterns;
  patterns.AddPattern("Disk", 7, kError | kWarning, true, "notify \"[Source]\" & <[EventID]>");
  patterns.AddPattern("Gr\xC3\xBC\xC3\x9F\x65", kAnyEventID, 0, false, "");
  patterns.AddPattern("", 0, kInformation, false, "x");
  patterns.SaveToFile(file);

  const std::string text = ReadText(file);
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>", 0), 0u) << text;
  EXPECT_NE(text.find("<AlertPatterns>"), std::string::npos) << text;
  EXPECT_NE(text.find("Id=\"4294967295\""), std::string::npos) << text;
  EXPECT_NE(text.find("RunProgram=\"1\""), std::string::npos) << text;

  TAlertPatterns loaded;
  loaded.AddPattern("Stale", 1, 0, false, "");
  loaded.LoadFromFile(file);
  ASSERT_EQ(loaded.Count(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(loaded.Key(i), patterns.Key(i));
    EXPECT_EQ(Text(loaded.Get(i)), Text(patterns.Get(i)));
  }
}

TEST(AlertPatterns, LoadingDropsDuplicatesAndReadsMissingAsEmpty) {
  const fs::path dir = test::ScratchDir();
  const fs::path file = dir / "alerts.xml";
  WriteText(file,
            "<?xml version=\"1.0\"?>\n<AlertPatterns>\n"
            "  <Alert Source=\"Disk\" Id=\"-1\" EventType=\"8\" RunProgram=\"1\" ProgramName=\"one\"/>\n"
            "  <Alert Source=\"DISK\" Id=\"4294967295\" ProgramName=\"dup\"/>\n"
            "  <Other Source=\"Ignored\"/>\n"
            "  <Alert/>\n"
            "  <Alert Source=\"Net\" Id=\"12\" RunProgram=\"2\"/>\n"
            "</AlertPatterns>\n");
  TAlertPatterns patterns;
  patterns.LoadFromFile(file.string());
  ASSERT_EQ(patterns.Count(), 3u);
  EXPECT_EQ(patterns.Key(0), "Disk|-1");
  EXPECT_EQ(Text(patterns.Get(0)), "Disk|4294967295|8|run|one");
  EXPECT_EQ(patterns.Key(1), "|0");
  EXPECT_EQ(Text(patterns.Get(1)), "|0|0|-|");
  EXPECT_EQ(patterns.Key(2), "Net|12");
  EXPECT_EQ(Text(patterns.Get(2)), "Net|12|0|run|");
}

TEST(AlertPatterns, LoadXmlAndSaveXmlOnNodes) {
  TAlertPatterns patterns;
  patterns.AddPattern("A", 1, 2, true, "p");
  pugi::xml_document doc;
  pugi::xml_node root = doc.append_child("Workspace");
  patterns.SaveXML(root);
  pugi::xml_node alert = root.child("Alert");
  ASSERT_TRUE(alert);
  EXPECT_STREQ(alert.attribute("Source").value(), "A");
  EXPECT_STREQ(alert.attribute("Id").value(), "1");
  EXPECT_STREQ(alert.attribute("EventType").value(), "2");
  EXPECT_STREQ(alert.attribute("RunProgram").value(), "1");
  EXPECT_STREQ(alert.attribute("ProgramName").value(), "p");

  TAlertPatterns loaded;
  loaded.AddPattern("Old", 1, 0, false, "");
  loaded.LoadXML(root);
  ASSERT_EQ(loaded.Count(), 1u);
  EXPECT_EQ(loaded.Key(0), "A|1");
}

TEST(AlertPatterns, BadFilesLeaveTheListUnchanged) {
  const fs::path dir = test::ScratchDir();
  TAlertPatterns patterns;
  patterns.AddPattern("Keep", 1, 0, false, "kept");

  auto expectError = [&](const fs::path& AFile, const std::string& APart) {
    try {
      patterns.LoadFromFile(AFile.string());
      ADD_FAILURE() << "no error for " << AFile;
    } catch (const EAlertPatternsError& e) {
      const std::string message = e.what();
      EXPECT_NE(message.find(AFile.string()), std::string::npos) << message;
      EXPECT_NE(message.find(APart), std::string::npos) << message;
    }
    ASSERT_EQ(patterns.Count(), 1u);
    EXPECT_EQ(patterns.Key(0), "Keep|1");
  };

  expectError(dir / "missing.xml", "cannot be read");

  const fs::path notXml = dir / "broken.xml";
  WriteText(notXml, "<AlertPatterns><Alert Source=\"A\" Id=\"1\"/><Alert Source=\"B\"");
  expectError(notXml, "offset");

  const fs::path wrongRoot = dir / "wrong.xml";
  WriteText(wrongRoot, "<?xml version=\"1.0\"?><Colors><Alert Source=\"A\" Id=\"1\"/></Colors>");
  expectError(wrongRoot, "AlertPatterns");
}

// A script that writes each of its arguments after the first, one a line, to the file
// named by its first argument (through a temporary file, so the file appears complete).
fs::path WriteArgsScript(const fs::path& ADir) {
  fs::path script = ADir / "args.sh";
  WriteText(script, "out=\"$1\"\nshift\nprintf '%s\\n' \"$@\" > \"$out.tmp\" && mv \"$out.tmp\" \"$out\"\n");
  return script;
}

TEST(AlertPatterns, RunsProgram) {
  const fs::path dir = test::ScratchDir();
  const fs::path script = WriteArgsScript(dir);
  const fs::path out = dir / "out.txt";
  TAlertPatterns patterns;
  patterns.AddPattern(
      "My Source", 7, 0, true,
      Cat({"/bin/sh \"", script.string(), "\" \"", out.string(), "\" [EventID] \"[Source]\""}));
  EXPECT_TRUE(patterns.TestEvent(Event("My Source", 7, EVT_ERROR), nullptr));
  EXPECT_EQ(WaitForFile(out), "7\nMy Source\n");
}

TEST(AlertPatterns, MacroValuesCannotStartAnotherProgram) {
  const fs::path dir = test::ScratchDir();
  const fs::path script = WriteArgsScript(dir);
  const std::string d = dir.string();
  TAlertPatterns patterns;
  const std::string programName =
      Cat({"/bin/sh \"", script.string(), "\" \"", d, "/[Out]\" \"[Source]\" [User] \"[Descr]\""});
  patterns.AddPattern("", 0, kError, true, programName);

  // Quoted: the value arrives as one argument, untouched.
  TMapDataSet row =
      Event(Cat({"; touch ", d, "/X1 `touch ", d, "/X2` $(touch ", d, "/X3) | &"}), 1, EVT_ERROR);
  row.Fields["Out"] = "out1.txt";
  row.Fields["User"] = "plain";
  row.Fields["Descr"] = "> x";
  EXPECT_TRUE(patterns.TestEvent(row, nullptr));
  EXPECT_EQ(WaitForFile(dir / "out1.txt"), Cat({row.Fields["Source"], "\nplain\n> x\n"}));

  // A value with quotes can split arguments, but they all go to the one program.
  row.Fields["Source"] = Cat({"a\" ; touch ", d, "/X4 ; \"b"});
  row.Fields["User"] = Cat({"&&touch ", d, "/X5"});
  row.Fields["Out"] = "out2.txt";
  EXPECT_TRUE(patterns.TestEvent(row, nullptr));
  EXPECT_EQ(WaitForFile(dir / "out2.txt"),
            Cat({"a\n;\ntouch\n", d, "/X4\n;\nb\n&&touch\n", d, "/X5\n> x\n"}));

  for (int i = 1; i <= 5; ++i)
    EXPECT_FALSE(fs::exists(dir / Cat({"X", std::to_string(i)}))) << i;
}

} // namespace
} // namespace qvx
