// The legacy readers' command lines: each runs its pipeline and hands the
// line it wants to legacy_parse.
#include <cstdio>
#include <cstring>

#include "backends/legacy/legacy_backend.h"
#include "backends/legacy/legacy_parse.h"
#include "io/command_pipe.h"
#include "io/copy_text.h"
#include "zev/plugin.h"

namespace legacy_backend {

namespace {

constexpr int kWideLine = 256;
constexpr int kNarrowLine = 128;

// Runs `command` and reads its output up to the line at `index` (0-based)
// into `line` (size bytes, at most size - 1 characters). The buffer is cleared
// before each read, so nothing of an earlier line stays behind the
// terminator. False when the command cannot start or has fewer lines.
bool line_at(const char* command, unsigned long index, char* line, int size) {
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return false;
  bool found = false;
  for (unsigned long at = 0;; ++at) {
    std::memset(line, 0, static_cast<size_t>(size));
    if (std::fgets(line, size, pipe) == nullptr) break;
    if (at == index) {
      found = true;
      break;
    }
  }
  pclose(pipe);
  return found;
}

}  // namespace

bool count_display_adapters(unsigned long* count) {
  if (count == nullptr) return false;
  FILE* pipe = popen("lspci | grep VGA", "r");
  if (pipe == nullptr) return false;
  char line[kWideLine];
  unsigned long lines = 0;
  while (std::fgets(line, sizeof line, pipe) != nullptr) ++lines;
  pclose(pipe);
  *count = lines;
  return true;
}

bool read_pci_codes(unsigned long index, unsigned long* vendor, unsigned long* device) {
  if (vendor == nullptr && device == nullptr) return false;
  char line[kWideLine];
  return line_at("lspci -nn -q | grep VGA | cut -c43- | grep -o '\\[[0-f:]*\\]'", index, line,
                 kWideLine) &&
         legacy_parse::pci_codes(line, vendor, device);
}

bool read_pci_revision(unsigned long index, char* revision) {
  if (revision == nullptr) return false;
  char line[kWideLine];
  return line_at("lspci -nn -q | grep VGA | cut -c43- | grep -o '\\(rev [0-f:]*\\)'", index, line,
                 kWideLine) &&
         legacy_parse::pci_revision(line, revision);
}

bool read_adapter_name(unsigned long index, char* name) {
  if (name == nullptr) return false;
  char line[kWideLine];
  return line_at("lspci | grep VGA | cut -c36-", index, line, kWideLine) &&
         legacy_parse::adapter_name(line, name);
}

bool has_core_temperature(unsigned long adapter) {
  char command[kWideLine];
  std::snprintf(command, sizeof command, "aticonfig --odgt --adapter=%lu | grep Temperature",
                adapter);
  char line[kWideLine];
  if (first_line_of(command, line, kWideLine) != PipeAnswer::kLine) return false;
  return !legacy_parse::says_command_not_found(line);
}

bool read_core_temperature(unsigned long adapter, float* celsius, zev::Plugin* tracer) {
  if (celsius == nullptr) return false;
  char command[kWideLine];
  std::snprintf(command, sizeof command,
                "aticonfig --odgt --adapter=%lu | grep Temperature | cut -c30- | grep -o "
                "'[0-9.]*'",
                adapter);
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) {
    tracer->tracef("linux_amd_gpu_get_core_temp - popen error");
    return false;
  }
  tracer->tracef("linux_amd_gpu_get_core_temp - popen ok - %s", command);
  char line[kNarrowLine];
  bool found = false;
  while (!found && std::fgets(line, sizeof line, pipe) != nullptr) {
    if (legacy_parse::says_command_not_found(line)) break;
    found = legacy_parse::temperature_celsius(line, celsius);
  }
  pclose(pipe);
  return found;
}

bool read_bios_string(unsigned long adapter, char* text) {
  if (text == nullptr) return false;
  char command[kWideLine];
  std::snprintf(command, sizeof command,
                "cat /proc/ati/%lu/biosversion | grep BIOS_PN | grep -Po '(?<=\")[^\"]*'", adapter);
  char line[kNarrowLine];
  if (first_line_of(command, line, kNarrowLine) != PipeAnswer::kLine) return false;
  copy_text(text, kNarrowLine, line);
  return true;
}

}  // namespace legacy_backend
