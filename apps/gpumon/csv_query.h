// gpumon --query FIELD,... --format csv[,noheader][,nounits]: chosen fields
// of each GPU as comma-separated lines, the way nvidia-smi --query-gpu
// prints them.
#pragma once

#include <string>
#include <vector>

#include "gpu_fields.h"
#include "nvsmi_names.h"

// The header line: the columns' names, each with " [UNIT]" when it has a
// unit (also with nounits, as nvidia-smi does: the header still says the unit).
std::string csv_header(const std::vector<QueryColumn>& columns);

// One line per GPU: ", " between values, "[N/A]" for an unknown one, the
// unit after a number when units are shown; a text holding a comma, a quote
// or a line end is quoted (RFC 4180).
std::string csv_rows(const std::vector<QueryColumn>& columns, const std::vector<GpuView>& gpus,
                     bool units);
