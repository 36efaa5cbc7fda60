// Helpers of the NVIDIA tests: private copies of the assembled NVIDIA machines
// (build/machines/<name>, see machines/fakes/nvidia), and test cases run in
// children inside their machines.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "test_support.h"

namespace nvidia_test {

// A private copy of an assembled machine (or an empty one), removed with the
// last copy of the object.
class Machine {
 public:
  explicit Machine(const std::string& base = "");

  // Replaces lib/libnvidia-ml.so.1 with the NVML fake variant `variant`
  // ("nvml-full", "nvml-no-nvmlDeviceGetNumFans", ...).
  Machine& nvml(const std::string& variant);
  Machine& file(const std::string& path, const std::string& contents);
  Machine& append(const std::string& path, const std::string& text);
  Machine& remove(const std::string& path);
  // Installs a fake from the build (relative to build/fakes) at `path`.
  Machine& install(const std::string& path, const std::string& fake);

  const std::string& dir() const { return temp_->dir(); }

 private:
  std::shared_ptr<testing_support::TempMachine> temp_;
};

// Runs the current test again once per case, in a child inside the machine
// make(case) builds (its libraries on the loader's path from the start), and
// checks that each passed. Returns -1 in the parent, which is then done, and
// the case number in the child, which goes on with that case.
int inside_each(size_t cases, const std::function<Machine(size_t)>& make);

}  // namespace nvidia_test
