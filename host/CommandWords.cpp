#include "host/CommandWords.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "host/JobKinds.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "platform/Monitor.h"

namespace Provctl {

namespace {

// The longest name that a file system takes for one directory entry.
constexpr int MAX_NAME_LENGTH = 255;

std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

String nearHint(const String& word, const std::vector<String>& candidates) {
    const String closest = CLOSEST_WORD(word, candidates);
    return closest.isEmpty() ? String() : String::format(" (did you mean '%s'?)", closest.c_str());
}

// Shown as the user typed it, but never raw: a word may hold any byte.
String shown(const std::string& word) {
    return RTD::Monitor::ESCAPE_CONTROLS(String(word));
}

std::vector<String> commandNames(const CLI::App& app) {
    std::vector<String> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        names.emplace_back(command->get_name());
    }
    return names;
}

// "--long" and "-s" spellings of the command's options, hidden ones included, and the help.
std::vector<String> optionNames(const CLI::App& command) {
    std::vector<String> names = {"--help", "-h"};
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.emplace_back("--" + name);
        }
        for (const std::string& name : option->get_snames()) {
            names.emplace_back("-" + name);
        }
    }
    return names;
}

// The option's own spelling: "--name" of "--name=x", "-v" of "-v3".
String optionSpelling(const std::string& word) {
    if (word.rfind("--", 0) == 0) {
        return String(word.substr(0, word.find('=')));
    }
    return String(word.substr(0, 2));
}

bool takesValue(const CLI::App& command, const std::string& word) {
    if (word.find('=') != std::string::npos || (word.rfind("--", 0) != 0 && word.size() > 2)) {
        return false;  // the value is attached
    }
    const CLI::Option* option = command.get_option_no_throw(word);
    return option != nullptr && option->get_type_size() != 0;
}

// A job option that this kind does not take but another does.
String otherKindsOption(const CLI::App& app, const String& spelling) {
    for (const CLI::App* other : app.get_subcommands([](const CLI::App*) { return true; })) {
        const std::vector<String> names = optionNames(*other);
        if (FIND_JOB_KIND(other->get_name()) != nullptr &&
            std::find(names.begin(), names.end(), spelling) != names.end()) {
            return other->get_name();
        }
    }
    return String();
}

bool checkOptionWords(const CLI::App& app, const CLI::App& command,
                      const std::vector<std::string>& words) {
    const std::vector<String> names = optionNames(command);
    const String name = command.get_name();
    for (std::size_t index = 1; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (word == "--") {
            return true;
        }
        if (word.size() < 2 || word[0] != '-') {
            continue;
        }
        const String spelling = optionSpelling(word);
        if (std::find(names.begin(), names.end(), spelling) == names.end()) {
            const String message =
                otherKindsOption(app, spelling).isEmpty()
                    ? String::format("unknown option '%s'", shown(word).c_str()) +
                          nearHint(spelling, names)
                    : String::format("option '%s' does not apply to %s", spelling.c_str(),
                                     name.c_str());
            PRINT_USAGE_ERROR(message, name);
            return false;
        }
        if (takesValue(command, word)) {
            ++index;
        }
    }
    return true;
}

