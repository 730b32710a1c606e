#include "host/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

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
    std::string source = "cdr";
    std::string dialplan = "dialplan";
    bool json = false;
    int level = 6;
    int demoLevel = 3;
    std::vector<std::string> locations;
    std::string text;
};

void addCommonDeviceOptions(CLI::App& command, RawOptions& raw) {
    command.add_option("--device", raw.device, "simulated device directory");
    command.add_option("--set", raw.sets, "device value NAME=VALUE")->allow_extra_args(false);
}

// Returns the command's --https-auth option, to learn afterwards whether it was given.
CLI::Option* addJobCommand(CLI::App& app, const String& kind, RawOptions& raw) {
    CLI::App* command = app.add_subcommand(kind.str(), "run one " + kind.str() + " job");
    addCommonDeviceOptions(*command, raw);
    command->add_option("--name", raw.name, "job name");
    command->add_flag("--compare", raw.compare, "compare with the stored copy");
    command->add_option("--reload", raw.reload, "reload type");
    command->add_option("--credential", raw.credentials, "REALM:USER:PASSWORD")
        ->allow_extra_args(false);
    command->add_option("--credentials-file", raw.credentialsFile, "FILE");
    CLI::Option* httpsAuth = command->add_option("--https-auth", raw.httpsAuth, "CA,CERT,KEY");
    if (kind == "cdr-upload") {
        command->add_option("--source", raw.source, "source name");
    }
    if (kind == "dialplan") {
        command->add_option("--dialplan", raw.dialplan, "dial plan name");
    }
    command->add_flag("--json", raw.json, "print the outcome as JSON");
    command->add_option("-v", raw.level, "monitor level");
    command->add_option("LOCATION", raw.locations, "locations")->required();
    return httpsAuth;
}

}  // namespace

const std::vector<String>& JOB_KINDS() {
    static const std::vector<String> kinds = {"config", "upload", "cdr-upload", "dialplan",
                                              "key",    "wizard", "firmware",   "script"};
    return kinds;
}

const char* VERSION() {
    return PROVCTL_VERSION;
}

ParseOutcome PARSE_COMMAND_LINE(int argc, char** argv, Options& options) {
    RawOptions raw;
    CLI::App app("provctl", "provctl");
    app.formatter(std::make_shared<ManualFormatter>());
    app.set_version_flag("--version", std::string("provctl ") + VERSION());
    app.require_subcommand(1, 1);
    app.fallthrough(false);

    CLI::App* resolve = app.add_subcommand("resolve", "resolve a text with the device values");
    addCommonDeviceOptions(*resolve, raw);
    resolve->add_option("TEXT", raw.text, "text to resolve")->required();

    CLI::App* demo =
        app.add_subcommand("demo", "provision a new simulated device from the demo's own servers");
    demo->add_option("-v", raw.demoLevel, "monitor level");

    std::vector<CLI::Option*> httpsAuthOptions;
    for (const String& kind : JOB_KINDS()) {
        httpsAuthOptions.push_back(addJobCommand(app, kind, raw));
    }

    // CLI11 reports through exceptions; they end here, at the boundary of the library.
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(app.help().c_str(), stdout);
        return ParseOutcome::Done;
    } catch (const CLI::CallForVersion& version) {
        std::printf("%s\n", version.what());
        return ParseOutcome::Done;
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "provctl: %s\nTry 'provctl --help' for more information.\n",
                     error.what());
        return ParseOutcome::UsageError;
    }

    CLI::App* chosen = app.get_subcommands().front();
    options.command = chosen->get_name();
    options.device = raw.device;
    options.name = raw.name;
    options.compare = raw.compare;
    options.reload = raw.reload;
    options.sets = toStrings(raw.sets);
    options.credentials = toStrings(raw.credentials);
    options.credentialsFile = raw.credentialsFile;
    options.httpsAuth = raw.httpsAuth;
    for (CLI::Option* httpsAuth : httpsAuthOptions) {
        if (httpsAuth->count() > 0) {
            options.httpsAuthGiven = true;
        }
    }
    options.source = raw.source;
    options.dialplan = raw.dialplan;
    options.json = raw.json;
    options.level = options.command == "demo" ? raw.demoLevel : raw.level;
    options.locations = toStrings(raw.locations);
    options.text = raw.text;
    return ParseOutcome::Run;
}

}  // namespace Provctl
