// gpumon: a command-line host for the GPU monitor plug-in. It loads the
// plug-in as a host does, initialises the monitor and shows what it sees.
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "lookup.h"
#include "machine.h"
#include "options.h"
#include "overlay.h"
#include "plugin_loader.h"
#include "report.h"
#include "zev/trace.h"

namespace {

volatile sig_atomic_t g_interrupted = 0;

void on_signal(int) { g_interrupted = 1; }

struct TraceCollector {
  std::vector<TraceLine> lines;
  bool echo = false;  // print each line as it comes
};

void collect_trace(zev::TraceLevel level, const char* line, void* user) {
  auto* collector = static_cast<TraceCollector*>(user);
  collector->lines.push_back({level, line});
  if (collector->echo) {
    if (level == zev::TRACE_INFO) {
      std::printf("%s\n", line);
    } else {
      std::printf("[%s] %s\n", zev::trace_level_name(level), line);
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
int run_in_machine(const Options& options, int argc, char** argv) {
  std::vector<std::string> args = {self_path()};
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--machine") {
      ++i;
      continue;
    }
    args.push_back(argv[i]);
  }
  if (options.plugin.empty()) {
    args.push_back("--plugin");
    args.push_back(default_plugin_path());
  }
  machine::RunResult result = machine::run(options.machine, args, false);
  if (!result.error.empty()) {
    std::fprintf(stderr, "gpumon: cannot run in machine %s: %s\n", options.machine.c_str(),
                 result.error.c_str());
    return 3;
  }
  return result.exit_code;
}

void show(zev::GpuMonitor* monitor, const Options& options, TraceCollector* traces) {
  if (options.json) {
    std::printf("%s\n", dump_json(render_json(monitor, traces->lines), options.watch_seconds == 0)
                            .c_str());
  } else {
    std::printf("%s", render_table(monitor).c_str());
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!parse_options(argc, argv, &options, &error)) {
    std::fprintf(stderr, "gpumon: %s\n%s", error.c_str(), usage_text());
    return 2;
  }
  if (options.help) {
    std::printf("%s", usage_text());
    return 0;
  }
  if (!options.lookup.empty()) return run_lookup(options.lookup, options.json);
  if (!options.machine.empty()) return run_in_machine(options, argc, argv);

  TraceCollector traces;
  traces.echo = !options.json;
  zev::set_trace_sink(collect_trace, &traces);

  const std::string path = options.plugin.empty() ? default_plugin_path() : options.plugin;
  PluginLibrary library;
  if (!library.open(path, &error)) {
    std::fprintf(stderr, "gpumon: %s\n", error.c_str());
    return 2;
  }
  zev::GpuMonitor* monitor = library.create();
  if (monitor == nullptr) {
    std::fprintf(stderr, "gpumon: %s created no monitor\n", path.c_str());
    return 2;
  }

  struct sigaction action {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  if (options.gl_info) {
    const int code = show_gl_info(monitor, options);
    monitor->terminate();
    library.destroy(monitor);
    zev::set_trace_sink(nullptr, nullptr);
    return code;
  }

  monitor->initialize();
  if (!options.json) std::printf("\n");

  UsageHistory history;
  if (options.watch_seconds <= 0) {
    record_usages(monitor, &history);
    show(monitor, options, &traces);
  } else {
    const bool tty = isatty(STDOUT_FILENO) && !options.json;
    for (long refresh = 1; !g_interrupted; ++refresh) {
      monitor->update_dynamic_data();
      record_usages(monitor, &history);
      if (tty) std::printf("\033[H\033[2J");
      if (!options.json) {
        std::printf("gpumon: refresh %ld, every %g s (Ctrl-C to stop)\n\n", refresh,
                    options.watch_seconds);
      }
      show(monitor, options, &traces);
      if (options.count != 0 && refresh >= options.count) break;
      sleep_interruptible(options.watch_seconds);
    }
  }

  int code = 0;
  if (!options.overlay.empty()) code = render_overlay(monitor, options, history);

  monitor->terminate();
  library.destroy(monitor);
  zev::set_trace_sink(nullptr, nullptr);
  return code;
}
