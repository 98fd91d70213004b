#include "admin/CredentialPlaceholders.h"

#include <optional>

namespace kestrin::admin {

namespace {

// The placeholder a value is, if it is one: a dictionary whose one key names it.
std::optional<std::string_view> placeholderOf(const plist::Value& value) {
  const plist::Dictionary* dictionary = value.asDictionary();
  if (dictionary == nullptr || dictionary->size() != 1) {
    return std::nullopt;
  }
  for (std::string_view name : {kUserPlaceholder, kPasswordPlaceholder, kCredentialsPlaceholder}) {
    if (dictionary->contains(name)) {
      return name;
    }
  }
  return std::nullopt;
}

} // namespace

int replacePlaceholders(plist::Value& value,
                        const std::function<plist::Value(std::string_view)>& credentials) {
  if (auto placeholder = placeholderOf(value)) {
    value = credentials(*placeholder);
    return 1;
  }
  int count = 0;
  if (plist::Array* array = value.asArray()) {
    for (plist::Value& element : *array) {
      count += replacePlaceholders(element, credentials);
    }
  } else if (plist::Dictionary* dictionary = value.asDictionary()) {
    plist::Dictionary replaced;
    for (const auto& [key, element] : *dictionary) {
      plist::Value copy = element;
      count += replacePlaceholders(copy, credentials);
      replaced.set(key, std::move(copy));
    }
    *dictionary = std::move(replaced);
  }
  return count;
}

plist::Value credentialValue(std::string_view placeholder, const std::string& user,
                             const plist::Data& encryptedPassword) {
  if (placeholder == kUserPlaceholder) {
    return user;
  }
  if (placeholder == kPasswordPlaceholder) {
    return encryptedPassword;
  }
  return plist::Dictionary{{"authUser", user}, {"authPass", encryptedPassword}};
}

} // namespace kestrin::admin
