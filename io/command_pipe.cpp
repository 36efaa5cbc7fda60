#include "io/command_pipe.h"

#include <cstdio>
#include <cstring>

PipeAnswer first_line_of(const char* command, char* line, int size) {
  std::memset(line, 0, static_cast<size_t>(size));
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return PipeAnswer::kNoProcess;
  const bool got_line = std::fgets(line, size, pipe) != nullptr;
  pclose(pipe);
  return got_line ? PipeAnswer::kLine : PipeAnswer::kNoLine;
}
