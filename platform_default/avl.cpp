// AVL trees: the caller's nodes, Boost's algorithms.
//
// Boost wants a header node outside the tree: its parent is the root of the tree, left and right
// are the smallest and the largest node. The header is set up by the first insertion and zeroed by
// the last deletion, so that an empty tree is always zero-filled and may be moved.
#include "platform/avl.h"
#include <boost/intrusive/avltree_algorithms.hpp>
#include <cstdint>
#include <limits>

namespace {

struct node_traits {
    using node = avl_node_t;
    using node_ptr = avl_node_t *;
    using const_node_ptr = const avl_node_t *;
    using balance = std::int64_t;

    static node_ptr get_parent(const_node_ptr n) { return n->parent; }
    static void set_parent(node_ptr n, node_ptr parent) { n->parent = parent; }
    static node_ptr get_left(const_node_ptr n) { return n->left; }
    static void set_left(node_ptr n, node_ptr left) { n->left = left; }
    static node_ptr get_right(const_node_ptr n) { return n->right; }
    static void set_right(node_ptr n, node_ptr right) { n->right = right; }
    static balance get_balance(const_node_ptr n) { return n->balance; }
    static void set_balance(node_ptr n, balance b) { n->balance = b; }
    static balance negative() { return -1; }
    static balance zero() { return 0; }
    static balance positive() { return 1; }
};

using algorithms = boost::intrusive::avltree_algorithms<node_traits>;

// The algorithms never look at the header's balance; this value there tells it from a member.
constexpr std::int64_t header_mark = std::numeric_limits<std::int64_t>::min();

// Where the last search ended: at the node itself, or at the leaf beside which it would stand. A
// look-up is often followed by the insertion of what was not found, or by another look-up of what
// was; those then need no descent. Only ever a hint: it is checked against the key before use, and
// forgotten when its node leaves the tree.
struct {
    const avl_root_t *root;
    avl_node_t *node;
} last_search;

void forget(const avl_root_t *root) {
    if (last_search.root == root) last_search = {};
}

struct search_key {
    const void *key;
};

struct node_order {
    avl_compare_fn compare;
    bool operator()(const search_key &key, const avl_node_t *node) const {
        return compare(key.key, node) == AVL_LESS;
    }
    bool operator()(const avl_node_t *node, const search_key &key) const {
        return compare(key.key, node) == AVL_GREATER;
    }
};

// Whether the key belongs directly below the node where the last search ended; `place` is set then.
bool is_place_known(const avl_root_t *root, const void *key, avl_compare_fn compare,
                    algorithms::insert_commit_data &place) {
    avl_node_t *leaf = last_search.node;
    if (last_search.root != root || leaf == nullptr) return false;
    const int order = compare(key, leaf);
    const bool is_left = order == AVL_LESS;
    if (order == AVL_EQUAL || (is_left ? leaf->left : leaf->right) != nullptr) return false;
    // The neighbour on the other side has to be on the other side of the key.
    const avl_node_t *outermost = is_left ? root->header.left : root->header.right;
    if (leaf != outermost) {
        const avl_node_t *neighbour =
            is_left ? algorithms::prev_node(leaf) : algorithms::next_node(leaf);
        if (compare(key, neighbour) != (is_left ? AVL_GREATER : AVL_LESS)) return false;
    }
    place.link_left = is_left;
    place.node = leaf;
    return true;
}

} // namespace

int avl_insert(avl_root_t *root, const void *key, avl_node_t *node, avl_compare_fn compare) {
    if (root == nullptr || key == nullptr || node == nullptr || compare == nullptr) return -1;
    if (root->count == 0) {
        forget(root);
        algorithms::init_header(&root->header);
        root->header.balance = header_mark;
    }
    algorithms::insert_commit_data place;
    if (!is_place_known(root, key, compare, place) &&
        !algorithms::insert_unique_check(&root->header, search_key{key}, node_order{compare}, place)
             .second)
        return -1;
    algorithms::insert_unique_commit(&root->header, node, place);
    root->count++;
    last_search = {root, node};
    return 0;
}

void avl_delete(avl_root_t *root, avl_node_t *node) {
    if (root == nullptr || node == nullptr || root->count == 0) return;
    if (last_search.node == node) last_search = {};
    algorithms::erase(&root->header, node);
    *node = avl_node_t{};
    if (--root->count == 0) root->header = avl_node_t{};
}

avl_node_t *avl_search(avl_root_t *root, const void *key, avl_compare_fn compare) {
    if (root == nullptr || key == nullptr || compare == nullptr) return nullptr;
    if (root->count == 0) return nullptr;
    if (last_search.root == root && compare(key, last_search.node) == AVL_EQUAL)
        return last_search.node;
    avl_node_t *at = root->header.parent;
    for (;;) {
        const int order = compare(key, at);
        avl_node_t *below = order == AVL_LESS ? at->left : at->right;
        if (order != AVL_EQUAL && below != nullptr) {
            at = below;
            continue;
        }
        last_search = {root, at};
        return order == AVL_EQUAL ? at : nullptr;
    }
}

avl_node_t *avl_get_first(avl_root_t *root) {
    return root == nullptr || root->count == 0 ? nullptr : root->header.left;
}

avl_node_t *avl_get_next(avl_node_t *node) {
    if (node == nullptr || node->parent == nullptr) return nullptr;
    avl_node_t *next = algorithms::next_node(node);
    return next->balance == header_mark ? nullptr : next;
}

int avl_walk(avl_root_t *root, avl_walk_fn fn, void *arg) {
    if (root == nullptr || fn == nullptr) return 0;
    avl_node_t *node = avl_get_first(root);
    while (node != nullptr) {
        // The callback may take its node out of the tree and free it.
        avl_node_t *next = avl_get_next(node);
        if (fn(node, arg) == 0) return 0;
        node = next;
    }
    return 1;
}
