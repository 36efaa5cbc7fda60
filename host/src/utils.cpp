#include "zev/utils.h"

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zev {
namespace utils {

const char* get_platform_name() { return "Linux"; }

const char* get_linux_release() {
  // Read from procfs rather than uname(2) so that a machine description can
  // present its own kernel release.
  static char release[128];
  release[0] = '\0';
  if (FILE* f = std::fopen("/proc/sys/kernel/osrelease", "r")) {
    if (std::fgets(release, sizeof release, f) == nullptr) release[0] = '\0';
    std::fclose(f);
    release[std::strcspn(release, "\n")] = '\0';
  }
  if (release[0] == '\0') {
    struct utsname u;
    if (uname(&u) == 0) std::snprintf(release, sizeof release, "%s", u.release);
  }
  return release;
}

int get_platform_bitness() { return static_cast<int>(sizeof(void*) * 8); }

char* file_content_read(const char* path, unsigned long* size) {
  if (size) *size = 0;
  if (path == nullptr) return nullptr;
  FILE* f = std::fopen(path, "rb");
  if (f == nullptr) return nullptr;
  // sysfs files report a size of 4096 whatever they hold, so read until EOF
  // instead of trusting the file size.
  size_t capacity = 256;
  size_t length = 0;
  char* buffer = static_cast<char*>(std::malloc(capacity + 1));
  while (buffer != nullptr) {
    size_t got = std::fread(buffer + length, 1, capacity - length, f);
    length += got;
    if (got == 0 || length < capacity) {
      if (std::ferror(f)) {
        std::free(buffer);
        buffer = nullptr;
      }
      break;
    }
    capacity *= 2;
    char* grown = static_cast<char*>(std::realloc(buffer, capacity + 1));
    if (grown == nullptr) {
      std::free(buffer);
      buffer = nullptr;
      break;
    }
    buffer = grown;
  }
  std::fclose(f);
  if (buffer == nullptr) return nullptr;
  buffer[length] = '\0';
  if (size) *size = length;
  return buffer;
}

void file_content_free(char* buffer) { std::free(buffer); }

}  // namespace utils
}  // namespace zev
