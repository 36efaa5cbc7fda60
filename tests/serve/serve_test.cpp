// gpumon --serve end to end: Prometheus metrics of fake machines over HTTP,
// checked by promtool, requests good and bad, many scrapes at once, the
// machine's child ending with its parent, and a real Prometheus server
// scraping.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "metric_text.h"
#include "metrics.h"
#include "serve_client.h"
#include "test_support.h"

namespace {

using namespace testing_support;
using namespace serve_client;

std::string built_machine(const std::string& name) {
  return std::string(ZEV_BIN_DIR) + "/../machines/" + name;
}

std::string scrape(int port) { return round_trip(port, get_request("/metrics")).body; }

// Each machine's metrics as read by its files: what a line holds, and what
// no line may hold (unknown values are left out, not NaN; no label is empty).
struct MetricsCase {
  const char* name;
  std::string machine;
  std::vector<std::string> args, present, absent;
};

const MetricsCase kMetricsCases[] = {
    {"amd_rdna3_rx7900xtx",
     machine_dir("amd-rdna3-rx7900xtx"),
     {},
     {"gpumon_gpus 1\n", "gpumon_scrape_success 1\n",
      "gpumon_build_info{version=\"0.1.0\",plugin_version=\"0.1.0\",schema=\"1\"} 1\n",
      "gpumon_gpu_clock_hertz{gpu=\"0\",name=\"AMD Radeon RX 7900 XTX\","
      "pci=\"0000:03:00.0\",clock=\"memory\"} 1249000000\n",
      "gpumon_gpu_info{gpu=\"0\",name=\"AMD Radeon RX 7900 XTX\",pci=\"0000:03:00.0\","
      "board_name=\"Sapphire PULSE RX 7900 XTX\",codename=\"Navi 31\",driver=\"amdgpu\","
      "vbios_version=\"113-D7020100-102\",vendor_id=\"0x1002\",device_id=\"0x744C\","
      "subsystem_vendor_id=\"0x1DA2\",subsystem_device_id=\"0x471E\",revision_id=\"0xC8\"} "
      "1\n",
      "# TYPE gpumon_gpu_fan_speed_rpm gauge\n",
      "gpumon_gpu_temperature_celsius{gpu=\"0\",name=\"AMD Radeon RX 7900 XTX\","
      "pci=\"0000:03:00.0\",sensor=\"memory\"} 58\n"},
     {"energy", "throttle", "pcie", "NaN", "=\"\""}},
    {"nvidia_h100_sxm",
     built_machine("nvidia-h100-sxm"),
     {},
     {"# TYPE gpumon_gpu_energy_joules_total counter\n",
      "gpumon_gpu_energy_joules_total{gpu=\"0\",name=\"NVIDIA H100 80GB "
      "HBM3\",pci=\"0000:18:00.0\"} "
      "4578213.376\n",
      "gpumon_gpu_power_min_limit_watts{gpu=\"0\",name=\"NVIDIA H100 80GB "
      "HBM3\",pci=\"0000:18:00.0\"} 200\n",
      "gpumon_gpu_temperature_threshold_celsius{gpu=\"0\",name=\"NVIDIA H100 80GB "
      "HBM3\",pci=\"0000:18:00.0\","
      "threshold=\"slowdown\"} 89\n",
      "gpumon_gpu_clock_max_hertz{gpu=\"0\",name=\"NVIDIA H100 80GB "
      "HBM3\",pci=\"0000:18:00.0\",clock=\"core\"} "
      "1980000000\n",
      "gpumon_gpu_throttle_reason{gpu=\"0\",name=\"NVIDIA H100 80GB "
      "HBM3\",pci=\"0000:18:00.0\","
      "reason=\"gpu_idle\"} 1\n",
      "gpumon_gpu_pcie_throughput_bytes_per_second{gpu=\"0\",name=\"NVIDIA H100 80GB "
      "HBM3\",pci=\"0000:18:00.0\","
      "direction=\"rx\"} 4015104\n"},
     {"fan", "NaN", "=\"\""}},
    {"amd_multi_card_gaps_gpu_1",
     machine_dir("amd-multi-card-gaps"),
     {"--gpu", "1"},
     {"gpumon_gpus 1\n", "{gpu=\"1\",name=\"AMD Radeon RX 6400\",pci=\"0000:45:00.0\""},
     {"gpu=\"0\""}},
    {"desktop_no_gpu", machine_dir("desktop-no-gpu"), {}, {"gpumon_gpus 0\n"}, {"gpumon_gpu_"}},
};

void PrintTo(const MetricsCase& c, std::ostream* os) { *os << c.machine; }

class Metrics : public ::testing::TestWithParam<MetricsCase> {};

TEST_P(Metrics, OfFakeMachine) {
  const MetricsCase& c = GetParam();
  Served served(c.machine, c.args);
  ASSERT_NE(served.port(), 0) << c.machine << "\n" << served.stderr_text();
  const Reply r = round_trip(served.port(), get_request("/metrics"));
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.headers.at("content-type"), "text/plain; version=0.0.4; charset=utf-8");
  for (const std::string& part : c.present)
    EXPECT_NE(r.body.find(part), std::string::npos) << part << "\n" << r.body;
  for (const std::string& part : c.absent)
    EXPECT_EQ(r.body.find(part), std::string::npos) << part << "\n" << r.body;
  EXPECT_EQ(served.finish(), 0);
}

