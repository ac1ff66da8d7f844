// `vmattach verify --deep` of an attachment stored through the cloud scheme against the
// work it stands for, measured in the same run: the curl tool's GET of the same stored
// bytes from the address the service gives (to /dev/null), plus one pass of the scheme's
// decryptor over those bytes as verify makes it (read, SHA-1 of the encrypted bytes,
// decryption, SHA-1 of the plain bytes, both compared with the row's).
// Prints per round and size the ratio verify / (curl GET + pass), per size the median,
// goal at most 1.1, and verify's peak resident memory, goal flat in the size.
//
// The sides take turns at going first; the stored blob and the pass's copy of it stay in
// the page cache, so neither side pays for the disk the other left.
//
//   cloud_verify_bench [--sizes 256,1024] [--rounds 5] [--curl /usr/bin/curl]
//   cloud_verify_bench --pass FILE DATA_DIR ID   (one pass over FILE with the row's keys)

#include <fcntl.h>
#include <fmt/format.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "BWCryptographer/BWCryptographer.h"
#include "VMAttachments/schemes/VMAttachmentSchemes.h"
#include "bench/cloud/BenchProcess.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"

namespace {

using Clock = std::chrono::steady_clock;
using vm::bench::Finished;
using vm::bench::Run;
namespace fs = std::filesystem;

constexpr const char* kToken = "bench-token";
constexpr const char* kCollection = "/v1/_internal/attachment";
// What the tool's transfers hand over at a time (the session's receive buffer).
constexpr std::size_t kChunk = 512 * 1024;

vm::Bytes HashOf(const vm::HXFileAttachment& attachment, std::string_view key) {
  std::optional<vm::KeyedValue> value = attachment.objectForKeyedSubscript(key);
  if (!value) return {};
  if (const auto* bytes = std::get_if<vm::Bytes>(&*value)) return *bytes;
  if (const auto* text = std::get_if<std::string>(&*value)) return {text->begin(), text->end()};
  return {};
}

vm::Bytes Finish(EVP_MD_CTX* ctx) {
  vm::Bytes digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx, digest.data(), &length);
  digest.resize(length);
  return digest;
}

// ---- The reference pass, in a child process: prints its seconds -------------------------

int Pass(const fs::path& file, const fs::path& data, std::uint64_t id) {
  vm::RegisterVMAttachmentsSchemeClasses();
  vm::ErrorRef error;
  auto context = vm::SqliteObjectContext::open(data, &error);
  auto attachment = context ? context->attachmentWithPrimaryKey(id) : nullptr;
  if (!attachment) return 1;
  const vm::Bytes crypted_hash = HashOf(*attachment, vm::kHXFileAttachmentCryptedHash);
  const vm::Bytes source_hash = HashOf(*attachment, vm::kHXFileAttachmentSourceHash);
  const vm::Bytes keys = attachment->encryptionData().value_or(vm::Bytes{});
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 1;
  std::vector<std::uint8_t> chunk(kChunk);
  EVP_MD_CTX* crypted = EVP_MD_CTX_new();
  EVP_MD_CTX* plain = EVP_MD_CTX_new();
  const auto start = Clock::now();
  auto decryptor = vm::BWCryptographer::decryptorWithData(keys);
  EVP_DigestInit_ex(crypted, EVP_sha1(), nullptr);
  EVP_DigestInit_ex(plain, EVP_sha1(), nullptr);
  bool ok = decryptor != nullptr;
  for (ssize_t got; ok && (got = ::read(fd, chunk.data(), chunk.size())) > 0;) {
    EVP_DigestUpdate(crypted, chunk.data(), static_cast<std::size_t>(got));
    std::size_t length = static_cast<std::size_t>(got);
    vm::CryptBuffer out = decryptor->cryptChunk(chunk.data(), &length);
    ok = out && !decryptor->failed();
    if (ok && length > 0) EVP_DigestUpdate(plain, out.get(), length);
  }
  std::size_t length = 0;
  vm::CryptBuffer last = ok ? decryptor->cryptFinalChunkWithLength(&length) : nullptr;
  if (last && length > 0) EVP_DigestUpdate(plain, last.get(), length);
  ok = ok && last && Finish(crypted) == crypted_hash && Finish(plain) == source_hash;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  EVP_MD_CTX_free(crypted);
  EVP_MD_CTX_free(plain);
  ::close(fd);
  if (!ok) {
    fmt::print(stderr, "the pass did not verify the stored bytes\n");
    return 1;
  }
  fmt::print("{:.6f}\n", seconds);
  return 0;
}

// ---- The driver ----------------------------------------------------------------------------

struct Round {
  double verify = 0, get = 0, pass = 0;
  long verify_peak = 0;
  double ratio() const { return verify / (get + pass); }
};

bool MeasureVerify(const std::string& vmattach, const std::string& data, const std::string& id,
                   Round* round) {
  Finished verify = Run({vmattach, "--data-dir", data, "verify", "--deep", id});
  if (verify.status != 0 || verify.output.find("\tok\t") == std::string::npos) {
    fmt::print(stderr, "verify failed ({}): {}", verify.status, verify.output);
    return false;
  }
  round->verify = verify.seconds;
  round->verify_peak = verify.peak_kib;
  return true;
}

