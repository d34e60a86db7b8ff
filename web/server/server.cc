#include "web/server/server.h"

#include <libwebsockets.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "web/server/access.h"
#include "web/server/session.h"

namespace kvox::web {
namespace {

constexpr size_t kLongestMessage = 256 << 10;  // of a page
constexpr size_t kLongestReason = 120;         // of a close frame
constexpr size_t kMostSessions = 32;
constexpr size_t kMostConnections = 256;
constexpr int kEnterWithin_s = 5;
constexpr lws_usec_t kTick_us = 33'000;
constexpr std::string_view kKept = "/kept/";

constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; worker-src 'self'; media-src blob:; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

/// One connection, in memory of libwebsockets that is zeroed.
struct Connection {
  Session* session;    // of a WebSocket
  std::string* taken;  // of a message that comes in parts
  std::string* page;   // of a reply that has not been sent
};

/// "" where it is missing; of one that is too long, something that is never right.
std::string Header(lws* wsi, lws_token_indexes token) {
  std::array<char, 512> text{};
  const int length = lws_hdr_copy(wsi, text.data(), static_cast<int>(text.size()), token);
  if (length < 0) return "too long";
  return std::string(text.data(), static_cast<size_t>(length));
}

int Refuse(lws* wsi, unsigned status, const char* text) {
  const int failed = lws_return_http_status(wsi, status, text);
  return failed != 0 || lws_http_transaction_completed(wsi) != 0 ? -1 : 0;
}

}  // namespace

class Server::Impl {
 public:
  Impl(Listen listen, Hub::Options options)
      : listen_(std::move(listen)), hub_(std::move(options), [this] { Wake(); }) {
    lws_set_log_level(LLL_ERR, [](int, const char* line) { fprintf(stderr, "kvoxweb: %s", line); });
    Open();
  }

