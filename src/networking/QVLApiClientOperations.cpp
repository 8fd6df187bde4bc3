#include <unordered_set>

#include "networking/CountedDataTask.h"
#include "platform/CountersImpl.h"
#include "platform/JsonImpl.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Queue.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLRedemption.h"
#include "records/QVLMappingPlan.h"
#include "records/QVLRealmOpen.h"

namespace {

QVLError storeError(const std::string& message) {
  return QVLError{kQVLStoreErrorDomain, 1, qvl::Json::object({{"errorMessage", message}})};
}

QVLError mappingError(const std::string& message) {
  return QVLError{kQVLMappingErrorDomain, 1, qvl::Json::object({{"errorMessage", message}})};
}

}  // namespace

namespace qvl {

void countedDataTask(HttpSession& session, HttpRequest request, DataTaskCompletion completion) {
  count(Counter::requestsSent);
  session.dataTask(std::move(request), [completion = std::move(completion)](
                                           std::string body, std::optional<HttpResponse> response,
                                           std::optional<QVLError> error) {
    if (error) {
      count(Counter::requestsFailedTransport);
    } else if (response && !QVLApiClient::successfulResponse(*response)) {
      count(Counter::requestsFailedStatus);
    }
    completion(std::move(body), std::move(response), std::move(error));
  });
}

}  // namespace qvl

// ---- parsing and saving --------------------------------------------------------------------

std::shared_ptr<QVLApiModel> QVLApiClient::parseJSONObjectData(const std::string& data,
                                                               const QVLModelClass& cls) {
  auto json = qvl::detail::parseJSONData(data);
  if (!json.is_object()) json = nullptr;  // no dictionary: every key is missing
  return qvl::detail::newObjectWithJSONDictionary(cls, json);
}

std::vector<std::shared_ptr<QVLApiModel>> QVLApiClient::parseJSONArrayData(
    const std::string& data, const QVLModelClass& cls) {
  qvl::detail::mappingPlan(cls);
  auto realm = QVLRealm::realm();
  return qvl::detail::newObjectsWithJSONArray(cls, qvl::detail::parseJSONData(data), realm.get(),
                                              nullptr);
}

std::shared_ptr<QVLApiModel> QVLApiClient::saveObject(const std::shared_ptr<QVLApiModel>& record,
                                                      const QVLModelClass& cls) {
  auto realm = qvl::detail::openLibraryStore();
  std::shared_ptr<qvl::Object> saved;
  realm->write([&] { saved = realm->addOrUpdate(record); });
  if (cls.primaryKeyIndex() >= 0) saved = realm->object(cls, record->primaryKeyValue());
  return std::static_pointer_cast<QVLApiModel>(saved);
}

qvl::AnyResults QVLApiClient::saveObjects(const std::vector<std::shared_ptr<QVLApiModel>>& records,
                                          const QVLModelClass& cls) {
  auto realm = qvl::detail::openLibraryStore();
  if (records.empty()) {  // results that stay empty
    if (cls.primaryKeyIndex() < 0) return {};
    return realm->objects(cls, qvl::Predicate::in(cls.primaryKey(), {}));
  }
  qvl::AnyResults saved;
  realm->write([&] {
    saved = realm->addOrUpdateAll(
        std::vector<std::shared_ptr<qvl::Object>>(records.begin(), records.end()));
  });
  return saved;
}

void QVLApiClient::parseAndSaveJSONObjectData(const std::string& data, const QVLModelClass& cls,
                                              const ObjectCompletion& completion) {
  std::shared_ptr<QVLApiModel> saved;
  std::optional<QVLError> error;
  try {
    // The write merges the record with its stored twin; the record itself is not returned.
    auto record = qvl::detail::recordToMerge(cls, std::string_view(data));
    if (record) {
      saved = saveObject(*record, cls);
    } else {
      error = mappingError(record.error());
    }
  } catch (const std::exception& e) {  // any failure while storing still completes once
    error = storeError(e.what());
  }
  completion(std::move(saved), std::move(error));
}

