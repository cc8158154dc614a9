// Kal::RbTreeMap<Member, Key>: an ordered map of counted members, ascending by key.
//
//   struct SeqEntry : Kal::PtrInterface {
//       U64 seq;
//       U64 const& fwkKey() const { return seq; }
//   };
//   Kal::RbTreeMap<SeqEntry, U64> m;
//   m.memberIs(new SeqEntry{...});            // insert, or replace the member with that key
//   for (auto i = m.iterator(); i; ++i) use(i.key(), i.ptr());
//
// Layout. A red-black tree of nodes that the map allocates; each node holds a counted
// pointer to its member, and the member carries its own key:
//
//   RbTreeMap ── detail::RbTree { root, count (U32), version (U32) }
//                                   │
//                Node { left, right, parent, red  |  Ptr<Member> member }
//
// Nodes are kept apart from the members (not linked through them) because a member is an
// entity that may be filed in more than one map at once: a copy of a map files the very
// same member objects, and an iterator may hold a member that has already left the map.
// The balancing (rebalancing after insertion and erasure, rotations, the in-order walk,
// copying the shape, the iterative teardown and the structural self-check) is compiled once,
// in RbTreeMap.cpp; the template adds only the key comparisons of its descents.
//
// Invariants, checked by verify(): the root is black and has no parent; no red node has a
// red child; every path from a node down to a missing child passes the same number of
// black nodes; every child's parent link points back at it; in-order keys ascend strictly
// (a key is filed at most once); the member count equals the number of nodes. Hence the
// height is at most 2*log2(n+1) and lookup, insertion and deletion are O(log n).
//
// Order. Ascending by KeyOrder, by default `rbTreeKeyLess(a, b)`, which is `a < b` unless
// the key's own namespace declares an overload (found by argument-dependent lookup), or a
// stateless order passed as the third template argument. For U64 keys it is the built-in
// unsigned comparison: keys of 2^63 and above sort after all smaller ones.
//
// Iterators. An iterator holds a counted pointer to the member it stands on, the node, and
// the map's version as it was when the iterator last moved. Every insertion, replacement
// and deletion increments the version. Advancing in an unchanged map follows the tree; in a
// changed map it continues with the first member whose key is strictly greater than the
// current member's key, found afresh. So deleting the member under an iterator (or any
// other) is safe, and a member inserted during a walk is visited exactly when its key is
// greater than the iterator's. An iterator must not outlive its map. (The version is 32
// bits: an iterator left unmoved across exactly a multiple of 2^32 changes would miss them.)
//
// Copying. The map holds counted pointers to entities, so a copy is a new tree of nodes
// filing the same member objects (each member gains one reference per map). Two maps are
// equal when they file the same member objects under the same keys.
//
// Requirements on Member: derived from Kal::PtrInterface; `fwkKey()` const returning the
// key (Key const&, or a Key by value); the key must not change while the member is filed.
// Members are compared by KeyOrder; a map is used by one thread.
#pragma once

#include "Kal/Assert.h"
#include "Kal/Ptr.h"
#include "Kal/String.h"
#include "Kal/Types.h"

#include <iterator>
#include <type_traits>
#include <utility>

namespace Kal {

// The default key order. Declare `bool rbTreeKeyLess(K const&, K const&)` in the namespace
// of a key type K to give it another order.
template <class Key>
bool rbTreeKeyLess(Key const& a, Key const& b) {
    return a < b;
}

struct RbTreeKeyOrder {
    template <class Key>
    bool operator()(Key const& a, Key const& b) const {
        return rbTreeKeyLess(a, b);
    }
};

namespace detail {

struct RbNode {
    RbNode* left = nullptr;
    RbNode* right = nullptr;
    RbNode* parent = nullptr; // null at the root
    bool red = true;
};

// The untyped red-black tree: shape, colours, count and version. It never looks at keys;
// the typed map finds the place and calls insert() or erase().
class RbTree {
  public:
    using CloneFn = RbNode* (*)(RbNode const& source);
    using DestroyFn = void (*)(RbNode* node) noexcept;

    RbTree() = default;
    RbTree(RbTree const&) = delete;
    RbTree& operator=(RbTree const&) = delete;
    ~RbTree() { KAL_DASSERT(!root_); } // the typed map frees its nodes

    RbNode* root() const noexcept { return root_; }
    U32 count() const noexcept { return count_; }
    U32 version() const noexcept { return version_; }
    void versionInc() noexcept { ++version_; }

    // Links `node` as the left (`left`) or right child of `parent`, which has no child on
    // that side (parent null: the tree must be empty), then restores the colour rules.
    void insert(RbNode* node, RbNode* parent, bool left) noexcept;
    // Unlinks `node` and restores the colour rules; freeing the node is the caller's.
    void erase(RbNode* node) noexcept;
    // Empties the tree in O(1) and returns the old root; the caller frees the nodes.
    RbNode* detachAll() noexcept;
    // Takes a whole tree of `count` nodes (from clone() or detachAll()); the tree must be empty.
    void adopt(RbNode* root, U32 count) noexcept;

