#include "sysinfo/board_model.h"

#include <cstring>

#include "io/text_file.h"

namespace board_model {

bool could_be_raspberry_pi() {
  text_file::Lines lines;
  if (!lines.open("/proc/cpuinfo")) return true;  // unknown: let the pipeline tell
  char line[512];
  while (lines.next(line, sizeof line)) {
    if (std::strstr(line, "Model") != nullptr) return std::strstr(line, "Raspberry Pi") != nullptr;
  }
  return false;
}

}  // namespace board_model
