#include "host/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "host/CommandWords.h"
#include "host/JobKinds.h"
#include "host/ManPage.h"

namespace Provctl {

namespace {

// Every page of the help comes from MANUAL_PAGE: CLI11's own layout is replaced whole.
class ManualFormatter : public CLI::Formatter {
  public:
    std::string make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const override {
        return MANUAL_PAGE(app->get_name()).str();
    }
};

std::vector<String> toStrings(const std::vector<std::string>& words) {
    return std::vector<String>(words.begin(), words.end());
}

struct RawOptions {
    std::string device;
    std::string name;
    bool compare = false;
    std::string reload = "none";
    std::vector<std::string> sets;
    std::vector<std::string> credentials;
    std::string credentialsFile;
    std::string httpsAuth;
    std::string caCertificate;
    std::string certificate;
    std::string privateKey;
    std::string source = "cdr";
    std::string dialplan = "dialplan";
    bool json = false;
    bool quiet = false;
    bool verbose = false;  // -v without a level
    int level = FULL_LEVEL;
    int demoLevel = 3;
    std::vector<std::string> locations;
    std::string text;
};

void addCommonDeviceOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("--device", raw.device, "simulated device directory");
    command.add_option("--set", raw.sets, "device value NAME=VALUE")->allow_extra_args(false);
}

void addVerbosityOptions(CLI::App& command, int& level, RawOptions& raw) {
    command.add_option("-v", level, "monitor level");
    // A bare -v becomes --verbose before parsing (see VERBOSE_WITHOUT_LEVEL).
    command.add_flag("--verbose", raw.verbose)->group("");
    command.add_flag("-q,--quiet", raw.quiet, "print the result only");
}

void addHttpsOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("--ca-certificate", raw.caCertificate, "FILE");
    command.add_option("--certificate", raw.certificate, "FILE");
    command.add_option("--private-key", raw.privateKey, "FILE");
    // The older spelling, which cannot carry a comma in a path: accepted, no longer shown.
    command.add_option("--https-auth", raw.httpsAuth, "CA,CERT,KEY")->group("");
}

void addJobCommand(CLI::App& app, const JobKind& kind, RawOptions& raw) {
    CLI::App* command = app.add_subcommand(kind.name, kind.summary);
    addCommonDeviceOptions(*command, raw);
    command->add_option("--name", raw.name, "job name");
    if (kind.usesCompare) {
        command->add_flag("--compare", raw.compare, "compare with the stored copy");
    }
    if (kind.usesReload) {
        command->add_option("--reload", raw.reload, "reload type");
    }
    command->add_option("--credential", raw.credentials, "REALM:USER:PASSWORD")
        ->allow_extra_args(false);
    command->add_option("--credentials-file", raw.credentialsFile, "FILE");
    addHttpsOptions(*command, raw);
    if (String(kind.name) == "cdr-upload") {
        command->add_option("--source", raw.source, "source name");
    }
    if (String(kind.name) == "dialplan") {
        command->add_option("--dialplan", raw.dialplan, "dial plan name");
    }
    command->add_flag("--json", raw.json, "print the outcome as JSON");
    addVerbosityOptions(*command, raw.level, raw);
    command->add_option("LOCATION", raw.locations, "locations")->required();
}

void buildCommands(CLI::App& app, RawOptions& raw) {
    app.formatter(std::make_shared<ManualFormatter>());
    app.set_version_flag("--version", std::string("provctl ") + VERSION());
    app.require_subcommand(1, 1);
    app.fallthrough(false);
    CLI::App* resolve = app.add_subcommand("resolve", "resolve a text with the device values");
    addCommonDeviceOptions(*resolve, raw);
    resolve->add_option("TEXT", raw.text, "text to resolve")->required();
    CLI::App* demo =
        app.add_subcommand("demo", "provision a new simulated device from the demo's own servers");
    addVerbosityOptions(*demo, raw.demoLevel, raw);
    for (const JobKind& kind : JOB_KIND_TABLE()) {
        addJobCommand(app, kind, raw);
    }
}

