#include "lookup.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <vector>

#include "exit_codes.h"
#include "gpudb/gpu_db.h"
#include "gpudb/vendor_tables.h"
#include "json_report.h"

namespace {

using nlohmann::json;

struct PciId {
  unsigned long vendor = 0, device = 0, revision = 0;
  bool has_revision = false;
  char revision_text[3] = {0, 0, 0};
};

bool parse_hex(const std::string& text, size_t max_digits, unsigned long* value) {
  if (text.empty() || text.size() > max_digits) return false;
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  *value = std::strtoul(text.c_str(), nullptr, 16);
  return true;
}

bool parse_id(const std::string& id, PciId* out) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t colon; (colon = id.find(':', start)) != std::string::npos; start = colon + 1)
    parts.push_back(id.substr(start, colon - start));
  parts.push_back(id.substr(start));
  if (parts.size() < 2 || parts.size() > 3) return false;
  if (!parse_hex(parts[0], 4, &out->vendor) || !parse_hex(parts[1], 4, &out->device)) return false;
  if (parts.size() == 3) {
    if (!parse_hex(parts[2], 2, &out->revision)) return false;
    out->has_revision = true;
    std::snprintf(out->revision_text, sizeof out->revision_text, "%02lX", out->revision);
  }
  return true;
}

const char* vendor_name(unsigned long vendor) {
  switch (vendor) {
    case gpudb_vendor::kNvidia: return "NVIDIA";
    case gpudb_vendor::kAmd: return "AMD";
    case gpudb_vendor::kIntel: return "Intel";
    case gpudb_vendor::kMooreThreads: return "Moore Threads";
    case gpudb_vendor::kS3: return "S3 Graphics";
    case gpudb_vendor::kVmware: return "VMware";
    default: return "unknown vendor";
  }
}

// An id as the main JSON document writes ids: "0x744C".
std::string hex_id(unsigned long id) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04lX", id);
  return text;
}

std::string text_or_dash(const char* s) { return (s && *s) ? s : "-"; }
std::string count_or_dash(int v) { return v < 0 ? "-" : std::to_string(v); }

json row_json(const GpuDbTable& table, unsigned long index) {
  auto number = [](int v) { return v < 0 ? json(nullptr) : json(v); };
  auto text = [](const char* s) { return s ? s : ""; };
  const GpuDbRow& row = table.rows[index];
  return {{"index", index},
          {"device_id", hex_id(static_cast<unsigned long>(row.device_id))},
          {"codename", text(table.codename(row))},
          {"variant", text(table.variant(row))},
          {"adapter_name", text(table.adapter_name(row))},
          {"api_level", number(row.api_level)},
          {"shaders", number(row.num_unified_shader_processors)},
          {"vertex_shaders", number(row.num_vertex_shaders)},
          {"pixel_shaders", number(row.num_pixel_shaders)},
          {"texture_units", number(row.num_texture_units)},
          {"rops", number(row.num_rops)},
          {"tdp_w", row.tdp > 0 ? json(row.tdp) : json(nullptr)}};
}

}  // namespace

