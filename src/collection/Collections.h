// The state that the operations of one kind of collection share.

#pragma once

#include "collection/CollectionRefusal.h"
#include "collection/ReaderSlot.h"

namespace sentrova {

struct Collection {
    ReaderSlot slot;
    CollectionRefusal refusal;
};

// The agent has one of each and publishes both as the Current ones.
struct BatchCollection : Collection {};
struct RealtimeCollection : Collection {};

}  // namespace sentrova
