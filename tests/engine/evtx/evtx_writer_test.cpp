// The EVTX writer's own invariants: CRCs, header fields, name and template reuse, chunk-full
// behaviour. (The decoder has its own tests; nothing here reads records back through it.)
#include "engine/evtx/evtx_writer.h"
#include "support/evtx_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace qvx {
namespace {

std::vector<uint8_t> Utf16Bytes(std::u16string_view AText) {
  std::vector<uint8_t> out;
  for (char16_t c : AText) {
    out.push_back(static_cast<uint8_t>(c));
    out.push_back(static_cast<uint8_t>(c >> 8));
  }
  return out;
}

size_t CountOccurrences(std::span<const uint8_t> AHaystack, const std::vector<uint8_t>& ANeedle) {
  size_t n = 0;
  auto at = AHaystack.begin();
  while ((at = std::search(at, AHaystack.end(), ANeedle.begin(), ANeedle.end())) != AHaystack.end()) {
    ++n;
    ++at;
  }
  return n;
}

TEST(EvtxWriter, Crc32MatchesTheUsualCheckValue) {
  const std::string text = "123456789";
  std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  EXPECT_EQ(EvtxCrc32(bytes), 0xCBF43926u);
  EXPECT_EQ(EvtxCrc32(bytes.subspan(4), EvtxCrc32(bytes.subspan(0, 4))), 0xCBF43926u);
  EXPECT_EQ(EvtxCrc32({}), 0u);
}

TEST(EvtxWriter, NameHashIsLow16BitsOfTheMultiplicativeHash) {
  uint64_t h = 0;
  for (char16_t c : std::u16string(u"EventData"))
    h = (h * 65599 + c) & 0xFFFFFFFFu;
  EXPECT_EQ(EvtxNameHash(u"EventData"), static_cast<uint16_t>(h));
  EXPECT_EQ(EvtxNameHash(u""), 0);
  EXPECT_EQ(EvtxNameHash(u"A"), 0x41);
  EXPECT_EQ(EvtxNameHash(u"AB"), static_cast<uint16_t>(0x41 * 65599 + 0x42));
}

TEST(EvtxWriter, FileTimeAndValueEncodings) {
  EXPECT_EQ(EvtxFileTime(1970, 1, 1), 116444736000000000ull);
  EXPECT_EQ(EvtxFileTime(1601, 1, 1), 0ull);
  EXPECT_EQ(EvtxFileTime(2024, 3, 5, 10, 11, 12, 3) - EvtxFileTime(2024, 3, 5),
            (10 * 3600 + 11 * 60 + 12) * 10000000ull + 3);

  TEvtxGuid guid = EvtxParseGuid("{01234567-89AB-CDEF-0123-456789ABCDEF}");
  const TEvtxGuid expected = {0x67, 0x45, 0x23, 0x01, 0xAB, 0x89, 0xEF, 0xCD,
                              0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
  EXPECT_EQ(guid, expected);
  EXPECT_EQ(EvtxParseGuid("01234567-89ab-cdef-0123-456789abcdef"), expected);
  EXPECT_THROW(EvtxParseGuid("{01234567-89AB-CDEF-0123-456789ABCDE}"), std::invalid_argument);

  TEvtxValue sid = TEvtxValue::Sid("S-1-5-21-1-2-513");
  const std::vector<uint8_t> sidBytes = {1, 4, 0, 0, 0, 0, 0, 5, 21,   0,    0, 0,
                                         1, 0, 0, 0, 2, 0, 0, 0, 0x01, 0x02, 0, 0};
  EXPECT_EQ(sid.Type(), EvtxType::Sid);
  EXPECT_EQ(sid.Bytes(), sidBytes);
  EXPECT_THROW(TEvtxValue::Sid("S-1"), std::invalid_argument);
  EXPECT_THROW(TEvtxValue::Sid("X-1-5"), std::invalid_argument);

  EXPECT_EQ(TEvtxValue::Int16(-2).Bytes(), (std::vector<uint8_t>{0xFE, 0xFF}));
  EXPECT_EQ(TEvtxValue::Bool(true).Bytes(), (std::vector<uint8_t>{1, 0, 0, 0}));
  EXPECT_EQ(TEvtxValue::SizeT(5, false).Bytes().size(), 4u);
  EXPECT_EQ(TEvtxValue::SizeT(5).Bytes().size(), 8u);
  EXPECT_EQ(TEvtxValue::String("h\u00E9").Bytes(), (std::vector<uint8_t>{'h', 0, 0xE9, 0}));
  TEvtxValue strings = TEvtxValue::StringArray({"a", "bc"});
  EXPECT_EQ(strings.Type(), 0x81);
  EXPECT_EQ(strings.Bytes(), (std::vector<uint8_t>{'a', 0, 0, 0, 'b', 0, 'c', 0, 0, 0}));
  const uint16_t shorts[2] = {1, 0x0302};
  EXPECT_EQ(TEvtxValue::UInt16Array(shorts).Type(), 0x86);
  EXPECT_EQ(TEvtxValue::UInt16Array(shorts).Bytes(), (std::vector<uint8_t>{1, 0, 2, 3}));
  EXPECT_EQ(TEvtxValue::SystemTime(2024, 3, 2, 5, 10, 11, 12, 13).Bytes().size(), 16u);
}

TEST(EvtxWriter, ElementLayoutAndNameReuse) {
  std::vector<uint8_t> out;
  TEvtxChunkTables tables;
  TBinXmlWriter w(out, tables, 512);
  w.OpenElement("A", 0xFFFF); // with a dependency id, as inside template definitions
  w.CloseEmptyElement();
  w.OpenElement("A"); // outside a template definition: no dependency id
  w.CloseEmptyElement();

  const uint16_t hash = EvtxNameHash(u"A");
  const std::vector<uint8_t> expected = {
      // first <A/>: token, dependency id, data size 17, name offset 523, inline name string
      0x01, 0xFF, 0xFF, 17, 0, 0, 0, 0x0B, 0x02, 0, 0,                                             //
      0, 0, 0, 0, static_cast<uint8_t>(hash), static_cast<uint8_t>(hash >> 8), 1, 0, 'A', 0, 0, 0, //
      0x03,                                                                                        //
      // second <A/>: no dependency id, refers to the same string, data size 5
      0x01, 5, 0, 0, 0, 0x0B, 0x02, 0, 0, 0x03};
  EXPECT_EQ(out, expected);
  EXPECT_EQ(tables.FindName("A"), 523u);
  EXPECT_EQ(tables.NameBuckets()[hash % 64], 523u);
  EXPECT_EQ(w.Position(), 512 + expected.size());
}

TEST(EvtxWriter, AttributesSetFlagsAndListSize) {
  std::vector<uint8_t> out;
  TEvtxChunkTables tables;
  TBinXmlWriter w(out, tables, 1000);
  w.OpenElement("E", 0xFFFF);
  w.Attribute("x");
  w.Text("1");
  w.Attribute("y");
  w.Substitution(3, EvtxType::UInt32, true);
  w.CloseStartElement();
  w.Text("t");
  w.EndElement();

  // token(1) dep(2) size(4) name offset(4) name string(12: one character) attribute list size(4)
  ASSERT_GE(out.size(), 27u);
  EXPECT_EQ(out[0], 0x41);
  const size_t listSizeAt = 23;
  const size_t firstAttr = 27;
  EXPECT_EQ(out[firstAttr], 0x46);
  // attribute: token(1) name offset(4) name string(12) value text 0x05 0x01 count(2) '1'(2)
  const size_t secondAttr = firstAttr + 1 + 4 + 12 + 6;
  EXPECT_EQ(out[secondAttr], 0x06);
  const size_t closeAt = secondAttr + 1 + 4 + 12 + 4; // then 0x0E index(2) type(1)
  EXPECT_EQ(out[closeAt - 4], 0x0E);
  EXPECT_EQ(out[closeAt], 0x02);
  EXPECT_EQ(EvtxGet32(out.data() + listSizeAt), closeAt - listSizeAt - 4);
  EXPECT_EQ(out.back(), 0x04);
  EXPECT_EQ(EvtxGet32(out.data() + 3), out.size() - 7);
}

TEST(EvtxWriter, UnbalancedTemplateBodyIsRejected) {
  TEvtxChunkWriter chunk;
  TEvtxTemplate open("open", [](TBinXmlWriter& w) { w.OpenElement("A"); });
  EXPECT_THROW(chunk.AddRecord(1, 0, open, {}), std::logic_error);
  EXPECT_TRUE(chunk.Empty());
  EXPECT_EQ(chunk.FreeSpaceOffset(), kEvtxChunkHeaderSize);
  EXPECT_EQ(chunk.Tables().NameCount(), 0u);
  EXPECT_EQ(chunk.Tables().TemplateCount(), 0u);
}

TEST(EvtxWriter, ChunkHeaderRecordsAndCrcs) {
  TEvtxChunkWriter writer = test::MakeChunkWriter(7, 5);
  std::vector<uint8_t> c = writer.Finish();
  ASSERT_EQ(c.size(), kEvtxChunkSize);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(c.data()), 8), std::string("ElfChnk\0", 8));
  EXPECT_EQ(EvtxGet64(c.data() + 8), 7u);
  EXPECT_EQ(EvtxGet64(c.data() + 16), 11u);
  EXPECT_EQ(EvtxGet64(c.data() + 24), 7u);
  EXPECT_EQ(EvtxGet64(c.data() + 32), 11u);
  EXPECT_EQ(EvtxGet32(c.data() + 40), 128u);
  const uint32_t free = EvtxGet32(c.data() + 48);
  EXPECT_EQ(free, writer.FreeSpaceOffset());
  EXPECT_EQ(EvtxGet32(c.data() + 44), writer.RecordOffsets().back());
  EXPECT_EQ(EvtxGet32(c.data() + 52), EvtxCrc32(std::span<const uint8_t>(c).subspan(512, free - 512)));
  uint32_t headerCrc = EvtxCrc32(std::span<const uint8_t>(c).subspan(0, 120));
  headerCrc = EvtxCrc32(std::span<const uint8_t>(c).subspan(128, 384), headerCrc);
  EXPECT_EQ(EvtxGet32(c.data() + 124), headerCrc);
  EXPECT_TRUE(std::all_of(c.begin() + 56, c.begin() + 120, [](uint8_t b) { return b == 0; }));
  EXPECT_TRUE(std::all_of(c.begin() + free, c.end(), [](uint8_t b) { return b == 0; }));