    static RbNode* first(RbNode const* root) noexcept;
    static RbNode* next(RbNode const* node) noexcept;
    // Copies the shape and colours of the tree under `root`, making each node with `clone`.
    // If `clone` throws, the nodes made so far are freed with `destroy` and the exception
    // goes on.
    static RbNode* clone(RbNode const* root, CloneFn clone, DestroyFn destroy);
    // Frees every node under `root` with `destroy`, without recursion.
    static void destroy(RbNode* root, DestroyFn destroy) noexcept;

    // Empty when shape, colours and count are sound; otherwise names the first broken rule.
    String8 verify() const;
    // "<what> <position>", the text of a broken rule found by the typed map.
    static String8 problemAt(char const* what, U32 position);

  private:
    void replaceChild(RbNode* parent, RbNode* old, RbNode* replacement) noexcept;
    void rotateLeft(RbNode* x) noexcept;
    void rotateRight(RbNode* x) noexcept;
    void eraseFixup(RbNode* x, RbNode* xParent) noexcept;

    RbNode* root_ = nullptr;
    U32 count_ = 0;
    U32 version_ = 0; // incremented by every insertion, replacement and deletion
};

} // namespace detail

template <class Member, class Key, class KeyOrder = RbTreeKeyOrder>
class RbTreeMap {
    struct Node : detail::RbNode {
        explicit Node(Ptr<Member> m) noexcept : member(std::move(m)) {}
        Ptr<Member> member;
    };

  public:
    using MemberType = Member;
    using KeyType = Key;

    template <bool Const>
    class IteratorT;
    using Iterator = IteratorT<false>;
    using IteratorConst = IteratorT<true>;

    RbTreeMap() = default;
    RbTreeMap(RbTreeMap const& other) { tree_.adopt(cloneOf(other), other.members()); }
    RbTreeMap(RbTreeMap&& other) noexcept { take(other); }
    RbTreeMap& operator=(RbTreeMap const& other) {
        if (this != &other) {
            detail::RbNode* copy = cloneOf(other);
            detail::RbNode* old = tree_.detachAll();
            tree_.adopt(copy, other.members());
            detail::RbTree::destroy(old, &destroyNode);
        }
        return *this;
    }
    RbTreeMap& operator=(RbTreeMap&& other) noexcept {
        if (this != &other) {
            detail::RbNode* old = tree_.detachAll();
            take(other);
            detail::RbTree::destroy(old, &destroyNode);
        }
        return *this;
    }
    ~RbTreeMap() { detail::RbTree::destroy(tree_.detachAll(), &destroyNode); }

    U32 members() const noexcept { return tree_.count(); }

    // The member filed under `key`, or null.
    Member* operator[](Key const& key) { return memberOf(findNode(key)); }
    Member const* operator[](Key const& key) const { return memberOf(findNode(key)); }
    Member* find(Key const& key) { return (*this)[key]; }
    Member const* find(Key const& key) const { return (*this)[key]; }

    // Files `member` under its key. Returns the member that was filed under that key before
    // (now replaced), or null when the key was new. Filing the member already filed under
    // its key changes nothing and returns it.
    Ptr<Member> memberIs(Ptr<Member> member) {
        static_assert(std::is_base_of_v<PtrInterface, Member>,
                      "RbTreeMap members are counted objects");
        KAL_ASSERT(member);
        auto const& key = member->fwkKey();
        detail::RbNode* parent = nullptr;
        bool left = false;
        for (detail::RbNode* n = tree_.root(); n;) {
            parent = n;
            if (less(key, keyOf(n))) {
                left = true;
                n = n->left;
            } else if (less(keyOf(n), key)) {
                left = false;
                n = n->right;
            } else {
                Ptr<Member>& slot = static_cast<Node*>(n)->member;
                if (slot == member) return member;
                tree_.versionInc();
                std::swap(slot, member);
                return member;
            }
        }
        tree_.insert(new Node(std::move(member)), parent, left);
        return nullptr;
    }

    // Removes the member filed under `key` and returns it; null when there is none.
    Ptr<Member> memberDel(Key const& key) {
        Node* n = findNode(key);
        if (!n) return nullptr;
        tree_.erase(n);
        Ptr<Member> member = std::move(n->member);
        delete n;
        return member;
    }

    // Removes every member. The map is empty before the first member is released, so a
    // member's destructor that looks at the map sees it empty.
    void deleteAll() noexcept { detail::RbTree::destroy(tree_.detachAll(), &destroyNode); }

    Iterator iterator() { return Iterator(this, firstNode()); }
    IteratorConst iterator() const { return IteratorConst(this, firstNode()); }
    IteratorConst iteratorConst() const { return iterator(); }
    // An iterator at the first member whose key is not less than `key`.
    Iterator startAt(Key const& key) { return Iterator(this, lowerBound(key)); }
    IteratorConst startAt(Key const& key) const { return IteratorConst(this, lowerBound(key)); }

