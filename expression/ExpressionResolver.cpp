#include "expression/ExpressionResolver.h"

namespace {

using Getter = XCode (ExpressionResolver::*)(String&) const;

struct NamedGetter {
    const char* name;
    Getter getter;  // null for a reserved name
};

// Compared in this order. The "-encrypted" names are reserved: recognised, never computed, and
// failing like an unknown name (intended).
const NamedGetter EXPRESSION_NAMES[] = {
    {"system.mac", &ExpressionResolver::getMacAddress},
    {"system.mac-encrypted", nullptr},
    {"system.serial", &ExpressionResolver::getSerialNumber},
    {"system.serial-encrypted", nullptr},
    {"dhcp.66", &ExpressionResolver::getTftpServer},
    {"dhcp.67", &ExpressionResolver::getTftpFileName},
    {"system.hw.major", &ExpressionResolver::getHwMajor},
    {"system.hw.minor", &ExpressionResolver::getHwMinor},
    {"system.sw.major", &ExpressionResolver::getSwMajor},
    {"system.sw.minor", &ExpressionResolver::getSwMinor},
    {"system.sw.build", &ExpressionResolver::getSwBuild},
    {"system.sw.date", &ExpressionResolver::getSwDate},
    {"system.product.name", &ExpressionResolver::getProductName},
    {"system.product.basename", &ExpressionResolver::getProductBaseName},
    {"cli.minor", &ExpressionResolver::getCliMinorVersion},
    {"cli.major", &ExpressionResolver::getCliMajorVersion},
};

const String EXPRESSION_START = "$(";

int expressionCount(const String& text) {
    int found = 0;
    for (int at = text.indexOf(EXPRESSION_START); at >= 0;
         at = text.indexOf(EXPRESSION_START, at + 2)) {
        ++found;
    }
    return found;
}

struct NamedValue {
    const char* name;
    String ExpressionResolver::*value;
};

// The names that hosts fill, in the order of the manual.
const NamedValue VALUES[] = {
    {"system.mac", &ExpressionResolver::macAddress},
    {"system.serial", &ExpressionResolver::serialNumber},
    {"dhcp.66", &ExpressionResolver::tftpServer},
    {"dhcp.67", &ExpressionResolver::tftpFileName},
    {"system.hw.major", &ExpressionResolver::hwMajor},
    {"system.hw.minor", &ExpressionResolver::hwMinor},
    {"system.sw.major", &ExpressionResolver::swMajor},
    {"system.sw.minor", &ExpressionResolver::swMinor},
    {"system.sw.build", &ExpressionResolver::swBuild},
    {"system.sw.date", &ExpressionResolver::swDate},
    {"system.product.name", &ExpressionResolver::productName},
    {"system.product.basename", &ExpressionResolver::productBaseName},
    {"cli.major", &ExpressionResolver::cliMajorVersion},
    {"cli.minor", &ExpressionResolver::cliMinorVersion},
    {"model", &ExpressionResolver::modelName},
    {"oem", &ExpressionResolver::oemName},
    {"hw.version", &ExpressionResolver::hwVersion},
    {"hw.revision", &ExpressionResolver::hwRevision},
    {"sw.version", &ExpressionResolver::swVersion},
};

}  // namespace

ExpressionResolver::ExpressionResolver() = default;

ExpressionResolver::~ExpressionResolver() = default;

bool ExpressionResolver::HOLDS_EXPRESSION(const String& value) {
    return value.indexOf(EXPRESSION_START) >= 0;
}

XCode ExpressionResolver::replaceAllExpressions(String& text) const {
    int count = 0;
    const int limit = expressionCount(text) + MAX_EXTRA_REPLACEMENTS;
    // Every pass searches from the very start: a value that brings a "$(" along is resolved again.
    for (int start = text.indexOf(EXPRESSION_START); start >= 0;
         start = text.indexOf(EXPRESSION_START)) {
        XCode result = replaceNested(text, count, start, limit, 0);
        if (result.isErr()) {
            return result;
        }
    }
    return testExpression(true);
}

