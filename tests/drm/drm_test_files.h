// Helpers of the DRM and dispatch tests: paths as the monitor sees them, and
// changes to the running fake machine (made in its private copy only).
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "machine.h"

namespace drm_test {

inline std::string card_dir(int card) {
  return "/sys/class/drm/card" + std::to_string(card) + "/device";
}

inline std::string hwmon_dir(int card, int hwmon) {
  return card_dir(card) + "/hwmon/hwmon" + std::to_string(hwmon);
}

// Replaces the whole content of a file of the running machine (creating it
// when the folder exists).
inline void put(const std::string& path, const std::string& text) {
  const std::string staged = machine::staged_root() + path;
  ASSERT_FALSE(machine::staged_root().empty()) << "not inside a machine";
  std::FILE* f = std::fopen(staged.c_str(), "w");
  ASSERT_NE(f, nullptr) << staged << ": " << std::strerror(errno);
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
}

// Removes a file of the running machine.
inline void drop(const std::string& path) {
  const std::string staged = machine::staged_root() + path;
  ASSERT_FALSE(machine::staged_root().empty()) << "not inside a machine";
  ASSERT_EQ(std::remove(staged.c_str()), 0) << staged << ": " << std::strerror(errno);
}

// The lines of the DRM scan: from "DRM: scanning GPUs..." up to the line
// before the monitor's summary ("Num GPUs detected: ...").
inline std::vector<std::string> drm_block(const std::vector<std::string>& lines) {
  std::vector<std::string> block;
  bool inside = false;
  for (const std::string& line : lines) {
    if (line == "DRM: scanning GPUs...") inside = true;
    if (line.rfind("Num GPUs detected:", 0) == 0) inside = false;
    if (inside) block.push_back(line);
  }
  return block;
}

}  // namespace drm_test
