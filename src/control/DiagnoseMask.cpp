#include "control/DiagnoseMask.h"

#include "core/ConfigurationError.h"
#include "core/GlobalConstants.h"
#include "core/Secrets.h"
#include "foundation/formats/Base64.h"
#include "foundation/value/Text.h"
#include "service/ConfigurationFindings.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>
#include <optional>
#include <set>
#include <utility>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr auto kNowhere = std::string_view::npos;
// Longer secrets are looked for in pieces, so that the search for one needs little of the stack.
constexpr std::size_t kPiece = 1000;
constexpr std::array kSecretKeys = {GlobalConstants::ORG_ACCESS_KEY, GlobalConstants::AGENT_AUTHENTICATION_ID,
                                    GlobalConstants::AGENT_UID};
constexpr std::string_view kBlanks = " \t\r\n";

bool isBlank(char c) {
    return kBlanks.find(c) != kNowhere;
}

bool isSame(char left, char right) {
    return std::tolower(static_cast<unsigned char>(left)) == std::tolower(static_cast<unsigned char>(right));
}

// The characters of a text in UTF-8. Each run of backslashes is one, as escapes multiply them.
std::u32string charactersOf(const std::string& text) {
    std::u32string characters;
    const auto units = utf16(text);
    for (std::size_t i = 0; i < units.size(); ++i) {
        char32_t character = units[i];
        if (character >= 0xD800 && character < 0xDC00 && i + 1 < units.size()) {
            character = 0x10000 + ((character - 0xD800) << 10U) + (units[++i] - 0xDC00);
        }
        if (character != U'\\' || !characters.ends_with(U'\\')) {
            characters.push_back(character);
        }
    }
    return characters;
}

