#include "sync/StorableAnswer.h"

#include "foundation/formats/PropertyList.h"
#include "foundation/value/Text.h"

#include <fmt/format.h>

namespace sentrova {

namespace {

class Filter {
  public:
    explicit Filter(StorableAnswer& result) : result_(result) {}

    Dictionary kept(const Dictionary& dictionary) {
        Dictionary kept;
        for (const auto& [key, entry] : dictionary) {
            const auto length = path_.size();
            path_ += "." + excerpt(key);
            if (!PropertyList::isXmlText(key)) {
                drop();
            } else if (auto value = storable(entry); !value.isNull()) {
                kept.set(key, std::move(value));
            }
            path_.resize(length);
        }
        return kept;
    }

  private:
    // Returns null for a dropped value.
    Value storable(const Value& value) {
        if (const auto* dictionary = value.dictionary()) {
            return kept(*dictionary);
        }
        if (const auto* array = value.array()) {
            return kept(*array);
        }
        if (const auto* text = value.string(); text && !PropertyList::isXmlText(*text)) {
            drop();
            return {};
        }
        return value;
    }

    Array kept(const Array& array) {
        Array kept;
        for (std::size_t i = 0; i < array.size(); ++i) {
            const auto length = path_.size();
            path_ += fmt::format("[{}]", i);
            if (auto value = storable(array[i]); !value.isNull()) {
                kept.push_back(std::move(value));
            }
            path_.resize(length);
        }
        return kept;
    }

    void drop() {
        if (++result_.droppedCount <= StorableAnswer::kMostNamed) {
            result_.dropped.push_back(path_);
        }
    }

    StorableAnswer& result_;
    std::string path_;
};

}  // namespace

StorableAnswer::StorableAnswer(const Dictionary& answer) {
    content = Filter(*this).kept(answer);
}

}  // namespace sentrova
