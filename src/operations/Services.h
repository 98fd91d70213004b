#pragma once

namespace kestrin {
class ExceptionGuard;
class NotificationHub;
class PreferenceFile;
class QVAuthorization;
class QVLocalPaths;
class Timer;
class WorkerPool;
namespace platform {
class ToolTable;
class Workspace;
} // namespace platform
} // namespace kestrin

namespace kestrin::operations {

class AgentBundle;
class AgentControl;
class AgentIcons;
class ApplicationCatalog;
class CallbackRelay;
class CredentialThrottle;
class ErrorChannel;

// Everything that groups of remote operations may use, built from explicit parts by the
// agent's controller (or by a test, with a throwaway machine and a ManualClock). A group takes
// from here only what it uses, in its constructor. All of it outlives the groups; the struct
// itself holds only references, so copies of it may be kept.
struct Services {
  const QVLocalPaths& paths;
  const platform::ToolTable& tools;
  // Deadlines and time limits; timer.clock() is the agent's clock.
  Timer& timer;
  WorkerPool& workers;
  const ExceptionGuard& guard;
  ErrorChannel& errorChannel;
  QVAuthorization& authorization;
  // Every check of a caller's credentials goes through here, never to authorization directly.
  CredentialThrottle& credentials;
  const platform::Workspace& workspace;
  ApplicationCatalog& applications;
  PreferenceFile& settings;
  const AgentBundle& bundle;
  AgentIcons& icons;
  NotificationHub& notifications;
  CallbackRelay& callbackRelay;
  AgentControl& agent;
};

} // namespace kestrin::operations
