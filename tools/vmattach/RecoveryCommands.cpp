#include "tools/vmattach/RecoveryCommands.h"

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>

#include "VMAttachments/recovery/CloudAttachmentRecovery.h"
#include "host/HostConstants.h"
#include "host/sqlite/JsonFileUserDefaults.h"
#include "host/sqlite/SqliteTransferManager.h"
#include "platform/DispatchQueue.h"
#include "tools/vmattach/Host.h"
#include "tools/vmattach/TransferCommands.h"

namespace vm::vmattach {
namespace {

using Clock = std::chrono::steady_clock;

// How often the tool looks for uploads the pass queued, so that they run while the pass
// goes on: its throttle waits for pending uploads to finish.
constexpr auto kHandOverInterval = std::chrono::milliseconds(100);
// How long a pass that is asked to stop is given to end.
constexpr auto kCancelGrace = std::chrono::seconds(30);

void PrintJSON(const nlohmann::json& value) { std::cout << value.dump(2) << "\n"; }

// One task row with the attachment ids linked to it.
struct TaskRow {
  std::uint64_t id = 0;
  std::string title;
  std::string details;
  std::int64_t due_date = 0;
  std::string list;
  std::vector<std::uint64_t> attachments;
};

nlohmann::json TaskToJSON(const TaskRow& task) {
  return {{"id", task.id},           {"title", task.title},
          {"details", task.details}, {"dueDate", task.due_date},
          {"list", task.list},       {"attachments", task.attachments}};
}

void PrintTaskText(const TaskRow& task) {
  fmt::print("task {} [{}]: {}\n", task.id, task.list.empty() ? "-" : task.list, task.title);
  std::string indented = "  " + task.details;
  for (std::size_t at = indented.find('\n'); at != std::string::npos;
       at = indented.find('\n', at + 1)) {
    indented.insert(at + 1, "  ");
  }
  fmt::print("{}\n", indented);
  fmt::print("  attachments: {}\n", fmt::join(task.attachments, ", "));
}

// Tasks are the host's records; the tool reads them straight from its database, with
// their links to attachments, in creation order.
bool ReadTasks(SqliteObjectContext& context, std::optional<std::uint64_t> only,
               std::vector<TaskRow>* tasks, ErrorRef* error) {
  auto rows = context.database().prepare(
      "SELECT _rowid, title, details, dueDate, list FROM tasks WHERE inTrash = 0 AND "
      "(?1 IS NULL OR _rowid = ?1) ORDER BY _rowid",
      error);
  if (!rows) return false;
  if (only) {
    rows->bindInt(1, static_cast<std::int64_t>(*only));
  } else {
    rows->bindNull(1);
  }
  ErrorRef failure;
  while (rows->step(&failure)) {
    tasks->push_back({static_cast<std::uint64_t>(rows->columnInt(0)),
                      rows->columnText(1),
                      rows->columnText(2),
                      rows->columnInt(3),
                      rows->columnText(4),
                      {}});
  }
  if (failure) return Fail(error, failure);
  for (TaskRow& task : *tasks) {
    auto links = context.database().prepare(
        "SELECT toID FROM links WHERE fromEntity = ? AND fromID = ? AND toEntity = ? "
        "ORDER BY rowid",
        error);
    if (!links) return false;
    links->bindText(1, HXTask::kEntityName);
    links->bindInt(2, static_cast<std::int64_t>(task.id));
    links->bindText(3, HXFileAttachment::kEntityName);
    while (links->step(&failure)) {
      task.attachments.push_back(static_cast<std::uint64_t>(links->columnInt(0)));
    }
    if (failure) return Fail(error, failure);
  }
  return true;
}

int RunTasks(const GlobalOptions& options) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  std::vector<TaskRow> tasks;
  if (!ReadTasks(*context, std::nullopt, &tasks, &error)) return ReportFailure(error);
  if (options.json) {
    nlohmann::json out = nlohmann::json::array();
    for (const TaskRow& task : tasks) out.push_back(TaskToJSON(task));
    PrintJSON(out);
  } else {
    for (const TaskRow& task : tasks) PrintTaskText(task);
  }
  return 0;
}

// --- defaults ---

struct DefaultsArguments {
  std::string key;
  std::string value;
  std::string type = "string";
};

nlohmann::json ValueToJSON(const UserDefaults::Value& value) {
  return std::visit([](const auto& v) { return nlohmann::json(v); }, value);
}

std::string ValueToText(const UserDefaults::Value& value) {
  if (const auto* b = std::get_if<bool>(&value)) return *b ? "YES" : "NO";
  if (const auto* n = std::get_if<std::int64_t>(&value)) return std::to_string(*n);
  return std::get<std::string>(value);
}

int RunDefaultsGet(const GlobalOptions& options, const DefaultsArguments& args) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  std::optional<UserDefaults::Value> value = context->userDefaults()->objectForKey(args.key);
  if (options.json) {
    PrintJSON({{"key", args.key}, {"value", value ? ValueToJSON(*value) : nullptr}});
  } else if (value) {
    fmt::print("{}\n", ValueToText(*value));
  }
  if (!value) return ReportFailure(fmt::format("no value for \"{}\"", args.key));
  return 0;
}

