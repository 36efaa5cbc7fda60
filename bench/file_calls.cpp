#include "file_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>

namespace {

std::atomic<bool> g_counting{false};
bool g_keep_paths = false;
std::atomic<long> g_opens{0};
std::atomic<long> g_reads{0};
std::atomic<long> g_closes{0};
std::vector<std::string> g_paths;

template <typename Fn>
Fn next_definition(const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

bool counting() { return g_counting.load(std::memory_order_relaxed); }

}  // namespace

namespace file_calls {

void start(bool keep_paths) {
  g_opens = 0;
  g_reads = 0;
  g_closes = 0;
  g_keep_paths = keep_paths;
  if (keep_paths) g_paths.clear();
  g_counting = true;
}

Tally stop() {
  g_counting = false;
  g_keep_paths = false;
  return Tally{g_opens.load(), g_reads.load(), g_closes.load()};
}

const std::vector<std::string>& paths() { return g_paths; }

}  // namespace file_calls

extern "C" int open(const char* path, int flags, ...) {
  using Open = int (*)(const char*, int, ...);
  static const Open real = next_definition<Open>("open");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list args;
    va_start(args, flags);
    mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
  }
  if (counting()) {
    ++g_opens;
    if (g_keep_paths) g_paths.emplace_back(path);
  }
  return real(path, flags, mode);
}

extern "C" ssize_t read(int fd, void* into, size_t size) {
  using Read = ssize_t (*)(int, void*, size_t);
  static const Read real = next_definition<Read>("read");
  if (counting()) ++g_reads;
  return real(fd, into, size);
}

extern "C" int close(int fd) {
  using Close = int (*)(int);
  static const Close real = next_definition<Close>("close");
  if (counting()) ++g_closes;
  return real(fd);
}
