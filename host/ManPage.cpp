#include "host/ManPage.h"

#include <vector>

#include "host/CommandLine.h"

namespace Provctl {

namespace {

// A section heading of a page: a line of capitals (and blanks) at the start of the line.
bool isHeading(const String& line) {
    if (line.isEmpty() || line.at(0) == ' ') {
        return false;
    }
    for (char c : line.str()) {
        if (!(c >= 'A' && c <= 'Z') && c != ' ') {
            return false;
        }
    }
    return true;
}

// One line of text as roff shows it literally: a backslash is written \e, a minus \-, and a line
// that starts with a control character ('.' or ') is protected with \&.
String literal(const String& line) {
    String out;
    if (!line.isEmpty() && (line.at(0) == '.' || line.at(0) == '\'')) {
        out += "\\&";
    }
    for (char c : line.str()) {
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else {
            out += c;
        }
    }
    return out;
}

// A page's sections, under `level` (.SH or .SS), each as preformatted lines without the page's
// four-blank indentation.
String sections(const String& page, const char* level, const String& title) {
    String out;
    if (!title.isEmpty()) {
        out.concatf(".SH \"%s\"\n", title.c_str());
    }
    bool open = false;
    for (String line : page.split('\n')) {
        if (isHeading(line)) {
            out += open ? ".fi\n" : "";
            out.concatf("%s %s\n.nf\n", level, line.c_str());
            open = true;
            continue;
        }
        if (line.startsWith("    ")) {
            line = line.substring(4);
        }
        out += literal(line) + "\n";
    }
    return out + (open ? ".fi\n" : "");
}

}  // namespace

String MAN_PAGE() {
    String page =
        String::format(".TH PROVCTL 1 \"\" \"provctl %s\" \"User Commands\"\n", VERSION());
    page += sections(MANUAL_PAGE("provctl"), ".SH", String());
    std::vector<String> commands = {"resolve"};
    commands.insert(commands.end(), JOB_KINDS().begin(), JOB_KINDS().end());
    commands.push_back("demo");
    for (const String& command : commands) {
        page += sections(MANUAL_PAGE(command), ".SS", "provctl " + command);
    }
    return page;
}

}  // namespace Provctl
