#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/Value.h"

namespace kestrin::plist {

// Dates that property lists (and the admin client's JSON) carry: the years 1 to 9999, which an
// ISO 8601 text with a four-digit year can name. Readers refuse dates outside, writers too.
inline constexpr double kEarliestDate = -63113904000.0; // 0001-01-01T00:00:00Z
inline constexpr double kEndOfDates = 252423993600.0;   // 10000-01-01T00:00:00Z, excluded
bool isCarriedDate(Date date);

// "2001-01-01T00:00:00Z", with a fraction of a second when the date has one: the shortest that
// reads back as exactly the same date. Absent for a date that isCarriedDate refuses.
std::optional<std::string> isoDateText(Date date);

enum class DateSyntax {
  // "YYYY-MM-DDTHH:MM:SS[.fraction]Z" and nothing else: what property lists hold.
  PropertyList,
  // Also a date alone ("2026-11-22", midnight UTC), a space for the "T", no zone (UTC) or a
  // "+HH:MM"/"-HH:MM" offset: what people type.
  Lenient,
};

// Absent for text that is not a date of that syntax or names a date outside isCarriedDate.
// Fractions of any length are read exactly: the result is the date nearest to the text.
std::optional<Date> parseIsoDate(std::string_view text, DateSyntax syntax);

} // namespace kestrin::plist
