#include "tools/vmattach/CloudCommand.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "BWFoundation/ServerEnvironment.h"
#include "VMAttachments/CloudAttachmentOperation.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/DispatchQueue.h"
#include "platform/Operation.h"
#include "platform/UniqueID.h"

namespace vm::vmattach {
namespace {

struct CloudOptions {
  std::string api;
  std::string token;
  std::string file;
  std::string uuid;
  std::string destination;
};

const char* Env(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

// A setting of the data folder ("velmoraAPI", "cloudToken", as `scheme add --type cloud`
// stores them), when the folder exists; the folder is never created just to look.
std::string DataFolderSetting(const GlobalOptions& options, const std::string& key) {
  std::error_code ignored;
  if (!std::filesystem::exists(DataDirectory(options) / "attachments.sqlite", ignored)) return {};
  auto context = SqliteObjectContext::open(DataDirectory(options), nullptr);
  return context ? context->setting(key).value_or("") : "";
}

// --api, else $VELMORA_API, else the data folder's "velmoraAPI".
std::optional<URL> ServiceAddress(const GlobalOptions& options, const CloudOptions& cloud,
                                  std::string* problem) {
  std::string text = cloud.api;
  if (text.empty() && Env("VELMORA_API")) text = Env("VELMORA_API");
  if (text.empty()) text = DataFolderSetting(options, "velmoraAPI");
  if (text.empty()) {
    *problem =
        "no attachment service address: pass --api, set VELMORA_API, or add a cloud scheme "
        "with --api";
    return std::nullopt;
  }
  std::optional<URL> url = URL::URLWithString(text);
  if (!url || !url->isHTTP()) {
    *problem = fmt::format("not an http or https address: \"{}\"", text);
    return std::nullopt;
  }
  return url;
}

// Everything a command needs before it can make an operation, or a failure message.
// The token: --token, else $VELMORA_TOKEN, else the data folder's "cloudToken".
std::optional<AuthToken> Prepare(const GlobalOptions& options, const CloudOptions& cloud,
                                 std::string* problem) {
  std::optional<URL> api = ServiceAddress(options, cloud, problem);
  if (!api) return std::nullopt;
  std::string token = cloud.token;
  if (token.empty() && Env("VELMORA_TOKEN")) token = Env("VELMORA_TOKEN");
  if (token.empty()) token = DataFolderSetting(options, "cloudToken");
  if (token.empty()) {
    *problem = "no token: pass --token, set VELMORA_TOKEN, or add a cloud scheme with --token";
    return std::nullopt;
  }
  ServerEnvironment::setCurrent(ServerEnvironment(*api));
  return AuthToken(token);
}

// Queues `operation` and drains the main queue (where its transfer's callbacks arrive)
// until it finished. A download whose storage transfer fails in transport never finishes
// by itself, so for downloads the end of that transfer ends the wait too. Returns the
// error to report, or null on success.
ErrorRef RunOperation(const std::shared_ptr<CloudAttachmentOperation>& operation,
                      const std::string& label, bool is_download, bool* ended_without_error) {
  ProgressBar bar(label);
  std::shared_ptr<Progress> progress = operation->progress();
  // The upload drops its total to 0 while it confirms: keep showing the last real count.
  int token = progress->addObserver([&bar](const Progress& p) {
    if (p.totalUnitCount() > 0) bar.update(p.completedUnitCount(), p.totalUnitCount());
  });
  std::mutex mu;
  std::shared_ptr<URLSessionTask> task;
  operation->setOnURLTaskStarted([&](const std::shared_ptr<URLSessionTask>& started) {
    std::lock_guard lock(mu);
    task = started;
  });
  auto storage_transfer_lost = [&] {
    std::lock_guard lock(mu);
    return is_download && task && task->state() == URLSessionTask::State::kCompleted;
  };

  OperationQueue queue;
  queue.addOperation(operation);
  MainQueue& main = MainQueue::shared();
  while (!operation->isFinished() && !storage_transfer_lost()) {
    main.runUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(50));
  }
  main.drainPending();
  progress->removeObserver(token);
  operation->setOnURLTaskStarted(nullptr);
  bar.finish();

  *ended_without_error = false;
  if (operation->isFinished()) {
    if (!operation->failed()) return nullptr;
    if (!operation->error()) *ended_without_error = true;
    return operation->error();
  }
  std::lock_guard lock(mu);
  if (task && task->error()) return task->error();
  *ended_without_error = true;
  return nullptr;
}

int Failed(const ErrorRef& error, bool ended_without_error) {
  if (ended_without_error) {
    return ReportFailure(std::string("the attachment service gave neither an answer nor an error"));
  }
  return ReportFailure(error);
}

void PrintJSON(const nlohmann::json& value) { std::cout << value.dump(2) << "\n"; }

int RunUpload(const GlobalOptions& options, const CloudOptions& cloud) {
  std::string problem;
  std::optional<AuthToken> token = Prepare(options, cloud, &problem);
  if (!token) return ReportFailure(problem);
  auto operation = std::make_shared<UploadCloudAttachmentOperation>(*token, cloud.file);
  bool no_error = false;
  ErrorRef error = RunOperation(operation, "upload", false, &no_error);
  if (error || no_error) return Failed(error, no_error);
  std::string uuid = ToLower(operation->attachmentUUID().value_or(""));
  if (options.json) {
    PrintJSON({{"uuid", uuid}, {"size", operation->uploadInfo()->size()}});
  } else {
    fmt::print("{}\n", uuid);
  }
  return 0;
}

int RunDownload(const GlobalOptions& options, const CloudOptions& cloud) {
  std::optional<std::string> uuid = ParseUUID(cloud.uuid);
  if (!uuid) return ReportFailure(fmt::format("not an attachment UUID: \"{}\"", cloud.uuid));
  std::string problem;
  std::optional<AuthToken> token = Prepare(options, cloud, &problem);
  if (!token) return ReportFailure(problem);
  std::filesystem::path destination = cloud.destination;
  std::error_code ignored;
  if (std::filesystem::is_directory(destination, ignored)) destination /= ToLower(*uuid);
  auto operation = std::make_shared<DownloadCloudAttachmentOperation>(*token, *uuid, destination);
  bool no_error = false;
  ErrorRef error = RunOperation(operation, "download", true, &no_error);
  if (error || no_error) return Failed(error, no_error);
  if (options.json) {
    PrintJSON({{"uuid", ToLower(*uuid)},
               {"path", destination.string()},
               {"size", std::filesystem::file_size(destination, ignored)}});
  } else {
    fmt::print("{}\n", destination.string());
  }
  return 0;
}

int RunDelete(const GlobalOptions& options, const CloudOptions& cloud) {
  std::optional<std::string> uuid = ParseUUID(cloud.uuid);
  if (!uuid) return ReportFailure(fmt::format("not an attachment UUID: \"{}\"", cloud.uuid));
  std::string problem;
  std::optional<AuthToken> token = Prepare(options, cloud, &problem);
  if (!token) return ReportFailure(problem);
  auto operation = std::make_shared<DeleteCloudAttachmentOperation>(*token, *uuid);
  bool no_error = false;
  ErrorRef error = RunOperation(operation, "delete", false, &no_error);
  if (error || no_error) return Failed(error, no_error);
  // The operation counts any answer with data as done; a person asking for a deletion
  // must still learn that the service refused it (a wrong token, an unknown UUID).
  if (std::optional<int> status = operation->apiStatus(); status && *status >= 400) {
    return ReportFailure(
        fmt::format("the attachment service refused the deletion of {} (HTTP status {})",
                    ToLower(*uuid), *status));
  }
  if (options.json) PrintJSON({{"uuid", ToLower(*uuid)}, {"deleted", true}});
  return 0;
}

void AddServiceOptions(CLI::App* command, CloudOptions* cloud) {
  command->add_option("--api", cloud->api, "Attachment service base URL");
  command->add_option("--token", cloud->token, "Attachment service token");
}

}  // namespace

void AddCloudCommands(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  CLI::App* cloud = app.add_subcommand("cloud", "Talk to the attachment service directly");
  cloud->require_subcommand(1);
  auto cloud_options = std::make_shared<CloudOptions>();

  CLI::App* upload = cloud->add_subcommand("upload", "Upload a file as it is; prints its UUID");
  upload->add_option("file", cloud_options->file, "The file")->required();
  AddServiceOptions(upload, cloud_options.get());
  SetCommandBody(upload, exit_code,
                 [&options, cloud_options] { return RunUpload(options, *cloud_options); });

  CLI::App* download = cloud->add_subcommand("download", "Download an attachment's bytes");
  download->add_option("uuid", cloud_options->uuid, "Attachment UUID")->required();
  download->add_option("dest", cloud_options->destination, "New file, or a folder to put it in")
      ->required();
  AddServiceOptions(download, cloud_options.get());
  SetCommandBody(download, exit_code,
                 [&options, cloud_options] { return RunDownload(options, *cloud_options); });

  CLI::App* remove = cloud->add_subcommand("delete", "Delete an attachment from the service");
  remove->add_option("uuid", cloud_options->uuid, "Attachment UUID")->required();
  AddServiceOptions(remove, cloud_options.get());
  SetCommandBody(remove, exit_code,
                 [&options, cloud_options] { return RunDelete(options, *cloud_options); });
}

}  // namespace vm::vmattach
