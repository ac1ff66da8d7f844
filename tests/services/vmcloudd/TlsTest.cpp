// The service over HTTPS, with a self-signed certificate made here.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::ApiClient;
using testing::Send;

bool WriteSelfSigned(const std::filesystem::path& cert_file,
                     const std::filesystem::path& key_file) {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  if (!key || !cert) return false;
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_set_pubkey(cert.get(), key.get());
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  if (X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) return false;
  std::unique_ptr<BIO, decltype(&BIO_free)> cert_out(BIO_new_file(cert_file.c_str(), "w"),
                                                     BIO_free);
  std::unique_ptr<BIO, decltype(&BIO_free)> key_out(BIO_new_file(key_file.c_str(), "w"), BIO_free);
  return cert_out && key_out && PEM_write_bio_X509(cert_out.get(), cert.get()) == 1 &&
         PEM_write_bio_PrivateKey(key_out.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                  nullptr) == 1;
}

TEST(AttachmentServiceTls, ServesHttpsWithTheGivenCertificate) {
  testing::TempDir dir;
  ASSERT_TRUE(WriteSelfSigned(dir / "cert.pem", dir / "key.pem"));
  AttachmentServiceOptions options;
  options.data_dir = dir / "data";
  options.tokens = {"alpha"};
  options.tls_cert = dir / "cert.pem";
  options.tls_key = dir / "key.pem";
  ErrorRef error;
  auto service = AttachmentService::Create(options, &error);
  ASSERT_TRUE(service && service->start(&error)) << error->summary();
  ASSERT_EQ(service->baseURL().rfind("https://127.0.0.1:", 0), 0u);

  ApiClient api{service->baseURL()};
  testing::HttpReply started = api.start(3);
  ASSERT_EQ(started.status, 201);
  const std::string upload = started.json()["upload_url"];
  EXPECT_EQ(upload.rfind(service->baseURL() + "/blobs/", 0), 0u) << "blobs are served over TLS";
  EXPECT_EQ(Send("PUT", upload, "abc").status, 200);
  EXPECT_EQ(api.confirm(started.json()["uuid"], 3).status, 200);
  std::string plain = service->baseURL();
  plain.replace(0, 5, "http");
  EXPECT_EQ(ApiClient{plain}.start(3).status, 0) << "no plain HTTP on a TLS port";

  options.tls_cert = dir / "key.pem";  // not a certificate
  auto broken = AttachmentService::Create(options, &error);
  ASSERT_TRUE(broken);
  EXPECT_FALSE(broken->start(&error));
  EXPECT_EQ(error->domain(), "vmcloudd");
}

}  // namespace
}  // namespace vm
