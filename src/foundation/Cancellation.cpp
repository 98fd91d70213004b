#include "foundation/Cancellation.h"

#include <utility>

namespace kestrin {

namespace {

thread_local Cancellation::Scope* innermost = nullptr;

} // namespace

Cancellation::Scope::Scope(std::function<bool()> cancelled)
    : cancelled_(std::move(cancelled)), outer_(innermost) {
  innermost = this;
}

Cancellation::Scope::~Scope() {
  innermost = outer_;
}

bool Cancellation::requested() {
  for (const Scope* scope = innermost; scope != nullptr; scope = scope->outer_) {
    if (scope->cancelled_ && scope->cancelled_()) {
      return true;
    }
  }
  return false;
}

} // namespace kestrin
