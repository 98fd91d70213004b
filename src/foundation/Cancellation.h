#pragma once

#include <functional>

namespace kestrin {

// Whether the work of the current thread is still wanted. A remote call runs under a Scope that
// asks whether its caller is still connected; long work (a walk of the file system) asks
// requested() as it goes and stops early once the answer is yes, so a caller that has gone
// does not keep a core busy. Work under no scope is always wanted. Work handed to another
// thread opens a scope of its own there if it should stop too.
class Cancellation {
public:
  class Scope {
  public:
    // `cancelled` is asked from this thread only, while the scope lives; it must be quick.
    explicit Scope(std::function<bool()> cancelled);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

  private:
    friend class Cancellation;
    std::function<bool()> cancelled_;
    Scope* outer_;
  };

  // True once any scope open on this thread says its work is no longer wanted.
  static bool requested();
};

} // namespace kestrin
