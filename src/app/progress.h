// A progress line on a terminal: bar, percentage, MB and MB/s, events so far.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

namespace qvx::app {

class TProgress {
public:
  // Draws on AErr only when AEnabled (callers pass "stderr is a terminal" by default).
  TProgress(std::FILE* AErr, bool AEnabled);
  ~TProgress() { Finish(); }

  // ADone of ATotal bytes (ATotal 0 = unknown), AEvents read so far. Redraws at most
  // ten times a second.
  void Update(uint64_t ADone, uint64_t ATotal, uint64_t AEvents);
  // Clears the line.
  void Finish();
  bool Enabled() const { return FEnabled; }

private:
  void Draw(uint64_t ADone, uint64_t ATotal, uint64_t AEvents);

  std::FILE* FErr;
  bool FEnabled;
  bool FDrawn = false;
  std::chrono::steady_clock::time_point FStart;
  std::chrono::steady_clock::time_point FLast;
};

// True when AFile is a terminal.
bool IsTerminal(std::FILE* AFile);
// Columns of the terminal behind AFile; 0 when it is not a terminal.
unsigned TerminalWidth(std::FILE* AFile);

} // namespace qvx::app
