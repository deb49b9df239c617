#include "core/PropertyListHandler.h"
#include "core/Secrets.h"
#include "foundation/BinaryPropertyListWriter.h"
#include "foundation/FileSystem.h"
#include "foundation/Json.h"
#include "support/AgentFixture.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class PropertyListHandlerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    void write(const std::string& content) const { std::ofstream(path_, std::ios::binary) << content; }
    static std::string read(const std::string& path) {
        std::ostringstream text;
        text << std::ifstream(path, std::ios::binary).rdbuf();
        return text.str();
    }
    void store(const Dictionary& content) { volume().writeConfiguration("a.plist", content); }
    Dictionary stored() { return volume().readConfiguration("a.plist"); }

    const std::string path_ = (volume().conf() / "a.plist").string();
    const std::string kept_ = path_ + ".damaged";
};

std::string binaryList() {
    BinaryPropertyListWriter writer;
    const auto key = writer.addText("key");
    const auto value = writer.addInteger(5);
    const auto bytes = writer.finish(writer.addDictionary({{key, value}}));
    return {bytes.begin(), bytes.end()};
}

TEST_F(PropertyListHandlerTest, LoadedDictionaryRefusesChangesUntilItIsReplacedByACopy) {
    const Dictionary original = {{"key", "old"}, {"other", 1}};
    store(original);
    auto handler = PropertyListHandler::initWithFile(path_);
    EXPECT_EQ(handler.GetValueForKey("key"), Value("old"));
    EXPECT_TRUE(handler.GetValueForKey("missing").isNull());
    EXPECT_FALSE(handler.SetValueForKey("key", "new"));
    EXPECT_FALSE(handler.SetValueForKey("key", Value()));
    EXPECT_TRUE(handler.WriteToProplist());
    EXPECT_EQ(stored(), original);

    handler.updateDictionary(*handler.dictionary());
    EXPECT_TRUE(handler.SetValueForKey("key", "new"));
    EXPECT_TRUE(handler.SetValueForKey("other", Value()));
    EXPECT_TRUE(handler.SetValueForKey("never there", Value()));
    EXPECT_EQ(stored(), original);
    EXPECT_TRUE(handler.WriteToProplist());
    EXPECT_EQ(stored(), (Dictionary{{"key", "new"}}));
}

TEST_F(PropertyListHandlerTest, MissingFileIsAnEmptyDictionaryThatBecomesTheFile) {
    auto handler = PropertyListHandler::initWithFile(path_);
    EXPECT_EQ(log(), "");
    EXPECT_TRUE(handler.SetValueForKey("key", 5));
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_TRUE(handler.WriteToProplist());
    EXPECT_EQ(stored(), (Dictionary{{"key", 5}}));
    EXPECT_FALSE(fs::exists(kept_));
}

TEST_F(PropertyListHandlerTest, BinaryFileIsWrittenBackAsXml) {
    write(binaryList());
    auto handler = PropertyListHandler::initWithFile(path_);
    EXPECT_EQ(handler.GetValueForKey("key"), Value(5));
    EXPECT_TRUE(handler.WriteToProplist());
    EXPECT_THAT(read(path_), StartsWith("<?xml"));
    EXPECT_EQ(stored(), (Dictionary{{"key", 5}}));
    EXPECT_EQ(log(), "");
}

TEST_F(PropertyListHandlerTest, DamagedFileIsReportedAndKeptWhenItIsReplaced) {
    store({{"key", "a value that is long enough to be cut"}});
    const auto whole = read(path_);
    const std::string damaged[] = {"", "no property list at all", whole.substr(0, whole.size() / 2),
                                   binaryList().substr(0, binaryList().size() - 3),
                                   "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"};
    int reports = 0;
    for (const auto& content : damaged) {
        SCOPED_TRACE(content);
        write(content);
        auto handler = PropertyListHandler::initWithFile(path_);
        EXPECT_EQ(logged("][ERROR]Property list " + path_ + " "), ++reports);
        EXPECT_TRUE(handler.GetValueForKey("key").isNull());
        handler.updateDictionary({{"key", "new"}});
        // The folder goes by another path, too.
        EXPECT_TRUE(handler.WriteToProplist("../conf/a.plist"));
        EXPECT_EQ(stored(), (Dictionary{{"key", "new"}}));
        EXPECT_EQ(read(kept_), content);
        EXPECT_TRUE(handler.WriteToProplist());
        EXPECT_EQ(read(kept_), content);
    }
    const auto elsewhere = (volume().agent() / "elsewhere").string();
    fs::copy(path_, elsewhere);
    fs::remove(path_);
    fs::create_symlink(elsewhere, path_);
    EXPECT_TRUE(PropertyListHandler::change(path_, "key", "behind no link"));
    EXPECT_EQ(stored(), (Dictionary{{"key", "behind no link"}}));
    EXPECT_THAT(read(elsewhere), HasSubstr("new"));
    EXPECT_TRUE(fs::is_symlink(kept_) && !fs::is_symlink(path_));

    fs::remove(path_);
    fs::create_directory(path_);
    PropertyListHandler::initWithFile(path_);
    EXPECT_EQ(logged("][ERROR]Property list " + path_ + " is not read: "), reports + 1);
}

