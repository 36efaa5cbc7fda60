// Platform services of the framework.
#pragma once

namespace zev {
namespace utils {

// "Linux" on this platform.
const char* get_platform_name();
// The running kernel's release, e.g. "6.1.0-18-amd64".
const char* get_linux_release();
// 32 or 64.
int get_platform_bitness();

// Reads a whole file into a new zero-terminated buffer and stores its length
// (without the terminator) in *size. Returns null when the file cannot be read.
// The buffer is released with file_content_free.
char* file_content_read(const char* path, unsigned long* size);
void file_content_free(char* buffer);

}  // namespace utils
}  // namespace zev