XCode ExpressionResolver::replaceSubExpression(String& text, int& count, int start) const {
    return replaceNested(text, count, start, count + expressionCount(text) + MAX_EXTRA_REPLACEMENTS,
                         0);
}

XCode ExpressionResolver::replaceNested(String& text, int& count, int start, int limit,
                                        int depth) const {
    if (count >= limit || depth >= MAX_NESTING) {
        return XCode::FAILURE();
    }
    const int inner = start + 2;
    int next = text.indexOf(EXPRESSION_START, inner);
    int close = text.indexOf(')', inner);
    if (close < 0) {
        return XCode::FAILURE();
    }
    while (next >= 0 && next < close) {
        XCode result = replaceNested(text, count, next, limit, depth + 1);
        if (result.isErr()) {
            return result;
        }
        next = text.indexOf(EXPRESSION_START, inner);
        close = text.indexOf(')', inner);
        if (close < 0) {
            return XCode::FAILURE();
        }
    }
    String value;
    XCode result = replaceExpression(text.substring(inner, close), value);
    if (result.isErr()) {
        return result;
    }
    text.deleteRegion(start, close - start + 1);
    text.insert(start, value);
    ++count;
    return result;
}

XCode ExpressionResolver::replaceExpression(const String& expr, String& value) const {
    const int bar = expr.indexOf('|');
    if (bar < 0) {
        return resolveExpression(expr, value);
    }
    String first;
    String second;
    XCode result = extractPlaceholders(expr, first, second);
    if (result.isErr()) {
        return result;
    }
    String name;
    String number;
    eExpressionCondition op = EQUAL;
    result = extractCondition(expr.substring(0, bar), name, number, op);
    if (result.isErr()) {
        return result;
    }
    return resolveConditionalExpr(op, name, number, first, second, value);
}

XCode ExpressionResolver::resolveExpression(const String& name, String& value) const {
    for (const NamedGetter& entry : EXPRESSION_NAMES) {
        if (name == entry.name) {
            if (entry.getter == nullptr) {
                return XCode::FAILURE();
            }
            return (this->*entry.getter)(value);
        }
    }
    return XCode::FAILURE();
}

XCode ExpressionResolver::extractCondition(const String& cond, String& left, String& right,
                                           eExpressionCondition& op) const {
    const int gt = cond.indexOf('>');
    const int lt = cond.indexOf('<');
    const int eq = cond.indexOf('=');
    auto before = [](int position, int other) { return other < 0 || position < other; };
    int split = -1;
    int rightStart = -1;
    eExpressionCondition found = EQUAL;
    if (gt >= 0 && before(gt, lt) && before(gt, eq)) {
        split = gt;
        const bool orEqual = gt + 1 < cond.length() && cond.at(gt + 1) == '=';
        found = orEqual ? GREATER_OR_EQUAL : GREATER;
        rightStart = gt + (orEqual ? 2 : 1);
    } else if (lt >= 0 && before(lt, gt) && before(lt, eq)) {
        split = lt;
        const bool orEqual = lt + 1 < cond.length() && cond.at(lt + 1) == '=';
        found = orEqual ? LESS_OR_EQUAL : LESS;
        rightStart = lt + (orEqual ? 2 : 1);
    } else if (eq >= 0 && before(eq, gt)) {
        split = eq;
        found = EQUAL;
        rightStart = eq + 1;
    } else {
        return XCode::FAILURE();
    }
    left = cond.substring(0, split);
    right = cond.substring(rightStart);
    op = found;
    return testExpression(true);
}

XCode ExpressionResolver::extractPlaceholders(const String& expr, String& first,
                                              String& second) const {
    const int bar = expr.indexOf('|');
    if (bar < 0) {
        return XCode::FAILURE();
    }
    const int a = bar + 1;
    const int b = expr.indexOf('|', a);
    if (b >= 0) {
        first = expr.substring(a, b);
        // Further '|' characters belong to SECOND.
        second = expr.substring(b + 1);
    } else {
        first = expr.substring(a);
        second = String();
    }
    return testExpression(true);
}

