// What nvidia-smi's one-line CSV answers mean: text in, value out, no
// process run. Numeric answers are converted with atoi (a fraction is
// dropped, units printed where none were asked are ignored). An answer that
// stands for "no value" is no reading: the parser answers false and the
// record keeps what it had. nvidia-smi prints such answers in brackets
// ("[N/A]", "[Not Supported]", "[Unknown Error]", "[Insufficient
// Permissions]", ...) or as a bare "N/A", and the first design read them as
// 0 through atoi: 0 % usage on a GPU in MIG mode, a fan at 0 on a board
// without one. The memory temperature's own rule (an answer beginning with N
// is none) stays as it was.
#pragma once

namespace nv_smi_answer {

// Whether an answer line (newline and all) stands for "no value": empty, a
// bare "N/A", or anything in brackets.
bool no_value(const char* line);

// A number answer: optional blanks, an optional sign, then a digit. Anything
// else (an error message, a word) is no reading rather than atoi's 0.
bool is_number(const char* line);

// A text answer without its trailing newline, into `out` (128 bytes); an
// empty answer is no answer.
bool parse_text(const char* line, char* out);

// A number answer, read with atoi ("215.37" is 215).
bool parse_number(const char* line, int* out);

// "0x" and eight hex digits: the device (or sub-device) first, the vendor
// (or sub-vendor) last, as in 0x268410DE. Either output may be null.
bool parse_id_pair(const char* line, unsigned long* vendor, unsigned long* device);

// "0x" and two hex digits, as in 0x07.
bool parse_bus(const char* line, unsigned long* bus);

// The count of GPUs (the first of the lines nvidia-smi prints, one per GPU).
unsigned long parse_count(const char* line);

// The memory temperature: no reading when the answer begins with N.
bool parse_memory_temperature(const char* line, int* celsius);

}  // namespace nv_smi_answer
