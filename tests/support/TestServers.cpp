#include "tests/support/TestServers.h"

#include <fcntl.h>
#include <grp.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

extern char** environ;

namespace vm::testing {
namespace {

constexpr auto kStartLimit = std::chrono::seconds(30);

// What a child wrote to its log so far (no test framework here: benchmarks use this too).
std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
constexpr auto kStopGrace = std::chrono::seconds(5);

// Starts `args` with stdout and stderr to `log`; the child runs as `uid`/`gid` when they
// are not -1. Returns the pid, or -1 with `*problem` set.
pid_t Spawn(std::vector<std::string> args, const std::filesystem::path& log, uid_t uid, gid_t gid,
            std::string* problem) {
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    *problem = std::string("fork: ") + std::strerror(errno);
    return -1;
  }
  if (pid == 0) {
    // Only async-signal-safe calls until exec.
    setpgid(0, 0);
    int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out < 0 || in < 0) _exit(126);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    if (gid != static_cast<gid_t>(-1) && (setgroups(0, nullptr) != 0 || setgid(gid) != 0)) {
      _exit(126);
    }
    if (uid != static_cast<uid_t>(-1) && setuid(uid) != 0) _exit(126);
    execve(argv[0], argv.data(), environ);
    _exit(127);
  }
  return pid;
}

// A port that was free a moment ago on 127.0.0.1.
int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

// The newest installed PostgreSQL's program `name`, or empty.
std::string PostgresProgram(const std::string& name) {
  std::vector<std::filesystem::path> found;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ec)) {
    if (std::filesystem::exists(entry.path() / "bin" / name)) found.push_back(entry.path());
  }
  if (found.empty()) return "";
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return std::stoi(a.filename().string()) < std::stoi(b.filename().string());
  });
  return (found.back() / "bin" / name).string();
}

int WaitExit(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Stops a child: SIGTERM, then SIGKILL when it has not ended within `grace`. The server's
// own process: it runs under another account, which vm::ChildProcess cannot start.
void StopChild(pid_t pid, std::chrono::milliseconds grace) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + grace;
  while (waitpid(pid, nullptr, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace

PostgresServer::PostgresServer(const std::filesystem::path& dir, Durability durability) {
  const std::string initdb = PostgresProgram("initdb");
  const std::string postgres = PostgresProgram("postgres");
  if (initdb.empty() || postgres.empty()) {
    problem_ = "no PostgreSQL server under /usr/lib/postgresql; run scripts/install-deps.sh";
    return;
  }
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::filesystem::create_directories(dir);
  if (geteuid() == 0) {
    const passwd* account = getpwnam("postgres");
    if (account == nullptr) {
      problem_ = "running as root, and there is no postgres account to run the server as";
      return;
    }
    uid = account->pw_uid;
    gid = account->pw_gid;
    // The server's account must reach its folder through ours.
    for (auto p = dir; p.has_relative_path() && p != p.root_path(); p = p.parent_path()) {
      struct stat st;
      if (::stat(p.c_str(), &st) == 0 && (st.st_mode & S_IXOTH) == 0) {
        ::chmod(p.c_str(), (st.st_mode & 07777) | S_IXOTH);
      }
    }
    if (::chown(dir.c_str(), uid, gid) != 0) {
      problem_ = "cannot give " + dir.string() + " to the postgres account";
      return;
    }
  }
  const auto data = dir / "data";
  const auto log = dir / "postgres.log";
  pid_t init = Spawn({initdb, "-D", data.string(), "-U", "postgres", "-A", "trust", "-E", "UTF8",
                      "--locale=C", "--no-sync"},
                     log, uid, gid, &problem_);
  if (init < 0) return;
  if (WaitExit(init) != 0) {
    problem_ = "initdb failed: " + ReadFile(log);
    return;
  }
  // A port picked here may be taken before the server binds it; try a few.
  for (int attempt = 0; attempt < 3 && port_ == 0; ++attempt) {
    int port = FreePort();
    std::vector<std::string> args = {postgres,    "-D", data.string(),        "-h",
                                     "127.0.0.1", "-p", std::to_string(port), "-k",
                                     "",          "-c", "max_connections=200"};
    if (durability == Durability::kNone) {
      for (const char* setting : {"fsync=off", "synchronous_commit=off", "full_page_writes=off"}) {
        args.insert(args.end(), {"-c", setting});
      }
    }
    pid_ = Spawn(args, log, uid, gid, &problem_);
    if (pid_ < 0) return;
    const std::string conninfo = "host=127.0.0.1 port=" + std::to_string(port) +
                                 " user=postgres dbname=postgres connect_timeout=2";
    auto deadline = std::chrono::steady_clock::now() + kStartLimit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (PQping(conninfo.c_str()) == PQPING_OK) {
        port_ = port;
        break;
      }
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (port_ == 0 && pid_ > 0) {
      StopChild(pid_, kStopGrace);
      pid_ = -1;
    }
  }
  if (port_ == 0) problem_ = "the PostgreSQL server did not start: " + ReadFile(log);
}

PostgresServer::~PostgresServer() {
  // SIGTERM is the server's "smart" shutdown, which waits for clients; SIGINT is "fast".
  if (pid_ > 0) kill(pid_, SIGINT);
  StopChild(pid_, std::chrono::seconds(10));
}

std::string PostgresServer::uri(const std::string& database) const {
  return "postgresql://postgres@127.0.0.1:" + std::to_string(port_) + "/" + database;
}

std::string PostgresServer::createDatabase(const std::string& name) {
  if (name.empty() ||
      name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") != std::string::npos) {
    problem_ = "a database name holds only lower-case letters, digits and _";
    return "";
  }
  PGconn* conn = PQconnectdb(uri("postgres").c_str());
  std::string result;
  if (PQstatus(conn) != CONNECTION_OK) {
    problem_ = PQerrorMessage(conn);
  } else {
    // The name is checked above: CREATE DATABASE takes no parameters.
    PGresult* created = PQexec(conn, ("CREATE DATABASE " + name).c_str());
    if (PQresultStatus(created) == PGRES_COMMAND_OK) {
      result = uri(name);
    } else {
      problem_ = PQresultErrorMessage(created);
    }
    PQclear(created);
  }
  PQfinish(conn);
  return result;
}

}  // namespace vm::testing
