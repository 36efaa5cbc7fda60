// nvidia-smi's --query-gpu names that gpumon answers, each printed as
// nvidia-smi prints it: its unit (none for temperatures), its decimals
// (power with two), its own forms of the PCI address and the time.
#pragma once

#include <string>

#include "gpu_fields.h"

// One column of a --query: the field it reads and how it prints.
struct QueryColumn {
  enum Form { kPlain, kBusId, kLocalTime };
  const GpuField* field = nullptr;
  std::string header;     // the name in the header line
  const char* unit = "";  // after a number, and in brackets in the header
  int decimals = -1;      // digits after the point; -1: as many as the value has
  Form form = kPlain;
};

// The column of a --query name: an nvidia-smi name (or one of its aliases),
// printed as nvidia-smi does under its first name, else a field of gpumon's
// own. False when the name is neither.
bool find_query_column(const std::string& name, QueryColumn* column);

// --help-query: gpumon's fields, then the nvidia-smi names and the fields
// that answer them.
std::string query_help();
