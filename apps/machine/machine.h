// Fake machines: a folder whose files are laid out at their real paths
// (/proc/..., /sys/..., /dev/...) inside a private mount namespace, with its
// tools first on PATH and its libraries first on LD_LIBRARY_PATH.
//
// A machine folder holds any of:
//   proc/   files placed over the same files of /proc (cpuinfo, meminfo,
//           sys/kernel/osrelease, ...); the rest of /proc stays real
//   sys/    the whole of /sys (an empty /sys when absent)
//   dev/    files added to a fresh /dev that holds only null, zero, full,
//           random, urandom, tty, pts and shm besides
//   bin/    tools, first on PATH; known GPU tools it lacks answer
//           "command not found" instead of reaching the real ones
//   lib/    libraries, first on LD_LIBRARY_PATH
//
// Nothing is ever written to the real /proc, /sys or /dev: every mount is
// made in a private namespace (its propagation cut first), the machine's
// files are served from a private tmpfs copy, and the harness refuses to go
// on when any of that cannot be had.
#pragma once

#include <string>
#include <vector>

namespace machine {

// Puts the calling process (or thread) into a private mount namespace and
// lays the machine out. On success the environment (PATH, LD_LIBRARY_PATH,
// ZEV_MACHINE) is set for programs started from here on; a library already
// loaded keeps the search path the process started with, so use run() when
// the machine's libraries matter. On failure nothing was mounted outside a
// private namespace and *error says why.
bool enter(const std::string& dir, std::string* error);

// Undoes enter(): takes the machine's mounts down again, restores the
// environment, and returns to the real view of the file system.
void leave();

// The private copy of the machine's files while inside one, e.g. for a test
// that changes a sensor value between two reads; "" outside.
std::string staged_root();

struct RunResult {
  int exit_code = -1;  // 128 + signal when killed by a signal
  std::string out;     // captured standard output (when capture is set)
  std::string err;     // captured standard error (when capture is set)
  std::string error;   // why the machine could not be entered, if it could not
};

// Runs argv inside the machine in a child process, with the machine's
// libraries on the loader's path from the start. With capture, standard
// output and error are collected; otherwise they are inherited.
RunResult run(const std::string& dir, const std::vector<std::string>& argv, bool capture);

}  // namespace machine
