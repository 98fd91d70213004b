#include "admin/console/ConsoleServer.h"

#include <atomic>
#include <csignal>
#include <set>

#include <kj/async-io.h>
#include <kj/async-unix.h>
#include <kj/compat/http.h>
#include <kj/compat/url.h>

#include <fmt/format.h>

#include "admin/CommandLine.h"
#include "admin/CredentialPlaceholders.h"
#include "admin/JsonValue.h"
#include "admin/PluginCommands.h"
#include "admin/console/ConsoleFiles.h"
#include "foundation/WorkerPool.h"
#include "support/NamedException.h"
#include "transport/TlsStream.h"

namespace kestrin::admin {

namespace {

using plist::Value;
using namespace std::chrono_literals;

// A request's body: a call's arguments, a password. Plug-ins travel agent to agent, never
// through the browser.
constexpr std::size_t kMaxBody = 1 << 20;
constexpr std::size_t kMaxWebSocketMessage = 4096;
// Messages a page may send on its WebSocket each second; it needs none.
constexpr int kWebSocketMessagesPerSecond = 20;
// Work waiting for the agents at once; beyond it the console is busy, not slower.
constexpr int kMaxPending = 256;
constexpr const char* kSessionCookie = "kestrin-session";
// The agents' code for a name and password that did not pass.
constexpr std::int64_t kIncorrectPassword = 1006;

const std::set<std::string_view> kAllowedSelectors = {
    // reading
    "ping", "hostName", "clientVersionString", "initialConfiguration", "systemSpecs",
    "ambrantAppInfo", "finalCutStudioAppInfo", "vantryPluginTree", "vantryPluginList",
    "populateQVLogFilenames", "logWithFilename:", "gatherLogs",
    "crashLogObjectsForFiles:", "tovellGetDefinition:", "qmasterClusters", "qmasterJobs",
    "tibbetTaskDictionary", "qvAppTasks", "feldaneBackups", "listQuorvaneSoftwareUpdates",
    "softwareUpdateAvailableUpdateCount", "ambrantSettings", "operationSignatures",
    // the everyday actions
    "executeTask:bundleID:options:", "authExecuteTask:bundleID:options:username:password:",
    "authWithDict:", "vantryEnablePlugin:settings:", "launchApp:", "terminateApp:", "forceQuitApp:",
    "feldaneBackup:type:", "feldaneRestoreLocalBackup:", "installQuorvaneSoftwareUpdate:settings:",
    "forceSoftwareUpdateCheck",
    "tibbetEnableTask:settings:", "hembryRunTasks:", "orrickTrashCaches:settings:",
    "qmasterJobPause:", "qmasterJobResume:", "qmasterJobTerminate:", "cancelProcessing"};

struct Reply {
  unsigned status = 200;
  std::string contentType = "application/json";
  std::string body;
  std::string setCookie;
  std::string disposition;
};

Reply json(unsigned status, const Value& value) {
  return {status, "application/json", jsonFromValue(value), {}, {}};
}

Reply error(unsigned status, const std::string& message) {
  return json(status, plist::Dictionary{{"error", message}});
}

const char* statusText(unsigned status) {
  switch (status) {
  case 200:
    return "OK";
  case 204:
    return "No Content";
  case 400:
    return "Bad Request";
  case 401:
    return "Unauthorized";
  case 403:
    return "Forbidden";
  case 404:
    return "Not Found";
  case 405:
    return "Method Not Allowed";
  case 413:
    return "Payload Too Large";
  case 428:
    return "Precondition Required";
  case 502:
    return "Bad Gateway";
  case 503:
    return "Service Unavailable";
  }
  return "Error";
}

std::string contentTypeOf(std::string_view name) {
  if (name.ends_with(".html")) {
    return "text/html; charset=utf-8";
  }
  if (name.ends_with(".js")) {
    return "text/javascript; charset=utf-8";
  }
  if (name.ends_with(".css")) {
    return "text/css; charset=utf-8";
  }
  return "application/octet-stream";
}

std::optional<std::string> cookieValue(kj::Maybe<kj::StringPtr> header, std::string_view name) {
  KJ_IF_MAYBE (text, header) {
    std::string_view cookies(text->cStr(), text->size());
    while (!cookies.empty()) {
      std::size_t end = cookies.find(';');
      std::string_view pair = cookies.substr(0, end);
      while (!pair.empty() && pair.front() == ' ') {
        pair.remove_prefix(1);
      }
      if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=') {
        return std::string(pair.substr(name.size() + 1));
      }
      if (end == std::string_view::npos) {
        break;
      }
      cookies.remove_prefix(end + 1);
    }
  }
  return std::nullopt;
}

const std::string* stringMember(const plist::Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value ? value->asString() : nullptr;
}

// A name fit for a downloaded file: the last part of the log's path, nothing that quotes.
std::string downloadName(const std::string& path) {
  std::string name = path.substr(path.find_last_of('/') + 1);
  for (char& c : name) {
    if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_')) {
      c = '_';
    }
  }
  return name.empty() ? "log.txt" : name;
}

