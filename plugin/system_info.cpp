// CPU and OS facts, gathered once at the start of initialize() from the
// system information layer (sysinfo/).
#include <cmath>
#include <cstdio>
#include <cstring>

#include "plugin/gpu_monitor_vorn.h"
#include "sysinfo/board_model.h"
#include "sysinfo/cpu_readers.h"
#include "zev/utils.h"

bool GpuMonitorVorn::_init_system_info() {
  _init_cpu_name();
  _init_cpu_mem_size();
  _init_os_name();
  _init_cpu_info();
  return true;
}

bool GpuMonitorVorn::_init_cpu_name() {
  char name[128];
  std::memset(name, 0, sizeof name);
  linux_read_cpu_name(name);
  // On a Raspberry Pi 3, 4 or 5 the CPU name is the board model, which also
  // tells the Pi's GPU discovery which board this is. Elsewhere the board
  // model line is absent or names no Pi, and nothing changes; there the
  // pipeline that reads the model is not even started (one process less at
  // every start-up): /proc/cpuinfo read in-process already says so.
  char model[128];
  std::memset(model, 0, sizeof model);
  if (board_model::read_raspberry_pi_model(model)) copy_text(name, sizeof name, model);
  copy_text(cpu_name, sizeof cpu_name, name);

  unsigned long mhz = 0;
  linux_read_cpu_speed_mhz_current(&mhz);
  cpu_speed_mhz = mhz;

  // The memory size is only traced; no field keeps it.
  unsigned long mem_mb = 0;
  linux_read_mem_size_mb(&mem_mb);

  tracef("Linux x86_64 - CPU name: %s, CPU speed: %dMHz, RAM: %dMB", name, static_cast<int>(mhz),
         static_cast<int>(mem_mb));
  return cpu_name[0] != '\0';
}

bool GpuMonitorVorn::_init_cpu_speed_mhz() {
  cpu_speed_mhz = 0;
  return false;
}

bool GpuMonitorVorn::_init_cpu_mem_size() { return cpu_mem_kb != 0; }

bool GpuMonitorVorn::_init_cpu_info() { return false; }

bool GpuMonitorVorn::_init_os_name() {
  std::memset(os_name, 0, sizeof os_name);
  std::snprintf(os_name, sizeof os_name, "%s %s %d-bit", zev::utils::get_platform_name(),
                zev::utils::get_linux_release(), zev::utils::get_platform_bitness());
  if (os_name[0] == '\0') return false;
  tracef("Operating system detected: %s", os_name);
  return true;
}

const char* GpuMonitorVorn::get_cpu_name() { return cpu_name; }
unsigned long GpuMonitorVorn::get_cpu_speed_mhz() { return cpu_speed_mhz; }
unsigned long GpuMonitorVorn::get_cpu_mem_kb() { return cpu_mem_kb; }
unsigned long GpuMonitorVorn::get_physical_cpu_mem_mb() { return physical_cpu_mem_mb; }
unsigned long GpuMonitorVorn::get_available_cpu_mem_kb() { return 0; }
unsigned int GpuMonitorVorn::get_cpu_logical_cores() { return cpu_logical_cores; }
unsigned int GpuMonitorVorn::get_cpu_physical_cores() { return cpu_physical_cores; }
const char* GpuMonitorVorn::get_os_name() { return os_name; }

bool GpuMonitorVorn::linux_read_cpu_name(char* name) { return sysinfo::read_cpu_name(name); }
bool GpuMonitorVorn::linux_arm64_rpi_read_cpu_name(char* name) {
  return sysinfo::read_board_model(name);
}
bool GpuMonitorVorn::linux_read_os_name(char* name) { return sysinfo::read_os_name(name); }
bool GpuMonitorVorn::linux_read_cpu_speed_mhz_current(unsigned long* mhz) {
  return sysinfo::read_cpu_speed_mhz_current(mhz);
}
bool GpuMonitorVorn::linux_read_mem_size_mb(unsigned long* mb) {
  return sysinfo::read_mem_size_mb(mb);
}
