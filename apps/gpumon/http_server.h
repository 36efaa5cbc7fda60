// The HTTP/1.1 server under gpumon --serve, on GNU libmicrohttpd: one thread
// waits on every connection with epoll and answers each request at once, so
// a client that is slow, idle or hostile holds a connection and a little
// memory, never a thread. Requests are answered one at a time, in that
// thread.
#pragma once

#include <microhttpd.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

// What a route answers.
struct HttpAnswer {
  int status = 200;
  std::string content_type = "text/plain";
  std::string body;
  std::string allow;  // the Allow header of a 405
};

// The route answers every request whose body (if any) is small enough: it
// gets the method and the path, without the query.
using HttpRoute = std::function<HttpAnswer(const std::string& method, const std::string& path)>;

struct HttpLimits {
  unsigned connections = 512;           // open at once; more are closed when accepted
  unsigned per_address = 64;            // open at once from one client address
  size_t connection_memory = 16384;     // a request line and headers beyond it: 414, 431
  unsigned long long max_body = 65536;  // a longer Content-Length: 413
  // A connection with no request under way is closed after this long,
  // whether or not bytes come (a request line sent a byte at a time).
  std::chrono::seconds idle{120};
  // From its request line, a request must have arrived within this time;
  // from its answer, the answer must have been sent within it again.
  std::chrono::seconds request{5};
};

class HttpServer {
 public:
  HttpServer(HttpRoute route, const HttpLimits& limits);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Serves the connections of a listening socket (which it then owns) from
  // a thread of its own; false with *error when the thread cannot start.
  bool start(int listen_fd, std::string* error);
  // Closes every connection that has run past its time (see HttpLimits).
  // Called from another thread a few times a second.
  void enforce_deadlines();
  // Closes every connection and the socket, and ends the thread.
  void stop();

 private:
  enum class Phase { kIdle, kReceiving, kHandling, kSending };
  struct Watch {
    int fd = -1;
    Phase phase = Phase::kIdle;
    std::chrono::steady_clock::time_point since;
    bool cut = false;  // shut down by a deadline, waiting to be closed
  };

  static MHD_Result on_request(void* self, MHD_Connection* connection, const char* url,
                               const char* method, const char* version, const char* upload,
                               size_t* upload_size, void** request);
  static void* on_request_line(void* self, const char* uri, MHD_Connection* connection);
  static void on_completed(void* self, MHD_Connection* connection, void** request,
                           MHD_RequestTerminationCode code);
  static void on_connection(void* self, MHD_Connection* connection, void** context,
                            MHD_ConnectionNotificationCode code);
  void set_phase(MHD_Connection* connection, Phase phase);
  HttpAnswer answer(MHD_Connection* connection, const char* url, const char* method) const;

  HttpRoute route_;
  HttpLimits limits_;
  MHD_Daemon* daemon_ = nullptr;
  std::mutex mutex_;  // guards watches_: the server's thread and enforce_deadlines
  std::unordered_map<MHD_Connection*, Watch> watches_;
};
