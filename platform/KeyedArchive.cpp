#include "platform/KeyedArchive.h"

#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

namespace vm {
namespace {

constexpr std::string_view kArchiverName = "NSKeyedArchiver";
constexpr std::uint64_t kArchiveVersion = 100000;

struct PlistDeleter {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// A view of one archive while it is being read: every lookup is bounds- and type-checked,
// so a hostile archive can only make the read fail.
class ArchiveReader {
 public:
  explicit ArchiveReader(plist_t objects) : objects_(objects) {
    count_ = plist_array_get_size(objects);
  }

  // The object a UID node points at; null for anything that is not a valid UID.
  plist_t resolve(plist_t uid_node) const {
    if (uid_node == nullptr || plist_get_node_type(uid_node) != PLIST_UID) return nullptr;
    std::uint64_t index = 0;
    plist_get_uid_val(uid_node, &index);
    if (index >= count_) return nullptr;
    return plist_array_get_item(objects_, static_cast<std::uint32_t>(index));
  }

  bool isNullReference(plist_t uid_node) const {
    std::uint64_t index = 1;
    if (uid_node != nullptr && plist_get_node_type(uid_node) == PLIST_UID) {
      plist_get_uid_val(uid_node, &index);
    }
    return index == 0;
  }

  // The class name of an archived object dictionary, or empty.
  std::string className(plist_t object) const {
    plist_t class_dict = resolve(plist_dict_get_item(object, "$class"));
    if (class_dict == nullptr || plist_get_node_type(class_dict) != PLIST_DICT) return {};
    return StringOf(plist_dict_get_item(class_dict, "$classname")).value_or("");
  }

  std::optional<std::string> stringAt(plist_t uid_node) const {
    if (isNullReference(uid_node)) return std::nullopt;
    plist_t object = resolve(uid_node);
    if (object == nullptr) return std::nullopt;
    if (auto text = StringOf(object)) return text;
    if (plist_get_node_type(object) == PLIST_DICT) {
      std::string name = className(object);
      if (name == "NSString" || name == "NSMutableString") {
        return StringOf(plist_dict_get_item(object, "NS.string"));
      }
    }
    return std::nullopt;
  }

  std::optional<ArchivedValue> valueAt(plist_t uid_node) const {
    if (isNullReference(uid_node)) return std::nullopt;
    plist_t object = resolve(uid_node);
    if (object == nullptr) return std::nullopt;
    switch (plist_get_node_type(object)) {
      case PLIST_STRING:
        return ArchivedValue(*StringOf(object));
      case PLIST_UINT: {
        std::uint64_t value = 0;
        plist_get_uint_val(object, &value);
        // Binary property lists keep negative integers as 64-bit two's complement.
        return ArchivedValue(static_cast<std::int64_t>(value));
      }
      case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(object, &value);
        return ArchivedValue(value);
      }
      case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(object, &value);
        return ArchivedValue(value != 0);
      }
      case PLIST_DATA:
        return ArchivedValue(DataOf(object));
      case PLIST_DICT: {
        if (auto text = stringAt(uid_node)) return ArchivedValue(*text);
        std::string name = className(object);
        plist_t data = plist_dict_get_item(object, "NS.data");
        if ((name == "NSData" || name == "NSMutableData") && data != nullptr &&
            plist_get_node_type(data) == PLIST_DATA) {
          return ArchivedValue(DataOf(data));
        }
        return std::nullopt;
      }
      default:
        return std::nullopt;
    }
  }

  static std::optional<std::string> StringOf(plist_t node) {
    if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    if (text == nullptr) return std::string();
    return std::string(text, length);
  }

  static std::vector<std::uint8_t> DataOf(plist_t node) {
    std::uint64_t length = 0;
    const char* bytes = plist_get_data_ptr(node, &length);
    if (bytes == nullptr) return {};
    return std::vector<std::uint8_t>(bytes, bytes + length);
  }

 private:
  plist_t objects_;
  std::uint32_t count_ = 0;
};

bool IsDictionaryClass(const ArchiveReader& reader, plist_t object) {
  std::string name = reader.className(object);
  return name == "NSDictionary" || name == "NSMutableDictionary";
}

plist_t NewClass(const char* name, std::initializer_list<const char*> classes) {
  plist_t dict = plist_new_dict();
  plist_t list = plist_new_array();
  for (const char* c : classes) plist_array_append_item(list, plist_new_string(c));
  plist_dict_set_item(dict, "$classes", list);
  plist_dict_set_item(dict, "$classname", plist_new_string(name));
  return dict;
}

}  // namespace

