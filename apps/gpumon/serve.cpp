#include "serve.h"

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

#include "exit_codes.h"
#include "gpu_selection.h"
#include "http_server.h"
#include "json_report.h"
#include "metrics.h"
#include "zev/trace.h"

namespace {

const char* const kContentType = "text/plain; version=0.0.4; charset=utf-8";

// Connections not accepted yet; the kernel caps it at net.core.somaxconn.
constexpr int kListenBacklog = 1024;

// With --trace, trace lines go to stderr as they come (under systemd, to
// the journal); none is kept, so a server that runs for months does not grow.
void print_trace(zev::TraceLevel level, const char* line, void*) {
  if (level == zev::TRACE_INFO) {
    std::fprintf(stderr, "%s\n", line);
  } else {
    std::fprintf(stderr, "[%s] %s\n", zev::trace_level_name(level), line);
  }
}

void drop_trace(zev::TraceLevel, const char*, void*) {}

// The monitor refreshes and is read by one scrape at a time: the HTTP
// server answers requests one after the other in its one thread.
class Scraper {
 public:
  Scraper(zev::GpuMonitor* monitor, const std::vector<unsigned long>& slots,
          const std::vector<std::string>& addresses)
      : monitor_(monitor), slots_(slots), addresses_(addresses) {
    int major = 0, minor = 0, patch = 0;
    monitor->get_version(&major, &minor, &patch);
    facts_.version = ZEV_VERSION;
    facts_.plugin_version =
        std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
    facts_.schema = kJsonSchemaVersion;
  }

  std::string scrape() {
    const auto start = std::chrono::steady_clock::now();
    facts_.success = monitor_->update_dynamic_data();
    read_pcie_throughput();
    facts_.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return render_metrics(gpu_views(monitor_, slots_, addresses_, ""), facts_);
  }

 private:
  // NVML reads PCIe throughput on request only. A counter it cannot read
  // is left as it was, so both are marked unread first: never a stale or
  // made-up 0.
  void read_pcie_throughput() {
    for (unsigned long i = 0; i < monitor_->nvml_get_num_gpus(); ++i) {
      zev::GPU* gpu = monitor_->nvml_get_gpu(i);
      if (gpu == nullptr || !served(gpu)) continue;
      gpu->pcie_rx_throughput = gpu->pcie_tx_throughput = kPcieThroughputUnread;
      monitor_->nvml_get_pcie_throughput(i);
    }
  }

  bool served(const zev::GPU* gpu) {
    for (unsigned long slot : slots_)
      if (monitor_->get_gpu(slot) == gpu) return true;
    return false;
  }

  zev::GpuMonitor* monitor_;
  const std::vector<unsigned long> slots_;
  const std::vector<std::string> addresses_;  // of every GPU, read once
  ScrapeFacts facts_;
};

HttpAnswer route(Scraper* scraper, const std::string& method, const std::string& path) {
  HttpAnswer answer;
  if (path != "/metrics" && path != "/") {
    answer.status = 404;
  } else if (method != "GET" && method != "HEAD") {
    answer.status = 405;
    answer.allow = "GET, HEAD";
  } else if (path == "/") {
    answer.body = "gpumon: GPU metrics for Prometheus at /metrics\n";
  } else {
    try {
      answer.body = scraper->scrape();
      answer.content_type = kContentType;
    } catch (const std::exception&) {
      answer.status = 500;
      answer.body = "500 the metrics could not be rendered\n";
    }
  }
  return answer;
}

}  // namespace

int serve_metrics(zev::GpuMonitor* monitor, const Options& options) {
  const std::string& address = options.serve;
  std::string host;
  int port = 0;
  if (!parse_listen_address(address, &host, &port)) {
    std::fprintf(stderr, "gpumon: --serve needs HOST:PORT, not '%s'\n", address.c_str());
    return kExitUsage;
  }
  // SIGINT and SIGTERM are taken by sigtimedwait below, in this thread
  // alone: every thread started from here on inherits the mask.
  sigset_t stop_signals, old_mask;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, &old_mask);
  signal(SIGPIPE, SIG_IGN);  // a scraper that hangs up is no reason to stop
  zev::set_trace_sink(options.trace ? print_trace : drop_trace, nullptr);

  monitor->initialize();
  const std::vector<std::string> addresses = gpu_pci_addresses(monitor);
  std::vector<unsigned long> slots;
  std::string error;
  int code = kExitOk;
  if (!select_gpus(options.gpus, addresses, &slots, &error)) {
    std::fprintf(stderr, "gpumon: %s\n", error.c_str());
    code = kExitNotFound;
  }
  Scraper scraper(monitor, slots, addresses);
  HttpServer server([&scraper](const std::string& method,
                               const std::string& path) { return route(&scraper, method, path); },
                    HttpLimits());
  const int fd =
      code == kExitOk ? open_listen_socket(host, port, kListenBacklog, &port, &error) : -1;
  if (code == kExitOk && (fd < 0 || !server.start(fd, &error))) {
    std::fprintf(stderr, "gpumon: cannot listen on %s: %s\n", address.c_str(), error.c_str());
    code = kExitServe;
  }
  if (code == kExitOk) {
    const std::string shown = host.find(':') == std::string::npos ? host : "[" + host + "]";
    std::fprintf(stderr, "gpumon: serving http://%s:%d/metrics\n", shown.c_str(), port);
    // A stop signal ends the server within this wait; in between, requests
    // and idle connections that ran out of time are cut.
    const struct timespec tick = {0, 100 * 1000 * 1000};
    while (sigtimedwait(&stop_signals, nullptr, &tick) < 0) server.enforce_deadlines();
    server.stop();
  }
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
  return code;
}
