#include "io/text_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace text_file {

namespace {

int open_for_reading(const char* path) { return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK); }

// One read, retried while a signal interrupts it. A file with no data yet
// (EAGAIN) has reached its end as far as the reader is concerned; -1 is a
// failed read.
ssize_t read_once(int fd, char* into, size_t size) {
  for (;;) {
    const ssize_t got = read(fd, into, size);
    if (got >= 0) return got;
    if (errno == EAGAIN) return 0;
    if (errno != EINTR) return -1;
  }
}

}  // namespace

bool read_first_line(const char* path, char* line, size_t size) {
  const int fd = open_for_reading(path);
  if (fd < 0) return false;
  std::memset(line, 0, size);
  size_t length = 0;
  bool failed = size < 2;
  while (!failed && length + 1 < size) {
    const ssize_t got = read_once(fd, line + length, size - 1 - length);
    if (got < 0) failed = true;
    if (got <= 0) break;
    char* start = line + length;
    char* newline = static_cast<char*>(std::memchr(start, '\n', static_cast<size_t>(got)));
    length += static_cast<size_t>(got);
    if (newline != nullptr) {
      // What the read brought past the first line is cleared again.
      std::memset(newline + 1, 0, static_cast<size_t>(line + length - (newline + 1)));
      length = static_cast<size_t>(newline + 1 - line);
      break;
    }
  }
  close(fd);
  return !failed && length > 0;
}

bool can_open(const char* path) {
  const int fd = open_for_reading(path);
  if (fd < 0) return false;
  close(fd);
  return true;
}

Lines::~Lines() {
  if (fd_ >= 0) close(fd_);
}

bool Lines::open(const char* path) {
  if (fd_ >= 0) close(fd_);
  fd_ = open_for_reading(path);
  done_ = false;
  failed_ = false;
  begin_ = 0;
  end_ = 0;
  return fd_ >= 0;
}

bool Lines::refill() {
  if (done_ || fd_ < 0) return false;
  const ssize_t got = read_once(fd_, block_, sizeof block_);
  if (got <= 0) {
    done_ = true;
    failed_ = got < 0;
    return false;
  }
  begin_ = 0;
  end_ = static_cast<size_t>(got);
  return true;
}

bool Lines::next(char* line, size_t size) {
  if (size < 2) return false;
  size_t length = 0;
  while (length + 1 < size) {
    if (begin_ == end_ && !refill()) break;
    const size_t room = size - 1 - length;
    const size_t available = end_ - begin_;
    const char* from = block_ + begin_;
    size_t take = available < room ? available : room;
    const char* newline = static_cast<const char*>(std::memchr(from, '\n', take));
    if (newline != nullptr) take = static_cast<size_t>(newline - from) + 1;
    std::memcpy(line + length, from, take);
    begin_ += take;
    length += take;
    if (newline != nullptr) break;
  }
  line[length] = '\0';
  // As with fgets, a failed read fails the line it cut short.
  return length > 0 && !failed_;
}

}  // namespace text_file