// CLI11 reports through exceptions; they end here, at the boundary of the library.
ParseOutcome parseWithCli11(CLI::App& app, std::vector<std::string>& words, const String& command) {
    try {
        app.parse(words);
    } catch (const CLI::CallForHelp&) {
        std::fputs(app.help().c_str(), stdout);
        return ParseOutcome::Done;
    } catch (const CLI::CallForVersion& version) {
        std::printf("%s\n", version.what());
        return ParseOutcome::Done;
    } catch (const CLI::ParseError& error) {
        PRINT_USAGE_ERROR(error.what(), command);
        return ParseOutcome::UsageError;
    }
    return ParseOutcome::Run;
}

void copyOptions(const RawOptions& raw, Options& options) {
    options.device = raw.device;
    options.name = raw.name;
    options.compare = raw.compare;
    options.reload = raw.reload;
    options.sets = toStrings(raw.sets);
    options.credentials = toStrings(raw.credentials);
    options.credentialsFile = raw.credentialsFile;
    options.caCertificate = raw.caCertificate;
    options.certificate = raw.certificate;
    options.privateKey = raw.privateKey;
    options.source = raw.source;
    options.dialplan = raw.dialplan;
    options.json = raw.json;
    options.locations = toStrings(raw.locations);
    options.text = raw.text;
}

// "provctl help [COMMAND]" and the build's "provctl --man".
ParseOutcome printHelp(CLI::App& app, const std::vector<std::string>& words) {
    if (words[0] == "--man") {
        std::fputs(MAN_PAGE().c_str(), stdout);
        return ParseOutcome::Done;
    }
    if (words.size() > 2) {
        PRINT_USAGE_ERROR("help takes one command", String());
        return ParseOutcome::UsageError;
    }
    if (words.size() == 2 && !CHECK_COMMAND_WORDS(app, {words[1]})) {
        return ParseOutcome::UsageError;
    }
    const String command = words.size() == 2 ? String(words[1]) : String("provctl");
    // "help help" is the overview as well.
    const String page = MANUAL_PAGE(command == "help" ? String("provctl") : command);
    std::fputs(page.c_str(), stdout);
    return ParseOutcome::Done;
}

bool wasGiven(const CLI::App& command, const char* name) {
    const CLI::Option* option = command.get_option_no_throw(name);
    return option != nullptr && option->count() > 0;
}

}  // namespace

const std::vector<String>& JOB_KINDS() {
    static const std::vector<String> kinds = [] {
        std::vector<String> names;
        for (const JobKind& kind : JOB_KIND_TABLE()) {
            names.emplace_back(kind.name);
        }
        return names;
    }();
    return kinds;
}

const char* VERSION() {
    return PROVCTL_VERSION;
}

ParseOutcome PARSE_COMMAND_LINE(int argc, char** argv, Options& options) {
    RawOptions raw;
    CLI::App app("provctl", "provctl");
    buildCommands(app, raw);
    std::vector<std::string> words(argv + 1, argv + std::max(argc, 1));
    if (!words.empty() && (words[0] == "help" || words[0] == "--man")) {
        return printHelp(app, words);
    }
    if (!CHECK_COMMAND_WORDS(app, words)) {
        return ParseOutcome::UsageError;
    }
    VERBOSE_WITHOUT_LEVEL(words);
    const bool isCommand = words[0].empty() || words[0][0] != '-';
    const String command = isCommand ? String(words[0]) : String();
    // CLI11 takes its words from the back.
    std::reverse(words.begin(), words.end());
    const ParseOutcome parsed = parseWithCli11(app, words, command);
    if (parsed != ParseOutcome::Run) {
        return parsed;
    }
    CLI::App* chosen = app.get_subcommands().front();
    options.command = chosen->get_name();
    copyOptions(raw, options);
    const bool demo = options.command == "demo";
    if (!CHECK_VERBOSITY(raw.quiet, raw.verbose, *chosen, demo ? raw.demoLevel : raw.level,
                         options)) {
        return ParseOutcome::UsageError;
    }
    const bool checked =
        CHECK_DEVICE_OPTION(wasGiven(*chosen, "--device"), options) && CHECK_RELOAD(options) &&
        CHECK_NAME(wasGiven(*chosen, "--name"), options) &&
        TAKE_HTTPS_OPTIONS(*chosen, wasGiven(*chosen, "--https-auth"), raw.httpsAuth, options);
    return checked ? ParseOutcome::Run : ParseOutcome::UsageError;
}

}  // namespace Provctl
