#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::plist {

enum class Format { Xml, Binary };

// Reads an XML or binary property list (recognised by its "bplist00" magic). Malformed or
// truncated input is a Failure with a message, never a partial value.
Expected<Value> parse(std::span<const std::uint8_t> bytes);
Expected<Value> parse(std::string_view text);
Expected<Value> parseXml(std::string_view text);
Expected<Value> parseBinary(std::span<const std::uint8_t> bytes);

// Property lists have no null, error or remote-object kinds: values holding them are refused.
Expected<std::string> toXml(const Value& value);
Expected<Data> toBinary(const Value& value);

Expected<Value> readFile(const std::filesystem::path& path);

// Writes the whole file atomically: a temporary file in the same folder, flushed to disk,
// then renamed over the target, so a reader sees the old file or the new one, never a mix.
Expected<void> writeFile(const std::filesystem::path& path, const Value& value,
                         Format format = Format::Xml);

} // namespace kestrin::plist
