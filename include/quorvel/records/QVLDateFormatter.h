#pragma once
/// @file
/// Conversion between the service's date text and dates.

#include <optional>
#include <string>
#include <string_view>

#include "quorvel/Export.h"
#include "quorvel/store/Value.h"

/// The service's date format: "yyyy-MM-dd'T'HH:mm:ssZZZ" in UTC, en_US_POSIX digits,
/// for example 2017-03-05T14:07:09+0000. Stateless and safe on any thread.
///
/// Parsing accepts exactly that pattern with the zone written as +HHMM, +HH:MM, +HH or
/// Z (what the service and ISO 8601 writers emit); anything else (no zone, fractions of
/// a second, out-of-range fields, trailing text) gives nullopt. Every year from 0000 to
/// 9999 parses and prints back exactly. Printing always uses UTC and whole seconds (a
/// fraction is dropped toward the past); a date whose UTC year lies outside 0000-9999
/// prints its year with a sign ("-0001", "+10000"), which does not parse back.
class QVL_EXPORT QVLDateFormatter {
 public:
  /// A new formatter; it converts like the class methods.
  static QVLDateFormatter dateFormatter() { return QVLDateFormatter(); }

  /// The date `text` denotes, or nullopt when it does not match the format above.
  std::optional<qvl::Date> dateFrom(std::string_view text) const;
  /// The service text of `date`, in UTC ("+0000").
  std::string stringFrom(qvl::Date date) const;

  /// dateFrom() without a formatter object.
  static std::optional<qvl::Date> dateFromString(std::string_view text) {
    return dateFormatter().dateFrom(text);
  }
  /// stringFrom() without a formatter object.
  static std::string formattedStringFromDate(qvl::Date date) {
    return dateFormatter().stringFrom(date);
  }
};
