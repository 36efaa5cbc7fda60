#include "record.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <vector>

#include "exit_codes.h"
#include "record_answers.h"
#include "record_files.h"

namespace fs = std::filesystem;

namespace {

// The project's stand-in for the CUDA driver library, which the monitor
// only checks can be loaded: beside the built gpumon, or in the installed
// plug-in folder.
std::string cuda_stand_in(const std::string& plugin, const std::string& program) {
  const std::string self_dir = fs::path(program).parent_path().string();
  for (const std::string& candidate :
       {self_dir + "/../fakes/lib/libcuda.so",
        fs::path(plugin).parent_path().string() + "/libzev-cuda-standin.so"}) {
    if (access(candidate.c_str(), R_OK) == 0) return candidate;
  }
  return "";
}

// Runs gpumon with the given environment in front: one scan and two
// refreshes, as JSON documents; returns the last document ("" on failure).
std::string run_monitor(const std::string& environment, const std::string& program,
                        const std::string& plugin) {
  const std::string command = environment + " " + record::shell_word(program) +
                              " --json --watch 0.05 --count 2 --plugin " +
                              record::shell_word(plugin) + " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string last, line;
  char block[4096];
  while (std::fgets(block, sizeof block, pipe) != nullptr) {
    line += block;
    if (!line.empty() && line.back() == '\n') {
      last = line;
      line.clear();
    }
  }
  pclose(pipe);
  return last;
}

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &tm);
  return text;
}

void write_readme(const std::string& folder, const std::string& document, size_t files,
                  bool nvml_bypassed, bool cuda_missing) {
  nlohmann::json doc = nlohmann::json::parse(document, nullptr, false);
  std::ofstream out(folder + "/README.md");
  out << "# " << fs::path(folder).filename().string() << "\n\n"
      << "Recorded by `gpumon --record` on " << utc_now();
  if (!doc.is_discarded()) {
    out << ", on a machine with " << doc["system"].value("cpu_name", std::string("an unknown CPU"))
        << " running " << doc["system"].value("os_name", std::string("an unknown OS")) << ".\n\n";
    out << "GPUs the monitor found:\n\n";
    for (const auto& gpu : doc["gpus"]) {
      const auto text = [](const nlohmann::json& v) {
        return v.is_string() ? v.get<std::string>() : std::string("-");
      };
      const std::string name =
          gpu["name"].is_string() ? text(gpu["name"]) : text(gpu["device_name"]);
      out << "- " << gpu.value("index", 0) << ": " << name << " (" << text(gpu["pci"]["vendor_id"])
          << ":" << text(gpu["pci"]["device_id"]) << ", driver " << text(gpu["driver"]["name"])
          << ", PCI " << text(gpu["pci"]["address"]) << ")\n";
    }
    if (doc["gpus"].empty()) out << "- none\n";
  } else {
    out << ".\n";
  }
  out << "\nIt holds the " << files
      << " files the monitor reads, at their paths under `sys/` and `proc/` (the links on the "
         "way kept as links), and the answers of the GPU tools the monitor ran, in "
         "`bin/answers/`, which `bin/<tool>` replays. Nothing else of the machine was "
         "copied: no other file of `/sys`, `/proc` or `/dev`, no serial number "
         "(a `Serial` line of `/proc/cpuinfo` is left out). What NVIDIA's driver answers through "
         "`/dev/nvidia*` (the ROP count) cannot be recorded.\n";
  if (nvml_bypassed) {
    out << "\nThe monitor read the NVIDIA GPUs through NVML, which no recording can hold: "
           "`nvidia-smi` was asked what the monitor asks it when NVML is missing, so the "
           "replay shows them as the nvidia-smi path does.\n";
  }
  if (cuda_missing) {
    out << "\nThe replay reads the NVIDIA GPUs through `nvidia-smi` only where a library "
           "named `libcuda.so` lies in `lib/` (any shared library will do: the monitor only "
           "checks that it loads); gpumon found no stand-in to put there.\n";
  }
}

}  // namespace

int record_machine(const std::string& folder, const std::string& plugin,
                   const std::string& program) {
  std::error_code ec;
  if (fs::exists(folder, ec) && !fs::is_empty(folder, ec)) {
    std::fprintf(stderr, "gpumon: %s is not empty: --record writes into a new or empty folder\n",
                 folder.c_str());
    return kExitUsage;
  }
  fs::create_directories(folder, ec);
  if (ec) {
    std::fprintf(stderr, "gpumon: cannot make %s: %s\n", folder.c_str(), ec.message().c_str());
    return kExitFile;
  }
  const std::string root = fs::absolute(folder).lexically_normal().string();

  // The files first, as a monitor starting now would read them.
  const size_t files = record::copy_machine_files(root).size();

  // Then the tools' answers, while a monitor runs: once as it is, and, where
  // NVML served and nvidia-smi is installed, once more with NVML hidden.
  char shims_template[] = "/tmp/gpumon-record-XXXXXX";
  if (mkdtemp(shims_template) == nullptr) {
    std::fprintf(stderr, "gpumon: cannot make a temporary folder\n");
    return kExitFile;
  }
  const std::string shims = shims_template;
  record::write_recording_shims(shims, root);
  const std::string env = "PATH=" + record::shell_word(shims) + ":\"$PATH\"";
  const std::string document = run_monitor(env, program, plugin);

  const std::string stand_in = cuda_stand_in(plugin, program);
  bool nvml_bypassed = false;
  if (record::count_answers(root, "nvidia-smi") == 0 &&
      !record::find_on_path("nvidia-smi").empty() && !stand_in.empty()) {
    if (void* cuda = dlopen("libcuda.so", RTLD_LAZY)) {
      dlclose(cuda);
      // NVML "found" as a library without its entry points fails to start.
      const std::string hidden = shims + "/nvml-hidden";
      fs::create_directories(hidden, ec);
      fs::copy_file(stand_in, hidden + "/libnvidia-ml.so", ec);
      fs::copy_file(stand_in, hidden + "/libnvidia-ml.so.1", ec);
      run_monitor(env + " LD_LIBRARY_PATH=" + record::shell_word(hidden) + ":\"$LD_LIBRARY_PATH\"",
                  program, plugin);
      nvml_bypassed = record::count_answers(root, "nvidia-smi") != 0;
    }
  }
  fs::remove_all(shims, ec);

  bool cuda_missing = false;
  for (const std::string& tool : record::recorded_tools()) {
    if (record::count_answers(root, tool) == 0) continue;
    record::write_replay_script(root, tool);
    if (tool != "nvidia-smi") continue;
    fs::create_directories(root + "/lib", ec);
    cuda_missing = stand_in.empty() || !fs::copy_file(stand_in, root + "/lib/libcuda.so", ec);
  }
  write_readme(root, document, files, nvml_bypassed, cuda_missing);
  std::fprintf(stderr, "gpumon: recorded %zu files into %s\n", files, root.c_str());
  return kExitOk;
}
