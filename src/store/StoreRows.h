#pragma once
// Row identity of stored records, for code that must tell apart records without a primary
// key (the view records) across threads: a row names the same record on every handle of
// one file until it is deleted.

#include <cstdint>
#include <vector>

namespace qvl {

class Object;
class ObjectClass;
class Store;

/// The row of a managed record; 0 for an unmanaged one.
std::int64_t storedRow(const Object& object);

/// Deletes the records of `objectClass` stored in `rows` (rows already gone are skipped),
/// with every reference to them. Needs a write transaction on `store` (std::logic_error).
void removeRows(Store& store, const ObjectClass& objectClass,
                const std::vector<std::int64_t>& rows);

}  // namespace qvl
