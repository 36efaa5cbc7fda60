// CPU, memory and OS facts, each read through one shell pipeline over /proc
// (or uname) taking the first line of its output. Texts are 128 bytes.
#pragma once

namespace sysinfo {

// The "model name" of /proc/cpuinfo.
bool read_cpu_name(char* name);
// The "Model" line of /proc/cpuinfo: a Raspberry Pi's board model.
bool read_board_model(char* name);
// uname -snr.
bool read_os_name(char* name);
// The first "cpu MHz" of /proc/cpuinfo, read after a moment of load.
bool read_cpu_speed_mhz_current(unsigned long* mhz);
// MemTotal of /proc/meminfo in MiB.
bool read_mem_size_mb(unsigned long* mb);

}  // namespace sysinfo
