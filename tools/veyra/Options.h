// Options that several verbs have.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

namespace Vantor::Sentrix::Tool {

// Takes an id into `id`; wrong usage when the text is none.
CLI::Option* AddModuleId(CLI::App& command, const std::string& name, std::uint32_t& id, const std::string& help);
// The same for a message id, which must be deliverable.
CLI::Option* AddMessageId(CLI::App& command, const std::string& name, std::uint32_t& id, const std::string& help);

// Wrong usage when there is no such file or folder. The parser's own checks know no UTF-8 on Windows.
CLI::Validator ExistingFile();
CLI::Validator ExistingFolder();

} // namespace Vantor::Sentrix::Tool
