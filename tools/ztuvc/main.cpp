// ztuvc — command-line access to fingerprint readers through libztuvc.
//
// Uses nothing but the public header and the shared library, like any
// application would. This file reads the command line and hands over to the
// command; each command family lives in a file of its own.
#include "common.h"

#include <CLI/CLI.hpp>

#include <array>
#include <cstdio>
#include <string>

using namespace ztuvc_tool;

namespace {

const char kMainHelp[] =
    "Usage: ztuvc COMMAND [OPTIONS] [ARGS]\n"
    "Fingerprint readers through libztuvc.\n"
    "\n"
    "Commands:\n"
    "  list                         list the attached readers\n"
    "  info                         identity, image format and frame interval\n"
    "  capture                      capture frames into PNG or PGM files\n"
    "  sensor read ADDR             read a sensor register\n"
    "  sensor write ADDR VALUE      write a sensor register\n"
    "  finger [VALUE]               read or set the finger register\n"
    "  flash read ADDR LEN          read flash memory (hex dump, or -o FILE)\n"
    "\n"
    "Numbers are decimal or 0x hexadecimal.  'ztuvc COMMAND --help' describes a\n"
    "command.  Exit codes: 0 ok, 1 operation failed, 2 bad arguments, 3 no reader,\n"
    "4 reader busy or no permission, 5 time-out, 6 reader gone or stream failed,\n"
    "7 output file error, 130 interrupted.  See ztuvc(1).\n";

const std::array<const Command*, 6> kCommands = {&kListCommand,   &kInfoCommand,   &kCaptureCommand,
                                                 &kSensorCommand, &kFingerCommand, &kFlashCommand};

// One command as the parser knows it.
struct Parsed {
    const Command* command = nullptr;
    CLI::App* app = nullptr;
    Args args;
    bool help = false;
};

// The name of an option as typed, without a value glued to it: "--json"
// from "--json=yes", "-d" from "-d0".
std::string optionName(const std::string& arg) {
    if (arg.rfind("--", 0) == 0) return arg.substr(0, arg.find('='));
    return arg.substr(0, 2);
}

// CLI11 names an option by its long name; the user should read back what
// they typed.
int mismatch(const std::string& command, const CLI::ArgumentMismatch& e, int argc, char** argv) {
    std::string what = e.what();
    if (const size_t at = what.find(" was given a disallowed flag override"); at != std::string::npos)
        return usageError(command, "option '--%s' takes no value", what.substr(0, at).c_str());
    // A value is missing only when the command line ends after the option;
    // in "-qd" that is the last letter.
    std::string last = argv[argc - 1];
    std::string name = last.rfind("--", 0) == 0 ? optionName(last) : std::string{'-', last.back()};
    return usageError(command, "option '%s' needs a value", name.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(kMainHelp, stderr);
        return kExitUsage;
    }

    CLI::App app{"Fingerprint readers through libztuvc.", kProg};
    // The tool's own help texts, and its own messages for what it does not
    // know: extras are collected, not thrown.
    app.set_help_flag();
    app.allow_extras();
    app.require_subcommand(0, 1);
    // A repeated option: the last one counts.
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    bool help = false, version = false;
    app.add_flag("-h,--help", help);
    app.add_flag("--version", version);
    app.add_subcommand("help")->allow_extras();

    std::array<Parsed, kCommands.size()> parsed;
    for (size_t i = 0; i < kCommands.size(); ++i) {
        Parsed& p = parsed[i];
        p.command = kCommands[i];
        p.args.command = p.command->name;
        p.app = app.add_subcommand(p.command->name);
        p.app->set_help_flag();
        p.app->allow_extras();
        p.app->add_flag("-h,--help", p.help)->disable_flag_override();
        p.app->add_option("args", p.args.positional);
        p.command->options(*p.app, p.args);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const auto commands = app.get_subcommands();
        std::string command = commands.empty() ? "" : commands.front()->get_name();
        if (const auto* m = dynamic_cast<const CLI::ArgumentMismatch*>(&e))
            return mismatch(command, *m, argc, argv);
        return usageError(command, "%s", e.what());
    }

    Parsed* chosen = nullptr;
    for (Parsed& p : parsed)
        if (p.app->parsed()) chosen = &p;
    // The first word is the command, or a call for help or the version.
    const auto extras = app.remaining();
    if (chosen == nullptr || chosen->args.command != argv[1]) {
        if (!extras.empty() && extras.front() == argv[1])
            return usageError("", "unknown command '%s'", argv[1]);
        if (help || app.got_subcommand("help")) {
            std::fputs(kMainHelp, stdout);
            return kExitOk;
        }
        if (version) {
            std::printf("ztuvc %s\n", ZTUVC_VERSION);
            return kExitOk;
        }
        return usageError("", "unknown command '%s'", argv[1]);
    }
    // CLI11 ends a command at "--" once the command has an argument; what
    // follows still belongs to the command.
    chosen->args.positional.insert(chosen->args.positional.end(), extras.begin(), extras.end());
    for (const std::string& extra : chosen->app->remaining()) {
        if (extra == "--") continue;  // the end of the options, not an argument
        return usageError(chosen->args.command, "unknown option '%s'", optionName(extra).c_str());
    }
    if (chosen->help) {
        std::fputs(chosen->command->help, stdout);
        if (chosen->app->get_option_no_throw("-d") != nullptr)
            std::fputs("  -d, --device N|NAME   the reader: index, name or serial number (default 0)\n",
                       stdout);
        std::fputs("  -h, --help            this help\n", stdout);
        return kExitOk;
    }
    int rc = chosen->command->run(chosen->args);
    std::fflush(stdout);
    return rc;
}
