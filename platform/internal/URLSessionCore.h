#ifndef VM_PLATFORM_INTERNAL_URLSESSIONCORE_H_
#define VM_PLATFORM_INTERNAL_URLSESSIONCORE_H_

// The I/O side of every session: one libcurl multi handle and the one thread that drives
// it, and the state of each transfer on that thread. Not for use outside this folder.

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/Error.h"
#include "platform/URLSession.h"

namespace vm {

// The transfer of one task: its easy handle and what it reads from or writes to. Made by
// Core::begin() and touched only on the I/O thread; owned by the task while it runs.
// Going away releases the handle and the file, and removes a temporary file not yet handed
// to the delegate.
struct URLSessionTask::Transfer {
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  int fd = -1;
  std::filesystem::path temporary;  // download tasks, until handed to the delegate
  std::vector<std::uint8_t> data;
  std::uint64_t streamed = 0;  // body bytes handed to a streaming task's consumer
  std::string url;
  std::optional<std::uint64_t> limit;  // the request's maximumResponseLength()
  bool over_limit = false;
  // The idle timeout: when a byte last moved either way, and whether the transfer was
  // ended for standing still longer than `idle_limit`.
  std::chrono::steady_clock::duration idle_limit{};
  std::chrono::steady_clock::time_point last_activity = std::chrono::steady_clock::now();
  curl_off_t last_down = 0;
  curl_off_t last_up = 0;
  bool idle_expired = false;
  char error_text[CURL_ERROR_SIZE] = {};

  // Counts `n` more bytes of answer body against the limit; false once it is passed.
  bool accept(std::uint64_t received, std::size_t n) {
    if (limit && received + n > *limit) over_limit = true;
    return !over_limit;
  }

  ~Transfer();
};

// The I/O machinery every session shares: the multi handle and its thread, and the
// commands other threads queue for it. One per process (see Shared()), never destroyed:
// its thread may be busy when the process exits. push() may be called from any thread;
// everything else runs on the I/O thread.
struct URLSession::Core : std::enable_shared_from_this<URLSession::Core> {
  struct Command {
    bool start;  // false: cancel
    std::shared_ptr<URLSessionTask> task;
  };

  static const std::shared_ptr<Core>& Shared();

  CURLM* multi = nullptr;
  std::mutex mu;
  std::vector<Command> commands;
  std::thread thread;
  // I/O thread only. A task in here keeps its session alive, and so this core.
  std::map<CURL*, std::shared_ptr<URLSessionTask>> running;

  Core();
  ~Core();

  // Queues `command` for the I/O thread (started on first use) and wakes it.
  void push(Command command);

 private:
  void run();
  void begin(const std::shared_ptr<URLSessionTask>& task);
  void cancel(const std::shared_ptr<URLSessionTask>& task);
  void finish(CURL* easy, CURLcode result);
  static ErrorRef configure(URLSessionTask& task, const URLSessionConfiguration& configuration);

  static int watchIdle(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);
  static size_t collectData(char* bytes, size_t size, size_t count, void* user);
  static size_t writeFile(char* bytes, size_t size, size_t count, void* user);
  static size_t readFile(char* buffer, size_t size, size_t count, void* user);
  static int seekFile(void* user, curl_off_t offset, int origin);
};

}  // namespace vm

#endif  // VM_PLATFORM_INTERNAL_URLSESSIONCORE_H_