// The number that the digits at the place are, if there are exactly so many.
std::optional<std::uint32_t> digitsAt(std::string_view text, std::size_t place, std::size_t count, int base) {
    std::uint32_t number = 0;
    if (place + count > text.size()) {
        return std::nullopt;
    }
    const auto* const end = text.data() + place + count;
    const auto [stop, error] = std::from_chars(text.data() + place, end, number, base);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

// Finds the forms that a character may have in a text.
class CharacterForms {
  public:
    CharacterForms(std::string_view text, std::size_t place, char32_t character)
        : text_(text), place_(place), character_(character) {
        appendUtf8(character, bytes_);
    }

    // Calls the function with the end of each form that stands at the place, until the function returns an end. Plain
    // characters come last, since each may be the first one of an escape.
    template <class Function>
    std::size_t firstOf(const Function& after) const {
        for (const auto form : {&CharacterForms::inUrlTwice, &CharacterForms::inUrl, &CharacterForms::inXmlTwice,
                                &CharacterForms::inXml, &CharacterForms::escaped, &CharacterForms::plain}) {
            const auto end = (this->*form)();
            auto result = end == kNowhere ? kNowhere : after(end);
            if (result == kNowhere && end != kNowhere && character_ == U'\\') {
                // One backslash stands for a run of them.
                result = CharacterForms(text_, end, character_).firstOf(after);
            }
            if (result != kNowhere) {
                return result;
            }
        }
        if (character_ == U'\\') {
            // A run of them, of which the last one may belong to the escape of the next character.
            const auto run = pastBackslashes(place_);
            for (auto end = run; end > place_ && end + 1 >= run; --end) {
                if (const auto result = after(end); result != kNowhere) {
                    return result;
                }
            }
        }
        return kNowhere;
    }

  private:
    char at(std::size_t place) const { return place < text_.size() ? text_[place] : '\0'; }
    bool isAt(std::size_t place, std::string_view part) const {
        return place <= text_.size() && text_.substr(place).starts_with(part);
    }
    std::size_t pastBackslashes(std::size_t place) const {
        return std::min(text_.find_first_not_of('\\', place), text_.size());
    }

    std::size_t plain() const {
        return character_ != U'\\' && isAt(place_, bytes_) ? place_ + bytes_.size() : kNowhere;
    }

    // %C3%A9; twice %25C3%25A9.
    std::size_t inUrl() const { return character_ == U' ' && at(place_) == '+' ? place_ + 1 : percents("%"); }
    std::size_t inUrlTwice() const { return percents("%25"); }
    std::size_t percents(std::string_view sign) const { return eachByte(place_, sign, 2, 16); }

    // &amp; and &#38; and &#x26;; twice &amp;amp;.
    std::size_t inXml() const { return entity("&"); }
    std::size_t inXmlTwice() const { return entity("&amp;"); }
    std::size_t entity(std::string_view sign) const {
        if (!isAt(place_, sign)) {
            return kNowhere;
        }
        constexpr std::size_t kLongest = 12;
        const auto begin = place_ + sign.size();
        const auto length = text_.substr(begin, kLongest + 1).find(';');
        if (length == kNowhere) {
            return kNowhere;
        }
        const auto name = text_.substr(begin, length);
        return characterOf(name) == character_ ? begin + length + 1 : kNowhere;
    }
    static std::optional<char32_t> characterOf(std::string_view entity) {
        static constexpr std::array<std::pair<std::string_view, char32_t>, 5> kNames = {
            {{"amp", U'&'}, {"lt", U'<'}, {"gt", U'>'}, {"quot", U'"'}, {"apos", U'\''}}};
        const auto* const known = std::ranges::find(kNames, entity, [](const auto& name) { return name.first; });
        if (known != kNames.end()) {
            return known->second;
        }
        const bool isHex = entity.starts_with("#x") || entity.starts_with("#X");
        const std::size_t sign = isHex ? 2 : 1;
        if (!entity.starts_with('#') || entity.size() <= sign) {
            return std::nullopt;
        }
        return digitsAt(entity, sign, entity.size() - sign, isHex ? 16 : 10);
    }

    // \" and \n and \u00e9, \U00e9, \xc3\xa9, \303\251. Each further escape adds backslashes.
    std::size_t escaped() const {
        const auto letter = pastBackslashes(place_);
        if (letter == place_ || letter == text_.size()) {
            return kNowhere;
        }
        static constexpr std::string_view kLetters = "ntrbf";
        static constexpr std::string_view kControls = "\n\t\r\b\f";
        const auto control = kLetters.find(text_[letter]);
        if (isAt(letter, bytes_) || (control != kNowhere && bytes_ == kControls.substr(control, 1))) {
            return letter + (control == kNowhere ? bytes_.size() : 1);
        }
        for (const auto end : {eachUnit(), eachByte(place_, "\\x", 2, 16), eachByte(place_, "\\", 3, 8)}) {
            if (end != kNowhere) {
                return end;
            }
        }
        return kNowhere;
    }
    std::size_t eachUnit() const {
        auto place = place_;
        for (const char16_t unit : utf16(bytes_)) {
            const auto letter = pastBackslashes(place);
            constexpr std::size_t kDigits = 4;
            if (letter == place || !isSame(at(letter), 'u') || digitsAt(text_, letter + 1, kDigits, 16) != unit) {
                return kNowhere;
            }
            place = letter + 1 + kDigits;
        }
        return place;
    }
    std::size_t eachByte(std::size_t place, std::string_view sign, std::size_t digits, int base) const {
        for (const char byte : bytes_) {
            const bool isEscape = sign.starts_with('\\');
            // Of a run of backslashes the last one is the sign's.
            const auto begin = isEscape && at(place) == '\\' ? pastBackslashes(place) - 1 : place;
            if (!isAt(begin, sign) ||
                digitsAt(text_, begin + sign.size(), digits, base) != static_cast<unsigned char>(byte)) {
                return kNowhere;
            }
            place = begin + sign.size() + digits;
        }
        return place;
    }

    std::string_view text_;
    std::size_t place_;
    char32_t character_;
    std::string bytes_;
};

// Whether a form of the character may begin with the byte. Nearly every place of a text is ruled out by this.
bool mayBegin(char32_t character, char byte) {
    constexpr char32_t kLastOfAscii = 0x7F;
    const bool isEscape = byte == '%' || byte == '&' || byte == '\\' || byte == '+';
    return isEscape || (character > kLastOfAscii ? static_cast<unsigned char>(byte) > kLastOfAscii
                                                 : byte == static_cast<char>(character));
}

// The end of the characters if they stand at the place, each in any form.
std::size_t endOf(std::u32string_view characters, std::string_view text, std::size_t place) {
    if (characters.empty()) {
        return place;
    }
    if (place >= text.size() || !mayBegin(characters.front(), text[place])) {
        return kNowhere;
    }
    return CharacterForms(text, place, characters.front()).firstOf([&](std::size_t end) {
        return endOf(characters.substr(1), text, end);
    });
}

// The same for digits, between which there may be blanks and line breaks.
std::size_t endOfDigits(std::string_view digits, std::string_view text, std::size_t place) {
    for (const char digit : digits) {
        while (place < text.size() && isBlank(text[place]) && &digit != digits.data()) {
            ++place;
        }
        if (place == text.size() || text[place] != digit) {
            return kNowhere;
        }
        ++place;
    }
    return place;
}

// Finds the value behind a key's name.
class ValueFinder {
  public:
    ValueFinder(std::string_view text, std::size_t keyBegin, std::size_t keyEnd)
        : text_(text), key_(keyBegin), place_(keyEnd) {}

    // An empty range at the key's end if there is none.
    std::pair<std::size_t, std::size_t> find() {
        const auto none = std::pair{place_, place_};
        if (takes("</key>")) {
            skip(kBlanks);
            const auto tag = text_.find('>', place_);
            if (at() != '<' || tag == kNowhere || text_[tag - 1] == '/') {
                return none;
            }
            return upTo(tag + 1, "</");
        }
        while (takes("&quot;") || takes("%22") || takes("\\") || takes("\"") || takes("'") || takes(" ")) {
        }
        // "FILE: KEY: text" is what the agent says about a key.
        const bool isFinding = text_.substr(0, key_).ends_with(".plist: ");
        if (isFinding || !(takes("=") || takes(":") || takes("%3D") || takes("%3A"))) {
            return none;
        }
        skip(kBlanks);
        return value();
    }

  private:
    char at() const { return place_ < text_.size() ? text_[place_] : '\0'; }
    bool takes(std::string_view part) {
        const auto here = text_.substr(place_, part.size());
        const bool is = std::ranges::equal(here, part, isSame);
        place_ += is ? part.size() : 0;
        return is;
    }
    void skip(std::string_view any) { place_ = std::min(text_.find_first_not_of(any, place_), text_.size()); }
    std::pair<std::size_t, std::size_t> upTo(std::size_t begin, std::string_view end) const {
        return {begin, std::min(text_.find(end, begin), text_.size())};
    }

    std::pair<std::size_t, std::size_t> value() {
        for (const std::string_view quote : {"&quot;", "%22"}) {
            if (takes(quote)) {
                return upTo(place_, quote);
            }
        }
        const auto slashes = place_;
        skip("\\");
        if (at() == '"' || at() == '\'') {
            return quoted(place_ - slashes);
        }
        if (const auto bracket = std::string_view("{([").find(at()); bracket != kNowhere && at() != '\0') {
            return {place_, endOfBrackets(at(), "})]"[bracket])};
        }
        return {slashes, std::min(text_.find_first_of(",;&})]<\"\r\n", place_), text_.size())};
    }

    // Up to the same quotation mark behind the same number of backslashes; more of them are an escape.
    std::pair<std::size_t, std::size_t> quoted(std::size_t slashes) const {
        const char mark = at();
        const auto begin = place_ + 1;
        for (auto end = text_.find(mark, begin); end != kNowhere; end = text_.find(mark, end + 1)) {
            const auto last = text_.substr(begin, end - begin).find_last_not_of('\\');
            const auto run = end - begin - (last == kNowhere ? 0 : last + 1);
            // Outside of another text, pairs of backslashes are backslashes of the value.
            if (slashes == 0 ? run % 2 == 0 : run == slashes) {
                return {begin, end - (slashes == 0 ? 0 : slashes)};
            }
        }
        return {begin, text_.size()};
    }

    std::size_t endOfBrackets(char opening, char closing) const {
        std::size_t depth = 0;
        for (auto place = place_; place < text_.size(); ++place) {
            if (text_[place] == opening) {
                ++depth;
            } else if (text_[place] == closing && --depth == 0) {
                return place + 1;
            }
        }
        return text_.size();
    }

    std::string_view text_;
    std::size_t key_;
    std::size_t place_;
};

// The beginning of a message: "[time][class][process:thread][level]".
struct MessageHeader {
    std::string_view className;
    std::size_t length = 0;

    // Absent if the text begins otherwise, as a further line of a message does.
    static std::optional<MessageHeader> of(std::string_view text) {
        static constexpr std::array<std::string_view, 3> kLevels = {"ERROR", "INFO", "DEBUG"};
        std::array<std::string_view, 4> fields;
        std::size_t place = 0;
        for (auto& field : fields) {
            const auto end = text.find_first_of("]\r\n", place);
            if (place == text.size() || text[place] != '[' || end == kNowhere || text[end] != ']') {
                return std::nullopt;
            }
            field = text.substr(place + 1, end - place - 1);
            place = end + 1;
        }
        const auto isDigit = [](unsigned char c) { return std::isdigit(c) != 0; };
        const bool isHeader = fields[0].size() > 4 && std::ranges::all_of(fields[0].substr(0, 4), isDigit) &&
                              fields[2].find(':') != kNowhere && std::ranges::find(kLevels, fields[3]) != kLevels.end();
        return isHeader ? std::optional(MessageHeader{fields[1], place}) : std::nullopt;
    }
};

// Where the next message begins, from the place on; the text's end if there is none.
std::size_t nextMessage(std::string_view text, std::size_t from) {
    for (auto line = text.find("\n[", from); line != kNowhere; line = text.find("\n[", line + 1)) {
        if (MessageHeader::of(text.substr(line + 1))) {
            return line + 1;
        }
    }
    return text.size();
}

// The message without what it holds of an event. Messages quote events, and the users in them, as dictionaries, arrays
// or JSON, which fill the rest of the message. The classes that quote nothing but settings are known.
std::string withoutEvent(std::string_view message) {
    static constexpr std::array<std::string_view, 4> kOfSettings = {"PropertyListHandler", "ServerCommunicator",
                                                                    "ScheduleHandler", "OperationsHandler"};
    static constexpr std::array<std::string_view, 6> kBefore = {
        "{", "(\n", "[{", "\n", "is not an event: ", "Invalid json "};
    const auto header = MessageHeader::of(message);
    if (header && std::ranges::find(kOfSettings, header->className) != kOfSettings.end()) {
        return std::string(message);
    }
    const auto begin = header ? header->length : 0;
    const auto end = message.find_last_not_of("\r\n") + 1;
    // Messages about the directory's records name their users. What has no header is the end of a lost message.
    auto cut = !header || header->className == "DomainUtil" ? begin : end;
    for (const auto before : kBefore) {
        const auto found = message.find(before, begin);
        if (found != kNowhere) {
            const bool isWord = before.ends_with(' ');
            cut = std::min(cut, found + (isWord ? before.size() : 0));
        }
    }
    if (cut >= end) {
        return std::string(message);
    }
    return fmt::format("{}{}{}", message.substr(0, cut), Secrets::kMask, message.substr(end));
}

// The text with the quoted bytes masked: "{length = 3, bytes = 0x0a0b0c}".
std::string withoutBytes(std::string_view text) {
    constexpr std::string_view kMark = ", bytes = 0x";
    std::string result;
    for (auto mark = text.find(kMark); mark != kNowhere; mark = text.find(kMark)) {
        result += text.substr(0, mark + kMark.size());
        text.remove_prefix(mark + kMark.size());
        text.remove_prefix(std::min(text.find_first_not_of("0123456789abcdefABCDEF. "), text.size()));
        result += Secrets::kMask;
    }
    return result.append(text);
}

// The stored identity, decrypted. Absent if that fails: it is then masked as it is stored.
std::optional<std::string> identityIn(const ConfigurationFiles& configuration) {
    try {
        return AgentSettings::identityIn(configuration.myConfigurations.content,
                                         ServerSettings::from(configuration.serverInfo.content).agentUID,
                                         std::string(GlobalConstants::MY_CONFIGURATIONS_FILE), decryptedIdentity);
    } catch (const ConfigurationError&) {
        return std::nullopt;
    }
}

}  // namespace

