#include "io/copy_text.h"

void copy_text(char* dst, unsigned long size, const char* src) {
  if (dst == nullptr || size == 0) return;
  unsigned long n = 0;
  if (src != nullptr) {
    while (n + 1 < size && src[n] != '\0') {
      dst[n] = src[n];
      ++n;
    }
  }
  dst[n] = '\0';
}
