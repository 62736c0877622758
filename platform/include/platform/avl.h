#ifndef PLATFORM_AVL_H
#define PLATFORM_AVL_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef struct avl_node {                          /* intrusive; zero-filled = not in a tree; members are the platform's own */
    struct avl_node *parent, *left, *right;
    int64_t          balance;
} avl_node_t;
typedef struct avl_root {                          /* zero-filled = empty tree */
    avl_node_t header;                             /* the platform's own */
    uint64_t   count;                              /* nodes in the tree; the library tests emptiness by count == 0 */
} avl_root_t;
enum { AVL_LESS = 0, AVL_EQUAL = 1, AVL_GREATER = 2 };
typedef int (*avl_compare_fn)(const void *key, const avl_node_t *node);   /* key before node 0, equal 1, key after node 2 */
typedef int (*avl_walk_fn)(void *node, void *arg); /* node is the avl_node_t address (= the record when the node is its first field); 0 stops the walk */
int         avl_insert(avl_root_t *root, const void *key, avl_node_t *node, avl_compare_fn compare);   /* 0 = inserted, -1 = equal key present or null argument (tree unchanged) */
void        avl_delete(avl_root_t *root, avl_node_t *node);               /* unlinks node and zeroes it; node must be in the tree */
avl_node_t *avl_search(avl_root_t *root, const void *key, avl_compare_fn compare);                     /* node with an equal key, or null */
avl_node_t *avl_get_first(avl_root_t *root);       /* smallest node, null when empty */
avl_node_t *avl_get_next(avl_node_t *node);        /* in-order successor, null at the end */
int         avl_walk(avl_root_t *root, avl_walk_fn fn, void *arg);        /* in order; 1 = every node visited (also empty tree), 0 = a callback returned 0 */
#ifdef __cplusplus
}
#endif
#endif
