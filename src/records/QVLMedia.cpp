#include "quorvel/records/QVLMedia.h"

using qvl::PropertyKind;

const QVLModelClass& QVLMedia::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLMedia", [] { return std::make_shared<QVLMedia>(); });
    d.primaryKey = "mediaId";
    d.property(kMediaId, "mediaId", PropertyKind::Int, true)
        .property(kWidth, "width", PropertyKind::Int32)
        .property(kHeight, "height", PropertyKind::Int32)
        .property(kUrlOriginal, "urlOriginal", PropertyKind::String)
        .property(kUrlLarge, "urlLarge", PropertyKind::String)
        .property(kUrlMobile, "urlMobile", PropertyKind::String)
        .property(kUrlThumbnail, "urlThumbnail", PropertyKind::String);
    d.apiResourcePlural = "media";
    d.apiResourceSingular = "media";
    d.mapping = {{{"id", d.primaryKey},
                  {"width", "width"},
                  {"height", "height"},
                  {"urls.original", "urlOriginal"},
                  {"urls.large", "urlLarge"},
                  {"urls.mobile", "urlMobile"},
                  {"urls.thumbnail", "urlThumbnail"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

std::optional<qvl::Url> QVLMedia::urlInSize(int size) const {
  std::optional<std::string> text;
  switch (size) {
    case QVLMediaSizeOriginal:
      text = urlOriginal();
      break;
    case QVLMediaSizeLarge:
      text = urlLarge();
      break;
    case QVLMediaSizeMobile:
      text = urlMobile();
      break;
    case QVLMediaSizeThumbnail:
      text = urlThumbnail();
      break;
    default:
      break;
  }
  if (!text) text = urlOriginal();
  return text ? qvl::Url::parse(*text) : std::nullopt;
}

double QVLMedia::aspectRatio() const {
  if (width() < 1 || height() < 1) return 1.875;
  return static_cast<double>(width()) / static_cast<double>(height());
}
