// The values gpumon shows of one GPU, in one table: for each, its name in a
// --query list, its place in the JSON document, its unit and how it is read
// from the GPU's record. The JSON report, the CSV query and the metrics all
// read GPUs through this table, so a value means the same everywhere.
#pragma once

#include <string>
#include <vector>

#include "zev/gpu.h"
#include "zev/gpu_monitor.h"

// One GPU as gpumon shows it: its slot in the monitor's list, its record,
// and what gpumon finds out about it besides.
struct GpuView {
  unsigned long slot = 0;
  unsigned long count = 0;  // GPUs the monitor found
  const zev::GPU* gpu = nullptr;
  std::string pci_address;  // "0000:03:00.0"; "" when not known
  long pci_revision = -1;   // the revision /sys gives for that address; -1 unknown
  std::string timestamp;    // when the values were read (ISO 8601, UTC)
};

// A value as read: unknown, a number, a text or a truth value. Numbers are
// in the field's unit and have the decimal digits of the reading (a float
// 71.234f gives 71.234).
struct FieldValue {
  enum Kind { kUnknown, kNumber, kText, kBool };
  Kind kind = kUnknown;
  double number = 0.0;
  std::string text;
  bool flag = false;

  static FieldValue unknown() { return {}; }
  static FieldValue of(double number);
  // A sensor float divided by `divisor`: unknown when -1 (not read) or not finite.
  static FieldValue reading(float value, double divisor = 1.0);
  static FieldValue of(const std::string& text);  // unknown when empty
  static FieldValue of_bool(bool flag);
  bool known() const { return kind != kUnknown; }
};

struct GpuField {
  const char* query;        // --query name, nvidia-smi's where the value means the same;
                            // nullptr: JSON only
  const char* json_key;     // path in a GPU's JSON object, '.' between levels;
                            // nullptr: --query only
  const char* unit;         // "C", "W", "MHz", "%", "MiB", "J", "bit" or "" (none)
  const char* description;  // one line for --help-query
  FieldValue (*read)(const GpuView& view);
};

// Every field, in the order of the JSON document.
const std::vector<GpuField>& gpu_fields();

// The name a GPU is shown by: its board's where known, else its device's.
const char* display_name(const zev::GPU& gpu);

// The field of a --query name; nullptr when there is none.
const GpuField* find_query_field(const std::string& name);

// PCIe throughput is read on demand only, not by refreshes: NVML measures
// each counter over 20 ms. Whether `fields` show it, and the reading of
// every NVML GPU's counters (before showing them).
bool shows_pcie_throughput(const std::vector<const GpuField*>& fields);
void read_pcie_throughput(zev::GpuMonitor* monitor);