XCode ExpressionResolver::resolveConditionalExpr(unsigned short op, const String& name,
                                                 const String& number, const String& first,
                                                 const String& second, String& value) const {
    String systemValue;
    XCode result = resolveExpression(name, systemValue);
    if (result.isErr() || !systemValue.isNumeric() || !number.isNumeric()) {
        return XCode::FAILURE();
    }
    const unsigned int a = systemValue.toUnsigned();
    const unsigned int b = number.toUnsigned();
    bool holds = false;
    switch (op) {
        case GREATER:
            holds = a > b;
            break;
        case GREATER_OR_EQUAL:
            holds = a >= b;
            break;
        case LESS:
            holds = a < b;
            break;
        case LESS_OR_EQUAL:
            holds = a <= b;
            break;
        case EQUAL:
            holds = a == b;
            break;
        default:
            return XCode::FAILURE();
    }
    value = holds ? first : second;
    return testExpression(true);
}

XCode ExpressionResolver::getMacAddress(String& value) const {
    value = macAddress;
    return testExpression(true);
}

XCode ExpressionResolver::getSerialNumber(String& value) const {
    value = serialNumber;
    return testExpression(true);
}

XCode ExpressionResolver::getTftpServer(String& value) const {
    value = tftpServer;
    return testExpression(true);
}

XCode ExpressionResolver::getTftpFileName(String& value) const {
    value = tftpFileName;
    return testExpression(true);
}

XCode ExpressionResolver::getHwMajor(String& value) const {
    value = hwMajor;
    return testExpression(true);
}

XCode ExpressionResolver::getHwMinor(String& value) const {
    value = hwMinor;
    return testExpression(true);
}

XCode ExpressionResolver::getSwMajor(String& value) const {
    value = swMajor;
    return testExpression(true);
}

XCode ExpressionResolver::getSwMinor(String& value) const {
    value = swMinor;
    return testExpression(true);
}

XCode ExpressionResolver::getSwBuild(String& value) const {
    value = swBuild;
    return testExpression(true);
}

XCode ExpressionResolver::getSwDate(String& value) const {
    value = swDate;
    return testExpression(true);
}

XCode ExpressionResolver::getProductName(String& value) const {
    value = productName;
    return testExpression(true);
}

XCode ExpressionResolver::getProductBaseName(String& value) const {
    value = productBaseName;
    return testExpression(true);
}

XCode ExpressionResolver::getCliMajorVersion(String& value) const {
    value = cliMajorVersion;
    return testExpression(true);
}

XCode ExpressionResolver::getCliMinorVersion(String& value) const {
    value = cliMinorVersion;
    return testExpression(true);
}

XCode ExpressionResolver::getModelName(String& value) const {
    value = modelName;
    return testExpression(true);
}

XCode ExpressionResolver::getOemName(String& value) const {
    value = oemName;
    return testExpression(true);
}

XCode ExpressionResolver::getHwVersion(String& value) const {
    value = hwVersion;
    return testExpression(true);
}

XCode ExpressionResolver::getHwRevision(String& value) const {
    value = hwRevision;
    return testExpression(true);
}

XCode ExpressionResolver::getSwVersion(String& value) const {
    value = swVersion;
    return testExpression(true);
}

String* ExpressionResolver::VALUE_BY_NAME(ExpressionResolver& resolver, const String& name) {
    for (const NamedValue& entry : VALUES) {
        if (name == entry.name) {
            return &(resolver.*entry.value);
        }
    }
    return nullptr;
}

const char* ExpressionResolver::VALUE_NAME_AT(std::size_t index) {
    return index < sizeof VALUES / sizeof VALUES[0] ? VALUES[index].name : nullptr;
}
