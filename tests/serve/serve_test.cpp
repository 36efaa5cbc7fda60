// gpumon --serve end to end: Prometheus metrics of fake machines over HTTP,
// bad requests, many scrapes at once, and a real Prometheus server scraping.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "metrics.h"
#include "test_support.h"

namespace {

using namespace testing_support;

pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd) {
  // The NVIDIA machines preload a fake driver, ahead of AddressSanitizer's
  // runtime in a sanitizer build.
  const char* asan = std::getenv("ASAN_OPTIONS");
  const std::string options = asan != nullptr && *asan != '\0' ? std::string(asan) + ":" : "";
  if (options.find("verify_asan_link_order=0") == std::string::npos)
    setenv("ASAN_OPTIONS", (options + "verify_asan_link_order=0").c_str(), 1);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

int stop(pid_t pid) {
  int status = 0;
  kill(pid, SIGTERM);
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// gpumon --serve 127.0.0.1:0 on a machine; port() is the one it reports.
class Served {
 public:
  explicit Served(const std::string& machine, std::vector<std::string> args = {}) {
    int err[2];
    if (pipe(err) != 0) return;
    args.insert(args.begin(), {gpumon_path(), "--serve", "127.0.0.1:0", "--machine", machine});
    const int null = open("/dev/null", O_WRONLY);
    pid_ = spawn(args, null, err[1]);
    close(null);
    close(err[1]);
    err_ = err[0];
    const std::string mark = "gpumon: serving http://127.0.0.1:";
    std::string& seen = stderr_;
    char buffer[256];
    struct pollfd wait_for = {err_, POLLIN, 0};
    while (seen.find("/metrics\n") == std::string::npos && poll(&wait_for, 1, 30000) == 1) {
      const ssize_t n = read(err_, buffer, sizeof buffer);
      if (n <= 0) break;
      seen.append(buffer, static_cast<size_t>(n));
    }
    if (seen.find(mark) != std::string::npos)
      port_ = std::atoi(seen.c_str() + seen.find(mark) + mark.size());
  }
  ~Served() {
    if (pid_ > 0) stop(pid_);
    if (err_ >= 0) close(err_);
  }
  int port() const { return port_; }
  const std::string& stderr_text() const { return stderr_; }
  // SIGTERM; the exit code.
  int finish() { return stop(std::exchange(pid_, -1)); }

 private:
  pid_t pid_ = -1;
  int err_ = -1;
  int port_ = 0;
  std::string stderr_;  // up to the "serving" line
};

std::string built_machine(const std::string& name) {
  return std::string(ZEV_BIN_DIR) + "/../machines/" + name;
}

// Each machine's metrics as read by its files: what a line holds, and what
// no line may hold (unknown values are left out, not NaN).
TEST(Serve, MetricsOfFakeMachines) {
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::vector<std::string>,
                               std::vector<std::string>>>
      cases = {
          {machine_dir("amd-rdna3-rx7900xtx"),
           {},
           {"gpumon_gpus 1\n",
            "gpumon_gpu_clock_hertz{gpu=\"0\",name=\"Sapphire PULSE RX 7900 XTX\","
            "pci=\"0000:03:00.0\",clock=\"memory\"} 1249000000\n",
            "# TYPE gpumon_gpu_fan_speed_rpm gauge\n",
            "gpumon_gpu_temperature_celsius{gpu=\"0\",name=\"Sapphire PULSE RX 7900 XTX\","
            "pci=\"0000:03:00.0\",sensor=\"memory\"} 58\n"},
           {"energy", "NaN"}},
          {built_machine("nvidia-h100-sxm"),
           {},
           {"# TYPE gpumon_gpu_energy_joules_total counter\n",
            "gpumon_gpu_energy_joules_total{gpu=\"0\",name=\"NVIDIA H100 80GB HBM3\","
            "pci=\"0000:18:00.0\"} 4578213.376\n",
            "gpumon_gpu_power_limit_watts{gpu=\"0\",name=\"NVIDIA H100 80GB HBM3\","
            "pci=\"0000:18:00.0\"} 700\n"},
           {"fan", "NaN"}},
          {machine_dir("amd-multi-card-gaps"),
           {"--gpu", "1"},
           {"gpumon_gpus 1\n", "{gpu=\"1\",name=\"AMD Radeon RX 6400\",pci=\"0000:45:00.0\""},
           {"gpu=\"0\""}},
          {machine_dir("desktop-no-gpu"), {}, {"gpumon_gpus 0\n"}, {"gpumon_gpu_"}},
      };
  for (const auto& [machine, args, present, absent] : cases) {
    Served served(machine, args);
    ASSERT_NE(served.port(), 0) << machine << "\n" << served.stderr_text();
    httplib::Client client("127.0.0.1", served.port());
    const httplib::Result r = client.Get("/metrics");
    ASSERT_TRUE(r) << machine;
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(r->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
    for (const std::string& part : present)
      EXPECT_NE(r->body.find(part), std::string::npos) << machine << ": " << part << "\n"
                                                       << r->body;
    for (const std::string& part : absent)
      EXPECT_EQ(r->body.find(part), std::string::npos) << machine << ": " << part << "\n"
                                                       << r->body;
    EXPECT_EQ(served.finish(), 0) << machine;
  }
}

TEST(Serve, BadRequestsGetTheirStatusAndNeverStopIt) {
  Served served(machine_dir("amd-rdna3-rx7900xtx"));
  ASSERT_NE(served.port(), 0);
  httplib::Client client("127.0.0.1", served.port());
  const std::string huge(20000, 'x');
  const std::vector<std::tuple<std::string, std::string, httplib::Headers, std::string, int>>
      cases = {
          {"GET", "/nothing-here", {}, "", 404},
          {"POST", "/metrics", {}, "", 405},
          {"DELETE", "/metrics", {}, "", 405},
          {"PUT", "/", {}, "x=1", 405},
          {"POST", "/metrics", {}, std::string(100000, 'x'), 413},
          {"GET", "/metrics?" + huge, {}, "", 414},
          {"GET", "/metrics", {{"X-Huge", huge}}, "", 400},  // the library's answer; 431 elsewhere
          {"GET", "/", {}, "", 200},
      };
  for (const auto& [method, path, headers, body, status] : cases) {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.headers = headers;
    request.body = body;
    const httplib::Result r = client.send(request);
    ASSERT_TRUE(r) << method << " " << path.substr(0, 20);
    EXPECT_EQ(r->status, status) << method << " " << path.substr(0, 20);
  }
  // Many scrapes at once: every one answered whole.
  std::vector<std::thread> scrapers;
  std::atomic<int> whole{0};
  for (int t = 0; t < 16; ++t) {
    scrapers.emplace_back([&] {
      httplib::Client c("127.0.0.1", served.port());
      for (int i = 0; i < 4; ++i) {
        const httplib::Result r = c.Get("/metrics");
        if (r && r->status == 200 && r->body.find("gpumon_gpu_fan_speed_rpm{") != std::string::npos)
          ++whole;
      }
    });
  }
  for (std::thread& t : scrapers) t.join();
  EXPECT_EQ(whole, 64);
  EXPECT_EQ(served.finish(), 0);
}

TEST(Serve, CommandLineErrors) {
  const std::vector<std::pair<std::vector<std::string>, int>> cases = {
      {{"--serve", "127.0.0.1"}, 2},
      {{"--serve", "127.0.0.1:65536"}, 2},
      {{"--serve", "::1:9410"}, 2},  // IPv6 needs brackets
      {{"--serve", "127.0.0.1:0", "--watch", "1"}, 2},
      {{"--serve", "192.0.2.1:9410", "--machine", machine_dir("desktop-no-gpu")}, 5},
      {{"--serve", "127.0.0.1:0", "--gpu", "1", "--machine", machine_dir("desktop-no-gpu")}, 1},
  };
  for (const auto& [args, code] : cases) {
    const machine::RunResult r = run_gpumon(args);
    EXPECT_EQ(r.exit_code, code) << args[1] << " " << args.back() << "\n" << r.err;
    EXPECT_EQ(r.err.rfind("gpumon: ", 0), 0u) << r.err;
  }
}

TEST(Serve, LabelValuesAreEscaped) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a \"quoted\" name", "a \\\"quoted\\\" name"},
      {"back\\slash\nnew line", "back\\\\slash\\nnew line"},
      {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
      {"bad \xFF \xC3 \xC0\xAF \xED\xA0\x80 end",
       "bad \xEF\xBF\xBD \xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD "
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD end"},
  };
  for (const auto& [raw, escaped] : cases) EXPECT_EQ(escape_label_value(raw), escaped) << raw;
}

int free_port() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  close(s);
  return ntohs(address.sin_port);
}

// A real Prometheus server scrapes gpumon every second; its query API then
// answers the H100's energy counter as the fake driver reports it.
TEST(Serve, PrometheusScrapesIt) {
  const char* prometheus = "/usr/bin/prometheus";
  if (access(prometheus, X_OK) != 0)
    GTEST_SKIP() << "no " << prometheus << ": install Debian's prometheus package to run this";
  Served served(built_machine("nvidia-h100-sxm"));
  ASSERT_NE(served.port(), 0) << served.stderr_text();
  TempMachine dir(Files{{"prometheus.yml",
                         "global:\n  scrape_interval: 1s\n"
                         "scrape_configs:\n  - job_name: gpumon\n"
                         "    static_configs:\n      - targets: ['127.0.0.1:" +
                             std::to_string(served.port()) + "']\n"}});
  const int port = free_port();
  const int log = open((dir.dir() + "/prometheus.log").c_str(), O_WRONLY | O_CREAT, 0644);
  const pid_t server = spawn({prometheus, "--config.file=" + dir.dir() + "/prometheus.yml",
                              "--storage.tsdb.path=" + dir.dir() + "/data",
                              "--web.listen-address=127.0.0.1:" + std::to_string(port)},
                             log, log);
  close(log);
  httplib::Client client("127.0.0.1", port);
  nlohmann::json sample;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (sample.is_null() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    const httplib::Result r = client.Get("/api/v1/query?query=gpumon_gpu_energy_joules_total");
    if (!r || r->status != 200) continue;
    const nlohmann::json answer = nlohmann::json::parse(r->body, nullptr, false);
    if (!answer.is_discarded() && !answer["data"]["result"].empty())
      sample = answer["data"]["result"][0];
  }
  EXPECT_EQ(stop(server), 0);
  ASSERT_FALSE(sample.is_null()) << read_file(dir.dir() + "/prometheus.log");
  EXPECT_EQ(sample["metric"]["job"], "gpumon");
  EXPECT_EQ(sample["metric"]["name"], "NVIDIA H100 80GB HBM3");
  EXPECT_EQ(sample["value"][1], "4578213.376");
  EXPECT_EQ(served.finish(), 0);
}

}  // namespace
