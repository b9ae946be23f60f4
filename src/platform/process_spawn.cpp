#include "platform/process_spawn.h"

#ifdef _WIN32
#include "platform/utf16.h"
#include <windows.h>
#else
#include <cerrno>
#include <chrono>
#include <cstring>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

namespace qvx {

namespace {

bool IsBlank(char AChar) {
  return AChar == ' ' || AChar == '\t';
}

} // namespace

std::vector<std::string> SplitWindowsCommandLine(std::string_view ACommandLine) {
  std::vector<std::string> args;
  const size_t len = ACommandLine.size();
  size_t pos = 0;
  while (pos < len && IsBlank(ACommandLine[pos]))
    ++pos;
  if (pos >= len) return args;

  // The program name: only quotes mean something (they toggle).
  {
    std::string name;
    bool quoted = false;
    for (; pos < len; ++pos) {
      const char c = ACommandLine[pos];
      if (c == '"') {
        quoted = !quoted;
        continue;
      }
      if (!quoted && IsBlank(c)) break;
      name.push_back(c);
    }
    args.push_back(std::move(name));
  }

  for (;;) {
    while (pos < len && IsBlank(ACommandLine[pos]))
      ++pos;
    if (pos >= len) break;
    std::string arg;
    bool quoted = false;
    while (pos < len) {
      size_t slashes = 0;
      while (pos < len && ACommandLine[pos] == '\\') {
        ++slashes;
        ++pos;
      }
      if (pos < len && ACommandLine[pos] == '"') {
        arg.append(slashes / 2, '\\');
        if (slashes % 2 == 1) {
          arg.push_back('"'); // escaped quote
        } else if (quoted && pos + 1 < len && ACommandLine[pos + 1] == '"') {
          arg.push_back('"'); // "" inside quotes
          ++pos;
        } else {
          quoted = !quoted;
        }
        ++pos;
        continue;
      }
      arg.append(slashes, '\\');
      if (pos >= len) break;
      const char c = ACommandLine[pos];
      if (!quoted && IsBlank(c)) break;
      arg.push_back(c);
      ++pos;
    }
    args.push_back(std::move(arg));
  }
  return args;
}

#ifdef _WIN32

bool StartProgram(const std::string& ACommandLine) {
  if (SplitWindowsCommandLine(ACommandLine).empty()) return false;
  const std::u16string wide = Utf8ToUtf16(ACommandLine);
  std::vector<wchar_t> buffer(wide.begin(), wide.end()); // CreateProcessW may write to it
  buffer.push_back(L'\0');
  STARTUPINFOW startup;
  ZeroMemory(&startup, sizeof(startup));
  startup.cb = sizeof(STARTUPINFOW);
  PROCESS_INFORMATION info;
  ZeroMemory(&info, sizeof(info));
  if (!CreateProcessW(nullptr, buffer.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
    return false;
  CloseHandle(info.hThread);
  CloseHandle(info.hProcess);
  return true;
}

#else

namespace {

// Collects the children StartProgram started. One detached thread, created on first
// use, polls the pids it was handed; its state lives on the heap and is never freed so
// that it outlives static destruction at process exit.
class TChildReaper {
public:
  static TChildReaper& Instance() {
    static TChildReaper* instance = new TChildReaper();
    return *instance;
  }

  void Add(pid_t APid) {
    {
      std::lock_guard<std::mutex> lock(FLock);
      FNew.push_back(APid);
      if (!FStarted) {
        std::thread(&TChildReaper::Run, this).detach();
        FStarted = true;
      }
    }
    FWake.notify_one();
  }

private:
  void Run() {
    std::vector<pid_t> pending;
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(FLock);
        if (pending.empty())
          FWake.wait(lock, [this] { return !FNew.empty(); });
        else
          FWake.wait_for(lock, std::chrono::milliseconds(100), [this] { return !FNew.empty(); });
        pending.insert(pending.end(), FNew.begin(), FNew.end());
        FNew.clear();
      }
      for (size_t i = 0; i < pending.size();) {
        int status = 0;
        const pid_t done = waitpid(pending[i], &status, WNOHANG);
        if (done == pending[i] || (done < 0 && errno != EINTR)) {
          pending[i] = pending.back();
          pending.pop_back();
        } else {
          ++i;
        }
      }
    }
  }

  std::mutex FLock;
  std::condition_variable FWake;
  std::vector<pid_t> FNew;
  bool FStarted = false;
};

} // namespace

bool StartProgram(const std::string& ACommandLine) {
  std::vector<std::string> args = SplitWindowsCommandLine(ACommandLine);
  if (args.empty() || args[0].empty()) return false;
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (std::string& arg : args)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
  TChildReaper::Instance().Add(pid);
  return true;
}

#endif

std::string ProgramFolder() {
#ifdef _WIN32
  std::wstring path(32768, L'\0');
  const DWORD n = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  if (n == 0 || n >= path.size()) return {};
  path.resize(n);
  const size_t slash = path.find_last_of(L"\\/");
  if (slash == std::wstring::npos) return {};
  return Utf16ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(path.data()), slash));
#else
  std::string path(4096, '\0');
  const ssize_t n = ::readlink("/proc/self/exe", path.data(), path.size());
  if (n <= 0 || static_cast<size_t>(n) >= path.size()) return {};
  path.resize(static_cast<size_t>(n));
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
#endif
}

std::string ReplaceProcess(const std::string& APath, const std::vector<std::string>& AArguments) {
#ifdef _WIN32
  (void)APath;
  (void)AArguments;
  return "not supported on Windows";
#else
  std::vector<char*> argv;
  argv.reserve(AArguments.size() + 1);
  for (const std::string& arg : AArguments) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  ::execv(APath.c_str(), argv.data());
  return std::strerror(errno);
#endif
}

} // namespace qvx
