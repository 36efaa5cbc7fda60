// gpumon --serve against hostile and slow clients on loopback: each case
// opens its connections from other loopback addresses than the normal
// scraper's, checks that a normal scrape still answers, that memory and
// descriptors stay bounded, that the server cuts what it must, and that
// SIGTERM ends it within a second while the connections are still open.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "serve_client.h"
#include "test_support.h"

namespace {

using namespace serve_client;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;  // the allocator keeps freed memory aside
#else
constexpr bool kSanitized = false;
#endif

// The connections of one attack, and a thread that trickles bytes into them.
struct Hostile {
  std::vector<int> fds;
  std::string trickle;  // sent a piece at a time, every 200 ms, on every connection
  std::atomic<bool> done{false};
  std::thread sender;

  void start_trickling() {
    sender = std::thread([this] {
      for (size_t at = 0; !done; at = (at + 1) % trickle.size()) {
        for (int fd : fds) send(fd, &trickle[at], 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        for (int i = 0; i < 20 && !done; ++i)
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    });
  }
  ~Hostile() {
    done = true;
    if (sender.joinable()) sender.join();
    for (int fd : fds) close(fd);
  }
};

// n connections spread over loopback addresses 127.0.0.FIRST and up, at
// most 50 from each (the server allows 64 from one address).
void open_connections(Hostile* h, int port, int n, int first = 2) {
  for (int i = 0; i < n; ++i) {
    const int fd = connect_loopback(port, "127.0.0." + std::to_string(first + i / 50));
    if (fd >= 0) h->fds.push_back(fd);
  }
}

void send_on_each(Hostile* h, const std::string& bytes) {
  for (int fd : h->fds) send_text(fd, bytes);
}

// Waits until the server has closed the connection (what it sent is read
// and dropped); false when it is still open at the deadline.
bool closed_by_server(int fd, Clock::time_point deadline) {
  char buffer[65536];
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    struct pollfd wait_for = {fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&wait_for, 1, static_cast<int>(left.count())) != 1) return false;
    if (recv(fd, buffer, sizeof buffer, 0) <= 0) return true;
  }
}

void reset(int fd) {
  const linger abort_it = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort_it, sizeof abort_it);
  close(fd);
}

struct Attack {
  const char* name;
  std::function<void(Hostile*, int port)> start;
  // The server closes every one of its connections within this time; 0: it
  // may keep them open.
  int closed_within_ms;
  // Connections of the attack the server may hold at once.
  int held;
};

std::string repeated(const std::string& piece, size_t times) {
  std::string out;
  out.reserve(piece.size() * times);
  for (size_t i = 0; i < times; ++i) out += piece;
  return out;
}

// Eight connections that send `request`, then `piece` after piece, slowly.
void trickle(Hostile* h, int port, const std::string& request, const std::string& piece) {
  open_connections(h, port, 8);
  if (!request.empty()) send_on_each(h, request);
  h->trickle = piece;
  h->start_trickling();
}

