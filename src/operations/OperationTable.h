#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "operations/ArgumentDecoder.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Who made a remote call, beyond its arguments. A handler that needs it takes `const Caller&`
// as its first parameter; that parameter is no remote argument.
using Caller = plist::RemoteObject::Caller;

// The remote operations of AppController by selector ("feldaneBackup:type:"). Each group of
// operations registers its selectors, one line each, as member functions with real parameter
// types: the table reads every argument by its parameter's type (ArgumentDecoder) and refuses
// a wrong kind with a clear error before the handler runs. A selector's colons must match its
// handler's parameters; a mismatch is our own bug and throws std::logic_error at registration.
class OperationTable {
public:
  using Handler = std::function<plist::Value(const Caller&, const std::vector<plist::Value>&)>;

  struct Operation {
    std::string selector;
    Handler handler;
    // What the operation answers when its body fails with an exception: nil, 0, NO or
    // "Unknown", as each operation documents.
    plist::Value neutral;
    std::vector<std::string> argumentKinds; // "a string", "an array or null", ...
  };

  // A member function of a group that outlives the table.
  template <typename Group, typename Method>
  void add(std::string selector, Group& group, Method method, plist::Value neutral = {}) {
    using Traits = MethodTraits<Method>;
    addTyped(
        std::move(selector), typename Traits::Parameters{},
        std::type_identity<typename Traits::Result>{},
        [&group, method](auto&&... args) -> decltype(auto) {
          return (group.*method)(std::forward<decltype(args)>(args)...);
        },
        std::move(neutral));
  }

  // A function object (a lambda) with typed parameters.
  template <typename Function>
  void add(std::string selector, Function function, plist::Value neutral = {}) {
    using Traits = MethodTraits<decltype(&Function::operator())>;
    addTyped(std::move(selector), typename Traits::Parameters{},
             std::type_identity<typename Traits::Result>{}, std::move(function),
             std::move(neutral));
  }

  const Operation* find(std::string_view selector) const;
  std::vector<std::string> selectors() const;
  std::size_t size() const { return operations_.size(); }

  // The arguments a selector takes: one per colon.
  static std::size_t argumentCount(std::string_view selector) {
    return static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
  }

private:
  template <typename... P> struct TypeList {};

  template <typename M> struct MethodTraits;
  template <typename C, typename R, typename... P> struct MethodTraits<R (C::*)(P...)> {
    using Result = R;
    using Parameters = TypeList<P...>;
  };
  template <typename C, typename R, typename... P> struct MethodTraits<R (C::*)(P...) const> {
    using Result = R;
    using Parameters = TypeList<P...>;
  };

  template <typename R> static plist::Value resultValue(R&& result) {
    using Plain = std::remove_cvref_t<R>;
    if constexpr (IsOptionalArgument<Plain>::value) {
      return result ? plist::Value(std::move(*result)) : plist::Value();
    } else {
      return plist::Value(std::forward<R>(result));
    }
  }

  template <typename R, typename... P, typename Function, std::size_t... I, typename... Prefix>
  static plist::Value call([[maybe_unused]] std::string_view selector, Function& function,
                           [[maybe_unused]] const std::vector<plist::Value>& values,
                           std::index_sequence<I...>, Prefix&... prefix) {
    // Braced initialisation decodes left to right: the first wrong argument is the one named.
    std::tuple<ParameterType<P>...> decoded{
        ArgumentDecoder<ParameterType<P>>::decode(values[I], ArgumentPosition{selector, I})...};
    if constexpr (std::is_void_v<R>) {
      function(prefix..., std::move(std::get<I>(decoded))...);
      return {};
    } else {
      return resultValue(function(prefix..., std::move(std::get<I>(decoded))...));
    }
  }

  template <typename R, typename... P, typename Function>
  Handler bind(const std::string& selector, Function function, TypeList<P...>) {
    return [selector, function = std::move(function)](
               const Caller&, const std::vector<plist::Value>& values) mutable {
      return call<R, P...>(selector, function, values, std::index_sequence_for<P...>{});
    };
  }

  template <typename R, typename... P, typename Function>
  Handler bind(const std::string& selector, Function function, TypeList<const Caller&, P...>) {
    return [selector, function = std::move(function)](
               const Caller& caller, const std::vector<plist::Value>& values) mutable {
      return call<R, P...>(selector, function, values, std::index_sequence_for<P...>{}, caller);
    };
  }

  template <typename... P> static std::vector<std::string> kinds(TypeList<P...>) {
    return {argumentKind<P>()...};
  }
  template <typename... P> static std::vector<std::string> kinds(TypeList<const Caller&, P...>) {
    return {argumentKind<P>()...};
  }

  template <typename... P, typename R, typename Function>
  void addTyped(std::string selector, TypeList<P...> parameters, std::type_identity<R>,
                Function function, plist::Value neutral) {
    std::vector<std::string> argumentKinds = kinds(parameters);
    if (argumentKinds.size() != argumentCount(selector)) {
      throw std::logic_error(selector + " is registered with " +
                             std::to_string(argumentKinds.size()) + " parameter(s)");
    }
    Handler handler = bind<R>(selector, std::move(function), parameters);
    insert({selector, std::move(handler), std::move(neutral), std::move(argumentKinds)});
  }

  void insert(Operation operation);

  std::map<std::string, Operation, std::less<>> operations_;
};

} // namespace kestrin::operations
