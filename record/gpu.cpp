#include <cstring>
#include <initializer_list>

#include "record/record_writes.h"
#include "zev/gpu.h"

namespace zev {

void gpuTemperature::reset() { current = min = max = -1.0f; }

void gpuTemperature::update_min_max() { gpu_record::fold_min_max(current, &min, &max); }

void gpuPower::reset() {
  float* slots = &value;
  for (int i = 0; i < 14; ++i) slots[i] = -1.0f;
}

void gpuPower::update_max_in_test() {
  gpu_record::fold_max(value, &value_max_in_test);
  gpu_record::fold_max(watts, &watts_max_in_test);
}

gpuFanSpeed::gpuFanSpeed()
    : speed_percent(-1.0f),
      reserved1(-1.0f),
      reserved2(-1.0f),
      rpm(-1.0f),
      reserved4(-1.0f),
      reserved5(-1.0f) {}

gpuBoostv2::gpuBoostv2() { std::memset(values, 0, sizeof values); }

gpuPerformanceState::gpuPerformanceState()
    : state(0), core_clock(-1.0f), memory_clock(-1.0f), voltage(-1.0f), reserved(0.0f) {}

gpuProcessUtilization::gpuProcessUtilization() : pid(0), timestamp(0), sm_util(0), mem_util(0) {
  // The name is cleared as its two historical pieces, 256 and 1024 bytes.
  std::memset(process_name, 0, 256);
  std::memset(process_name + 256, 0, 1024);
}

gpuClock::gpuClock()
    : current(-1.0f),
      min(-1.0f),
      max(-1.0f),
      reserved3(-1.0f),
      reported_max_clock(-1.0f),
      reserved5(0),
      max_clock(-1.0f) {}

GPU::GPU() {
  // Start from all zero bytes (texts empty, counts 0, pointers null), then
  // give the fields whose default is not zero their values.
  std::memset(static_cast<void*>(this), 0, sizeof(*this));

  bus_id = -1;
  for (int32_t& v : carried_i32_0) v = -1;
  gpu_kind = 2;
  carried_u32_3 = 2;
  carried_u64_1 = 1000;
  vram_used_mb = -1;

  for (gpuTemperature& t : temperatures) t.reset();
  for (float& v : core_usage) v = -1.0f;
  for (float& v : memory_usage) v = -1.0f;
  for (auto& triple : carried_usage)
    for (float& v : triple) v = -1.0f;
  power.reset();
  for (float& v : carried_f32_0) v = -1.0f;
  boost = gpuBoostv2();
  core_clock = gpuClock();
  memory_clock = gpuClock();
  carried_clock = gpuClock();
  color.set(0.0f, 1.0f, 0.0f, 1.0f);

  carried_bool_true = true;
  rop_check_code = -1;
  carried_i32_1 = -1;
  carried_i32_2 = -1;
  nvml_gpu_utilization = -1;
  nvml_memory_utilization = -1;
  for (int32_t& v : nvml_raw) v = -1;

  carried_i32_3 = -1;
  carried_f32_2[4] = -1000.0f;
  for (float& v : carried_f32_3) v = -1.0f;
  for (int32_t& v : carried_i32_4) v = -1;
  carried_i64_0 = -1;

  nvidia_gpu_index = -1;
  drm_card_index = -1;
  drm_hwmon_index = -1;
  drm_temp_input_index = -1;
  carried_i32_5 = -1;
  drm_power_index = -1;
}

void GPU::reset_sensors() {
  // Both usage triples, the first value of the third and of the fourth.
  for (float& v : core_usage) v = -1.0f;
  for (float& v : memory_usage) v = -1.0f;
  carried_usage[0][0] = -1.0f;
  carried_usage[1][0] = -1.0f;
  for (gpuClock* c : {&core_clock, &memory_clock}) c->current = c->min = c->max = -1.0f;

  carried_f32_1 = 0.0f;
  vram_used_mb = -1;  // a reading too

  for (uint64_t i = 0; fans != nullptr && i < num_fans; ++i) {
    fans[i].speed_percent = -1.0f;
    fans[i].rpm = -1.0f;
  }

  for (float& v : carried_f32_3) v = -1.0f;

  // NVML raw values go to 0 rather than the constructor's -1; the raw fan
  // value is kept.
  nvml_gpu_utilization = 0;
  nvml_memory_utilization = 0;
  for (int i = 1; i < 5; ++i) nvml_raw[i] = 0;

  for (gpuTemperature& t : temperatures) t.reset();
  power.reset();

  total_energy = 0.0f;
  carried_f32_0[0] = 0.0f;
  carried_f32_0[1] = -1.0f;
  carried_f32_0[2] = -1.0f;
}

void GPU::update_usages_max() {
  for (float* triple : {core_usage, memory_usage}) gpu_record::fold_max(triple[0], &triple[2]);
}

}  // namespace zev
