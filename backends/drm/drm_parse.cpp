#include "backends/drm/drm_parse.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "gpudb/gpu_db.h"
#include "io/copy_text.h"

namespace drm_parse {

namespace {

// Removes one trailing newline.
void cut_newline(char* text) {
  const size_t length = std::strlen(text);
  if (length > 0 && text[length - 1] == '\n') text[length - 1] = '\0';
}

constexpr unsigned long long kBytesPerMiB = 1024ull * 1024ull;
constexpr unsigned long long kMaxGtMhz = 1000000;
constexpr unsigned long long kMaxPwm = 65535;
constexpr int kDefaultPwmMax = 255;
constexpr double kMaxPlausibleWatts = 10000.0;

}  // namespace

char char_at(const char* line, size_t at) {
  for (size_t i = 0; i < at; ++i) {
    if (line[i] == '\0') return '\0';
  }
  return line[at];
}

unsigned long id4(const char* line) {
  return static_cast<uint32_t>(
      gpudb::str_to_hex(char_at(line, 2), char_at(line, 3), char_at(line, 4), char_at(line, 5)));
}

unsigned long id2(const char* line) {
  return static_cast<uint32_t>(gpudb::str_to_hex2(char_at(line, 2), char_at(line, 3)));
}

bool names_vendor(const char* line) {
  if (line[0] == '\0') return false;
  char digits[7];
  copy_text(digits, sizeof digits, line);
  cut_newline(digits);
  return gpudb::str_to_hex(char_at(digits, 2), char_at(digits, 3), char_at(digits, 4),
                           char_at(digits, 5)) > 0;
}

int scaled_decimal(const char* line, long long divisor) {
  const long long value = std::strtoll(line, nullptr, 10) / divisor;
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

long long microwatts(const char* line) { return std::strtoll(line, nullptr, 10); }

int whole_watts(long long microwatts) {
  const long long watts = microwatts / 1000000;
  return watts > INT_MAX ? INT_MAX : static_cast<int>(watts);
}

bool text_line(const char* line, char* text, size_t size) {
  if (line[0] == '\0') return false;
  copy_text(text, size, line);
  cut_newline(text);
  return true;
}

bool parse_unsigned(const char* line, unsigned long long* value) {
  while (*line == ' ' || *line == '\t') ++line;
  if (*line < '0' || *line > '9') return false;
  unsigned long long v = 0;
  for (; *line >= '0' && *line <= '9'; ++line) {
    const unsigned digit = static_cast<unsigned>(*line - '0');
    if (v > (ULLONG_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *value = v;
  return true;
}

bool uevent_driver(const char* line, char* text, size_t size) {
  if (std::strncmp(line, "DRIVER=", 7) != 0) return false;
  copy_text(text, size, line + 7);
  cut_newline(text);
  return true;
}

bool names_memory_temperature(const char* label) {
  return std::strcmp(label, "mem") == 0 || std::strcmp(label, "vram") == 0;
}

unsigned long long mebibytes(unsigned long long bytes) { return bytes / kBytesPerMiB; }

bool plausible_gt_mhz(unsigned long long mhz) { return mhz <= kMaxGtMhz; }

bool limit_milliwatts(unsigned long long microwatts, float* milliwatts) {
  if (microwatts == 0) return false;
  *milliwatts = static_cast<float>(microwatts / 1000);
  return true;
}

int pwm_max(bool read, unsigned long long max) {
  return read && max > 0 && max <= kMaxPwm ? static_cast<int>(max) : kDefaultPwmMax;
}

int pwm_percent(unsigned long long duty, int max) {
  if (duty > static_cast<unsigned long long>(max)) duty = static_cast<unsigned>(max);
  return static_cast<int>(duty * 100 / static_cast<unsigned>(max));
}

bool average_watts(unsigned long long previous_uj, unsigned long long uj, long long elapsed_ns,
                   double* watts) {
  if (uj < previous_uj) return false;
  const double average =
      static_cast<double>(uj - previous_uj) / 1e6 / (static_cast<double>(elapsed_ns) / 1e9);
  if (average > kMaxPlausibleWatts) return false;
  *watts = average;
  return true;
}

}  // namespace drm_parse
