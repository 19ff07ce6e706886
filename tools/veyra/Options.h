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

} // namespace Vantor::Sentrix::Tool
