// The mistakes in the configuration files of an installation, for the agent and for programs beside it.

#pragma once

#include "core/ConfigurationCheck.h"
#include "foundation/files/FileSystem.h"
#include "operations/TaskRegistry.h"

#include <optional>
#include <string>
#include <vector>

namespace sentrova {

// Decrypts the stored identity, as a Decryption does. Needs a Current<Cryptography>.
std::optional<std::string> decryptedIdentity(const std::string& cipherText, const std::string& passPhrase);

// What the check needs to know of this agent.
ConfigurationRules configurationRules(const TaskRegistry::Classes& tasks);

// What the agent logs at its start about the files in the folder. Reads only. XML in other encodings than UTF-8 and
// UTF-16 needs a Current<Encodings>, and the stored identity a Current<Cryptography>.
std::vector<ConfigurationFinding> startFindingsIn(FileSystem& files, const std::string& folder);

// The same, and what the log leaves out: keys that seem to be misspelled, and a damaged table of log files. In the
// order of the files.
std::vector<ConfigurationFinding> findingsIn(FileSystem& files, const std::string& folder);

}  // namespace sentrova