class IgnoreErrors : public kj::TaskSet::ErrorHandler {
public:
  void taskFailed(kj::Exception&&) override {}
};

} // namespace

bool ConsoleServer::allowedSelector(std::string_view selector) {
  return kAllowedSelectors.contains(selector);
}

class ConsoleServer::Service final : public kj::HttpService {
public:
  Service(ConsoleServer& server, kj::Timer& timer, kj::HttpHeaderTable::Builder& builder)
      : server_(server), timer_(timer), cookie_(builder.add("Cookie")),
        setCookie_(builder.add("Set-Cookie")), marker_(builder.add("X-Kestrin-Console")),
        origin_(builder.add("Origin")), policy_(builder.add("Content-Security-Policy")),
        sniffing_(builder.add("X-Content-Type-Options")), framing_(builder.add("X-Frame-Options")),
        referrer_(builder.add("Referrer-Policy")), caching_(builder.add("Cache-Control")),
        disposition_(builder.add("Content-Disposition")) {}

  void setTable(const kj::HttpHeaderTable& table) { table_ = &table; }
  void setPort(int port) { port_ = port; }

  kj::Promise<void> request(kj::HttpMethod method, kj::StringPtr url,
                            const kj::HttpHeaders& headers, kj::AsyncInputStream& body,
                            Response& response) override {
    std::string path;
    std::map<std::string, std::string> query;
    try {
      kj::Url parsed = kj::Url::parse(url, kj::Url::HTTP_REQUEST);
      for (const kj::String& part : parsed.path) {
        path += '/';
        path += part.cStr();
      }
      for (const auto& parameter : parsed.query) {
        query[parameter.name.cStr()] = parameter.value.cStr();
      }
    } catch (const kj::Exception&) {
      return send(response, error(400, "not a URL"));
    }
    if (path.empty()) {
      path = "/";
    }
    if (!hostAllowed(headers)) {
      return send(response, error(403, "this console answers only under its own address"));
    }
    bool created = false;
    std::string session =
        server_.access_.session(cookieValue(headers.get(cookie_), kSessionCookie), created);
    std::string setCookie =
        created ? fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict{}", kSessionCookie, session,
                              server_.options_.identity ? "; Secure" : "")
                : "";
    auto withCookie = [setCookie](Reply reply) {
      reply.setCookie = setCookie;
      return reply;
    };

    if (!path.starts_with("/api/")) {
      if (method != kj::HttpMethod::GET) {
        return send(response, withCookie(error(405, "pages are only read")));
      }
      const ConsoleFile* file = consoleFile(path == "/" ? "index.html" : path.substr(1));
      if (file == nullptr) {
        return send(response, withCookie(error(404, "no such page")));
      }
      Reply page{200,
                 contentTypeOf(file->name),
                 std::string(reinterpret_cast<const char*>(file->bytes), file->size),
                 {},
                 {}};
      return send(response, withCookie(std::move(page)));
    }

    if (path == "/api/live") {
      if (!headers.isWebSocket() || !sameOrigin(headers)) {
        return send(response, withCookie(error(403, "a WebSocket from this console's page only")));
      }
      if (!server_.access_.mayUse(session)) {
        return send(response, withCookie(error(401, "log in first")));
      }
      return live(response);
    }
    // Another site's page cannot send this header without asking first, and is never told yes.
    bool marked = headers.get(marker_) != nullptr;
    if (path == "/api/log" && method == kj::HttpMethod::GET) {
      // A download is a navigation, without the header: the session must exist already.
      marked = !created;
    }
    if (!marked || !sameOrigin(headers)) {
      return send(response, withCookie(error(403, "API requests come from the console's page")));
    }
    if (path == "/api/login" && method == kj::HttpMethod::POST) {
      return readBody(body,
                      [this, session](plist::Dictionary request) {
                        const std::string* password = stringMember(request, "password");
                        if (password == nullptr || !server_.access_.logIn(session, *password)) {
                          return error(401, "wrong console password");
                        }
                        return Reply{204, "", "", {}, {}};
                      })
          .then([this, &response, withCookie](Reply reply) {
            return send(response, withCookie(std::move(reply)));
          });
    }
    if (!server_.access_.mayUse(session)) {
      return send(response, withCookie(error(401, "log in first")));
    }
    return route(method, path, query, session, body)
        .then([this, &response, withCookie](Reply reply) {
          return send(response, withCookie(std::move(reply)));
        });
  }

