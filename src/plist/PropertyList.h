#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "plist/ReadLimits.h"
#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::plist {

enum class Format { Xml, Binary };

// Reads an XML or binary property list (recognised by its "bplist00" magic) with the project's
// own readers, which neither recurse nor build past `limits`. Malformed or truncated input, and
// input past the limits, is a Failure with a message, never a partial value.
//
// What is read is what is written: every value these accept, toXml and toBinary write, and the
// result reads back to the same value. To that end strings and keys must be valid UTF-8 without
// NUL and dates lie in the years 1 to 9999 (XML keeps a date's fraction of a second).
Expected<Value> parse(std::span<const std::uint8_t> bytes, const ReadLimits& limits = {});
Expected<Value> parse(std::string_view text, const ReadLimits& limits = {});
Expected<Value> parseXml(std::string_view text, const ReadLimits& limits = {});
Expected<Value> parseBinary(std::span<const std::uint8_t> bytes, const ReadLimits& limits = {});

// Property lists have no null, error or remote-object kinds: values holding them are refused,
// and so are strings, keys and dates that the readers would refuse.
Expected<std::string> toXml(const Value& value);
Expected<Data> toBinary(const Value& value);

// A file larger than limits.maxBytes is refused without being read.
Expected<Value> readFile(const std::filesystem::path& path, const ReadLimits& limits = {});

// Writes the whole file atomically: a temporary file in the same folder, flushed to disk,
// then renamed over the target, so a reader sees the old file or the new one, never a mix.
Expected<void> writeFile(const std::filesystem::path& path, const Value& value,
                         Format format = Format::Xml);

} // namespace kestrin::plist
