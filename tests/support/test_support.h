// Shared helpers of the tests: where things are, trace capture, loading the
// plug-in as a host does, fake machines.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "machine.h"
#include "plugin_loader.h"
#include "zev/gpu_monitor.h"
#include "zev/trace.h"

namespace testing_support {

// build/bin/plugin_zev_gpumon_x64.so and build/bin/gpumon.
std::string plugin_path();
std::string gpumon_path();
// machines/NAME
std::string machine_dir(const std::string& name);
// build/fakes/lib/NAME: a fake library built for the tests.
std::string fake_library(const std::string& name);

// Collects every trace line of every plug-in while it lives.
class TraceCapture {
 public:
  struct Line {
    zev::TraceLevel level;
    std::string text;
  };

  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  const std::vector<Line>& lines() const { return lines_; }
  // The texts alone, in order.
  std::vector<std::string> texts() const;
  // The texts of one level.
  std::vector<std::string> texts(zev::TraceLevel level) const;
  void clear() { lines_.clear(); }

 private:
  static void sink(zev::TraceLevel level, const char* line, void* user);
  std::vector<Line> lines_;
};

// The plug-in library opened as gpumon opens it (apps/gpumon/plugin_loader.h),
// with its two entry points.
class PluginHandle {
 public:
  explicit PluginHandle(const std::string& path = plugin_path()) {
    ok_ = library_.open(path, &error_);
  }

  bool ok() const { return ok_; }
  void* create_raw() { return library_.create(); }
  int destroy_raw(void* object) { return library_.destroy(static_cast<zev::GpuMonitor*>(object)); }
  zev::GpuMonitor* create() { return library_.create(); }

 private:
  PluginLibrary library_;
  std::string error_;
  bool ok_ = false;
};

// Inside a fake machine for the lifetime of the object (this process).
class MachineScope {
 public:
  explicit MachineScope(const std::string& name_or_dir);
  ~MachineScope();
  MachineScope(const MachineScope&) = delete;
  MachineScope& operator=(const MachineScope&) = delete;

  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }

 private:
  bool ok_ = false;
  std::string error_;
};

// A machine folder made by a test under /tmp, removed again with the object.
// Files are given by path inside the machine ("proc/cpuinfo" -> contents).
using Files = std::vector<std::pair<std::string, std::string>>;

class TempMachine {
 public:
  // Starts from a copy of an existing machine when base is not empty.
  explicit TempMachine(const Files& files, const std::string& base = "");
  ~TempMachine();
  TempMachine(const TempMachine&) = delete;
  TempMachine& operator=(const TempMachine&) = delete;

  const std::string& dir() const { return dir_; }
  void write(const std::string& path, const std::string& contents);

 private:
  std::string dir_;
};

// A machine's (or any) name as the name of a parameterised test: '-' and
// '.' as '_'.
std::string test_name(std::string name);

// The lines of a text, without their newlines.
std::vector<std::string> lines_of(const std::string& text);

// Reads a whole file ("" when it cannot be read).
std::string read_file(const std::string& path);

// Programs in an NVIDIA machine get the fake driver preloaded (machine.env)
// ahead of a sanitizer build's runtime, which stops them unless told not to
// check.
void allow_preloading();

// Starts a program with its standard output and error on the given
// descriptors, preloading allowed; its pid.
pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd);
// Waits for a program: its exit code (128 + signal when a signal ended it).
int wait_for(pid_t pid);
// Sends the signal, then waits: the exit code.
int stop(pid_t pid, int signal = SIGTERM);

// Runs gpumon with the given arguments, capturing its standard output and
// error apart.
machine::RunResult run_gpumon(const std::vector<std::string>& args);

}  // namespace testing_support