  // Records back to back from 512 to the free space offset, each framed by its size.
  std::vector<size_t> offsets = test::ChunkRecordOffsets(c);
  ASSERT_EQ(offsets.size(), 5u);
  EXPECT_EQ(offsets.front(), 512u);
  size_t end = 512;
  for (size_t i = 0; i < offsets.size(); ++i) {
    const uint8_t* r = c.data() + offsets[i];
    EXPECT_EQ(offsets[i], end);
    EXPECT_EQ(offsets[i], writer.RecordOffsets()[i]);
    EXPECT_EQ(EvtxGet32(r), kEvtxRecordMagic);
    uint32_t size = EvtxGet32(r + 4);
    EXPECT_EQ(size % 8, 0u);
    EXPECT_EQ(EvtxGet32(r + size - 4), size);
    EXPECT_EQ(EvtxGet64(r + 8), 7 + i);
    EXPECT_EQ(EvtxGet64(r + 16), test::SampleEvent(7 + i).FTimeCreated);
    // fragment header, then a template instance; the stream ends just before the size copy
    EXPECT_EQ(std::vector<uint8_t>(r + 24, r + 30),
              (std::vector<uint8_t>{0x0F, 0x01, 0x01, 0x00, 0x0C, 0x01}));
    EXPECT_EQ(r[size - 5], 0x00);
    end += size;
  }
  EXPECT_EQ(end, free);
}

