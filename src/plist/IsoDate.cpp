#include "plist/IsoDate.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>

namespace kestrin::plist {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr auto kUnixOffset = static_cast<std::int64_t>(Date::kUnixOffset);

// Days from 1970-01-01 to a civil date and back (H. Hinnant's algorithms).
std::int64_t daysFromCivil(std::int64_t y, int m, int d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

struct Civil {
  std::int64_t year;
  int month;
  int day;
};

Civil civilFromDays(std::int64_t z) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const int day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  const int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  return {yoe + era * 400 + (month <= 2), month, day};
}

bool isLeap(std::int64_t year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(std::int64_t year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeap(year) ? 29 : kDays[month - 1];
}

// 1 - 0.F as the digits of a fraction: "25" gives "75", "1" gives "9". F has no trailing zero.
std::string complement(std::string_view fraction) {
  std::string out(fraction);
  const std::size_t last = out.size() - 1;
  for (std::size_t i = 0; i < last; ++i) {
    out[i] = static_cast<char>('9' - (out[i] - '0'));
  }
  out[last] = static_cast<char>('0' + (10 - (out[last] - '0')));
  return out;
}

std::string_view withoutTrailingZeros(std::string_view digits) {
  while (!digits.empty() && digits.back() == '0') {
    digits.remove_suffix(1);
  }
  return digits;
}

// A date text is whole seconds plus a fraction in [0, 1), so a date before a whole second
// (negative seconds with a fraction) is written as the second before it plus the complement of
// its fraction. Both directions work on the decimal digits, never on a rounded double, so the
// text of the shortest decimal that reads back as the date reads back as exactly that date.
struct Split {
  std::int64_t whole;
  std::string fraction; // digits after the point, no trailing zero; empty for whole seconds
};

std::optional<Split> split(double seconds) {
  std::array<char, 1200> buffer; // the longest fixed form of a double is about 1080 characters
  auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), seconds,
                                    std::chars_format::fixed);
  if (error != std::errc()) {
    return std::nullopt;
  }
  std::string_view text(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
  const bool negative = text.starts_with('-');
  if (negative) {
    text.remove_prefix(1);
  }
  const auto point = text.find('.');
  std::string_view integral = text.substr(0, point);
  std::string_view fraction = point == std::string_view::npos
                                  ? std::string_view()
                                  : withoutTrailingZeros(text.substr(point + 1));
  std::int64_t magnitude = 0;
  std::from_chars(integral.data(), integral.data() + integral.size(), magnitude);
  if (!negative) {
    return Split{magnitude, std::string(fraction)};
  }
  if (fraction.empty()) {
    return Split{-magnitude, {}};
  }
  return Split{-magnitude - 1, complement(fraction)};
}

std::optional<double> join(std::int64_t whole, std::string_view fraction) {
  fraction = withoutTrailingZeros(fraction);
  if (fraction.empty()) {
    return static_cast<double>(whole);
  }
  std::string decimal;
  decimal.reserve(fraction.size() + 24);
  if (whole >= 0) {
    decimal = std::to_string(whole);
    decimal += '.';
    decimal += fraction;
  } else {
    decimal = '-' + std::to_string(-(whole + 1));
    decimal += '.';
    decimal += complement(fraction);
  }
  double seconds = 0;
  auto [end, error] = std::from_chars(decimal.data(), decimal.data() + decimal.size(), seconds);
  if (error != std::errc() || end != decimal.data() + decimal.size()) {
    return std::nullopt;
  }
  return seconds;
}

class Scanner {
public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool done() const { return pos_ == text_.size(); }
  bool consume(char c) {
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }
  // Exactly `count` decimal digits.
  std::optional<int> digits(int count) {
    int n = 0;
    for (int i = 0; i < count; ++i, ++pos_) {
      if (pos_ >= text_.size() || text_[pos_] < '0' || text_[pos_] > '9') {
        return std::nullopt;
      }
      n = n * 10 + (text_[pos_] - '0');
    }
    return n;
  }
  // One or more digits.
  std::string_view digitRun() {
    const std::size_t start = pos_;
    while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
      ++pos_;
    }
    return text_.substr(start, pos_ - start);
  }
  std::optional<char> peek() const {
    return pos_ < text_.size() ? std::optional<char>(text_[pos_]) : std::nullopt;
  }

private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

} // namespace

