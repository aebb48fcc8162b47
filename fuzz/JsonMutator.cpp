#include "fuzz/JsonMutator.h"

#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/PyJSON.h"

#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

namespace verdo::fuzz {
namespace {

/// A value taken apart, so that any value in it can be changed.
struct Tree {
  enum class Kind { leaf, array, object };
  std::string key;  ///< unless it stands in an array
  Kind kind = Kind::leaf;
  JV leaf;
  std::vector<Tree> members;

  static Tree of(const JV& value, std::string key = "") {
    Tree tree;
    tree.key = std::move(key);
    if (const auto* array = value.asArray()) {
      tree.kind = Kind::array;
      for (const auto& item : *array) tree.members.push_back(of(item));
    } else if (const auto* object = value.asObject()) {
      tree.kind = Kind::object;
      for (const auto& [name, member] : *object) tree.members.push_back(of(member, name));
    } else {
      tree.leaf = value;
    }
    return tree;
  }

  /// A key may repeat in it.
  std::string text() const {
    if (kind == Kind::leaf) return PyJSON::text(leaf);
    std::string out = kind == Kind::array ? "[" : "{";
    for (const char* separator = ""; const Tree& member : members) {
      out += separator;
      if (kind == Kind::object) out += PyJSON::text(member.key) + ": ";
      out += member.text();
      separator = ", ";
    }
    return out + (kind == Kind::array ? "]" : "}");
  }

  void collect(std::vector<Tree*>& all) {
    all.push_back(this);
    for (Tree& member : members) member.collect(all);
  }
};

std::optional<Tree> parsed(std::string_view text) {
  try {
    return Tree::of(readJson(text).value);
  } catch (const PyError&) {
    return std::nullopt;
  }
}

class Mutation {
 public:
  Mutation(unsigned seed, const MutateBytes& mutateBytes)
      : random_(seed), mutateBytes_(mutateBytes) {}

  std::size_t below(std::size_t count) { return random_() % count; }

  Tree& anyOf(Tree& tree) {
    std::vector<Tree*> all;
    tree.collect(all);
    return *all[below(all.size())];
  }

  void change(Tree& tree) {
    if (tree.kind == Tree::Kind::leaf || below(6) == 0) return replace(tree);
    const bool isEmpty = tree.members.empty();
    switch (below(5)) {
      case 0:
        if (isEmpty) return replace(tree);
        tree.members.erase(at(tree, below(tree.members.size())));
        break;
      case 1:
        if (isEmpty) return replace(tree);
        insert(tree, tree.members[below(tree.members.size())]);
        break;
      case 2: {
        if (isEmpty) return replace(tree);
        Tree& one = tree.members[below(tree.members.size())];
        Tree& other = tree.members[below(tree.members.size())];
        std::swap(one, other);
        std::swap(one.key, other.key);
        break;
      }
      case 3: {
        if (isEmpty) return replace(tree);
        auto& key = tree.members[below(tree.members.size())].key;
        key = mutateBytes_(key, key.size() + 8);
        break;
      }
      default:
        insert(tree, Tree::of(any(), "k"));
    }
  }

  void insert(Tree& tree, Tree member) {
    tree.members.insert(at(tree, below(tree.members.size() + 1)), std::move(member));
  }

 private:
  static std::vector<Tree>::iterator at(Tree& tree, std::size_t place) {
    return tree.members.begin() + static_cast<std::ptrdiff_t>(place);
  }

  void replace(Tree& tree) {
    if (const auto* text = tree.leaf.asString(); text && below(2) == 0) {
      tree.leaf = mutateBytes_(*text, text->size() + 16);
    } else if (below(8) == 0) {
      Tree inner = std::move(tree);
      tree = Tree();
      tree.key = std::exchange(inner.key, "k");
      tree.kind = below(2) == 0 ? Tree::Kind::array : Tree::Kind::object;
      tree.members.push_back(std::move(inner));
    } else {
      tree = Tree::of(any(), tree.key);
    }
  }

  JV any() {
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    const JV palette[] = {nullptr, true,   false,        0,          1,         -1,  kMax,
                          -kMax,   0.5,    1e300,        -1e-300,    "",        "1", "-1",
                          " ",     "..",   "\xed\xa0",   "\u2028",   "\x1b[0m", 426, 1e16,
                          "../a",  "True", JV::Object{}, JV::Array{}};
    return palette[below(std::size(palette))];
  }

  std::minstd_rand random_;
  const MutateBytes& mutateBytes_;
};

}  // namespace

std::optional<std::string> mutatedJson(std::string_view text, unsigned seed,
                                       const MutateBytes& mutateBytes) {
  auto tree = parsed(text);
  if (!tree) return std::nullopt;
  Mutation mutation(seed, mutateBytes);
  mutation.change(mutation.anyOf(*tree));
  return tree->text();
}

std::optional<std::string> crossedJson(std::string_view text, std::string_view other,
                                       unsigned seed) {
  auto tree = parsed(text);
  auto source = parsed(other);
  if (!tree || !source) return std::nullopt;
  Mutation mutation(seed, {});
  Tree& place = mutation.anyOf(*tree);
  Tree& taken = mutation.anyOf(*source);
  if (place.kind == Tree::Kind::object && !taken.members.empty()) {
    mutation.insert(place, taken.members[mutation.below(taken.members.size())]);
  } else {
    std::string key = place.key;
    place = std::move(taken);
    place.key = std::move(key);
  }
  return tree->text();
}

}  // namespace verdo::fuzz
