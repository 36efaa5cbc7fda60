// gpumon --serve against Debian's prometheus-node-exporter (its drm and
// hwmon collectors alone), both inside the same recorded machine: scrapes a
// second and latency (p50, p99) with 1, 8 and 64 kept-alive clients, with
// fresh connections, and with 500 idle plus 8 trickling connections open;
// resident memory after each phase and after a header flood; how long
// SIGTERM takes with the idle connections still open. Prints a Markdown
// table. Run by hand:
//   build/bin/serve_bench [MACHINE_DIR]
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>
#include <poll.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "serve_client.h"
#include "test_support.h"

namespace {

using namespace serve_client;
using testing_support::spawn;
using testing_support::stop;
using Clock = std::chrono::steady_clock;

struct Exporter {
  std::string name;
  pid_t launcher = -1;  // gpumon --machine or machine_run
  int port = 0;
  pid_t process() const {  // the server itself, the launcher's child
    FILE* f = std::fopen(
        ("/proc/" + std::to_string(launcher) + "/task/" + std::to_string(launcher) + "/children")
            .c_str(),
        "r");
    int child = -1;
    if (f != nullptr && std::fscanf(f, "%d", &child) != 1) child = -1;
    if (f != nullptr) std::fclose(f);
    return child;
  }
};

Exporter start_gpumon(const std::string& machine) {
  Exporter e{"gpumon --serve"};
  e.port = free_port();
  const int null = open("/dev/null", O_WRONLY);
  e.launcher = spawn({testing_support::gpumon_path(), "--serve",
                      "127.0.0.1:" + std::to_string(e.port), "--machine", machine},
                     null, null);
  close(null);
  return e;
}

Exporter start_node_exporter(const std::string& machine) {
  Exporter e{"node_exporter (drm, hwmon)"};
  e.port = free_port();
  const int null = open("/dev/null", O_WRONLY);
  e.launcher =
      spawn({std::string(ZEV_BIN_DIR) + "/machine_run", machine,
             "/usr/bin/prometheus-node-exporter", "--collector.disable-defaults", "--collector.drm",
             "--collector.hwmon", "--web.listen-address=127.0.0.1:" + std::to_string(e.port)},
            null, null);
  close(null);
  return e;
}

bool wait_ready(const Exporter& e) {
  for (int i = 0; i < 200; ++i) {
    if (round_trip(e.port, get_request("/metrics"), 1000).status == 200) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

struct Figures {
  double per_second = 0, p50_ms = 0, p99_ms = 0;
  long failed = 0;
};

// `clients` threads, each scraping `each` times, on one kept-alive
// connection (or a fresh one per scrape).
Figures measure(const Exporter& e, int clients, int each, bool keep_alive) {
  std::vector<std::vector<double>> times(static_cast<size_t>(clients));
  std::atomic<long> failed{0};
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      int fd = -1;
      std::string pending;
      for (int i = 0; i < each; ++i) {
        const auto t0 = Clock::now();
        if (fd < 0) fd = connect_loopback(e.port);
        Reply reply;
        const bool ok = send_text(fd, get_request("/metrics")) &&
                        read_reply(fd, &reply, 5000, &pending) && reply.status == 200;
        times[static_cast<size_t>(c)].push_back(
            std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        if (!ok) ++failed;
        if (!ok || !keep_alive) {
          close(fd);
          fd = -1;
          pending.clear();
        }
      }
      if (fd >= 0) close(fd);
    });
  }
  for (std::thread& t : threads) t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (const auto& t : times) all.insert(all.end(), t.begin(), t.end());
  std::sort(all.begin(), all.end());
  Figures f;
  f.per_second = static_cast<double>(all.size()) / seconds;
  f.p50_ms = all[all.size() / 2];
  f.p99_ms = all[all.size() * 99 / 100];
  f.failed = failed;
  return f;
}

// 500 idle connections (50 from each of ten loopback addresses) and 8 that
// send a header line every 200 ms.
struct Crowd {
  std::vector<int> idle, trickling;
  std::atomic<bool> done{false};
  std::thread sender;
  explicit Crowd(int port) {
    for (int i = 0; i < 500; ++i) {
      const int fd = connect_loopback(port, "127.0.0." + std::to_string(10 + i / 50));
      if (fd >= 0) idle.push_back(fd);
    }
    for (int i = 0; i < 8; ++i) {
      const int fd = connect_loopback(port, "127.0.0.30");
      if (fd >= 0 && send_text(fd, "GET /metrics HTTP/1.1\r\nHost: x\r\n")) trickling.push_back(fd);
    }
    sender = std::thread([this] {
      while (!done) {
        for (int fd : trickling) send(fd, "X: y\r\n", 6, MSG_NOSIGNAL | MSG_DONTWAIT);
        for (int i = 0; i < 20 && !done; ++i)
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    });
  }
  ~Crowd() {
    done = true;
    sender.join();
    for (int fd : idle) close(fd);
    for (int fd : trickling) close(fd);
  }
};

// 4 connections each sending 4 MB of tiny header lines.
void header_flood(int port) {
  std::string flood = "GET /metrics HTTP/1.1\r\n";
  while (flood.size() < (4u << 20)) flood += "X-A: b\r\n";
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      const int fd = connect_loopback(port, "127.0.0." + std::to_string(40 + i));
      send_text(fd, flood);
      close(fd);
    });
  }
  for (std::thread& t : threads) t.join();
}

double mib(pid_t pid) { return static_cast<double>(resident_kb(pid)) / 1024.0; }

void row(const Exporter& e, const char* phase, const Figures& f) {
  std::printf("| %s | %s | %.0f | %.3f | %.3f | %.1f |%s\n", e.name.c_str(), phase, f.per_second,
              f.p50_ms, f.p99_ms, mib(e.process()),
              f.failed ? (" " + std::to_string(f.failed) + " failed").c_str() : "");
  std::fflush(stdout);
}

void run(Exporter& e) {
  row(e, "1 client, kept alive", measure(e, 1, 2000, true));
  row(e, "1 client, new connection each", measure(e, 1, 1000, false));
  row(e, "8 clients, kept alive", measure(e, 8, 250, true));
  row(e, "64 clients, kept alive", measure(e, 64, 30, true));
  {
    Crowd crowd(e.port);
    row(e, "1 client, new connection each; 500 idle + 8 trickling open", measure(e, 1, 500, false));
    header_flood(e.port);
    row(e, "after 4 header floods of 4 MB; crowd still open", measure(e, 1, 200, true));
    const auto t0 = Clock::now();
    stop(e.launcher);
    std::printf("| %s | SIGTERM with the crowd open: exited in %.3f s | | | | |\n", e.name.c_str(),
                std::chrono::duration<double>(Clock::now() - t0).count());
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string machine =
      argc > 1 ? argv[1] : testing_support::machine_dir("amd-rdna3-rx7900xtx");
  std::printf("Machine %s\n\n", machine.c_str());
  std::printf(
      "| exporter | phase | scrapes/s | p50 ms | p99 ms | RSS MiB |\n|---|---|---|---|---|---|\n");
  for (Exporter e : {start_gpumon(machine), start_node_exporter(machine)}) {
    if (!wait_ready(e)) {
      std::printf("| %s | did not answer | | | | |\n", e.name.c_str());
      stop(e.launcher);
      continue;
    }
    run(e);
  }
  return 0;
}
