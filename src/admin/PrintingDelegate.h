#pragma once

#include <atomic>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::admin {

// The local object that `ambrant call` hands an agent for {"$delegate":{}}: it answers every
// selector, printing it and its arguments (JSON) as one line, "delegate SELECTOR [ARGUMENTS]",
// and answers null. Calls arrive on the connection's worker threads; each line is written
// whole.
class PrintingDelegate : public plist::RemoteObject {
public:
  explicit PrintingDelegate(std::ostream& out) : out_(out) {}

  std::string description() const override { return "<ambrant delegate>"; }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string&) override { return true; }

  std::size_t calls() const { return calls_; }

private:
  std::ostream& out_;
  std::atomic<std::size_t> calls_{0};
};

} // namespace kestrin::admin