bool isCarriedDate(Date date) {
  return date.seconds >= kEarliestDate && date.seconds < kEndOfDates;
}

std::optional<std::string> isoDateText(Date date) {
  if (!isCarriedDate(date)) {
    return std::nullopt;
  }
  auto parts = split(date.seconds);
  if (!parts) {
    return std::nullopt;
  }
  const std::int64_t unix = parts->whole + kUnixOffset;
  std::int64_t days = unix / kSecondsPerDay;
  std::int64_t second = unix % kSecondsPerDay;
  if (second < 0) {
    second += kSecondsPerDay;
    --days;
  }
  const Civil civil = civilFromDays(days);
  char text[32];
  const int n =
      std::snprintf(text, sizeof text, "%04lld-%02d-%02dT%02lld:%02lld:%02lld",
                    static_cast<long long>(civil.year), civil.month, civil.day,
                    static_cast<long long>(second / 3600), static_cast<long long>(second / 60 % 60),
                    static_cast<long long>(second % 60));
  std::string out(text, static_cast<std::size_t>(n));
  if (!parts->fraction.empty()) {
    out += '.';
    out += parts->fraction;
  }
  out += 'Z';
  return out;
}

std::optional<Date> parseIsoDate(std::string_view text, DateSyntax syntax) {
  Scanner in(text);
  auto year = in.digits(4);
  if (!year || !in.consume('-')) {
    return std::nullopt;
  }
  auto month = in.digits(2);
  if (!month || !in.consume('-')) {
    return std::nullopt;
  }
  auto day = in.digits(2);
  if (!day || *year < 1 || *month < 1 || *month > 12 || *day < 1 ||
      *day > daysInMonth(*year, *month)) {
    return std::nullopt;
  }
  int hour = 0, minute = 0, second = 0;
  std::string_view fraction;
  std::int64_t offset = 0;
  const bool lenient = syntax == DateSyntax::Lenient;
  if (!(lenient && in.done())) {
    if (!in.consume('T') && !(lenient && in.consume(' '))) {
      return std::nullopt;
    }
    auto h = in.digits(2);
    bool ok = h && in.consume(':');
    auto m = ok ? in.digits(2) : std::nullopt;
    ok = m && in.consume(':');
    auto s = ok ? in.digits(2) : std::nullopt;
    if (!s || *h > 23 || *m > 59 || *s > 59) {
      return std::nullopt;
    }
    hour = *h;
    minute = *m;
    second = *s;
    if (in.consume('.')) {
      fraction = in.digitRun();
      if (fraction.empty()) {
        return std::nullopt;
      }
    }
    if (in.consume('Z')) {
      // UTC
    } else if (lenient && (in.peek() == '+' || in.peek() == '-')) {
      const int sign = in.consume('-') ? -1 : (in.consume('+') ? 1 : 0);
      auto oh = in.digits(2);
      bool colon = oh && in.consume(':');
      auto om = colon ? in.digits(2) : std::nullopt;
      if (!om || *oh > 23 || *om > 59) {
        return std::nullopt;
      }
      offset = sign * (*oh * 3600 + *om * 60);
    } else if (!lenient) {
      return std::nullopt;
    }
    if (!in.done()) {
      return std::nullopt;
    }
  }
  const std::int64_t unix = daysFromCivil(*year, *month, *day) * kSecondsPerDay + hour * 3600 +
                            minute * 60 + second - offset;
  auto seconds = join(unix - kUnixOffset, fraction);
  if (!seconds || !isCarriedDate(Date{*seconds})) {
    return std::nullopt;
  }
  return Date{*seconds};
}

} // namespace kestrin::plist
