// See usage.h. The library's own texts take two lines and do not name a word that is no command.
#include "cli/usage.h"

namespace cli {

namespace {

const std::string CONVERSION = "Could not convert: "; // "acl = x"
constexpr const char *EQUALS = " = ";

// The innermost command that the line names, and its words: "pbrctl acl add".
const CLI::App &innermost(const CLI::App &app, std::string &path) {
    const CLI::App *pInner = &app;
    path = app.get_name();
    for (auto found = app.get_subcommands(); !found.empty(); found = pInner->get_subcommands()) {
        pInner = found.back();
        path += " " + pInner->get_name();
    }
    return *pInner;
}

std::string commandMissing(const CLI::App &app) {
    const std::vector<std::string> rest = app.remaining(true);
    return rest.empty() ? "a command is missing" : "'" + rest.front() + "' is no command";
}

std::string reasonText(const CLI::App &app, const CLI::App &inner, const CLI::ParseError &wrong) {
    const std::string text = wrong.what();
    const bool wantsCommand = inner.get_require_subcommand_min() > 0 && inner.get_subcommands().empty();
    if (wantsCommand && wrong.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError)) {
        return commandMissing(app);
    }
    const size_t equals = text.find(EQUALS);
    if (text.rfind(CONVERSION, 0) == 0 && equals != std::string::npos) {
        return text.substr(CONVERSION.size(), equals - CONVERSION.size()) + ": '" + text.substr(equals + 3) +
               "' is no number, or too large";
    }
    return text;
}

} // namespace

std::string usageText(const CLI::App &app, const CLI::ParseError &wrong) {
    std::string path;
    const CLI::App &inner = innermost(app, path);
    const std::string reason = reasonText(app, inner, wrong);
    const std::string command = path.size() > app.get_name().size() ? path.substr(app.get_name().size() + 1) + ": " : "";
    return command + reason + ". '" + path + " --help' tells more";
}

} // namespace cli
