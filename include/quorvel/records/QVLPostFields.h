#pragma once
/// @file
/// Typed views of a post field's content. Plain values, never stored; made on demand.
///
/// Each view's initWithPostField() returns nullopt when the field's postFieldTypeId is not
/// the view's type (silently) and, for the JSON views (images, coupon, call to action),
/// when the content is absent or not a JSON object (then QVLPostFieldHelper logs one
/// line). The text and video views copy the content as it is, absent included.
///
/// The views are values independent of the field they came from: copy them freely, use
/// them on any thread.

#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Json.h"
#include "quorvel/platform/Url.h"
#include "quorvel/records/QVLPostField.h"

/// Type 1: plain text.
class QVL_EXPORT QVLPostFieldText {
 public:
  /// The view of a type-1 field; nullopt for another type (see the file comment).
  static std::optional<QVLPostFieldText> initWithPostField(const QVLPostField& field);

  /// An empty view (no content). Copies are independent values; a view moved from
  /// reads as an empty one.
  ///@{
  QVLPostFieldText();
  ~QVLPostFieldText();
  QVLPostFieldText(const QVLPostFieldText& other);
  QVLPostFieldText& operator=(const QVLPostFieldText& other);
  QVLPostFieldText(QVLPostFieldText&& other) noexcept;
  QVLPostFieldText& operator=(QVLPostFieldText&& other) noexcept;
  ///@}

  /// The field's content as it was, absent included.
  const std::optional<std::string>& content() const;
  /// The content.
  const std::optional<std::string>& text() const;

 private:
  struct Impl;
  const Impl& fields() const;
  std::unique_ptr<Impl> impl_;  // null when empty or moved from
};

/// Type 2: a JSON object describing images.
class QVL_EXPORT QVLPostFieldImages {
 public:
  /// The view of a type-2 field whose content is a JSON object; nullopt otherwise.
  static std::optional<QVLPostFieldImages> initWithPostField(const QVLPostField& field);

  /// An empty view (its JSON a null). Copies are independent values; a view moved from
  /// reads as an empty one.
  ///@{
  QVLPostFieldImages();
  ~QVLPostFieldImages();
  QVLPostFieldImages(const QVLPostFieldImages& other);
  QVLPostFieldImages& operator=(const QVLPostFieldImages& other);
  QVLPostFieldImages(QVLPostFieldImages&& other) noexcept;
  QVLPostFieldImages& operator=(QVLPostFieldImages&& other) noexcept;
  ///@}

  /// The parsed content: always a JSON object.
  const qvl::Json& json() const;
  /// json["imageText"]: text as it stands; another kind of value as its JSON text;
  /// nullopt when absent or null.
  std::optional<std::string> text() const;

 private:
  struct Impl;
  const Impl& fields() const;
  std::unique_ptr<Impl> impl_;  // null when empty or moved from
};

/// Type 3: a video URL as text.
class QVL_EXPORT QVLPostFieldVideo {
 public:
  /// The view of a type-3 field; nullopt for another type.
  static std::optional<QVLPostFieldVideo> initWithPostField(const QVLPostField& field);

  /// An empty view (no content). Copies are independent values; a view moved from
  /// reads as an empty one.
  ///@{
  QVLPostFieldVideo();
  ~QVLPostFieldVideo();
  QVLPostFieldVideo(const QVLPostFieldVideo& other);
  QVLPostFieldVideo& operator=(const QVLPostFieldVideo& other);
  QVLPostFieldVideo(QVLPostFieldVideo&& other) noexcept;
  QVLPostFieldVideo& operator=(QVLPostFieldVideo&& other) noexcept;
  ///@}

  /// The field's content as it was, absent included.
  const std::optional<std::string>& content() const;
  /// The content as a URL; nullopt when absent or not a URL.
  std::optional<qvl::Url> youtubeURL() const;

 private:
  struct Impl;
  const Impl& fields() const;
  std::unique_ptr<Impl> impl_;  // null when empty or moved from
};

/// Type 6: a coupon as a JSON object.
///
/// Its texts read the keys "text", "price_before", "price" and "discount": only a text
/// value counts, trimmed of white space and line breaks (Unicode's, no-break space
/// included); a missing key, a value of another kind (a number included) or a text that
/// trims to nothing gives nullopt.
class QVL_EXPORT QVLPostFieldCoupon {
 public:
  /// The view of a type-6 field whose content is a JSON object; nullopt otherwise.
  static std::optional<QVLPostFieldCoupon> initWithPostField(const QVLPostField& field);

  /// An empty view (its JSON a null). Copies are independent values; a view moved from
  /// reads as an empty one.
  ///@{
  QVLPostFieldCoupon();
  ~QVLPostFieldCoupon();
  QVLPostFieldCoupon(const QVLPostFieldCoupon& other);
  QVLPostFieldCoupon& operator=(const QVLPostFieldCoupon& other);
  QVLPostFieldCoupon(QVLPostFieldCoupon&& other) noexcept;
  QVLPostFieldCoupon& operator=(QVLPostFieldCoupon&& other) noexcept;
  ///@}

  /// The parsed content: always a JSON object.
  const qvl::Json& json() const;
  ///@{
  /// The trimmed text under "text", "price_before", "price" and "discount", as above.
  std::optional<std::string> text() const;
  std::optional<std::string> priceBefore() const;
  std::optional<std::string> price() const;
  std::optional<std::string> discount() const;
  ///@}
  /// True when the key "redeemable" is present, whatever its value ("redeemable": false
  /// included); false only when it is absent.
  bool redeemable() const;

 private:
  struct Impl;
  const Impl& fields() const;
  std::unique_ptr<Impl> impl_;  // null when empty or moved from
};

/// Type 7: a call to action as a JSON object. Unlike the coupon's, its texts are neither
/// trimmed nor required to be text.
class QVL_EXPORT QVLPostFieldCallToAction {
 public:
  /// The view of a type-7 field whose content is a JSON object; nullopt otherwise.
  static std::optional<QVLPostFieldCallToAction> initWithPostField(const QVLPostField& field);

  /// An empty view (its JSON a null). Copies are independent values; a view moved from
  /// reads as an empty one.
  ///@{
  QVLPostFieldCallToAction();
  ~QVLPostFieldCallToAction();
  QVLPostFieldCallToAction(const QVLPostFieldCallToAction& other);
  QVLPostFieldCallToAction& operator=(const QVLPostFieldCallToAction& other);
  QVLPostFieldCallToAction(QVLPostFieldCallToAction&& other) noexcept;
  QVLPostFieldCallToAction& operator=(QVLPostFieldCallToAction&& other) noexcept;
  ///@}

  /// The parsed content: always a JSON object.
  const qvl::Json& json() const;
  /// json["text"]: text as it stands; another kind of value as its JSON text; nullopt
  /// when absent or null.
  std::optional<std::string> text() const;
  /// json["url"] (read as text()) made into a URL; nullopt when absent or not a URL.
  std::optional<qvl::Url> url() const;

 private:
  struct Impl;
  const Impl& fields() const;
  std::unique_ptr<Impl> impl_;  // null when empty or moved from
};
