// libFuzzer target for ExpressionResolver::replaceAllExpressions.
//
// Input: the first line is the text to rewrite; every further line, in order, fills one device
// value (MAC address, serial number, DHCP options 66 and 67, hardware, software and CLI versions,
// product names, then the five values without expression name). Without value lines a typical
// device is used. Values may hold anything, "$(" included: the resolver rescans its own output,
// and a value that brings an expression along must still end in a result.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "expression/ExpressionResolver.h"
#include "support/TypicalDevice.h"

namespace {

const char* const VALUE_NAMES[] = {
    "system.mac",
    "system.serial",
    "dhcp.66",
    "dhcp.67",
    "system.hw.major",
    "system.hw.minor",
    "system.sw.major",
    "system.sw.minor",
    "system.sw.build",
    "system.sw.date",
    "system.product.name",
    "system.product.basename",
    "cli.major",
    "cli.minor",
    "model",
    "oem",
    "hw.version",
    "hw.revision",
    "sw.version",
};

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const String input(reinterpret_cast<const char*>(data), size);
    ExpressionResolver resolver;
    int lineEnd = input.indexOf('\n');
    String text = lineEnd < 0 ? input : input.substring(0, lineEnd);
    if (lineEnd < 0) {
        provtest::fillTypicalDevice(resolver);
    }
    for (const char* name : VALUE_NAMES) {
        if (lineEnd < 0) {
            break;
        }
        const int valueStart = lineEnd + 1;
        lineEnd = input.indexOf('\n', valueStart);
        const String value =
            lineEnd < 0 ? input.substring(valueStart) : input.substring(valueStart, lineEnd);
        *ExpressionResolver::VALUE_BY_NAME(resolver, name) = value;
    }

    XCode result = resolver.replaceAllExpressions(text);
    if (result.isSuccess()) {
        // Nothing is left to resolve, so a second run changes nothing.
        check(text.indexOf("$(") < 0);
        const String resolved = text;
        check(resolver.replaceAllExpressions(text).isSuccess());
        check(text == resolved);
    } else {
        check(result.getValue() == XCode::GENERIC_FAILURE);
        check(!result.hasMessage());
        check(text.indexOf("$(") >= 0);
    }
    return 0;
}
