// What the operations of each of the two collections share.

#pragma once

#include "collection/CollectionRefusal.h"
#include "collection/ReaderSlot.h"

namespace sentrova {

struct Collection {
    ReaderSlot slot;
    CollectionRefusal refusal;
};

// The agent has one of each, published as the Current ones.
struct BatchCollection : Collection {};
struct RealtimeCollection : Collection {};

}  // namespace sentrova