bool isInteger(const std::string& word) {
    std::size_t start = word.size() > 1 && word[0] == '-' ? 1 : 0;
    return !word.empty() && start < word.size() &&
           std::all_of(word.begin() + static_cast<long>(start), word.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

String CLOSEST_WORD(const String& word, const std::vector<String>& candidates) {
    String best;
    std::size_t bestDistance = 0;
    for (const String& candidate : candidates) {
        const std::size_t distance = editDistance(word.str(), candidate.str());
        // A typo or two, but not more than a third of the word.
        const std::size_t allowed =
            std::min<std::size_t>(2, std::max<std::size_t>(1, word.length() / 3));
        // A start of the word ("conf"), or the word run on past it ("configure").
        const bool start =
            candidate.startsWith(word) || (candidate.length() >= 4 && word.startsWith(candidate));
        // A word of one or two letters ("-x") is near everything of its length.
        if (word.length() >= 3 && (distance <= allowed || start) &&
            (best.isEmpty() || distance < bestDistance)) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

void PRINT_USAGE_ERROR(const String& message, const String& command) {
    const String hint =
        command.isEmpty()
            ? String("Try 'provctl --help' for the list of commands.")
            : String::format("Try 'provctl %s --help' for its options.", command.c_str());
    std::fprintf(stderr, "provctl: %s\n%s\n", message.c_str(), hint.c_str());
}

bool CHECK_COMMAND_WORDS(CLI::App& app, const std::vector<std::string>& words) {
    if (words.empty()) {
        PRINT_USAGE_ERROR("a command is required", String());
        return false;
    }
    const std::string& first = words[0];
    if (first == "--help" || first == "-h" || first == "--version") {
        return true;
    }
    if (first.size() > 1 && first[0] == '-') {
        PRINT_USAGE_ERROR(String::format("unknown option '%s'", shown(first).c_str()) +
                              nearHint(String(first), {"--help", "--version"}),
                          String());
        return false;
    }
    std::vector<String> commands = commandNames(app);
    commands.emplace_back("help");
    if (std::find(commands.begin(), commands.end(), String(first)) == commands.end()) {
        PRINT_USAGE_ERROR(String::format("unknown command '%s'", shown(first).c_str()) +
                              nearHint(String(first), commands),
                          String());
        return false;
    }
    if (first == "help") {
        return true;
    }
    return checkOptionWords(app, *app.get_subcommand(first), words);
}

void VERBOSE_WITHOUT_LEVEL(std::vector<std::string>& words) {
    for (std::size_t index = 0; index < words.size() && words[index] != "--"; ++index) {
        if (words[index] == "-v" && (index + 1 == words.size() || !isInteger(words[index + 1]))) {
            words[index] = "--verbose";
        }
    }
}

bool CHECK_VERBOSITY(bool quiet, bool verbose, CLI::App& command, int level, Options& options) {
    const CLI::Option* levelOption = command.get_option_no_throw("-v");
    const bool levelGiven = levelOption != nullptr && levelOption->count() > 0;
    const String name = command.get_name();
    if (quiet && (verbose || levelGiven)) {
        PRINT_USAGE_ERROR("-q and -v exclude each other", name);
        return false;
    }
    if (levelGiven && (level < MIN_LEVEL || level > MAX_LEVEL)) {
        PRINT_USAGE_ERROR(
            String::format("-v %d: the level is one of %d to %d", level, MIN_LEVEL, MAX_LEVEL),
            name);
        return false;
    }
    options.level = levelGiven ? level : (verbose ? FULL_LEVEL : level);
    options.verbosity =
        quiet ? Verbosity::Quiet : (verbose || levelGiven ? Verbosity::Verbose : Verbosity::Normal);
    return true;
}

bool CHECK_DEVICE_OPTION(bool given, const Options& options) {
    if (given && options.device.isEmpty()) {
        PRINT_USAGE_ERROR("--device: the device directory is empty", options.command);
        return false;
    }
    return true;
}

bool CHECK_RELOAD(const Options& options) {
    const std::vector<String>& words = RELOAD_WORDS();
    if (std::find(words.begin(), words.end(), options.reload) != words.end()) {
        return true;
    }
    String valid;
    for (const String& word : words) {
        valid += (valid.isEmpty() ? "" : ", ") + word;
    }
    PRINT_USAGE_ERROR(
        String::format("--reload %s: not a reload type (valid: %s)",
                       RTD::Monitor::ESCAPE_CONTROLS(options.reload).c_str(), valid.c_str()) +
            nearHint(options.reload, words),
        options.command);
    return false;
}

bool CHECK_NAME(bool given, const Options& options) {
    if (!given || (ScriptProvisioningJob::IS_VALID_NAME(options.name) &&
                   options.name.length() <= MAX_NAME_LENGTH)) {
        return true;
    }
    const String name = RTD::Monitor::ESCAPE_CONTROLS(options.name);
    if (options.command == "script") {
        PRINT_USAGE_ERROR(String::format("--name %s: a script's name is one file name in "
                                         "/flash/provisioning (not \".\" or \"..\", no \"/\")",
                                         name.c_str()),
                          options.command);
    } else {
        PRINT_USAGE_ERROR(String::format("--name %s: a job's name is one file name in "
                                         "/tmp/provisioning (not \".\" or \"..\", no \"/\", "
                                         "at most %d bytes)",
                                         name.c_str(), MAX_NAME_LENGTH),
                          options.command);
    }
    return false;
}

bool TAKE_HTTPS_OPTIONS(CLI::App& command, bool httpsAuthGiven, const std::string& httpsAuth,
                        Options& options) {
    for (const char* name : {"--ca-certificate", "--certificate", "--private-key"}) {
        const CLI::Option* option = command.get_option_no_throw(name);
        if (option != nullptr && option->count() > 0) {
            options.httpsAuthGiven = true;
        }
    }
    if (!httpsAuthGiven) {
        return true;
    }
    const std::vector<String> parts = String(httpsAuth).split(',');
    if (options.httpsAuthGiven || parts.size() != 3) {
        PRINT_USAGE_ERROR(
            options.httpsAuthGiven
                ? String("--https-auth and the certificate options exclude each other")
                : String::format("--https-auth %s: expected CA,CERT,KEY (or use "
                                 "--ca-certificate, --certificate, --private-key)",
                                 shown(httpsAuth).c_str()),
            options.command);
        return false;
    }
    options.httpsAuthGiven = true;
    options.caCertificate = parts[0];
    options.certificate = parts[1];
    options.privateKey = parts[2];
    return true;
}

}  // namespace Provctl
