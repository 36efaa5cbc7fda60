// Steps shared by the two NVIDIA discoveries (NVML and nvidia-smi): naming a
// record from the GPU database (the driver's ROP check is in the public
// header: check_rop_count).
#pragma once

#include "zev/gpu.h"

// Which shader count a database hit leaves in num_shader_cores.
enum class ShaderCountSource {
  kDriverFirst,    // the driver's count wins when one was read (NVML)
  kDatabaseAlways  // the database value always (nvidia-smi)
};

// Database naming: name and codename (the database's win over the
// driver's), shader, texture-unit and ROP counts, TDP. An unknown device
// leaves the record untouched.
void nvidia_name_from_database(zev::GPU* gpu, ShaderCountSource shaders);
