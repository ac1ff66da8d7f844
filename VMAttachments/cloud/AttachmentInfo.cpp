#include "VMAttachments/cloud/AttachmentInfo.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "platform/UniqueID.h"

namespace vm {
namespace {

using nlohmann::json;
using OrderedJSON = nlohmann::ordered_json;

constexpr std::int64_t kCoderReadCorruptError = 4864;
constexpr std::int64_t kCoderValueNotFoundError = 4865;
constexpr std::int64_t kCoderInvalidValueError = 4866;

// The one place JSON failures become Errors, in the shape the platform's decoder gives.
ErrorRef DecodingError(std::int64_t code, const std::string& detail) {
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey),
               code == kCoderValueNotFoundError
                   ? "The data couldn't be read because it is missing."
                   : "The data couldn't be read because it isn't in the correct format.");
  info.emplace("NSDebugDescription", detail);
  return Error::Make(NSCocoaErrorDomain, code, std::move(info));
}

ErrorRef EncodingError(const std::string& detail) {
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey),
               "The data couldn't be written because it isn't in the correct format.");
  info.emplace("NSDebugDescription", detail);
  return Error::Make(NSCocoaErrorDomain, kCoderInvalidValueError, std::move(info));
}

// Reading fails with the first problem found, as the platform's decoder does.
class Reader {
 public:
  explicit Reader(const JSONData& data) {
    object_ = json::parse(data.begin(), data.end(), nullptr, /*allow_exceptions=*/false);
    if (object_.is_discarded()) {
      fail(kCoderReadCorruptError, "The given data was not valid JSON.");
    } else if (!object_.is_object()) {
      fail(kCoderReadCorruptError, "Expected to decode a dictionary.");
    }
  }

  bool ok() const { return error_ == nullptr; }
  ErrorRef error() const { return error_; }

  const json* field(const char* key) {
    if (!ok()) return nullptr;
    auto it = object_.find(key);
    if (it == object_.end()) {
      fail(kCoderValueNotFoundError, fmt::format("No value associated with key \"{}\".", key));
      return nullptr;
    }
    return &*it;
  }

  std::optional<std::string> string(const char* key) {
    const json* value = field(key);
    if (value == nullptr) return std::nullopt;
    if (!value->is_string()) return mismatch(key, "a string");
    return value->get<std::string>();
  }

  std::optional<std::string> uuid(const char* key) {
    std::optional<std::string> text = string(key);
    if (!text) return std::nullopt;
    std::optional<std::string> parsed = ParseUUID(*text);
    if (!parsed) {
      fail(kCoderReadCorruptError,
           fmt::format("Attempted to decode UUID from invalid UUID string for key \"{}\".", key));
    }
    return parsed;
  }

  std::optional<std::uint64_t> unsignedNumber(const char* key) {
    const json* value = field(key);
    if (value == nullptr) return std::nullopt;
    if (!value->is_number_unsigned()) return mismatch(key, "an unsigned 64-bit number");
    return value->get<std::uint64_t>();
  }

  std::optional<State> state(const char* key) {
    std::optional<std::string> text = string(key);
    if (!text) return std::nullopt;
    std::optional<State> state = StateWithRawValue(*text);
    if (!state) {
      fail(kCoderReadCorruptError,
           fmt::format("Cannot initialize State from invalid String value {}", *text));
    }
    return state;
  }

  // A required string that may or may not be a URL.
  std::optional<std::optional<URL>> url(const char* key) {
    std::optional<std::string> text = string(key);
    if (!text) return std::nullopt;
    return URL::URLWithString(*text);
  }

 private:
  std::nullopt_t mismatch(const char* key, const char* expected) {
    fail(kCoderReadCorruptError,
         fmt::format("Expected to decode {} for key \"{}\" but found something else.", expected,
                     key));
    return std::nullopt;
  }
  void fail(std::int64_t code, const std::string& detail) {
    if (!error_) error_ = DecodingError(code, detail);
  }