bool MeasureReference(const std::string& self, const std::string& curl, const std::string& url,
                      const fs::path& copy, const std::string& data, const std::string& id,
                      Round* round) {
  Finished get = Run({curl, "-sS", "-o", "/dev/null", "-w", "%{time_total}", url});
  Finished pass = Run({self, "--pass", copy.string(), data, id});
  if (get.status != 0 || pass.status != 0) {
    fmt::print(stderr, "a reference part failed (curl {}, pass {})\n", get.status, pass.status);
    return false;
  }
  round->get = std::stod(get.output);
  round->pass = std::stod(pass.output);
  return true;
}

// The download address the service gives for the stored attachment `id`.
std::string DownloadURL(const std::string& vmattach, const std::string& data, int port,
                        const std::string& id) {
  Finished shown = Run({vmattach, "--data-dir", data, "show", id, "--json"});
  auto row = nlohmann::json::parse(shown.output, nullptr, false);
  if (shown.status != 0 || !row.is_object()) return {};
  httplib::Client api("127.0.0.1", port);
  auto info = api.Get(std::string(kCollection) + "/" + row.value("uuid", ""),
                      {{"Authorization", std::string("Velmora ") + kToken}});
  if (!info || info->status != 200) return {};
  return nlohmann::json::parse(info->body, nullptr, false).value("download_url", "");
}

int Drive(const std::string& self, const std::string& vmattach, const std::string& vmcloudd,
          const vm::bench::SizeOptions& options) {
  const fs::path work = vm::bench::MakeWorkFolder("vm-cloud-verify-bench");
  if (work.empty()) return 1;
  vm::bench::Server service = vm::bench::StartCloudService(vmcloudd, work, kToken);
  if (service.port == 0) return 1;
  const std::string data = (work / "data").string();
  const std::string api = fmt::format("http://127.0.0.1:{}", service.port);
  if (!vm::bench::AddCloudScheme(vmattach, data, api, kToken)) return 1;
  fmt::print("cloud verify benchmark: vmattach verify --deep against vmcloudd {}, {} rounds\n", api,
             options.rounds);
  fmt::print("{:>8} {:>5} {:>8} {:>8} {:>8} {:>7} {:>10}\n", "size", "round", "verify", "curl get",
             "pass", "ratio", "verify pk");
  int failures = 0;
  for (std::size_t mib : options.sizes) {
    const fs::path file = work / fmt::format("payload-{}.bin", mib);
    const fs::path copy = work / "stored-copy.bin";
    vm::bench::MakeFile(file, mib);
    Finished stored =
        Run({vmattach, "--data-dir", data, "store", file.string(), "--scheme", "cloud"});
    const std::string id = stored.output.substr(0, stored.output.find('\n'));
    fs::remove(file);
    const std::string url = stored.status == 0 ? DownloadURL(vmattach, data, service.port, id) : "";
    // The pass reads the stored bytes from a local copy, fetched once and not timed.
    if (url.empty() || Run({options.curl, "-sS", "-o", copy.string(), url}).status != 0) {
      fmt::print(stderr, "the {} MiB attachment could not be stored or fetched\n", mib);
      ++failures;
      continue;
    }
    std::vector<double> ratios;
    long peak = 0;
    // One uncounted round brings the blob and the copy into the page cache.
    Round warm_up;
    bool ok = MeasureVerify(vmattach, data, id, &warm_up) &&
              MeasureReference(self, options.curl, url, copy, data, id, &warm_up);
    for (int index = 0; ok && index < options.rounds; ++index) {
      Round round;
      ok = index % 2 == 0 ? MeasureVerify(vmattach, data, id, &round) &&
                                MeasureReference(self, options.curl, url, copy, data, id, &round)
                          : MeasureReference(self, options.curl, url, copy, data, id, &round) &&
                                MeasureVerify(vmattach, data, id, &round);
      if (!ok) break;
      ratios.push_back(round.ratio());
      peak = std::max(peak, round.verify_peak);
      fmt::print("{:>4} MiB {:>5} {:>7.3f}s {:>7.3f}s {:>7.3f}s {:>7.3f} {:>6.1f} MiB\n", mib,
                 index + 1, round.verify, round.get, round.pass, round.ratio(),
                 round.verify_peak / 1024.0);
      std::fflush(stdout);
    }
    if (!ok) ++failures;
    if (!ratios.empty()) {
      // The same process without the stream: what the peak holds beyond the program itself.
      Finished shallow = Run({vmattach, "--data-dir", data, "verify", id});
      fmt::print("{:>4} MiB {}, verify peak {:.1f} MiB (shallow verify {:.1f} MiB)\n", mib,
                 vm::bench::SpreadOf(ratios).describe(), peak / 1024.0, shallow.peak_kib / 1024.0);
    }
    Run({vmattach, "--data-dir", data, "delete", id});
    fs::remove(copy);
  }
  fmt::print(
      "ratio = verify --deep (whole vmattach process) / (curl GET to /dev/null + one pass of "
      "SHA-1, decryption and SHA-1 over the same bytes) within a round; goal: median <= 1.1; "
      "peaks are resident high-water marks\n");
  vm::bench::StopServer(&service);
  vm::bench::RemoveWorkFolder(work);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 4 && args[0] == "--pass") {
    return Pass(args[1], args[2], std::stoull(args[3]));
  }
  vm::bench::SizeOptions options;
  options.sizes = {256, 1024};
  options.rounds = 5;
  vm::bench::ParseSizeOptions(args, &options);
  return Drive(fs::read_symlink("/proc/self/exe").string(), VM_VMATTACH_PATH, VM_VMCLOUDD_PATH,
               options);
}