TEST(EvtxWriter, TemplateDefinitionIsWrittenOncePerChunk) {
  TEvtxChunkWriter writer = test::MakeChunkWriter(1, 4);
  std::vector<uint8_t> c = writer.Finish();
  // Every name of the event template appears once in the chunk.
  EXPECT_EQ(CountOccurrences(c, Utf16Bytes(u"EventRecordID")), 1u);
  EXPECT_EQ(CountOccurrences(c, Utf16Bytes(u"TargetUserName")), 1u);
  EXPECT_EQ(writer.Tables().TemplateCount(), 1u);

  // All instances refer to the definition inlined by the first record.
  const uint32_t first = writer.RecordOffsets()[0];
  const uint32_t definition = EvtxGet32(c.data() + first + 24 + 10);
  EXPECT_EQ(definition, first + 24 + 14);
  const uint32_t id = EvtxGet32(c.data() + first + 24 + 6);
  for (uint32_t offset : writer.RecordOffsets()) {
    EXPECT_EQ(EvtxGet32(c.data() + offset + 24 + 6), id);
    EXPECT_EQ(EvtxGet32(c.data() + offset + 24 + 10), definition);
  }
  // Definition: next offset, GUID whose first 4 bytes are the id, data size of a fragment
  // that ends with end of stream.
  EXPECT_EQ(EvtxGet32(c.data() + definition), 0u);
  EXPECT_EQ(EvtxGet32(c.data() + definition + 4), id);
  const uint32_t bodySize = EvtxGet32(c.data() + definition + 20);
  EXPECT_EQ(std::vector<uint8_t>(c.data() + definition + 24, c.data() + definition + 28),
            (std::vector<uint8_t>{0x0F, 0x01, 0x01, 0x00}));
  EXPECT_EQ(c[definition + 24 + bodySize - 1], 0x00);
  // Elements of a definition carry a dependency id: <Event xmlns=…> opens the body.
  EXPECT_EQ(c[definition + 28], 0x41);
  EXPECT_EQ(EvtxGet16(c.data() + definition + 29), 0xFFFF);
  // The substitution array follows the definition.
  const uint32_t count = EvtxGet32(c.data() + definition + 24 + bodySize);
  EXPECT_EQ(count, EvtxEventIndex::FirstData + test::SampleEvent(1).FData.size());
  // Later records: instance (10 bytes after the fragment header) then the array at once.
  const uint32_t second = writer.RecordOffsets()[1];
  EXPECT_EQ(EvtxGet32(c.data() + second + 24 + 14), count);

  // Header tables: the template bucket holds the definition; each name bucket holds a
  // string of that bucket, chained through the next-string offsets.
  TEvtxGuid guid{};
  std::copy_n(c.begin() + definition + 4, guid.size(), guid.begin());
  EXPECT_EQ(EvtxGet32(c.data() + 384 + 4 * EvtxTemplateBucket(guid)), definition);
  size_t strings = 0;
  for (uint32_t bucket = 0; bucket < 64; ++bucket) {
    for (uint32_t at = EvtxGet32(c.data() + 128 + 4 * bucket); at != 0; at = EvtxGet32(c.data() + at)) {
      ASSERT_LT(at + 8u, c.size());
      EXPECT_EQ(EvtxGet16(c.data() + at + 4) % 64, bucket);
      ++strings;
    }
  }
  EXPECT_EQ(strings, writer.Tables().NameCount());
}

