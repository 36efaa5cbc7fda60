// Board marketing names from the full PCI identity.
#include <gtest/gtest.h>

#include <cstring>

#include "plugin/gpu_monitor_vorn.h"

namespace {

struct Board {
  uint64_t vendor, device, subvendor, subdevice, revision;
};

class MarketingNames : public ::testing::Test {
 protected:
  zev::GPU* gpu(const Board& b, const char* name = "chip name") {
    zev::GPU* g = monitor_.create_gpu();
    g->vendor_id = b.vendor;
    g->device_id = b.device;
    g->subvendor_id = b.subvendor;
    g->subdevice_id = b.subdevice;
    g->revision_id = b.revision;
    std::strcpy(g->name, name);
    return g;
  }
  ~MarketingNames() override { monitor_.cleanup_gpus_list(); }
  GpuMonitorVorn monitor_;
};

TEST_F(MarketingNames, KnownBoardGetsItsName) {
  zev::GPU* g = gpu({0x10DE, 0x2B85, 0x10DE, 0x2057, 0xA1});
  EXPECT_TRUE(monitor_.update_gpu_marketing_name(g));
  EXPECT_TRUE(g->use_marketing_name);
  EXPECT_STREQ(g->marketing_name, "NVIDIA GeForce RTX 5090 Founders Edition");
  EXPECT_STREQ(g->name, "chip name");
}

TEST_F(MarketingNames, UnknownBoardClearsTheFlagAndKeepsTheText) {
  zev::GPU* g = gpu({0x10DE, 0x2B85, 0x10DE, 0x2058, 0xA1});
  std::strcpy(g->marketing_name, "left over");
  g->use_marketing_name = true;
  EXPECT_FALSE(monitor_.update_gpu_marketing_name(g));
  EXPECT_FALSE(g->use_marketing_name);
  EXPECT_STREQ(g->marketing_name, "left over");
}

TEST_F(MarketingNames, AmdBoardsAreToldApartByRevision) {
  zev::GPU* gre = gpu({0x1002, 0x744C, 0x1002, 0x0E3B, 0xCE});
  zev::GPU* xtx = gpu({0x1002, 0x744C, 0x1002, 0x0E3B, 0xC8});
  zev::GPU* other = gpu({0x1002, 0x744C, 0x1002, 0x0E3B, 0xC0});
  EXPECT_TRUE(monitor_.update_gpu_marketing_name(gre));
  EXPECT_STREQ(gre->marketing_name, "AMD RX 7900 GRE (MBA)");
  EXPECT_TRUE(monitor_.update_gpu_marketing_name(xtx));
  EXPECT_STREQ(xtx->marketing_name, "AMD RX 7900 XTX (MBA)");
  EXPECT_FALSE(monitor_.update_gpu_marketing_name(other));
  // Other vendors ignore the revision.
  zev::GPU* msi = gpu({0x10DE, 0x2704, 0x1462, 0x5110, 0xA1});
  EXPECT_TRUE(monitor_.update_gpu_marketing_name(msi));
  EXPECT_STREQ(msi->marketing_name, "MSI RTX 4080 Suprim X");
}

TEST_F(MarketingNames, IntelAndMooreThreadsBoards) {
  zev::GPU* arc = gpu({0x8086, 0xE20B, 0x8086, 0x1100, 0});
  EXPECT_TRUE(monitor_.update_gpu_marketing_name(arc));
  EXPECT_STREQ(arc->marketing_name, "Intel Arc B580 Limited Edition");
  zev::GPU* sparkle = gpu({0x8086, 0x56A5, 0x172F, 0x4017, 5});
  EXPECT_TRUE(monitor_.update_gpu_marketing_name(sparkle));
  EXPECT_STREQ(sparkle->marketing_name, "Sparkle Arc A380 Genie 6G");
  zev::GPU* mtt = gpu({0x1ED5, 0x0201, 0x1ED5, 0x0201, 0});
  EXPECT_TRUE(monitor_.update_gpu_marketing_name(mtt));
  EXPECT_STREQ(mtt->marketing_name, "Moore Threads MTT S80 16G");
}

TEST_F(MarketingNames, HdSixThousandNameFixUp) {
  zev::GPU* g = gpu({0x1002, 0x68F9, 0x1028, 0x2126, 0}, "AMD Radeon HD 5450");
  monitor_.update_gpu_marketing_name(g);
  EXPECT_STREQ(g->name, "AMD Radeon HD 6350");
  EXPECT_FALSE(g->use_marketing_name);
}

TEST_F(MarketingNames, OtherVendorsAreLeftAlone) {
  zev::GPU* vmware = gpu({0x15AD, 0x0405, 0x15AD, 0x0405, 0});
  std::strcpy(vmware->marketing_name, "kept");
  vmware->use_marketing_name = true;
  EXPECT_FALSE(monitor_.update_gpu_marketing_name(vmware));
  EXPECT_TRUE(vmware->use_marketing_name);
  EXPECT_STREQ(vmware->marketing_name, "kept");
  EXPECT_FALSE(monitor_.update_gpu_marketing_name(nullptr));
  EXPECT_FALSE(monitor_.update_gpu_marketing_name_amd(nullptr));
}

TEST_F(MarketingNames, AllGpusAtOnce) {
  zev::GPU* a = gpu({0x10DE, 0x2B85, 0x10DE, 0x2057, 0xA1});
  zev::GPU* b = gpu({0x1002, 0x7550, 0x1043, 0x0613, 0xC0});
  zev::GPU* c = gpu({0x1234, 0x0001, 0, 0, 0});
  EXPECT_TRUE(monitor_.update_all_gpus_marketing_name());
  EXPECT_TRUE(a->use_marketing_name);
  EXPECT_STREQ(b->marketing_name, "ASUS RX 9070 XT TUF OC");
  EXPECT_FALSE(c->use_marketing_name);
}

}  // namespace
