// What nvidia-settings' terse answers (-q ATTRIBUTE -t) mean: text in, value
// out, no process run.
#pragma once

namespace nvidia_settings_answer {

// An answer line that reads as a value above 0: as a whole number (atoi:
// "41") or a decimal one (atof: the driver version "550.54.14" is 550.54).
// 0 (a stopped fan) and a line that reads as no number are no reading: false,
// *out untouched.
bool parse_positive_integer(const char* line, float* out);
bool parse_positive_decimal(const char* line, float* out);

// GPUUtilization's answer, "graphics=45, memory=12, video=0, PCIe=1"; what
// the line does not hold reads as 0.
struct Utilization {
  int graphics;
  int memory;
  int video;
  int pcie;
};
Utilization parse_utilization(const char* line);

// Whether `name` can be an attribute name: letters, digits and underscores
// only, which is what nvidia-settings attribute names are made of (names go
// to a shell as a grep pattern).
bool is_attribute_name(const char* name);

}  // namespace nvidia_settings_answer
