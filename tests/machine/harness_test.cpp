// The fake-machine harness: what a machine shows, and that the real system
// is never touched.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "test_support.h"

namespace {

using namespace testing_support;

std::string mountinfo() { return read_file("/proc/self/mountinfo"); }

std::string command_output(const char* command, int* status) {
  std::string out;
  FILE* pipe = popen(command, "r");
  char buffer[512];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  *status = pclose(pipe);
  return out;
}

TEST(MachineHarness, FilesSitAtTheirRealPathsAndLeaveNoTrace) {
  const std::string real_cpuinfo = read_file("/proc/cpuinfo");
  const std::string real_mounts = mountinfo();
  {
    TempMachine temp({{"dev/nvidiactl", ""}, {"sys/class/drm/card1/device/vendor", "0x1002\n"}},
                     "desktop-no-gpu");
    MachineScope scope(temp.dir());
    ASSERT_TRUE(scope.ok()) << scope.error();
    EXPECT_EQ(read_file("/proc/cpuinfo"),
              read_file(machine_dir("desktop-no-gpu") + "/proc/cpuinfo"));
    EXPECT_EQ(read_file("/proc/sys/kernel/osrelease"), "6.1.0-26-amd64\n");
    EXPECT_EQ(read_file("/sys/class/drm/card1/device/vendor"), "0x1002\n");
    EXPECT_FALSE(std::filesystem::exists("/sys/kernel"));
    EXPECT_TRUE(std::filesystem::exists("/dev/nvidiactl"));
    EXPECT_TRUE(std::filesystem::exists("/dev/null"));
    EXPECT_FALSE(std::filesystem::exists("/dev/nvidia0"));
    // Changing a value of the running machine changes its private copy only.
    std::FILE* f = std::fopen("/sys/class/drm/card1/device/vendor", "w");
    ASSERT_NE(f, nullptr);
    std::fputs("0x8086\n", f);
    std::fclose(f);
    EXPECT_EQ(read_file(machine::staged_root() + "/sys/class/drm/card1/device/vendor"), "0x8086\n");
    EXPECT_EQ(read_file(temp.dir() + "/sys/class/drm/card1/device/vendor"), "0x1002\n");
  }
  EXPECT_EQ(read_file("/proc/cpuinfo"), real_cpuinfo);
  EXPECT_EQ(mountinfo(), real_mounts);
  EXPECT_TRUE(machine::staged_root().empty());
}

TEST(MachineHarness, AMachineWithoutSysShowsAnEmptySys) {
  MachineScope scope("desktop-no-gpu");
  ASSERT_TRUE(scope.ok()) << scope.error();
  EXPECT_TRUE(std::filesystem::is_empty("/sys"));
  EXPECT_FALSE(std::filesystem::exists("/sys/class/drm"));
}

TEST(MachineHarness, GpuToolsTheMachineLacksAreNotFound) {
  MachineScope scope("desktop-no-gpu");
  ASSERT_TRUE(scope.ok()) << scope.error();
  int status = 0;
  const std::string out = command_output("nvidia-smi --query-gpu=count 2>&1", &status);
  EXPECT_EQ(WEXITSTATUS(status), 127);
  EXPECT_NE(out.find("nvidia-smi: not found"), std::string::npos) << out;
  // Ordinary tools still work.
  EXPECT_EQ(command_output("cat /proc/sys/kernel/osrelease", &status), "6.1.0-26-amd64\n");
}

TEST(MachineHarness, MachineToolsComeFirst) {
  TempMachine temp({{"bin/vcgencmd", "#!/bin/sh\necho \"temp=48.3'C\"\n"}}, "desktop-no-gpu");
  std::filesystem::permissions(temp.dir() + "/bin/vcgencmd", std::filesystem::perms::owner_all);
  MachineScope scope(temp.dir());
  ASSERT_TRUE(scope.ok()) << scope.error();
  int status = 0;
  EXPECT_EQ(command_output("vcgencmd measure_temp", &status), "temp=48.3'C\n");
}

TEST(MachineHarness, RefusesWhatItCannotLayOutAndChangesNothing) {
  const std::string real_mounts = mountinfo();
  std::string error;
  // Folders that are no machine, checked before anything is mounted. The
  // source folder of a machine whose fakes the build assembles points to the
  // assembled copy.
  TempMachine not_a_machine(Files{{"README.md", "x"}});
  const std::pair<std::string, std::string> kNoMachines[] = {
      {"/nonexistent/machine", "no machine folder at /nonexistent/machine"},
      {"", "no machine folder given"},
      {not_a_machine.dir(),
       "is not a machine folder: it has none of sys/, proc/, dev/, bin/, lib/"},
      {machine_dir("nvidia-h100-sxm"),
       "lacks the fakes it lists (lib/libcuda.so, ...): the build assembles them; use " +
           (std::filesystem::path(ZEV_BIN_DIR).parent_path() / "machines/nvidia-h100-sxm")
               .string()},
  };
  for (const auto& [dir, message] : kNoMachines) {
    EXPECT_FALSE(machine::enter(dir, &error));
    EXPECT_NE(error.find(message), std::string::npos) << error;
  }

  // procfs cannot gain files, so a machine may only replace existing ones.
  TempMachine bad({{"proc/no-such-file", "x"}}, "desktop-no-gpu");
  EXPECT_FALSE(machine::enter(bad.dir(), &error));
  EXPECT_NE(error.find("proc/no-such-file has no counterpart"), std::string::npos) << error;
  EXPECT_EQ(mountinfo(), real_mounts);
  EXPECT_FALSE(std::filesystem::exists("/proc/no-such-file"));
}

TEST(MachineHarness, AnUnprivilegedUserGetsAPrivateMachineOrARefusal) {
  const std::string real_mounts = mountinfo();
  const std::string real_cpuinfo = read_file("/proc/cpuinfo");
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(90);
    std::string error;
    const bool entered = machine::enter(machine_dir("desktop-no-gpu"), &error);
    if (!entered) _exit(error.empty() ? 91 : 10);  // refused, with a reason
    _exit(read_file("/proc/sys/kernel/osrelease") == "6.1.0-26-amd64\n" ? 11 : 92);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  const int code = WEXITSTATUS(status);
  EXPECT_TRUE(code == 10 || code == 11) << "exit code " << code;
  EXPECT_EQ(mountinfo(), real_mounts);
  EXPECT_EQ(read_file("/proc/cpuinfo"), real_cpuinfo);
}

TEST(MachineHarness, RunCapturesAProgramInsideTheMachine) {
  const machine::RunResult r =
      machine::run(machine_dir("dual-socket-xeon"),
                   {"/bin/sh", "-c",
                    "grep -c processor /proc/cpuinfo; echo $ZEV_MACHINE; echo oops >&2; exit 4"},
                   true);
  EXPECT_TRUE(r.error.empty()) << r.error;
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_EQ(r.out, "16\ndual-socket-xeon\n");
  EXPECT_EQ(r.err, "oops\n");

  const machine::RunResult missing =
      machine::run(machine_dir("dual-socket-xeon"), {"/no/such/program"}, true);
  EXPECT_EQ(missing.exit_code, 126);
  EXPECT_NE(missing.error.find("cannot run /no/such/program"), std::string::npos);
}

}  // namespace
