// A loopback server that speaks raw bytes, for tests of answers that no
// well-behaved server gives: stalls, cut bodies, endless lines.
#pragma once

#include <arpa/inet.h>
#include <glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace orvane {

// A loopback server that speaks raw bytes, for answers no well-behaved
// server gives. Each connection is handed to a script on the server's
// thread, with the bytes received up to the end of the request's head (and
// perhaps the start of its body); connections are served one at a time.
class RawServer {
public:
  using Script = std::function<void(RawServer& server, int client, const std::string& received)>;

  explicit RawServer(Script script) : script_(std::move(script)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 4);
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~RawServer() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    stopped_.notify_all();
    shutdown(listener_, SHUT_RDWR);
    // A script blocked on its connection wakes up too.
    int client = client_.load();
    if (client >= 0)
      shutdown(client, SHUT_RDWR);
    thread_.join();
    close(listener_);
  }
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  size_t connections() const { return connections_; }

  // For scripts: whether the test is over.
  bool stopping() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopping_;
  }
  // For scripts: keeps the connection open without a word until the test ends.
  void holdOpen() {
    std::unique_lock<std::mutex> lock(mutex_);
    stopped_.wait(lock, [this] { return stopping_; });
  }
  // For scripts: waits up to `seconds` for `ready`, or until the test ends.
  bool waitFor(const std::function<bool()>& ready, double seconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    stopped_.wait_for(lock, std::chrono::duration<double>(seconds),
                      [&] { return stopping_ || ready(); });
    return ready();
  }
  // Wakes scripts in waitFor to look at their condition again.
  void poke() { stopped_.notify_all(); }
  // For scripts: sends every byte; false once the client has gone.
  static bool Send(int client, const std::string& bytes) {
    size_t at = 0;
    while (at < bytes.size()) {
      ssize_t n = send(client, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (n <= 0)
        return false;
      at += size_t(n);
    }
    return true;
  }

  // For scripts: the Content-Length of the request whose head `received`
  // holds, 0 without one.
  static size_t DeclaredLength(const std::string& received) {
    std::string head = received.substr(0, received.find("\r\n\r\n"));
    for (char& c : head)
      c = g_ascii_tolower(c);
    size_t at = head.find("\r\ncontent-length:");
    return at == std::string::npos ? 0 : std::strtoull(head.c_str() + at + 17, nullptr, 10);
  }
  // For scripts: reads the rest of the request's body, up to its declared
  // length or the end of the connection; returns the whole body so far.
  static std::string ReadRequestBody(int client, const std::string& received) {
    size_t head_end = received.find("\r\n\r\n");
    std::string body = head_end == std::string::npos ? "" : received.substr(head_end + 4);
    size_t declared = DeclaredLength(received);
    char buffer[65536];
    while (body.size() < declared) {
      ssize_t n = read(client, buffer, std::min(sizeof buffer, declared - body.size()));
      if (n <= 0)
        break;
      body.append(buffer, size_t(n));
    }
    return body;
  }

private:
  void serve() {
    while (true) {
      int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0)
        return;
      ++connections_;
      client_ = client;
      if (stopping())
        shutdown(client, SHUT_RDWR);
      std::string received;
      char buffer[4096];
      while (received.find("\r\n\r\n") == std::string::npos) {
        ssize_t n = read(client, buffer, sizeof buffer);
        if (n <= 0)
          break;
        received.append(buffer, size_t(n));
      }
      script_(*this, client, received);
      client_ = -1;
      close(client);
    }
  }

  Script script_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<size_t> connections_{0};
  std::atomic<int> client_{-1};
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;
  std::thread thread_;
};

// A server that promises a body and hangs up halfway through it.
class CuttingServer {
public:
  CuttingServer(size_t promised, std::string sent)
      : server_([promised, sent](RawServer&, int client, const std::string&) {
          RawServer::Send(client,
                          "HTTP/1.1 200 OK\r\nContent-Type: application/pdf\r\nContent-Length: " +
                              std::to_string(promised) + "\r\nConnection: close\r\n\r\n" + sent);
        }) {}
  std::string url(const std::string& path) const { return server_.url(path); }

private:
  RawServer server_;
};

} // namespace orvane
