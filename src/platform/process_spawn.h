// Starting external programs from a command line, the way Windows does it.
//
// A command line is one string, split into arguments by the Windows rules (those of
// CommandLineToArgvW and the C runtime's startup code). On Windows the string goes to
// CreateProcessW as it is; elsewhere it is split here and the program is started
// directly with posix_spawnp: no shell ever sees the text, so ";", "|", "&", "$", "`",
// ">" and quotes inside arguments are plain characters.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qvx {

// Splits a command line into its arguments (UTF-8 in, UTF-8 out).
//   - Blanks and tabs before the program name are skipped; an empty or blank command
//     line gives no arguments.
//   - The program name (the first argument) ends at the first blank or tab outside
//     quotes; inside it quotes only toggle quoting and backslashes are literal, so
//     "C:\Program Files\x.exe" comes back as C:\Program Files\x.exe.
//   - Later arguments are separated by blanks and tabs outside quotes. 2n backslashes
//     followed by a quote give n backslashes and the quote toggles quoting; 2n+1
//     backslashes followed by a quote give n backslashes and a literal quote;
//     backslashes not followed by a quote are literal. Inside a quoted region ""
//     gives a literal quote and quoting goes on. "" alone is an empty argument.
std::vector<std::string> SplitWindowsCommandLine(std::string_view ACommandLine);

// Starts the program of ACommandLine and returns at once, never waiting for it.
// False when it could not be started (empty command line, program not found, ...).
// On POSIX systems the program is looked up on PATH and gets the current environment;
// a background thread collects finished children so they do not linger as zombies.
bool StartProgram(const std::string& ACommandLine);

// The folder that holds the running program ("" when the system cannot tell).
std::string ProgramFolder();

// Replaces the running process by the program at APath, given AArguments (the first one
// is its name), the same environment and the same open files: the process keeps its ID,
// its terminal and its signals. Returns only when that failed, with the reason. POSIX
// only; on Windows it always fails.
std::string ReplaceProcess(const std::string& APath, const std::vector<std::string>& AArguments);

} // namespace qvx
