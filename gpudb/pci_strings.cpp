// Hex digits of PCI ids as sysfs, the tools and the tables write them.
// Nothing is validated: a character that is no hex digit gives an
// out-of-range digit value that flows into the result unchecked, and callers
// keep the low 32 bits.
#include <cctype>

#include "gpudb/gpu_db.h"

namespace gpudb {

unsigned int to_hex(char c) {
  const int upper = std::toupper(static_cast<unsigned char>(c));
  const int value = (upper >= '0' && upper <= '9') ? upper - '0' : upper - 55;
  return static_cast<uint16_t>(value);
}

unsigned int str_to_hex(char a, char b, char c, char d) {
  return ((to_hex(a) * 16 + to_hex(b)) * 16 + to_hex(c)) * 16 + to_hex(d);
}

unsigned int str_to_hex2(char a, char b) { return to_hex(a) * 16 + to_hex(b); }

}  // namespace gpudb