INSTANTIATE_TEST_SUITE_P(Serve, Metrics, ::testing::ValuesIn(kMetricsCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The same boards through NVML and through nvidia-smi: the same GPU labels.
TEST(Serve, GpuLabelsAreTheSameOnEveryBackEnd) {
  const std::string start = "gpumon_gpu_temperature_celsius{", end = ",sensor=";
  std::vector<std::vector<std::string>> seen;
  for (const char* machine : {"nvidia-rtx5090-rtx4080s-nvml", "nvidia-rtx5090-rtx4080s-smi"}) {
    Served served(built_machine(machine));
    const std::string body = scrape(served.port());
    seen.emplace_back();
    for (size_t at = body.find(start); at != std::string::npos; at = body.find(start, at + 1)) {
      const size_t labels = at + start.size();
      seen.back().push_back(body.substr(labels, body.find(end, labels) - labels));
    }
  }
  ASSERT_EQ(seen[0].size(), 2u);
  EXPECT_EQ(seen[0], seen[1]);
}

// Hand-made records: what the GPU record holds beyond the field table.
TEST(Serve, MetricsOfRecords) {
  zev::GPU gpu;
  std::snprintf(gpu.name, sizeof gpu.name, "Card \"X\"");
  gpu.vram_size_mb = 0;  // not known
  gpu.vram_used_mb = 2048;
  gpu.throttle_reasons = 0x44 | (1ull << 20);
  std::snprintf(gpu.throttle_reason_text, sizeof gpu.throttle_reason_text, "Unknown");
  const std::string text = render_metrics({GpuView{3, 1, &gpu, "", -1, ""}}, ScrapeFacts{});
  for (const char* part :
       {"gpumon_gpu_memory_used_bytes{gpu=\"3\",name=\"Card \\\"X\\\"\"} 2147483648\n",
        "gpumon_gpu_throttle_reason{gpu=\"3\",name=\"Card \\\"X\\\"\",reason=\"sw_power_cap\"} 1\n",
        "reason=\"hw_thermal_slowdown\"} 1\n", "reason=\"bit_20\"} 1\n",
        "gpumon_gpu_info{gpu=\"3\",name=\"Card \\\"X\\\"\"} 1\n", "gpumon_scrape_success 1\n"})
    EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
  for (const char* part : {"memory_total", "pcie", "=\"\"", "sync_boost"})
    EXPECT_EQ(text.find(part), std::string::npos) << part << "\n" << text;
  gpu.vram_used_mb = -1;
  gpu.throttle_reason_text[0] = '\0';  // not read
  const std::string unread = render_metrics({GpuView{0, 1, &gpu, "", -1, ""}}, ScrapeFacts{});
  EXPECT_EQ(unread.find("memory_used"), std::string::npos);
  EXPECT_EQ(unread.find("throttle"), std::string::npos);
}

// promtool, Prometheus' own checker, finds nothing to say of any machine's
// metrics (names, units, help, types, label syntax).
class Promtool : public ::testing::TestWithParam<std::string> {};

TEST_P(Promtool, FindsNoFault) {
  const char* promtool = "/usr/bin/promtool";
  if (access(promtool, X_OK) != 0) GTEST_SKIP() << "no " << promtool << " (Debian's prometheus)";
  Served served(GetParam());
  TempMachine dir(Files{{"metrics.txt", scrape(served.port())}});
  const std::string file = dir.dir() + "/metrics.txt";
  const std::string out = dir.dir() + "/promtool.txt";
  const std::string command =
      std::string(promtool) + " check metrics < " + file + " > " + out + " 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0) << read_file(out);
  EXPECT_EQ(read_file(out), "");
}

INSTANTIATE_TEST_SUITE_P(Serve, Promtool,
                         ::testing::Values(machine_dir("amd-rdna3-rx7900xtx"),
                                           built_machine("nvidia-rtx5090-rtx4080s-nvml"),
                                           built_machine("nvidia-h100-sxm"),
                                           machine_dir("intel-arc-a770-i915")),
                         [](const auto& info) {
                           return test_name(info.param.substr(info.param.rfind('/') + 1));
                         });

TEST(Serve, RequestsGetTheirStatusAndNeverStopIt) {
  Served served(machine_dir("amd-rdna3-rx7900xtx"));
  ASSERT_NE(served.port(), 0);
  const std::string huge(20000, 'x');
  const std::vector<std::tuple<std::string, int, std::string>> cases = {
      {get_request("/nothing-here"), 404, ""},
      {"POST /nothing-here HTTP/1.1\r\nHost: x\r\n\r\n", 404, ""},
      {"POST /metrics HTTP/1.1\r\nHost: x\r\n\r\n", 405, "GET, HEAD"},
      {"DELETE /metrics HTTP/1.1\r\nHost: x\r\n\r\n", 405, "GET, HEAD"},
      {"PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nx=1", 405, "GET, HEAD"},
      {"POST /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n", 413, ""},
      {get_request("/metrics?" + huge), 414, ""},
      {get_request("/metrics", "X-Huge: " + huge + "\r\n"), 431, ""},
      {"GET /metrics HTTP/1.1\r\n\r\n", 400, ""},  // HTTP/1.1 needs a Host
      {get_request("/"), 200, ""},
      {"HEAD /metrics HTTP/1.1\r\nHost: x\r\n\r\n", 200, ""},
  };
  for (const auto& [request, status, allow] : cases) {
    Reply r = round_trip(served.port(), request, 2000);
    const std::string shown = request.substr(0, 24);
    EXPECT_EQ(r.status, status) << shown;
    if (!allow.empty()) {
      EXPECT_EQ(r.headers["allow"], allow) << shown;
    }
    if (request.rfind("HEAD", 0) == 0) {
      EXPECT_EQ(r.body, "");
      EXPECT_GT(std::atoi(r.headers["content-length"].c_str()), 1000);
    }
  }
  // Kept alive and pipelined: three requests sent at once, three answers in
  // order on the same connection.
  const int fd = connect_loopback(served.port());
  ASSERT_TRUE(send_text(fd, get_request("/metrics") + get_request("/") + get_request("/metrics")));
  std::string pending;
  for (const char* start : {"# HELP gpumon_build_info", "gpumon: GPU metrics", "# HELP"}) {
    Reply r;
    ASSERT_TRUE(read_reply(fd, &r, 2000, &pending));
    EXPECT_EQ(r.body.rfind(start, 0), 0u) << r.body.substr(0, 40);
  }
  close(fd);
  // Many scrapes at once: every one answered whole.
  std::vector<std::thread> scrapers;
  std::atomic<int> whole{0};
  for (int t = 0; t < 16; ++t) {
    scrapers.emplace_back([&] {
      for (int i = 0; i < 4; ++i)
        whole += scrape(served.port()).find("gpumon_gpu_fan_speed_rpm{") != std::string::npos;
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

// gpumon --machine runs the server as its child: killed, it takes the
// server with it.
TEST(Serve, TheServerEndsWithItsParent) {
  Served served(machine_dir("amd-rdna3-rx7900xtx"));
  const pid_t server = served.server_pid();
  ASSERT_GT(server, 0);
  const std::string stat = "/proc/" + std::to_string(server) + "/stat";
  ASSERT_EQ(served.finish(SIGKILL), 128 + SIGKILL);
  bool gone = false;
  for (int i = 0; i < 100 && !gone; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::string text = read_file(stat);
    gone = text.empty() || text.find(") Z ") != std::string::npos;
  }
  EXPECT_TRUE(gone);
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
  nlohmann::json sample;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (sample.is_null() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    const Reply r =
        round_trip(port, "GET /api/v1/query?query=gpumon_gpu_energy_joules_total HTTP/1.0\r\n\r\n");
    if (r.status != 200) continue;
    const nlohmann::json answer = nlohmann::json::parse(r.body, nullptr, false);
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
