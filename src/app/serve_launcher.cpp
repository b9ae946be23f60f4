#include "app/commands.h"

#include "platform/process_spawn.h"

namespace qvx::app {

// The browser view runs in a program of its own, beside this one: its web server and
// what that links (TLS, compression) would otherwise be loaded, at every start, by every
// command.
int RunServeProgram(int AArgc, char** AArgv, std::FILE* AErr) {
  const std::string folder = ProgramFolder();
  const std::string program = (folder.empty() ? std::string(".") : folder) + "/quorvex-serve";
  std::vector<std::string> args(AArgv, AArgv + AArgc);
  const std::string reason = ReplaceProcess(program, args);
  std::fprintf(AErr, "quorvex: cannot start %s, the program of the browser view (%s); it is built beside quorvex\n",
               program.c_str(), reason.c_str());
  return 1;
}

} // namespace qvx::app
