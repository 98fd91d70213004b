#include "platform/AlternateSignalStack.h"

#include <csignal>

#include <sys/mman.h>

namespace kestrin::platform {

AlternateSignalStack::AlternateSignalStack() {
  stack_t current{};
  if (::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) {
    return;
  }
  void* memory = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED) {
    return;
  }
  stack_t stack{};
  stack.ss_sp = memory;
  stack.ss_size = kSize;
  if (::sigaltstack(&stack, nullptr) != 0) {
    ::munmap(memory, kSize);
    return;
  }
  memory_ = memory;
}

AlternateSignalStack::~AlternateSignalStack() {
  if (memory_ == nullptr) {
    return;
  }
  stack_t off{};
  off.ss_flags = SS_DISABLE;
  ::sigaltstack(&off, nullptr);
  ::munmap(memory_, kSize);
}

} // namespace kestrin::platform