TEST(EvtxWriter, FullChunkRefusesARecordAndStaysAsItWas) {
  TEvtxChunkWriter writer;
  TEvtxEventTemplates templates;
  uint64_t id = 1;
  while (writer.AddEvent(id, test::SampleEvent(id), templates))
    ++id;
  ASSERT_GT(writer.RecordCount(), 50u);
  const std::vector<uint8_t> before = writer.Finish();
  const uint32_t free = writer.FreeSpaceOffset();
  EXPECT_LE(free, kEvtxChunkSize - 4); // the default tail reserve
  EXPECT_FALSE(writer.AddEvent(id, test::SampleEvent(id), templates));
  EXPECT_EQ(writer.FreeSpaceOffset(), free);
  EXPECT_EQ(writer.Finish(), before);

  // A record with new names that does not fit leaves no trace in the tables.
  const size_t names = writer.Tables().NameCount();
  std::string big(std::max<uint32_t>(writer.FreeSpace(), 8) / 2, 'x');
  TEvtxTemplate fresh("fresh", [&](TBinXmlWriter& w) { w.TextElement("NeverSeenBefore", big); });
  EXPECT_FALSE(writer.AddRecord(id, 0, fresh, {}));
  EXPECT_EQ(writer.Tables().NameCount(), names);
  EXPECT_EQ(writer.Tables().TemplateCount(), 1u);
  EXPECT_EQ(writer.Finish(), before);
}

