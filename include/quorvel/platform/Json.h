#pragma once
/// @file
/// A JSON value: what the library hands the host as JSON (error details, the information
/// dictionary, record dictionaries) and takes from it.

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "quorvel/Export.h"

/// How deep JSON may nest arrays and objects (the outermost counts as 1). Code that walks
/// JSON (printing, copying, comparing) recurses once per level, so a hostile document nested
/// a hundred thousand levels deep would exhaust the stack; such documents are refused instead.
inline constexpr int kQVLMaxJSONDepth = 128;

namespace qvl {

/// A JSON value with value semantics: a copy is a deep copy, a moved-from value is null.
/// A value is not synchronized: use one from one thread at a time (distinct copies are
/// independent and may be used on different threads). Nothing here throws but std::bad_alloc.
class QVL_EXPORT Json {
 public:
  /// The kinds of value. Integers and numbers with a fraction or exponent are told apart as
  /// the text wrote them ("1" is an integer, "1.0" a float).
  enum class Kind { null, boolean, integer, floating, string, array, object };

  /// Null.
  Json() noexcept;
  /// Scalars, implicit as JSON literals read: null, a boolean, a number, UTF-8 text
  /// (a null const char* is null).
  ///@{
  Json(std::nullptr_t) noexcept;  // NOLINT
  Json(bool value);               // NOLINT
  Json(double value);             // NOLINT
  Json(const char* text);         // NOLINT
  Json(std::string text);         // NOLINT
  Json(std::string_view text);    // NOLINT
  ///@}
  /// Any integer but bool; unsigned values beyond INT64_MAX are kept exactly.
  template <class T>
  requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) Json(T value)  // NOLINT
      : Json(std::is_signed_v<T> ? fromSigned(static_cast<std::int64_t>(value))
                                 : fromUnsigned(static_cast<std::uint64_t>(value))) {}
  /// Initializer-style building as JSON reads: {{"key", value}, ...} is an object when every
  /// element is a two-element list whose first element is text; any other list is an array
  /// (an empty list {} is null: use object() or array()). Json{other} is an array
  /// holding `other`, not a copy: copy with Json(other) or `=`.
  Json(std::initializer_list<Json> elements);

  /// An empty object; an object of the pairs (a repeated key: the last one counts).
  static Json object(std::initializer_list<std::pair<std::string, Json>> members = {});
  /// An empty array; an array of the elements, in order.
  static Json array(std::initializer_list<Json> elements = {});

  /// Deep copies; a moved-from value is null.
  ///@{
  Json(const Json& other);
  Json(Json&& other) noexcept;
  Json& operator=(const Json& other);
  Json& operator=(Json&& other) noexcept;
  ///@}
  ~Json();

  /// The value of standard JSON text (RFC 8259; no comments, no trailing commas), or nullopt
  /// when the text is not JSON or nests arrays and objects deeper than kQVLMaxJSONDepth; then
  /// `error`, when not null, receives the reason. Never recurses on the input's nesting.
  static std::optional<Json> parse(std::string_view text, std::string* error = nullptr);
  /// Compact JSON text. Text that is not valid UTF-8 is written with U+FFFD in place of the
  /// invalid bytes.
  std::string dump() const;

  /// The value's kind.
  ///@{
  Kind kind() const noexcept;
  bool isNull() const noexcept { return kind() == Kind::null; }
  bool isObject() const noexcept { return kind() == Kind::object; }
  bool isArray() const noexcept { return kind() == Kind::array; }
  ///@}

  /// @name Typed reads: nullopt when the value is of another kind.
  ///@{
  std::optional<bool> asBool() const;
  /// An integer that fits in int64_t.
  std::optional<std::int64_t> asInt() const;
  /// Any number (an integer converted).
  std::optional<double> asDouble() const;
  std::optional<std::string> asString() const;
  ///@}

  /// Elements of an array, members of an object; 0 for any other kind.
  std::size_t size() const noexcept;
  /// A copy of the array's element at `index`; nullopt out of range or for another kind.
  std::optional<Json> at(std::size_t index) const;
  /// A copy of the object's member `key`; nullopt when absent or for another kind.
  std::optional<Json> at(std::string_view key) const;
  /// True when the value is an object with member `key`.
  bool contains(std::string_view key) const;
  /// The object's keys in sorted order; empty for another kind.
  std::vector<std::string> keys() const;

  /// Sets the object's member `key` (a null becomes an empty object first). False, with
  /// nothing changed, for a value of another kind.
  bool set(std::string key, Json value);
  /// Appends to the array (a null becomes an empty array first). False, with nothing
  /// changed, for a value of another kind.
  bool append(Json value);

  /// Equal as JSON values: same kind and contents, numbers compared by value (1 == 1.0),
  /// object members regardless of order.
  bool operator==(const Json& other) const;

 private:
  struct Impl;
  explicit Json(std::unique_ptr<Impl> impl) noexcept;
  static Json fromSigned(std::int64_t value);
  static Json fromUnsigned(std::uint64_t value);
  friend struct JsonAccess;

  std::unique_ptr<Impl> impl_;  // null for a JSON null
};

/// Writes dump().
QVL_EXPORT std::ostream& operator<<(std::ostream& out, const Json& value);

}  // namespace qvl