std::optional<UserDefaults::Value> ParseValue(const DefaultsArguments& args) {
  if (args.type == "string") return args.value;
  if (args.type == "bool") {
    for (const char* yes : {"YES", "yes", "true", "1"}) {
      if (args.value == yes) return true;
    }
    for (const char* no : {"NO", "no", "false", "0"}) {
      if (args.value == no) return false;
    }
    return std::nullopt;
  }
  // int
  std::size_t used = 0;
  try {
    std::int64_t number = std::stoll(args.value, &used);
    if (used == args.value.size()) return number;
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

int RunDefaultsSet(const GlobalOptions& options, const DefaultsArguments& args) {
  std::optional<UserDefaults::Value> value = ParseValue(args);
  if (!value) {
    return ReportFailure(fmt::format("\"{}\" is not a {} value", args.value, args.type));
  }
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  context->userDefaults()->setObject(args.key, *value);
  if (options.json) PrintJSON({{"key", args.key}, {"value", ValueToJSON(*value)}});
  return 0;
}

int RunDefaultsDelete(const GlobalOptions& options, const DefaultsArguments& args) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  context->userDefaults()->removeObjectForKey(args.key);
  return 0;
}

// --- recover ---

// Hands a recovery's uploads to their scheme while the pass runs, as a desktop host's
// transfer manager does, and counts their outcomes: the uploads earlier runs left
// registered at the first call, then those the pass queues. The pass's throttle counts
// what is still running (an upload that failed again stays registered but is done), and
// its waits end as soon as an upload reports. handOverNewUploads() on the main thread
// only; the rest is thread-safe. The state the scheme's reports reach is shared with
// them, so a report that comes after the runner is gone touches nothing freed.
class UploadRunner {
 public:
  UploadRunner(SqliteObjectContext& context, SqliteTransferManager& manager)
      : context_(context), manager_(manager), state_(std::make_shared<State>()) {}

  // Saves what the pass changed, so that every queued upload has its row, and hands the
  // uploads not handed yet to their scheme.
  void handOverNewUploads() {
    std::vector<std::shared_ptr<VMAttachmentTransferObject>> fresh;
    for (const auto& transfer : manager_.transfersForOperationType(kTransferOperationUpload)) {
      if (handed_.insert(transfer).second) fresh.push_back(transfer);
    }
    if (fresh.empty()) return;
    ErrorRef error;
    if (!context_.saveChanges(&error)) state_->record(nullptr, error);
    state_->handed += fresh.size();
    manager_.resumeTransfers(fresh,
                             [state = state_](const auto& transfer, const ErrorRef& outcome) {
                               state->record(outcome ? transfer : nullptr, outcome, true);
                             });
  }

  // The uploads still running: registered, and not failed in this run.
  std::size_t pendingUploads() const {
    std::size_t pending = 0;
    for (const auto& transfer : manager_.transfersForOperationType(kTransferOperationUpload)) {
      if (!state_->hasFailed(transfer)) ++pending;
    }
    return pending;
  }

  // Sleeps up to `duration`, or until an upload reports or wake() is called.
  void waitForChange(std::chrono::microseconds duration) const { state_->waitForChange(duration); }
  void wake() const { state_->notify(); }

  bool allDone() const { return state_->outcomes.load() == state_->handed.load(); }
  std::size_t handed() const { return state_->handed.load(); }
  std::size_t failures() const { return state_->failures.load(); }
  ErrorRef firstFailure() const {
    std::lock_guard lock(state_->mu);
    return state_->failure;
  }

 private:
  struct State {
    std::atomic<std::size_t> handed{0};
    std::atomic<std::size_t> outcomes{0};
    std::atomic<std::size_t> failures{0};
    mutable std::mutex mu;
    std::condition_variable cv;
    std::uint64_t changes = 0;
    ErrorRef failure;
    std::set<std::shared_ptr<VMAttachmentTransferObject>> failed;

    // One upload's outcome (`is_outcome`), or a failure of the tool's own (a save).
    void record(const std::shared_ptr<VMAttachmentTransferObject>& transfer, const ErrorRef& error,
                bool is_outcome = false) {
      {
        std::lock_guard lock(mu);
        if (error) {
          ++failures;
          if (!failure) failure = error;
          if (transfer) failed.insert(transfer);
        }
        if (is_outcome) ++outcomes;
        ++changes;
      }
      cv.notify_all();
    }
    bool hasFailed(const std::shared_ptr<VMAttachmentTransferObject>& transfer) const {
      std::lock_guard lock(mu);
      return failed.contains(transfer);
    }
    void notify() {
      {
        std::lock_guard lock(mu);
        ++changes;
      }
      cv.notify_all();
    }
    void waitForChange(std::chrono::microseconds duration) {
      std::unique_lock lock(mu);
      const std::uint64_t seen = changes;
      cv.wait_for(lock, duration, [&] { return changes != seen; });
    }
  };

  SqliteObjectContext& context_;
  SqliteTransferManager& manager_;
  const std::shared_ptr<State> state_;
  // Every upload handed over, kept alive so that their identities stay unique.
  std::set<std::shared_ptr<VMAttachmentTransferObject>> handed_;
};

std::vector<std::uint64_t> Ids(const std::shared_ptr<AttachmentList>& list) {
  std::vector<std::uint64_t> ids;
  if (list) {
    for (const auto& record : *list) ids.push_back(record->primaryKeyValue());
  }
  return ids;
}

int RunRecover(const GlobalOptions& options, int timeout_seconds) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  if (std::string problem = MissingTokenProblem(*context); !problem.empty()) {
    return ReportFailure(problem);
  }
  auto* manager = dynamic_cast<SqliteTransferManager*>(context->attachmentTransferManager());
  if (manager == nullptr) return ReportFailure("the data folder has no transfer manager");
  ReclaimAbandonedFiles(*context);
  // Shared with the pass, which may outlive this function when it will not stop.
  auto uploads = std::make_shared<UploadRunner>(*context, *manager);
  // The uploads earlier runs left registered run beside the pass: its throttle waits for
  // them.
  uploads->handOverNewUploads();

  struct Outcome {
    std::atomic<bool> finished{false};
    std::atomic<bool> abandoned{false};
    std::atomic<bool> cancelled{false};
    ErrorRef abandon_error;
    std::uint64_t recovered = 0;
    std::shared_ptr<AttachmentList> unrecovered;
    std::shared_ptr<AttachmentList> with_emails;
  };
  auto outcome = std::make_shared<Outcome>();
  RecoveryOptions recovery_options;
  recovery_options.abandoned = [outcome](const ErrorRef& e) {
    outcome->abandon_error = e;
    outcome->abandoned = true;
  };
  recovery_options.sleep = [uploads](std::chrono::microseconds duration) {
    uploads->waitForChange(duration);
  };
  recovery_options.pending_uploads = [uploads] { return uploads->pendingUploads(); };
  recovery_options.cancelled = [outcome] { return outcome->cancelled.load(); };
  CloudAttachmentRecovery::recoverCloudAttachmentsWithContext(
      context.get(),
      [outcome](std::uint64_t recovered, std::uint64_t, std::shared_ptr<AttachmentList> unrecovered,
                std::shared_ptr<AttachmentList> with_emails) {
        outcome->recovered = recovered;
        outcome->unrecovered = std::move(unrecovered);
        outcome->with_emails = std::move(with_emails);
        outcome->finished = true;
      },
      recovery_options);

  auto wait = [&](const std::function<bool()>& done, Clock::time_point until) {
    while (!done() && Clock::now() < until) {
      MainQueue::shared().runUntil(std::min(until, Clock::now() + kHandOverInterval));
      uploads->handOverNewUploads();
    }
    return done();
  };
  auto pass_ended = [&] { return outcome->finished.load() || outcome->abandoned.load(); };
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
  if (!wait(pass_ended, deadline)) {
    // The pass uses the context (and the runner) until it ends: it is asked to stop and
    // given the time to, since it stops at its next step.
    outcome->cancelled = true;
    uploads->wake();
    if (!wait(pass_ended, Clock::now() + kCancelGrace)) {
      // Never freed under a pass still running, not even at exit: the process ends right
      // after, and the system takes the memory back.
      (void)context.release();
    }
    return ReportFailure(fmt::format("recovery did not finish within {} seconds", timeout_seconds));
  }
  if (outcome->abandoned) return ReportFailure(outcome->abandon_error);
  uploads->handOverNewUploads();
  if (!wait([&] { return uploads->allDone(); }, deadline)) {
    return ReportFailure(
        fmt::format("the queued uploads did not finish within {} seconds", timeout_seconds));
  }

  std::optional<TaskRow> task;
  if (outcome->unrecovered && !outcome->unrecovered->empty()) {
    std::shared_ptr<HXTask> record = CloudAttachmentRecovery::recoveryTaskForUnrecoveredAttachments(
        *outcome->unrecovered, *context);
    if (!record) return ReportFailure("could not create the recovery task");
    if (!context->saveChanges(&error)) return ReportFailure(error);
    std::vector<TaskRow> rows;
    if (!ReadTasks(*context, record->primaryKeyValue(), &rows, &error)) {
      return ReportFailure(error);
    }
    if (!rows.empty()) task = rows.front();
  } else if (!context->saveChanges(&error)) {
    return ReportFailure(error);
  }

  std::vector<std::uint64_t> unrecovered = Ids(outcome->unrecovered);
  std::vector<std::uint64_t> with_emails = Ids(outcome->with_emails);
  if (options.json) {
    PrintJSON({{"recovered", outcome->recovered},
               {"unrecovered", unrecovered.size()},
               {"unrecoveredIds", unrecovered},
               {"emailLinkedIds", with_emails},
               {"uploads", {{"queued", uploads->handed()}, {"failed", uploads->failures()}}},
               {"task", task ? TaskToJSON(*task) : nlohmann::json(nullptr)}});
  } else {
    fmt::print("recovered: {}\nunrecovered: {}\n", outcome->recovered, unrecovered.size());
    if (!unrecovered.empty()) fmt::print("unrecovered ids: {}\n", fmt::join(unrecovered, ", "));
    if (!with_emails.empty()) {
      fmt::print("linked to e-mails: {}\n", fmt::join(with_emails, ", "));
    }
    fmt::print("uploads queued: {}, failed: {}\n", uploads->handed(), uploads->failures());
    if (task) PrintTaskText(*task);
  }
  if (uploads->failures() != 0) {
    fmt::print(stderr,
               "vmattach: {} of the queued uploads failed; they stay registered: run "
               "`vmattach transfers resume` once the service is reachable\n",
               uploads->failures());
    return ReportFailure(uploads->firstFailure());
  }
  return 0;
}

}  // namespace

