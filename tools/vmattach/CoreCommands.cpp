#include "tools/vmattach/CoreCommands.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "VMAttachments/schemes/ShareSchemes.h"
#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "VMAttachments/schemes/VMAttachmentConstants.h"
#include "VMAttachments/schemes/VMFileReferenceAttachment.h"
#include "VMAttachments/telemetry/AttachmentTelemetry.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteAttachmentCache.h"
#include "platform/KeyedArchive.h"
#include "platform/SafeNames.h"
#include "platform/UniqueID.h"
#include "tools/vmattach/AttachmentIO.h"
#include "tools/vmattach/Host.h"
#include "tools/vmattach/ShareCommands.h"
#include "tools/vmattach/TransferCommands.h"

namespace vm::vmattach {
namespace {

constexpr auto kTransferTimeout = std::chrono::seconds(600);

struct SchemeOptions {
  std::string name;
  std::string type;
  std::string server;
  std::string user;
  std::string password;
  std::string folder;
  std::string api;
  std::string token;
  std::string token_file;
  ShareSchemeOptions share;
};

struct AttachmentOptions {
  std::vector<std::string> files;
  std::string scheme;
  std::string path;
  std::vector<std::uint64_t> ids;
  std::string to;
  bool force = false;
  int jobs = 4;
};

constexpr int kUsageError = 2;

ErrorRef ToolError(std::int64_t code, std::string description) {
  return Error::WithDescription(kVMFileAttachmentDomain, code, description);
}

// Fails with code 500 ("scheme not found") and reports it to the attachment telemetry.
int SchemeNotFound(const std::string& what) {
  ErrorRef error = ToolError(500, what);
  AttachmentTelemetry::logError(error);
  return ReportFailure(error);
}

void PrintJSON(const nlohmann::json& value) { std::cout << value.dump(2) << "\n"; }

int RunInit(const GlobalOptions& options) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  if (options.json) {
    PrintJSON({{"dataDirectory", context->dataDirectory().string()},
               {"databaseUUID", context->databaseUUID()},
               {"primaryKeyOffset", context->primaryKeyOffset()}});
  } else {
    fmt::print("{}\n", context->dataDirectory().string());
  }
  return 0;
}

// The token a cloud scheme is added with: --token, else the contents of --token-file
// (one trailing newline dropped), else $VELMORA_TOKEN; empty when none is given. False with
// `*problem` when the file cannot be read or holds no usable token.
bool CloudTokenFor(const SchemeOptions& scheme_options, std::string* token, std::string* problem) {
  *token = scheme_options.token;
  if (!scheme_options.token_file.empty()) {
    std::ifstream in(scheme_options.token_file, std::ios::binary);
    std::ostringstream text;
    if (!in || !(text << in.rdbuf())) {
      *problem = fmt::format("cannot read the token file {}",
                             EscapeControlCharacters(scheme_options.token_file));
      return false;
    }
    *token = text.str();
    if (token->ends_with('\n')) token->pop_back();
    if (token->ends_with('\r')) token->pop_back();
    if (token->empty() || token->find_first_of(" \t\r\n") != std::string::npos) {
      *problem = fmt::format("the token file {} must hold one token on one line",
                             EscapeControlCharacters(scheme_options.token_file));
      return false;
    }
  } else if (token->empty()) {
    if (const char* env = std::getenv("VELMORA_TOKEN")) *token = env;
  }
  return true;
}

int RunSchemeAdd(const GlobalOptions& options, const SchemeOptions& scheme_options) {
  std::string class_name = HandlerClassForType(scheme_options.type);
  if (class_name.empty()) {
    return ReportFailure(fmt::format("unknown scheme type \"{}\"", scheme_options.type));
  }
  bool share = scheme_options.type == "afp" || scheme_options.type == "archiver";
  if (scheme_options.type == "afp" && scheme_options.server.empty()) {
    return ReportFailure("an afp scheme needs --server URL");
  }
  if (scheme_options.type == "archiver" && scheme_options.folder.empty()) {
    return ReportFailure("an archiver scheme needs --folder PATH");
  }
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  if (share) {
    if (int failed = AcceptHostKeyIfAsked(scheme_options.server, scheme_options.share,
                                          context->schemeNamed(scheme_options.name).get())) {
      return failed;
    }
  }
  std::string token, token_problem;
  if (scheme_options.type == "cloud" && !CloudTokenFor(scheme_options, &token, &token_problem)) {
    return ReportFailure(token_problem);
  }
  auto scheme = context->schemeNamed(scheme_options.name);
  if (scheme) {
    if (scheme_options.share.accept_host_key) return 0;  // the point was the host key
    // Adding a cloud scheme again with a token sets the token (and the address).
    const bool sets_token = scheme_options.type == "cloud" && !token.empty() &&
                            scheme->handlerClassName() == class_name;
    if (!sets_token) {
      return ReportFailure(
          fmt::format("a scheme named \"{}\" exists already", scheme_options.name));
    }
  } else {
    scheme = context->insertScheme(scheme_options.name, class_name, &error);
    if (!scheme) return ReportFailure(error);
  }
  if (share) {
    // The folder is kept absolute: lookups also try it below /Volumes, which needs a
    // leading "/".
    std::string folder = scheme_options.folder;
    if (!folder.empty()) folder = std::filesystem::absolute(folder).lexically_normal().string();
    scheme->setInfoData(MakeShareSettingsInfoData(scheme_options.server, scheme_options.user,
                                                  scheme_options.password, folder,
                                                  ShareSchemeSettings(scheme_options.share)));
  }
  if (scheme_options.type == "cloud") {
    if (!scheme_options.api.empty() &&
        !context->setSetting("velmoraAPI", scheme_options.api, &error)) {
      return ReportFailure(error);
    }
    if (!token.empty() && !context->setSetting("cloudToken", token, &error)) {
      return ReportFailure(error);
    }
  }
  if (!context->saveChanges(&error)) return ReportFailure(error);
  if (options.json) {
    PrintJSON({{"id", scheme->primaryKeyValue()},
               {"name", scheme->name()},
               {"type", scheme_options.type}});
  } else {
    fmt::print("{}\n", scheme->name());
  }
  return 0;
}

int RunSchemeList(const GlobalOptions& options) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  auto schemes = context->allSchemes(&error);
  if (error) return ReportFailure(error);
  nlohmann::json out = nlohmann::json::array();
  // Secrets are shown only as being set, never by value.
  bool token_set = !context->setting("cloudToken").value_or("").empty();
  for (const auto& scheme : schemes) {
    std::string type = TypeForHandlerClass(scheme->handlerClassName());
    std::string secret;
    if (type == "afp" || type == "archiver") {
      std::optional<ArchivedDictionary> settings;
      if (std::optional<Bytes> data = scheme->infoData()) settings = UnarchiveDictionary(*data);
      if (settings && !ArchivedString(*settings, kVMAFPAttachmentPassword).value_or("").empty()) {
        secret = "password";
      }
    } else if (type == "cloud" && token_set) {
      secret = "token";
    }
    if (options.json) {
      nlohmann::json row = {{"id", scheme->primaryKeyValue()},
                            {"name", scheme->name()},
                            {"type", type},
                            {"handlerClass", scheme->handlerClassName()}};
      if (type == "cloud") row["tokenSet"] = secret == "token";
      if (type == "afp" || type == "archiver") row["passwordSet"] = secret == "password";
      out.push_back(std::move(row));
    } else {
      fmt::print("{}\t{}\t{}{}\n", scheme->primaryKeyValue(),
                 EscapeControlCharacters(scheme->name()), type,
                 secret.empty() ? "" : "\t" + secret + " set");
    }
  }
  if (options.json) PrintJSON(out);
  return 0;
}

