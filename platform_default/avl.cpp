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

} // namespace

int avl_insert(avl_root_t *root, const void *key, avl_node_t *node, avl_compare_fn compare) {
    if (root == nullptr || key == nullptr || node == nullptr || compare == nullptr) return -1;
    if (root->count == 0) {
        algorithms::init_header(&root->header);
        root->header.balance = header_mark;
    }
    algorithms::insert_commit_data place;
    if (!algorithms::insert_unique_check(&root->header, search_key{key}, node_order{compare}, place)
             .second)
        return -1;
    algorithms::insert_unique_commit(&root->header, node, place);
    root->count++;
    return 0;
}

void avl_delete(avl_root_t *root, avl_node_t *node) {
    if (root == nullptr || node == nullptr || root->count == 0) return;
    algorithms::erase(&root->header, node);
    *node = avl_node_t{};
    if (--root->count == 0) root->header = avl_node_t{};
}

avl_node_t *avl_search(avl_root_t *root, const void *key, avl_compare_fn compare) {
    if (root == nullptr || key == nullptr || compare == nullptr) return nullptr;
    avl_node_t *node = root->header.parent;
    while (node != nullptr) {
        const int order = compare(key, node);
        if (order == AVL_EQUAL) return node;
        node = order == AVL_LESS ? node->left : node->right;
    }
    return nullptr;
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