TEST(EvtxWriter, TailReserveDecidesHowFullAChunkGets) {
  TEvtxTemplate text("text", [](TBinXmlWriter& w) {
    w.OpenElement("E");
    w.CloseStartElement();
    w.Substitution(0, EvtxType::AnsiString);
    w.EndElement();
  });
  auto fill = [&](TEvtxChunkWriter& AChunk, uint32_t ALeave) {
    std::vector<TEvtxValue> filler = {TEvtxValue::AnsiString(std::string(60000, 'a'))};
    ASSERT_TRUE(AChunk.AddRecord(1, 0, text, filler));
    // a record with an empty value tells the overhead; then one sized to leave ALeave bytes
    TEvtxChunkWriter probe = AChunk;
    std::vector<TEvtxValue> empty = {TEvtxValue::AnsiString("")};
    ASSERT_TRUE(probe.AddRecord(2, 0, text, empty));
    const uint32_t overhead = probe.FreeSpaceOffset() - AChunk.FreeSpaceOffset();
    const uint32_t length = kEvtxChunkSize - ALeave - AChunk.FreeSpaceOffset() - overhead;
    std::vector<TEvtxValue> last = {TEvtxValue::AnsiString(std::string(length, 'b'))};
    AChunk.AddRecord(2, 0, text, last);
  };
  TEvtxChunkWriter full;
  full.SetRecordAlignment(1);
  full.SetTailReserve(0);
  fill(full, 0);
  EXPECT_EQ(full.RecordCount(), 2u);
  EXPECT_EQ(full.FreeSpaceOffset(), kEvtxChunkSize);
  EXPECT_EQ(EvtxGet32(full.Finish().data() + 48), kEvtxChunkSize);

  TEvtxChunkWriter reserved;
  reserved.SetRecordAlignment(1);
  fill(reserved, 3);
  EXPECT_EQ(reserved.RecordCount(), 1u);
  TEvtxChunkWriter enough;
  enough.SetRecordAlignment(1);
  fill(enough, 4);
  EXPECT_EQ(enough.RecordCount(), 2u);
  EXPECT_EQ(enough.FreeSpace(), 0u);
}

TEST(EvtxWriter, FileWriterSpillsIntoNewChunksWithFreshDefinitions) {
  TEvtxFileWriter file;
  for (uint64_t i = 1; i <= 300; ++i)
    EXPECT_EQ(file.AddEvent(test::SampleEvent(i)), i);
  std::vector<uint8_t> bytes = file.Bytes();
  const size_t chunks = (bytes.size() - kEvtxFileHeaderBlockSize) / kEvtxChunkSize;
  ASSERT_GE(chunks, 3u);
  ASSERT_EQ(bytes.size(), kEvtxFileHeaderBlockSize + chunks * kEvtxChunkSize);

  const uint8_t* h = bytes.data();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(h), 8), std::string("ElfFile\0", 8));
  EXPECT_EQ(EvtxGet64(h + 8), 0u);
  EXPECT_EQ(EvtxGet64(h + 16), chunks - 1);
  EXPECT_EQ(EvtxGet64(h + 24), 301u);
  EXPECT_EQ(EvtxGet32(h + 32), 128u);
  EXPECT_EQ(EvtxGet16(h + 36), 1u);
  EXPECT_EQ(EvtxGet16(h + 38), 3u);
  EXPECT_EQ(EvtxGet16(h + 40), 4096u);
  EXPECT_EQ(EvtxGet16(h + 42), chunks);
  EXPECT_EQ(EvtxGet32(h + 120), 0u);
  EXPECT_EQ(EvtxGet32(h + 124), EvtxCrc32(std::span<const uint8_t>(bytes).subspan(0, 120)));
  EXPECT_TRUE(std::all_of(bytes.begin() + 44, bytes.begin() + 120, [](uint8_t b) { return b == 0; }));
  EXPECT_TRUE(std::all_of(bytes.begin() + 128, bytes.begin() + 4096, [](uint8_t b) { return b == 0; }));

  uint64_t next = 1;
  for (size_t i = 0; i < chunks; ++i) {
    const uint8_t* c = bytes.data() + test::ChunkFileOffset(i);
    EXPECT_EQ(EvtxGet64(c + 24), next);
    next = EvtxGet64(c + 32) + 1;
    // each chunk defines the template again, inline in its first record
    EXPECT_EQ(EvtxGet32(c + 512 + 24 + 10), 512u + 24 + 14);
    EXPECT_EQ(CountOccurrences(std::span<const uint8_t>(c, kEvtxChunkSize), Utf16Bytes(u"EventRecordID")),
              1u);
  }
  EXPECT_EQ(next, 301u);

  EXPECT_THROW(file.AddRecord(0, [](TBinXmlWriter& w) { w.Raw(std::vector<uint8_t>(70000, 0)); }),
               std::length_error);
}

