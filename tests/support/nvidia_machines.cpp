#include "nvidia_machines.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace nvidia_test {

namespace {

const char kChildVariable[] = "ZEV_NVIDIA_TEST_CASE";

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

Machine::Machine(const std::string& base)
    : temp_(std::make_shared<testing_support::TempMachine>(
          testing_support::Files{},
          base.empty() ? "" : std::string(ZEV_BUILD_DIR) + "/machines/" + base)) {}

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
  fs::copy_file(std::string(ZEV_BUILD_DIR) + "/fakes/" + fake, target);
  return *this;
}

int inside_each(size_t cases, const std::function<Machine(size_t)>& make) {
  const std::string name = current_test_name();
  const char* child = std::getenv(kChildVariable);
  if (child != nullptr && std::string(child).rfind(name + "#", 0) == 0) {
    return std::atoi(child + name.size() + 1);
  }
  testing_support::allow_preloading();
  for (size_t i = 0; i < cases; ++i) {
    const Machine machine = make(i);
    setenv(kChildVariable, (name + "#" + std::to_string(i)).c_str(), 1);
    const machine::RunResult r = machine::run(
        machine.dir(), {self_path(), "--gtest_filter=" + name, "--gtest_color=no"}, true);
    unsetenv(kChildVariable);
    EXPECT_TRUE(r.exit_code == 0 && r.out.find("[  PASSED  ] 1 test") != std::string::npos)
        << "case " << i << " inside its machine:\n"
        << r.error << r.out << r.err;
  }
  return -1;
}

}  // namespace nvidia_test
