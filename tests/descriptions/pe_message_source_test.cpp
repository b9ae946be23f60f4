// A provider's message module read end to end: the message table in the chosen language,
// the WEVT_TEMPLATE resource, and event and task texts found through both.
#include "descriptions/pe_message_source.h"

#include "support/pe_writer.h"
#include "support/test_paths.h"
#include "support/wevt_writer.h"

#include <gtest/gtest.h>

namespace qvx {
namespace {

using namespace qvx::test;

// A module with German and English message tables and a WEVT_TEMPLATE for one provider:
// event 7036 (versions 0 and 1) and task 3.
std::vector<uint8_t> ModuleImage(const TProviderGuid& AGuid) {
  auto table = [](std::u16string_view ATask, std::u16string_view AEvent) {
    return BuildMessageTable({{0x70000003, 0x70000003, {UnicodeEntry(ATask)}, {}},
                              {0xB0001B7C, 0xB0001B7D, {UnicodeEntry(AEvent), AnsiEntry("v1 %1\r\n")}, {}}});
  };
  TWevtProviderDraft provider;
  provider.Guid = AGuid;
  TWevtElementDraft events;
  events.Signature = "EVNT";
  events.Kind = 4;
  TWevtEventDraft v0, v1;
  v0.Id = v1.Id = 7036;
  v0.MessageId = 0xB0001B7C;
  v1.Version = 1;
  v1.MessageId = 0xB0001B7D;
  events.Events = {v1, v0};
  TWevtElementDraft tasks;
  tasks.Signature = "TASK";
  tasks.Kind = 1;
  TWevtTaskDraft task;
  task.Value = 3;
  task.MessageId = 0x70000003;
  tasks.Tasks = {task};
  provider.Elements = {events, tasks};
  TWevtResourceDraft resource;
  resource.Providers = {provider};
  TPeWriter pe;
  pe.Add(rtMessageTable, 1, 0x407, table(u"Dienst\r\n", u"Der Dienst %1 wurde %2.\r\n"))
      .Add(rtMessageTable, 1, 0x409, table(u"Service\r\n", u"The %1 service entered the %2 state.\r\n"))
      .Add("WEVT_TEMPLATE", 1, 0x409, BuildWevtResource(resource));
  return pe.Build();
}

TEST(PeMessageSource, TableInTheFirstPreferredLanguage) {
  const auto image = ModuleImage(MakeTestGuid(1));
  TPeMessageSource german, english, fallback;
  ASSERT_TRUE(german.Open(image, {0x407}));
  ASSERT_TRUE(english.Open(image, {0x40C, 0x409}));
  ASSERT_TRUE(fallback.Open(image, {0x411})); // no Japanese: en-US
  std::string text;
  ASSERT_TRUE(german.FindMessage(0xB0001B7C, text));
  EXPECT_EQ(text, "Der Dienst %1 wurde %2.\r\n");
  ASSERT_TRUE(english.FindMessage(0xB0001B7C, text));
  EXPECT_EQ(text, "The %1 service entered the %2 state.\r\n");
  ASSERT_TRUE(fallback.FindMessage(0x70000003, text));
  EXPECT_EQ(text, "Service\r\n");
  EXPECT_FALSE(english.FindMessage(0xB0001B7E, text));
  EXPECT_FALSE(english.FindMessage(kNoMessageId, text));
}

TEST(PeMessageSource, ProviderTextsThroughTheModulesOwnTemplate) {
  const TProviderGuid guid = MakeTestGuid(7);
  const auto image = ModuleImage(guid);
  TPeMessageSource module;
  ASSERT_TRUE(module.Open(image, {0x409}));
  const auto wevt = module.WevtTemplate();
  ASSERT_TRUE(wevt.has_value());
  TGuidProvider provider;
  provider.SetGuid(guid);
  ASSERT_TRUE(provider.Process(*wevt)) << provider.Issue();
  std::string text;
  ASSERT_TRUE(provider.EventMessage(7036, 1, module, text));
  EXPECT_EQ(text, "v1 %1\r\n");
  ASSERT_TRUE(provider.EventMessage(7036, 9, module, text)); // unknown version: the lowest
  EXPECT_EQ(text, "The %1 service entered the %2 state.\r\n");
  ASSERT_TRUE(provider.TaskMessage(3, module, text));
  EXPECT_EQ(text, "Service\r\n");
  EXPECT_FALSE(provider.TaskMessage(4, module, text));
}

TEST(PeMessageSource, NotAModuleOrNoTable) {
  TPeMessageSource source;
  const std::vector<uint8_t> text(200, 'x');
  EXPECT_FALSE(source.Open(text, {}));
  EXPECT_NE(source.Error().find("PE"), std::string::npos) << source.Error();
  EXPECT_FALSE(source.Load("/nonexistent/module.dll", {}));
  TPeWriter pe;
  pe.Add(rtVersion, 1, 0x409, {1, 2, 3, 4});
  const auto image = pe.Build();
  ASSERT_TRUE(source.Open(image, {}));
  EXPECT_FALSE(source.HasMessageTable());
  std::string found;
  EXPECT_FALSE(source.FindMessage(1, found));
  EXPECT_FALSE(source.WevtTemplate().has_value());
}

TEST(PeMessageSource, SampleModuleWithTemplate) {
  const auto root = SamplesDir() / "pe" / "plaso" / "wrc-test-wevt_template.dll";
  if (!std::filesystem::exists(root)) GTEST_SKIP() << "no sample " << root;
  TPeMessageSource module;
  ASSERT_TRUE(module.Load(root.string(), {0x409})) << module.Error();
  ASSERT_TRUE(module.WevtTemplate().has_value());
  TGuidProvider provider;
  TProviderGuid guid;
  ASSERT_TRUE(ParseProviderGuid("{67883bbc-d592-4d02-8e29-66907fcb07d6}", guid));
  provider.SetGuid(guid);
  ASSERT_TRUE(provider.Process(*module.WevtTemplate())) << provider.Issue();
  std::string text;
  ASSERT_TRUE(provider.EventMessage(1, 1, module, text));
  EXPECT_EQ(text, "A test value\r\n");
}

} // namespace
} // namespace qvx
