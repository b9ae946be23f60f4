// TChunkReader: renders the chunks of an .evtx file, or of raw data, in order, on
// one or more threads.
//
// The source hands out chunk bytes one at a time (from the file's chunk list, newest
// first, or from the carver); workers render them to XML in parallel and the caller
// receives every chunk's result in the source's order, so output does not depend on
// the number of threads. The calling thread is one of the workers. Memory stays bounded: at most a small window of chunks is in
// flight at any time.
#pragma once

#include "engine/evtx/evtx_chunk.h"
#include "platform/read_stream.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

struct TChunkResult;

// Reads a chunk's records into a result in place of the XML render (the engine's reader
// of event fields): it fills Xml, or Fields and RecordFields, and Issues.
using TChunkRecordReader = void (*)(TEvtxChunk& AChunk, TChunkResult& AResult);

// One chunk's bytes and where they came from.
struct TChunkJob {
  uint64_t Sequence = 0;       // position in the source's order
  uint64_t Position = 0;       // byte offset in the file or device
  bool Truncated = false;      // fewer than 65536 bytes were there; the rest is zeros
  bool CheckCrc = false;       // also compare the chunk's two checksums (diagnostics)
  // When set, Bytes are read from this file at Position by the rendering thread, outside
  // the reader's lock (a producer only names the chunk); a short read pads with zeros and
  // sets Truncated. The stream outlives the run: threads other than the caller read it
  // through handles of their own that they open once per stream (TReadStream::OpenAgain).
  const TReadStream* ReadFrom = nullptr;
  std::vector<uint8_t> Bytes;  // 65536 bytes
  // Carried to the result for a reader on another thread: buffers the carver passed
  // without finding a chunk before this one, and bytes of the source read by then.
  uint32_t EmptyBlocksBefore = 0;
  uint64_t SourceRead = 0;
  // When set, reads the records instead of rendering their XML.
  TChunkRecordReader ReadRecords = nullptr;
};

// The rendered result of one chunk.
struct TChunkResult {
  uint64_t Sequence = 0;
  uint64_t Position = 0;
  bool Truncated = false;
  uint64_t NumFirstFile = 0;
  uint64_t NumLastFile = 0;
  uint32_t OfsNextRec = 0;
  uint32_t Records = 0;         // records rendered
  int HeaderCrcOk = -1;         // 1 matches, 0 does not, -1 not checked
  int DataCrcOk = -1;
  std::string Xml;              // their XML, in file order
  // Filled by a record reader instead of Xml (FieldsRead set): each event's fields as
  // text, event after event in file order; RecordFields says where each one's begin.
  bool FieldsRead = false;
  struct TRecordSpan {
    uint32_t First = 0; // index of its first field in Fields
    uint32_t Count = 0;
    // When set, Fields hold only the system fields and binary data: the data values are
    // made from Values (from FirstValue on) as Plans[Plan] says.
    uint32_t Plan = 0xFFFFFFFF;
    uint32_t FirstValue = 0;
  };
  std::vector<std::string> Fields;   // kept from chunk to chunk, so the strings keep their room
  std::vector<TRecordSpan> RecordFields;
  // The chunk's bytes, the values (where they lie in them) that events' fields are made
  // of, and the reader's own descriptions of how (the taker makes the text itself).
  std::vector<uint8_t> Bytes;  // set when the reader asks for them (KeepBytes)
  bool KeepBytes = false;
  std::vector<uint64_t> Values;
  std::vector<std::shared_ptr<const void>> Plans;
  uint32_t RecordsFromXml = 0;       // events whose fields were read from their rendered XML
  std::vector<TChunkIssue> Issues; // records that could not be rendered, and where the walk stopped
  uint32_t EmptyBlocksBefore = 0;  // as in the job
  uint64_t SourceRead = 0;
  // Left by a finisher (TChunkReader::TFinisher) for the consumer: the events it handed
  // on and the texts of what it met, in order.
  uint32_t Taken = 0;
  std::vector<std::string> Notes;
};

// Replaces every character that XML 1.0 does not allow (codes 0x00-0x08, 0x0B, 0x0C,
// 0x0E-0x1F) by a space; tab, line feed and carriage return stay. Event text is handed
// out this way, so values that hold raw binary still make well-formed XML.
void ReplaceControlCharacters(std::string& AText);

class TChunkReader {
public:
  // Fills AJob with the next chunk; false at the end. Called by one thread at a time.
  using TProducer = std::function<bool(TChunkJob& AJob)>;
  // Receives each result in sequence order, one call at a time (from any of the
  // reading threads).
  using TConsumer = std::function<void(TChunkResult& AResult)>;

  // Called on the thread that rendered a chunk, right after it, with that thread's
  // number (0 .. AThreads-1; 0 is the calling thread): work done here runs in parallel,
  // before the result goes to the consumer.
  using TFinisher = std::function<void(TChunkResult& AResult, unsigned AWorker)>;

  // Runs until the producer is exhausted. AThreads <= 1 renders on the calling thread.
  // An exception from the producer, the finisher or the consumer stops the run and is
  // raised again here.
  static void Run(const TProducer& AProducer, const TConsumer& AConsumer, unsigned AThreads,
                  const TFinisher& AFinisher = {});

  // Renders one chunk's bytes (65536) into AResult, reading them first when the job
  // names a file. Raises ENTException when that read fails.
  static void RenderChunk(TChunkJob& AJob, TChunkResult& AResult);
};

} // namespace qvx
