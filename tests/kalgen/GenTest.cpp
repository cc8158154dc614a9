// The hand-written parts of the generator's test model.
#include "kalgen/GenTest.h"

namespace KalTest {

int bagHashComputations = 0;

// Attributes and item keys: a cached hash leaves the items' values out.
U32 Bag::hash() const {
    return kalHashCache().get([this] {
        ++bagHashComputations;
        U32 h = label().hash() ^ (flag() ? 0x9E3779B9u : 0u) ^ spot().x() ^ U32(spot().y());
        kalItems().forEachMember([&h](auto const& m) { h = h * 31 + U32(m.fwkKey()); });
        return h;
    });
}

bool Bag::operator<(Bag const& o) const {
    if (itemCount() != o.itemCount()) return itemCount() < o.itemCount();
    if (label() != o.label()) return label() < o.label();
    if (flag() != o.flag()) return o.flag();
    return spot() < o.spot();
}

U64 Tree::doGrow(U64 const& by) {
    markIs(mark() + by);
    return mark();
}

U64 Tree::doGraft(Kal::Ptr<Leaf> const& leaf, U64 const& index) {
    leaf->indexIs(index);
    leafByIndexIs(index, leaf);
    return leafByIndexs();
}

U32 Tree::weight() const { return leafByIndexs() + pointByIndexs(); }

void Watcher::handleTree() {
    passesIs(passes() + 1);
    if (out() && tree()) out()->markIs(tree()->mark());
}

} // namespace KalTest
