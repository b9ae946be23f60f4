#include "engine/evtx/chunk_reader.h"

#include "engine/evtx/binxml_nodes.h"
#include "engine/evtx/evtx_layout.h"
#include "platform/cpu_features.h"
#include "platform/crc32.h"
#include "platform/worker_thread.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qvx {

namespace {

#if defined(__GNUC__) && defined(__x86_64__)
#define QVX_REPLACE_AVX2 1
// 32 bytes at a time, written back only where a block holds a character to replace
// (rendered text seldom does), for processors that have the registers (chosen at run
// time: the program is built for any x86-64). Returns the bytes left for the plain loop.
__attribute__((target("avx2"))) size_t ReplaceControlAvx2(unsigned char* p, size_t n) {
  const __m256i limit = _mm256_set1_epi8(0x1F);
  const __m256i tab = _mm256_set1_epi8('\t');
  const __m256i lf = _mm256_set1_epi8('\n');
  const __m256i cr = _mm256_set1_epi8('\r');
  const __m256i space = _mm256_set1_epi8(' ');
  size_t i = 0;
  for (; n - i >= 32; i += 32) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i));
    const __m256i control = _mm256_cmpeq_epi8(_mm256_min_epu8(v, limit), v);
    const __m256i allowed =
        _mm256_or_si256(_mm256_or_si256(_mm256_cmpeq_epi8(v, tab), _mm256_cmpeq_epi8(v, lf)), _mm256_cmpeq_epi8(v, cr));
    const __m256i bad = _mm256_andnot_si256(allowed, control);
    if (_mm256_testz_si256(bad, bad)) continue;
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + i), _mm256_blendv_epi8(v, space, bad));
  }
  return n - i;
}
#endif

// How often a thread retries the reader's lock before it sleeps on it.
constexpr int kLockSpins = 100;

inline void CpuRelax() {
#if defined(__GNUC__) && defined(__x86_64__)
  _mm_pause();
#endif
}

} // namespace

void ReplaceControlCharacters(std::string& AText) {
  auto* p = reinterpret_cast<unsigned char*>(AText.data());
  size_t n = AText.size();
#ifdef QVX_REPLACE_AVX2
  static const bool avx2 = CpuHasAvx2();
  if (avx2) {
    const size_t left = ReplaceControlAvx2(p, n);
    p += n - left;
    n = left;
  }
#endif
  // Written as a plain select so the compiler vectorises it: this runs over all output.
  for (size_t i = 0; i < n; ++i) {
    unsigned char u = p[i];
    bool bad = u < 0x20 && u != '\t' && u != '\n' && u != '\r';
    p[i] = bad ? static_cast<unsigned char>(' ') : u;
  }
}

void TChunkReader::RenderChunk(TChunkJob& AJob, TChunkResult& AResult) {
  if (AJob.ReadFrom) {
    AJob.Bytes.resize(evtx::kChunkSize);
    size_t got = AJob.ReadFrom->ReadAt(AJob.Position, AJob.Bytes.data(), evtx::kChunkSize);
    if (got < evtx::kChunkSize) {
      // Cut short by the end of the data: the records before the cut still read.
      std::fill(AJob.Bytes.begin() + static_cast<ptrdiff_t>(got), AJob.Bytes.end(), 0);
      AJob.Truncated = true;
    }
  }
  AResult.Sequence = AJob.Sequence;
  AResult.Position = AJob.Position;
  AResult.Truncated = AJob.Truncated;
  AResult.EmptyBlocksBefore = AJob.EmptyBlocksBefore;
  AResult.SourceRead = AJob.SourceRead;
  AResult.Xml.clear();
  AResult.Issues.clear();
  AResult.Records = 0;
  // The chunk borrows the job's buffer and gives it back at the end, so nothing is copied.
  // A record reader that keeps the bytes for the taker gets them instead, and the job the
  // result's old buffer.
  struct TReturnBytes {
    TEvtxChunk& Chunk;
    std::vector<uint8_t>& Bytes;
    std::vector<uint8_t>* Keep = nullptr;
    ~TReturnBytes() {
      if (!Keep) {
        Bytes = Chunk.TakeBytes();
        return;
      }
      std::vector<uint8_t> taken = Chunk.TakeBytes();
      Bytes.swap(*Keep);
      Keep->swap(taken);
    }
  };
  TEvtxChunk chunk(std::move(AJob.Bytes));
  TReturnBytes giveBack{chunk, AJob.Bytes};
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
  AResult.FieldsRead = false;
  AResult.KeepBytes = false;
  AResult.RecordFields.clear();
  AResult.RecordsFromXml = 0;
  if (AJob.ReadRecords) {
    AJob.ReadRecords(chunk, AResult);
  } else {
    // Room for most chunks' XML at once: grown by doubling, the text would be copied
    // into fresh memory five or six times over, each page of it faulted in anew.
    constexpr size_t kXmlRoom = 256 * 1024;
    if (AResult.Xml.capacity() < kXmlRoom) AResult.Xml.reserve(kXmlRoom);
    chunk.AppendXML(AResult.Xml);
    ReplaceControlCharacters(AResult.Xml);
    AResult.Issues = chunk.RenderIssues();
  }
  int count = chunk.Count();
  for (int i = 0; i < count; ++i)
    if (chunk.GetEvent(i)->Valid()) ++AResult.Records;
  AResult.Records -= static_cast<uint32_t>(AResult.Issues.size());
  // The walk ends at the first record that fails its checks; below the free space
  // offset that is damage (an empty chunk's first slot is not).
  if (count > 0) {
    TEvtxEvent* last = chunk.GetEvent(count - 1);
    bool empty = count == 1 && chunk.OfsNextRec() <= evtx::kChunkFirstRecord;
    if (!last->Valid() && !empty && last->Start() < chunk.OfsNextRec())
      AResult.Issues.push_back({last->Start(), 0, std::string("record walk stopped: ") + last->Defect()});
  }
  if (AResult.KeepBytes) giveBack.Keep = &AResult.Bytes;
}