int run_lookup(const std::string& id, bool as_json) {
  PciId pci;
  if (!parse_id(id, &pci)) {
    std::fprintf(stderr, "gpumon: --lookup needs VENDOR:DEVICE[:REV] in hex, not '%s'\n",
                 id.c_str());
    return kExitUsage;
  }
  const int index = static_cast<int>(
      pci.has_revision ? gpudb::index_of_revision(pci.vendor, pci.device, pci.revision_text)
                       : gpudb::index_of(pci.vendor, pci.device));
  const GpuDbTable table = gpu_db_index_table(pci.vendor);
  const GpuDbRow* row =
      (index >= 0 && table.rows != nullptr && table.adapter_name(table.rows[index]) != nullptr)
          ? &table.rows[index]
          : nullptr;

  // Every row of the device (AMD revisions, renamed products) and its boards.
  std::vector<unsigned long> others;
  for (unsigned long i = 0; i < table.num_rows && pci.device != 0; ++i) {
    if (static_cast<long>(table.rows[i].device_id) == static_cast<long>(pci.device) &&
        static_cast<int>(i) != index)
      others.push_back(i);
  }
  std::vector<const BoardNameRow*> boards;
  const BoardNameTable board_table = gpu_db_board_table(pci.vendor);
  for (unsigned long i = 0; i < board_table.num_rows && board_table.rows[i].vendor != 0; ++i) {
    const BoardNameRow& b = board_table.rows[i];
    if (b.device == pci.device) boards.push_back(&b);
  }

  char pci_text[32];
  std::snprintf(pci_text, sizeof pci_text, "%04lX:%04lX%s%s", pci.vendor, pci.device,
                pci.has_revision ? ":" : "", pci.revision_text);

  if (as_json) {
    json doc = {{"schema_version", kJsonSchemaVersion},
                {"id", pci_text},
                {"vendor_id", hex_id(pci.vendor)},
                {"device_id", hex_id(pci.device)},
                {"vendor", vendor_name(pci.vendor)}};
    doc["row"] = row ? row_json(table, static_cast<unsigned long>(index)) : json(nullptr);
    json other_rows = json::array();
    for (unsigned long i : others) other_rows.push_back(row_json(table, i));
    doc["other_rows"] = other_rows;
    json board_rows = json::array();
    for (const BoardNameRow* b : boards) {
      const char* revision = board_table.revision(*b);
      const char* name = board_table.marketing_name(*b);
      board_rows.push_back({{"subvendor_id", hex_id(b->subvendor)},
                            {"subdevice_id", hex_id(b->subdevice)},
                            {"revision", revision ? revision : ""},
                            {"marketing_name", name ? name : ""}});
    }
    doc["boards"] = board_rows;
    std::printf("%s\n", dump_json(doc, true).c_str());
    return row ? kExitOk : kExitNotFound;
  }

  std::printf("%s (%s)\n", pci_text, vendor_name(pci.vendor));
  if (row == nullptr) {
    std::printf("  not in the GPU database\n");
  } else {
    std::printf("  row %d of the %s table\n", index, vendor_name(pci.vendor));
    std::printf("  name:       %s\n", table.adapter_name(*row));
    std::printf("  codename:   %s\n", text_or_dash(table.codename(*row)).c_str());
    std::printf("  variant:    %s\n", text_or_dash(table.variant(*row)).c_str());
    std::printf("  api level:  %s\n", count_or_dash(row->api_level).c_str());
    std::printf("  shaders:    %s", count_or_dash(row->num_unified_shader_processors).c_str());
    if (row->num_unified_shader_processors == 0) {
      std::printf(" unified; vertex %s, pixel %s", count_or_dash(row->num_vertex_shaders).c_str(),
                  count_or_dash(row->num_pixel_shaders).c_str());
    }
    std::printf("\n  TMUs:       %s\n", count_or_dash(row->num_texture_units).c_str());
    std::printf("  ROPs:       %s\n", count_or_dash(row->num_rops).c_str());
    std::printf("  TDP:        %s\n",
                row->tdp > 0 ? (std::to_string(row->tdp) + " W").c_str() : "-");
  }
  for (unsigned long i : others) {
    const GpuDbRow& r = table.rows[i];
    const char* variant = table.variant(r);
    std::printf("  also row %lu: %s%s%s\n", i, table.adapter_name(r),
                (variant && *variant) ? ", variant " : "", (variant ? variant : ""));
  }
  for (const BoardNameRow* b : boards) {
    std::printf("  board %04X:%04X rev %s: %s\n", b->subvendor, b->subdevice,
                text_or_dash(board_table.revision(*b)).c_str(), board_table.marketing_name(*b));
  }
  return row ? kExitOk : kExitNotFound;
}
