#pragma once

#include <cstddef>

namespace kestrin::plist {

// How much one read may take in and build. Every reader of property lists and of the admin
// client's JSON takes one, so that a caller with a tighter budget (a remote call, a connection)
// can pass its own; the defaults suit a settings file, a bundle's Info.plist or a tool's output.
// A read past any limit is a Failure naming the limit, decided before the value is built where
// the format allows sharing (binary property lists), so a small input cannot expand into a
// large tree first.
struct ReadLimits {
  // Deeper values cannot be written back or torn down without risking the stack: a larger
  // maxDepth counts as this one.
  static constexpr int kDepthCeiling = 512;

  // Bytes of input, and bytes of text and data built from it (a binary property list can refer
  // to one string many times).
  std::size_t maxBytes = std::size_t{16} << 20;
  // Containers inside one another: the top-level value is at depth 0.
  int maxDepth = kDepthCeiling;
  // Values and dictionary keys built.
  std::size_t maxNodes = std::size_t{1} << 20;

  int depthLimit() const { return maxDepth < kDepthCeiling ? maxDepth : kDepthCeiling; }
};

} // namespace kestrin::plist