    // Range-for support: for (Member& m : map).
    Iterator begin() { return iterator(); }
    IteratorConst begin() const { return iterator(); }
    std::default_sentinel_t end() const noexcept { return {}; }

    // Equal when both file the same member objects under the same keys.
    friend bool operator==(RbTreeMap const& a, RbTreeMap const& b) noexcept {
        if (a.members() != b.members()) return false;
        for (Node const *x = a.firstNode(), *y = b.firstNode(); x; x = nextNode(x), y = nextNode(y)) {
            if (x->member != y->member) return false;
        }
        return true;
    }

    // Empty when every invariant listed at the top of this file holds; otherwise a text that
    // names the first broken one.
    String8 verify() const {
        String8 problem = tree_.verify();
        if (!problem.empty()) return problem;
        U32 position = 0;
        Node const* prev = nullptr;
        for (Node const* n = firstNode(); n; prev = n, n = nextNode(n), ++position) {
            if (!n->member) return detail::RbTree::problemAt("node without a member at position", position);
            if (prev && !less(keyOf(prev), keyOf(n))) {
                return detail::RbTree::problemAt("keys not strictly ascending at position", position);
            }
        }
        return {};
    }

    template <bool Const>
    class IteratorT {
        using MemberT = std::conditional_t<Const, Member const, Member>;

      public:
        IteratorT() = default;
        // An Iterator converts to an IteratorConst.
        template <bool OtherConst, class = std::enable_if_t<Const && !OtherConst>>
        IteratorT(IteratorT<OtherConst> const& o)
            : map_(o.map_), node_(o.node_), member_(o.member_), version_(o.version_) {}

        // True while the iterator stands on a member; false at the end.
        explicit operator bool() const noexcept { return member_ != nullptr; }
        MemberT* ptr() const noexcept { return member_.ptr(); }
        MemberT* operator->() const noexcept { return member_.operator->(); }
        MemberT& operator*() const noexcept { return *member_; }
        decltype(auto) key() const { return member_->fwkKey(); }

        IteratorT& operator++() {
            KAL_ASSERT(member_ && "iterator advanced past its end");
            Node const* n = map_->tree_.version() == version_ ? nextNode(node_)
                                                              : map_->upperBound(member_->fwkKey());
            node_ = n;
            version_ = map_->tree_.version();
            member_ = memberOf(n);
            return *this;
        }

        friend bool operator==(IteratorT const& i, std::default_sentinel_t) noexcept { return !i; }

      private:
        friend class RbTreeMap;
        template <bool>
        friend class IteratorT;

        IteratorT(RbTreeMap const* map, Node const* node)
            : map_(map), node_(node), member_(memberOf(node)), version_(map->tree_.version()) {}

        RbTreeMap const* map_ = nullptr;
        Node const* node_ = nullptr; // followed only while version_ is the map's version
        Ptr<MemberT> member_;        // keeps the member alive even after it leaves the map
        U32 version_ = 0;
    };

  private:
    static bool less(Key const& a, Key const& b) { return KeyOrder{}(a, b); }
    static decltype(auto) keyOf(detail::RbNode const* n) {
        return static_cast<Node const*>(n)->member->fwkKey();
    }
    static Member* memberOf(Node const* n) noexcept { return n ? n->member.ptr() : nullptr; }
    static Node* nextNode(Node const* n) noexcept {
        return static_cast<Node*>(detail::RbTree::next(n));
    }
    Node* firstNode() const noexcept { return static_cast<Node*>(detail::RbTree::first(tree_.root())); }

    // First node whose key is not less than `key`.
    Node* lowerBound(Key const& key) const {
        detail::RbNode* best = nullptr;
        for (detail::RbNode* n = tree_.root(); n;) {
            if (less(keyOf(n), key)) {
                n = n->right;
            } else {
                best = n;
                n = n->left;
            }
        }
        return static_cast<Node*>(best);
    }
    // First node whose key is greater than `key`.
    Node* upperBound(Key const& key) const {
        detail::RbNode* best = nullptr;
        for (detail::RbNode* n = tree_.root(); n;) {
            if (less(key, keyOf(n))) {
                best = n;
                n = n->left;
            } else {
                n = n->right;
            }
        }
        return static_cast<Node*>(best);
    }
    Node* findNode(Key const& key) const {
        Node* n = lowerBound(key);
        return n && !less(key, keyOf(n)) ? n : nullptr;
    }

    static detail::RbNode* cloneNode(detail::RbNode const& source) {
        return new Node(static_cast<Node const&>(source).member);
    }
    static void destroyNode(detail::RbNode* n) noexcept { delete static_cast<Node*>(n); }
    static detail::RbNode* cloneOf(RbTreeMap const& other) {
        return detail::RbTree::clone(other.tree_.root(), &cloneNode, &destroyNode);
    }
    void take(RbTreeMap& other) noexcept {
        U32 const count = other.members();
        tree_.adopt(other.tree_.detachAll(), count);
    }

    detail::RbTree tree_;
};

} // namespace Kal
