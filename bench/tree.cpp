// Building, copying and asking the same tree of the same values, destroying it included. Each library says
// how it finds or makes the member under a key; the trees own their keys and texts.

#include <json/json.h>
#include <korvo/variant/variant.h>
#include <rapidjson/document.h>

#include <boost/json.hpp>
#include <charconv>
#include <nlohmann/json.hpp>

#include "bench.h"

namespace bench {
namespace {

using Scalar = std::variant<bool, int, double, std::string>;

struct Leaf {
    std::vector<std::string> path;
    Scalar value;
};

template <class Number>
bool isWhole(const std::string& text, Number& number) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

/** The leaves of a configuration with the types that their texts look like. */
std::vector<Leaf> leaves(int count) {
    std::vector<Leaf> result;
    for (const auto& [path, key, text] : configuration(count)) {
        Scalar value = text;
        int number = 0;
        double fraction = 0;
        if (isWhole(text, number)) {
            value = number;
        } else if (isWhole(text, fraction)) {
            value = fraction;
        }
        result.push_back({path, path.back() == "enabled" ? Scalar(true) : value});
    }
    return result;
}

/** A library whose values are assigned to, and whose operator[] finds or makes a member. */
template <class Value>
struct Indexed {
    using Node = Value;
    Node& child(Node& node, const std::string& key) { return node[key]; }
    template <class Held>
    void set(Node& node, const Held& value) {
        node = value;
    }
    template <class Held>
    static bool equals(const Node& node, const Held& value) {
        return node == Node(value);
    }
    Node tree;
};

struct BoostJson : Indexed<boost::json::value> {
    Node& child(Node& node, const std::string& key) {
        return (node.is_object() ? node.get_object() : node.emplace_object())[key];
    }
};

/** It wants to be told where copies of texts live, and makes no members by itself. */
struct Rapidjson {
    using Node = rapidjson::Value;
    Rapidjson() = default;
    Rapidjson(const Rapidjson& other) { tree.CopyFrom(other.tree, tree.GetAllocator()); }
    Rapidjson& operator=(const Rapidjson&) = delete;
    static Node view(const std::string& text) {
        return Node(rapidjson::StringRef(text.data(), static_cast<rapidjson::SizeType>(text.size())));
    }
    Node& child(Node& node, const std::string& key) {
        if (!node.IsObject()) node.SetObject();
        const auto found = node.FindMember(view(key));
        if (found != node.MemberEnd()) return found->value;
        node.AddMember(Node(view(key), tree.GetAllocator()), Node(), tree.GetAllocator());
        return (node.MemberEnd() - 1)->value;
    }
    template <class Held>
    void set(Node& node, const Held& value) {
        node = Node(value);
    }
    void set(Node& node, const std::string& text) { node = Node(view(text), tree.GetAllocator()); }
    template <class Held>
    static bool equals(const Node& node, const Held& value) {
        return node == Node(value);
    }
    static bool equals(const Node& node, const std::string& text) { return node == view(text); }
    rapidjson::Document tree;
};

template <class Library>
typename Library::Node& find(Library& library, const Leaf& leaf) {
    typename Library::Node* node = &library.tree;
    for (const std::string& key : leaf.path) node = &library.child(*node, key);
    return *node;
}

template <class Library>
Library build(const std::vector<Leaf>& all) {
    Library library;
    for (const Leaf& leaf : all) {
        auto& node = find(library, leaf);
        std::visit([&](const auto& value) { library.set(node, value); }, leaf.value);
    }
    return library;
}

template <class Library>
void addLibrary(const std::string& who) {
    for (const int size : sizes) {
        const std::vector<Leaf> all = leaves(size);
        const auto filled = [all] { return build<Library>(all); };
        Library library = filled();
        Library copied(library);
        for (const Leaf& leaf : all) {
            const auto holds = [&](Library& any) {
                const auto same = [&](const auto& value) { return any.equals(find(any, leaf), value); };
                return std::visit(same, leaf.value);
            };
            require(holds(library) && holds(copied), who + " holds other values");
        }
        add("value: build a tree, destroy it", who, size,
            [all] { benchmark::DoNotOptimize(build<Library>(all)); });
        add("value: copy a tree, destroy the copy", who, size, filled,
            [](const Library& tree) { benchmark::DoNotOptimize(Library(tree)); });
        add("value: look every leaf up", who, size, filled, [all](Library& tree) {
            for (const Leaf& leaf : all) benchmark::DoNotOptimize(&find(tree, leaf));
        });
    }
}

}  // namespace

void addTreeRows() {
    addLibrary<Indexed<korvo::variant::Variant>>(ours);
    addLibrary<Indexed<MapTree>>("std::map");
    addLibrary<Indexed<nlohmann::json>>("nlohmann::json");
    addLibrary<Indexed<Json::Value>>("jsoncpp");
    addLibrary<Rapidjson>("RapidJSON");
    addLibrary<BoostJson>("Boost.JSON");
}

}  // namespace bench