int RunStore(const GlobalOptions& options, const AttachmentOptions& store) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  auto scheme = context->schemeNamed(store.scheme);
  if (!scheme) return SchemeNotFound(fmt::format("No scheme named \"{}\".", store.scheme));
  auto handler = scheme->schemeHandler();
  if (!handler) {
    return SchemeNotFound(fmt::format("The handler of scheme \"{}\" ({}) is not available.",
                                      store.scheme, scheme->handlerClassName()));
  }
  if (std::string problem = MissingTokenProblem(*scheme); !problem.empty()) {
    return ReportFailure(problem);
  }

  if (store.files.size() == 1) {
    auto attachment = StoreNewAttachment(*context, scheme, handler, store.files[0], store.path);
    if (!attachment) return 1;
    if (options.json) {
      PrintJSON(AttachmentToJSON(*attachment));
    } else {
      fmt::print("{}\n", attachment->primaryKeyValue());
    }
    return 0;
  }
  // Many files: the stored ones in the order given; the failures were reported.
  nlohmann::json out = nlohmann::json::array();
  bool all_stored = true;
  for (const auto& attachment :
       StoreNewAttachments(*context, scheme, handler, store.files, store.path, store.jobs)) {
    all_stored = all_stored && attachment;
    if (!attachment) continue;
    if (options.json) {
      out.push_back(AttachmentToJSON(*attachment));
    } else {
      fmt::print("{}\n", attachment->primaryKeyValue());
    }
  }
  if (options.json) PrintJSON(out);
  return all_stored ? 0 : 1;
}

