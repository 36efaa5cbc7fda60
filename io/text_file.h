// Text files of /sys and /proc read without stdio: open, read, close, with
// nothing allocated. Files are opened non-blocking, so a FIFO (or any other
// file that would wait for a writer) where a value file should be reads as
// empty instead of holding the caller for ever; interrupted reads are
// retried.
#pragma once

#include <cstddef>

namespace text_file {

// Opens `path` and reads its first line into `line` (size bytes): the text up
// to and including the first newline, cut to size - 1 characters; every byte
// after it is zero. False when the file does not open (`line` is then left as
// it was), when the file is empty, or when a read fails. The file is always
// closed.
bool read_first_line(const char* path, char* line, size_t size);

// True when `path` opens for reading; the file is closed again at once.
bool can_open(const char* path);

// The lines of a file one after the other, as fgets gives them.
class Lines {
 public:
  Lines() = default;
  ~Lines();
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  // Opens `path` (closing the file opened before, if any); false when it
  // does not open.
  bool open(const char* path);

  // The next line into `line` (size bytes): the text up to and including its
  // newline, at most size - 1 characters, then a zero byte. A longer line
  // comes in pieces. False at the end of the file and after a failed read.
  bool next(char* line, size_t size);

 private:
  // Reads the next block; false at the end of the file or on a failure.
  bool refill();

  int fd_ = -1;
  bool done_ = false;
  bool failed_ = false;
  size_t begin_ = 0;
  size_t end_ = 0;
  char block_[4096];
};

}  // namespace text_file
