#include "core/PropertyListHandler.h"
#include "core/Secrets.h"
#include "foundation/formats/BinaryPropertyListWriter.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"

#include <cerrno>
#include <fstream>

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
        const auto content = Current<FileSystem>::get().read(path);
        return content ? std::string(content->begin(), content->end()) : content.error().description;
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
    // Unchanged content that is written back replaces nothing, so no copy is kept.
    write(damaged[4]);
    EXPECT_TRUE(PropertyListHandler::initWithFile(path_).WriteToProplist() && !fs::exists(kept_));
    int reports = 1;
    for (const auto& content : damaged) {
        SCOPED_TRACE(content);
        write(content);
        fs::permissions(path_, fs::perms::others_read, fs::perm_options::add);
        auto handler = PropertyListHandler::initWithFile(path_);
        EXPECT_EQ(logged("][ERROR]Property list " + path_ + " "), ++reports);
        EXPECT_TRUE(handler.GetValueForKey("key").isNull());
        handler.updateDictionary({{"key", "new"}});
        // A copy in another file does not mend this one.
        EXPECT_TRUE(handler.WriteToProplist(path_ + ".copy"));
        // Another path to the same folder.
        EXPECT_TRUE(handler.WriteToProplist("../conf/a.plist"));
        EXPECT_EQ(stored(), (Dictionary{{"key", "new"}}));
        EXPECT_TRUE(handler.WriteToProplist() && handler.isWritten());
        const auto kept = kept_ + (reports == 2 ? "" : "-" + std::to_string(reports - 1));
        EXPECT_EQ(read(kept), content);
        EXPECT_EQ(fs::status(kept).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    }
}

TEST_F(PropertyListHandlerTest, FailedWriteKeepsTheOldContentAndIsOnlyLogged) {
    write("garbage");
    testing::FaultyFileSystem full([this](const auto& path) { return path == path_; });
    full.arm({.call = testing::FaultyFileSystem::kRename, .error = ENOSPC, .number = 1});
    EXPECT_TRUE(PropertyListHandler::change(path_, "key", "new"));
    EXPECT_EQ(logged(posixError(ENOSPC).description), 1);
    EXPECT_FALSE(PropertyListHandler::change(path_, "key", "\xFF is not UTF-8"));
    EXPECT_EQ(read(path_), "garbage");

    // A file that cannot be read keeps its other keys. Only new content for the whole file replaces it.
    store({{"key", "old"}});
    for (const bool whole : {false, true}) {
        full.arm({.call = testing::FaultyFileSystem::kOpen, .error = EMFILE, .number = 1});
        EXPECT_TRUE(whole ? PropertyListHandler::replace(path_, {{"all", "new"}})
                          : PropertyListHandler::change(path_, "other", "new"));
        EXPECT_EQ(stored(), (Dictionary{whole ? Dictionary::Entry{"all", "new"} : Dictionary::Entry{"key", "old"}}));
    }

    // Writing damaged bytes from elsewhere over a good file keeps no copy: the file is not damaged.
    store({{"key", "old"}});
    fs::remove(kept_);
    auto garbage = PropertyListHandler::initWithData(Data{1, 2, 3});
    EXPECT_FALSE(garbage.WriteToProplist()) << "there is no file";
    EXPECT_TRUE(garbage.WriteToProplist(path_));
    EXPECT_FALSE(fs::exists(kept_) || PropertyListHandler::initWithData(std::nullopt).WriteToProplist(path_));
}

TEST_F(PropertyListHandlerTest, JsonTextIsAsciiWithItsStructureAndAbsentForDates) {
    PropertyListHandler handler;
    // The full-width forms of the quotation mark and the backslash.
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
    // JSON may spell a key with escapes. A body that does not parse may hold one, too.
    const std::pair<std::string, bool> bodies[] = {{R"({"\u0041gentAuthID":"x"})", true},
                                                   {R"({"\u0041gentAuthID":"x)", true},
                                                   {R"({"AgentAuthID":"x"})", true},
                                                   {R"({"\u0041":"x"})", false}};
    for (const auto& [text, isMasked] : bodies) {
        const Data body(text.begin(), text.end());
        EXPECT_EQ(Secrets::maskedBody(body) == Value(Data(body.size(), '*')), isMasked) << text;
    }
}

}  // namespace
}  // namespace sentrova