void TChunkReader::Run(const TProducer& AProducer, const TConsumer& AConsumer, unsigned AThreads,
                       const TFinisher& AFinisher) {
  if (AThreads <= 1) {
    TChunkJob job;
    TChunkResult result;
    for (uint64_t seq = 0;; ++seq) {
      job.Sequence = seq;
      job.Truncated = false;
      job.CheckCrc = false;
      job.ReadFrom = nullptr;
      job.ReadRecords = nullptr;
      if (!AProducer(job)) return;
      RenderChunk(job, result);
      if (AFinisher) AFinisher(result, 0);
      AConsumer(result);
    }
  }

  // Every thread, the calling one included, takes batches of jobs in order under one
  // lock and renders them outside it. A finished batch is parked; whichever thread finds
  // the next batch in sequence waiting hands it (and any that follow it) to the consumer,
  // one thread at a time. A thread takes back the batches it filled first, so their
  // buffers keep their capacity and stay in that core's cache, and borrows another
  // thread's idle one when all of its own are parked behind a slower thread: at most
  // kBatchesPerWorker batches per thread are in flight, yet one thread may run ahead of
  // a stalled one by nearly all of them. Chunks of real logs differ several times over in
  // how long they take: with fewer batches a thread often slept until the other finished
  // one (hundreds of sleeps and wake-ups in a 64 MB log), and a batch it does not need
  // is never touched (the thread's own are taken most recent first).
  constexpr size_t kBatchSize = 1;
  constexpr size_t kBatchesPerWorker = 8;
  struct TBatch {
    unsigned Owner = 0;
    bool Used = false; // rendered into before: its pages are made
    uint64_t Sequence = 0;
    size_t Count = 0;
    std::vector<TChunkJob> Jobs{kBatchSize};
    std::vector<TChunkResult> Results{kBatchSize};
  };
  std::vector<std::unique_ptr<TBatch>> storage;
  std::vector<std::vector<TBatch*>> idle(AThreads);
  for (unsigned w = 0; w < AThreads; ++w) {
    for (size_t i = 0; i < kBatchesPerWorker; ++i) {
      storage.push_back(std::make_unique<TBatch>());
      storage.back()->Owner = w;
      idle[w].push_back(storage.back().get());
    }
  }
  std::mutex lock;
  std::condition_variable batchFree; // a thread waits for a batch to come back
  // Parked batches by sequence number: those in flight have numbers from nextWrite on,
  // fewer than there are batches, so each has a slot of its own (and no node is made
  // on one thread and freed on another, as a map's would be).
  std::vector<TBatch*> done(storage.size(), nullptr);
  uint64_t nextBatch = 0; // sequence number of the next batch handed out
  uint64_t nextWrite = 0; // next batch the consumer takes
  uint64_t nextJob = 0;   // sequence number of the next chunk
  bool exhausted = false;
  bool failed = false;
  bool writing = false;   // a thread is handing results to the consumer
  std::exception_ptr error;
  size_t idleCount = storage.size(); // batches in the idle lists

  auto fail = [&](std::exception_ptr AError) {
    failed = true;
    if (!error) error = AError;
    batchFree.notify_all();
  };

  // The lock is held only for moments, and waking a thread that slept on it takes tens
  // of microseconds (a chunk's render takes about fifty): retry it a little first.
  auto spinLock = [&](std::unique_lock<std::mutex>& AGuard) {
    for (int i = 0; i < kLockSpins; ++i) {
      if (AGuard.try_lock()) return;
      CpuRelax();
    }
    AGuard.lock();
  };

  auto giveBack = [&](TBatch* ABatch) {
    idle[ABatch->Owner].push_back(ABatch);
    ++idleCount;
  };

  // Called with the lock held: hands every parked batch that is next in order to the
  // consumer, unless another thread is already doing so.
  auto drain = [&](std::unique_lock<std::mutex>& AGuard) {
    if (writing) return;
    writing = true;
    for (;;) {
      if (failed) break;
      TBatch*& slot = done[nextWrite % done.size()];
      if (!slot || slot->Sequence != nextWrite) break;
      TBatch* batch = slot;
      slot = nullptr;
      AGuard.unlock();
      std::exception_ptr consumerError;
      try {
        for (size_t i = 0; i < batch->Count; ++i) AConsumer(batch->Results[i]);
      } catch (...) {
        consumerError = std::current_exception();
      }
      spinLock(AGuard);
      if (consumerError) fail(consumerError);
      ++nextWrite;
      giveBack(batch);
      batchFree.notify_all();
    }
    writing = false;
  };

  // Called with the lock held: an idle batch, null when every batch is in flight. The
  // thread's own most recently used one first, else another thread's used one, and a
  // batch never used only when none is left: the first text written into a batch makes
  // its pages, which costs more than the chunk's render when another thread of the
  // process is making pages at the same time.
  auto takeBatch = [&](unsigned AWorker) -> TBatch* {
    auto used = [](const std::vector<TBatch*>& AList) { return !AList.empty() && AList.back()->Used; };
    std::vector<TBatch*>* from = used(idle[AWorker]) ? &idle[AWorker] : nullptr;
    for (unsigned w = 0; !from && w < AThreads; ++w)
      if (used(idle[w])) from = &idle[w];
    if (!from) from = &idle[AWorker];
    for (unsigned w = 0; from->empty() && w < AThreads; ++w) from = &idle[w];
    if (from->empty()) return nullptr;
    TBatch* batch = from->back();
    batch->Used = true;
    from->pop_back();
    --idleCount;
    return batch;
  };

  // A template is compiled once for all the threads rather than once by each.
  TBXmlSharedTemplates templates;

  auto worker = [&](unsigned AWorker) {
    TBXmlSharedTemplates::TUse useTemplates(templates);
    std::vector<uint8_t> ownBytes;
    // The other threads read through handles of their own (see TReadStream::OpenAgain).
    const TReadStream* sharedFrom = nullptr;
    std::unique_ptr<TReadStream> ownFrom;
    std::unique_lock<std::mutex> guard(lock, std::defer_lock);
    spinLock(guard);
    for (;;) {
      if (failed || exhausted) return; // batches still parked are written by whoever parks the one they wait for
      TBatch* batch = takeBatch(AWorker);
      if (!batch) {
        // Every batch is parked behind a slower thread's; it hands them back. (Waiting
        // awake here first gained nothing measurable with two threads on an idle machine
        // and cost several milliseconds of processor time on a busy one.)
        batchFree.wait(guard, [&] { return failed || exhausted || idleCount > 0; });
        continue;
      }
      batch->Count = 0;
      try {
        while (batch->Count < kBatchSize) {
          TChunkJob& job = batch->Jobs[batch->Count];
          job.Sequence = nextJob;
          job.Truncated = false;
          job.CheckCrc = false;
          job.ReadFrom = nullptr;
          job.ReadRecords = nullptr;
          if (!AProducer(job)) {
            exhausted = true;
            batchFree.notify_all();
            break;
          }
          ++nextJob;
          ++batch->Count;
        }
      } catch (...) {
        giveBack(batch);
        fail(std::current_exception());
        return;
      }
      if (batch->Count == 0) {
        giveBack(batch);
        continue;
      }
      batch->Sequence = nextBatch++;
      guard.unlock();
      std::exception_ptr renderError;
      try {
        for (size_t i = 0; i < batch->Count; ++i) {
          TChunkJob& job = batch->Jobs[i];
          // A chunk read from the file goes into this thread's own buffer, which its
          // last chunk left in the core's cache, rather than the batch's.
          if (job.ReadFrom) job.Bytes.swap(ownBytes);
          if (job.ReadFrom && AWorker > 0) {
            if (job.ReadFrom != sharedFrom) {
              sharedFrom = job.ReadFrom;
              ownFrom = sharedFrom->OpenAgain();
            }
            if (ownFrom) job.ReadFrom = ownFrom.get();
          }
          RenderChunk(job, batch->Results[i]);
          if (job.ReadFrom) job.Bytes.swap(ownBytes);
          if (AFinisher) AFinisher(batch->Results[i], AWorker);
        }
      } catch (...) {
        renderError = std::current_exception();
      }
      spinLock(guard);
      if (renderError) {
        giveBack(batch);
        fail(renderError);
        return;
      }
      done[batch->Sequence % done.size()] = batch;
      drain(guard);
    }
  };

  std::vector<TWorkerThread> threads;
  for (unsigned i = 1; i < AThreads; ++i) threads.emplace_back([&worker, i] { worker(i); });
  worker(0);
  for (auto& t : threads) t.Join();
  if (error) std::rethrow_exception(error);
  // Each batch was handed out by the thread that parked the one it waited for; this is
  // only a safety net.
  {
    std::unique_lock<std::mutex> guard(lock);
    drain(guard);
  }
  if (error) std::rethrow_exception(error);
}

} // namespace qvx
