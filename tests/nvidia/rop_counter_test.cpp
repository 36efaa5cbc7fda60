// The ROP count asked of the NVIDIA kernel driver: the request sequence on
// the wire, each failing step's code (-1 to -6), the descriptors a failure
// leaves open, and the caller's traces. The fake driver is linked into this
// test and answers for the machine's dev/ files.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "backends/nvidia/nvidia_discovery_common.h"
#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/nvidia/nvidia_machines.h"

extern "C" {
const char* zev_fake_nvidia_driver_log(void);
void zev_fake_nvidia_driver_reset(void);
int zev_fake_nvidia_driver_open_fds(void);
void zev_fake_nvidia_driver_close_all(void);
}

namespace {

using nvidia_test::lines_of;
using nvidia_test::Machine;
using testing_support::MachineScope;
using testing_support::TraceCapture;

const char kControl[] = "client 0xc1d0004b\n";
const char kGpu[] = "rops 12 8 96\n";

class RopCounter : public ::testing::Test {
 protected:
  // Enters a bare machine with the given device files.
  void enter(const std::vector<std::pair<std::string, std::string>>& files) {
    machine_.reset(new Machine());
    for (const auto& f : files) machine_->file(f.first, f.second);
    scope_.reset(new MachineScope(machine_->dir()));
    ASSERT_TRUE(scope_->ok()) << scope_->error();
    zev_fake_nvidia_driver_reset();
    open_before_ = zev_fake_nvidia_driver_open_fds();
  }
  void TearDown() override {
    // Failure paths leave descriptors open by design; tidy up between cases.
    zev_fake_nvidia_driver_close_all();
    scope_.reset();
    machine_.reset();
  }
  int left_open() const { return zev_fake_nvidia_driver_open_fds() - open_before_; }
  std::vector<std::string> log() const { return lines_of(zev_fake_nvidia_driver_log()); }

  GpuMonitorVorn monitor_;
  std::unique_ptr<Machine> machine_;
  std::unique_ptr<MachineScope> scope_;
  int open_before_ = 0;
};

TEST_F(RopCounter, TheDriverAnswersTheRopCountAndBothDescriptorsAreClosed) {
  enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", kGpu}});
  int rops = -7;
  EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), 0);
  EXPECT_EQ(rops, 96);
  EXPECT_EQ(left_open(), 0);
  // The whole conversation, as the driver saw it.
  const std::vector<std::string> expected = {
      "open /dev/nvidiactl O_RDWR -> fd",
      "ioctl nvidiactl ALLOC(32) root=0x0 parent=0x0 new=0x0 class=0x0 params=null size=0",
      "  -> status=0x0 new=0xc1d0004b",
      "open /dev/nvidia0 O_RDWR|O_CLOEXEC -> fd",
      "ioctl nvidia0 REGISTER_FD(4) fd=nvidiactl",
      "  -> 0",
      "ioctl nvidiactl ALLOC(48) root=0xc1d0004b parent=0xc1d0004b new=0xb1000000 class=0x80 "
      "params=zeroed(56) rights=0x0 size=0 flags=0x0",
      "  -> status=0x0",
      "ioctl nvidiactl ALLOC(48) root=0xc1d0004b parent=0xb1000000 new=0xb2000000 class=0x2080 "
      "params=zeroed(4) rights=0x0 size=0 flags=0x0",
      "  -> status=0x0",
      "ioctl nvidiactl CONTROL(32) client=0xc1d0004b object=0xb2000000 cmd=0x20801213 flags=0x0 "
      "params=zeroed size=12",
      "  -> status=0x0 rops=12 8 96",
      "close nvidia0",
      "close nvidiactl",
  };
  EXPECT_EQ(log(), expected);
}

TEST_F(RopCounter, WithoutTheControlDeviceItIsStepOne) {
  enter({});
  int rops = 77;
  EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), -1);
  EXPECT_EQ(rops, 77);
  EXPECT_EQ(log(), std::vector<std::string>{"open /dev/nvidiactl O_RDWR -> no such file"});
}

TEST_F(RopCounter, AFailingClientAllocationIsStepTwoAndLeavesTheControlDescriptorOpen) {
  for (const char* control : {"client_ioctl -1\n", "client_status 0x56\n"}) {
    enter({{"dev/nvidiactl", control}, {"dev/nvidia0", kGpu}});
    int rops = 77;
    EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), -2) << control;
    EXPECT_EQ(rops, 77);
    EXPECT_EQ(left_open(), 1) << control;
    TearDown();
  }
}

TEST_F(RopCounter, AMissingDeviceFileIsStepThree) {
  // A one-GPU machine asked for GPU 1.
  enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", kGpu}});
  int rops = 77;
  EXPECT_EQ(monitor_.linux_nv_read_rop_counter(1, &rops), -3);
  EXPECT_EQ(rops, 77);
  EXPECT_EQ(left_open(), 1);
  const std::vector<std::string> lines = log();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[3], "open /dev/nvidia1 O_RDWR|O_CLOEXEC -> no such file");
}

TEST_F(RopCounter, ARefusedRegistrationIsStepThreeAndLeavesBothOpen) {
  enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", std::string(kGpu) + "register_ioctl -1\n"}});
  int rops = 77;
  EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), -3);
  EXPECT_EQ(rops, 77);
  EXPECT_EQ(left_open(), 2);
}

