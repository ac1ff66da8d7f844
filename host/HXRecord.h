#ifndef VM_HOST_HXRECORD_H_
#define VM_HOST_HXRECORD_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vm {

class HXObjectContext;

using Bytes = std::vector<std::uint8_t>;

// A value of a record attribute as the persistence layer sees it: null, an integer or a
// string. Qualifiers compare these.
using KeyValue = std::variant<std::monostate, std::int64_t, std::string>;

// A persistent record of the host's data model.
//
// Records are shared (std::shared_ptr) and belong to the object context that made them;
// the context outlives its records. Attribute access is thread-safe, but the host calls
// the framework on one thread and the framework writes records on the main queue only.
class HXRecord {
 public:
  explicit HXRecord(HXObjectContext* context) : context_(context) {}
  virtual ~HXRecord() = default;
  HXRecord(const HXRecord&) = delete;
  HXRecord& operator=(const HXRecord&) = delete;

  virtual std::string entityName() const = 0;
  // The attribute named `key` in the persistence layer, for qualifier evaluation;
  // std::monostate when the record has no such attribute or it is null.
  virtual KeyValue valueForKey(std::string_view key) const = 0;

  // The context the record lives in; null for a record made outside any context.
  HXObjectContext* vmpObjectContext() const { return context_; }
  HXObjectContext* objectContext() const { return context_; }

  std::uint64_t primaryKeyValue() const;
  void setPrimaryKeyValue(std::uint64_t key);

  // Set by every setter; the context's save writes changed records and clears it.
  bool hasChanges() const;
  void clearChanges();

  // "<Entity pk=N>", used in log lines.
  virtual std::string description() const;

 protected:
  void markChanged();
  mutable std::mutex mu_;

 private:
  HXObjectContext* const context_;
  std::uint64_t primary_key_ = 0;
  bool changed_ = false;
};

// A task in the user's worklist.
class HXTask : public HXRecord {
 public:
  static constexpr std::string_view kEntityName = "HXTask";
  using HXRecord::HXRecord;

  std::string entityName() const override { return std::string(kEntityName); }
  KeyValue valueForKey(std::string_view key) const override;

  std::string title() const;
  void setTitle(std::string title);
  std::string details() const;
  void setDetails(std::string details);
  std::int64_t dueDate() const;  // seconds since the Unix epoch
  void setDueDate(std::int64_t seconds);

 private:
  std::string title_;
  std::string details_;
  std::int64_t due_date_ = 0;
};

// An e-mail; the framework only needs to know which attachments are linked to one.
class HXEmail : public HXRecord {
 public:
  static constexpr std::string_view kEntityName = "HXEmail";
  using HXRecord::HXRecord;

  std::string entityName() const override { return std::string(kEntityName); }
  KeyValue valueForKey(std::string_view key) const override;

  std::string subject() const;
  void setSubject(std::string subject);

 private:
  std::string subject_;
};

}  // namespace vm

#endif  // VM_HOST_HXRECORD_H_