std::optional<ArchivedDictionary> UnarchiveDictionary(const std::vector<std::uint8_t>& data) {
  if (data.empty() || data.size() > std::numeric_limits<std::uint32_t>::max()) {
    return std::nullopt;
  }
  const char* bytes = reinterpret_cast<const char*>(data.data());
  auto length = static_cast<std::uint32_t>(data.size());
  if (!plist_is_binary(bytes, length)) return std::nullopt;
  plist_t raw = nullptr;
  plist_from_bin(bytes, length, &raw);
  PlistPtr root(raw);
  if (!root || plist_get_node_type(raw) != PLIST_DICT) return std::nullopt;

  if (ArchiveReader::StringOf(plist_dict_get_item(raw, "$archiver")) != kArchiverName) {
    return std::nullopt;
  }
  plist_t version = plist_dict_get_item(raw, "$version");
  std::uint64_t version_value = 0;
  if (version == nullptr || plist_get_node_type(version) != PLIST_UINT) return std::nullopt;
  plist_get_uint_val(version, &version_value);
  if (version_value != kArchiveVersion) return std::nullopt;

  plist_t objects = plist_dict_get_item(raw, "$objects");
  plist_t top = plist_dict_get_item(raw, "$top");
  if (objects == nullptr || plist_get_node_type(objects) != PLIST_ARRAY || top == nullptr ||
      plist_get_node_type(top) != PLIST_DICT) {
    return std::nullopt;
  }
  if (plist_array_get_size(objects) == 0 ||
      ArchiveReader::StringOf(plist_array_get_item(objects, 0)) != "$null") {
    return std::nullopt;
  }
  ArchiveReader reader(objects);
  plist_t root_uid = plist_dict_get_item(top, "root");
  if (reader.isNullReference(root_uid)) return std::nullopt;
  plist_t dictionary = reader.resolve(root_uid);
  if (dictionary == nullptr || plist_get_node_type(dictionary) != PLIST_DICT ||
      !IsDictionaryClass(reader, dictionary)) {
    return std::nullopt;
  }
  plist_t keys = plist_dict_get_item(dictionary, "NS.keys");
  plist_t values = plist_dict_get_item(dictionary, "NS.objects");
  if (keys == nullptr || values == nullptr || plist_get_node_type(keys) != PLIST_ARRAY ||
      plist_get_node_type(values) != PLIST_ARRAY ||
      plist_array_get_size(keys) != plist_array_get_size(values)) {
    return std::nullopt;
  }

  ArchivedDictionary result;
  std::uint32_t count = plist_array_get_size(keys);
  for (std::uint32_t i = 0; i < count; ++i) {
    std::optional<std::string> key = reader.stringAt(plist_array_get_item(keys, i));
    std::optional<ArchivedValue> value = reader.valueAt(plist_array_get_item(values, i));
    if (key && value) result.insert_or_assign(std::move(*key), std::move(*value));
  }
  return result;
}

std::vector<std::uint8_t> ArchiveDictionary(const ArchivedDictionary& dictionary) {
  // Layout of $objects: "$null", the dictionary, its keys, its values, then the classes.
  const std::uint64_t count = dictionary.size();
  const std::uint64_t dictionary_class = 2 + 2 * count;
  const std::uint64_t data_class = dictionary_class + 1;
  bool needs_data_class = false;

  PlistPtr root(plist_new_dict());
  plist_t objects = plist_new_array();
  plist_array_append_item(objects, plist_new_string("$null"));

  plist_t dict_object = plist_new_dict();
  plist_t keys = plist_new_array();
  plist_t values = plist_new_array();
  for (std::uint64_t i = 0; i < count; ++i) {
    plist_array_append_item(keys, plist_new_uid(2 + i));
    plist_array_append_item(values, plist_new_uid(2 + count + i));
  }
  plist_dict_set_item(dict_object, "NS.keys", keys);
  plist_dict_set_item(dict_object, "NS.objects", values);
  plist_dict_set_item(dict_object, "$class", plist_new_uid(dictionary_class));
  plist_array_append_item(objects, dict_object);

  for (const auto& [key, value] : dictionary) {
    plist_array_append_item(objects, plist_new_string(key.c_str()));
  }
  for (const auto& [key, value] : dictionary) {
    plist_t node = std::visit(
        [&](const auto& v) -> plist_t {
          using T = std::decay_t<decltype(v)>;
          if constexpr (std::is_same_v<T, std::string>) {
            return plist_new_string(v.c_str());
          } else if constexpr (std::is_same_v<T, std::int64_t>) {
            return plist_new_uint(static_cast<std::uint64_t>(v));
          } else if constexpr (std::is_same_v<T, double>) {
            return plist_new_real(v);
          } else if constexpr (std::is_same_v<T, bool>) {
            return plist_new_bool(v ? 1 : 0);
          } else {
            needs_data_class = true;
            plist_t data_object = plist_new_dict();
            plist_dict_set_item(data_object, "NS.data",
                                plist_new_data(reinterpret_cast<const char*>(v.data()), v.size()));
            plist_dict_set_item(data_object, "$class", plist_new_uid(data_class));
            return data_object;
          }
        },
        value);
    plist_array_append_item(objects, node);
  }
  plist_array_append_item(objects, NewClass("NSMutableDictionary",
                                            {"NSMutableDictionary", "NSDictionary", "NSObject"}));
  if (needs_data_class)
    plist_array_append_item(objects, NewClass("NSData", {"NSData", "NSObject"}));

  plist_t top = plist_new_dict();
  plist_dict_set_item(top, "root", plist_new_uid(1));
  plist_dict_set_item(root.get(), "$version", plist_new_uint(kArchiveVersion));
  plist_dict_set_item(root.get(), "$archiver",
                      plist_new_string(std::string(kArchiverName).c_str()));
  plist_dict_set_item(root.get(), "$top", top);
  plist_dict_set_item(root.get(), "$objects", objects);

  char* out = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root.get(), &out, &length);
  std::vector<std::uint8_t> result;
  if (out != nullptr) {
    result.assign(reinterpret_cast<const std::uint8_t*>(out),
                  reinterpret_cast<const std::uint8_t*>(out) + length);
    plist_to_bin_free(out);
  }
  return result;
}

std::optional<std::string> ArchivedString(const ArchivedDictionary& dictionary,
                                          std::string_view key) {
  auto it = dictionary.find(key);
  if (it == dictionary.end()) return std::nullopt;
  if (const auto* text = std::get_if<std::string>(&it->second)) return *text;
  return std::nullopt;
}

}  // namespace vm