  json object_;
  ErrorRef error_;
};

struct BaseFields {
  std::string uuid;
  std::uint64_t size = 0;
  State state = State::kNew;
};

std::optional<BaseFields> ReadBaseFields(Reader& reader) {
  std::optional<std::string> uuid = reader.uuid("uuid");
  std::optional<std::uint64_t> size = reader.unsignedNumber("size");
  std::optional<State> state = reader.state("state");
  if (!reader.ok()) return std::nullopt;
  return BaseFields{*uuid, *size, *state};
}

std::optional<JSONData> Dump(const OrderedJSON& object, ErrorRef* error) {
  try {
    std::string text = object.dump();
    return JSONData(text.begin(), text.end());
  } catch (const nlohmann::json::exception& e) {
    Fail(error, EncodingError(e.what()));
    return std::nullopt;
  }
}

}  // namespace

std::string_view StateRawValue(State state) {
  switch (state) {
    case State::kUploaded:
      return "uploaded";
    case State::kDeleted:
      return "deleted";
    case State::kNew:
      return "new";
  }
  return "new";
}

std::optional<State> StateWithRawValue(std::string_view text) {
  if (text == "uploaded") return State::kUploaded;
  if (text == "deleted") return State::kDeleted;
  if (text == "new") return State::kNew;
  return std::nullopt;
}

AttachmentInfo::AttachmentInfo(std::string uuid, std::uint64_t size, State state)
    : uuid_(ParseUUID(uuid).value_or(uuid)), size_(size), state_(state) {}

std::shared_ptr<AttachmentInfo> AttachmentInfo::decode(const JSONData& data, ErrorRef* error) {
  Reader reader(data);
  std::optional<BaseFields> base = ReadBaseFields(reader);
  if (!base) {
    Fail(error, reader.error());
    return nullptr;
  }
  return std::make_shared<AttachmentInfo>(base->uuid, base->size, base->state);
}

std::optional<JSONData> AttachmentInfo::encode(ErrorRef* error) const {
  OrderedJSON object;
  object["uuid"] = uuid_;
  object["size"] = size_;
  object["state"] = std::string(StateRawValue(state_));
  return Dump(object, error);
}

UploadInfo::UploadInfo(std::string uuid, std::uint64_t size, State state,
                       std::optional<URL> uploadURL)
    : AttachmentInfo(std::move(uuid), size, state), upload_url_(std::move(uploadURL)) {}

std::shared_ptr<UploadInfo> UploadInfo::decode(const JSONData& data, ErrorRef* error) {
  Reader reader(data);
  // The address is read before the inherited fields, so its problems are reported first.
  std::optional<std::optional<URL>> url = reader.url("upload_url");
  std::optional<BaseFields> base = ReadBaseFields(reader);
  if (!base) {
    Fail(error, reader.error());
    return nullptr;
  }
  return std::make_shared<UploadInfo>(base->uuid, base->size, base->state, *url);
}

DownloadInfo::DownloadInfo(std::string uuid, std::uint64_t size, State state,
                           std::optional<URL> downloadURL)
    : AttachmentInfo(std::move(uuid), size, state), download_url_(std::move(downloadURL)) {}

std::shared_ptr<DownloadInfo> DownloadInfo::decode(const JSONData& data, ErrorRef* error) {
  Reader reader(data);
  std::optional<std::optional<URL>> url = reader.url("download_url");
  std::optional<BaseFields> base = ReadBaseFields(reader);
  if (!base) {
    Fail(error, reader.error());
    return nullptr;
  }
  return std::make_shared<DownloadInfo>(base->uuid, base->size, base->state, *url);
}

std::optional<JSONData> UploadRequestInfo::encode(ErrorRef* error) const {
  OrderedJSON object;
  object["size"] = size_;
  return Dump(object, error);
}

std::shared_ptr<Empty> Empty::decode(const JSONData&, ErrorRef*) {
  return std::make_shared<Empty>();
}

}  // namespace vm
