#include "foundation/QVException.h"

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include <cxxabi.h>
#include <fmt/format.h>

#include "foundation/QVLog.h"

namespace kestrin {

std::string QVException::logException(const std::exception& exception, const char* method) {
  std::string text = fmt::format("Exception in {}. {} - {}.", method != nullptr ? method : "",
                                 name(exception), exception.what());
  QVLog::appendLogAndPrint("{}", text);
  return text;
}

bool QVException::didTimeout(const std::exception& exception) {
  return dynamic_cast<const PortTimeoutException*>(&exception) != nullptr;
}

std::string QVException::name(const std::exception& exception) {
  if (const auto* named = dynamic_cast<const NamedException*>(&exception)) {
    return named->name();
  }
  const char* mangled = typeid(exception).name();
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

} // namespace kestrin
