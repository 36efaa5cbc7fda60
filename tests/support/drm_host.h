// Helpers of the DRM and dispatch tests: a host (the plug-in loaded and
// initialised inside a fake machine), changes to that machine's private copy,
// and the DRM block of a trace.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "machine.h"
#include "test_support.h"
#include "zev/gpu.h"

namespace drm_test {

// Paths inside the machine, and the contents to give them (null: remove).
using Edits = std::vector<std::pair<std::string, const char*>>;

// Applies edits to the running machine's private copy, never to its folder.
inline void edit(const Edits& edits) {
  ASSERT_FALSE(machine::staged_root().empty()) << "not inside a machine";
  for (const auto& [path, text] : edits) {
    const std::filesystem::path staged = machine::staged_root() + path;
    std::error_code ec;
    std::filesystem::remove_all(staged, ec);
    if (text == nullptr) continue;
    std::filesystem::create_directories(staged.parent_path());
    std::ofstream(staged, std::ios::binary) << text;
  }
}

// The lines of the DRM scan, up to the monitor's summary.
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

// A host: the machine entered (and changed), the plug-in loaded and one
// monitor initialised in it, every trace line kept.
class Host {
 public:
  explicit Host(const std::string& machine, const Edits& edits = {}) : scope_(machine) {
    if (!scope_.ok() || !plugin_.ok()) return;
    edit(edits);
    monitor_ = plugin_.create();
    monitor_->initialize();
  }
  ~Host() {
    if (monitor_ == nullptr) return;
    monitor_->terminate();
    plugin_.destroy_raw(monitor_);
  }
  bool ok() const { return monitor_ != nullptr; }
  std::string error() const { return scope_.ok() ? "plug-in not loaded" : scope_.error(); }
  zev::GpuMonitor* operator->() { return monitor_; }
  zev::GPU& gpu(unsigned long i) { return *monitor_->get_gpu(i); }
  std::vector<std::string> block() const { return drm_block(traces_.texts()); }

 private:
  testing_support::TraceCapture traces_;
  testing_support::MachineScope scope_;
  testing_support::PluginHandle plugin_;
  zev::GpuMonitor* monitor_ = nullptr;
};

#define ENTER_HOST(host, ...)       \
  drm_test::Host host(__VA_ARGS__); \
  ASSERT_TRUE(host.ok()) << host.error()

}  // namespace drm_test
