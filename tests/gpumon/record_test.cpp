// gpumon --record: a machine recorded from inside it replays with the same
// GPUs and system facts; the recording holds only what the monitor reads.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing_support::run_gpumon;

std::string built_machine(const std::string& name) {
  return std::string(ZEV_BIN_DIR) + "/../machines/" + name;
}

// What a host is shown of a machine: its GPUs and system facts.
json shown(const std::string& machine) {
  const machine::RunResult r = run_gpumon({"--json", "--machine", machine});
  EXPECT_EQ(r.exit_code, 0) << machine << ": " << r.err;
  const json doc = json::parse(r.out, nullptr, false);
  if (doc.is_discarded()) return json();
  return {{"gpus", doc["gpus"]}, {"system", doc["system"]}};
}

class Recording : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/zev-recording-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    base_ = name;
  }
  void TearDown() override { fs::remove_all(base_); }
  std::string base_;
};

// DRM from a real capture, a Raspberry Pi (V3D files and vcgencmd), NVIDIA
// through nvidia-smi, and an energy counter that moves while it runs: each
// machine a test of its own.
class RecordingOf : public Recording, public testing::WithParamInterface<std::string> {};

TEST_P(RecordingOf, ReplaysAsTheMachineItWasRecordedFrom) {
  testing_support::allow_preloading();
  const std::string machine = GetParam() == "nvidia-rtx5090-rtx4080s-smi"
                                  ? built_machine(GetParam())
                                  : testing_support::machine_dir(GetParam());
  const std::string recording = base_ + "/" + fs::path(machine).filename().string();
  const machine::RunResult r = run_gpumon({"--machine", machine, "--record", recording});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(shown(recording), shown(machine));
  // Nothing but the monitor's files, the tools' answers and the README.
  for (const fs::directory_entry& e : fs::directory_iterator(recording)) {
    const std::string name = e.path().filename().string();
    EXPECT_TRUE(name == "sys" || name == "proc" || name == "bin" || name == "lib" ||
                name == "README.md")
        << name;
  }
  const std::string readme = testing_support::read_file(recording + "/README.md");
  EXPECT_NE(readme.find("Recorded by `gpumon --record` on "), std::string::npos);
  EXPECT_EQ(testing_support::read_file(recording + "/proc/cpuinfo").find("Serial"),
            std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Machines, RecordingOf,
                         testing::Values("lact-amd-rx7900xtx", "rpi5-videocore7",
                                         "nvidia-rtx5090-rtx4080s-smi", "lact-intel-b580"),
                         [](const auto& info) { return testing_support::test_name(info.param); });

TEST_F(Recording, RefusesAFolderThatHoldsAnything) {
  fs::create_directories(base_ + "/full");
  testing_support::TempMachine unused({}, "desktop-no-gpu");
  fs::copy_file(unused.dir() + "/proc/cpuinfo", base_ + "/full/keep");
  const machine::RunResult r = run_gpumon({"--record", base_ + "/full"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("is not empty"), std::string::npos) << r.err;
  EXPECT_EQ(std::distance(fs::directory_iterator(base_ + "/full"), fs::directory_iterator()), 1);
  EXPECT_EQ(run_gpumon({"--record", base_ + "/x", "--json"}).exit_code, 2);
}

}  // namespace