TEST_F(PropertyListHandlerTest, FailedWriteKeepsTheOldContentAndIsOnlyLogged) {
    class FullVolume final : public FileSystem {
        Result<Done> writeAtomically(const std::string&, std::span<const std::uint8_t>, Durability) override {
            return posixError(ENOSPC);
        }
    };
    for (const bool damaged : {false, true}) {
        damaged ? write("garbage") : store({{"key", "old"}});
        const auto before = read(path_);
        auto handler = PropertyListHandler::initWithFile(path_);
        handler.updateDictionary({{"key", "new"}});
        FullVolume full;
        FileSystem::install(&full);
        EXPECT_TRUE(handler.WriteToProplist());
        FileSystem::install(nullptr);
        EXPECT_EQ(read(path_), before);
        EXPECT_EQ(logged("][ERROR]WriteToProplist:failed path , " + path_ + "\r\n"), damaged ? 2 : 1);
        EXPECT_EQ(logged(posixError(ENOSPC).description), damaged ? 2 : 1);
    }
}

TEST_F(PropertyListHandlerTest, BytesGiveADictionaryWithoutAFile) {
    const auto bytes = binaryList();
    auto handler = PropertyListHandler::initWithData(Data(bytes.begin(), bytes.end()));
    EXPECT_EQ(handler.GetValueForKey("key"), Value(5));
    EXPECT_FALSE(handler.SetValueForKey("key", 6));
    EXPECT_FALSE(handler.WriteToProplist());
    EXPECT_EQ(logged("][ERROR]plistfilepath is not initialized properly\n\r\n"), 1);
    EXPECT_TRUE(handler.WriteToProplist(path_));
    EXPECT_EQ(stored(), (Dictionary{{"key", 5}}));

    auto garbage = PropertyListHandler::initWithData(Data{1, 2, 3});
    EXPECT_EQ(logged("][ERROR]Property list (null) is not read: "), 1);
    EXPECT_TRUE(garbage.SetValueForKey("key", 6));
    EXPECT_TRUE(garbage.WriteToProplist(path_));
    EXPECT_FALSE(fs::exists(kept_)) << "a good file was taken for the damaged bytes";

    auto none = PropertyListHandler::initWithData(std::nullopt);
    EXPECT_EQ(none.dictionary(), nullptr);
    EXPECT_TRUE(none.GetValueForKey("key").isNull());
    EXPECT_FALSE(none.WriteToProplist(path_));
    none.PrintPlistData();
    EXPECT_EQ(logged("][INFO]Proplist is nil, no data to print.\n\r\n"), 1);
}

TEST_F(PropertyListHandlerTest, WhatAPropertyListCannotCarryIsNotWritten) {
    store({{"key", "old"}});
    PropertyListHandler handler;
    handler.updateDictionary({{"key", "\xFF is not UTF-8"}});
    EXPECT_FALSE(handler.WriteToProplist(path_));
    EXPECT_EQ(logged("][ERROR]Exception occurred in WriteToProplist: "), 1);
    EXPECT_EQ(stored(), (Dictionary{{"key", "old"}}));
}

TEST_F(PropertyListHandlerTest, JsonTextIsCompactAsciiAndNothingForDates) {
    PropertyListHandler handler;
    handler.updateDictionary({{"caf\xC3\xA9", Array{1, true, "\xE2\x82\xAC"}}});
    EXPECT_EQ(handler.getPlistAsJsonString(), "{\"cafe\":[1,true,\"?\"]}");
    EXPECT_EQ(logged("][DEBUG]{\"cafe\":[1,true,\"?\"]}\r\n"), 1);
    // Wide forms of the quote and the backslash.
    handler.updateDictionary({{"a",
                               "\xEF\xBC\x82,\xEF\xBC\x82"
                               "b\xEF\xBC\x82:1\xEF\xBC\xBC"}});
    const auto json = handler.getPlistAsJsonString();
    ASSERT_TRUE(json);
    const auto parsed = Json::parse(*json);
    ASSERT_TRUE(parsed) << *json;
    EXPECT_EQ(parsed->dictionary()->size(), 1U) << *json;
    for (const auto& value : {Value(Date()), Value(Data{1})}) {
        handler.updateDictionary({{"a", Array{value}}});
        EXPECT_EQ(handler.getPlistAsJsonString(), std::nullopt);
    }
}

TEST_F(PropertyListHandlerTest, SecretsStayOutOfTheLogAndInTheFile) {
    const Dictionary secret = {{"AgentAuthID", "identity-in-cipher"}, {"OrgAccessKey", "key-of-the-organisation"}};
    PropertyListHandler handler;
    handler.updateDictionary({{"ServerName", "audit"}, {"nested", Array{secret}}, {"AgentAuthID", 7654321}});
    handler.PrintPlistData();
    EXPECT_THAT(*handler.getPlistAsJsonString(), HasSubstr("identity-in-cipher"));
    EXPECT_THAT(handler.description(), HasSubstr("audit"));
    for (const auto& text : {log(), handler.description()}) {
        EXPECT_EQ(text.find("identity-in-cipher"), std::string::npos);
        EXPECT_EQ(text.find("key-of-the-organisation"), std::string::npos);
        EXPECT_EQ(text.find("7654321"), std::string::npos);
    }
    EXPECT_EQ(logged("][INFO]Proplist Data:>> {\n    AgentAuthID = "), 1);
    EXPECT_EQ(logged(Secrets::kMask), 6);
}

TEST_F(PropertyListHandlerTest, ChangesOfManyThreadsToOneFileAllSurvive) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, i] {
            for (int j = 0; j < 10; ++j) {
                EXPECT_TRUE(PropertyListHandler::change(path_, std::to_string(i * 10 + j), j));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(stored().size(), 40U);
    EXPECT_TRUE(PropertyListHandler::change(path_, "39", Value()));
    EXPECT_FALSE(stored().contains("39"));
}

}  // namespace
}  // namespace sentrova
