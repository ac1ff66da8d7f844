#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "platform/KeyedArchive.h"

namespace vm {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A binary property list writer built from the format's published layout ("bplist00", the
// objects, an offset table, a 32-byte trailer), so that the archives these tests read are
// not made by the library under test.
struct Node;
using NodeRef = std::shared_ptr<Node>;
struct Node {
  enum Kind { kString, kInt, kBool, kData, kUid, kArray, kDict } kind = kString;
  std::string text;  // string, data
  std::int64_t number = 0;
  std::vector<NodeRef> items;  // array; dict keys then values
};

NodeRef Make(Node::Kind kind, std::string text = {}, std::int64_t number = 0,
             std::vector<NodeRef> items = {}) {
  auto node = std::make_shared<Node>();
  node->kind = kind;
  node->text = std::move(text);
  node->number = number;
  node->items = std::move(items);
  return node;
}
NodeRef Str(std::string s) { return Make(Node::kString, std::move(s)); }
NodeRef Int(std::int64_t v) { return Make(Node::kInt, "", v); }
NodeRef Bool(bool v) { return Make(Node::kBool, "", v); }
NodeRef Data(std::string v) { return Make(Node::kData, std::move(v)); }
NodeRef Uid(std::int64_t v) { return Make(Node::kUid, "", v); }
NodeRef Array(std::vector<NodeRef> items) { return Make(Node::kArray, "", 0, std::move(items)); }
NodeRef Dict(std::vector<std::pair<std::string, NodeRef>> entries) {
  auto node = Make(Node::kDict);
  for (auto& e : entries) node->items.push_back(Str(e.first));
  for (auto& e : entries) node->items.push_back(e.second);
  return node;
}

class BplistWriter {
 public:
  Bytes write(const NodeRef& root) {
    collect(root);
    Bytes out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint32_t> offsets;
    for (const Node* node : order_) {
      offsets.push_back(static_cast<std::uint32_t>(out.size()));
      encode(*node, out);
    }
    std::uint64_t table = out.size();
    for (std::uint32_t offset : offsets) BigEndian(offset, 4, out);
    Bytes trailer(6, 0);
    trailer.push_back(4);  // offset size
    trailer.push_back(2);  // object reference size
    BigEndian(order_.size(), 8, trailer);
    BigEndian(0, 8, trailer);  // top object
    BigEndian(table, 8, trailer);
    out.insert(out.end(), trailer.begin(), trailer.end());
    return out;
  }

