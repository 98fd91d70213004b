#pragma once

#include <functional>
#include <memory>
#include <string>

#include "admin/console/ConsoleAccess.h"
#include "admin/console/ConsoleFleet.h"
#include "transport/TlsIdentity.h"

namespace kestrin::admin {

// The browser console's web server: its pages, a JSON API over the fleet, and a WebSocket that
// pushes the table's changes and the agents' events.
//
// Routes (API requests carry the header "X-Kestrin-Console: 1", which no other site's page can
// send without this server's consent, and name this server in Host):
//   GET  /, /console.js, /console.css       the pages
//   GET  /api/state                         the table, and whether the session may act
//   GET  /api/events?after=N                the events numbered above N
//   GET  /api/live                          WebSocket: {"type":"state"|"events", ...}
//   POST /api/login {"password"}            the console password (beyond loopback)
//   POST /api/credentials {"user","password"}, DELETE /api/credentials
//   POST /api/call {"agent","selector","arguments"}   one operation on one agent
//   POST /api/copy-plugin {"from","path","to":[...]}  a plug-in onto other agents
//   POST /api/seen {"agent"}, POST /api/refresh
//   GET  /api/log?agent=A&name=N            one of the agent's logs, as a download
class ConsoleServer {
public:
  struct Options {
    std::string host = "127.0.0.1";
    int port = 8750;
    // TLS with this identity; null serves plain HTTP (loopback only).
    std::shared_ptr<const transport::TlsIdentity> identity;
  };

  ConsoleServer(ConsoleFleet& fleet, ConsoleAccess& access, Options options);
  ~ConsoleServer();

  // Serves until SIGINT or SIGTERM; `listening` hears the port once it is bound. Answers a
  // message when the address cannot be bound.
  std::optional<std::string> run(const std::function<void(int port)>& listening);

  // The operations a page may call: reading, and the everyday actions.
  static bool allowedSelector(std::string_view selector);

private:
  class Service;
  ConsoleFleet& fleet_;
  ConsoleAccess& access_;
  Options options_;
};

} // namespace kestrin::admin
