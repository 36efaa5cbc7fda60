// What the DRM card files say, as pure functions of their first line (the
// text up to and including its newline, as the readers fetch it into a
// cleared buffer): PCI ids, decimal sensor values in record units, texts,
// unsigned counters, the uevent DRIVER= line, and the unit changes of the
// extra sensors. Nothing here opens a file.
#pragma once

#include <cstddef>

namespace drm_parse {

// The character at `at` of `line`, or '\0' past its end: a short line reads
// as the cleared buffer behind it would.
char char_at(const char* line, size_t at);

// A PCI id file ("0x1002\n"): the four hex digits at positions 2 to 5, and
// the revision's two at positions 2 and 3. Nothing is checked: a short or
// malformed line gives whatever the digit conversion makes of it.
unsigned long id4(const char* line);
unsigned long id2(const char* line);

// The vendor probe: a non-empty line whose four digits after "0x" (the
// newline read as the end of the line) make a vendor above 0.
bool names_vendor(const char* line);

// The decimal number a line starts with (leading blanks skipped, 0 when
// there is none), divided by `divisor` with truncation toward zero and kept
// within the range of an int. Values are read as 64-bit numbers: clocks in Hz
// pass 2^31 on current boards (2.5 GHz is 2500000000).
int scaled_decimal(const char* line, long long divisor);

// Divisors of the hwmon units: Hz to MHz, millidegrees to degrees.
constexpr long long kHzPerMHz = 1000000;
constexpr long long kMilliPerUnit = 1000;

// Board power: the microwatts a power<i>_input or power<i>_average line
// starts with (strtoll: 0 for no number), and whole watts of a reading,
// kept within an int.
long long microwatts(const char* line);
int whole_watts(long long microwatts);

// A text file's first line without its newline into `text` (at most
// size - 1 characters): false for an empty line; a line holding only a
// newline gives an empty text. The hwmon name and labels, the VBIOS.
bool text_line(const char* line, char* text, size_t size);

// The unsigned decimal number a line starts with (leading blanks skipped):
// false when the line does not start with a digit or the number does not fit
// 64 bits. Counters such as energy<i>_input (µJ) pass 2^32 within hours.
bool parse_unsigned(const char* line, unsigned long long* value);

// One line of a uevent file: true for a "DRIVER=" line, whose name (its
// newline cut, at most size - 1 characters) goes into `text`: empty when the
// line names no driver.
bool uevent_driver(const char* line, char* text, size_t size);

// A hwmon label that marks the memory temperature: "mem" (amdgpu), "vram"
// (xe), without their newline.
bool names_memory_temperature(const char* label);

// Video memory in bytes as whole MiB.
unsigned long long mebibytes(unsigned long long bytes);

// A GT clock in MHz that is plausible (no GT clock is a terahertz).
bool plausible_gt_mhz(unsigned long long mhz);

// The power limit file's microwatts as milliwatts; false for 0 (no limit).
bool limit_milliwatts(unsigned long long microwatts, float* milliwatts);

// The PWM maximum a pwm1_max reading allows (1 to 65535), else the default
// of 255.
int pwm_max(bool read, unsigned long long max);
// A PWM duty as a percentage of its maximum (> 0), the duty kept at most
// the maximum.
int pwm_percent(unsigned long long duty, int max);

// The average power between two energy counter readings (µJ, ns apart):
// false when the counter went backwards or wrapped, or the average is no
// card's power (above 10 kW: a reset or replaced counter).
bool average_watts(unsigned long long previous_uj, unsigned long long uj, long long elapsed_ns,
                   double* watts);

}  // namespace drm_parse