private:
  kj::Promise<Reply> route(kj::HttpMethod method, const std::string& path,
                           const std::map<std::string, std::string>& query,
                           const std::string& session, kj::AsyncInputStream& body) {
    ConsoleFleet& fleet = server_.fleet_;
    ConsoleAccess& access = server_.access_;
    bool get = method == kj::HttpMethod::GET;
    bool post = method == kj::HttpMethod::POST;
    if (path == "/api/state" && get) {
      return stateReply(session);
    }
    if (path == "/api/events" && get) {
      std::uint64_t after = 0;
      if (auto it = query.find("after"); it != query.end()) {
        after = std::strtoull(it->second.c_str(), nullptr, 10);
      }
      std::uint64_t newest = 0;
      plist::Array events = fleet.eventsAfter(after, newest);
      return json(200, plist::Dictionary{{"events", events},
                                         {"newest", static_cast<std::int64_t>(newest)}});
    }
    if (path == "/api/refresh" && post) {
      fleet.lookSoon();
      return Reply{204, "", "", {}, {}};
    }
    if (path == "/api/credentials" && method == kj::HttpMethod::DELETE) {
      access.forgetCredentials(session);
      return Reply{204, "", "", {}, {}};
    }
    if (path == "/api/credentials" && post) {
      return readBody(body, [&access, session](plist::Dictionary request) {
        const std::string* user = stringMember(request, "user");
        const std::string* password = stringMember(request, "password");
        if (user == nullptr || user->empty() || password == nullptr) {
          return error(400, "a user and a password, please");
        }
        access.setCredentials(session, *user, SecretBuffer::copyOf(*password));
        return Reply{204, "", "", {}, {}};
      });
    }
    if (path == "/api/seen" && post) {
      return readBody(body, [&fleet](plist::Dictionary request) {
        if (const std::string* agent = stringMember(request, "agent")) {
          fleet.markSeen(*agent);
        }
        return Reply{204, "", "", {}, {}};
      });
    }
    if (path == "/api/call" && post) {
      return readBody(body, [this, session](plist::Dictionary request) {
        return offLoop([this, session, request] { return call(session, request); });
      });
    }
    if (path == "/api/copy-plugin" && post) {
      return readBody(body, [this](plist::Dictionary request) {
        return offLoop([this, request] { return copyPlugin(request); });
      });
    }
    if (path == "/api/log" && get) {
      auto agent = query.find("agent");
      auto name = query.find("name");
      if (agent == query.end() || name == query.end()) {
        return error(400, "which agent and which log?");
      }
      return offLoop(
          [this, where = agent->second, name = name->second] { return download(where, name); });
    }
    static const std::set<std::string> known = {"/api/state",       "/api/events", "/api/refresh",
                                                "/api/credentials", "/api/seen",   "/api/call",
                                                "/api/copy-plugin", "/api/log",    "/api/login"};
    return known.contains(path) ? error(405, "not with this method") : error(404, "no such route");
  }

  Reply stateReply(const std::string& session) const {
    return json(200, plist::Dictionary{
                         {"agents", server_.fleet_.rows()},
                         {"generation", static_cast<std::int64_t>(server_.fleet_.rowsGeneration())},
                         {"credentials", server_.access_.hasCredentials(session)}});
  }

  // The body as a JSON dictionary, refused past its limit, then `handle` (which may answer a
  // promise of its own).
  template <typename Handle>
  kj::Promise<Reply> readBody(kj::AsyncInputStream& body, Handle handle) {
    KJ_IF_MAYBE (length, body.tryGetLength()) {
      if (*length > kMaxBody) {
        return error(413, fmt::format("a request body holds at most {} bytes", kMaxBody));
      }
    }
    return body.readAllText(kMaxBody + 1)
        .then(
            [handle = std::move(handle)](kj::String text) mutable -> kj::Promise<Reply> {
              if (text.size() > kMaxBody) {
                return error(413, fmt::format("a request body holds at most {} bytes", kMaxBody));
              }
              auto value = valueFromJson(std::string_view(text.cStr(), text.size()));
              if (!value || value->asDictionary() == nullptr) {
                return error(400, "the body is not a JSON object");
              }
              return kj::Promise<Reply>(handle(*value->asDictionary()));
            },
            [](kj::Exception&&) -> kj::Promise<Reply> {
              return error(413, fmt::format("a request body holds at most {} bytes", kMaxBody));
            });
  }

  // Work that waits for agents runs on the pool; the loop only hears the answer.
  kj::Promise<Reply> offLoop(std::function<Reply()> work) {
    if (pending_.load() >= kMaxPending) {
      return error(503, "the console is busy; try again");
    }
    auto pair = kj::newPromiseAndCrossThreadFulfiller<Reply>();
    auto fulfiller =
        std::make_shared<kj::Own<kj::CrossThreadPromiseFulfiller<Reply>>>(kj::mv(pair.fulfiller));
    ++pending_;
    bool queued = workers_.submit([this, fulfiller, work = std::move(work)] {
      Reply reply;
      try {
        reply = work();
      } catch (const std::exception& e) {
        reply = error(502, e.what());
      }
      --pending_;
      (*fulfiller)->fulfill(std::move(reply));
    });
    if (!queued) {
      --pending_;
      return error(503, "the console is stopping");
    }
    return kj::mv(pair.promise);
  }

  Reply call(const std::string& session, const plist::Dictionary& request) {
    const std::string* agent = stringMember(request, "agent");
    const std::string* selector = stringMember(request, "selector");
    if (agent == nullptr || selector == nullptr) {
      return error(400, "a call names an agent and a selector");
    }
    if (!allowedSelector(*selector)) {
      return error(403, "the console does not call " + *selector);
    }
    std::vector<Value> arguments;
    if (const Value* given = request.find("arguments")) {
      const plist::Array* array = given->asArray();
      if (array == nullptr) {
        return error(400, "arguments are an array");
      }
      arguments.assign(array->begin(), array->end());
    }
    auto credentials = server_.access_.credentials(session);
    bool missing = false;
    for (Value& argument : arguments) {
      replacePlaceholders(argument, [&](std::string_view placeholder) -> Value {
        if (!credentials) {
          missing = true;
          return {};
        }
        return credentialValue(placeholder, credentials->first, credentials->second);
      });
    }
    if (missing) {
      return error(428, "this needs an administrator's name and password");
    }
    std::shared_ptr<AdminClient> client = server_.fleet_.client(*agent);
    if (!client) {
      return error(404, *agent + " is not connected");
    }
    try {
      Value answer = client->call(*selector, arguments);
      plist::Dictionary reply{{"answer", answer}};
      // An error answered is told in the console's own words, as the events are.
      if (const plist::ErrorRecord* failure = answer.asError()) {
        if (auto text = QVErrorCallback::descriptionForError(*failure)) {
          reply.set("errorText", *text);
        }
        if (failure->code == kIncorrectPassword) {
          server_.access_.forgetCredentials(session);
        }
      }
      return json(200, reply);
    } catch (const NamedException& e) {
      return error(502, fmt::format("{}: {}", e.name(), e.what()));
    }
  }

  Reply copyPlugin(const plist::Dictionary& request) {
    const std::string* from = stringMember(request, "from");
    const std::string* path = stringMember(request, "path");
    const Value* to = request.find("to");
    if (from == nullptr || path == nullptr || to == nullptr || to->asArray() == nullptr) {
      return error(400, "from, path and to, please");
    }
    std::shared_ptr<AdminClient> source = server_.fleet_.client(*from);
    if (!source) {
      return error(404, *from + " is not connected");
    }
    plist::Array results;
    for (const Value& target : *to->asArray()) {
      const std::string* where = target.asString();
      if (where == nullptr) {
        continue;
      }
      plist::Dictionary result{{"agent", *where}};
      std::shared_ptr<AdminClient> destination = server_.fleet_.client(*where);
      try {
        if (!destination) {
          throw CommandFailure(kExitUnreachable, *where + " is not connected");
        }
        result.set("installed", admin::copyPlugin(*source, *from, *destination, *where, *path));
      } catch (const std::exception& e) {
        result.set("error", std::string(e.what()));
      }
      results.push_back(std::move(result));
    }
    return json(200, plist::Dictionary{{"results", results}});
  }

  Reply download(const std::string& where, const std::string& name) {
    std::shared_ptr<AdminClient> client = server_.fleet_.client(where);
    if (!client) {
      return error(404, where + " is not connected");
    }
    Value logs = client->call("gatherLogs");
    const plist::Dictionary* found = logs.asDictionary();
    // Only a name the agent itself gave: nothing here is ever a path on this machine.
    const Value* log = found ? found->find(name) : nullptr;
    if (log == nullptr || log->asData() == nullptr) {
      return error(404, "the agent has no log of that name");
    }
    const plist::Data& bytes = *log->asData();
    return Reply{200,
                 "text/plain; charset=utf-8",
                 std::string(bytes.begin(), bytes.end()),
                 {},
                 fmt::format("attachment; filename=\"{}\"", downloadName(name))};
  }

  // The table when it changes and the events as they come, checked five times a second.
  kj::Promise<void> live(Response& response) {
    kj::HttpHeaders headers(*table_);
    auto socket = response.acceptWebSocket(headers);
    auto state = kj::heap<LiveState>();
    kj::WebSocket& ws = *socket;
    LiveState& live = *state;
    return push(ws, live).exclusiveJoin(listen(ws, live)).attach(kj::mv(socket), kj::mv(state));
  }

  struct LiveState {
    std::uint64_t generation = 0;
    std::uint64_t event = 0;
    int messages = 0;
    kj::TimePoint windowStart = kj::origin<kj::TimePoint>();
  };

  kj::Promise<void> push(kj::WebSocket& ws, LiveState& live) {
    std::vector<std::string> messages;
    std::uint64_t generation = server_.fleet_.rowsGeneration();
    if (generation != live.generation) {
      live.generation = generation;
      messages.push_back(
          jsonFromValue(plist::Dictionary{{"type", "state"}, {"agents", server_.fleet_.rows()}}));
    }
    std::uint64_t newest = 0;
    plist::Array events = server_.fleet_.eventsAfter(live.event, newest);
    live.event = newest;
    if (!events.empty()) {
      messages.push_back(jsonFromValue(plist::Dictionary{{"type", "events"}, {"events", events}}));
    }
    kj::Promise<void> sent = kj::READY_NOW;
    for (std::string& message : messages) {
      auto text = kj::heapString(message.data(), message.size());
      sent = sent.then([&ws, text = kj::mv(text)]() mutable {
        return ws.send(text.asArray()).attach(kj::mv(text));
      });
    }
    return sent.then([this] { return timer_.afterDelay(200 * kj::MILLISECONDS); })
        .then([this, &ws, &live] { return push(ws, live); });
  }

  // A page sends nothing but the odd keep-alive: a flood or a huge message ends the socket.
  kj::Promise<void> listen(kj::WebSocket& ws, LiveState& live) {
    return ws.receive(kMaxWebSocketMessage)
        .then([this, &ws, &live](kj::WebSocket::Message message) -> kj::Promise<void> {
          if (message.is<kj::WebSocket::Close>()) {
            return kj::READY_NOW;
          }
          kj::TimePoint now = timer_.now();
          if (now - live.windowStart > 1 * kj::SECONDS) {
            live.windowStart = now;
            live.messages = 0;
          }
          if (++live.messages > kWebSocketMessagesPerSecond) {
            return ws.close(1008, "too many messages");
          }
          return listen(ws, live);
        });
  }

  bool hostAllowed(const kj::HttpHeaders& headers) const {
    if (server_.options_.identity) {
      return true; // beyond loopback the console password guards it, whatever name it goes by
    }
    KJ_IF_MAYBE (host, headers.get(kj::HttpHeaderId::HOST)) {
      std::string given(host->cStr());
      for (const char* name : {"127.0.0.1", "localhost", "[::1]"}) {
        if (given == fmt::format("{}:{}", name, port_)) {
          return true;
        }
      }
    }
    // A page of another name that resolves here (DNS rebinding) is turned away.
    return false;
  }

  bool sameOrigin(const kj::HttpHeaders& headers) const {
    KJ_IF_MAYBE (origin, headers.get(origin_)) {
      KJ_IF_MAYBE (host, headers.get(kj::HttpHeaderId::HOST)) {
        std::string scheme = server_.options_.identity ? "https://" : "http://";
        return std::string(origin->cStr()) == scheme + std::string(host->cStr());
      }
      return false;
    }
    return true; // not a browser's cross-site request: those always name their origin
  }

  kj::Promise<void> send(Response& response, Reply reply) {
    auto owned = kj::heap<Reply>(std::move(reply));
    kj::HttpHeaders headers(*table_);
    auto text = [](const std::string& s) { return kj::StringPtr(s.c_str(), s.size()); };
    if (!owned->contentType.empty()) {
      headers.set(kj::HttpHeaderId::CONTENT_TYPE, text(owned->contentType));
    }
    if (!owned->setCookie.empty()) {
      headers.set(setCookie_, text(owned->setCookie));
    }
    if (!owned->disposition.empty()) {
      headers.set(disposition_, text(owned->disposition));
    }
    headers.set(policy_, "default-src 'self'; connect-src 'self'; frame-ancestors 'none'");
    headers.set(sniffing_, "nosniff");
    headers.set(framing_, "DENY");
    headers.set(referrer_, "no-referrer");
    headers.set(caching_, "no-store");
    auto stream = response.send(owned->status, statusText(owned->status), headers,
                                static_cast<std::uint64_t>(owned->body.size()));
    auto written = stream->write(owned->body.data(), owned->body.size());
    return written.attach(kj::mv(stream), kj::mv(owned));
  }

  ConsoleServer& server_;
  kj::Timer& timer_;
  const kj::HttpHeaderTable* table_ = nullptr;
  int port_ = 0;
  kj::HttpHeaderId cookie_, setCookie_, marker_, origin_, policy_, sniffing_, framing_, referrer_,
      caching_, disposition_;
  WorkerPool workers_{WorkerPool::Limits{32, std::chrono::seconds(30)}};
  std::atomic<int> pending_{0};
};

