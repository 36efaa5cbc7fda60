// What the system-information pipelines and /proc/cpuinfo lines mean: text
// in, value out, no file opened and no process run. The pipelines (see
// command_readers.cpp) hand over the first line of their output as fgets
// gives it.
#pragma once

namespace proc_parse {

// A pipeline's line as a 128-byte text (`out`): at most 127 characters, the
// last of them cut (the newline of every line these pipelines give; a
// longer line loses a character of its own).
void chopped_text(const char* line, char* out);

// The number a pipeline's line begins with, as atoi reads it (0 when none:
// "4491.000" is 4491).
long leading_number(const char* line);

// MemTotal's kB as MiB (whole MiB, rounded down).
unsigned long mib_of_kib(long kib);

// A line of /proc/cpuinfo, asked about the board model: not the model line
// (no "Model" in it), or the model line naming a Raspberry Pi or another
// board.
enum class ModelLine { kNotModel, kRaspberryPi, kOtherBoard };
ModelLine model_line(const char* line);

}  // namespace proc_parse
