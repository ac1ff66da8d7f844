#include "host/Fetch.h"

namespace vm {

BDQualifierRef BDKeyValueQualifier::qualifierWhereValueOfKey(std::string key,
                                                             KeyValue is_equal_to) {
  return std::make_shared<BDKeyValueQualifier>(std::move(key), Operator::kEqual,
                                               std::move(is_equal_to));
}

BDQualifierRef BDKeyValueQualifier::qualifierWhereValueOfKeyIsNotEqualTo(std::string key,
                                                                         KeyValue value) {
  return std::make_shared<BDKeyValueQualifier>(std::move(key), Operator::kNotEqual,
                                               std::move(value));
}

BDKeyValueQualifier::BDKeyValueQualifier(std::string key, Operator op, KeyValue value)
    : key_(std::move(key)), op_(op), value_(std::move(value)) {}

bool BDKeyValueQualifier::evaluateWithObject(const HXRecord& record) const {
  bool equal = record.valueForKey(key_) == value_;
  return op_ == Operator::kEqual ? equal : !equal;
}

BDQualifierRef BDAndQualifier::andQualifierWithQualifiers(std::vector<BDQualifierRef> qualifiers) {
  return std::make_shared<BDAndQualifier>(std::move(qualifiers));
}

BDAndQualifier::BDAndQualifier(std::vector<BDQualifierRef> qualifiers)
    : qualifiers_(std::move(qualifiers)) {}

bool BDAndQualifier::evaluateWithObject(const HXRecord& record) const {
  for (const BDQualifierRef& q : qualifiers_) {
    if (q && !q->evaluateWithObject(record)) return false;
  }
  return true;
}

}  // namespace vm
