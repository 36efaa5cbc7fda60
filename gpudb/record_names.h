// Naming a GPU record from a database row, as every discovery does it.
#pragma once

#include "plugin/gpu_monitor_vorn.h"

// Copies the adapter name and the codename of row `index` of the record's
// vendor table into the record, each only when the database has a non-empty
// text for it: the database's names win over a driver's.
void gpu_db_copy_names(GpuMonitorVorn* monitor, zev::GPU* gpu, int index);
