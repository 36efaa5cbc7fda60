#include "sysinfo/proc_parse.h"

#include <cstdlib>
#include <cstring>

#include "io/copy_text.h"

namespace proc_parse {

void chopped_text(const char* line, char* out) {
  copy_text(out, 128, line);
  const size_t length = std::strlen(out);
  if (length > 0) out[length - 1] = '\0';
}

long leading_number(const char* line) { return std::atoi(line); }

unsigned long mib_of_kib(long kib) { return static_cast<unsigned long>(kib) >> 10; }

ModelLine model_line(const char* line) {
  if (std::strstr(line, "Model") == nullptr) return ModelLine::kNotModel;
  return std::strstr(line, "Raspberry Pi") != nullptr ? ModelLine::kRaspberryPi
                                                      : ModelLine::kOtherBoard;
}

}  // namespace proc_parse
