#include "host/HXObjectContext.h"

#include <mutex>

namespace vm {
namespace {

std::mutex provider_mu;
VMCloudAuthentication::Provider& ProviderSlot() {
  static auto* provider = new VMCloudAuthentication::Provider;
  return *provider;
}

}  // namespace

std::string VMCloudAuthentication::companyTokenForLogin(const std::string& login,
                                                        std::uint64_t company_id) {
  Provider provider;
  {
    std::lock_guard lock(provider_mu);
    provider = ProviderSlot();
  }
  return provider ? provider(login, company_id) : std::string();
}

void VMCloudAuthentication::setProvider(Provider provider) {
  std::lock_guard lock(provider_mu);
  ProviderSlot() = std::move(provider);
}

}  // namespace vm