DiagnoseMask::DiagnoseMask(const ConfigurationFiles& configuration, const Encodings& encodings)
    : encodings_(encodings), keyNames_(kSecretKeys.begin(), kSecretKeys.end()) {
    // The value of a misspelled key is as secret.
    for (const auto& finding : findMisspelledKeys(configuration)) {
        const auto text = finding.text();
        if (finding.key &&
            std::ranges::any_of(kSecretKeys, [&](auto key) { return text.find(key) != std::string::npos; })) {
            keyNames_.push_back(*finding.key);
        }
    }
    std::ranges::transform(keyNames_, std::back_inserter(keys_), charactersOf);
    for (const auto* const file :
         {&configuration.serverInfo, &configuration.myConfigurations, &configuration.schedules}) {
        learn(file->content);
    }
    learnText(identityIn(configuration).value_or(std::string()));
    learnBeginnings();
}

bool DiagnoseMask::isSecret(std::string_view key) const {
    return std::ranges::any_of(keyNames_, [&](const auto& name) { return std::ranges::equal(name, key, isSame); });
}

void DiagnoseMask::learn(const Value& value) {
    if (const auto* const dictionary = value.dictionary()) {
        for (const auto& [key, entry] : *dictionary) {
            if (!isSecret(key)) {
                learn(entry);
            } else if (const auto* const data = entry.data()) {
                learnEncoded({reinterpret_cast<const char*>(data->data()), data->size()});
            } else {
                learnText(entry.description());
            }
        }
    } else if (const auto* const array = value.array()) {
        std::ranges::for_each(*array, [this](const auto& entry) { learn(entry); });
    }
}