void QVLApiClient::parseAndSaveJSONArrayData(const std::string& data, const QVLModelClass& cls,
                                             const ListCompletion& completion) {
  std::optional<qvl::AnyResults> saved;
  std::optional<QVLError> error;
  try {
    auto records = qvl::detail::recordsToMerge(cls, data);
    if (records) {
      saved = saveObjects(*records, cls);
    } else {
      error = mappingError(records.error());
    }
  } catch (const std::exception& e) {  // any failure while storing still completes once
    error = storeError(e.what());
  }
  completion(std::move(saved), std::move(error));
}

// ---- requests ------------------------------------------------------------------------------

void QVLApiClient::sendListRequest(const QVLModelClass& cls, qvl::HttpRequest request,
                                   bool removeStale, ListCompletion completion) {
  auto self = shared_from_this();
  qvl::countedDataTask(
      *urlSession(), std::move(request),
      [self, &cls, removeStale, completion = std::move(completion)](
          std::string body, std::optional<qvl::HttpResponse> response,
          std::optional<QVLError> transportError) {
        if (transportError) return completion(std::nullopt, std::move(transportError));
        if (!successfulResponse(*response)) {
          return completion(std::nullopt, errorWithResponse(*response, body));
        }
        std::optional<qvl::AnyResults> saved;
        std::optional<QVLError> error;
        try {
          // The answer is the class's complete set: every stored record it does not list is
          // dropped. A listed record that is rejected for a bad value keeps its stored copy.
          std::vector<std::int64_t> keep;
          auto records =
              qvl::detail::recordsToMerge(cls, std::move(body), removeStale ? &keep : nullptr);
          if (!records) {  // the answer nests too deep: nothing stored
            error = mappingError(records.error());
          } else {
            saved = self->saveObjects(*records, cls);
            if (removeStale) {
              auto realm = qvl::detail::openLibraryStore();
              realm->write([&] { realm->removeAllExceptPrimaryKeys(cls, keep); });
            }
          }
        } catch (const std::exception& e) {  // any failure while storing still completes once
          saved.reset();
          error = storeError(e.what());
        }
        completion(std::move(saved), std::move(error));
      });
}

void QVLApiClient::sendObjectRequest(const QVLModelClass& cls, qvl::HttpRequest request,
                                     ObjectCompletion completion) {
  auto self = shared_from_this();
  qvl::countedDataTask(*urlSession(), std::move(request),
                       [self, &cls, completion = std::move(completion)](
                           std::string body, std::optional<qvl::HttpResponse> response,
                           std::optional<QVLError> transportError) {
                         if (transportError) return completion(nullptr, std::move(transportError));
                         if (!successfulResponse(*response)) {
                           return completion(nullptr, errorWithResponse(*response, body));
                         }
                         self->parseAndSaveJSONObjectData(body, cls, completion);
                       });
}

void QVLApiClient::sendRequest(qvl::HttpRequest request, ErrorCompletion completion) {
  qvl::countedDataTask(*urlSession(), std::move(request),
                       [completion = std::move(completion)](
                           std::string body, std::optional<qvl::HttpResponse> response,
                           std::optional<QVLError> transportError) {
                         if (transportError) return completion(std::move(transportError));
                         if (!successfulResponse(*response))
                           return completion(errorWithResponse(*response, body));
                         completion(std::nullopt);
                       });
}

void QVLApiClient::getObjects(const QVLModelClass& cls, const std::optional<std::string>& includes,
                              const std::optional<LimitFields>& limitFields,
                              ListCompletion completion) {
  sendListRequest(
      cls,
      apiGetRequest(cls.apiResourcePlural(), std::nullopt, std::nullopt, includes, limitFields),
      true, std::move(completion));
}

void QVLApiClient::getObject(const QVLModelClass& cls, std::int64_t withId,
                             const std::optional<std::string>& includes,
                             const std::optional<LimitFields>& limitFields,
                             ObjectCompletion completion) {
  sendObjectRequest(
      cls, apiGetRequest(cls.apiResourcePlural(), withId, std::nullopt, includes, limitFields),
      std::move(completion));
}

void QVLApiClient::getObjectsRelatedTo(const QVLModelClass& cls, const QVLModelClass& relatedTo,
                                       std::int64_t withId,
                                       const std::optional<std::string>& includes,
                                       const std::optional<LimitFields>& limitFields,
                                       ListCompletion completion) {
  sendListRequest(cls,
                  apiGetRequest(relatedTo.apiResourcePlural(), withId, cls.apiResourcePlural(),
                                includes, limitFields),
                  false, std::move(completion));
}

