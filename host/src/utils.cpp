#include "zev/utils.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zev {
namespace utils {

namespace {

// Files are opened non-blocking: a FIFO, or any other file that would wait
// for a writer, reads as empty instead of holding the caller for ever.
int open_for_reading(const char* path) { return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK); }

// One read, retried while a signal interrupts it; a file with no data yet
// (EAGAIN) has reached its end. -1 is a failed read.
ssize_t read_once(int fd, char* into, size_t size) {
  for (;;) {
    const ssize_t got = read(fd, into, size);
    if (got >= 0) return got;
    if (errno == EAGAIN) return 0;
    if (errno != EINTR) return -1;
  }
}

}  // namespace

const char* get_platform_name() { return "Linux"; }

const char* get_linux_release() {
  // Read from procfs rather than uname(2) so that a machine description can
  // present its own kernel release.
  static char release[128];
  std::memset(release, 0, sizeof release);
  if (char* text = file_content_read("/proc/sys/kernel/osrelease", nullptr)) {
    // The first line, cut to the buffer.
    std::strncpy(release, text, std::min(std::strcspn(text, "\n"), sizeof release - 1));
    file_content_free(text);
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
  const int fd = open_for_reading(path);
  if (fd < 0) return nullptr;
  // sysfs files report a size of 4096 whatever they hold, so read until the
  // end instead of trusting the file size.
  size_t capacity = 256;
  size_t length = 0;
  char* buffer = static_cast<char*>(std::malloc(capacity + 1));
  while (buffer != nullptr) {
    const ssize_t got = read_once(fd, buffer + length, capacity - length);
    if (got < 0) {
      std::free(buffer);
      buffer = nullptr;
      break;
    }
    if (got == 0) break;
    length += static_cast<size_t>(got);
    if (length < capacity) continue;
    capacity *= 2;
    char* grown = static_cast<char*>(std::realloc(buffer, capacity + 1));
    if (grown == nullptr) {
      std::free(buffer);
      buffer = nullptr;
      break;
    }
    buffer = grown;
  }
  close(fd);
  if (buffer == nullptr) return nullptr;
  buffer[length] = '\0';
  if (size) *size = length;
  return buffer;
}

void file_content_free(char* buffer) { std::free(buffer); }

}  // namespace utils
}  // namespace zev
