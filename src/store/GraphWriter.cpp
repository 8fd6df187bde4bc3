// Create-or-update of a graph of records.

#include "store/ResultsImpl.h"
#include "store/StoreImpl.h"

namespace qvl {

namespace {

/// Writes a graph of records; records met twice are written once, and references to a
/// record still being written (cycles) are filled in at the end.
class GraphWriter {
 public:
  GraphWriter(Store& store, detail::StoreImpl& impl) : store_(store), impl_(impl) {}

  std::int64_t write(const std::shared_ptr<Object>& object) {
    if (object->store()) {
      if (object->store().get() != &store_) {
        throw std::logic_error("a record managed by another store handle cannot be added");
      }
      return StoreAccess::row(*object);
    }
    auto found = rows_.find(object.get());
    if (found != rows_.end()) return found->second;
    rows_.emplace(object.get(), 0);

    const ClassInfo& info = impl_.info(object->objectClass());
    const ObjectClass& cls = *info.objectClass;
    // Properties marked to keep their stored value are left alone when the record is
    // already stored: this is where a parsed answer merges with the stored record, inside
    // the caller's write transaction.
    std::string keptColumns(info.columns.size(), '0');
    for (size_t c = 0; c < info.columns.size(); ++c) {
      if (StoreAccess::keepsStoredValue(*object, info.columns[c])) keptColumns[c] = '1';
    }

    std::vector<std::int64_t> linkRows(info.columns.size(), 0);
    std::vector<const Object*> pendingLinks(info.columns.size(), nullptr);
    for (size_t c = 0; c < info.columns.size(); ++c) {
      int index = info.columns[c];
      if (cls.property(index).kind != PropertyKind::Link) continue;
      auto target = object->link(index);
      if (!target) continue;
      checkClass(*target, cls.property(index));
      linkRows[c] = write(target);
      if (linkRows[c] == 0) pendingLinks[c] = target.get();
    }

    auto bindColumns = [&](StatementUse& use, bool skipKept) {
      int position = 0;
      for (size_t c = 0; c < info.columns.size(); ++c) {
        if (skipKept && keptColumns[c] == '1') continue;
        int index = info.columns[c];
        const Property& p = cls.property(index);
        ++position;
        if (p.kind == PropertyKind::Link) {
          if (linkRows[c])
            use.bindInt(position, linkRows[c]);
          else
            use.bindNull(position);
        } else {
          impl_.bindValue(use, position, p, StoreAccess::value(*object, index));
        }
      }
      return position;
    };
    auto key = object->primaryKeyValue();
    std::int64_t row = 0;
    bool existed = false;
    if (cls.primaryKeyIndex() >= 0 && !key) {
      // No key: the record matches the one stored without a key, if any.
      row = impl_.rowForKey(info, std::nullopt);
      existed = row != 0;
      sqlite3_stmt* update = existed ? impl_.updateStatement(info, keptColumns) : nullptr;
      if (update) {
        StatementUse use(update);
        use.bindInt(bindColumns(use, true) + 1, row);
        use.step();
      }
    }
    if (!row) {
      bool upsert = cls.primaryKeyIndex() >= 0 && key;
      StatementUse use(upsert ? impl_.upsertStatement(info, keptColumns)
                              : impl_.statement(info.insert));
      // The upsert's update path leaves the last inserted row id alone, which tells an
      // update of a stored record from an insert; only then is the row looked up by its key.
      sqlite3* db = impl_.db.get();
      sqlite3_set_last_insert_rowid(db, 0);
      bindColumns(use, false);
      use.step();
      row = sqlite3_last_insert_rowid(db);
      existed = upsert && row == 0;
      if (existed) row = impl_.rowForKey(info, key);
      if (!row) throw StoreError(storeErrorText(filePath(db), "no row written for " + cls.name()));
    }
    auto kept = [&](int index) { return existed && StoreAccess::keepsStoredValue(*object, index); };
    rows_[object.get()] = row;
    for (size_t c = 0; c < pendingLinks.size(); ++c) {
      if (pendingLinks[c] && !kept(info.columns[c])) {
        linkFixes_.push_back({&info, info.columns[c], row, pendingLinks[c]});
      }
    }

    for (const auto& list : info.lists) {
      if (kept(list.property)) continue;
      AnyList handle(object, list.property);
      auto elements = handle.elements();
      std::vector<std::int64_t> targets(elements.size());
      for (size_t i = 0; i < elements.size(); ++i) {
        checkClass(*elements[i], cls.property(list.property));
        targets[i] = write(elements[i]);
        if (targets[i] == 0) {
          listFixes_.push_back({&list, row, static_cast<std::int64_t>(i), elements[i].get()});
        }
      }
      impl_.writeList(list, row, targets);
    }
    ++impl_.changeCounter;
    return row;
  }