void QVLApiClient::getObjectRelatedTo(const QVLModelClass& cls, const QVLModelClass& relatedTo,
                                      std::int64_t withId,
                                      const std::optional<std::string>& includes,
                                      const std::optional<LimitFields>& limitFields,
                                      ObjectCompletion completion) {
  sendObjectRequest(cls,
                    apiGetRequest(relatedTo.apiResourcePlural(), withId, cls.apiResourceSingular(),
                                  includes, limitFields),
                    std::move(completion));
}

void QVLApiClient::postObject(const std::shared_ptr<QVLApiModel>& record,
                              ErrorCompletion completion) {
  sendRequest(apiPostRequest(record->apiModelClass().apiResourcePlural(), record->toDictionary()),
              std::move(completion));
}

void QVLApiClient::postObjects(const std::vector<std::shared_ptr<QVLApiModel>>& records,
                               ErrorCompletion completion) {
  if (records.empty()) {
    // Nothing to send; still complete off the caller's thread, like every request.
    auto queue = std::make_shared<qvl::SerialQueue>();
    queue->async([queue, completion = std::move(completion)] { completion(std::nullopt); });
    return;
  }
  sendRequest(apiPostRequest(records.front()->apiModelClass().apiResourcePlural(),
                             QVLApiModel::arrayOfDictionariesFromObjects(records)),
              std::move(completion));
}

void QVLApiClient::postAndSaveObject(const std::shared_ptr<QVLApiModel>& record,
                                     ObjectCompletion completion) {
  const QVLModelClass& cls = record->apiModelClass();
  sendObjectRequest(cls, apiPostRequest(cls.apiResourcePlural(), record->toDictionary()),
                    std::move(completion));
}

void QVLApiClient::syncRelations(const std::optional<qvl::AnyList>& relations,
                                 const std::shared_ptr<QVLApiModel>& forObject,
                                 const std::optional<std::string>& withRelationshipString,
                                 ErrorCompletion completion) {
  if (!relations || !forObject) {
    completion(QVLError{kQVLApiClientErrorDomain, 0,
                        qvl::Json::object({{"errorMessage",
                                            "Missing 'object' and 'relations' parameters on "
                                            "syncRelations in QVLApiClient"}})});
    return;
  }
  const QVLModelClass& ownerClass = forObject->apiModelClass();
  const auto* elementClass = dynamic_cast<const QVLModelClass*>(&relations->objectClass());
  if (!elementClass) {
    throw std::logic_error("syncRelations: " + relations->objectClassName() +
                           " is not a record class");
  }
  auto ownerKey = forObject->primaryKeyValue();
  std::string url = baseURLV8() + "/" + ownerClass.apiResourcePlural() + "/" +
                    (ownerKey ? std::to_string(*ownerKey) : "(null)") + "/relationships/" +
                    withRelationshipString.value_or(elementClass->apiResourcePlural());

  const bool posts = elementClass == &QVLPost::modelClass();
  nlohmann::json body = nlohmann::json::array();
  for (const auto& element : relations->elements()) {
    nlohmann::json item = {{"type", elementClass->apiResourcePlural()}};
    auto key = element->primaryKeyValue();
    item["id"] = key ? nlohmann::json(*key) : nlohmann::json(nullptr);
    if (posts) {
      auto post = std::static_pointer_cast<QVLPost>(element);
      item["read"] = post->read();
      item["saved"] = post->saved();
    }
    body.push_back(std::move(item));
  }
  qvl::HttpRequest request;
  request.method = "PUT";
  request.url = std::move(url);
  request.body = body.dump();
  sendRequest(std::move(request), std::move(completion));
}

void QVLApiClient::redeemPrize(const qvl::Json& prizeIdentifier, ErrorCompletion completion) {
  sendRequest(apiPostRequest(QVLRedemption::modelClass().apiResourcePlural(),
                             qvl::Json::object({{"prize_id", prizeIdentifier}})),
              std::move(completion));
}
