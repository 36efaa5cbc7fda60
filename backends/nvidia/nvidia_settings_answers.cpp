#include "backends/nvidia/nvidia_settings_answers.h"

#include <cstdio>
#include <cstdlib>

namespace nvidia_settings_answer {

namespace {

bool store_positive(float value, float* out) {
  if (!(value > 0.0f)) return false;
  *out = value;
  return true;
}

}  // namespace

bool parse_positive_integer(const char* line, float* out) {
  return store_positive(static_cast<float>(std::atoi(line)), out);
}

bool parse_positive_decimal(const char* line, float* out) {
  return store_positive(static_cast<float>(std::atof(line)), out);
}

Utilization parse_utilization(const char* line) {
  Utilization u = {0, 0, 0, 0};
  std::sscanf(line, "graphics=%d, memory=%d, video=%d, PCIe=%d", &u.graphics, &u.memory, &u.video,
              &u.pcie);
  return u;
}

bool is_attribute_name(const char* name) {
  if (name[0] == '\0') return false;
  for (const char* c = name; *c != '\0'; ++c) {
    const bool letter = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z');
    const bool digit = *c >= '0' && *c <= '9';
    if (!letter && !digit && *c != '_') return false;
  }
  return true;
}

}  // namespace nvidia_settings_answer
