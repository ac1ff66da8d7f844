#ifndef VM_HOST_FETCH_H_
#define VM_HOST_FETCH_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/HXRecord.h"
#include "platform/Error.h"

namespace vm {

// A condition on records, evaluated in memory (instance cache) or turned into SQL by the
// host. Immutable and thread-safe.
class BDQualifier {
 public:
  virtual ~BDQualifier() = default;
  virtual bool evaluateWithObject(const HXRecord& record) const = 0;
};
using BDQualifierRef = std::shared_ptr<const BDQualifier>;

// key = value or key != value. Null equals null only; != is true for null against a value,
// as the persistence layer's in-memory qualifiers behave.
class BDKeyValueQualifier : public BDQualifier {
 public:
  enum class Operator { kEqual, kNotEqual };

  static BDQualifierRef qualifierWhereValueOfKey(std::string key, KeyValue is_equal_to);
  static BDQualifierRef qualifierWhereValueOfKeyIsNotEqualTo(std::string key, KeyValue value);

  BDKeyValueQualifier(std::string key, Operator op, KeyValue value);
  bool evaluateWithObject(const HXRecord& record) const override;

  const std::string& key() const { return key_; }
  Operator op() const { return op_; }
  const KeyValue& value() const { return value_; }

 private:
  std::string key_;
  Operator op_;
  KeyValue value_;
};

class BDAndQualifier : public BDQualifier {
 public:
  static BDQualifierRef andQualifierWithQualifiers(std::vector<BDQualifierRef> qualifiers);

  explicit BDAndQualifier(std::vector<BDQualifierRef> qualifiers);
  bool evaluateWithObject(const HXRecord& record) const override;

  const std::vector<BDQualifierRef>& qualifiers() const { return qualifiers_; }

 private:
  std::vector<BDQualifierRef> qualifiers_;
};

// What to fetch: an entity, an optional qualifier, and the attributes to load first.
struct BWPFetchSpecification {
  std::string entityName;
  BDQualifierRef qualifier;
  std::vector<std::string> initialAttributeNames;
};

// A fetch of one specification. A raw SQL condition, when set, is ANDed with the
// qualifier; its "?" placeholders are bound to `rawSQLArguments`, never spliced in.
// Records hidden by permissions or lying in the trash are found only when the
// corresponding override is set.
class BWPFetchRequest {
 public:
  explicit BWPFetchRequest(BWPFetchSpecification specification)
      : specification_(std::move(specification)) {}
  virtual ~BWPFetchRequest() = default;

  const BWPFetchSpecification& fetchSpecification() const { return specification_; }

  bool overridePermissionsSystem() const { return override_permissions_; }
  void setOverridePermissionsSystem(bool value) { override_permissions_ = value; }
  bool overrideTrashSystem() const { return override_trash_; }
  void setOverrideTrashSystem(bool value) { override_trash_ = value; }

  const std::string& rawSQLWhere() const { return raw_sql_where_; }
  const std::vector<KeyValue>& rawSQLArguments() const { return raw_sql_arguments_; }
  void setRawSQLWhere(std::string condition, std::vector<KeyValue> arguments = {}) {
    raw_sql_where_ = std::move(condition);
    raw_sql_arguments_ = std::move(arguments);
  }

 private:
  BWPFetchSpecification specification_;
  bool override_permissions_ = false;
  bool override_trash_ = false;
  std::string raw_sql_where_;
  std::vector<KeyValue> raw_sql_arguments_;
};

using FetchResults = std::vector<std::shared_ptr<HXRecord>>;

// A fetch whose results arrive through a callback, on a thread of the host's choosing.
// `error` is null on success.
class BWPAsyncFetchRequest : public BWPFetchRequest {
 public:
  using Callback = std::function<void(FetchResults results, ErrorRef error)>;

  BWPAsyncFetchRequest(BWPFetchSpecification specification, Callback callback)
      : BWPFetchRequest(std::move(specification)), callback_(std::move(callback)) {}

  const Callback& callbackBlock() const { return callback_; }

 private:
  Callback callback_;
};

}  // namespace vm

#endif  // VM_HOST_FETCH_H_
