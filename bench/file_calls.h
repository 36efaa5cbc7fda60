// The file system calls of this process, counted while a count is on: this
// executable defines open, read and close, counts each call and hands it to
// the C library's. The monitor's code, linked into the executable, reads
// every sysfs value through these three calls, so their count is the
// refresh's count of system calls (strace agrees; see the README). A count
// can also keep the path of every open, for a floor loop that opens the same
// files.
#pragma once

#include <string>
#include <vector>

namespace file_calls {

struct Tally {
  long opens = 0;  // every attempt, also those that fail
  long reads = 0;
  long closes = 0;
  long total() const { return opens + reads + closes; }
};

// Clears the tally and starts counting; with `keep_paths`, the path of every
// open is kept too.
void start(bool keep_paths = false);
// Stops counting and returns what was counted since start().
Tally stop();
// The paths opened while the last count kept them, in order.
const std::vector<std::string>& paths();

}  // namespace file_calls
