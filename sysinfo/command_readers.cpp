// Readers that run one shell pipeline over /proc and take the first line of
// its output; what the line means is proc_parse's.
#include <cmath>

#include "io/command_pipe.h"
#include "sysinfo/cpu_readers.h"
#include "sysinfo/proc_parse.h"

namespace sysinfo {

namespace {

// The first line of the command's output (at most size - 1 characters).
// False when the pipe cannot be opened or no line comes.
bool first_output_line(const char* command, char* line, int size) {
  return first_line_of(command, line, size) == PipeAnswer::kLine;
}

// The first output line as a 128-byte text, its last character cut.
bool read_chopped_first_line(const char* command, char* out) {
  if (out == nullptr) return false;
  char line[256];
  if (!first_output_line(command, line, 255)) return false;
  proc_parse::chopped_text(line, out);
  return true;
}

bool read_leading_number(const char* command, long* out) {
  char line[128];
  if (!first_output_line(command, line, 127)) return false;
  *out = proc_parse::leading_number(line);
  return true;
}

// Keeps the processor busy for a moment so that the clock read next is the
// one it runs at under load, not its idle clock.
void warm_up_cpu() {
  double sum = 0.0;
  double x = 0.0;
  for (int i = 0; i < 100000; ++i) {
    sum += std::cos(x) + std::sin(x);
    x += 0.025;
  }
  volatile double result = std::sqrt(sum);
  (void)result;
}

}  // namespace

bool read_cpu_name(char* name) {
  return read_chopped_first_line("cat /proc/cpuinfo | grep \"model name\" | cut -c14-", name);
}

bool read_board_model(char* name) {
  return read_chopped_first_line("cat /proc/cpuinfo | grep \"Model\" | cut -c10-", name);
}

bool read_os_name(char* name) { return read_chopped_first_line("uname -snr", name); }

bool read_cpu_speed_mhz_current(unsigned long* mhz) {
  if (mhz == nullptr) return false;
  warm_up_cpu();
  long value = 0;
  if (!read_leading_number("cat /proc/cpuinfo | grep \"cpu MHz\" | cut -c12-", &value))
    return false;
  *mhz = static_cast<unsigned long>(value);
  return true;
}

bool read_mem_size_mb(unsigned long* mb) {
  if (mb == nullptr) return false;
  long kb = 0;
  if (!read_leading_number("cat /proc/meminfo | grep MemTotal | cut -c17-  | grep -o '[0-9]*'",
                           &kb))
    return false;
  *mb = proc_parse::mib_of_kib(kb);
  return true;
}

}  // namespace sysinfo
