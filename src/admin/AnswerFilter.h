#pragma once

#include <string>
#include <vector>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::admin {

// A test on an agent's answer, for picking machines out of a fleet: "KEY.PATH=VALUE" or
// "KEY.PATH!=VALUE". The path walks dictionaries key by key; where it meets an array, any
// element may satisfy the rest. A value compares by its plain text: a string as it is, a
// boolean as true or false, a number in decimal, anything else as its JSON form. A path that
// leads nowhere satisfies "!=" and not "=".
class AnswerFilter {
public:
  static Expected<AnswerFilter> parse(const std::string& text);

  bool matches(const plist::Value& answer) const;

private:
  bool found(const plist::Value& value, std::size_t depth) const;

  std::vector<std::string> path_;
  std::string expected_;
  bool negated_ = false;
};

} // namespace kestrin::admin
