// The environment of the programs run inside a fake machine: its tools and
// libraries first on the search paths, and its machine.env.
#include <cstdlib>
#include <fstream>

#include "machine_internal.h"

namespace machine {
namespace internal {

namespace {

void set_variable(const std::string& name, const std::string& value) {
  const char* before = std::getenv(name.c_str());
  g_state.saved_env.emplace_back(name, before ? std::optional<std::string>(before) : std::nullopt);
  setenv(name.c_str(), value.c_str(), 1);
}

// machine.env: one NAME=value a line ('#' starts a comment); $MACHINE in a
// value stands for the machine's private copy, e.g.
//   LD_PRELOAD=$MACHINE/lib/libfake_nvidia_driver.so
bool load_machine_env(const std::string& staged, std::string* error) {
  std::ifstream in(staged + "/machine.env");
  if (!in) return true;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    if (equals == 0 || equals == std::string::npos) {
      return fail(error, "machine.env line " + std::to_string(number) + " is no NAME=value");
    }
    std::string value = line.substr(equals + 1);
    for (size_t at; (at = value.find("$MACHINE")) != std::string::npos;)
      value.replace(at, 8, staged);
    set_variable(line.substr(0, equals), value);
  }
  return true;
}

}  // namespace

void restore_environment() {
  for (auto it = g_state.saved_env.rbegin(); it != g_state.saved_env.rend(); ++it) {
    if (it->second) {
      setenv(it->first.c_str(), it->second->c_str(), 1);
    } else {
      unsetenv(it->first.c_str());
    }
  }
  g_state.saved_env.clear();
}

bool set_environment(const std::string& machine_name, const std::string& staged,
                     std::string* error) {
  const char* path = std::getenv("PATH");
  set_variable(
      "PATH",
      staged + "/bin:" + (path ? std::string(path) : std::string("/usr/local/bin:/usr/bin:/bin")));
  const char* ld = std::getenv("LD_LIBRARY_PATH");
  set_variable("LD_LIBRARY_PATH", staged + "/lib" + ((ld && *ld) ? ":" + std::string(ld) : ""));
  set_variable("ZEV_MACHINE", machine_name);
  return load_machine_env(staged, error);
}

}  // namespace internal
}  // namespace machine
