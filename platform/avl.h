// Balanced trees whose node is embedded in the element (AVL).
#ifndef PLATFORM_AVL_H
#define PLATFORM_AVL_H

#include "platform/platform_types.h"

extern "C" {

// The link inside an element; 16 bytes where pointers have 4. Zero while in no tree.
struct AvlNode {
    AvlNode *pLeft;
    AvlNode *pRight;
    AvlNode *pParent;
    uintptr_t balance; // the platform's
};

// 1, -1 or 0 as element a sorts after, before or equal to element b.
typedef int32_t (*AvlCompare)(const void *pA, const void *pB);

// A tree; made by avl_create, never copied.
struct AvlTree {
    AvlNode header;     // the platform's
    AvlCompare compare; // order of the elements
    uint32_t elementBytes;
    uint32_t linkOffset; // bytes from the element's start to its AvlNode
};

// Makes the tree empty. elementBytes: size of an element; linkOffset: bytes from the element's start
// to its AvlNode. Lock: held by caller (after start-up)
void avl_create(AvlTree *pTree, AvlCompare compare, uint32_t elementBytes, uint32_t linkOffset);

// Adds an element; one that compares equal to another is placed behind it. Lock: held by caller
void avl_add(AvlTree *pTree, void *pElement);

// Removes an element that is in the tree. Lock: held by caller
void avl_remove(AvlTree *pTree, void *pElement);

// The element equal to the search element, or null. Lock: held by caller
void *avl_find(const AvlTree *pTree, const void *pSearch);

// The first element, or null. Lock: held by caller
void *avl_first(const AvlTree *pTree);

// The element after pElement, which is in the tree, or null at the end. Lock: held by caller
void *avl_next(const AvlTree *pTree, const void *pElement);

// The nearest element after (direction 1) or before (direction -1) the place of a search element
// that is not in the tree, or null. Lock: held by caller
void *avl_nearest(const AvlTree *pTree, const void *pSearch, int32_t direction);

// 1 when the tree holds no element, else 0. Lock: held by caller
int32_t avl_is_empty(const AvlTree *pTree);
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(AvlNode) == 16 && offsetof(AvlNode, pRight) == 4 && offsetof(AvlNode, pParent) == 8 &&
              offsetof(AvlNode, balance) == 12);
#endif

#endif
