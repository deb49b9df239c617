#include "core/PropertyListHandler.h"
#include "core/Secrets.h"
#include "foundation/BinaryPropertyListWriter.h"
#include "foundation/FileSystem.h"
#include "foundation/Json.h"
#include "support/AgentFixture.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
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

    static std::string binaryList() {
        BinaryPropertyListWriter writer;
        const auto key = writer.addText("key");
        const auto value = writer.addInteger(5);
        const auto bytes = writer.finish(writer.addDictionary({{key, value}}));
        return {bytes.begin(), bytes.end()};
    }

    const std::string path_ = (volume().conf() / "a.plist").string();
    const std::string kept_ = path_ + ".damaged";
};

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
        EXPECT_TRUE(handler.WriteToProplist());
        EXPECT_EQ(read(kept_), content);
    }
}

TEST_F(PropertyListHandlerTest, LinkInTheFilesPlaceIsReplacedAndNotFollowed) {
    store({{"key", "new"}});
    const auto elsewhere = (volume().agent() / "elsewhere").string();
    fs::rename(path_, elsewhere);
    fs::create_symlink(elsewhere, path_);
    EXPECT_TRUE(PropertyListHandler::change(path_, "key", "behind no link"));
    EXPECT_EQ(stored(), (Dictionary{{"key", "behind no link"}}));
    EXPECT_THAT(read(elsewhere), HasSubstr("new"));
    EXPECT_TRUE(fs::is_symlink(kept_) && !fs::is_symlink(path_));
}

TEST_F(PropertyListHandlerTest, FailedWriteKeepsTheOldContentAndIsOnlyLogged) {
    class FullVolume final : public FileSystem {
        Result<Done> writeAtomically(const std::string&, std::span<const std::uint8_t>, Durability) override {
            return posixError(ENOSPC);
        }
    };
    write("garbage");
    FullVolume full;
    FileSystem::install(&full);
    EXPECT_TRUE(PropertyListHandler::change(path_, "key", "new"));
    FileSystem::install(nullptr);
    EXPECT_EQ(logged(posixError(ENOSPC).description), 1);
    EXPECT_FALSE(PropertyListHandler::change(path_, "key", "\xFF is not UTF-8"));
    EXPECT_EQ(read(path_), "garbage");
}

TEST_F(PropertyListHandlerTest, DamagedBytesDoNotMakeAGoodFileADamagedOne) {
    store({{"key", "old"}});
    auto garbage = PropertyListHandler::initWithData(Data{1, 2, 3});
    EXPECT_FALSE(garbage.WriteToProplist()) << "there is no file";
    EXPECT_TRUE(garbage.WriteToProplist(path_));
    EXPECT_FALSE(fs::exists(kept_));
    EXPECT_FALSE(PropertyListHandler::initWithData(std::nullopt).WriteToProplist(path_));
}

TEST_F(PropertyListHandlerTest, JsonTextKeepsItsStructureInAsciiAndIsNothingForDates) {
    PropertyListHandler handler;
    // Wide forms of the quote and the backslash.
    handler.updateDictionary({{"a", "\xEF\xBC\x82,\xEF\xBC\x82 b\xEF\xBC\x82:1\xEF\xBC\xBC"}});
    const auto json = handler.getPlistAsJsonString().value_or("");
    const auto parsed = Json::parse(json);
    ASSERT_TRUE(parsed) << json;
    EXPECT_EQ(parsed->dictionary()->size(), 1U) << json;
    handler.updateDictionary({{"a", Array{Date()}}});
    EXPECT_EQ(handler.getPlistAsJsonString(), std::nullopt);
}

TEST_F(PropertyListHandlerTest, SecretsStayOutOfTheLogAndInTheFile) {
    const Dictionary secret = {{"AgentAuthID", "identity-in-cipher"}, {"OrgAccessKey", "key-of-the-organisation"}};
    PropertyListHandler handler;
    handler.updateDictionary({{"ServerName", "audit"}, {"nested", Array{secret}}, {"AgentAuthID", 7654321}});
    handler.PrintPlistData();
    EXPECT_THAT(*handler.getPlistAsJsonString(), HasSubstr("identity-in-cipher"));
    for (const auto& text : {log(), handler.description()}) {
        EXPECT_THAT(text, HasSubstr("audit"));
        for (const auto* value : {"identity-in-cipher", "key-of-the-organisation", "7654321"}) {
            EXPECT_EQ(text.find(value), std::string::npos) << value;
        }
    }
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
