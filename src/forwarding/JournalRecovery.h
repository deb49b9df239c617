// What a start finds: the state that the journal and the position file of the durable spool give, whatever a kill, a
// loss of power or damage left of them.
//
// The journal begins with the state of a checkpoint, which the position file of the same generation repeats. So each
// file is a witness that the other one existed, and a lost one can be told from a first start.
//
// Damage: what is whole is used, and reading begins again at the oldest position that is known to be whole. Behind a
// damaged frame, events of trails are dropped, because they are read again; everything else holds: events of the
// device, keys, confirmations, and batches whose files are whole.

#pragma once

#include "forwarding/JournalState.h"
#include "foundation/value/Cryptography.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

struct JournalRecovery {
    enum class Outcome {
        // Neither file exists.
        nothing,
        recovered,
        // Written by an agent that this one does not know.
        unknownVersion,
    };
    Outcome outcome = Outcome::nothing;
    JournalState state;
    // The highest generation that either file names.
    std::uint64_t generation = 0;

    // Where the journal goes on.
    struct Continuation {
        std::size_t end = 0;
        std::uint64_t nextFrame = 0;
    };
    // Absent if a checkpoint must come first, because the files are damaged.
    std::optional<Continuation> continuation;

    // For the log, at level 0: what is damaged, and what may come twice.
    std::vector<std::string> problems;
    // For the log, at level 1.
    std::vector<std::string> notes;
};

// The texts of the files; absent for a missing one. `contentOf` gives the content of a file of the spool. Never throws
// on any text.
JournalRecovery recover(const std::optional<std::string>& journal, const std::optional<std::string>& position,
                        const std::function<std::optional<std::string>(const std::string& name)>& contentOf,
                        const Cryptography& cryptography);

}  // namespace sentrova
