#include "tests/nvidia/nvidia_machines.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace nvidia_test {

namespace {

const char kChildVariable[] = "ZEV_NVIDIA_TEST_CHILD";

// ASAN_OPTIONS for a program run in a machine: machine.env preloads the
// fake driver there, ahead of the sanitizer runtime of a sanitizer build,
// which is harmless here but would stop the program.
std::string asan_options() {
  const char* given = std::getenv("ASAN_OPTIONS");
  std::string options = given != nullptr ? given : "";
  if (!options.empty()) options += ":";
  return options + "verify_asan_link_order=0";
}

std::string current_test_name() {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  return std::string(info->test_suite_name()) + "." + info->name();
}

std::string self_path() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string();
}

}  // namespace

std::string assembled_machine(const std::string& name) {
  return std::string(ZEV_NVIDIA_BUILD_DIR) + "/machines/" + name;
}

std::string fake_path(const std::string& relative) {
  return std::string(ZEV_NVIDIA_BUILD_DIR) + "/fakes/" + relative;
}

Machine::Machine(const std::string& base)
    : temp_(std::make_shared<testing_support::TempMachine>(
          testing_support::Files{}, base.empty() ? "" : assembled_machine(base))) {}

Machine& Machine::nvml(const std::string& variant) {
  return install("lib/libnvidia-ml.so.1", "lib/libzev-fake-" + variant + ".so");
}

Machine& Machine::file(const std::string& path, const std::string& contents) {
  temp_->write(path, contents);
  return *this;
}

Machine& Machine::append(const std::string& path, const std::string& text) {
  return file(path, testing_support::read_file(dir() + "/" + path) + text);
}

Machine& Machine::replace(const std::string& path, const std::string& from,
                          const std::string& to) {
  std::string text = testing_support::read_file(dir() + "/" + path);
  const size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << path << " has no \"" << from << "\"";
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return file(path, text);
}

Machine& Machine::remove(const std::string& path) {
  std::error_code ec;
  fs::remove_all(dir() + "/" + path, ec);
  return *this;
}

Machine& Machine::install(const std::string& path, const std::string& fake) {
  const fs::path target = fs::path(dir()) / path;
  fs::create_directories(target.parent_path());
  std::error_code ec;
  fs::remove(target, ec);
  fs::copy_file(fake_path(fake), target);
  return *this;
}

bool inside_child() {
  const char* child = std::getenv(kChildVariable);
  return child != nullptr && current_test_name() == child;
}

bool run_inside(const std::function<Machine()>& make) {
  if (inside_child()) return false;

  Machine machine = make();
  const std::string name = current_test_name();
  machine::RunResult r;
  {
    ScopedEnv env({std::string(kChildVariable) + "=" + name, "ASAN_OPTIONS=" + asan_options()});
    r = machine::run(machine.dir(),
                     {self_path(), "--gtest_filter=" + name, "--gtest_color=no"}, true);
  }
  EXPECT_TRUE(r.error.empty()) << r.error;
  EXPECT_EQ(r.exit_code, 0) << "inside the machine:\n" << r.out << r.err;
  EXPECT_NE(r.out.find("[  PASSED  ] 1 test"), std::string::npos)
      << "inside the machine:\n" << r.out << r.err;
  return true;
}

std::string staged_root_here() {
  // The harness puts the machine's lib/ first on the loader's path.
  const char* path = std::getenv("LD_LIBRARY_PATH");
  if (path == nullptr) return "";
  std::string first(path);
  first = first.substr(0, first.find(':'));
  if (first.size() < 4 || first.compare(first.size() - 4, 4, "/lib") != 0) return "";
  return first.substr(0, first.size() - 4);
}

namespace {

void* loaded_nvml() { return dlopen("libnvidia-ml.so.1", RTLD_LAZY | RTLD_NOLOAD); }

}  // namespace

unsigned long nvml_calls() {
  void* nvml = loaded_nvml();
  if (nvml == nullptr) return 0;
  auto calls = reinterpret_cast<unsigned long (*)()>(dlsym(nvml, "zev_fake_nvml_calls"));
  const unsigned long n = calls != nullptr ? calls() : 0;
  dlclose(nvml);
  return n;
}

