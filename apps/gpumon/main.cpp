// gpumon: a command-line host for the GPU monitor plug-in. It loads the
// plug-in as a host does, initialises the monitor and shows what it sees:
// a table, a JSON document or the fields a --query names, once or at every
// refresh. Standard output holds nothing else; trace lines go to stderr
// with --trace, and into the JSON documents.
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "csv_query.h"
#include "gpu_selection.h"
#include "json_report.h"
#include "lookup.h"
#include "machine.h"
#include "options.h"
#include "overlay.h"
#include "plugin_loader.h"
#include "record.h"
#include "report.h"
#include "serve.h"
#include "zev/trace.h"

namespace {

volatile sig_atomic_t g_interrupted = 0;

void on_signal(int) { g_interrupted = 1; }

struct TraceCollector {
  std::vector<TraceLine> lines;
  size_t reported = 0;  // lines already put into a JSON document
  bool echo = false;    // print each line on stderr as it comes
};

void collect_trace(zev::TraceLevel level, const char* line, void* user) {
  auto* collector = static_cast<TraceCollector*>(user);
  collector->lines.push_back({level, line});
  if (collector->echo) {
    if (level == zev::TRACE_INFO) {
      std::fprintf(stderr, "%s\n", line);
    } else {
      std::fprintf(stderr, "[%s] %s\n", zev::trace_level_name(level), line);
    }
  }
}

// Sleeps for the given time in short steps, so that Ctrl-C ends it early.
void sleep_interruptible(double seconds) {
  const long step_ns = 50 * 1000 * 1000;
  double left = seconds;
  while (left > 0 && !g_interrupted) {
    const double slice = left < 0.05 ? left : 0.05;
    struct timespec ts = {0, static_cast<long>(slice * 1e9)};
    if (ts.tv_nsec > step_ns) ts.tv_nsec = step_ns;
    nanosleep(&ts, nullptr);
    left -= slice;
  }
}

std::string self_path() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string("gpumon");
}

// Runs this same program inside the fake machine, without --machine.
int run_in_machine(const Options& options) {
  std::vector<std::string> args = {self_path()};
  args.insert(args.end(), options.args_without_machine.begin(), options.args_without_machine.end());
  if (options.plugin.empty()) {
    args.push_back("--plugin");
    args.push_back(default_plugin_path());
  }
  machine::RunResult result = machine::run(options.machine, args, false);
  if (!result.error.empty()) {
    std::fprintf(stderr, "gpumon: cannot run in machine %s: %s\n", options.machine.c_str(),
                 result.error.c_str());
    return kExitMachine;
  }
  return result.exit_code;
}

// What is shown at each refresh, and of which GPUs.
struct Report {
  zev::GpuMonitor* monitor = nullptr;
  const Options* options = nullptr;
  std::vector<unsigned long> slots;    // the GPUs --gpu picked
  std::vector<std::string> addresses;  // PCI address of every GPU, by slot
  std::vector<const GpuField*> query;  // --query fields
  TraceCollector* traces = nullptr;
};

void show(Report* report, long refresh) {
  const Options& options = *report->options;
  if (options.json || shows_pcie_throughput(report->query)) read_pcie_throughput(report->monitor);
  const std::string now = utc_timestamp();
  const std::vector<GpuView> gpus =
      gpu_views(report->monitor, report->slots, report->addresses, now);
  if (!report->query.empty()) {
    if (options.csv_header && refresh <= 1) std::printf("%s", csv_header(report->query).c_str());
    std::printf("%s", csv_rows(report->query, gpus, options.csv_units).c_str());
  } else if (options.json) {
    // Each document carries the trace lines since the one before.
    TraceCollector* t = report->traces;
    const std::vector<TraceLine> fresh(t->lines.begin() + static_cast<long>(t->reported),
                                       t->lines.end());
    t->reported = t->lines.size();
    std::printf("%s\n", dump_json(render_json(report->monitor, gpus, fresh, now),
                                  options.watch_seconds == 0)
                            .c_str());
  } else {
    if (refresh > 0) {
      if (isatty(STDOUT_FILENO)) std::printf("\033[H\033[2J");
      std::printf("gpumon: refresh %ld, every %g s (Ctrl-C to stop)\n\n", refresh,
                  options.watch_seconds);
    }
    std::printf("%s", render_table(report->monitor, gpus).c_str());
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!parse_options(argc, argv, &options, &error)) {
    std::fprintf(stderr, "gpumon: %s\n%s", error.c_str(), usage_hint());
    return kExitUsage;
  }
  if (options.help) {
    std::printf("%s", usage_text());
    return kExitOk;
  }
  if (options.help_query) {
    std::printf("Fields of --query FIELD,... (an unknown value prints as [N/A]):\n%s",
                query_fields_help().c_str());
    return kExitOk;
  }
  if (options.version) {
    std::printf("gpumon %s (JSON schema version %d)\n", ZEV_VERSION, kJsonSchemaVersion);
    return kExitOk;
  }
  if (!options.lookup.empty()) return run_lookup(options.lookup, options.json);
  if (!options.machine.empty()) return run_in_machine(options);
  if (!options.record.empty()) {
    return record_machine(options.record,
                          options.plugin.empty() ? default_plugin_path() : options.plugin);
  }

  TraceCollector traces;
  traces.echo = options.trace;
  zev::set_trace_sink(collect_trace, &traces);

  const std::string path = options.plugin.empty() ? default_plugin_path() : options.plugin;
  PluginLibrary library;
  if (!library.open(path, &error)) {
    std::fprintf(stderr, "gpumon: %s\n", error.c_str());
    return kExitUsage;
  }
  zev::GpuMonitor* monitor = library.create();
  if (monitor == nullptr) {
    std::fprintf(stderr, "gpumon: %s created no monitor\n", path.c_str());
    return kExitUsage;
  }
  auto finish = [&](int code) {
    monitor->terminate();
    library.destroy(monitor);
    zev::set_trace_sink(nullptr, nullptr);
    return code;
  };

  struct sigaction action {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  if (options.gl_info) return finish(show_gl_info(monitor, options));
  if (!options.serve.empty()) return finish(serve_metrics(monitor, options));

  monitor->initialize();

  Report report;
  report.monitor = monitor;
  report.options = &options;
  report.traces = &traces;
  report.addresses = gpu_pci_addresses(monitor);
  for (const std::string& name : options.query) report.query.push_back(find_query_field(name));
  if (!select_gpus(options.gpus, report.addresses, &report.slots, &error)) {
    std::fprintf(stderr, "gpumon: %s\n", error.c_str());
    return finish(kExitNotFound);
  }

  UsageHistory history;
  if (options.watch_seconds <= 0) {
    record_usages(monitor, &history);
    show(&report, 0);
  } else {
    for (long refresh = 1; !g_interrupted; ++refresh) {
      monitor->update_dynamic_data();
      record_usages(monitor, &history);
      show(&report, refresh);
      if (options.count != 0 && refresh >= options.count) break;
      sleep_interruptible(options.watch_seconds);
    }
  }

  int code = kExitOk;
  if (!options.overlay.empty()) code = render_overlay(monitor, options, history);
  return finish(code);
}
