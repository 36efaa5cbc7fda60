#include "record_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "io/numbered_entries.h"

namespace fs = std::filesystem;

namespace record {

namespace {

// What the monitor reads of a card's PCI device, of the card itself, and of
// an Intel xe card's first GT.
const char* const kDeviceFiles[] = {"vendor",
                                    "device",
                                    "revision",
                                    "subsystem_vendor",
                                    "subsystem_device",
                                    "class",
                                    "vbios_version",
                                    "gpu_busy_percent",
                                    "mem_busy_percent",
                                    "mem_info_vram_total",
                                    "mem_info_vram_used",
                                    "uevent",
                                    "tile0/gt0/freq0/act_freq",
                                    "tile0/gt0/freq0/cur_freq"};
const char* const kCardFiles[] = {"gt_act_freq_mhz", "gt_cur_freq_mhz"};
// The Raspberry Pi's V3D statistics (Pi 5, Pi 4) and debug files.
const char* const kPiFiles[] = {
    "/sys/devices/platform/axi/1002000000.v3d/gpu_stats",
    "/sys/devices/platform/v3dbus/fec00000.v3d/gpu_stats", "/sys/kernel/debug/dri/0/gpu_usage",
    "/sys/kernel/debug/dri/1/gpu_usage", "/sys/kernel/debug/dri/1002000000.v3d/measure_clock"};
const char* const kProcFiles[] = {"/proc/meminfo", "/proc/sys/kernel/osrelease"};

constexpr size_t kMaxFileSize = 1 << 20;

// The whole file, read without waiting for a writer (a FIFO reads as empty).
bool read_whole(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  text->clear();
  char block[4096];
  ssize_t got = 0;
  while (text->size() < kMaxFileSize && (got = read(fd, block, sizeof block)) > 0) {
    text->append(block, static_cast<size_t>(got));
  }
  close(fd);
  return got >= 0 || errno == EAGAIN;
}

bool write_whole(const fs::path& path, const std::string& text) {
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::binary);
  out << text;
  return static_cast<bool>(out);
}

// Makes the link `real` (a path on this machine) in the folder, as it is.
void copy_link(const fs::path& folder, const fs::path& real) {
  std::error_code ec;
  const fs::path target = fs::read_symlink(real, ec);
  if (ec) return;
  const fs::path out = folder / real.relative_path();
  fs::create_directories(out.parent_path(), ec);
  if (!fs::exists(fs::symlink_status(out, ec))) fs::create_symlink(target, out, ec);
}

// Copies the file at `path` into the folder at its real place, making every
// link met on the way in the folder too. False when there is no such file.
bool copy_keeping_links(const fs::path& folder, const std::string& path, std::string* real_path) {
  fs::path resolved = "/";
  std::error_code ec;
  for (const fs::path& part : fs::path(path).relative_path()) {
    fs::path next = resolved / part;
    for (int hops = 0; fs::is_symlink(fs::symlink_status(next, ec)); ++hops) {
      if (hops == 16) return false;
      copy_link(folder, next);
      const fs::path target = fs::read_symlink(next, ec);
      if (ec) return false;
      next = (target.is_absolute() ? target : next.parent_path() / target).lexically_normal();
    }
    resolved = next;
  }
  if (!fs::is_regular_file(fs::status(resolved, ec))) return false;
  std::string text;
  if (!read_whole(resolved.string(), &text)) return false;
  if (!write_whole(folder / resolved.relative_path(), text)) return false;
  *real_path = resolved.string();
  return true;
}

// hwmon files the monitor reads: name, pwm1, pwm1_max, and <kind><i>_<leaf>
// for the sensor kinds and leaves it knows.
bool monitor_reads_hwmon_file(const std::string& name) {
  if (name == "name" || name == "pwm1" || name == "pwm1_max") return true;
  size_t digits = name.find_first_of("0123456789");
  const size_t underscore = name.find('_', digits);
  if (digits == std::string::npos || underscore == std::string::npos) return false;
  const std::string kind = name.substr(0, digits);
  const std::string leaf = name.substr(underscore + 1);
  for (size_t i = digits; i < underscore; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
  }
  if (kind == "temp" || kind == "freq" || kind == "energy")
    return leaf == "input" || leaf == "label";
  if (kind == "fan") return leaf == "input";
  if (kind == "power") {
    return leaf == "input" || leaf == "average" || leaf == "label" || leaf == "cap" ||
           leaf == "max";
  }
  return false;
}

void copy_card(const fs::path& folder, const std::string& card, std::vector<std::string>* copied) {
  std::string real;
  auto take = [&](const std::string& path) {
    if (copy_keeping_links(folder, path, &real)) copied->push_back(real);
  };
  for (const char* name : kCardFiles) take(card + "/" + name);
  for (const char* name : kDeviceFiles) take(card + "/device/" + name);
  std::error_code ec;
  for (const fs::directory_entry& hwmon : fs::directory_iterator(card + "/device/hwmon", ec)) {
    if (numbered_entries::number_after(hwmon.path().filename().c_str(), "hwmon") < 0) continue;
    std::error_code inner;
    for (const fs::directory_entry& file : fs::directory_iterator(hwmon.path(), inner)) {
      if (monitor_reads_hwmon_file(file.path().filename().string())) take(file.path().string());
    }
  }
}

void copy_cpuinfo(const fs::path& folder, std::vector<std::string>* copied) {
  std::string text;
  if (!read_whole("/proc/cpuinfo", &text)) return;
  // A board's serial number stays on the board.
  std::string kept;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    if (text.compare(start, 6, "Serial") != 0) kept.append(text, start, end - start);
    start = end;
  }
  if (write_whole(folder / "proc/cpuinfo", kept)) copied->push_back("/proc/cpuinfo");
}

}  // namespace

std::vector<std::string> copy_machine_files(const std::string& folder_text) {
  const fs::path folder(folder_text);
  std::vector<std::string> copied;
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator("/sys/class/drm", ec)) {
    const std::string name = entry.path().filename().string();
    if (numbered_entries::number_after(name.c_str(), "card") >= 0) {
      copy_card(folder, entry.path().string(), &copied);
    } else if (fs::is_symlink(entry.symlink_status(ec))) {
      copy_link(folder, entry.path());  // connectors, render nodes
    }
  }
  std::string real;
  for (const fs::directory_entry& entry : fs::directory_iterator("/sys/bus/pci/devices", ec)) {
    std::string text;
    if (!read_whole(entry.path().string() + "/class", &text) || text.compare(0, 4, "0x03") != 0)
      continue;
    for (const char* name : {"vendor", "device", "class"}) {
      if (copy_keeping_links(folder, entry.path().string() + "/" + name, &real))
        copied.push_back(real);
    }
  }
  for (const char* path : kPiFiles) {
    if (copy_keeping_links(folder, path, &real)) copied.push_back(real);
  }
  copy_cpuinfo(folder, &copied);
  for (const char* path : kProcFiles) {
    std::string text;
    if (read_whole(path, &text) && write_whole(folder / fs::path(path).relative_path(), text))
      copied.push_back(path);
  }
  return copied;
}

}  // namespace record
