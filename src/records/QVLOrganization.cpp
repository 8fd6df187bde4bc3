#include "quorvel/records/QVLOrganization.h"

#include <charconv>
#include <vector>

using qvl::PropertyKind;

const QVLModelClass& QVLOrganization::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLOrganization",
                                 [] { return std::make_shared<QVLOrganization>(); });
    d.primaryKey = "organizationId";
    d.property(kOrganizationId, "organizationId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .property(kText, "text", PropertyKind::String)
        .property(kUrlString, "urlString", PropertyKind::String)
        .property(kColorString, "colorString", PropertyKind::String)
        .list(kShopCategories, "shopCategories", &qvlObjectClassOf<QVLShopCategory>)
        .list(kRegions, "regions", &qvlObjectClassOf<QVLRegion>)
        .list(kAudiences, "audiences", &qvlObjectClassOf<QVLAudience>)
        .link(kImage, "image", &qvlObjectClassOf<QVLMedia>)
        .link(kLogo, "logo", &qvlObjectClassOf<QVLMedia>)
        .property(kLatitude, "latitude", PropertyKind::Double, true)
        .property(kLongitude, "longitude", PropertyKind::Double, true)
        .property(kCheckinsPerWeek, "checkinsPerWeek", PropertyKind::Int32)
        .property(kExclusiveMax, "exclusiveMax", PropertyKind::Int32)
        .property(kPrizeWarning, "prizeWarning", PropertyKind::String)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "organizations";
    d.apiResourceSingular = "organization";
    d.mapping = {{{"id", d.primaryKey},
                  {"name", "name"},
                  {"description", "text"},
                  {"url", "urlString"},
                  {"color", "colorString"},
                  {"latitude", "latitude"},
                  {"longitude", "longitude"},
                  {"max_checkins_per_week", "checkinsPerWeek"},
                  {"exclusive_max", "exclusiveMax"},
                  {"prize_warning", "prizeWarning"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithJsonKey("shopcategories", "shopCategories",
                                                             &QVLShopCategory::modelClass),
        QVLRelationshipMapping::newToManyRelationWithKey("regions", &QVLRegion::modelClass),
        QVLRelationshipMapping::newToManyRelationWithKey("audiences", &QVLAudience::modelClass),
        QVLRelationshipMapping::newToOneRelationWithKey("image", "image_id", &QVLMedia::modelClass),
        QVLRelationshipMapping::newToOneRelationWithKey("logo", "logo_id", &QVLMedia::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

std::optional<qvl::Url> QVLOrganization::url() const {
  auto text = urlString();
  return text ? qvl::Url::parse(*text) : std::nullopt;
}

qvl::Color QVLOrganization::color() const {
  auto text = colorString();
  return text ? colorFromString(*text) : qvl::Color::standardBlue();
}

qvl::Coordinate QVLOrganization::coordinate() const {
  return qvl::coordinateOrDefault(latitude(), longitude());
}

namespace {

// The leading number of a piece: leading white space and a '+' skipped, 0 when the piece
// does not begin with one.
double leadingNumber(std::string_view piece) {
  std::size_t start = piece.find_first_not_of(" \t\n\r\f\v");
  if (start == std::string_view::npos) return 0.0;
  piece.remove_prefix(start);
  if (!piece.empty() && piece.front() == '+') piece.remove_prefix(1);
  double value = 0.0;
  auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
  (void)end;
  return error == std::errc() ? value : 0.0;
}

}  // namespace

qvl::Color QVLOrganization::colorFromString(std::string_view text) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (true) {
    std::size_t comma = text.find(',', start);
    pieces.push_back(text.substr(start, comma == std::string_view::npos ? comma : comma - start));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  if (pieces.size() != 3) return qvl::Color::standardBlue();
  return {leadingNumber(pieces[0]) / 255.0, leadingNumber(pieces[1]) / 255.0,
          leadingNumber(pieces[2]) / 255.0, 1.0};
}