unsigned long nvml_calls_of(const char* entry_point) {
  void* nvml = loaded_nvml();
  if (nvml == nullptr) return 0;
  auto calls =
      reinterpret_cast<unsigned long (*)(const char*)>(dlsym(nvml, "zev_fake_nvml_calls_of"));
  const unsigned long n = calls != nullptr ? calls(entry_point) : 0;
  dlclose(nvml);
  return n;
}

void nvml_reset_calls() {
  void* nvml = loaded_nvml();
  if (nvml == nullptr) return;
  auto reset = reinterpret_cast<void (*)()>(dlsym(nvml, "zev_fake_nvml_reset_calls"));
  if (reset != nullptr) reset();
  dlclose(nvml);
}

machine::RunResult run_gpumon_on(const Machine& machine, const std::vector<std::string>& args,
                                 const std::vector<std::string>& environment) {
  // The machine's machine.env preloads the fake driver for the gpumon that
  // runs inside.
  std::vector<std::string> assignments = {"ASAN_OPTIONS=" + asan_options()};
  assignments.insert(assignments.end(), environment.begin(), environment.end());
  ScopedEnv env(assignments);
  std::vector<std::string> all = {"--machine", machine.dir()};
  all.insert(all.end(), args.begin(), args.end());
  return testing_support::run_gpumon(all);
}

ScopedEnv::ScopedEnv(const std::vector<std::string>& assignments) {
  for (const std::string& a : assignments) {
    const size_t equal = a.find('=');
    const std::string name = a.substr(0, equal);
    const char* old = std::getenv(name.c_str());
    saved_.emplace_back(name, old != nullptr ? std::make_unique<std::string>(old) : nullptr);
    setenv(name.c_str(), a.substr(equal + 1).c_str(), 1);
  }
}

ScopedEnv::~ScopedEnv() {
  for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
    if (it->second) {
      setenv(it->first.c_str(), it->second->c_str(), 1);
    } else {
      unsetenv(it->first.c_str());
    }
  }
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

LogFile::LogFile() {
  char pattern[] = "/tmp/zev-nvidia-log-XXXXXX";
  const int fd = mkstemp(pattern);
  if (fd >= 0) close(fd);
  path_ = pattern;
}

LogFile::~LogFile() { unlink(path_.c_str()); }

std::vector<std::string> LogFile::lines() const {
  return lines_of(testing_support::read_file(path_));
}

const char kDegrees[] = "\xC2\xB0" "C";

std::vector<std::string> rtx5090_rtx4080s_smi_scan_block() {
  const std::string deg = kDegrees;
  return {
      "scanning NVIDIA GPUs...",
      "> GPU 0",
      "  - name: NVIDIA GeForce RTX 5090",
      "  - device ID: 10DE-2B85",
      "  - subdevice ID: 10DE-2057",
      "  - bus ID: 1",
      "  - driver: 570.133.07",
      "  - vbios: 98.02.2E.00.AF",
      "  - VRAM size: 32607 MB",
      "  - core usage: 3 %",
      "  - mem usage: 1 %",
      "  - core temperature: 38 " + deg,
      "  - power: 27 W",
      "  - core clock: 390 MHz",
      "  - mem clock: 405 MHz",
      "  - ROP counter (from driver): 176",
      "> GPU 1",
      "  - name: NVIDIA GeForce RTX 4080 SUPER",
      "  - device ID: 10DE-2702",
      "  - subdevice ID: 1458-40FD",
      "  - bus ID: 4",
      "  - driver: 570.133.07",
      "  - vbios: 95.03.2C.40.94",
      "  - VRAM size: 16376 MB",
      "  - core usage: 0 %",
      "  - mem usage: 0 %",
      "  - core temperature: 35 " + deg,
      "  - power: 11 W",
      "  - core clock: 210 MHz",
      "  - mem clock: 405 MHz",
      "  - ROP counter (from driver): not available (err: -4)",
  };
}

}  // namespace nvidia_test