const Attack kAttacks[] = {
    {"IdleConnections", [](Hostile* h, int port) { open_connections(h, port, 300); }, 0, 300},
    {"OneAddressOverItsLimit",
     [](Hostile* h, int port) {
       for (int i = 0; i < 100; ++i) h->fds.push_back(connect_loopback(port, "127.0.0.9"));
     },
     0, 64},
    {"TricklingHeaders",
     [](Hostile* h, int port) {
       trickle(h, port, "GET /metrics HTTP/1.1\r\nHost: x\r\n", "X-Slow: a\r\n");
     },
     7000, 8},
    {"TricklingRequestLine",
     [](Hostile* h, int port) { trickle(h, port, "", "GET /" + std::string(200, 'a')); }, 0, 8},
    {"SlowBodies",  // answered at once, the body never read
     [](Hostile* h, int port) {
       trickle(h, port, "POST /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\nab",
               "x");
     },
     1000, 8},
    {"HeaderFlood",
     [](Hostile* h, int port) {
       open_connections(h, port, 4);
       send_on_each(h, "GET /metrics HTTP/1.1\r\n");
       send_on_each(h, repeated("X-A: b\r\n", 500000));  // 4 MB each, until the server hangs up
     },
     2000, 4},
    {"OversizedLines",
     [](Hostile* h, int port) {
       open_connections(h, port, 2);
       send_text(h->fds[0], "GET /" + std::string(1 << 20, 'a'));
       send_text(h->fds[1], "GET / HTTP/1.1\r\nX-Long: " + std::string(1 << 20, 'a'));
     },
     2000, 2},
    {"ManyRanges",
     [](Hostile* h, int port) {
       std::string ranges = "Range: bytes=0-";
       while (ranges.size() < 8000) ranges += ",0-";
       open_connections(h, port, 1);
       send_on_each(h, get_request("/metrics", ranges + "\r\n"));
       Reply reply;
       std::string pending;
       ASSERT_TRUE(read_reply(h->fds[0], &reply, 2000, &pending));
       EXPECT_EQ(reply.status, 200);
       EXPECT_EQ(reply.headers.count("content-range"), 0u);
       EXPECT_LT(reply.body.size(), 20000u);
     },
     0, 1},
    {"Garbage",
     [](Hostile* h, int port) {
       const std::string garbage[] = {std::string("\0\x01\x02\xff\xfe\r\n\r\n", 9),
                                      "GET\r\n\r\n",
                                      "GET / HTTP/9.9\r\n\r\n",
                                      "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n",
                                      "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
                                      "GET / HTTP/1.1\r\nContent-Length: -5\r\n\r\n",
                                      "GET / HTTP/1.1\r\n: x\r\n\r\n",
                                      "GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"};
       for (const std::string& g : garbage) {
         const int fd = connect_loopback(port, "127.0.0.2");
         send_text(fd, g);
         h->fds.push_back(fd);
       }
     },
     0, 8},
    {"HalfClosedAndReset",
     [](Hostile* h, int port) {
       for (int i = 0; i < 20; ++i) {
         const int fd = connect_loopback(port, "127.0.0.2");
         send_text(fd, i % 2 ? get_request("/metrics") : "GET /met");
         if (i % 4 < 2) {
           shutdown(fd, SHUT_WR);
           h->fds.push_back(fd);
         } else {
           reset(fd);
         }
       }
       // Reset while the answers to many pipelined requests are on their way.
       const int fd = connect_loopback(port, "127.0.0.3");
       send_text(fd, repeated(get_request("/metrics"), 50));
       reset(fd);
     },
     0, 10},
};

// Test names in CTest's list: the attack's name, not its bytes.
void PrintTo(const Attack& attack, std::ostream* out) { *out << attack.name; }

class Hostility : public ::testing::TestWithParam<Attack> {};

TEST_P(Hostility, ScrapesGoOnAndSigtermEndsIt) {
  const Attack& attack = GetParam();
  Served served(testing_support::machine_dir("amd-rdna3-rx7900xtx"));
  ASSERT_NE(served.port(), 0) << served.stderr_text();
  const pid_t server = served.server_pid();
  ASSERT_EQ(round_trip(served.port(), get_request("/metrics")).status, 200);
  const long rss_before = resident_kb(server);
  const int fds_before = open_fds(server);

  Hostile hostile;
  const auto started = Clock::now();
  attack.start(&hostile, served.port());
  for (int scrape = 0; scrape < 3; ++scrape) {
    const Reply reply = round_trip(served.port(), get_request("/metrics"), 2000);
    EXPECT_EQ(reply.status, 200) << "scrape " << scrape;
    EXPECT_NE(reply.body.find("gpumon_gpus 1\n"), std::string::npos);
  }
  if (attack.closed_within_ms > 0) {
    const auto deadline = started + std::chrono::milliseconds(attack.closed_within_ms);
    for (int fd : hostile.fds) EXPECT_TRUE(closed_by_server(fd, deadline));
  }
  EXPECT_LE(open_fds(server), fds_before + attack.held + 2);
  if (!kSanitized) {
    EXPECT_LT(resident_kb(server) - rss_before, 8 * 1024);
  }
  EXPECT_LT(resident_kb(server), kSanitized ? 512 * 1024 : 32 * 1024);
  double seconds = 0;
  EXPECT_EQ(served.finish_timed(&seconds), 0);
  EXPECT_LT(seconds, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Attacks, Hostility, ::testing::ValuesIn(kAttacks),
                         [](const ::testing::TestParamInfo<Attack>& info) {
                           return std::string(info.param.name);
                         });

// A second server on the port of the first exits with 5; the first goes on.
TEST(Hostility, SecondServerOnTheSamePort) {
  Served first(testing_support::machine_dir("amd-rdna3-rx7900xtx"));
  ASSERT_NE(first.port(), 0);
  const machine::RunResult second =
      testing_support::run_gpumon({"--serve", "127.0.0.1:" + std::to_string(first.port()),
                                   "--machine", testing_support::machine_dir("desktop-no-gpu")});
  EXPECT_EQ(second.exit_code, 5) << second.err;
  for (int i = 0; i < 4; ++i) {
    const Reply reply = round_trip(first.port(), get_request("/metrics"));
    EXPECT_NE(reply.body.find("gpumon_gpus 1\n"), std::string::npos);
  }
  EXPECT_EQ(first.finish(), 0);
}

}  // namespace
