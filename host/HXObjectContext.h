#ifndef VM_HOST_HXOBJECTCONTEXT_H_
#define VM_HOST_HXOBJECTCONTEXT_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/Fetch.h"
#include "platform/Error.h"

namespace vm {

class HXFileAttachmentScheme;
class HXFileAttachmentSchemeHandler;
class HXTask;
class VMAttachmentTransferManager;

// The records already loaded in memory, by entity.
class HXInstanceCache {
 public:
  virtual ~HXInstanceCache() = default;
  virtual FetchResults objectsForEntityNamed(std::string_view entity_name,
                                             const BDQualifierRef& qualifier) = 0;
};

struct HXDatabaseIdentifier {
  std::uint64_t customerID = 0;
};

struct HXUser {
  std::string username;
};

// The host's persistence context: fetches, saves, the transfer manager and the
// user/database identity. A record's context outlives the record.
//
// Thread-safety is the implementation's to state; the framework calls a context from the
// host's thread and from the main queue, and asyncResultsForFetchRequest's callback may
// arrive on any thread.
class HXObjectContext {
 public:
  virtual ~HXObjectContext() = default;

  // Writes every changed record in one transaction.
  virtual bool saveChanges(ErrorRef* error) = 0;

  virtual FetchResults resultsForFetchRequest(const BWPFetchRequest& request,
                                              ErrorRef* error = nullptr) = 0;
  virtual void asyncResultsForFetchRequest(std::shared_ptr<BWPAsyncFetchRequest> request) = 0;
  // The data store's instance cache.
  virtual HXInstanceCache& instanceCache() = 0;

  virtual VMAttachmentTransferManager* attachmentTransferManager() = 0;
  // The scheme record of the cloud scheme, or null when there is none.
  virtual std::shared_ptr<HXFileAttachmentScheme> cloudStorageScheme() = 0;
  // The one handler of a scheme record, made on first use.
  virtual std::shared_ptr<HXFileAttachmentSchemeHandler> schemeHandlerForScheme(
      HXFileAttachmentScheme& scheme) = 0;

  // This database copy's offset: every primary key it hands out leaves this remainder when
  // divided by 1000.
  virtual std::int64_t primaryKeyOffset() const = 0;
  virtual HXDatabaseIdentifier databaseIdentifier() const = 0;
  virtual std::string databaseUUID() const = 0;
  virtual HXUser user() const = 0;

  // Records of other entities, tasks and links.
  virtual std::shared_ptr<HXRecord> createObjectForEntityNamed(std::string_view entity_name,
                                                               bool insert) = 0;
  virtual void removeTaskFromInboxList(HXTask& task) = 0;
  virtual void addTaskToWorklist(HXTask& task) = 0;
  virtual void linkObject(HXRecord& object, HXRecord& to_object) = 0;
};

// The host's source of cloud tokens: the token text for a login of a company.
class VMCloudAuthentication {
 public:
  using Provider = std::function<std::string(const std::string& login, std::uint64_t company_id)>;

  // Empty when the host installed no provider.
  static std::string companyTokenForLogin(const std::string& login, std::uint64_t company_id);
  static void setProvider(Provider provider);
};

}  // namespace vm

#endif  // VM_HOST_HXOBJECTCONTEXT_H_
