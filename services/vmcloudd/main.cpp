// vmcloudd: the reference attachment service. Serves the attachment web API on one
// address until SIGINT or SIGTERM; SIGHUP re-reads the token file; see --help.
#include <signal.h>
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "platform/Log.h"
#include "platform/SafeNames.h"
#include "services/vmcloudd/AttachmentService.h"
#include "services/vmcloudd/SecretFile.h"

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

std::string HostForAddress(const std::string& host) {
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Whether `option` (a long option taking a value) was written on the command line itself,
// as "--option VALUE" or "--option=VALUE".
bool OnCommandLine(int argc, char** argv, std::string_view option) {
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == option || (arg.size() > option.size() && arg.substr(0, option.size()) == option &&
                          arg[option.size()] == '=')) {
      return true;
    }
  }
  return false;
}

vm::Log& ServiceLog() { return vm::Log::Get("vmcloudd", "service"); }

// The accepted tokens: those given directly, then those of the token file.
bool CollectTokens(const std::vector<std::string>& direct, const std::string& token_file,
                   std::vector<std::string>* tokens, vm::ErrorRef* error) {
  *tokens = direct;
  if (token_file.empty()) return true;
  std::vector<std::string> from_file;
  if (!vm::ReadSecretFile(token_file, &from_file, error)) return false;
  tokens->insert(tokens->end(), from_file.begin(), from_file.end());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // The start-up line is the daemon's normal output; VM_LOG_LEVEL still overrides.
  setenv("VM_LOG_LEVEL", "default", /*overwrite=*/0);

  vm::AttachmentServiceOptions options;
  std::string listen;
  std::string metrics_listen;
  std::string data_dir;
  std::string tls_cert;
  std::string tls_key;
  std::string token_file;
  std::string s3_secret_file;
  std::string log_format = "text";
  double drain_timeout = 30;
  long lifetime = options.url_lifetime.count();
  vm::S3Settings s3;

  CLI::App app{"vmcloudd: the reference attachment service"};
  app.set_config("--config", "", "Read options from this file (name = value lines)");
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
  std::vector<std::string> direct_tokens;
  app.add_option("--token", direct_tokens,
                 "Accepted token, sent as \"Authorization: Velmora <token>\" (repeatable; "
                 "visible to local users: prefer --token-file or VMCLOUDD_TOKEN)");
  app.add_option("--token-file", token_file,
                 "File of accepted tokens, one a line, readable by its owner only; SIGHUP "
                 "reads it again");
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
  app.add_option("--metrics-listen", metrics_listen,
                 "ADDR:PORT serving Prometheus metrics at /metrics, without a token (off by "
                 "default; keep it on a private network)");
  app.add_option("--drain-timeout", drain_timeout,
                 "Seconds the requests in flight at SIGTERM or SIGINT may take to finish")
      ->check(CLI::Range(0.0, 3600.0))
      ->capture_default_str();
  app.add_option("--log-format", log_format, "Log lines as text or as JSON objects")
      ->check(CLI::IsMember({"text", "json"}))
      ->capture_default_str();

  auto* endpoint = app.add_option("--s3-endpoint", s3.endpoint,
                                  "S3-compatible endpoint URL: keep the bytes in a bucket");
  app.add_option("--s3-region", s3.region, "Bucket region")->capture_default_str();
  auto* bucket = app.add_option("--s3-bucket", s3.bucket, "Bucket name");
  auto* access = app.add_option("--s3-access-key", s3.access_key, "Access key ID")
                     ->envname("VMCLOUDD_S3_ACCESS_KEY");
  app.add_option("--s3-secret", s3.secret_key,
                 "Secret access key (visible to local users: prefer --s3-secret-file or "
                 "VMCLOUDD_S3_SECRET)");
  app.add_option("--s3-secret-file", s3_secret_file,
                 "File holding the secret access key, readable by its owner only");
  app.add_flag("--s3-path-style", s3.path_style,
               "Address the bucket as endpoint/bucket/key instead of bucket.endpoint/key");
  app.add_option("--s3-prefix", s3.key_prefix, "Prefix of every object key");
  endpoint->needs(bucket)->needs(access);
  bucket->needs(endpoint);

  CLI11_PARSE(app, argc, argv);
  vm::Log::SetFormat(log_format == "json" ? vm::LogFormat::kJson : vm::LogFormat::kText);

  if (!ParseListen(listen, &options.host, &options.port)) {
    std::cerr << "vmcloudd: --listen must be ADDR:PORT, not \"" << listen << "\"\n";
    return 2;
  }
  if (!metrics_listen.empty() &&
      !ParseListen(metrics_listen, &options.metrics_host, &options.metrics_port)) {
    std::cerr << "vmcloudd: --metrics-listen must be ADDR:PORT, not \"" << metrics_listen << "\"\n";
    return 2;
  }
  if (OnCommandLine(argc, argv, "--token")) {
    ServiceLog().notice(
        "warning: --token is visible to every local user; use --token-file or VMCLOUDD_TOKEN");
  }
  if (OnCommandLine(argc, argv, "--s3-secret")) {
    ServiceLog().notice(
        "warning: --s3-secret is visible to every local user; use --s3-secret-file or "
        "VMCLOUDD_S3_SECRET");
  }
  if (const char* env = std::getenv("VMCLOUDD_TOKEN"); env != nullptr && *env != '\0') {
    direct_tokens.emplace_back(env);
  }
  vm::ErrorRef error;
  if (!CollectTokens(direct_tokens, token_file, &options.tokens, &error)) {
    std::cerr << "vmcloudd: " << error->summary() << "\n";
    return 2;
  }
  if (!s3_secret_file.empty()) {
    std::vector<std::string> secret;
    if (!vm::ReadSecretFile(s3_secret_file, &secret, &error)) {
      std::cerr << "vmcloudd: " << error->summary() << "\n";
      return 2;
    }
    s3.secret_key = secret.front();
  } else if (const char* env = std::getenv("VMCLOUDD_S3_SECRET");
             s3.secret_key.empty() && env != nullptr) {
    s3.secret_key = env;
  }
  if (!s3.endpoint.empty() && s3.secret_key.empty()) {
    std::cerr << "vmcloudd: --s3-endpoint needs a secret: --s3-secret-file, VMCLOUDD_S3_SECRET "
                 "or --s3-secret\n";
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
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const std::string metrics_host = HostForAddress(options.metrics_host);
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
  if (service->metricsPort() > 0) {
    std::printf("metrics on %s:%d\n", metrics_host.c_str(), service->metricsPort());
  }
  std::fflush(stdout);
  sd_notify(0, "READY=1");

  int received = 0;
  while (sigwait(&signals, &received) == 0 && received == SIGHUP) {
    std::vector<std::string> tokens;
    if (token_file.empty()) {
      ServiceLog().notice("SIGHUP: no --token-file to read again");
    } else if (!CollectTokens(direct_tokens, token_file, &tokens, &error) ||
               !service->setTokens(tokens, &error)) {
      ServiceLog().error("SIGHUP: the tokens stay as they were: {}", error->summary());
    } else {
      ServiceLog().notice("SIGHUP: {} tokens accepted from now on", tokens.size());
    }
  }
  sd_notify(0, "STOPPING=1");
  ServiceLog().notice("stopping on signal {}: requests in flight get {}s to finish", received,
                      drain_timeout);
  const std::size_t cut =
      service->stop(std::chrono::milliseconds(static_cast<long>(drain_timeout * 1000)));
  ServiceLog().notice("stopped; {} requests in flight were cut", cut);
  return 0;
}
