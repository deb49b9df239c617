#include "platform/Directory.h"

#include "platform/AccountDatabase.h"
#include "platform/darwin/CoreFoundationText.h"

#include <OpenDirectory/OpenDirectory.h>

#include <array>

namespace sentrova::platform {

namespace {

constexpr std::array<const char*, 4> kAttributes = {kAttributeRecordName, kAttributeUniqueId, kAttributeSmbSid,
                                                    kAttributePrimaryNtDomain};

using ErrorHandle = CoreFoundationHandle<CFErrorRef>;

Error reasonOf(const ErrorHandle& error) {
    if (!error) {
        return {"OpenDirectory", 0, "the directory does not answer and gives no reason"};
    }
    const CoreFoundationHandle<CFStringRef> description(::CFErrorCopyDescription(error.get()));
    return {textOf(::CFErrorGetDomain(error.get())).value_or(""), ::CFErrorGetCode(error.get()),
            textOf(description.get()).value_or("the directory's reason is not text")};
}

CoreFoundationHandle<CFArrayRef> wantedAttributes() {
    std::array<CoreFoundationHandle<CFStringRef>, kAttributes.size()> names;
    std::array<const void*, kAttributes.size()> references{};
    for (std::size_t i = 0; i < kAttributes.size(); ++i) {
        names[i] = makeString(kAttributes[i]);
        references[i] = names[i].get();
    }
    // The array retains its elements.
    return CoreFoundationHandle<CFArrayRef>(
        ::CFArrayCreate(nullptr, references.data(), static_cast<CFIndex>(references.size()), &kCFTypeArrayCallBacks));
}

// The attribute's values that are text. Empty if the record does not have the attribute.
std::vector<std::string> valuesOf(ODRecordRef record, const char* attribute) {
    std::vector<std::string> values;
    const auto name = makeString(attribute);
    ErrorHandle error;
    const CoreFoundationHandle<CFArrayRef> found(::ODRecordCopyValues(record, name.get(), error.receive()));
    const auto count = found ? ::CFArrayGetCount(found.get()) : 0;
    for (CFIndex i = 0; i < count; ++i) {
        if (auto text = textOf(::CFArrayGetValueAtIndex(found.get(), i))) {
            values.push_back(*std::move(text));
        }
    }
    return values;
}

DirectoryRecord contentOf(ODRecordRef record) {
    DirectoryRecord content;
    for (const auto* attribute : kAttributes) {
        if (auto values = valuesOf(record, attribute); !values.empty()) {
            content.emplace(attribute, std::move(values));
        }
    }
    return content;
}

class OpenDirectory final : public Directory {
  public:
    std::optional<std::string> userName(std::uint32_t id) override { return databaseUserName(id); }
    std::optional<std::string> groupName(std::uint32_t id) override { return databaseGroupName(id); }

    Result<std::vector<DirectoryRecord>> usersNamed(const std::string& name) override {
        std::vector<DirectoryRecord> records;
        const auto wanted = makeString(name);
        if (!wanted) {
            // The name is not UTF-8, so no record can have it.
            return records;
        }
        ErrorHandle error;
        const CoreFoundationHandle<ODNodeRef> node(
            ::ODNodeCreateWithNodeType(nullptr, nullptr, kODNodeTypeAuthentication, error.receive()));
        if (!node) {
            return reasonOf(error);
        }
        const auto attributes = wantedAttributes();
        constexpr CFIndex kNoLimit = 0;
        ErrorHandle queryError;
        const CoreFoundationHandle<ODQueryRef> query(
            ::ODQueryCreateWithNode(nullptr, node.get(), kODRecordTypeUsers, kODAttributeTypeRecordName,
                                    kODMatchEqualTo, wanted.get(), attributes.get(), kNoLimit, queryError.receive()));
        if (!query) {
            return reasonOf(queryError);
        }
        ErrorHandle resultError;
        const CoreFoundationHandle<CFArrayRef> found(
            ::ODQueryCopyResults(query.get(), /*inAllowPartialResults=*/false, resultError.receive()));
        if (!found) {
            return reasonOf(resultError);
        }
        for (CFIndex i = 0; i < ::CFArrayGetCount(found.get()); ++i) {
            // The array owns the reference. The framework's functions take a record that is not const.
            auto* const record = static_cast<ODRecordRef>(const_cast<void*>(::CFArrayGetValueAtIndex(found.get(), i)));
            records.push_back(contentOf(record));
        }
        return records;
    }
};

}  // namespace

std::unique_ptr<Directory> Directory::make(FileSystem& /*files*/, Clock& /*clock*/) {
    return std::make_unique<OpenDirectory>();
}

}  // namespace sentrova::platform
