#include "engine/evtx/chunk_reader.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/crc32.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>

namespace qvx {

void ReplaceControlCharacters(std::string& AText) {
  // Written as a plain select so the compiler vectorises it: this runs over all output.
  auto* p = reinterpret_cast<unsigned char*>(AText.data());
  const size_t n = AText.size();
  for (size_t i = 0; i < n; ++i) {
    unsigned char u = p[i];
    bool bad = u < 0x20 && u != '\t' && u != '\n' && u != '\r';
    p[i] = bad ? static_cast<unsigned char>(' ') : u;
  }
}

void TChunkReader::RenderChunk(const TChunkJob& AJob, TChunkResult& AResult) {
  AResult.Sequence = AJob.Sequence;
  AResult.Position = AJob.Position;
  AResult.Truncated = AJob.Truncated;
  AResult.Xml.clear();
  AResult.Issues.clear();
  AResult.Records = 0;
  TEvtxChunk chunk(AJob.Bytes.size() == evtx::kChunkSize ? AJob.Bytes.data() : nullptr);
  AResult.NumFirstFile = chunk.NumFirstFile();
  AResult.NumLastFile = chunk.NumLastFile();
  AResult.OfsNextRec = chunk.OfsNextRec();
  AResult.HeaderCrcOk = AResult.DataCrcOk = -1;
  if (AJob.CheckCrc && chunk.Data()) {
    // Header: bytes 0..119 and 128..511. Records: 512 up to the free space offset.
    const uint8_t* d = chunk.Data();
    uint32_t crc = Crc32(d + 128, 384, Crc32(d, 120));
    AResult.HeaderCrcOk = crc == chunk.Crc32Header();
    uint32_t end = chunk.OfsNextRec();
    if (end >= evtx::kChunkFirstRecord && end <= evtx::kChunkSize)
      AResult.DataCrcOk = Crc32(d + evtx::kChunkFirstRecord, end - evtx::kChunkFirstRecord) == chunk.Crc32Data();
    else
      AResult.DataCrcOk = 0;
  }
  chunk.AppendXML(AResult.Xml);
  ReplaceControlCharacters(AResult.Xml);
  int count = chunk.Count();
  for (int i = 0; i < count; ++i)
    if (chunk.GetEvent(i)->Valid()) ++AResult.Records;
  AResult.Issues = chunk.RenderIssues();
  AResult.Records -= static_cast<uint32_t>(AResult.Issues.size());
  // The walk ends at the first record that fails its checks; below the free space
  // offset that is damage (an empty chunk's first slot is not).
  if (count > 0) {
    TEvtxEvent* last = chunk.GetEvent(count - 1);
    bool empty = count == 1 && chunk.OfsNextRec() <= evtx::kChunkFirstRecord;
    if (!last->Valid() && !empty && last->Start() < chunk.OfsNextRec())
      AResult.Issues.push_back({last->Start(), 0, std::string("record walk stopped: ") + last->Defect()});
  }
}

void TChunkReader::Run(const TProducer& AProducer, const TConsumer& AConsumer, unsigned AThreads) {
  if (AThreads <= 1) {
    TChunkJob job;
    TChunkResult result;
    for (uint64_t seq = 0;; ++seq) {
      job.Sequence = seq;
      job.Truncated = false;
      job.CheckCrc = false;
      if (!AProducer(job)) return;
      RenderChunk(job, result);
      AConsumer(result);
    }
  }

  // Workers take jobs in order under one lock, render outside it, and park results in
  // a window that the calling thread drains in sequence order.
  const uint64_t window = uint64_t{AThreads} * 4;
  std::mutex lock;
  std::condition_variable changed;
  std::map<uint64_t, TChunkResult> done;
  uint64_t nextSeq = 0;      // next job to hand out
  uint64_t nextWrite = 0;    // next result the consumer takes
  bool exhausted = false;
  bool failed = false;
  std::exception_ptr error;

  auto worker = [&] {
    TChunkJob job;
    TChunkResult result;
    for (;;) {
      {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return exhausted || failed || nextSeq < nextWrite + window; });
        if (exhausted || failed) return;
        job.Sequence = nextSeq;
        job.Truncated = false;
        job.CheckCrc = false;
        bool more = false;
        try {
          more = AProducer(job);
        } catch (...) {
          failed = true;
          error = std::current_exception();
          changed.notify_all();
          return;
        }
        if (!more) {
          exhausted = true;
          changed.notify_all();
          return;
        }
        ++nextSeq;
      }
      RenderChunk(job, result);
      {
        std::lock_guard<std::mutex> guard(lock);
        done.emplace(result.Sequence, std::move(result));
        result = TChunkResult();
      }
      changed.notify_all();
    }
  };

  std::vector<std::thread> threads;
  for (unsigned i = 0; i < AThreads; ++i) threads.emplace_back(worker);

  try {
    for (;;) {
      TChunkResult result;
      {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return failed || done.count(nextWrite) || (exhausted && nextWrite == nextSeq); });
        if (failed) break;
        auto it = done.find(nextWrite);
        if (it == done.end()) break; // exhausted and drained
        result = std::move(it->second);
        done.erase(it);
      }
      AConsumer(result);
      {
        std::lock_guard<std::mutex> guard(lock);
        ++nextWrite;
      }
      changed.notify_all();
    }
  } catch (...) {
    std::lock_guard<std::mutex> guard(lock);
    failed = true;
    error = std::current_exception();
  }
  changed.notify_all();
  for (auto& t : threads) t.join();
  if (error) std::rethrow_exception(error);
}

} // namespace qvx