TEST(EvtxWriter, AFileWithoutRecordsHasOneEmptyChunk) {
  std::vector<uint8_t> bytes = TEvtxFileWriter().Bytes();
  ASSERT_EQ(bytes.size(), kEvtxFileHeaderBlockSize + kEvtxChunkSize);
  EXPECT_EQ(EvtxGet16(bytes.data() + 42), 1u);
  EXPECT_EQ(EvtxGet64(bytes.data() + 24), 1u);
  const uint8_t* c = bytes.data() + kEvtxFileHeaderBlockSize;
  EXPECT_EQ(std::memcmp(c, "ElfChnk\0", 8), 0);
  EXPECT_EQ(EvtxGet32(c + 48), 512u);
  EXPECT_EQ(EvtxGet32(c + 52), EvtxCrc32({}));
}

TEST(EvtxWriter, StreamingWritesTheSameBytesAsMemory) {
  TEvtxFileWriter memory;
  for (uint64_t i = 1; i <= 150; ++i)
    memory.AddEvent(test::SampleEvent(i));
  std::vector<uint8_t> expected = memory.Bytes();

  std::string path = test::WriteTempFile("stream.evtx", {});
  {
    TEvtxFileWriter stream(path);
    for (uint64_t i = 1; i <= 150; ++i)
      stream.AddEvent(test::SampleEvent(i));
    stream.Close();
  }
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> actual((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(actual, expected);
}

TEST(EvtxWriter, EmbeddedFragmentAndRawRecords) {
  auto inner = std::make_shared<TEvtxTemplate>(
      "inner", [](TBinXmlWriter& w) { w.SubstitutionElement("V", 0, EvtxType::UInt32); });
  TEvtxTemplate outer("outer", [](TBinXmlWriter& w) {
    w.OpenElement("Event");
    w.CloseStartElement();
    w.SubstitutionElement("UserData", 0, EvtxType::BinXml);
    w.EndElement();
  });
  TEvtxChunkWriter chunk;
  std::vector<TEvtxValue> values = {TEvtxValue::BinXml(inner, {TEvtxValue::UInt32(42)})};
  ASSERT_TRUE(chunk.AddRecord(1, 0, outer, values));
  ASSERT_TRUE(chunk.AddRecord(2, 0, outer, values));
  EXPECT_EQ(chunk.Tables().TemplateCount(), 2u);
  std::vector<uint8_t> c = chunk.Finish();
  // The second record's embedded fragment refers to the inner definition of the first:
  // its value is fragment header, instance (10 bytes), array of one u32, end of stream.
  const uint32_t second = chunk.RecordOffsets()[1];
  const uint32_t arrayAt = second + 24 + 14;
  ASSERT_EQ(EvtxGet32(c.data() + arrayAt), 1u);
  EXPECT_EQ(EvtxGet16(c.data() + arrayAt + 4), 4 + 10 + 4 + 4 + 4 + 1);
  EXPECT_EQ(c[arrayAt + 6], EvtxType::BinXml);
  const uint8_t* value = c.data() + arrayAt + 8;
  EXPECT_EQ(std::vector<uint8_t>(value, value + 6),
            (std::vector<uint8_t>{0x0F, 0x01, 0x01, 0x00, 0x0C, 0x01}));
  EXPECT_EQ(EvtxGet32(value + 6), inner->Id());
  EXPECT_EQ(EvtxGet32(value + 10), chunk.Tables().FindTemplate(inner->Guid()));
  EXPECT_EQ(value[22], 42);
  EXPECT_EQ(value[26], 0x00);

  // Hand-made bytes go in as given and count in the header's ranges.
  std::vector<uint8_t> raw(40, 0xAB);
  EvtxPut64(raw.data() + 8, 3);
  const uint32_t at = chunk.FreeSpaceOffset();
  ASSERT_TRUE(chunk.AddRawRecord(raw));
  c = chunk.Finish();
  EXPECT_EQ(std::vector<uint8_t>(c.begin() + at, c.begin() + at + 40), raw);
  EXPECT_EQ(EvtxGet64(c.data() + 32), 3u);
  EXPECT_EQ(EvtxGet32(c.data() + 44), at);
  EXPECT_EQ(EvtxGet32(c.data() + 48), at + 40);
}

TEST(EvtxFixtures, DamageHelpersChangeWhatTheySay) {
  std::vector<uint8_t> file = test::MakeEvtxFile(2, 10);
  ASSERT_EQ(file.size(), test::ChunkFileOffset(2));

  test::SetHeaderChunkCount(file, 7);
  EXPECT_EQ(EvtxGet16(file.data() + 42), 7u);
  EXPECT_EQ(EvtxGet32(file.data() + 124), EvtxCrc32(std::span<const uint8_t>(file).subspan(0, 120)));
  test::SetHeaderVersion(file, 3, 2);
  EXPECT_EQ(EvtxGet16(file.data() + 36), 2u);

  const size_t record = test::RecordFileOffset(file, 1, 3);
  EXPECT_EQ(EvtxGet64(file.data() + record + 8), 14u);
  test::CorruptRecordMagic(file, 1, 3, true);
  EXPECT_EQ(EvtxGet32(file.data() + record), 0x58585858u);
  std::span<uint8_t> chunk(file.data() + test::ChunkFileOffset(1), kEvtxChunkSize);
  const uint32_t free = EvtxGet32(chunk.data() + 48);
  EXPECT_EQ(EvtxGet32(chunk.data() + 52), EvtxCrc32(chunk.subspan(512, free - 512)));

  test::TruncateAt(file, 5000);
  EXPECT_EQ(file.size(), 5000u);

  std::vector<uint8_t> dirty = test::MakeDirtyChunk(1, 10, 3);
  std::vector<uint8_t> clean = test::MakeChunk(1, 10);
  EXPECT_EQ(EvtxGet64(dirty.data() + 32), 7u);
  EXPECT_EQ(test::ChunkRecordOffsets(dirty).size(), 7u);
  EXPECT_TRUE(std::equal(dirty.begin() + 512, dirty.end(), clean.begin() + 512));

  std::vector<uint8_t> reversed = test::MakeOutOfOrderFile(3, 5);
  EXPECT_EQ(EvtxGet64(reversed.data() + test::ChunkFileOffset(0) + 24), 11u);
  EXPECT_EQ(EvtxGet64(reversed.data() + test::ChunkFileOffset(2) + 24), 1u);
  EXPECT_EQ(EvtxGet64(reversed.data() + 24), 16u);

  std::vector<uint8_t> empty = test::MakeEmptyChunk();
  EXPECT_EQ(EvtxGet32(empty.data() + 48), 512u);
}

TEST(EvtxFixtures, SampleDiskImagePlacesChunksWhereItSays) {
  test::TSampleDiskImage image = test::MakeSampleDiskImage();
  ASSERT_EQ(image.FChunkOffsets.size(), 6u);
  EXPECT_EQ(image.FChunkOffsets[1] + kEvtxChunkSize, test::kImageBufferSize + 3);
  EXPECT_EQ(image.FChunkOffsets[2] + kEvtxChunkSize, 2 * test::kImageBufferSize);
  for (size_t i = 0; i < image.FChunkOffsets.size(); ++i) {
    std::span<const uint8_t> chunk(image.FBytes.data() + image.FChunkOffsets[i], kEvtxChunkSize);
    EXPECT_EQ(std::memcmp(chunk.data(), "ElfChnk\0", 8), 0);
    EXPECT_EQ(EvtxGet64(chunk.data() + 24), image.FChunkFirstIds[i]);
    EXPECT_EQ(test::ChunkRecordOffsets(chunk).size(), image.FRecordsPerChunk);
  }
  EXPECT_EQ(std::memcmp(image.FBytes.data() + image.FFakeSignatureOffset, "ElfChnk\0", 8), 0);
  EXPECT_NE(EvtxGet32(image.FBytes.data() + image.FFakeSignatureOffset + 40), 128u);
  EXPECT_EQ(std::memcmp(image.FBytes.data() + image.FFileOffset, "ElfFile\0", 8), 0);

  // No other signature anywhere.
  const std::string signature("ElfChnk", 7);
  size_t found = 0;
  for (auto it = image.FBytes.begin();
       (it = std::search(it, image.FBytes.end(), signature.begin(), signature.end())) != image.FBytes.end();
       ++it)
    ++found;
  EXPECT_EQ(found, image.FChunkOffsets.size() + 1);
}

} // namespace
} // namespace qvx
