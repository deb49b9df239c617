// Takes the agent's secrets, and if asked for its events, out of what goes into a diagnose archive.

#pragma once

#include "core/ConfigurationCheck.h"
#include "foundation/value/Encodings.h"
#include "foundation/value/Value.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::control {

// The secrets are the values of OrgAccessKey, AgentAuthID and AgentUID. A value of at least kShortest bytes is masked
// wherever it stands: as it is, or escaped as in XML, JSON, a URL or the log, or as hexadecimal or base64 text. A
// shorter value would be found in half of all words: it is masked where the name of its key stands before it. So is any
// other value of such a key, for instance one that the server has replaced since.
class DiagnoseMask {
  public:
    static constexpr std::size_t kShortest = 4;

    // Takes the secrets of the configuration. `encodings` must outlive the object.
    DiagnoseMask(const ConfigurationFiles& configuration, const Encodings& encodings);

    // A copy of the settings with each secret masked.
    Value settings(const Value& value) const;
    // The text with each secret masked.
    std::string text(std::string_view text) const;
    // The same for a property list that cannot be read: everything from the name of a secret's key to the next key is
    // masked.
    std::string damagedList(std::string_view text) const;
    // The same for whole messages of the log. The bytes that a message quotes are masked, since they may hold half of a
    // secret. Without events, so is what a message holds of an event: users, and the records' texts.
    enum class Events { kept, masked };
    std::string log(std::string_view messages, Events events) const;

    // The length of the messages at the text's beginning that are surely whole.
    static std::size_t wholeMessages(std::string_view text);

  private:
    using Characters = std::u32string;
    struct Range {
        std::size_t begin;
        std::size_t end;
    };

    bool isSecret(std::string_view key) const;
    void learn(const Value& value);
    void learnText(const std::string& secret);
    void learnEncoded(std::string_view bytes);
    void learnBeginnings();
    std::size_t secretAt(std::string_view text, std::size_t place) const;
    std::size_t keyAt(std::string_view text, std::size_t place) const;
    template <class ValueAfter>
    std::string masked(std::string_view text, const ValueAfter& valueAfter) const;

    const Encodings& encodings_;
    // The names of the keys, as they are and as they are misspelled.
    std::vector<std::string> keyNames_;
    std::vector<Characters> keys_;
    std::vector<Characters> secrets_;
    std::vector<std::string> encoded_;
    // The bytes with which something to mask may begin.
    std::array<bool, 256> begins_{};
};

}  // namespace sentrova::control
