#include "store/StoreRows.h"

#include <stdexcept>
#include <string>

#include "store/StoreImpl.h"

namespace qvl {

std::int64_t storedRow(const Object& object) {
  return object.isManaged() ? StoreAccess::row(object) : 0;
}

void removeRows(Store& store, const ObjectClass& objectClass,
                const std::vector<std::int64_t>& rows) {
  if (!store.isInWriteTransaction()) throw std::logic_error("rows are removed in a write");
  if (rows.empty()) return;
  std::string list = "[";
  for (std::int64_t row : rows) list += (list.size() > 1 ? "," : "") + std::to_string(row);
  detail::StoreImpl& impl = StoreAccess::impl(store);
  impl.deleteRows(impl.info(objectClass), list + "]");
}

}  // namespace qvl
