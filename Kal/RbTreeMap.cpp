#include "Kal/RbTreeMap.h"

#include <string>
#include <vector>

namespace Kal::detail {

namespace {

bool isRed(RbNode const* n) noexcept { return n && n->red; }

String8 problem(std::string text) { return String8(std::move(text)); }

} // namespace

void RbTree::replaceChild(RbNode* parent, RbNode* old, RbNode* replacement) noexcept {
    if (!parent) {
        root_ = replacement;
    } else if (parent->left == old) {
        parent->left = replacement;
    } else {
        parent->right = replacement;
    }
}

// Left rotation at x: x's right child y takes x's place, x becomes y's left child, and
// y's old left subtree becomes x's right one. In-order sequence is unchanged.
void RbTree::rotateLeft(RbNode* x) noexcept {
    RbNode* y = x->right;
    x->right = y->left;
    if (y->left) y->left->parent = x;
    y->parent = x->parent;
    replaceChild(x->parent, x, y);
    y->left = x;
    x->parent = y;
}

void RbTree::rotateRight(RbNode* x) noexcept {
    RbNode* y = x->left;
    x->left = y->right;
    if (y->right) y->right->parent = x;
    y->parent = x->parent;
    replaceChild(x->parent, x, y);
    y->right = x;
    x->parent = y;
}

void RbTree::insert(RbNode* node, RbNode* parent, bool left) noexcept {
    KAL_ASSERT(parent ? !(left ? parent->left : parent->right) : !root_);
    node->left = nullptr;
    node->right = nullptr;
    node->parent = parent;
    node->red = true;
    if (!parent) {
        root_ = node;
    } else if (left) {
        parent->left = node;
    } else {
        parent->right = node;
    }
    ++count_;
    ++version_;

    // A red node under a red parent: recolour while the uncle is red (moving the problem two
    // levels up), else rotate once or twice and stop.
    RbNode* x = node;
    while (x != root_ && x->parent->red) {
        RbNode* p = x->parent;
        RbNode* g = p->parent; // exists: a red node is never the root
        if (p == g->left) {
            RbNode* uncle = g->right;
            if (isRed(uncle)) {
                p->red = false;
                uncle->red = false;
                g->red = true;
                x = g;
            } else {
                if (x == p->right) {
                    rotateLeft(p);
                    p = x;
                }
                p->red = false;
                g->red = true;
                rotateRight(g);
                break;
            }
        } else {
            RbNode* uncle = g->left;
            if (isRed(uncle)) {
                p->red = false;
                uncle->red = false;
                g->red = true;
                x = g;
            } else {
                if (x == p->left) {
                    rotateRight(p);
                    p = x;
                }
                p->red = false;
                g->red = true;
                rotateLeft(g);
                break;
            }
        }
    }
    root_->red = false;
}

void RbTree::erase(RbNode* z) noexcept {
    KAL_DASSERT(count_ > 0);
    RbNode* y = z;   // the node whose place in the shape goes away
    RbNode* x;       // the child that moves up into y's place (may be null)
    RbNode* xParent; // x's new parent, needed when x is null
    if (!z->left) {
        x = z->right;
    } else if (!z->right) {
        x = z->left;
    } else {
        y = z->right;
        while (y->left) y = y->left;
        x = y->right;
    }
    if (y != z) {
        // Two children: z's in-order successor y takes z's place and colour; the colour
        // removed from the shape is then y's old one, kept in z->red below.
        z->left->parent = y;
        y->left = z->left;
        if (y != z->right) {
            xParent = y->parent;
            if (x) x->parent = y->parent;
            y->parent->left = x;
            y->right = z->right;
            z->right->parent = y;
        } else {
            xParent = y;
        }
        replaceChild(z->parent, z, y);
        y->parent = z->parent;
        std::swap(y->red, z->red);
    } else {
        xParent = z->parent;
        if (x) x->parent = z->parent;
        replaceChild(z->parent, z, x);
    }
    if (!z->red) eraseFixup(x, xParent);
    z->left = z->right = z->parent = nullptr;
    --count_;
    ++version_;
}

// x carries an extra black (the removed node was black). Push it up while the sibling
// side can give up a black, or end it with at most three rotations.
void RbTree::eraseFixup(RbNode* x, RbNode* xParent) noexcept {
    while (x != root_ && !isRed(x)) {
        if (x == xParent->left) {
            RbNode* w = xParent->right; // not null: its side has a black height of at least one
            if (w->red) {
                w->red = false;
                xParent->red = true;
                rotateLeft(xParent);
                w = xParent->right;
            }
            if (!isRed(w->left) && !isRed(w->right)) {
                w->red = true;
                x = xParent;
                xParent = xParent->parent;
            } else {
                if (!isRed(w->right)) {
                    w->left->red = false;
                    w->red = true;
                    rotateRight(w);
                    w = xParent->right;
                }
                w->red = xParent->red;
                xParent->red = false;
                w->right->red = false;
                rotateLeft(xParent);
                x = root_;
                break;
            }
        } else {
            RbNode* w = xParent->left;
            if (w->red) {
                w->red = false;
                xParent->red = true;
                rotateRight(xParent);
                w = xParent->left;
            }
            if (!isRed(w->right) && !isRed(w->left)) {
                w->red = true;
                x = xParent;
                xParent = xParent->parent;
            } else {
                if (!isRed(w->left)) {
                    w->right->red = false;
                    w->red = true;
                    rotateLeft(w);
                    w = xParent->left;
                }
                w->red = xParent->red;
                xParent->red = false;
                w->left->red = false;
                rotateRight(xParent);
                x = root_;
                break;
            }
        }
    }
    if (x) x->red = false;
}

RbNode* RbTree::detachAll() noexcept {
    RbNode* root = root_;
    root_ = nullptr;
    count_ = 0;
    ++version_;
    return root;
}

void RbTree::adopt(RbNode* root, U32 count) noexcept {
    KAL_ASSERT(!root_);
    root_ = root;
    count_ = count;
    ++version_;
}

RbNode* RbTree::first(RbNode const* root) noexcept {
    if (!root) return nullptr;
    while (root->left) root = root->left;
    return const_cast<RbNode*>(root);
}

RbNode* RbTree::next(RbNode const* node) noexcept {
    if (node->right) return first(node->right);
    RbNode const* p = node->parent;
    while (p && node == p->right) {
        node = p;
        p = p->parent;
    }
    return const_cast<RbNode*>(p);
}

RbNode* RbTree::clone(RbNode const* root, CloneFn cloneFn, DestroyFn destroyFn) {
    if (!root) return nullptr;
    RbNode* top = nullptr;
    try {
        top = cloneFn(*root);
        top->left = top->right = top->parent = nullptr;
        top->red = root->red;
        // Pre-order walk of the source by its parent links, with the copy walked in step:
        // go down to a source child not yet copied, else back up.
        RbNode const* s = root;
        RbNode* d = top;
        for (;;) {
            RbNode const* child = nullptr;
            bool left = false;
            if (s->left && !d->left) {
                child = s->left;
                left = true;
            } else if (s->right && !d->right) {
                child = s->right;
            }
            if (child) {
                RbNode* c = cloneFn(*child);
                c->left = c->right = nullptr;
                c->parent = d;
                c->red = child->red;
                (left ? d->left : d->right) = c;
                s = child;
                d = c;
            } else if (s == root) {
                break;
            } else {
                s = s->parent;
                d = d->parent;
            }
        }
    } catch (...) {
        destroy(top, destroyFn);
        throw;
    }
    return top;
}

void RbTree::destroy(RbNode* root, DestroyFn destroyFn) noexcept {
    // Post-order by parent links: cut each leaf off its parent, free it, go back up.
    RbNode* n = root;
    while (n) {
        if (n->left) {
            n = n->left;
        } else if (n->right) {
            n = n->right;
        } else {
            RbNode* p = n->parent;
            if (p) (p->left == n ? p->left : p->right) = nullptr;
            destroyFn(n);
            n = p;
        }
    }
}

String8 RbTree::problemAt(char const* what, U32 position) {
    return problem(std::string(what) + " " + std::to_string(position));
}

String8 RbTree::verify() const {
    if (!root_) {
        if (count_ == 0) return {};
        return problem("member count " + std::to_string(count_) + " but the tree is empty");
    }
    if (root_->parent) return problem("root has a parent");
    if (root_->red) return problem("root is red");

    struct Visit {
        RbNode const* node;
        U32 blacksAbove; // black nodes on the path from the root, the node excluded
        U32 depth;
    };
    std::vector<Visit> pending{{root_, 0, 0}};
    U32 visited = 0;
    bool haveHeight = false;
    U32 blackHeight = 0;
    while (!pending.empty()) {
        Visit const v = pending.back();
        pending.pop_back();
        if (++visited > count_) {
            return problem("more nodes than the member count " + std::to_string(count_));
        }
        U32 const blacks = v.blacksAbove + (v.node->red ? 0 : 1);
        for (RbNode const* child : {v.node->left, v.node->right}) {
            if (!child) {
                if (!haveHeight) {
                    blackHeight = blacks;
                    haveHeight = true;
                } else if (blacks != blackHeight) {
                    return problem("black heights differ (" + std::to_string(blackHeight) +
                                   " and " + std::to_string(blacks) + ") below depth " +
                                   std::to_string(v.depth));
                }
                continue;
            }
            if (child->parent != v.node) {
                return problem("parent link does not point back at depth " +
                               std::to_string(v.depth + 1));
            }
            if (v.node->red && child->red) {
                return problem("red node with a red child at depth " + std::to_string(v.depth));
            }
            pending.push_back({child, blacks, v.depth + 1});
        }
    }
    if (visited != count_) {
        return problem("member count " + std::to_string(count_) + " but " +
                       std::to_string(visited) + " nodes");
    }
    return {};
}

} // namespace Kal::detail
