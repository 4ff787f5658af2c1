// Balanced trees (platform/avl.h) on the AVL algorithms of Boost.Intrusive.
//
// Boost works on our own node type through the traits below, so that the link stays four machine words
// inside the element (16 bytes where pointers have 4) and nothing is allocated. The tree's header node
// follows Boost's layout: its parent is the root, its left and right are the first and last element.
// The fake platform of the tests is linked with this file too.
#include "platform/avl.h"

#include <boost/intrusive/avltree_algorithms.hpp>

namespace {

struct AvlNodeTraits {
    using node = AvlNode;
    using node_ptr = AvlNode *;
    using const_node_ptr = const AvlNode *;
    using balance = uintptr_t;

    static node_ptr get_parent(const_node_ptr pNode) { return pNode->pParent; }
    static void set_parent(node_ptr pNode, node_ptr pParent) { pNode->pParent = pParent; }
    static node_ptr get_left(const_node_ptr pNode) { return pNode->pLeft; }
    static void set_left(node_ptr pNode, node_ptr pLeft) { pNode->pLeft = pLeft; }
    static node_ptr get_right(const_node_ptr pNode) { return pNode->pRight; }
    static void set_right(node_ptr pNode, node_ptr pRight) { pNode->pRight = pRight; }
    static balance get_balance(const_node_ptr pNode) { return pNode->balance; }
    static void set_balance(node_ptr pNode, balance value) { pNode->balance = value; }
    static balance negative() { return 1; }
    static balance zero() { return 0; }
    static balance positive() { return 2; }
};
using Algorithms = boost::intrusive::avltree_algorithms<AvlNodeTraits>;

AvlNode *headerOf(const AvlTree *pTree) {
    return const_cast<AvlNode *>(&pTree->header);
}

AvlNode *nodeOf(const AvlTree *pTree, const void *pElement) {
    return reinterpret_cast<AvlNode *>(static_cast<uint8_t *>(const_cast<void *>(pElement)) +
                                       pTree->linkOffset);
}

// The element of a node; null for the header, which stands for "past the end".
void *elementOf(const AvlTree *pTree, AvlNode *pNode) {
    if (pNode == headerOf(pTree)) {
        return nullptr;
    }
    return reinterpret_cast<uint8_t *>(pNode) - pTree->linkOffset;
}

// Orders nodes and search elements; Boost asks with either of them on either side.
struct Before {
    const AvlTree *pTree;

    const void *element(const AvlNode *pNode) const {
        return reinterpret_cast<const uint8_t *>(pNode) - pTree->linkOffset;
    }
    bool operator()(const AvlNode *pA, const AvlNode *pB) const {
        return pTree->compare(element(pA), element(pB)) < 0;
    }
    bool operator()(const AvlNode *pA, const void *pB) const { return pTree->compare(element(pA), pB) < 0; }
    bool operator()(const void *pA, const AvlNode *pB) const { return pTree->compare(pA, element(pB)) < 0; }
};

} // namespace

void avl_create(AvlTree *pTree, AvlCompare compare, uint32_t elementBytes, uint32_t linkOffset) {
    *pTree = AvlTree{};
    pTree->compare = compare;
    pTree->elementBytes = elementBytes;
    pTree->linkOffset = linkOffset;
    Algorithms::init_header(&pTree->header);
}

void avl_add(AvlTree *pTree, void *pElement) {
    Algorithms::insert_equal_upper_bound(headerOf(pTree), nodeOf(pTree, pElement), Before{pTree});
}

void avl_remove(AvlTree *pTree, void *pElement) {
    AvlNode *pNode = nodeOf(pTree, pElement);
    if (pNode->pParent == nullptr) {
        return; // in no tree
    }
    Algorithms::erase(headerOf(pTree), pNode);
    *pNode = AvlNode{};
}

void *avl_find(const AvlTree *pTree, const void *pSearch) {
    return elementOf(pTree, Algorithms::find(headerOf(pTree), pSearch, Before{pTree}));
}

void *avl_first(const AvlTree *pTree) {
    return elementOf(pTree, Algorithms::begin_node(headerOf(pTree)));
}

void *avl_next(const AvlTree *pTree, const void *pElement) {
    return elementOf(pTree, Algorithms::next_node(nodeOf(pTree, pElement)));
}

void *avl_nearest(const AvlTree *pTree, const void *pSearch, int32_t direction) {
    AvlNode *pHeader = headerOf(pTree);
    if (direction > 0) {
        return elementOf(pTree, Algorithms::upper_bound(pHeader, pSearch, Before{pTree}));
    }
    AvlNode *pNode = Algorithms::lower_bound(pHeader, pSearch, Before{pTree});
    if (pNode == Algorithms::begin_node(pHeader)) {
        return nullptr; // nothing sorts before the search element
    }
    return elementOf(pTree, Algorithms::prev_node(pNode));
}

int32_t avl_is_empty(const AvlTree *pTree) {
    return pTree->header.pParent == nullptr ? 1 : 0;
}