  ~Impl() {
    {
      const MutexLock lock(mutex_);
      waking_ = nullptr;
    }
    lws_context_destroy(context_);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  int port() const { return lws_get_vhost_listen_port(vhost_); }

  void Run() {
    while (!ending_ && lws_service(context_, 0) >= 0) {
    }
  }

  void Stop() {
    ending_ = true;
    lws_cancel_service(context_);
  }

 private:
  struct Tick {
    lws_sorted_usec_list_t list;  // first: libwebsockets gives back its address
    Impl* server;
  };

  void Open();
  /// Any thread.
  void Wake() {
    const MutexLock lock(mutex_);
    if (waking_ != nullptr) lws_cancel_service(waking_);
  }

  static int OnEvent(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t length);
  int OnHttp(lws* wsi, lws_callback_reasons reason, Connection* connection, void* in);
  int OnSocket(lws* wsi, lws_callback_reasons reason, Connection* connection, void* in,
               size_t length);
  bool MayAsk(lws* wsi) const;
  bool HasToken(lws* wsi) const;
  int Reply(lws* wsi, Connection& connection, const std::string& path);
  int ReplyFile(lws* wsi, const std::string& name);
  static int ReplyText(lws* wsi, Connection& connection, const std::string& text, const char* type);
  static int SendReply(lws* wsi, Connection& connection);
  int Take(lws* wsi, Connection& connection, std::string_view part);
  static int Send(lws* wsi, Connection& connection);
  void AskAll();
  void Schedule();

  const Listen listen_;
  std::atomic<bool> ending_ = false;
  Mutex mutex_;
  lws_context* waking_ GUARDED_BY(mutex_) = nullptr;  // null before and after it can be woken
  lws_context* context_ = nullptr;
  lws_vhost* vhost_ = nullptr;
  lws_http_mount files_ = {};
  lws_http_mount health_ = {};
  lws_http_mount metrics_ = {};
  lws_http_mount kept_ = {};
  std::array<lws_protocol_vhost_options, 5> headers_ = {};
  std::array<lws_protocols, 3> protocols_ = {};
  Tick tick_ = {};
  std::set<lws*> pages_;
  Hub hub_;  // last: its threads wake the others
};

void Server::Impl::Open() {
  const auto header = [&](size_t i, const char* name, const char* value) {
    headers_[i] = {.next = i + 1 < headers_.size() ? &headers_[i + 1] : nullptr,
                   .options = nullptr,
                   .name = name,
                   .value = value};
  };
  header(0, "content-security-policy:", kPolicy);
  header(1, "x-content-type-options:", "nosniff");
  header(2, "referrer-policy:", "no-referrer");
  header(3, "cross-origin-resource-policy:", "same-origin");
  header(4, "cache-control:", "no-cache");
  const auto mount = [](lws_http_mount& at, const char* path, const char* origin, int kind) {
    at.mountpoint = path;
    at.mountpoint_len = static_cast<unsigned char>(std::string_view(path).size());
    at.origin = origin;
    at.origin_protocol = static_cast<unsigned char>(kind);
  };
  mount(files_, "/", listen_.files.c_str(), LWSMPRO_FILE);
  files_.def = "index.html";
  files_.mount_next = &health_;
  mount(health_, "/healthz", "http", LWSMPRO_CALLBACK);
  health_.protocol = "http";
  health_.mount_next = &metrics_;
  mount(metrics_, "/metrics", "http", LWSMPRO_CALLBACK);
  metrics_.protocol = "http";
  metrics_.mount_next = &kept_;
  mount(kept_, "/kept", "http", LWSMPRO_CALLBACK);
  kept_.protocol = "http";

  protocols_[0] = {.name = "http",
                   .callback = OnEvent,
                   .per_session_data_size = sizeof(Connection),
                   .rx_buffer_size = 0,
                   .id = 0,
                   .user = this,
                   .tx_packet_size = 0};
  protocols_[1] = protocols_[0];
  protocols_[1].name = "kvox.1";
  protocols_[1].rx_buffer_size = 16384;
  protocols_[1].id = 1;

  lws_context_creation_info info{};
  info.port = listen_.is_path ? 0 : listen_.port;
  info.iface = listen_.address.c_str();
  info.protocols = protocols_.data();
  info.mounts = &files_;
  info.headers = headers_.data();
  info.server_string = "kvoxweb";
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS | LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  if (listen_.is_path) {
    info.options |= LWS_SERVER_OPTION_UNIX_SOCK;
    if (!listen_.owner.empty()) info.unix_socket_perms = listen_.owner.c_str();
  }
  info.fd_limit_per_thread = kMostConnections;
  info.timeout_secs = 10;
  info.keepalive_timeout = 30;
  context_ = lws_create_context(&info);
  if (context_ == nullptr) throw std::runtime_error("libwebsockets cannot be started");
  vhost_ = lws_create_vhost(context_, &info);
  if (vhost_ == nullptr) {
    lws_context_destroy(context_);
    throw std::runtime_error(
        "cannot listen at " + listen_.address +
        (listen_.is_path ? "" : ":" + std::to_string(listen_.port)) +
        ": it is in use, or not this machine's; choose another one with --listen");
  }
  {
    const MutexLock lock(mutex_);
    waking_ = context_;
  }
  tick_.server = this;
}

int Server::Impl::OnEvent(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                          size_t length) {
  const lws_protocols* const protocol = lws_get_protocol(wsi);
  if (protocol == nullptr || protocol->user == nullptr) return 0;
  Impl& server = *static_cast<Impl*>(protocol->user);
  auto* const connection = static_cast<Connection*>(user);
  if (reason == LWS_CALLBACK_EVENT_WAIT_CANCELLED) {
    if (protocol->id == 1) server.AskAll();
    return 0;
  }
  try {
    return protocol->id == 1 ? server.OnSocket(wsi, reason, connection, in, length)
                             : server.OnHttp(wsi, reason, connection, in);
  } catch (const std::exception&) {  // nothing is thrown through libwebsockets
    return -1;
  }
}

/// Whether a request comes from a page of ours, or from a program.
bool Server::Impl::MayAsk(lws* wsi) const {
  const std::string host = Header(wsi, WSI_TOKEN_HOST);
  return IsKnownHost(host, listen_.hosts) && IsOwnOrigin(Header(wsi, WSI_TOKEN_ORIGIN), host);
}

int Server::Impl::OnHttp(lws* wsi, lws_callback_reasons reason, Connection* connection, void* in) {
  switch (reason) {
    case LWS_CALLBACK_FILTER_HTTP_CONNECTION:
      if (MayAsk(wsi)) return 0;
      lws_return_http_status(wsi, HTTP_STATUS_FORBIDDEN,
                             "This name is not known; start kvoxweb with --host NAME.");
      return 1;
    case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:  // a WebSocket without our subprotocol
      return 1;
    case LWS_CALLBACK_HTTP:
      return Reply(wsi, *connection, Header(wsi, WSI_TOKEN_GET_URI));
    case LWS_CALLBACK_HTTP_WRITEABLE:
      return SendReply(wsi, *connection);
    case LWS_CALLBACK_CLOSED_HTTP:
      if (connection != nullptr) delete std::exchange(connection->page, nullptr);
      return 0;
    default:
      return lws_callback_http_dummy(wsi, reason, connection, in, 0);
  }
}

/// Whether the request has the token.
bool Server::Impl::HasToken(lws* wsi) const {
  constexpr std::string_view kBearer = "Bearer ";
  const std::string given = Header(wsi, WSI_TOKEN_HTTP_AUTHORIZATION);
  return given.starts_with(kBearer) &&
         IsToken(std::string_view(given).substr(kBearer.size()), hub_.options().token);
}

int Server::Impl::Reply(lws* wsi, Connection& connection, const std::string& path) {
  if (path == "/healthz") {
    const char* const text = hub_.pulse().alive ? "ok\n" : "ok, but there is no daemon\n";
    return ReplyText(wsi, connection, text, "text/plain");
  }
  if (!HasToken(wsi)) {
    return Refuse(wsi, HTTP_STATUS_UNAUTHORIZED, "The token is missing.");
  }
  if (path.starts_with(kKept)) return ReplyFile(wsi, path.substr(kKept.size()));
  if (path != "/metrics") return Refuse(wsi, HTTP_STATUS_NOT_FOUND, "There is no such page.");
  const std::string text = FlightWatch::Metrics();
  if (text.empty()) {
    return Refuse(wsi, HTTP_STATUS_SERVICE_UNAVAILABLE, "There is no daemon.");
  }
  return ReplyText(wsi, connection, text, "text/plain; version=0.0.4");
}

/// "FOLDER/FILE" of what the flight recorder has kept.
int Server::Impl::ReplyFile(lws* wsi, const std::string& name) {
  const size_t slash = std::min(name.find('/'), name.size());
  const auto path =
      hub_.keeper().FileOf(name.substr(0, slash), name.substr(std::min(slash + 1, name.size())));
  if (!path || access(path->c_str(), R_OK) != 0) {
    return Refuse(wsi, HTTP_STATUS_NOT_FOUND, "There is no such page.");
  }
  const int sent = lws_serve_http_file(wsi, path->c_str(), "application/octet-stream", nullptr, 0);
  return sent < 0 || (sent > 0 && lws_http_transaction_completed(wsi) != 0) ? -1 : 0;
}

int Server::Impl::ReplyText(lws* wsi, Connection& connection, const std::string& text,
                            const char* type) {
  std::array<unsigned char, LWS_PRE + 1024> head;
  unsigned char* const start = head.data() + LWS_PRE;
  unsigned char* at = start;
  unsigned char* const end = head.data() + head.size();
  if (lws_add_http_common_headers(wsi, HTTP_STATUS_OK, type, text.size(), &at, end) != 0 ||
      lws_finalize_write_http_header(wsi, start, &at, end) != 0) {
    return 1;
  }
  delete std::exchange(connection.page, new std::string(LWS_PRE, '\0'));
  *connection.page += text;
  lws_callback_on_writable(wsi);
  return 0;
}

int Server::Impl::SendReply(lws* wsi, Connection& connection) {
  if (connection.page == nullptr) return lws_http_transaction_completed(wsi);
  const std::unique_ptr<std::string> page(std::exchange(connection.page, nullptr));
  auto* const text = reinterpret_cast<unsigned char*>(page->data()) + LWS_PRE;
  const size_t length = page->size() - LWS_PRE;
  if (lws_write(wsi, text, length, LWS_WRITE_HTTP_FINAL) != static_cast<int>(length)) return -1;
  return lws_http_transaction_completed(wsi);
}

int Server::Impl::OnSocket(lws* wsi, lws_callback_reasons reason, Connection* connection, void* in,
                           size_t length) {
  switch (reason) {
    case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
      return MayAsk(wsi) && pages_.size() < kMostSessions ? 0 : 1;
    case LWS_CALLBACK_ESTABLISHED:
      *connection = {.session = new Session(hub_), .taken = new std::string(), .page = nullptr};
      pages_.insert(wsi);
      lws_set_timer_usecs(wsi, kEnterWithin_s * LWS_USEC_PER_SEC);
      Schedule();
      return 0;
    case LWS_CALLBACK_TIMER:
      return connection->session->known() ? 0 : -1;
    case LWS_CALLBACK_RECEIVE:
      return Take(wsi, *connection, {static_cast<const char*>(in), length});
    case LWS_CALLBACK_SERVER_WRITEABLE:
      return Send(wsi, *connection);
    case LWS_CALLBACK_CLOSED:
      pages_.erase(wsi);
      delete std::exchange(connection->session, nullptr);
      delete std::exchange(connection->taken, nullptr);
      return 0;
    default:
      return 0;
  }
}

int Server::Impl::Take(lws* wsi, Connection& connection, std::string_view part) {
  std::string& taken = *connection.taken;
  const size_t size = taken.size() + part.size();
  const bool fits = size <= kLongestMessage && lws_frame_is_binary(wsi) == 0 &&
                    lws_remaining_packet_payload(wsi) <= kLongestMessage - size;
  try {
    if (!fits) throw Refusal("a message is binary, or too long");
    taken.append(part);
    if (lws_is_final_fragment(wsi) == 0 || lws_remaining_packet_payload(wsi) > 0) return 0;
    connection.session->Take(std::exchange(taken, {}));
  } catch (const Refusal& refusal) {
    std::string text = refusal.what();
    text.resize(std::min(text.size(), kLongestReason));
    lws_close_reason(wsi, LWS_CLOSE_STATUS_POLICY_VIOLATION,
                     reinterpret_cast<unsigned char*>(text.data()), text.size());
    return -1;
  }
  lws_callback_on_writable(wsi);
  return 0;
}

int Server::Impl::Send(lws* wsi, Connection& connection) {
  while (const auto message = connection.session->Next(Session::Clock::now())) {
    std::string bytes(LWS_PRE, '\0');
    bytes += message->data;
    const int sent =
        lws_write(wsi, reinterpret_cast<unsigned char*>(bytes.data()) + LWS_PRE,
                  message->data.size(), message->binary ? LWS_WRITE_BINARY : LWS_WRITE_TEXT);
    if (sent < static_cast<int>(message->data.size())) return -1;
    if (lws_send_pipe_choked(wsi) == 0) continue;
    lws_callback_on_writable(wsi);
    return 0;
  }
  return 0;
}

void Server::Impl::AskAll() {
  for (lws* const page : pages_) lws_callback_on_writable(page);
}

/// While there are pages, each tick asks whether they are ready for more.
void Server::Impl::Schedule() {
  const auto on_tick = [](lws_sorted_usec_list_t* list) {
    Impl& server = *reinterpret_cast<Tick*>(list)->server;
    server.AskAll();
    if (!server.pages_.empty()) server.Schedule();
  };
  lws_sul_schedule(context_, 0, &tick_.list, on_tick, kTick_us);
}

Server::Server(Listen listen, Hub::Options options)
    : impl_(std::make_unique<Impl>(std::move(listen), std::move(options))) {}

Server::~Server() = default;

int Server::port() const {
  return impl_->port();
}

void Server::Run() {
  impl_->Run();
}

void Server::Stop() {
  impl_->Stop();
}

}  // namespace kvox::web
