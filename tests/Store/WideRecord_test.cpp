// A class wider than one word of keep-stored marks.

#include <gtest/gtest.h>

#include <set>

#include "quorvel/Store/Store.h"
#include "support/TempDir.h"

namespace {

using qvl::Object;
using qvl::ObjectClass;
using qvl::Property;
using qvl::PropertyKind;
using qvl::Store;

constexpr int kWidth = 70;

class WideRecord : public Object {
 public:
  explicit WideRecord(const ObjectClass& cls) : Object(cls) {}
};

std::vector<Property> wideProperties() {
  std::vector<Property> properties;
  for (int i = 0; i < kWidth; ++i)
    properties.emplace_back("p" + std::to_string(i), PropertyKind::Int);
  return properties;
}

const ObjectClass& wideClass() {
  static const ObjectClass cls("Wide", wideProperties(), "p0",
                               [] { return std::make_shared<WideRecord>(wideClass()); });
  return cls;
}

std::shared_ptr<Object> wideRecord(std::int64_t fill) {
  auto record = wideClass().makeObject();
  record->setValue(0, std::int64_t{1});
  for (int i = 1; i < kWidth; ++i) record->setValue(i, fill);
  return record;
}

TEST(WideRecordTest, EveryPropertyKeepsItsOwnMark) {
  qvl::test::TempDir dir;
  qvl::StoreConfiguration config;
  config.path = dir.file("wide.store");
  config.schemaVersion = 1;
  config.classes = {&wideClass};
  auto store = Store::open(config);
  store->write([&] { store->addOrUpdate(wideRecord(1)); });

  auto update = wideRecord(2);
  const std::set<int> kept = {1, 63, 64, 66, 69};
  for (int i : kept) update->keepStoredValue(i);
  update->keepStoredValue(65);
  update->setValue(65, std::int64_t{2});
  for (int i = 0; i < kWidth; ++i) EXPECT_EQ(update->keepsStoredValue(i), kept.count(i) > 0) << i;

  store->write([&] { store->addOrUpdate(update); });
  auto stored = store->object(wideClass(), 1);
  ASSERT_TRUE(stored);
  for (int i = 1; i < kWidth; ++i) {
    EXPECT_EQ(std::get<std::int64_t>(stored->value(i)), kept.count(i) ? 1 : 2) << i;
  }
  Store::closeThreadHandles();
}

}  // namespace