// `retrieve` of several ids: one line (or --json object) per retrieved id, in the order
// given; the failures were reported.
int RunRetrieveMany(const GlobalOptions& options, const AttachmentOptions& retrieve) {
  std::set<std::uint64_t> seen;
  for (std::uint64_t id : retrieve.ids) {
    if (!seen.insert(id).second) {
      ReportFailure(fmt::format("attachment {} is named twice", id));
      return kUsageError;
    }
  }
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  std::vector<std::optional<std::filesystem::path>> copies =
      RetrieveAttachments(*context, retrieve.ids, retrieve.to, retrieve.force, retrieve.jobs);
  nlohmann::json out = nlohmann::json::array();
  bool all_retrieved = true;
  for (std::size_t i = 0; i < copies.size(); ++i) {
    all_retrieved = all_retrieved && copies[i];
    if (!copies[i]) continue;
    if (options.json) {
      out.push_back(
          {{"id", retrieve.ids[i]}, {"status", "finished"}, {"destination", copies[i]->string()}});
    } else {
      fmt::print("{}\tfinished\n", retrieve.ids[i]);
    }
  }
  if (options.json) PrintJSON(out);
  return all_retrieved ? 0 : 1;
}

// The attachment of `id` and its handler, or a failure already reported.
struct Loaded {
  std::unique_ptr<SqliteObjectContext> context;
  std::shared_ptr<HXFileAttachment> attachment;
  std::shared_ptr<HXFileAttachmentSchemeHandler> handler;
  int exit_code = 0;
};

Loaded LoadAttachment(const GlobalOptions& options, std::uint64_t id, bool need_handler) {
  Loaded loaded;
  ErrorRef error;
  loaded.context = OpenHost(options, &error);
  if (!loaded.context) {
    loaded.exit_code = ReportFailure(error);
    return loaded;
  }
  loaded.attachment = loaded.context->attachmentWithPrimaryKey(id);
  if (!loaded.attachment) {
    loaded.exit_code = ReportFailure(fmt::format("no attachment with id {}", id));
    return loaded;
  }
  if (!need_handler) return loaded;
  auto scheme = loaded.attachment->fileAttachmentScheme();
  loaded.handler = scheme ? scheme->schemeHandler() : nullptr;
  if (!loaded.handler) {
    loaded.exit_code = SchemeNotFound(fmt::format("Attachment {} has no usable scheme.", id));
  }
  return loaded;
}

int RunRetrieve(const GlobalOptions& options, const AttachmentOptions& retrieve) {
  if (retrieve.ids.size() > 1) return RunRetrieveMany(options, retrieve);
  const std::uint64_t id = retrieve.ids[0];
  Loaded loaded = LoadAttachment(options, id, true);
  if (!loaded.handler) return loaded.exit_code;
  if (std::string problem = MissingTokenProblem(*loaded.attachment->fileAttachmentScheme());
      !problem.empty()) {
    return ReportFailure(problem);
  }
  std::optional<std::filesystem::path> destination = RetrieveAttachment(
      *loaded.context, loaded.attachment, loaded.handler, retrieve.to, retrieve.force);
  if (!destination) return 1;
  if (options.json) {
    PrintJSON({{"id", id}, {"status", "finished"}, {"destination", destination->string()}});
  } else {
    fmt::print("finished\n");
  }
  return 0;
}

int RunURL(const GlobalOptions& options, std::uint64_t id) {
  Loaded loaded = LoadAttachment(options, id, true);
  if (!loaded.handler) return loaded.exit_code;
  std::optional<std::filesystem::path> url = loaded.handler->attachmentURL(loaded.attachment);
  if (!url) return ReportFailure(fmt::format("attachment {} cannot be opened in place", id));
  if (options.json) {
    PrintJSON({{"id", id}, {"url", url->string()}});
  } else {
    fmt::print("{}\n", url->string());
  }
  return 0;
}

int RunList(const GlobalOptions& options) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  auto attachments = context->allAttachments(&error);
  if (error) return ReportFailure(error);
  nlohmann::json out = nlohmann::json::array();
  for (const auto& attachment : attachments) {
    if (options.json) {
      out.push_back(AttachmentToJSON(*attachment));
      continue;
    }
    auto scheme = attachment->fileAttachmentScheme();
    fmt::print("{}\t{}\t{}\t{}\n", attachment->primaryKeyValue(),
               scheme ? EscapeControlCharacters(scheme->name()) : "-",
               attachment->uploaded().value_or(false) ? "stored" : "pending",
               EscapeControlCharacters(attachment->name()));
  }
  if (options.json) PrintJSON(out);
  return 0;
}

