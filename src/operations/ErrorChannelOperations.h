#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "operations/CallbackRelay.h"
#include "operations/ErrorChannel.h"
#include "operations/OperationTable.h"

namespace kestrin::operations {

// The error and progress channel's remote entry points: callback registration, events, the
// finished-task deadline and cancellation. The work is ErrorChannel's and CallbackRelay's.
class ErrorChannelOperations {
public:
  ErrorChannelOperations(ErrorChannel& channel, CallbackRelay& relay)
      : channel_(channel), relay_(relay) {}
  void registerIn(OperationTable& table);

private:
  ErrorChannel& channel_;
  CallbackRelay& relay_;
};

} // namespace kestrin::operations
