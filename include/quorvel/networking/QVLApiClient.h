#pragma once
/// @file
/// The library's one door to the service: environment, headers, requests, pinning, and the
/// operations that move records between the service and the store.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/networking/HttpSession.h"
#include "quorvel/platform/Json.h"
#include "quorvel/platform/QVLError.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/store/Store.h"

/// Which service deployment the client talks to; the value picks the host of baseURL().
enum QVLApiEnvironment : std::int32_t {
  QVLApiEnvironmentUnset = 0,  ///< "dev", with a warning on every base URL
  QVLApiEnvironmentDev = 1,    ///< The development deployment, host "dev.<domain>".
  QVLApiEnvironmentApi = 2,    ///< Production, host "api.<domain>".
  QVLApiEnvironmentPlay = 3,   ///< The sandbox for trying integrations, host "play.<domain>".
};

/// The service client.
///
/// Threads. Every operation may be called from any thread and returns at once. Each request
/// gets its own HTTP session, whose serial callback queue runs the answer's parsing, the
/// store writes and the caller's completion, off the caller's thread; completions of
/// different requests may run at the same time. Records given to a completion are bound to
/// the store handle of the thread the completion runs on: use them there, or re-fetch them
/// by primary key on another thread. Every completion runs exactly once.
///
/// Errors. Completions receive, instead of records: the transport error unchanged
/// ("QVLTransportErrorDomain", no answer came, including pin failures); for a status outside
/// 200-299 an error of "QVLApiClientErrorDomain" whose code is the status and whose user
/// information is the answer parsed as JSON (absent when it is not a JSON object or
/// array); "QVLMappingErrorDomain" when a single-record answer has a value of the wrong
/// kind, or when any answer nests JSON deeper than kQVLMaxJSONDepth (nothing is stored);
/// "QVLStoreErrorDomain" when the answer came but the store could not be opened or written (then
/// nothing is stored). In a list answer a record of the wrong kind is left out and logged; the
/// others are stored. The library never throws for network or service failures; asking a record
/// class for a declaration it lacks raises QVLException.
///
/// Configuration (bundle information, token, API domain, pins: see qvl::Env) is read afresh
/// per request.
class QVL_EXPORT QVLApiClient : public qvl::HttpSessionDelegate,
                                public std::enable_shared_from_this<QVLApiClient> {
 public:
  /// Field limits: resource type to comma-separated field names, sent in this order as
  /// fields[type]=names.
  using LimitFields = std::vector<std::pair<std::string, std::string>>;
  /// @name Completions
  ///@{

  /// Called exactly once, on the request's callback queue (see above), with either the
  /// stored records (or record) and no error, or no records (nullopt, null) and the error.
  /// ErrorCompletion gets only the error, absent on success.
  using ListCompletion =
      std::function<void(std::optional<qvl::AnyResults> records, std::optional<QVLError> error)>;
  using ObjectCompletion =
      std::function<void(std::shared_ptr<QVLApiModel> record, std::optional<QVLError> error)>;
  using ErrorCompletion = std::function<void(std::optional<QVLError> error)>;
  ///@}

  /// The client of the context in force on the calling thread (the standard context's
  /// outside any; see qvl::Context), made on first call (thread-safe). It lives as long as
  /// its context, and the standard context's for the whole process.
  static QVLApiClient& sharedClient();
  /// Runs when the client's context goes (see qvl::Context).
  ~QVLApiClient() override;

  // ---- environment and configuration ----------------------------------------------------

  /// Set once by the host at start-up. Setting a different value configures pinning for
  /// the new environment (setupPinning); setting the current value does nothing.
  ///@{
  QVLApiEnvironment environment() const;
  void setEnvironment(QVLApiEnvironment environment);
  ///@}

  /// The service's API domain, shared by every environment host and the pinned domain.
  static constexpr const char* kDefaultApiDomain = "quorvel.io";
  /// The API domain of the environment in force (Env::apiDomain), default
  /// kDefaultApiDomain.
  static std::string apiDomain();
  /// The service certificates' SubjectPublicKeyInfo pins (base64 SHA-256) of the
  /// environment in force (Env::publicKeyHashes); by default four built-in ones for
  /// kDefaultApiDomain and none for a custom domain.
  static std::vector<std::string> publicKeyHashes();

  /// "https://<dev|api|play>.<domain>"; environment 0 logs "QuorvelSDK: No valid
  /// ApiEnvironment key provided - using dev environment" on every call; an environment
  /// outside 0-3 gives the host "(null).<domain>", on which requests fail at transport.
  std::string baseURL() const;
  /// baseURL() + "/v8".
  std::string baseURLV8() const;
  /// "QuorvelSDK" → "ApiKey" of the bundle information; when absent logs "QuorvelSDK: No
  /// valid ApiKey provided. Add your key in your Info.plist" and returns nullopt.
  std::optional<std::string> apiKey() const;
  /// "CFBundleShortVersionString" of the bundle information, or "N/A".
  std::string appVersion() const;
  /// The standing headers, in order: Content-Type, Accept, X-App-Version-Code, X-Api-Key
  /// (when there is a key), Authorization "Bearer <token>" (when a token is saved).
  qvl::HttpHeaders headers() const;
  /// A new session for one request: the standing headers as defaults and this client as
  /// the server-trust delegate. Sets pinning up first (setupPinning) when the validator is
  /// unconfigured or does not pin the API domain in force with its current pins. With
  /// Env::allowUnpinnedApiDomain in effect, logs "QuorvelSDK: the API domain <host> has no
  /// pins; ..." for every session.
  std::shared_ptr<qvl::HttpSession> urlSession();

  /// GET baseURLV8/resource[/id][/relationships/relationship][?include=..&fields[t]=..].
  /// Path segments are percent-encoded as path segments. The query travels literally
  /// (brackets, commas, '=' and '&' of the values included); only what a URL cannot carry
  /// is percent-encoded: '%', space and other controls, '#', '"', '<', '>', '\', '^', '`',
  /// '{', '|', '}' and bytes outside ASCII.
  qvl::HttpRequest apiGetRequest(const std::string& resource, std::optional<std::int64_t> id,
                                 const std::optional<std::string>& relationship,
                                 const std::optional<std::string>& includes,
                                 const std::optional<LimitFields>& limitFields) const;
  /// POST baseURLV8/resource with the object as compact JSON.
  qvl::HttpRequest apiPostRequest(const std::string& resource, const qvl::Json& object) const;
  /// 200 <= status < 300.
  static bool successfulResponse(const qvl::HttpResponse& response);
  /// "QVLApiClientErrorDomain", code = status, user information = the body when it is a
  /// JSON object or array nested at most kQVLMaxJSONDepth deep.
  static QVLError errorWithResponse(const qvl::HttpResponse& response, const std::string& data);
  /// The calling thread's store handle (QVLRealm::realm()); nullptr when it cannot be opened.
  std::shared_ptr<qvl::Store> realm() const;

  /// Configures the environment's pin validator for the API domain and its subdomains:
  /// publicKeyHashes(), failures reported to baseURL() + "/ssl-reporting". A custom domain
  /// without pins is pinned to none (every chain refused), or, with
  /// Env::allowUnpinnedApiDomain, left out of the configuration.
  void setupPinning();
  /// Server trust of every session: the pin validator decides for pinned hosts; a host of
  /// the API domain the validator does not cover is refused (unless the host opted out of
  /// pinning); other hosts get default handling.
  qvl::TrustDisposition didReceiveServerTrustChallenge(
      const qvl::ServerTrustChallenge& challenge) override;
  /// Refuses a request to the API domain when it is a custom domain without pins and
  /// Env::allowUnpinnedApiDomain is off: a transport error, code
  /// CURLE_PEER_FAILED_VERIFICATION, whose message names the domain and the missing pins.
  std::optional<QVLError> willSendRequest(const qvl::HttpRequest& request) override;

  // ---- record operations ------------------------------------------------------------------

  /// GET the class's plural resource; stores the answer (merge rules of the mapping), then
  /// deletes the stored records of the class the answer did not list (a 2xx answer that
  /// is empty or not JSON counts as an empty list). Completion: the stored records as live
  /// results of "primary key IN the answer's keys" (store order).
  void getObjects(const QVLModelClass& cls, const std::optional<std::string>& includes,
                  const std::optional<LimitFields>& limitFields, ListCompletion completion);
  /// GET plural/id; stores the answer. Completion: the stored record.
  void getObject(const QVLModelClass& cls, std::int64_t withId,
                 const std::optional<std::string>& includes,
                 const std::optional<LimitFields>& limitFields, ObjectCompletion completion);
  /// GET relatedTo-plural/id/relationships/cls-plural; stores the answer, deletes nothing.
  void getObjectsRelatedTo(const QVLModelClass& cls, const QVLModelClass& relatedTo,
                           std::int64_t withId, const std::optional<std::string>& includes,
                           const std::optional<LimitFields>& limitFields,
                           ListCompletion completion);
  /// GET relatedTo-plural/id/relationships/cls-singular; stores the answer.
  void getObjectRelatedTo(const QVLModelClass& cls, const QVLModelClass& relatedTo,
                          std::int64_t withId, const std::optional<std::string>& includes,
                          const std::optional<LimitFields>& limitFields,
                          ObjectCompletion completion);
  /// POST the record's toDictionary() to its class's plural resource; the answer is ignored.
  /// The record is read on the calling thread before this returns.
  void postObject(const std::shared_ptr<QVLApiModel>& record, ErrorCompletion completion);
  /// POST the records' dictionaries as one array to the plural of the first record's class.
  /// An empty list sends nothing and completes without error.
  void postObjects(const std::vector<std::shared_ptr<QVLApiModel>>& records,
                   ErrorCompletion completion);
  /// POST as postObject, then store the answer as a record of the same class.
  void postAndSaveObject(const std::shared_ptr<QVLApiModel>& record, ObjectCompletion completion);
  /// PUT the whole list to owner-plural/owner-id/relationships/(relationship or element
  /// plural) as [{"type": element plural, "id": key}, ...], posts adding their "read" and
  /// "saved". A missing list or owner calls back at once, on the calling thread, with
  /// "QVLApiClientErrorDomain" code 0 and {"errorMessage": "Missing 'object' and 'relations'
  /// parameters on syncRelations in QVLApiClient"}. The list is read before this returns.
  void syncRelations(const std::optional<qvl::AnyList>& relations,
                     const std::shared_ptr<QVLApiModel>& forObject,
                     const std::optional<std::string>& withRelationshipString,
                     ErrorCompletion completion);
  /// POST {"prize_id": prizeIdentifier} to "redemptions"; nothing is stored.
  void redeemPrize(const qvl::Json& prizeIdentifier, ErrorCompletion completion);

  // ---- parsing and saving (synchronous, on the calling thread) ----------------------------

  /// The bytes as one unmanaged record (an empty record when they are not a JSON object).
  /// Throws QVLMappingError for a value of the wrong kind or JSON nested too deep.
  static std::shared_ptr<QVLApiModel> parseJSONObjectData(const std::string& data,
                                                          const QVLModelClass& cls);
  /// The bytes as unmanaged records (empty when they are not a JSON array); records of the
  /// wrong kind are left out and logged. Throws QVLMappingError for JSON nested too deep.
  static std::vector<std::shared_ptr<QVLApiModel>> parseJSONArrayData(const std::string& data,
                                                                      const QVLModelClass& cls);
  /// Create-or-update in one write transaction, then the stored record looked up afresh by
  /// key (a record of a class without a key: the one just stored). Throws qvl::StoreError
  /// when the store cannot be opened or written.
  std::shared_ptr<QVLApiModel> saveObject(const std::shared_ptr<QVLApiModel>& record,
                                          const QVLModelClass& cls);
  /// Create-or-update of every record in one write transaction; live results, in store
  /// order, of exactly the records saved (those without a key included). Throws
  /// qvl::StoreError like saveObject.
  qvl::AnyResults saveObjects(const std::vector<std::shared_ptr<QVLApiModel>>& records,
                              const QVLModelClass& cls);
  ///@{
  /// Parse, save, and call back before returning, on the calling thread. The error is a
  /// "QVLMappingErrorDomain" or "QVLStoreErrorDomain" one; otherwise absent.
  void parseAndSaveJSONObjectData(const std::string& data, const QVLModelClass& cls,
                                  const ObjectCompletion& completion);
  void parseAndSaveJSONArrayData(const std::string& data, const QVLModelClass& cls,
                                 const ListCompletion& completion);
  ///@}

  // ---- typed fronts -------------------------------------------------------------------------

  /// getObjects() for the record type T: the same request and completion rules, the
  /// results typed.
  template <class T>
  void getObjects(
      const std::optional<std::string>& includes, const std::optional<LimitFields>& limitFields,
      std::function<void(std::optional<qvl::Results<T>>, std::optional<QVLError>)> completion) {
    getObjects(T::modelClass(), includes, limitFields,
               [completion = std::move(completion)](std::optional<qvl::AnyResults> records,
                                                    std::optional<QVLError> error) {
                 std::optional<qvl::Results<T>> typed;
                 if (records) typed.emplace(std::move(*records));
                 completion(std::move(typed), std::move(error));
               });
  }
  /// getObject() for the record type T: the same request and completion rules, the record
  /// cast to T.
  template <class T>
  void getObject(std::int64_t withId, const std::optional<std::string>& includes,
                 const std::optional<LimitFields>& limitFields,
                 std::function<void(std::shared_ptr<T>, std::optional<QVLError>)> completion) {
    getObject(T::modelClass(), withId, includes, limitFields,
              [completion = std::move(completion)](std::shared_ptr<QVLApiModel> record,
                                                   std::optional<QVLError> error) {
                completion(std::static_pointer_cast<T>(record), std::move(error));
              });
  }

 private:
  QVLApiClient();
  void ensurePinning();
  void sendListRequest(const QVLModelClass& cls, qvl::HttpRequest request, bool removeStale,
                       ListCompletion completion);
  void sendObjectRequest(const QVLModelClass& cls, qvl::HttpRequest request,
                         ObjectCompletion completion);
  void sendRequest(qvl::HttpRequest request, ErrorCompletion completion);

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};
