#include "host/HXAttachmentCache.h"

#include <mutex>

namespace vm {
namespace {

struct SharedState {
  std::mutex mu;
  std::shared_ptr<HXAttachmentCache> cache;
  HXAttachmentCache::Factory factory;
};

SharedState& State() {
  static auto* state = new SharedState;
  return *state;
}

}  // namespace

std::shared_ptr<HXAttachmentCache> HXAttachmentCache::sharedCache() {
  std::lock_guard lock(State().mu);
  return State().cache;
}

void HXAttachmentCache::setSharedCache(std::shared_ptr<HXAttachmentCache> cache) {
  std::lock_guard lock(State().mu);
  State().cache = std::move(cache);
}

std::shared_ptr<HXAttachmentCache> HXAttachmentCache::setupSharedFileCacheOfType(int type) {
  std::lock_guard lock(State().mu);
  if (!State().cache && State().factory) State().cache = State().factory(type);
  return State().cache;
}

void HXAttachmentCache::setSharedCacheFactory(Factory factory) {
  std::lock_guard lock(State().mu);
  State().factory = std::move(factory);
}

}  // namespace vm