void DiagnoseMask::learnText(const std::string& secret) {
    const auto begin = secret.find_first_not_of(kBlanks);
    if (begin == std::string::npos) {
        return;
    }
    const auto trimmed = secret.substr(begin, secret.find_last_not_of(kBlanks) + 1 - begin);
    if (trimmed.size() < kShortest) {
        return;
    }
    // The body of a request is in ASCII.
    for (const auto& form : std::set<std::string>{trimmed, asciiLossy(trimmed, encodings_)}) {
        const auto characters = charactersOf(form);
        for (std::size_t piece = 0; piece < characters.size(); piece += kPiece) {
            secrets_.push_back(characters.substr(piece, kPiece));
        }
    }
    learnEncoded(trimmed);
}

// Of base64 the digits that depend on the secret alone, for each place that the secret may have in a longer text.
void DiagnoseMask::learnEncoded(std::string_view bytes) {
    if (bytes.size() < kShortest) {
        return;
    }
    constexpr std::size_t kBitsOfByte = 8;
    constexpr std::size_t kBitsOfDigit = 6;
    for (std::size_t before = 0; before < 3; ++before) {
        Data whole(before);
        whole.insert(whole.end(), bytes.begin(), bytes.end());
        const auto begin = (before * kBitsOfByte + kBitsOfDigit - 1) / kBitsOfDigit;
        auto digits = toBase64(whole).substr(begin, whole.size() * kBitsOfByte / kBitsOfDigit - begin);
        encoded_.push_back(digits);
        std::ranges::replace(digits, '+', '-');
        std::ranges::replace(digits, '/', '_');
        encoded_.push_back(std::move(digits));
    }
    std::string hex;
    for (const char byte : bytes) {
        fmt::format_to(std::back_inserter(hex), "{:02x}", static_cast<unsigned char>(byte));
    }
    encoded_.push_back(hex);
    std::ranges::transform(hex, hex.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    encoded_.push_back(std::move(hex));
}

void DiagnoseMask::learnBeginnings() {
    const auto add = [this](std::string_view text) { begins_.at(static_cast<unsigned char>(text.front())) = true; };
    for (const auto* const list : {&keys_, &secrets_}) {
        for (const auto& characters : *list) {
            std::string first;
            appendUtf8(characters.front(), first);
            add(first);
        }
    }
    std::ranges::for_each(encoded_, add);
    std::ranges::for_each(std::array<std::string_view, 4>{"%", "&", "\\", "+"}, add);
}

// The end of the longest secret that begins there.
std::size_t DiagnoseMask::secretAt(std::string_view text, std::size_t place) const {
    std::size_t longest = kNowhere;
    const auto take = [&](std::size_t end) {
        longest = end == kNowhere || (longest != kNowhere && longest > end) ? longest : end;
    };
    for (const auto& secret : secrets_) {
        take(endOf(secret, text, place));
    }
    for (const auto& digits : encoded_) {
        take(endOfDigits(digits, text, place));
    }
    return longest;
}

std::size_t DiagnoseMask::keyAt(std::string_view text, std::size_t place) const {
    for (const auto& key : keys_) {
        if (const auto end = endOf(key, text, place); end != kNowhere) {
            return end;
        }
    }
    return kNowhere;
}

template <class ValueAfter>
std::string DiagnoseMask::masked(std::string_view text, const ValueAfter& valueAfter) const {
    std::string result;
    std::size_t done = 0;
    const auto mask = [&](std::size_t begin, std::size_t end) {
        result.append(text.substr(done, begin - done)).append(Secrets::kMask);
        done = end;
    };
    for (std::size_t place = 0; place < text.size(); place = std::max(place + 1, done)) {
        // What begins inside a run of backslashes begins with the run too. A long run is looked at once.
        const bool isInRun = place > done && text[place] == '\\' && text[place - 1] == '\\';
        if (isInRun || !begins_.at(static_cast<unsigned char>(text[place]))) {
            continue;
        }
        if (const auto end = secretAt(text, place); end != kNowhere) {
            mask(place, end);
        } else if (const auto key = keyAt(text, place); key != kNowhere) {
            const auto [begin, stop] = valueAfter(place, key);
            if (begin < stop) {
                mask(begin, stop);
            }
        }
    }
    return result.append(text.substr(done));
}

Value DiagnoseMask::settings(const Value& value) const {
    if (const auto* const dictionary = value.dictionary()) {
        Dictionary copy;
        for (const auto& [key, entry] : *dictionary) {
            copy.set(key, isSecret(key) ? Value(Secrets::kMask) : settings(entry));
        }
        return copy;
    }
    if (const auto* const array = value.array()) {
        Array copy;
        std::ranges::transform(*array, std::back_inserter(copy), [this](const auto& entry) { return settings(entry); });
        return copy;
    }
    return value;
}

std::string DiagnoseMask::text(std::string_view text) const {
    return masked(
        text, [text](std::size_t keyBegin, std::size_t keyEnd) { return ValueFinder(text, keyBegin, keyEnd).find(); });
}

std::string DiagnoseMask::damagedList(std::string_view text) const {
    return masked(text, [text](std::size_t /*keyBegin*/, std::size_t keyEnd) {
        return std::pair{keyEnd, std::min(text.find("<key", keyEnd), text.size())};
    });
}

std::string DiagnoseMask::log(std::string_view messages, Events events) const {
    std::string result;
    while (!messages.empty()) {
        const auto end = nextMessage(messages, 0);
        const auto message = messages.substr(0, end);
        const auto kept = withoutBytes(events == Events::masked ? withoutEvent(message) : std::string(message));
        result += text(kept);
        messages.remove_prefix(end);
    }
    return result;
}

std::size_t DiagnoseMask::wholeMessages(std::string_view text) {
    for (auto line = text.rfind("\n["); line != kNowhere && line > 0; line = text.rfind("\n[", line - 1)) {
        if (MessageHeader::of(text.substr(line + 1))) {
            return line + 1;
        }
    }
    return 0;
}

}  // namespace sentrova::control
