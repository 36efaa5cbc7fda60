// Steps shared by the two NVIDIA discoveries (NVML and nvidia-smi): naming a
// record from the GPU database, and checking its ROP count with the kernel
// driver.
#pragma once

#include "plugin/gpu_monitor_vorn.h"

// Which shader count a database hit leaves in num_shader_cores.
enum class ShaderCountSource {
  kDriverFirst,    // the driver's count wins when one was read (NVML)
  kDatabaseAlways  // the database value always (nvidia-smi)
};

// Database naming: name and codename (the database's win over the
// driver's), shader, texture-unit and ROP counts, TDP. An unknown device
// leaves the record untouched.
void nvidia_name_from_database(zev::GPU* gpu, ShaderCountSource shaders);

// Asks the driver for the ROP count of device `index` and traces the result;
// a count from the driver replaces the database's in num_rops.
void nvidia_check_rop_count(GpuMonitorVorn* monitor, zev::GPU* gpu, unsigned long index);

// A record created once the general list is full is in no list and nothing
// would ever free it: discovery hands it here after its steps, and it is
// freed with its arrays. Records that made it into the list are left alone.
void nvidia_release_if_unlisted(GpuMonitorVorn* monitor, zev::GPU* gpu);
