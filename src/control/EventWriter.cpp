#include "control/EventWriter.h"

#include "collection/Event.h"
#include "control/EventTable.h"
#include "foundation/formats/Json.h"

#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

class JsonLines final : public EventWriter {
  public:
    void write(const Value& event, std::string& text) override {
        // The spool drops an event that cannot be written, too.
        if (const auto line = Json::write(event)) {
            text += *line;
            text += '\n';
        }
    }
};

class CsvLines final : public EventWriter {
  public:
    explicit CsvLines(bool withExcluded) : keys_(Event::keys().begin(), Event::keys().end()) {
        if (withExcluded) {
            keys_.emplace_back(kExcluded);
        }
    }

    void begin(std::string& text) override {
        for (const auto key : keys_) {
            append(key, text);
        }
        endLine(text);
    }

    void write(const Value& event, std::string& text) override {
        const auto& keys = *event.dictionary();
        for (const auto key : keys_) {
            const auto* const value = keys.find(key);
            append(value ? value->description() : "", text);
        }
        endLine(text);
    }

  private:
    static void append(std::string_view field, std::string& text) {
        if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
            text += field;
        } else {
            text += '"';
            for (const char c : field) {
                text.append(c == '"' ? 2 : 1, c);
            }
            text += '"';
        }
        text += ',';
    }
    static void endLine(std::string& text) {
        text.pop_back();
        text += "\r\n";
    }

    std::vector<std::string_view> keys_;
};

}  // namespace

std::unique_ptr<EventWriter> EventWriter::json() {
    return std::make_unique<JsonLines>();
}

std::unique_ptr<EventWriter> EventWriter::csv(bool withExcluded) {
    return std::make_unique<CsvLines>(withExcluded);
}

std::unique_ptr<EventWriter> EventWriter::table(const TableLayout& layout) {
    return std::make_unique<EventTable>(layout);
}

}  // namespace sentrova::control