int RunShow(const GlobalOptions& options, std::uint64_t id) {
  Loaded loaded = LoadAttachment(options, id, false);
  if (!loaded.attachment) return loaded.exit_code;
  nlohmann::json out = AttachmentToJSON(*loaded.attachment);
  if (options.json) {
    PrintJSON(out);
  } else {
    for (const auto& [key, value] : out.items()) {
      fmt::print(
          "{}: {}\n", key,
          EscapeControlCharacters(value.is_string() ? value.get<std::string>() : value.dump()));
    }
  }
  return 0;
}

}  // namespace

void AddCoreCommands(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  CLI::App* init = app.add_subcommand("init", "Create the data folder (or check an existing one)");
  SetCommandBody(init, exit_code, [&options] { return RunInit(options); });

  CLI::App* scheme = app.add_subcommand("scheme", "Configure storage schemes");
  scheme->require_subcommand(1);
  auto scheme_options = std::make_shared<SchemeOptions>();
  CLI::App* add = scheme->add_subcommand("add", "Add a scheme");
  add->add_option("name", scheme_options->name, "Scheme name")
      ->required()
      ->check(NonEmptyValidator());
  add->add_option("--type", scheme_options->type, "reference, afp, archiver or cloud")
      ->required()
      ->check(CLI::IsMember({"reference", "afp", "archiver", "cloud"}));
  add->add_option("--server", scheme_options->server, "Share URL (afp, archiver)");
  add->add_option("--user", scheme_options->user, "Share user name");
  add->add_option("--password", scheme_options->password,
                  "Share password (or set VMATTACH_SHARE_PASSWORD, which stays out of ps)")
      ->envname("VMATTACH_SHARE_PASSWORD");
  add->add_option("--folder", scheme_options->folder, "Storage folder (archiver)");
  add->add_option("--api", scheme_options->api, "Attachment service base URL (cloud)");
  CLI::Option* token =
      add->add_option("--token", scheme_options->token,
                      "Attachment service token (cloud; or --token-file, or VELMORA_TOKEN)");
  add->add_option("--token-file", scheme_options->token_file,
                  "File holding the attachment service token (cloud), kept out of ps")
      ->excludes(token);
  AddShareSchemeOptions(add, &scheme_options->share);
  SetCommandBody(add, exit_code,
                 [&options, scheme_options] { return RunSchemeAdd(options, *scheme_options); });
  CLI::App* list_schemes = scheme->add_subcommand("list", "List the schemes");
  SetCommandBody(list_schemes, exit_code, [&options] { return RunSchemeList(options); });

  auto store_options = std::make_shared<AttachmentOptions>();
  CLI::App* store =
      app.add_subcommand("store", "Store files as new attachments; prints their ids in order");
  store
      ->add_option("file", store_options->files,
                   "The files (a leading ~ is kept as typed); one failing does not stop the others")
      ->required();
  store->add_option("--scheme", store_options->scheme, "Scheme name")
      ->required()
      ->check(NonEmptyValidator());
  store->add_option("--path", store_options->path, "Relative folder on the storage");
  store->add_option("--jobs", store_options->jobs, "Files transferred at once (default 4)")
      ->check(CLI::Range(1, 64));
  SetCommandBody(store, exit_code,
                 [&options, store_options] { return RunStore(options, *store_options); });

  auto retrieve_options = std::make_shared<AttachmentOptions>();
  CLI::App* retrieve = app.add_subcommand("retrieve", "Bring attachments' bytes back");
  retrieve->add_option("id", retrieve_options->ids, "Attachment ids")
      ->required()
      ->transform(RecordIDValidator());
  retrieve->add_option("--to", retrieve_options->to, "Destination folder")
      ->required()
      ->check(NonEmptyValidator());
  retrieve->add_flag("--force", retrieve_options->force,
                     "Replace a file or link of the same name in the destination folder");
  retrieve
      ->add_option("--jobs", retrieve_options->jobs, "Attachments transferred at once (default 4)")
      ->check(CLI::Range(1, 64));
  SetCommandBody(retrieve, exit_code,
                 [&options, retrieve_options] { return RunRetrieve(options, *retrieve_options); });

  auto url_id = std::make_shared<std::uint64_t>(0);
  CLI::App* url = app.add_subcommand("url", "Print where the attachment can be opened in place");
  url->add_option("id", *url_id, "Attachment id")->required()->transform(RecordIDValidator());
  SetCommandBody(url, exit_code, [&options, url_id] { return RunURL(options, *url_id); });

  CLI::App* list = app.add_subcommand("list", "List the attachments");
  SetCommandBody(list, exit_code, [&options] { return RunList(options); });

  auto show_id = std::make_shared<std::uint64_t>(0);
  CLI::App* show = app.add_subcommand("show", "Show one attachment");
  show->add_option("id", *show_id, "Attachment id")->required()->transform(RecordIDValidator());
  SetCommandBody(show, exit_code, [&options, show_id] { return RunShow(options, *show_id); });
}

}  // namespace vm::vmattach
