#pragma once
/// @file
/// A URL value: the text as given, checked, with its parts.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quorvel/Export.h"

namespace qvl {

/// An absolute or relative URL reference.
///
/// parse() keeps the text exactly as given (no normalisation, so "http://a.example"
/// stays without a trailing slash) and accepts:
///  - hierarchical URLs "scheme://..." that libcurl's URL parser accepts (any scheme);
///  - opaque URLs "scheme:rest" such as mailto: or tel:;
///  - references without a scheme, such as "www.example.com/shop" (scheme() is empty).
/// It rejects text with white space, control characters, characters a URL cannot
/// carry unescaped (" < > \ ^ ` { | }) or a '%' not followed by two hex digits.
class QVL_EXPORT Url {
 public:
  /// The URL of `text`, or nullopt when it is rejected as described above.
  static std::optional<Url> parse(std::string_view text);

  /// An empty URL: every part empty. Copies are independent values; a URL moved from
  /// reads as an empty one.
  ///@{
  Url();
  ~Url();
  Url(const Url& other);
  Url& operator=(const Url& other);
  Url(Url&& other) noexcept;
  Url& operator=(Url&& other) noexcept;
  ///@}

  /// The text exactly as parsed.
  const std::string& absoluteString() const;
  /// Lower-cased scheme; empty for a reference without one.
  const std::string& scheme() const;
  /// Host of a hierarchical URL; empty otherwise.
  const std::string& host() const;
  /// Path as written (still percent-encoded).
  const std::string& path() const;
  /// The port written in the URL; nullopt when none is (the scheme's default applies).
  std::optional<int> port() const;

  /// Equal texts: URLs that differ only in spelling ("HTTP:" vs "http:") differ.
  bool operator==(const Url& other) const;

 private:
  struct Impl;
  const Impl& fields() const;
  std::unique_ptr<Impl> impl_;  // null when empty or moved from
};

}  // namespace qvl
