#include "tools/veyra/Options.h"

#include "tools/support/Utf8.h"
#include "tools/veyra/Ids.h"

namespace Vantor::Sentrix::Tool {

namespace {

constexpr char kIdForm[] = " is no id: ids are decimal, or hexadecimal after 0x, up to 0xffffffff";

// The parser's own numbers would take a leading zero for octal; it gets plain decimal text instead.
std::string NormaliseModuleId(std::string& text) {
    const auto id = ParseId(text);
    if (!id) {
        return "'" + text + "'" + kIdForm;
    }
    text = std::to_string(*id);
    return {};
}

std::string NormaliseMessageId(std::string& text) {
    const std::string given = text;
    std::string fault = NormaliseModuleId(text);
    if (fault.empty() && !IsDeliverable(*ParseId(text))) {
        fault = "messages with the id " + given + " are never delivered";
    }
    return fault;
}

CLI::Option* AddId(CLI::App& command, const std::string& name, std::uint32_t& id, const std::string& help,
                   std::string (*normalise)(std::string&)) {
    return command.add_option(name, id, help)->transform(CLI::Validator(normalise, ""))->type_name("ID");
}

} // namespace

CLI::Option* AddModuleId(CLI::App& command, const std::string& name, std::uint32_t& id, const std::string& help) {
    return AddId(command, name, id, help, NormaliseModuleId);
}

CLI::Option* AddMessageId(CLI::App& command, const std::string& name, std::uint32_t& id, const std::string& help) {
    return AddId(command, name, id, help, NormaliseMessageId);
}

CLI::Validator ExistingFile() {
    return {[](const std::string& path) {
                std::error_code error;
                const auto status = std::filesystem::status(Support::PathFromUtf8(path), error);
                const bool readable = std::filesystem::exists(status) && !std::filesystem::is_directory(status);
                return readable ? "" : "'" + path + "' is no file";
            },
            ""};
}

CLI::Validator ExistingFolder() {
    return {[](const std::string& path) {
                std::error_code error;
                const bool found = std::filesystem::is_directory(Support::PathFromUtf8(path), error);
                return found ? "" : "'" + path + "' is no folder";
            },
            ""};
}

} // namespace Vantor::Sentrix::Tool
