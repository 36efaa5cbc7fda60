// Names, codenames and unit counts that the DRM scan takes from the GPU
// database. Each case skips itself while the database does not know the
// device, so these checks come alive with the database.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/drm/drm_test_files.h"

namespace {

using testing_support::MachineScope;

class DrmNaming : public ::testing::Test {
 protected:
  // Scans `machine` once the database knows vendor:device; false (and the
  // case skipped) otherwise.
  bool scan_known(const std::string& machine, unsigned long vendor, unsigned long device) {
    if (static_cast<int>(monitor_.gpu_db_get_index(vendor, device)) < 0) return false;
    scope_.reset(new MachineScope(machine));
    EXPECT_TRUE(scope_->ok()) << scope_->error();
    monitor_.linux_drm_init_gpus();
    return monitor_.get_num_gpus() > 0;
  }
  void TearDown() override {
    monitor_.cleanup_gpus_list();
    scope_.reset();
  }

  testing_support::TraceCapture traces_;
  std::unique_ptr<MachineScope> scope_;
  GpuMonitorVorn monitor_;
};

#define SCAN_OR_SKIP(machine, vendor, device)                                     \
  if (!scan_known(machine, vendor, device)) {                                     \
    GTEST_SKIP() << "the GPU database does not know " #vendor ":" #device " yet"; \
  }

TEST_F(DrmNaming, Rx7900XtxIsNamedByItsRevision) {
  SCAN_OR_SKIP("amd-rdna3-rx7900xtx", 0x1002, 0x744C);
  EXPECT_STREQ(monitor_.get_gpu(0)->name, "AMD Radeon RX 7900 XTX");
  EXPECT_STRNE(monitor_.get_gpu(0)->codename, "");
}

TEST_F(DrmNaming, Rx9070XtIsTheC0RowOfItsDevice) {
  SCAN_OR_SKIP("amd-rdna4-rx9070xt", 0x1002, 0x7550);
  EXPECT_STREQ(monitor_.get_gpu(0)->name, "AMD Radeon RX 9070 XT");
}

TEST_F(DrmNaming, Rx9070GreIsTheC2Row) {
  SCAN_OR_SKIP("amd-rdna4-rx9070xt", 0x1002, 0x7550);
  monitor_.cleanup_gpus_list();
  drm_test::put(drm_test::card_dir(0) + "/revision", "0xc2\n");
  monitor_.linux_drm_init_gpus();
  ASSERT_EQ(monitor_.get_num_gpus(), 1u);
  EXPECT_STREQ(monitor_.get_gpu(0)->name, "AMD Radeon RX 9070 GRE");
}

TEST_F(DrmNaming, AnAmdRevisionBelow16MatchesNoRow) {
  SCAN_OR_SKIP("amd-rdna4-rx9070xt", 0x1002, 0x7550);
  monitor_.cleanup_gpus_list();
  // Its text is " 7", which no two-digit revision equals.
  drm_test::put(drm_test::card_dir(0) + "/revision", "0x07\n");
  monitor_.linux_drm_init_gpus();
  ASSERT_EQ(monitor_.get_num_gpus(), 1u);
  EXPECT_STREQ(monitor_.get_gpu(0)->name, "");
  EXPECT_EQ(monitor_.get_gpu(0)->num_shader_cores, 0u);
}

TEST_F(DrmNaming, IntelArcB580TakesItsUnitCountsFromTheDatabase) {
  SCAN_OR_SKIP("intel-arc-b580-xe", 0x8086, 0xE20B);
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_STREQ(g->name, "Intel Arc B580");
  EXPECT_STREQ(g->codename, "Battlemage BMG-G21");
  EXPECT_EQ(g->num_shader_cores, 2560u);
  EXPECT_EQ(g->num_texture_units, 160u);
  EXPECT_EQ(g->num_rops, 80u);
  EXPECT_EQ(g->tdp_w, 190u);
}

}  // namespace
