// libFuzzer target for ConfigProvisioningJob::getCliMajorVersion and isValidConfig.
//
// Input: a configuration text. Both members are compared with a model written here from their
// contract: the first "cli " followed by blanks and "version " whose line is terminated yields
// the first run of digits after it on that line (0 when none; a number beyond 32 bits saturates);
// a valid configuration holds "context ip", "port ethernet" and "interface" and names CLI version
// 4 or later. isValidConfig leaves the text as it was.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "jobs/content/ConfigProvisioningJob.h"

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

unsigned int modelCliMajorVersion(const std::string& text) {
    std::size_t search = 0;
    while (true) {
        std::size_t cli = text.find("cli ", search);
        if (cli == std::string::npos) {
            return 0;
        }
        std::size_t position = cli + 4;
        while (position < text.size() && text[position] == ' ') {
            ++position;
        }
        if (text.compare(position, 8, "version ") != 0) {
            search = position;
            continue;
        }
        std::size_t lineEnd = text.find('\n', position);
        if (lineEnd == std::string::npos) {
            return 0;
        }
        std::size_t digits = position;
        while (digits < lineEnd && !isDigit(text[digits])) {
            ++digits;
        }
        std::size_t end = digits;
        while (end < lineEnd && isDigit(text[end])) {
            ++end;
        }
        if (end == digits) {
            return 0;
        }
        unsigned long long value = 0;
        for (std::size_t i = digits; i < end; ++i) {
            value = value * 10 + static_cast<unsigned long long>(text[i] - '0');
            if (value > 0xFFFFFFFFULL) {
                return 0xFFFFFFFFU;
            }
        }
        return static_cast<unsigned int>(value);
    }
}

bool modelIsValid(const std::string& text) {
    return text.find("context ip") != std::string::npos &&
           text.find("port ethernet") != std::string::npos &&
           text.find("interface") != std::string::npos && modelCliMajorVersion(text) > 3;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    String text(input);
    check(ConfigProvisioningJob::getCliMajorVersion(text) == modelCliMajorVersion(input));
    check(ConfigProvisioningJob::isValidConfig(text) == modelIsValid(input));
    check(text.str() == input);
    return 0;
}
