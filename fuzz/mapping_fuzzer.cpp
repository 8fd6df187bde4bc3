// Arbitrary service answers through the JSON-to-record mapping of every record class.
//
// Input: the record class's name and a newline, then the answer's bytes ("QVLPost\n{...}").
// An input whose first line names no class picks one by its first byte. Each answer is
// parsed and saved as the client saves an answer (the merge done in the write), then parsed
// as the client parses it, mapped against a store that keeps what earlier inputs stored (so
// merging with stored twins is exercised), written, and turned back into JSON.
// The client maps answers from simdjson's parse, the public mapping from nlohmann's document;
// every answer is mapped both ways and the records must be the same.
// Rejections the mapping documents (a Failure inside, QVLMappingError from the public calls,
// a discarded non-JSON answer) are expected; anything else that escapes, and every sanitizer
// report, is a finding.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Env.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLRealm.h"
#include "records/QVLMappingPlan.h"

namespace {

std::shared_ptr<qvl::Store> store;

const QVLModelClass& pickClass(std::string_view& input) {
  const auto& classes = QVLRealm::objectClasses();
  const size_t newline = input.find('\n');
  if (newline != std::string_view::npos) {
    for (auto ref : classes) {
      if (ref().name() == input.substr(0, newline)) {
        input.remove_prefix(newline + 1);
        return static_cast<const QVLModelClass&>(ref());
      }
    }
  }
  const auto selector = input.empty() ? 0u : static_cast<unsigned char>(input.front());
  return static_cast<const QVLModelClass&>(classes[selector % classes.size()]());
}

// The client's own path for an answer: parse and save in one step, the records merged with
// the stored ones inside the write. Every outcome is a completion, called exactly once.
void parseAndSaveAsTheClientDoes(const std::string& body, const QVLModelClass& cls) {
  auto& client = QVLApiClient::sharedClient();
  int completions = 0;
  client.parseAndSaveJSONArrayData(
      body, cls, [&](std::optional<qvl::AnyResults> saved, std::optional<QVLError>) {
        ++completions;
        if (saved) (void)saved->size();
      });
  if (cls.primaryKeyIndex() >= 0) {  // classes without a key are never parsed singly
    client.parseAndSaveJSONObjectData(
        body, cls, [&](std::shared_ptr<QVLApiModel> saved, std::optional<QVLError>) {
          ++completions;
          if (saved) (void)saved->toDictionary().dump();
        });
  }
  if (completions != (cls.primaryKeyIndex() >= 0 ? 2 : 1)) std::abort();
}

// Same class, values (doubles bit for bit), kept-value marks, links and lists.
bool sameRecord(const std::shared_ptr<qvl::Object>& a, const std::shared_ptr<qvl::Object>& b) {
  if (!a || !b) return a == b;
  if (&a->objectClass() != &b->objectClass()) return false;
  for (int i = 0; i < static_cast<int>(a->objectClass().properties().size()); ++i) {
    const qvl::Property& p = a->objectClass().property(i);
    if (p.kind == qvl::PropertyKind::LinkingObjects) continue;
    if (a->keepsStoredValue(i) != b->keepsStoredValue(i)) return false;
    if (p.isScalar()) {
      qvl::Value x = a->value(i), y = b->value(i);
      if (x != y) return false;
      const double* dx = std::get_if<double>(&x);
      const double* dy = std::get_if<double>(&y);
      if (dx && std::memcmp(dx, dy, sizeof(double)) != 0) return false;
    } else if (p.kind == qvl::PropertyKind::Link) {
      if (!sameRecord(a->link(i), b->link(i))) return false;
    } else {
      auto xs = a->list(i).elements(), ys = b->list(i).elements();
      if (xs.size() != ys.size()) return false;
      for (size_t k = 0; k < xs.size(); ++k) {
        if (!sameRecord(xs[k], ys[k])) return false;
      }
    }
  }
  return true;
}

// Both mappings of the answer, as an array and as one record: the same records, the same
// listed keys, the same rejection.
void compareParsers(const std::string& body, const QVLModelClass& cls) {
  using Records = std::vector<std::shared_ptr<QVLApiModel>>;
  std::vector<std::int64_t> fastKeys, documentKeys;
  std::optional<Records> fast, document;
  if (auto records = qvl::detail::recordsToMerge(cls, body, &fastKeys)) fast = std::move(*records);
  if (auto json = qvl::detail::readServiceJSON(body)) {
    document = qvl::detail::recordsToMerge(cls, std::move(*json), &documentKeys);
  }
  if (fast.has_value() != document.has_value() || fastKeys != documentKeys) std::abort();
  if (fast) {
    if (fast->size() != document->size()) std::abort();
    for (size_t i = 0; i < fast->size(); ++i) {
      if (!sameRecord((*fast)[i], (*document)[i])) std::abort();
    }
  }
  if (cls.primaryKeyIndex() < 0) return;
  auto fastOne = qvl::detail::recordToMerge(cls, std::string_view(body));
  auto json = qvl::detail::readServiceJSON(body);
  auto documentOne = json ? qvl::detail::recordToMerge(cls, *json)
                          : qvl::detail::Result<std::shared_ptr<QVLApiModel>>(json.failure());
  if (fastOne.ok() != documentOne.ok()) std::abort();
  if (fastOne && !sameRecord(*fastOne, *documentOne)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // tmpfs when there is one: every input commits a write transaction.
  std::filesystem::path base = std::filesystem::exists("/dev/shm")
                                   ? std::filesystem::path("/dev/shm")
                                   : std::filesystem::temp_directory_path();
  std::string dir = (base / "quorvel-fuzz-XXXXXX").string();
  if (!mkdtemp(dir.data())) std::abort();
  qvl::Env env;
  env.storeDirectory = dir;
  env.logSink = [](qvl::LogLevel, std::string_view) {};  // rejections are logged; keep quiet
  qvl::Env::configure(std::move(env));
  store = QVLRealm::realm();
  if (!store) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const QVLModelClass& cls = pickClass(input);
  parseAndSaveAsTheClientDoes(std::string(input), cls);
  compareParsers(std::string(input), cls);

  nlohmann::json answer;
  try {
    answer = qvl::detail::parseJSONData(input);
  } catch (const QVLMappingError&) {
    return 0;  // nested too deep
  }
  if (answer.is_discarded()) return 0;

  std::vector<std::shared_ptr<QVLApiModel>> records;
  if (answer.is_array()) {
    std::vector<QVLError> rejected;
    records = qvl::detail::newObjectsWithJSONArray(cls, answer, store.get(), &rejected);
  } else if (cls.primaryKeyIndex() >= 0) {  // classes without a key are never parsed singly
    try {
      records.push_back(qvl::detail::newObjectWithJSONDictionary(cls, answer, store.get()));
    } catch (const QVLMappingError&) {
      return 0;
    }
  }
  for (const auto& record : records) (void)record->toDictionary().dump();
  if (!records.empty() && cls.primaryKeyIndex() >= 0) {
    store->write([&] {
      store->addOrUpdateAll(
          std::vector<std::shared_ptr<qvl::Object>>(records.begin(), records.end()));
    });
    for (const auto& record : records) {
      auto stored = store->object(cls, record->primaryKeyValue());
      if (!stored) std::abort();  // what was just written must be found by its key
      (void)std::static_pointer_cast<QVLApiModel>(stored)->toDictionary().dump();
    }
  }
  return 0;
}
