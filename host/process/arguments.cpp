// The command line of policyrouted as values.
#include "host/process/arguments.h"

#include <getopt.h>

#include "host/option/option.h"

namespace host {
namespace {

enum Code { OPTION = 'o', CONFIG = 'c', FOREGROUND = 'f', HELP = 'h', VERSION = 'V' };

const struct option LONG_OPTIONS[] = {
    {"option", required_argument, nullptr, OPTION},   {"config", required_argument, nullptr, CONFIG},
    {"foreground", no_argument, nullptr, FOREGROUND}, {"help", no_argument, nullptr, HELP},
    {"version", no_argument, nullptr, VERSION},       {nullptr, 0, nullptr, 0},
};

// What getopt could not take: it stopped behind the argument, or within a word of short options.
std::string complaint(int code, const std::string &argument) {
    if (code == ':') {
        return argument + " needs a value";
    }
    return "unknown argument '" + argument + "'; --help names all";
}

void take(int code, const std::string &argument, Arguments &arguments) {
    switch (code) {
    case OPTION:
        arguments.options.emplace_back(optarg);
        break;
    case CONFIG:
        arguments.configFile = optarg;
        if (arguments.configFile.empty()) {
            arguments.error = "--config needs a file name";
        }
        break;
    case FOREGROUND:
        break;
    case HELP:
        arguments.isHelpWanted = true;
        break;
    case VERSION:
        arguments.isVersionWanted = true;
        break;
    default:
        arguments.error = complaint(code, argument);
    }
}

} // namespace

Arguments argumentsParse(int argc, char **argv) {
    Arguments arguments;
    optind = 0; // GNU: begin afresh
    opterr = 0; // we say what is wrong
    while (arguments.error.empty()) {
        const int at = optind == 0 ? 1 : optind;
        const int code = getopt_long(argc, argv, "+:", LONG_OPTIONS, nullptr);
        if (code == -1) {
            break;
        }
        take(code, at < argc ? argv[at] : "", arguments);
    }
    if (arguments.error.empty() && optind < argc) {
        arguments.error = complaint('?', argv[optind]);
    }
    return arguments;
}

std::string argumentsHelp() {
    std::string text = "usage: policyrouted [--option KEY=VALUE ...] [--config FILE] [--foreground]\n"
                       "  --option KEY=VALUE  sets an option, over the file; may be repeated\n"
                       "  --config FILE       option file; default, if it exists:\n"
                       "                      /etc/policyroute/policyroute.conf\n"
                       "  --foreground        stays in the foreground, as it always does\n"
                       "  --help, --version   print this or the version, and end\n"
                       "options of the host (default):\n";
#define HOST_OPTION_HELP(key, byDefault, meaning) text += "  " key " (" byDefault "): " meaning "\n";
    HOST_OPTIONS(HOST_OPTION_HELP)
#undef HOST_OPTION_HELP
    text += "  host.vrf.NAME (): kernel routing table of the VRF NAME\n";
    return text;
}

} // namespace host
