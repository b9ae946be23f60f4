// Reading events' fields straight from their binary XML, without rendering it.
//
// A listing needs each event's system fields and data values, not its XML text. The
// record reader here takes them from the record's template instance: once per template
// and chunk, the template's compiled text is rendered with a marker in place of each
// substitution and read by the same XML field readers (ReadSystemFields,
// ReadEventDataSources) that read rendered events, which says for every field which
// fixed text and which substitution values make it. Each record then costs one pass
// over the values its fields use: the reading thread makes the system fields, and leaves
// where the data values lie for the taker of the event (TakeRecordFields) to make them,
// so that the two threads share the work. The result is the same text that rendering the
// record and reading that XML would give; where that cannot be known from the template
// alone (a record that is not a plain template instance, an embedded fragment, an
// array that repeats an element other than <Data>, a template whose text the markers
// could not follow), the record is rendered and its XML read as before, and a chunk
// whose rendered records would not split back into one event each is rendered whole.
#pragma once

#include "engine/event_xml.h"
#include "engine/evtx/chunk_reader.h"
#include "engine/named_fields.h"

#include <cstdint>

namespace qvx {

// The fields of one event in TChunkResult::Fields, in this order; its data values
// follow. rfBinaryData holds the bytes of <Binary>.
enum TRecordField : uint32_t {
  rfProviderName,
  rfEventID,
  rfEventIDQual,
  rfVersion,
  rfLevel,
  rfTask,
  rfOpCode,
  rfKeywords,
  rfTimeCreated,
  rfEventRecordID,
  rfChannel,
  rfComputer,
  rfUserID,
  rfBinaryData,
  rfValues
};

// A TChunkRecordReader. Fills AResult.Fields and RecordFields (FieldsRead set) with one
// entry per event that the chunk's XML would hold, in file order (and Bytes, Values and
// Plans for the data values TakeRecordFields makes), and AResult.Issues
// with the records that could not be rendered (the same texts as the XML render); or,
// when the chunk's rendered records would not split into one event each, AResult.Xml
// exactly as the XML render makes it (FieldsRead clear). Raises what the render raises
// apart from EBinXMLLogReadingException.
void ReadChunkFields(TEvtxChunk& AChunk, TChunkResult& AResult);

// Makes the data values of an event whose values ReadChunkFields left to make (ASpan.Plan
// set) into AFields.Strings; the other fields are not touched (its system fields and
// binary data are in AResult.Fields as for any event). The taker does it, so that the
// text is made on its thread.
void TakeRecordFields(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, TEventXmlFields& AFields);

// What TakeRecordFields makes of such an event's data values, appended to AOut: as JSON
// strings separated by ',' (AppendJsonString of each), or separated by '\n'.
void AppendRecordValuesJson(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, std::string& AOut);
void AppendRecordValuesJoined(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, std::string& AOut);

// The hunt's reader: as ReadChunkFields, but what the taker makes of an event read from
// its plan are its (name, value) pairs (TakeRecordNamedValues: exactly what
// ForEachNamedField reads from its rendered XML, entities decoded), and an event read
// from its XML keeps that XML in the field after its binary data (rfValues) instead of
// its data values. Records whose names the plan cannot follow are read from their XML.
void ReadChunkNamedFields(TEvtxChunk& AChunk, TChunkResult& AResult);

// Makes the (name, value) pairs of an event that ReadChunkNamedFields read from its plan
// (ASpan.Plan set) into AOut. With AViewSystem, the values of its System fields are not
// copied but viewed where AResult.Fields holds them (TNamedValues::AddView): AOut is then
// good only while AResult's fields are unchanged. With ALazy, the data values that are one
// scalar or string value each are deferred (TNamedValues::AddDeferred), made from AResult
// when asked for: AOut is then good only while AResult is unchanged.
void TakeRecordNamedValues(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, TNamedValues& AOut,
                           bool AViewSystem = false, bool ALazy = false);

} // namespace qvx
