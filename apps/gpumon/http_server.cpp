#include "http_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

const char* reason(int status) {
  switch (status) {
    case 400: return "Bad Request";
    case 404: return "Not Found: the metrics are at /metrics";
    case 405: return "Method Not Allowed";
    case 413: return "Payload Too Large";
    default: return "Error";
  }
}

bool has_body(MHD_Connection* connection) {
  const char* length =
      MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  return (length != nullptr && std::strtoull(length, nullptr, 10) > 0) ||
         MHD_lookup_connection_value(connection, MHD_HEADER_KIND,
                                     MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr;
}

}  // namespace

HttpServer::HttpServer(HttpRoute route, const HttpLimits& limits)
    : route_(std::move(route)), limits_(limits) {}

HttpServer::~HttpServer() { stop(); }

bool HttpServer::start(int listen_fd, std::string* error) {
  // Epoll in a thread of the library's; no SO_REUSEPORT (the socket is
  // ours); the library's own messages are left out (a hostile client would
  // fill the journal with them).
  daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC, 0, nullptr, nullptr, &HttpServer::on_request,
      this, MHD_OPTION_LISTEN_SOCKET, listen_fd, MHD_OPTION_CONNECTION_LIMIT, limits_.connections,
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, limits_.per_address, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      limits_.connection_memory, MHD_OPTION_CONNECTION_TIMEOUT,
      static_cast<unsigned>(limits_.idle.count()), MHD_OPTION_URI_LOG_CALLBACK,
      &HttpServer::on_request_line, this, MHD_OPTION_NOTIFY_COMPLETED, &HttpServer::on_completed,
      this, MHD_OPTION_NOTIFY_CONNECTION, &HttpServer::on_connection, this,
      MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    close(listen_fd);
    *error = "the HTTP server could not start";
    return false;
  }
  return true;
}

void HttpServer::stop() {
  if (daemon_ != nullptr) MHD_stop_daemon(std::exchange(daemon_, nullptr));
}

void HttpServer::enforce_deadlines() {
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [connection, watch] : watches_) {
    if (watch.cut || watch.phase == Phase::kHandling) continue;
    const auto allowed = watch.phase == Phase::kIdle ? limits_.idle : limits_.request;
    if (now - watch.since <= allowed) continue;
    // The library sees the end of the stream and closes the connection in
    // its own thread; the descriptor stays open until it is told (below,
    // under the same lock) that the connection is closed.
    shutdown(watch.fd, SHUT_RDWR);
    watch.cut = true;
  }
}

void HttpServer::set_phase(MHD_Connection* connection, Phase phase) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = watches_.find(connection);
  if (found == watches_.end()) return;
  found->second.phase = phase;
  found->second.since = std::chrono::steady_clock::now();
}

void HttpServer::on_connection(void* self, MHD_Connection* connection, void**,
                               MHD_ConnectionNotificationCode code) {
  auto* server = static_cast<HttpServer*>(self);
  std::lock_guard<std::mutex> lock(server->mutex_);
  if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
    server->watches_.erase(connection);
    return;
  }
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  Watch& watch = server->watches_[connection];
  watch.fd = info != nullptr ? info->connect_fd : -1;
  watch.since = std::chrono::steady_clock::now();
  watch.cut = watch.fd < 0;
}

void* HttpServer::on_request_line(void* self, const char*, MHD_Connection* connection) {
  static_cast<HttpServer*>(self)->set_phase(connection, Phase::kReceiving);
  return nullptr;
}

void HttpServer::on_completed(void* self, MHD_Connection* connection, void**,
                              MHD_RequestTerminationCode) {
  static_cast<HttpServer*>(self)->set_phase(connection, Phase::kIdle);
}

HttpAnswer HttpServer::answer(MHD_Connection* connection, const char* url,
                              const char* method) const {
  const char* length =
      MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (length != nullptr && std::strtoull(length, nullptr, 10) > limits_.max_body) {
    HttpAnswer too_large;
    too_large.status = 413;
    return too_large;
  }
  return route_(method, url);
}

// No route takes a body, so none is ever read: a request that has one (or
// a method that may have one) is answered as soon as its headers are in,
// and the library closes its connection once the answer is sent. A GET or
// HEAD without one is answered on the call that follows at once, which
// keeps the connection open for the next request.
MHD_Result HttpServer::on_request(void* self, MHD_Connection* connection, const char* url,
                                  const char* method, const char*, const char*, size_t*,
                                  void** request) {
  auto* server = static_cast<HttpServer*>(self);
  const bool plain = (std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0) &&
                     !has_body(connection);
  if (*request == nullptr && plain) {
    *request = self;
    return MHD_YES;
  }
  server->set_phase(connection, Phase::kHandling);
  HttpAnswer answer = server->answer(connection, url, method);
  if (answer.status != 200 && answer.body.empty())
    answer.body = std::to_string(answer.status) + " " + reason(answer.status) + "\n";
  MHD_Response* response = MHD_create_response_from_buffer(
      answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.content_type.c_str());
  if (!answer.allow.empty())
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, answer.allow.c_str());
  const MHD_Result queued =
      MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
  MHD_destroy_response(response);
  server->set_phase(connection, Phase::kSending);
  return queued;
}
