#include "app/commands.h"

#include "platform/nt_exception.h"

#include <cerrno>
#include <stdexcept>

#ifndef _WIN32
#include <unistd.h>
#endif

namespace qvx::app {

namespace {

// Writes a rendered chunk in one system call where the platform allows, bypassing the
// stream's small buffer (which would split each chunk into two writes). The stream holds
// nothing then: it is flushed before the chunks are written and not written to meanwhile.
// (Flushing it for every chunk cost a microsecond each: the stream's lock moves between
// the threads that take turns at writing.)
bool WriteBlock(std::FILE* AOut, const std::string& AText) {
#ifndef _WIN32
  const int fd = fileno(AOut);
  size_t done = 0;
  while (done < AText.size()) {
    ssize_t n = ::write(fd, AText.data() + done, AText.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
#else
  return std::fwrite(AText.data(), 1, AText.size(), AOut) == AText.size();
#endif
}

void ReportIssues(std::FILE* AErr, const std::string& APath, const TChunkResult& AResult, uint64_t& AIssueCount) {
  if (AResult.Truncated)
    std::fprintf(AErr, "%s: chunk at offset %s is cut short by the end of the file; reading what is there\n",
                 APath.c_str(), Hex(AResult.Position).c_str());
  for (const TChunkIssue& issue : AResult.Issues) {
    ++AIssueCount;
    std::string record = issue.RecordId ? "record " + std::to_string(issue.RecordId) + " " : std::string("record ");
    std::fprintf(AErr, "%s: chunk at offset %s: %sat chunk offset %s (file offset %s): %s\n", APath.c_str(),
                 Hex(AResult.Position).c_str(), record.c_str(), Hex(issue.Offset).c_str(),
                 Hex(AResult.Position + issue.Offset).c_str(), issue.Message.c_str());
  }
}

} // namespace

int RunDump(const TDumpOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    TEvtxSource source(AOptions.Path, AOptions.Carve, AOptions.Order, AOptions.Threads);
    for (const std::string& notice : source.Notices()) std::fprintf(AErr, "%s\n", notice.c_str());
    if (AOptions.Wrap) std::fputs("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<Events>", AOut);
    bool writeFailed = std::fflush(AOut) != 0;
    uint64_t records = 0, chunks = 0, issues = 0;
    TChunkReader::Run(
        source.Producer(),
        [&](TChunkResult& AResult) {
          ++chunks;
          records += AResult.Records;
          if (!AResult.Xml.empty() && !WriteBlock(AOut, AResult.Xml)) writeFailed = true;
          ReportIssues(AErr, AOptions.Path, AResult, issues);
        },
        // Below a few hundred chunks starting threads costs more than they save.
        source.Raw().Size() < TEvtxSource::kParallelBytes ? 1u : AOptions.Threads);
    if (AOptions.Wrap) std::fputs("\r\n</Events>\r\n", AOut);
    std::fflush(AOut);
    if (!AOptions.Quiet && (issues || source.Carving()))
      std::fprintf(AErr, "%s: %llu records from %llu chunks%s; %llu records could not be read\n",
                   AOptions.Path.c_str(), static_cast<unsigned long long>(records),
                   static_cast<unsigned long long>(chunks), source.Carving() ? " found by scanning" : "",
                   static_cast<unsigned long long>(issues));
    if (writeFailed || std::ferror(AOut)) {
      std::fprintf(AErr, "quorvex: error writing the output\n");
      return 1;
    }
    return 0;
  } catch (const ENTException& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
