#ifndef VM_HOST_HXFILEATTACHMENTSCHEME_H_
#define VM_HOST_HXFILEATTACHMENTSCHEME_H_

#include <memory>
#include <optional>
#include <string>

#include "host/HXRecord.h"

namespace vm {

class HXFileAttachmentSchemeHandler;

// The persisted configuration of one storage scheme: its name, the class of the handler
// that serves it, and the handler's private settings (`infoData`, a keyed archive of a
// settings dictionary for the share schemes).
//
// Thread-safe accessors. The record belongs to its context; the context also owns the one
// handler it creates per scheme record.
class HXFileAttachmentScheme : public HXRecord {
 public:
  static constexpr std::string_view kEntityName = "HXFileAttachmentScheme";

  using HXRecord::HXRecord;

  std::string entityName() const override { return std::string(kEntityName); }
  KeyValue valueForKey(std::string_view key) const override;

  std::string name() const;
  void setName(std::string name);

  // The handler class, by the name it is registered under ("VMFileReferenceAttachment").
  std::string handlerClassName() const;
  void setHandlerClassName(std::string class_name);

  std::optional<Bytes> infoData() const;
  void setInfoData(std::optional<Bytes> data);

  // The handler the context made for this scheme record; null when the handler class is
  // unknown or there is no context.
  std::shared_ptr<HXFileAttachmentSchemeHandler> schemeHandler();

 private:
  std::string name_;
  std::string handler_class_name_;
  std::optional<Bytes> info_data_;
};

}  // namespace vm

#endif  // VM_HOST_HXFILEATTACHMENTSCHEME_H_
