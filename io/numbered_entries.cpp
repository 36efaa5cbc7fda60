#include "io/numbered_entries.h"

#include <dirent.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace numbered_entries {

int number_after(const char* name, const char* prefix) {
  const size_t length = std::strlen(prefix);
  if (std::strncmp(name, prefix, length) != 0 || name[length] == '\0') return -1;
  if (name[length] == '0' && name[length + 1] != '\0') return -1;  // "card01" names no card
  long long n = 0;
  for (const char* c = name + length; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return -1;
    n = n * 10 + (*c - '0');
    if (n > INT_MAX) return -1;
  }
  return static_cast<int>(n);
}

std::vector<int> list(const char* folder, const char* prefix) {
  std::vector<int> numbers;
  DIR* dir = opendir(folder);
  if (dir == nullptr) return numbers;
  while (const dirent* entry = readdir(dir)) {
    const int n = number_after(entry->d_name, prefix);
    if (n >= 0) numbers.push_back(n);
  }
  closedir(dir);
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

}  // namespace numbered_entries
