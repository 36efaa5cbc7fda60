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
//   sequences  values that some sys/ files take one after the other (below)
//   machine.env  variables for the programs run inside, one NAME=value a
//           line ('#' starts a comment); "$MACHINE" in a value stands for
//           the machine's private copy (e.g. LD_PRELOAD=$MACHINE/lib/x.so)
//
// Sequenced files. A machine whose values must change while it runs lists
// them in a text file named "sequences" at the top of its folder, one file a
// line: its path inside the machine folder (under sys/), then its values in
// order, separated by blanks; '#' starts a comment line:
//
//   sys/devices/pci0000:00/0000:00:01.1/.../hwmon/hwmon3/temp1_input  52000 57000 61000
//
// Each value is written as one line (the value and a newline), "\t", "\n"
// and "\s" in it standing for a tab, a line end and a blank; "<empty>"
// stands for an empty file and "<absent>" for no file at all. The file holds
// the first value once the machine is entered; after the last value the
// series starts again from the first. Values move on in one of two ways:
//   - step_sequences(): every sequenced file takes its next value at once
//     (deterministic; for a test that drives the machine itself);
//   - follow_reads(): a helper process inside the machine watches the
//     sequenced files being read; once 50 ms pass in which no sequenced file
//     is read for the first time since it took its value, every file read
//     since the last such pause takes its next value. A burst of reads, such
//     as one refresh of a monitor (or its first scan, which may read a file
//     twice), thus moves each file it read on by one; a program that reads
//     without pause sees its files move on about every 50 ms. An "<absent>"
//     value lasts until a burst of reads of the other files has ended. run()
//     does this for every program it starts, so `gpumon --machine DIR
//     --watch 0.2` sees new values from one refresh to the next. The helper
//     watches each file itself, not its folder, and only until its first
//     read: the program's other reads cost it nothing.
// A file is replaced whole (written aside, then renamed over), so a reader
// sees the old or the new value, never a mix.
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

// Moves every sequenced file of the machine entered with enter() to its next
// value. False when outside a machine, when it has no sequences, or when a
// file could not be written.
bool step_sequences();

// Starts the helper that advances each sequenced file after every completed
// read (see above); it lives until leave(), or until the process that started
// it ends. True at once when the machine has no sequences or the helper
// already runs.
bool follow_reads(std::string* error);

struct RunResult {
  int exit_code = -1;  // 128 + signal when killed by a signal
  std::string out;     // captured standard output (when capture is set)
  std::string err;     // captured standard error (when capture is set)
  std::string error;   // why the machine could not be entered, if it could not
};

// Runs argv inside the machine in a child process, with the machine's
// libraries on the loader's path from the start and its sequenced files
// following reads. With capture, standard output and error are collected;
// otherwise they are inherited. The program gets SIGTERM when the thread
// that called run() ends without waiting for it (its process killed, say),
// so it never outlives its parent.
RunResult run(const std::string& dir, const std::vector<std::string>& argv, bool capture);

}  // namespace machine
