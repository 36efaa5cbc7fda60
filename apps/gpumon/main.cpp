// gpumon: a command-line host for the GPU monitor plug-in. It loads the
// plug-in as a host does, initialises the monitor and shows what it sees:
// a table, a JSON document or the fields a --query names, once or at every
// refresh. Standard output holds nothing else; trace lines go to stderr
// with --trace, and into the JSON documents.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "csv_query.h"
#include "exit_codes.h"
#include "gpu_selection.h"
#include "json_report.h"
#include "live_view.h"
#include "lookup.h"
#include "machine.h"
#include "nvsmi_names.h"
#include "options.h"
#include "overlay.h"
#include "plugin_loader.h"
#include "record.h"
#include "report.h"
#include "serve.h"
#include "zev/trace.h"

namespace {

volatile sig_atomic_t g_interrupted = 0;
int g_write_errno = 0;  // why standard output could not be written (0: it could)

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

// This program, to run again inside a machine or to record one.
std::string self_path() {
  const std::string path = running_program_path();
  return path.empty() ? std::string("gpumon") : path;
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
  std::vector<QueryColumn> query;      // --query columns
  TraceCollector* traces = nullptr;
};

// Writes to standard output; false, with the reason kept, when it cannot.
bool emit(const std::string& text) {
  if (g_write_errno != 0) return false;
  errno = 0;
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0)
    return true;
  g_write_errno = errno != 0 ? errno : EIO;
  return false;
}

// The exit code once everything is written: kExitWrite, with the reason on
// stderr, when standard output could not be written.
int output_checked(int code) {
  if (g_write_errno == 0) {
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) g_write_errno = errno != 0 ? errno : EIO;
  }
  if (g_write_errno == 0) return code;
  std::fprintf(stderr, "gpumon: cannot write to standard output: %s\n",
               std::strerror(g_write_errno));
  return kExitWrite;
}

// Shows one report; false when standard output cannot be written.
bool show(Report* report, long refresh) {
  const Options& options = *report->options;
  std::vector<const GpuField*> fields;
  for (const QueryColumn& column : report->query) fields.push_back(column.field);
  if (options.json || shows_pcie_throughput(fields)) read_pcie_throughput(report->monitor);
  const std::string now = utc_timestamp();
  const std::vector<GpuView> gpus =
      gpu_views(report->monitor, report->slots, report->addresses, now);
  if (!report->query.empty()) {
    std::string text;
    if (options.csv_header && refresh <= 1) text = csv_header(report->query);
    return emit(text + csv_rows(report->query, gpus, options.csv_units));
  }
  if (options.json) {
    // Each document carries the trace lines since the one before.
    TraceCollector* t = report->traces;
    const std::vector<TraceLine> fresh(t->lines.begin() + static_cast<long>(t->reported),
                                       t->lines.end());
    t->reported = t->lines.size();
    return emit(
        dump_json(render_json(report->monitor, gpus, fresh, now), options.watch_seconds == 0) +
        "\n");
  }
  std::string text;
  if (refresh > 0) {
    // The plain redrawn table (output that is no terminal, or --no-tui).
    if (isatty(STDOUT_FILENO)) text = "\033[H\033[2J";
    char line[96];
    std::snprintf(line, sizeof line, "gpumon: refresh %ld, every %g s (Ctrl-C to stop)\n\n",
                  refresh, options.watch_seconds);
    text += line;
  }
  return emit(text + render_table(report->monitor, gpus, options.wide));
}

}  // namespace

int main(int argc, char** argv) {
  // Whole reports stay in the buffer until written on purpose, so that the
  // reason of a failed write is the one errno holds then.
  static char output_buffer[1 << 20];
  std::setvbuf(stdout, output_buffer, _IOFBF, sizeof output_buffer);
  Options options;
  std::string error;
  if (!parse_options(argc, argv, &options, &error)) {
    std::fprintf(stderr, "gpumon: %s\n%s", error.c_str(), usage_hint());
    return kExitUsage;
  }
  if (options.help) {
    std::printf("%s", usage_text());
    return output_checked(kExitOk);
  }
  if (options.help_query) {
    std::printf("%s", query_help().c_str());
    return output_checked(kExitOk);
  }
  if (options.version) {
    std::printf("gpumon %s (JSON schema version %d)\n", ZEV_VERSION, kJsonSchemaVersion);
    return output_checked(kExitOk);
  }
  if (!options.lookup.empty()) return output_checked(run_lookup(options.lookup, options.json));
  if (!options.machine.empty()) return run_in_machine(options);
  if (!options.record.empty()) {
    return record_machine(options.record,
                          options.plugin.empty() ? default_plugin_path() : options.plugin,
                          self_path());
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
    return output_checked(code);
  };

  struct sigaction action {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);

  if (options.gl_info) return finish(show_gl_info(monitor, options));
  if (!options.serve.empty()) return finish(serve_metrics(monitor, options));

  monitor->initialize();

  Report report;
  report.monitor = monitor;
  report.options = &options;
  report.traces = &traces;
  report.addresses = gpu_pci_addresses(monitor);
  for (const std::string& name : options.query) {
    report.query.emplace_back();
    find_query_column(name, &report.query.back());  // checked by parse_options
  }
  if (!select_gpus(options.gpus, report.addresses, &report.slots, &error)) {
    std::fprintf(stderr, "gpumon: %s\n", error.c_str());
    return finish(kExitNotFound);
  }

  const bool table = !options.json && options.query.empty() && options.overlay.empty();
  if (table && options.watch_seconds > 0 && !options.no_tui) {
    std::string why;
    if (live_view_possible(&why)) {
      const int code =
          run_live_view(monitor, report.slots, report.addresses, options, &g_interrupted);
      if (code != kLiveViewUnavailable) return finish(code);
      const char* term = std::getenv("TERM");
      why = std::string("the terminal type '") + (term ? term : "") + "' is not known";
    }
    if (!why.empty()) std::fprintf(stderr, "gpumon: %s: the plain table instead\n", why.c_str());
  }

  // Every report, the single one too, shows the values of a refresh.
  UsageHistory history;
  for (long refresh = 1; !g_interrupted; ++refresh) {
    monitor->update_dynamic_data();
    record_usages(monitor, &history);
    if (!show(&report, options.watch_seconds > 0 ? refresh : 0)) break;
    if (options.watch_seconds <= 0 || (options.count != 0 && refresh >= options.count)) break;
    sleep_interruptible(options.watch_seconds);
  }

  int code = kExitOk;
  if (!options.overlay.empty() && g_write_errno == 0)
    code = render_overlay(monitor, options, history);
  return finish(code);
}