  void finish() {
    for (const auto& fix : linkFixes_) {
      StatementUse use(impl_.statement(fix.info->updateColumn[fix.property]));
      use.bindInt(1, rows_.at(fix.target));
      use.bindInt(2, fix.owner);
      use.step();
    }
    for (const auto& fix : listFixes_) {
      StatementUse use(impl_.statement(fix.list->insertLink));
      use.bindInt(1, fix.owner);
      use.bindInt(2, fix.position);
      use.bindInt(3, rows_.at(fix.target));
      use.step();
    }
  }

 private:
  static void checkClass(const Object& target, const Property& property) {
    if (target.objectClass().name() != property.target().name()) {
      throw std::logic_error("property " + property.name + " holds " + property.target().name() +
                             " records, not " + target.objectClass().name());
    }
  }

  struct LinkFix {
    const ClassInfo* info;
    int property;
    std::int64_t owner;
    const Object* target;
  };
  struct ListFix {
    const ClassInfo::ListInfo* list;
    std::int64_t owner;
    std::int64_t position;
    const Object* target;
  };

  Store& store_;
  detail::StoreImpl& impl_;
  std::unordered_map<const Object*, std::int64_t> rows_;
  std::vector<LinkFix> linkFixes_;
  std::vector<ListFix> listFixes_;
};

}  // namespace

std::int64_t StoreAccess::upsertGraph(Store& store, const std::shared_ptr<Object>& object) {
  store.checkWrite();
  GraphWriter writer(store, *store.impl_);
  std::int64_t row = writer.write(object);
  writer.finish();
  return row;
}

std::shared_ptr<Object> Store::addOrUpdate(const std::shared_ptr<Object>& object) {
  if (!object) throw std::invalid_argument("addOrUpdate: no record");
  std::int64_t row = StoreAccess::upsertGraph(*this, object);
  return impl_->load(*this, impl_->info(object->objectClass()), row);
}

AnyResults Store::addOrUpdateAll(const std::vector<std::shared_ptr<Object>>& objects) {
  checkWrite();
  const ObjectClass* objectClass = nullptr;
  for (const auto& object : objects) {
    if (!object) throw std::invalid_argument("addOrUpdateAll: no record");
    if (objectClass && object->objectClass().name() != objectClass->name()) {
      throw std::invalid_argument("addOrUpdateAll: records of more than one class");
    }
    objectClass = &object->objectClass();
  }
  GraphWriter writer(*this, *impl_);
  std::string rows = "[";
  for (const auto& object : objects) {
    if (rows.size() > 1) rows += ',';
    rows += std::to_string(writer.write(object));
  }
  writer.finish();
  AnyResults results;
  results.impl_ = std::make_unique<AnyResults::Impl>();
  results.impl_->cls = objectClass;
  if (!objectClass) {
    results.impl_->fixed = std::make_shared<const std::vector<std::shared_ptr<Object>>>();
    return results;
  }
  results.impl_->store = shared_from_this();
  results.impl_->scope.kind = AnyResults::Impl::Scope::Kind::Rows;
  results.impl_->scope.rows = rows + ']';
  return results;
}

}  // namespace qvl