void AddRecoveryCommands(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  auto timeout = std::make_shared<int>(3600);
  CLI::App* recover = app.add_subcommand(
      "recover",
      "Store again the cloud attachments that never reached the service, from the cache or a "
      "lost upload's work file; file a task for those that cannot be saved");
  recover->add_option("--timeout", *timeout, "Give up after this many seconds")
      ->check(CLI::PositiveNumber);
  SetCommandBody(recover, exit_code, [&options, timeout] { return RunRecover(options, *timeout); });

  CLI::App* tasks = app.add_subcommand("tasks", "List the tasks with their linked attachments");
  SetCommandBody(tasks, exit_code, [&options] { return RunTasks(options); });

  CLI::App* defaults = app.add_subcommand("defaults", "Read and write the user defaults");
  defaults->require_subcommand(1);
  auto args = std::make_shared<DefaultsArguments>();
  CLI::App* get = defaults->add_subcommand("get", "Print the value of KEY");
  get->add_option("KEY", args->key, "Key")->required();
  SetCommandBody(get, exit_code, [&options, args] { return RunDefaultsGet(options, *args); });
  CLI::App* set = defaults->add_subcommand("set", "Set KEY to VALUE");
  set->add_option("KEY", args->key, "Key")->required();
  set->add_option("VALUE", args->value, "Value")->required();
  set->add_option("--type", args->type, "How VALUE is kept: string (default), bool or int")
      ->check(CLI::IsMember({"string", "bool", "int"}));
  SetCommandBody(set, exit_code, [&options, args] { return RunDefaultsSet(options, *args); });
  CLI::App* remove = defaults->add_subcommand("delete", "Remove KEY");
  remove->add_option("KEY", args->key, "Key")->required();
  SetCommandBody(remove, exit_code, [&options, args] { return RunDefaultsDelete(options, *args); });
}

}  // namespace vm::vmattach
