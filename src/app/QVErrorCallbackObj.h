#pragma once

#include <memory>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin {

class MainLoop;

// The forwarder vended on the machine-local callback endpoint, through which the maker's tools
// on this machine post errors, progress and their end into the error channel. Each call is
// passed to the delegate (the controller's root object) on the main thread, the caller waiting;
// a selector the delegate lacks is skipped without a word.
class QVErrorCallbackObj : public plist::RemoteObject {
public:
  QVErrorCallbackObj(std::weak_ptr<plist::RemoteObject> delegate, MainLoop& mainLoop)
      : delegate_(std::move(delegate)), mainLoop_(mainLoop) {}

  std::string description() const override { return "<QVErrorCallbackObj>"; }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string& selector) override;

  // The delegate's selector for one of ours ("postDisconnect" asks for "disconnect"), or
  // nullptr when the selector is not one of the forwarder's.
  static const char* delegateSelector(const std::string& selector);

private:
  std::weak_ptr<plist::RemoteObject> delegate_;
  MainLoop& mainLoop_;
};

} // namespace kestrin