ConsoleServer::ConsoleServer(ConsoleFleet& fleet, ConsoleAccess& access, Options options)
    : fleet_(fleet), access_(access), options_(std::move(options)) {}

ConsoleServer::~ConsoleServer() = default;

std::optional<std::string> ConsoleServer::run(const std::function<void(int port)>& listening) {
  kj::UnixEventPort::captureSignal(SIGINT);
  kj::UnixEventPort::captureSignal(SIGTERM);
  auto io = kj::setupAsyncIo();
  kj::Timer& timer = io.provider->getTimer();
  kj::HttpHeaderTable::Builder builder;
  auto service = kj::heap<Service>(*this, timer, builder);
  auto table = builder.build();
  service->setTable(*table);

  kj::Own<kj::ConnectionReceiver> receiver;
  try {
    auto address =
        io.provider->getNetwork().parseAddress(options_.host, options_.port).wait(io.waitScope);
    receiver = address->listen();
  } catch (const kj::Exception& e) {
    return fmt::format("cannot listen on {}:{}: {}", options_.host, options_.port,
                       e.getDescription().cStr());
  }
  int port = static_cast<int>(receiver->getPort());
  service->setPort(port);
  kj::HttpServer server(timer, *table, *service);
  listening(port);

  IgnoreErrors ignore;
  kj::TaskSet connections(ignore);
  kj::Promise<void> serving = nullptr;
  // Both live as long as the serving does: the accepting refers to them.
  std::shared_ptr<const transport::TlsContext> tls;
  std::function<kj::Promise<void>()> accept;
  if (options_.identity) {
    auto context =
        transport::TlsContext::make(transport::TlsContext::Side::Server, options_.identity);
    if (!context) {
      return "cannot set up TLS: " + context.message();
    }
    tls = *context;
    // Each connection's handshake on its own, within a limit, so a silent peer holds nothing.
    accept = [&]() -> kj::Promise<void> {
      return receiver->accept().then([&](kj::Own<kj::AsyncIoStream> stream) {
        connections.add(timer
                            .timeoutAfter(10 * kj::SECONDS,
                                          transport::TlsStream::handshake(kj::mv(stream), tls))
                            .then([&server](kj::Own<transport::TlsStream> secured) {
                              return server.listenHttp(kj::mv(secured));
                            }));
        return accept();
      });
    };
    serving = accept();
  } else {
    serving = server.listenHttp(*receiver);
  }
  auto stop = io.unixEventPort.onSignal(SIGINT).ignoreResult().exclusiveJoin(
      io.unixEventPort.onSignal(SIGTERM).ignoreResult());
  serving.exclusiveJoin(kj::mv(stop)).wait(io.waitScope);
  return std::nullopt;
}

} // namespace kestrin::admin
