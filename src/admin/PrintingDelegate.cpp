#include "admin/PrintingDelegate.h"

#include <mutex>

#include "admin/EventPrinter.h"
#include "admin/JsonValue.h"

namespace kestrin::admin {

plist::Value PrintingDelegate::invoke(const std::string& selector,
                                      std::vector<plist::Value> arguments) {
  std::string line = "delegate ";
  for (char c : selector) {
    line += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
  }
  // JSON escapes line ends, so the arguments never break the line.
  line += ' ';
  line += jsonFromValue(plist::Value(plist::Array(arguments.begin(), arguments.end())));
  line += '\n';
  {
    // Events print on the same stream: whole lines only.
    std::lock_guard lock(outputLock());
    out_ << line << std::flush;
  }
  ++calls_;
  return {};
}

} // namespace kestrin::admin
