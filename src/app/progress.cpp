#include "app/progress.h"

#include <cstdlib>
#include <string>

#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <sys/ioctl.h>
#include <unistd.h>
#endif

namespace qvx::app {

bool IsTerminal(std::FILE* AFile) {
#ifdef _WIN32
  return _isatty(_fileno(AFile)) != 0;
#else
  return isatty(fileno(AFile)) != 0;
#endif
}

unsigned TerminalWidth(std::FILE* AFile) {
  if (!IsTerminal(AFile)) return 0;
#ifdef _WIN32
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info))
    return static_cast<unsigned>(info.srWindow.Right - info.srWindow.Left + 1);
#else
  winsize ws{};
  if (ioctl(fileno(AFile), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
#endif
  if (const char* columns = std::getenv("COLUMNS")) {
    const long n = std::strtol(columns, nullptr, 10);
    if (n > 0 && n < 10000) return static_cast<unsigned>(n);
  }
  return 80;
}

TProgress::TProgress(std::FILE* AErr, bool AEnabled)
    : FErr(AErr), FEnabled(AEnabled), FStart(std::chrono::steady_clock::now()), FLast(FStart) {}

void TProgress::Update(uint64_t ADone, uint64_t ATotal, uint64_t AEvents) {
  if (!FEnabled) return;
  const auto now = std::chrono::steady_clock::now();
  if (FDrawn && now - FLast < std::chrono::milliseconds(100)) return;
  FLast = now;
  Draw(ADone, ATotal, AEvents);
}

void TProgress::Draw(uint64_t ADone, uint64_t ATotal, uint64_t AEvents) {
  const double seconds = std::chrono::duration<double>(FLast - FStart).count();
  const double mb = static_cast<double>(ADone) / 1048576.0;
  const double rate = seconds > 0 ? mb / seconds : 0;
  std::string bar;
  if (ATotal) {
    const double fraction = ADone >= ATotal ? 1.0 : static_cast<double>(ADone) / static_cast<double>(ATotal);
    const int filled = static_cast<int>(fraction * 30);
    bar.assign(32, '-');
    bar.front() = '[';
    bar.back() = ']';
    for (int i = 0; i < filled; ++i) bar[static_cast<size_t>(i) + 1] = '#';
    std::fprintf(FErr, "\r%s %3d%%  %.0f/%.0f MB  %.1f MB/s  %llu events \x1b[K", bar.c_str(),
                 static_cast<int>(fraction * 100), mb, static_cast<double>(ATotal) / 1048576.0, rate,
                 static_cast<unsigned long long>(AEvents));
  } else {
    std::fprintf(FErr, "\r%.0f MB  %.1f MB/s  %llu events \x1b[K", mb, rate, static_cast<unsigned long long>(AEvents));
  }
  std::fflush(FErr);
  FDrawn = true;
}

void TProgress::Finish() {
  if (!FDrawn) return;
  std::fputs("\r\x1b[K", FErr);
  std::fflush(FErr);
  FDrawn = false;
}

} // namespace qvx::app
