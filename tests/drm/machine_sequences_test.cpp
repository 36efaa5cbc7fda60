// Sequenced files of fake machines: values stepped by a test (the dispatch
// tests step a recorded machine through all of its values), values that move
// on after each read inside machine::run, and the checks that keep every
// sequenced path inside the machine's own sys/ copy.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "machine.h"
#include "test_support.h"

namespace {

using testing_support::MachineScope;
using testing_support::read_file;
using testing_support::TempMachine;

const char kTemp[] = "/sys/class/drm/card1/device/hwmon/hwmon3/temp1_input";

TEST(MachineSequences, EmptyAndAbsentValuesAndNothingToStep) {
  EXPECT_FALSE(machine::step_sequences());  // outside a machine
  TempMachine temp(
      {{"sys/devices/platform/x/value", "old\n"},
       {"sequences", "# comment\n\nsys/devices/platform/x/value 1 <empty> <absent> 4\n"}},
      "desktop-no-gpu");
  {
    MachineScope scope(temp.dir());
    ASSERT_TRUE(scope.ok()) << scope.error();
    const std::string path = "/sys/devices/platform/x/value";
    EXPECT_EQ(read_file(path), "1\n");
    ASSERT_TRUE(machine::step_sequences());
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(read_file(path), "");
    ASSERT_TRUE(machine::step_sequences());
    EXPECT_FALSE(std::filesystem::exists(path));
    ASSERT_TRUE(machine::step_sequences());
    EXPECT_EQ(read_file(path), "4\n");
  }
  EXPECT_EQ(read_file(temp.dir() + "/sys/devices/platform/x/value"), "old\n");  // never changed
  MachineScope scope("amd-rdna4-rx9070xt");
  ASSERT_TRUE(scope.ok()) << scope.error();
  EXPECT_FALSE(machine::step_sequences());  // a machine without sequences
}

TEST(MachineSequences, PathsMustStayInsideTheMachinesSys) {
  const std::string outside = "/tmp/zev-sequence-escape-check";
  std::filesystem::remove_all(outside);
  std::filesystem::create_directories(outside);
  for (const char* line :
       {"/etc/hostname 1", "../outside 1", "sys/../../outside 1", "proc/cpuinfo 1", "dev/null 1",
        "sys/devices/missing/dir/value 1", "sys/escape/value 1", "sys/devices/platform/x/value"}) {
    SCOPED_TRACE(line);
    TempMachine temp(
        {{"sys/devices/platform/x/value", "0\n"}, {"sequences", std::string(line) + "\n"}},
        "desktop-no-gpu");
    std::filesystem::create_directory_symlink(outside, temp.dir() + "/sys/escape");
    std::string error;
    EXPECT_FALSE(machine::enter(temp.dir(), &error));
    EXPECT_NE(error.find("sequences line 1"), std::string::npos) << error;
    EXPECT_TRUE(machine::staged_root().empty());
  }
  EXPECT_TRUE(std::filesystem::is_empty(outside));
  std::filesystem::remove_all(outside);
}

TEST(MachineSequences, InsideRunAFileMovesOnAfterEachRead) {
  const std::string cat = std::string("cat ") + kTemp;
  const machine::RunResult r =
      machine::run(testing_support::machine_dir("amd-rdna3-rx7900xtx"),
                   {"sh", "-c", cat + "; sleep 0.3; " + cat + "; sleep 0.3; " + cat}, true);
  ASSERT_TRUE(r.error.empty()) << r.error;
  EXPECT_EQ(r.out, "52000\n54000\n57000\n");

  // A program that reads without a pause still sees its file move on.
  const machine::RunResult busy =
      machine::run(testing_support::machine_dir("amd-rdna3-rx7900xtx"),
                   {"sh", "-c",
                    "end=$(($(date +%s) + 2)); while [ $(date +%s) -lt $end ]; do " + cat +
                        "; done | uniq | head -3 | tr '\\n' ' '"},
                   true);
  EXPECT_EQ(busy.out, "52000 54000 57000 ");
}

}  // namespace
