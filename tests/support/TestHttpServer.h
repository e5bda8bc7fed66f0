// A real HTTP server on loopback for tests, on a thread and main context of
// its own, answering through a handler the test gives. It records every
// request it receives.
#pragma once

#include <arpa/inet.h>
#include <libsoup/soup.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace orvane {

struct HttpRequest {
  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;
  std::string body;
};

struct HttpReply {
  int status = 200;
  std::string body;
  std::string content_type = "application/octet-stream";
  std::map<std::string, std::string> headers;
  bool chunked = false; // send the body in chunked transfer encoding
  // Declare the whole body's length but send only this many bytes of it,
  // then keep the connection open and silent.
  std::optional<size_t> stall_after;
};

class TestHttpServer {
public:
  using Handler = std::function<void(const HttpRequest&, HttpReply&)>;

  // Listens on the given loopback address (any of 127.0.0.0/8).
  explicit TestHttpServer(Handler handler, const std::string& host = "127.0.0.1")
      : handler_(std::move(handler)), host_(host) {
    context_ = g_main_context_new();
    loop_ = g_main_loop_new(context_, FALSE);
    g_main_context_push_thread_default(context_);
    server_ = soup_server_new(nullptr, nullptr);
    soup_server_add_handler(server_, nullptr, &TestHttpServer::Serve, this, nullptr);
    GInetAddress* inet = g_inet_address_new_from_string(host_.c_str());
    GSocketAddress* address = g_inet_socket_address_new(inet, 0);
    soup_server_listen(server_, address, SoupServerListenOptions(0), nullptr);
    g_object_unref(address);
    g_object_unref(inet);
    GSList* uris = soup_server_get_uris(server_);
    if (uris) {
      port_ = g_uri_get_port(static_cast<GUri*>(uris->data));
    }
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    g_main_context_pop_thread_default(context_);
    thread_ = std::thread([this] {
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      g_main_context_pop_thread_default(context_);
    });
  }

  ~TestHttpServer() {
    g_main_context_invoke(
        context_,
        [](gpointer loop) -> gboolean {
          g_main_loop_quit(static_cast<GMainLoop*>(loop));
          return G_SOURCE_REMOVE;
        },
        loop_);
    thread_.join();
    g_main_context_push_thread_default(context_);
    soup_server_disconnect(server_);
    g_object_unref(server_);
    g_main_context_pop_thread_default(context_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  std::string url(const std::string& path) const {
    return "http://" + host_ + ":" + std::to_string(port_) + path;
  }
  std::vector<HttpRequest> requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  size_t requestCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_.size();
  }

private:
  static void Serve(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                    gpointer data) {
    auto* self = static_cast<TestHttpServer*>(data);
    HttpRequest request;
    request.method = soup_server_message_get_method(message);
    request.path = path;
    SoupMessageHeadersIter iter;
    soup_message_headers_iter_init(&iter, soup_server_message_get_request_headers(message));
    const char* name;
    const char* value;
    while (soup_message_headers_iter_next(&iter, &name, &value)) {
      std::string key = name;
      for (char& c : key)
        c = g_ascii_tolower(c);
      request.headers[key] = value;
    }
    SoupMessageBody* body = soup_server_message_get_request_body(message);
    if (body && body->length > 0) {
      GBytes* bytes = soup_message_body_flatten(body);
      gsize size = 0;
      auto* chunk = static_cast<const char*>(g_bytes_get_data(bytes, &size));
      request.body.assign(chunk, size);
      g_bytes_unref(bytes);
    }
    HttpReply reply;
    self->handler_(request, reply);
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->requests_.push_back(request);
    }
    for (const auto& [key, header] : reply.headers)
      soup_message_headers_replace(soup_server_message_get_response_headers(message), key.c_str(),
                                   header.c_str());
    soup_server_message_set_status(message, reply.status, nullptr);
    if (reply.stall_after) {
      SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
      soup_message_headers_set_content_length(headers, goffset(reply.body.size()));
      soup_message_headers_set_content_type(headers, reply.content_type.c_str(), nullptr);
      soup_message_body_append(soup_server_message_get_response_body(message), SOUP_MEMORY_COPY,
                               reply.body.data(), std::min(*reply.stall_after, reply.body.size()));
      return; // the body is never completed
    }
    if (reply.chunked) {
      SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
      soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
      soup_message_headers_set_content_type(headers, reply.content_type.c_str(), nullptr);
      SoupMessageBody* out = soup_server_message_get_response_body(message);
      size_t half = reply.body.size() / 2;
      soup_message_body_append(out, SOUP_MEMORY_COPY, reply.body.data(), half);
      soup_message_body_append(out, SOUP_MEMORY_COPY, reply.body.data() + half,
                               reply.body.size() - half);
      soup_message_body_complete(out);
      return;
    }
    soup_server_message_set_response(message, reply.content_type.c_str(), SOUP_MEMORY_COPY,
                                     reply.body.data(), reply.body.size());
  }

  Handler handler_;
  std::string host_;
  GMainContext* context_;
  GMainLoop* loop_;
  SoupServer* server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::vector<HttpRequest> requests_;
};

// Accepts connections and never answers.
class SilentServer {
public:
  SilentServer() {
    GError* error = nullptr;
    listener_ =
        g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, &error);
    GInetAddress* inet = g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4);
    GSocketAddress* any = g_inet_socket_address_new(inet, 0);
    g_socket_bind(listener_, any, TRUE, nullptr);
    g_socket_listen(listener_, nullptr);
    GSocketAddress* bound = g_socket_get_local_address(listener_, nullptr);
    port_ = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
    g_object_unref(bound);
    g_object_unref(any);
    g_object_unref(inet);
  }
  ~SilentServer() {
    g_socket_close(listener_, nullptr);
    g_object_unref(listener_);
  }
  std::string address() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
  GSocket* listener_;
  int port_ = 0;
};

} // namespace orvane
