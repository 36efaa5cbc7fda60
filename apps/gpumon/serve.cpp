#include "serve.h"

#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "gpu_selection.h"
#include "metrics.h"
#include "zev/trace.h"

namespace {

const char* const kContentType = "text/plain; version=0.0.4; charset=utf-8";

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

// The monitor refreshes and is read by one scrape at a time: its refresh is
// not made for concurrent callers, and two scrapes at once would each see a
// record half rewritten by the other.
class Scraper {
 public:
  Scraper(zev::GpuMonitor* monitor, const std::vector<unsigned long>& slots,
          const std::vector<std::string>& addresses)
      : monitor_(monitor), slots_(slots), addresses_(addresses) {}

  std::string scrape() {
    std::lock_guard<std::mutex> lock(mutex_);
    monitor_->update_dynamic_data();
    return render_metrics(gpu_views(monitor_, slots_, addresses_, ""));
  }

 private:
  std::mutex mutex_;
  zev::GpuMonitor* monitor_;
  const std::vector<unsigned long> slots_;
  const std::vector<std::string> addresses_;  // of every GPU, read once
};

const char* reason(int status) {
  switch (status) {
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found: the metrics are at /metrics";
    case 405:
      return "Method Not Allowed";
    case 413:
      return "Payload Too Large";
    case 414:
      return "URI Too Long";
    case 431:
      return "Request Header Fields Too Large";
    default:
      return "Error";
  }
}

void set_routes(httplib::Server* server, Scraper* scraper) {
  server->Get("/metrics", [scraper](const httplib::Request&, httplib::Response& res) {
    res.set_content(scraper->scrape(), kContentType);
  });
  server->Get("/", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("gpumon: GPU metrics for Prometheus at /metrics\n", "text/plain");
  });
  // Other methods on the two paths: 405 with the methods that are allowed.
  const httplib::Server::Handler not_allowed = [](const httplib::Request&, httplib::Response& res) {
    res.status = 405;
    res.set_header("Allow", "GET, HEAD");
  };
  // A request without a body is answered before the library asks for one
  // (it wants a length on every POST); one with a body is read first.
  server->set_pre_routing_handler(
      [not_allowed](const httplib::Request& req, httplib::Response& res) {
        const bool known = req.path == "/metrics" || req.path == "/";
        const bool body = req.has_header("Content-Length") || req.has_header("Transfer-Encoding");
        if (!known || req.method == "GET" || req.method == "HEAD" || body)
          return httplib::Server::HandlerResponse::Unhandled;
        not_allowed(req, res);
        return httplib::Server::HandlerResponse::Handled;
      });
  for (const char* path : {"/metrics", "/"}) {
    server->Post(path, not_allowed);
    server->Put(path, not_allowed);
    server->Patch(path, not_allowed);
    server->Delete(path, not_allowed);
    server->Options(path, not_allowed);
  }
  // Every error gets a one-line body saying what it is.
  server->set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (res.body.empty()) {
      res.set_content(std::to_string(res.status) + " " + reason(res.status) + "\n", "text/plain");
    }
  });
  server->set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        res.status = 500;
        res.set_content("500 the metrics could not be rendered\n", "text/plain");
      });
  // Nothing here takes a body; a scrape that stalls is dropped.
  server->set_payload_max_length(64 * 1024);
  server->set_read_timeout(10);
  server->set_write_timeout(10);
}

}  // namespace

bool parse_listen_address(const std::string& text, std::string* host, int* port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string name = text.substr(0, colon);
  if (name.front() == '[') {
    if (name.size() < 3 || name.back() != ']') return false;
    name = name.substr(1, name.size() - 2);
  } else if (name.find(':') != std::string::npos) {
    return false;  // an IPv6 address needs its brackets
  }
  const std::string digits = text.substr(colon + 1);
  if (digits.empty() || digits.size() > 5 ||
      digits.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const int number = std::atoi(digits.c_str());
  if (number > 65535) return false;
  *host = name;
  *port = number;
  return true;
}

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
  if (!select_gpus(options.gpus, addresses, &slots, &error)) {
    std::fprintf(stderr, "gpumon: %s\n", error.c_str());
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    return kExitNotFound;
  }
  Scraper scraper(monitor, slots, addresses);
  httplib::Server server;
  set_routes(&server, &scraper);

  errno = 0;
  if (port == 0) {
    port = server.bind_to_any_port(host);
  } else if (!server.bind_to_port(host, port)) {
    port = -1;
  }
  const bool bound = port > 0;
  const std::string shown = host.find(':') == std::string::npos ? host : "[" + host + "]";
  int code = kExitOk;
  if (!bound) {
    std::fprintf(stderr, "gpumon: cannot listen on %s%s%s\n", address.c_str(), errno ? ": " : "",
                 errno ? std::strerror(errno) : "");
    code = kExitServe;
  } else {
    std::fprintf(stderr, "gpumon: serving http://%s:%d/metrics\n", shown.c_str(), port);
    std::atomic<bool> done{false};
    std::thread listener([&] {
      server.listen_after_bind();
      done = true;
    });
    const struct timespec poll = {0, 200 * 1000 * 1000};
    while (!done && sigtimedwait(&stop_signals, nullptr, &poll) < 0) {
    }
    server.stop();
    listener.join();
  }
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
  return code;
}
