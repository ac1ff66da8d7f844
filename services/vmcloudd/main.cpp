// vmcloudd: the reference attachment service. Serves the attachment web API on one
// address until SIGINT or SIGTERM; see --help.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "platform/Log.h"
#include "platform/SafeNames.h"
#include "services/vmcloudd/AttachmentService.h"

namespace {

// "127.0.0.1:8080", "[::1]:8080" or "localhost:0".
bool ParseListen(const std::string& text, std::string* host, int* port) {
  auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return false;
  std::string name = text.substr(0, colon);
  if (name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  char* end = nullptr;
  long value = std::strtol(text.c_str() + colon + 1, &end, 10);
  if (*end != '\0' || value < 0 || value > 65535 || name.empty()) return false;
  *host = name;
  *port = static_cast<int>(value);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // Request lines are the daemon's normal output; VM_LOG_LEVEL still overrides.
  setenv("VM_LOG_LEVEL", "default", /*overwrite=*/0);

  vm::AttachmentServiceOptions options;
  std::string listen;
  std::string data_dir;
  std::string tls_cert;
  std::string tls_key;
  long lifetime = options.url_lifetime.count();
  vm::S3Settings s3;

  CLI::App app{"vmcloudd: the reference attachment service"};
  app.add_option("--listen", listen, "ADDR:PORT to listen on; port 0 picks a free port")
      ->required();
  app.add_option("--data", data_dir, "Folder for the records and the embedded blobs")->required();
  app.add_option("--db", options.database,
                 "Records database: a postgresql:// URI shared by several instances "
                 "(default: DATA/attachments.sqlite)")
      ->envname("VMCLOUDD_DB");
  long stale_age = options.stale_upload_age.count();
  long sweep_interval = options.sweep_interval.count();
  app.add_option("--stale-upload-age", stale_age,
                 "Seconds after which an unconfirmed upload is removed (0: never)")
      ->check(CLI::Range(0L, 365L * 24 * 3600));
  app.add_option("--sweep-interval", sweep_interval, "Seconds between two looks for stale uploads")
      ->check(CLI::Range(1L, 24L * 3600));
  app.add_option("--token", options.tokens,
                 "Accepted token, sent as \"Authorization: Velmora <token>\" (repeatable)")
      ->envname("VMCLOUDD_TOKEN");
  auto* cert = app.add_option("--tls-cert", tls_cert, "PEM certificate chain: serve HTTPS")
                   ->check(CLI::ExistingFile);
  auto* key = app.add_option("--tls-key", tls_key, "PEM private key for --tls-cert")
                  ->check(CLI::ExistingFile);
  cert->needs(key);
  key->needs(cert);
  app.add_option("--public-url", options.public_url,
                 "Base URL clients use to reach this service (for embedded blob URLs)");
  app.add_option("--url-lifetime", lifetime, "Seconds a handed-out upload or download URL lasts")
      ->check(CLI::Range(1L, 7L * 24 * 3600));
  app.add_option("--max-json-body", options.max_json_body, "Largest JSON request body in bytes")
      ->check(CLI::PositiveNumber);
  app.add_option("--max-blob-size", options.max_blob_size, "Largest attachment in bytes");
  app.add_option("--threads", options.threads,
                 "Threads that run request handlers (slow peers do not hold them)")
      ->check(CLI::Range(1, 1024));
  double header_timeout = options.header_timeout.count() / 1000.0;
  double transfer_grace = options.transfer_grace.count() / 1000.0;
  app.add_option("--header-timeout", header_timeout,
                 "Seconds a request header may take to arrive whole")
      ->check(CLI::Range(0.1, 3600.0));
  app.add_option("--min-transfer-rate", options.min_transfer_rate,
                 "Bytes per second a body or answer must move on average after the grace time")
      ->check(CLI::PositiveNumber);
  app.add_option("--transfer-grace", transfer_grace,
                 "Seconds a body or answer may take before the minimum rate applies")
      ->check(CLI::Range(0.0, 3600.0));
  app.add_option("--max-connections", options.max_connections,
                 "Connections held at once; more are closed on arrival")
      ->check(CLI::PositiveNumber);

  auto* endpoint = app.add_option("--s3-endpoint", s3.endpoint,
                                  "S3-compatible endpoint URL: keep the bytes in a bucket");
  app.add_option("--s3-region", s3.region, "Bucket region")->capture_default_str();
  auto* bucket = app.add_option("--s3-bucket", s3.bucket, "Bucket name");
  auto* access = app.add_option("--s3-access-key", s3.access_key, "Access key ID")
                     ->envname("VMCLOUDD_S3_ACCESS_KEY");
  auto* secret = app.add_option("--s3-secret", s3.secret_key, "Secret access key")
                     ->envname("VMCLOUDD_S3_SECRET");
  app.add_flag("--s3-path-style", s3.path_style,
               "Address the bucket as endpoint/bucket/key instead of bucket.endpoint/key");
  app.add_option("--s3-prefix", s3.key_prefix, "Prefix of every object key");
  endpoint->needs(bucket)->needs(access)->needs(secret);
  bucket->needs(endpoint);

  CLI11_PARSE(app, argc, argv);

  if (!ParseListen(listen, &options.host, &options.port)) {
    std::cerr << "vmcloudd: --listen must be ADDR:PORT, not \"" << listen << "\"\n";
    return 2;
  }
  options.data_dir = data_dir;
  options.tls_cert = tls_cert;
  options.tls_key = tls_key;
  options.url_lifetime = std::chrono::seconds(lifetime);
  options.stale_upload_age = std::chrono::seconds(stale_age);
  options.sweep_interval = std::chrono::seconds(sweep_interval);
  options.header_timeout = std::chrono::milliseconds(static_cast<long>(header_timeout * 1000));
  options.transfer_grace = std::chrono::milliseconds(static_cast<long>(transfer_grace * 1000));
  if (!s3.endpoint.empty()) options.s3 = s3;

  // Signals are taken by sigwait below, so block them before any thread starts.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  vm::ErrorRef error;
  auto service = vm::AttachmentService::Create(std::move(options), &error);
  if (!service || !service->start(&error)) {
    std::cerr << "vmcloudd: " << error->summary() << "\n";
    return 1;
  }
  for (const std::string& notice : service->openNotices()) {
    std::cerr << "vmcloudd: " << vm::EscapeControlCharacters(notice) << "\n";
  }
  std::string address = service->baseURL();
  address = address.substr(address.find("://") + 3);
  std::printf("listening on %s\n", address.c_str());
  std::fflush(stdout);

  int received = 0;
  sigwait(&stop_signals, &received);
  vm::Log::Get("vmcloudd", "service").notice("stopping on signal {}", received);
  service->stop();
  return 0;
}
