#include "tools/vmattach/ArchiveCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <system_error>

#include "VMAttachments/archive/BWFileWrapper.h"
#include "VMAttachments/archive/BWFileWrapperReader.h"
#include "VMAttachments/archive/VMArchiver.h"

namespace vm::vmattach {

namespace {

// The archive's own codes carry no description; say what they mean, keeping the domain
// and code visible as for every failure.
int ReportArchiveFailure(const ErrorRef& error, const std::filesystem::path& archive) {
  if (error && error->domain() == BWFileWrapperErrorDomain && error->userInfo().empty()) {
    const char* what = error->code() == kBWFileWrapperArchiveExistsError
                           ? "already exists"
                           : "is not a file-wrapper archive";
    return ReportFailure(
        fmt::format("{} {} ({} {})", archive.string(), what, error->domain(), error->code()));
  }
  return ReportFailure(error);
}

int Pack(const std::filesystem::path& source, const std::filesystem::path& archive) {
  std::error_code ec;
  std::filesystem::file_status status = std::filesystem::status(source, ec);
  if (ec) return ReportFailure(PosixError(ec, source));
  if (std::filesystem::is_directory(status)) {
    // An archive inside the tree it packs would be read while it is being written.
    std::error_code tree_ec, target_ec;
    std::filesystem::path tree = std::filesystem::canonical(source, tree_ec);
    std::filesystem::path target = std::filesystem::weakly_canonical(archive, target_ec);
    auto [tree_end, rest] = std::mismatch(tree.begin(), tree.end(), target.begin(), target.end());
    if (!tree_ec && !target_ec && tree_end == tree.end()) {
      return ReportFailure(
          fmt::format("the archive {} must not lie inside {}", archive.string(), source.string()));
    }
  }
  ErrorRef error;
  bool packed = std::filesystem::is_directory(status)
                    ? VMArchiver::archiveFilesInDirectory(source, archive, &error)
                    : VMArchiver::archiveFile(source, archive, &error);
  return packed ? 0 : ReportArchiveFailure(error, archive);
}

int Unpack(const std::filesystem::path& archive, const std::filesystem::path& destination) {
  std::error_code ec;
  std::filesystem::create_directories(destination, ec);
  if (ec) return ReportFailure(PosixError(ec, destination));
  ErrorRef error;
  switch (VMArchiver::unpackFilesFromArchive(archive, destination, &error)) {
    case 1:
      return 0;
    case 2:
      fmt::print(stderr,
                 "vmattach: warning: some entries of {} had no path; files were saved as "
                 "N.recovered and the others skipped\n",
                 archive.string());
      return 0;
    default:
      if (!error) {
        return ReportFailure(fmt::format(
            "could not create a file under {} (its folder is missing from the archive?)",
            destination.string()));
      }
      return ReportArchiveFailure(error, archive);
  }
}

std::string ShortType(const std::string& type) {
  if (type == NSFileTypeRegular) return "file";
  if (type == NSFileTypeDirectory) return "dir";
  if (type == NSFileTypeSymbolicLink) return "link";
  if (type == NSFileTypeSocket) return "socket";
  if (type == NSFileTypeCharacterSpecial) return "char";
  if (type == NSFileTypeBlockSpecial) return "block";
  if (type.empty()) return "-";
  return "other";
}

int List(const std::filesystem::path& archive, bool json) {
  ErrorRef error;
  std::unique_ptr<BWFileWrapperReader> reader = BWFileWrapperReader::initWithURL(archive, &error);
  if (!reader) return ReportArchiveFailure(error, archive);
  bool first = true;
  if (json) fmt::print("[");
  bool complete = reader->enumerateEntries(
      [&](const BWFileWrapperReader::Entry& entry) {
        if (json) {
          // The info blocks as stored: each is already a JSON object.
          fmt::print("{}\n{}", first ? "" : ",", entry.info);
        } else {
          fmt::print("{:<6} {:>4} {:>12} {}\n", ShortType(entry.type),
                     entry.permission ? fmt::format("{:04o}", *entry.permission & 07777) : "-",
                     entry.data_length ? std::to_string(*entry.data_length) : "-",
                     entry.path ? *entry.path : "(no path)");
        }
        first = false;
      },
      &error);
  if (json) fmt::print("{}]\n", first ? "" : "\n");
  std::fflush(stdout);
  return complete ? 0 : ReportArchiveFailure(error, archive);
}

}  // namespace

void AddArchiveCommands(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  CLI::App* archive = app.add_subcommand("archive", "Pack and unpack file-wrapper archives");
  archive->require_subcommand(1);

  struct Arguments {
    std::string first;
    std::string second;
    bool json = false;
  };
  auto args = std::make_shared<Arguments>();

  CLI::App* pack = archive->add_subcommand(
      "pack", "Pack a directory (every item below it) or a single file into a new archive");
  pack->add_option("SOURCE", args->first, "Directory or file to pack")->required();
  pack->add_option("ARCHIVE", args->second, "Archive file to create (must not exist)")->required();
  SetCommandBody(pack, exit_code, [args] { return Pack(args->first, args->second); });

  CLI::App* unpack =
      archive->add_subcommand("unpack", "Unpack an archive into a folder, created if needed");
  unpack->add_option("ARCHIVE", args->first, "Archive file")->required();
  unpack->add_option("DEST", args->second, "Destination folder")->required();
  SetCommandBody(unpack, exit_code, [args] { return Unpack(args->first, args->second); });

  CLI::App* list = archive->add_subcommand(
      "list", "List the entries: type, permission (octal), data length, path");
  list->add_option("ARCHIVE", args->first, "Archive file")->required();
  list->add_flag("--json", args->json, "Print the stored info objects as a JSON array");
  SetCommandBody(list, exit_code,
                 [args, &options] { return List(args->first, args->json || options.json); });
}

}  // namespace vm::vmattach
