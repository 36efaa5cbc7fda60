// machine_run: runs any program inside a fake machine.
//   machine_run DIR PROGRAM [ARGS...]
// Exits with the program's exit code, or 3 when the machine cannot be
// entered (and 2 for a bad command line).
#include <cstdio>
#include <string>
#include <vector>

#include "machine.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: machine_run DIR PROGRAM [ARGS...]\n");
    return 2;
  }
  const std::vector<std::string> args(argv + 2, argv + argc);
  const machine::RunResult result = machine::run(argv[1], args, false);
  if (!result.error.empty()) {
    std::fprintf(stderr, "machine_run: cannot run in machine %s: %s\n", argv[1],
                 result.error.c_str());
    return 3;
  }
  return result.exit_code;
}