 private:
  static void BigEndian(std::uint64_t value, int size, Bytes& out) {
    for (int i = size - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
  static void Marker(std::uint8_t type, size_t count, Bytes& out) {
    if (count < 15) {
      out.push_back(static_cast<std::uint8_t>(type | count));
    } else {
      out.push_back(static_cast<std::uint8_t>(type | 0x0F));
      out.push_back(0x11);  // a 2-byte integer follows
      BigEndian(count, 2, out);
    }
  }
  void collect(const NodeRef& node) {
    index_[node.get()] = order_.size();
    order_.push_back(node.get());
    for (const NodeRef& item : node->items) collect(item);
  }
  void encode(const Node& node, Bytes& out) {
    switch (node.kind) {
      case Node::kString:  // ASCII only in these fixtures
        Marker(0x50, node.text.size(), out);
        out.insert(out.end(), node.text.begin(), node.text.end());
        break;
      case Node::kInt:
        out.push_back(0x13);
        BigEndian(static_cast<std::uint64_t>(node.number), 8, out);
        break;
      case Node::kBool:
        out.push_back(node.number ? 0x09 : 0x08);
        break;
      case Node::kData:
        Marker(0x40, node.text.size(), out);
        out.insert(out.end(), node.text.begin(), node.text.end());
        break;
      case Node::kUid:
        out.push_back(0x81);  // two bytes
        BigEndian(static_cast<std::uint64_t>(node.number), 2, out);
        break;
      case Node::kArray:
      case Node::kDict: {
        size_t count = node.kind == Node::kArray ? node.items.size() : node.items.size() / 2;
        Marker(node.kind == Node::kArray ? 0xA0 : 0xD0, count, out);
        for (const NodeRef& item : node.items) BigEndian(index_[item.get()], 2, out);
        break;
      }
    }
  }
  std::vector<const Node*> order_;
  std::map<const Node*, size_t> index_;
};

NodeRef DictionaryClass(const std::string& name) {
  return Dict({{"$classname", Str(name)}, {"$classes", Array({Str(name), Str("NSObject")})}});
}

// The archive of a dictionary with these $objects, the root at index 1.
Bytes Archive(std::vector<NodeRef> objects, std::string archiver = "NSKeyedArchiver",
              std::int64_t version = 100000, std::int64_t root = 1) {
  return BplistWriter().write(Dict({{"$archiver", Str(archiver)},
                                    {"$version", Int(version)},
                                    {"$top", Dict({{"root", Uid(root)}})},
                                    {"$objects", Array(std::move(objects))}}));
}

// "$null", the dictionary {server: smb://..., user: anna}, keys, values, its class.
std::vector<NodeRef> SettingsObjects(const std::string& class_name = "NSDictionary") {
  return {Str("$null"),
          Dict({{"NS.keys", Array({Uid(2), Uid(3)})},
                {"NS.objects", Array({Uid(4), Uid(5)})},
                {"$class", Uid(6)}}),
          Str("VMAFPAttachmentServerPath"),
          Str("VMAFPAttachmentUsername"),
          Str("smb://files.example/share/Att"),
          Str("anna"),
          DictionaryClass(class_name)};
}

TEST(KeyedArchiveTest, ReadsDictionariesArchivedByThePlatform) {
  std::optional<ArchivedDictionary> settings = UnarchiveDictionary(Archive(SettingsObjects()));
  ASSERT_TRUE(settings);
  EXPECT_EQ(*settings, (ArchivedDictionary{{"VMAFPAttachmentServerPath",
                                            std::string("smb://files.example/share/Att")},
                                           {"VMAFPAttachmentUsername", std::string("anna")}}));

  // Mutable strings and data are archived as objects of their own; numbers and booleans
  // inline; a value referring to "$null" is nil and left out.
  std::vector<NodeRef> objects = {
      Str("$null"),
      Dict({{"NS.keys", Array({Uid(2), Uid(3), Uid(4), Uid(5), Uid(6)})},
            {"NS.objects", Array({Uid(7), Uid(9), Uid(11), Uid(12), Uid(0)})},
            {"$class", Uid(13)}}),
      Str("folder"),
      Str("blob"),
      Str("count"),
      Str("flag"),
      Str("nothing"),
      Dict({{"NS.string", Str("/Shared Files")}, {"$class", Uid(8)}}),
      DictionaryClass("NSMutableString"),
      Dict({{"NS.data", Data(std::string("\x00\x01\x02", 3))}, {"$class", Uid(10)}}),
      DictionaryClass("NSData"),
      Int(-42),
      Bool(true),
      DictionaryClass("NSMutableDictionary")};
  settings = UnarchiveDictionary(Archive(objects));
  ASSERT_TRUE(settings);
  EXPECT_EQ(*settings, (ArchivedDictionary{{"folder", std::string("/Shared Files")},
                                           {"blob", Bytes{0, 1, 2}},
                                           {"count", std::int64_t{-42}},
                                           {"flag", true}}));
}

TEST(KeyedArchiveTest, AnythingElseIsNotADictionaryArchive) {
  Bytes good = Archive(SettingsObjects());
  std::vector<NodeRef> no_null = SettingsObjects();
  no_null[0] = Str("null");
  std::vector<NodeRef> mismatched = SettingsObjects();
  mismatched[1] = Dict(
      {{"NS.keys", Array({Uid(2), Uid(3)})}, {"NS.objects", Array({Uid(4)})}, {"$class", Uid(6)}});
  std::vector<NodeRef> dangling = SettingsObjects();
  dangling[1] =
      Dict({{"NS.keys", Array({Uid(2)})}, {"NS.objects", Array({Uid(40)})}, {"$class", Uid(6)}});
  Bytes truncated(good.begin(), good.begin() + good.size() / 2);
  Bytes bad_offsets = good;
  bad_offsets[bad_offsets.size() - 1] = 0xFF;  // offset table beyond the end
  std::string xml = "<?xml version=\"1.0\"?><plist><dict/></plist>";

  struct Case {
    std::string name;
    Bytes data;
  };
  const Case cases[] = {
      {"empty", {}},
      {"xml property list", Bytes(xml.begin(), xml.end())},
      {"truncated", truncated},
      {"offset table out of range", bad_offsets},
      {"another archiver", Archive(SettingsObjects(), "NSArchiver")},
      {"another version", Archive(SettingsObjects(), "NSKeyedArchiver", 99)},
      {"root out of range", Archive(SettingsObjects(), "NSKeyedArchiver", 100000, 99)},
      {"root is $null", Archive(SettingsObjects(), "NSKeyedArchiver", 100000, 0)},
      {"root is an array", Archive(SettingsObjects("NSArray"))},
      {"no $null first", Archive(no_null)},
      {"keys and objects differ in number", Archive(mismatched)},
      {"plain dictionary", BplistWriter().write(Dict({{"a", Str("b")}}))},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(UnarchiveDictionary(c.data), std::nullopt) << c.name;
  }
  // A value that points nowhere drops that entry only.
  EXPECT_EQ(UnarchiveDictionary(Archive(dangling)), ArchivedDictionary{});
}

TEST(KeyedArchiveTest, WritesArchivesThatReadBack) {
  ArchivedDictionary settings = {{"VMArchiverAttachmentStorageFolder", std::string("/Ablage/Ü")},
                                 {"VMAFPAttachmentPassword", std::string("")},
                                 {"count", std::int64_t{-7}},
                                 {"ratio", 0.25},
                                 {"flag", false},
                                 {"blob", Bytes{9, 8, 7}}};
  Bytes data = ArchiveDictionary(settings);
  ASSERT_GT(data.size(), 8u);
  EXPECT_EQ(std::string(data.begin(), data.begin() + 8), "bplist00");
  EXPECT_EQ(UnarchiveDictionary(data), settings);
  EXPECT_EQ(UnarchiveDictionary(ArchiveDictionary({})), ArchivedDictionary{});
}

}  // namespace
}  // namespace vm
