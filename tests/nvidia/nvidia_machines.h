// Helpers of the NVIDIA tests: private copies of the assembled NVIDIA
// machines (build/machines/<name>, see machines/fakes/nvidia), changed per test;
// running a test again inside a machine, so that the machine's libraries are
// on the loader's path from the start; and what the fakes report.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"

namespace nvidia_test {

// build/machines/<name>: a machine of machines/ with its fakes.
std::string assembled_machine(const std::string& name);
// build/fakes/<relative>, e.g. "lib/libzev-fake-nvml-full.so".
std::string fake_path(const std::string& relative);

// A private copy of an assembled machine (or an empty machine), removed with
// the last copy of the object (copies share the folder).
class Machine {
 public:
  // `base`: the name of an assembled machine; empty for a bare machine.
  explicit Machine(const std::string& base = "");

  // Replaces lib/libnvidia-ml.so.1 with the NVML fake variant `variant`
  // ("nvml", "nvml-full", "nvml-no-nvmlDeviceGetNumFans", ...).
  Machine& nvml(const std::string& variant);
  // Writes (replaces) or appends to a file of the machine.
  Machine& file(const std::string& path, const std::string& contents);
  Machine& append(const std::string& path, const std::string& text);
  // Replaces the first occurrence of `from` in a file (which must hold it).
  Machine& replace(const std::string& path, const std::string& from, const std::string& to);
  // Removes a file or a folder of the machine.
  Machine& remove(const std::string& path);
  // Installs a fake from the build (relative to build/fakes) at `path`.
  Machine& install(const std::string& path, const std::string& fake);

  const std::string& dir() const { return temp_->dir(); }

 private:
  std::shared_ptr<testing_support::TempMachine> temp_;
};

// Runs the current test again in a child process inside the machine that
// `make` builds, and checks that the child passed. Returns true in the
// parent, which is then done, and false in the child, which goes on with the
// test body inside the machine. `make` runs in the parent only.
bool run_inside(const std::function<Machine()>& make);

// True in the child process that run_inside started.
bool inside_child();

// The staged copy of the machine this process runs in (a child of
// run_inside), or "" outside a machine.
std::string staged_root_here();

// Calls the fake NVML library loaded in this process has answered, all of
// them or those of one entry point; 0 when no fake NVML is loaded.
unsigned long nvml_calls();
unsigned long nvml_calls_of(const char* entry_point);
void nvml_reset_calls();

// Runs gpumon on a machine (whose machine.env preloads the fake driver),
// with extra environment given as NAME=value (e.g. the fakes' logs).
machine::RunResult run_gpumon_on(const Machine& machine, const std::vector<std::string>& args,
                                 const std::vector<std::string>& environment = {});

// Sets environment variables for its lifetime and restores them after.
class ScopedEnv {
 public:
  explicit ScopedEnv(const std::vector<std::string>& assignments);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::vector<std::pair<std::string, std::unique_ptr<std::string>>> saved_;
};

// The degree sign and unit of the temperature traces, in UTF-8.
extern const char kDegrees[];

// The trace block of the nvidia-smi discovery on the machine
// nvidia-rtx5090-rtx4080s-smi, from "scanning NVIDIA GPUs..." to the second
// GPU's ROP line.
std::vector<std::string> rtx5090_rtx4080s_smi_scan_block();

// Lines of a text (without their newlines).
std::vector<std::string> lines_of(const std::string& text);

// A fresh empty file path under /tmp for a fake's log, removed with the
// object.
class LogFile {
 public:
  LogFile();
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  const std::string& path() const { return path_; }
  std::vector<std::string> lines() const;

 private:
  std::string path_;
};

}  // namespace nvidia_test
