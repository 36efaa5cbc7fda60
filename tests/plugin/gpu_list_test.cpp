// The two fixed-capacity GPU lists: insertion, ownership, sort and lookups.
#include <gtest/gtest.h>

#include "plugin/gpu_monitor_vorn.h"

namespace {

class GpuLists : public ::testing::Test {
 protected:
  ~GpuLists() override { monitor_.cleanup_gpus_list(); }

  zev::GPU* add(uint64_t vendor, uint64_t device, int32_t bus) {
    zev::GPU* gpu = monitor_.create_gpu();
    gpu->vendor_id = vendor;
    gpu->device_id = device;
    if (bus != kPlaceholder) gpu->bus_id = bus;
    return gpu;
  }

  std::vector<int32_t> bus_order() {
    std::vector<int32_t> order;
    for (unsigned long i = 0; i < monitor_.get_num_gpus(); ++i)
      order.push_back(monitor_.get_gpu(i)->bus_id);
    return order;
  }

  static constexpr int32_t kPlaceholder = -12345;
  GpuMonitorVorn monitor_;
};

TEST_F(GpuLists, CreateGivesPlaceholderBusNumbersAndSlotIndices) {
  for (int i = 0; i < 3; ++i) add(0x1002, 0x744C, kPlaceholder);
  ASSERT_EQ(monitor_.get_num_gpus(), 3u);
  for (unsigned long i = 0; i < 3; ++i) {
    EXPECT_EQ(monitor_.get_gpu(i)->index, i);
    EXPECT_EQ(monitor_.get_gpu(i)->bus_id, static_cast<int32_t>(1001 + i));
  }
  EXPECT_EQ(monitor_.get_gpu(3), nullptr);
  EXPECT_EQ(monitor_.get_gpu(~0ul), nullptr);
}

TEST_F(GpuLists, CapacityIsSixteen) {
  EXPECT_FALSE(monitor_.add_gpu(nullptr));
  for (int i = 0; i < 16; ++i) monitor_.create_gpu();
  EXPECT_EQ(monitor_.get_num_gpus(), 16u);
  EXPECT_EQ(monitor_.get_gpu(15)->bus_id, 1016);

  // The seventeenth record is still made and returned, but belongs to no
  // list; its caller owns it.
  zev::GPU* extra = monitor_.create_gpu();
  ASSERT_NE(extra, nullptr);
  EXPECT_EQ(monitor_.get_num_gpus(), 16u);
  EXPECT_EQ(extra->bus_id, 1016);
  EXPECT_FALSE(monitor_.add_gpu(extra));
  delete extra;
}

TEST_F(GpuLists, NvmlListRefersToRecordsWithoutOwningThem) {
  zev::GPU* shared = monitor_.create_gpu();
  EXPECT_TRUE(monitor_.add_nvml_gpu(shared));
  EXPECT_FALSE(monitor_.add_nvml_gpu(nullptr));
  EXPECT_EQ(monitor_.nvml_get_num_gpus(), 1u);
  EXPECT_EQ(monitor_.nvml_get_gpu(0), shared);
  EXPECT_EQ(monitor_.nvml_get_gpu(1), nullptr);
  EXPECT_EQ(shared->index, 0u);

  // A record only in the NVML list is not freed by the clean-up.
  zev::GPU* nvml_only = monitor_.create_nvml_gpu();
  EXPECT_EQ(monitor_.nvml_get_num_gpus(), 2u);
  EXPECT_EQ(nvml_only->bus_id, -1) << "no placeholder outside the general list";
  for (int i = 0; i < 14; ++i) monitor_.add_nvml_gpu(shared);
  EXPECT_FALSE(monitor_.add_nvml_gpu(shared));
  EXPECT_EQ(monitor_.nvml_get_num_gpus(), 16u);

  monitor_.cleanup_gpus_list();
  EXPECT_EQ(monitor_.nvml_get_num_gpus(), 0u);
  EXPECT_EQ(monitor_.nvml_get_gpu(0), nullptr);
  delete nvml_only;
}

TEST_F(GpuLists, SortPutsRealBusNumbersFirstAndUnknownLast) {
  add(1, 1, 3);
  add(1, 2, -1);
  add(1, 3, 1);
  monitor_.sort_gpus_by_bus_id();
  EXPECT_EQ(bus_order(), (std::vector<int32_t>{1, 3, -1}));
  // Sorting does not renumber: index still tells the insertion slot.
  EXPECT_EQ(monitor_.get_gpu(0)->index, 2u);
  EXPECT_EQ(monitor_.get_gpu(1)->index, 0u);
  EXPECT_EQ(monitor_.get_gpu(2)->index, 1u);
}

TEST_F(GpuLists, PlaceholdersKeepDiscoveryOrderBehindRealBusNumbers) {
  zev::GPU* first = add(1, 1, kPlaceholder);   // 1001
  zev::GPU* second = add(1, 2, kPlaceholder);  // 1002
  add(1, 3, 7);
  add(1, 4, -1);
  add(1, 5, 0);
  monitor_.sort_gpus_by_bus_id();
  EXPECT_EQ(bus_order(), (std::vector<int32_t>{0, 7, 1001, 1002, -1}));
  EXPECT_EQ(monitor_.get_gpu(2), first);
  EXPECT_EQ(monitor_.get_gpu(3), second);
}

TEST_F(GpuLists, SortOfAFullListWithManyUnknownBusNumbers) {
  for (int i = 0; i < 16; ++i) add(1, i, (i % 3 == 0) ? -1 : 200 - i);
  monitor_.sort_gpus_by_bus_id();
  const std::vector<int32_t> order = bus_order();
  ASSERT_EQ(order.size(), 16u);
  size_t first_unknown = 0;
  while (first_unknown < order.size() && order[first_unknown] != -1) ++first_unknown;
  EXPECT_TRUE(std::is_sorted(order.begin(), order.begin() + first_unknown));
  for (size_t i = first_unknown; i < order.size(); ++i) EXPECT_EQ(order[i], -1);
  EXPECT_EQ(order.size() - first_unknown, 6u);
}

TEST_F(GpuLists, LookupsByVendorDeviceAndBus) {
  zev::GPU* a = add(0x10DE, 0x2684, 65);
  zev::GPU* b = add(0x1002, 0x744C, 3);
  zev::GPU* c = add(0x10DE, 0x2684, 23);
  monitor_.sort_gpus_by_bus_id();  // slots now: b (3), c (23), a (65)

  // First match in slot order, whatever its index.
  EXPECT_EQ(monitor_.get_gpu_v2(0x10DE, 0x2684, -1), c);
  EXPECT_EQ(monitor_.get_gpu_v2(0x10DE, 0x2684, 0), a);
  EXPECT_EQ(monitor_.get_gpu_v2(0x10DE, 0x2684, 2), c);
  EXPECT_EQ(monitor_.get_gpu_v2(0x10DE, 0x2684, 1), nullptr);
  EXPECT_EQ(monitor_.get_gpu_v2(0x8086, 0x56A0, -1), nullptr);

  EXPECT_EQ(monitor_.get_gpu_by_devid_and_busid(0x10DE, 0x2684, 65), a);
  EXPECT_EQ(monitor_.get_gpu_by_devid_and_busid(0x1002, 0x744C, 3), b);
  EXPECT_EQ(monitor_.get_gpu_by_devid_and_busid(0x1002, 0x744C, 4), nullptr);

  EXPECT_EQ(monitor_.get_num_gpus_by_vendor(0x10DE), 2u);
  EXPECT_EQ(monitor_.get_num_gpus_by_vendor(0x1002), 1u);
  EXPECT_EQ(monitor_.get_num_gpus_by_vendor(0x8086), 0u);
}

TEST_F(GpuLists, CleanupFreesRecordsAndTheirArrays) {
  zev::GPU* gpu = add(0x1002, 0x744C, 3);
  gpu->num_fans = 2;
  gpu->fans = new zev::gpuFanSpeed[2];
  gpu->num_process_utilization = 3;
  gpu->process_utilization = new zev::gpuProcessUtilization[3];
  gpu->num_perf_levels = 4;
  gpu->perf_levels = new zev::gpuPerformanceState[4];
  monitor_.add_nvml_gpu(gpu);
  add(0x8086, 0x56A0, 4);

  // Freed arrays and records show up under the address sanitizer.
  EXPECT_TRUE(monitor_.cleanup_gpus_list());
  EXPECT_EQ(monitor_.get_num_gpus(), 0u);
  EXPECT_EQ(monitor_.nvml_get_num_gpus(), 0u);
  for (unsigned long i = 0; i < GpuMonitorVorn::kMaxGpus; ++i) {
    EXPECT_EQ(monitor_.gpus[i], nullptr);
    EXPECT_EQ(monitor_.nvml_gpus[i], nullptr);
  }
  EXPECT_TRUE(monitor_.cleanup_gpus_list());
}

TEST_F(GpuLists, ResetOfAllSensorsKeepsIdentity) {
  zev::GPU* gpu = add(0x1002, 0x744C, 3);
  gpu->temperatures[0].current = 55.0f;
  gpu->core_usage[0] = 80.0f;
  EXPECT_TRUE(monitor_.reset_gpus_sensors());
  EXPECT_EQ(gpu->temperatures[0].current, -1.0f);
  EXPECT_EQ(gpu->core_usage[0], -1.0f);
  EXPECT_EQ(gpu->bus_id, 3);
  EXPECT_EQ(gpu->device_id, 0x744Cu);
}

}  // namespace
