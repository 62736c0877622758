/* Intrusive balanced trees: the nodes are members of the caller's records. */
#ifndef PLATFORM_AVL_H
#define PLATFORM_AVL_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Zero-filled = not in a tree; the members are the platform's own. */
typedef struct avl_node {
    struct avl_node *parent, *left, *right;
    int64_t balance;
} avl_node_t;

/* Zero-filled = empty tree. */
typedef struct avl_root {
    avl_node_t header; /* the platform's own */
    uint64_t count;    /* nodes in the tree; callers test emptiness by count == 0 */
} avl_root_t;

/* Where a key stands to a node: before it, equal, behind it. */
enum { AVL_LESS = 0, AVL_EQUAL = 1, AVL_GREATER = 2 };
typedef int (*avl_compare_fn)(const void *key, const avl_node_t *node);

/* node is the address of the avl_node_t, which is the record's when the node is its first field.
   The result 0 stops the walk. */
typedef int (*avl_walk_fn)(void *node, void *arg);

/* Links node under key. 0 = inserted, -1 = an equal key is present or an argument is null, and the
   tree is unchanged. */
int avl_insert(avl_root_t *root, const void *key, avl_node_t *node, avl_compare_fn compare);

/* Unlinks a node of this tree and zeroes it. */
void avl_delete(avl_root_t *root, avl_node_t *node);

/* The node with an equal key, or null. */
avl_node_t *avl_search(avl_root_t *root, const void *key, avl_compare_fn compare);

/* The smallest node and the next greater one; null when there is none. */
avl_node_t *avl_get_first(avl_root_t *root);
avl_node_t *avl_get_next(avl_node_t *node);

/* Calls fn with each node in key order. The successor is read before the call, so fn may delete and
   free the node it got. 1 = every node was visited, also of an empty tree; 0 = fn stopped it. */
int avl_walk(avl_root_t *root, avl_walk_fn fn, void *arg);
#ifdef __cplusplus
}
#endif
#endif
