/* Small text helpers shared by the NVIDIA fakes: reading a machine data file
 * whole, walking its lines, and finding the staged machine a fake lives in.
 * Header-only (static functions): each fake is one small binary. */
#ifndef ZEV_FAKE_TEXT_H
#define ZEV_FAKE_TEXT_H

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Reads a whole file into a fresh NUL-terminated buffer (free() it), using
 * raw system calls only, so that the driver fake can use it from inside its
 * own openat. Null when the file cannot be read or is not a regular file. */
static inline char* fake_read_file(const char* path) {
  int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return NULL;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    syscall(SYS_close, fd);
    return NULL;
  }
  size_t size = 0;
  size_t capacity = (size_t)st.st_size + 1;
  char* text = (char*)malloc(capacity + 1);
  if (text == NULL) {
    syscall(SYS_close, fd);
    return NULL;
  }
  for (;;) {
    if (size == capacity) {
      char* bigger = (char*)realloc(text, capacity * 2 + 1);
      if (bigger == NULL) break;
      text = bigger;
      capacity *= 2;
    }
    long n = syscall(SYS_read, fd, text + size, capacity - size);
    if (n <= 0) break;
    size += (size_t)n;
  }
  syscall(SYS_close, fd);
  text[size] = '\0';
  return text;
}

/* Cuts the next line off *cursor (in place) and returns it, without its
 * newline and without leading and trailing blanks; NULL at the end. */
static inline char* fake_next_line(char** cursor) {
  char* line = *cursor;
  if (line == NULL || *line == '\0') return NULL;
  char* end = strchr(line, '\n');
  if (end != NULL) {
    *end = '\0';
    *cursor = end + 1;
  } else {
    *cursor = line + strlen(line);
  }
  while (*line == ' ' || *line == '\t') ++line;
  size_t n = strlen(line);
  while (n > 0 && (line[n - 1] == ' ' || line[n - 1] == '\t' || line[n - 1] == '\r')) {
    line[--n] = '\0';
  }
  return line;
}

/* Splits "key rest" into the key (returned, NUL-terminated in place) and
 * *rest, the remainder without leading blanks ("" when there is none). */
static inline char* fake_split_key(char* line, char** rest) {
  char* p = line;
  while (*p != '\0' && *p != ' ' && *p != '\t') ++p;
  if (*p != '\0') {
    *p++ = '\0';
    while (*p == ' ' || *p == '\t') ++p;
  }
  *rest = p;
  return line;
}

/* Copies `src` into `dst` (size bytes, always terminated). */
static inline void fake_copy(char* dst, size_t size, const char* src) {
  size_t n = strlen(src);
  if (n >= size) n = size - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
}

/* Removes the last `levels` path components of `path` in place
 * ("/m/lib/x.so", 2 -> "/m"). */
static inline void fake_dirname(char* path, int levels) {
  for (int i = 0; i < levels; ++i) {
    char* slash = strrchr(path, '/');
    if (slash == NULL) {
      strcpy(path, ".");
      return;
    }
    if (slash == path) {
      path[1] = '\0';
      return;
    }
    *slash = '\0';
  }
}

/* Appends one line to the file at `path` with a single write (O_APPEND), so
 * that concurrent writers do not mix their lines. */
static inline void fake_append_line(const char* path, const char* line) {
  int fd =
      (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  size_t n = strlen(line);
  char* buffer = (char*)malloc(n + 2);
  if (buffer != NULL) {
    memcpy(buffer, line, n);
    buffer[n] = '\n';
    long ignored = syscall(SYS_write, fd, buffer, n + 1);
    (void)ignored;
    free(buffer);
  }
  syscall(SYS_close, fd);
}

#endif /* ZEV_FAKE_TEXT_H */