TEST_F(RopCounter, ARefusedDeviceObjectIsStepFour) {
  for (const char* extra : {"device_status 0x56\n", "device_ioctl -1\n"}) {
    enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", std::string(kGpu) + extra}});
    int rops = 77;
    EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), -4) << extra;
    EXPECT_EQ(rops, 77);
    EXPECT_EQ(left_open(), 2) << extra;
    TearDown();
  }
}

TEST_F(RopCounter, TheSecondGpuAsksForDeviceInstanceZeroAndIsRefused) {
  // The device object is always allocated for instance 0; the driver wants
  // the device file of that instance registered, and /dev/nvidia1 is not it.
  enter({{"dev/nvidiactl", kControl},
         {"dev/nvidia0", "rops 22 8 176\n"},
         {"dev/nvidia1", "rops 14 8 112\n"}});
  int rops = 77;
  EXPECT_EQ(monitor_.linux_nv_read_rop_counter(1, &rops), -4);
  EXPECT_EQ(rops, 77);
  const std::vector<std::string> lines = log();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "  -> status=0x1b");
  // The first GPU is fine.
  TearDown();
  enter({{"dev/nvidiactl", kControl},
         {"dev/nvidia0", "rops 22 8 176\n"},
         {"dev/nvidia1", "rops 14 8 112\n"}});
  EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), 0);
  EXPECT_EQ(rops, 176);
}

TEST_F(RopCounter, ARefusedSubdeviceObjectIsStepFive) {
  for (const char* extra : {"subdevice_status 0x40\n", "subdevice_ioctl -1\n"}) {
    enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", std::string(kGpu) + extra}});
    int rops = 77;
    EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), -5) << extra;
    EXPECT_EQ(rops, 77);
    EXPECT_EQ(left_open(), 2) << extra;
    TearDown();
  }
}

TEST_F(RopCounter, ARefusedQueryIsStepSix) {
  // Rejected with a status, failing ioctl, and a driver without the query.
  for (const char* gpu : {"rops 12 8 96\nquery_status 0x56\n", "rops 12 8 96\nquery_ioctl -1\n",
                          "# no ROP information\n"}) {
    enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", gpu}});
    int rops = 77;
    EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, &rops), -6) << gpu;
    EXPECT_EQ(rops, 77);
    EXPECT_EQ(left_open(), 2) << gpu;
    TearDown();
  }
}

TEST_F(RopCounter, ANullOutputIsNotWrittenButTheQueryRuns) {
  enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", kGpu}});
  EXPECT_EQ(monitor_.linux_nv_read_rop_counter(0, nullptr), 0);
  EXPECT_EQ(left_open(), 0);
}

// ------------------------------------------------------------- the callers

class RopCheck : public RopCounter {
 protected:
  std::vector<std::string> check(zev::GPU* gpu, unsigned long index) {
    TraceCapture traces;
    nvidia_check_rop_count(&monitor_, gpu, index);
    return traces.texts();
  }
};

TEST_F(RopCheck, TheDriverCountReplacesTheDatabaseCount) {
  enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", "rops 10 8 80\n"}});
  zev::GPU gpu;
  gpu.db_num_rops = 96;
  gpu.num_rops = 96;
  EXPECT_EQ(check(&gpu, 0), std::vector<std::string>{"  - ROP counter (from driver): 80"});
  EXPECT_EQ(gpu.num_rops, 80u);
  EXPECT_EQ(gpu.db_num_rops, 96u);
}

TEST_F(RopCheck, MissingRopsAreReportedOnlyUnderCheckCode432) {
  enter({{"dev/nvidiactl", kControl}, {"dev/nvidia0", "rops 11 8 88\n"}});
  zev::GPU gpu;
  gpu.db_num_rops = 96;
  EXPECT_EQ(gpu.rop_check_code, -1);
  EXPECT_EQ(check(&gpu, 0).size(), 1u);

  gpu.rop_check_code = 431;
  EXPECT_EQ(check(&gpu, 0).size(), 1u);

  gpu.rop_check_code = 432;
  const std::vector<std::string> expected = {"  - ROP counter (from driver): 88",
                                             "  - warning: GPU with missing ROP (8) detected"};
  EXPECT_EQ(check(&gpu, 0), expected);

  // More ROPs than the database knows, or a database without a count: no
  // warning.
  gpu.db_num_rops = 64;
  EXPECT_EQ(check(&gpu, 0).size(), 1u);
  gpu.db_num_rops = 0xFFFFFFFFu;  // -1 in the database: unknown
  EXPECT_EQ(check(&gpu, 0).size(), 1u);
}

TEST_F(RopCheck, AFailingQueryKeepsTheDatabaseCountAndTracesTheCode) {
  enter({{"dev/nvidiactl", kControl}});
  zev::GPU gpu;
  gpu.num_rops = 96;
  EXPECT_EQ(check(&gpu, 0),
            std::vector<std::string>{"  - ROP counter (from driver): not available (err: -3)"});
  EXPECT_EQ(gpu.num_rops, 96u);
}

}  // namespace
